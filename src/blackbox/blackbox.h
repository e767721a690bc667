// The blackbox inside the agent: the helpers its files share.
#ifndef QV_BLACKBOX_BLACKBOX_H
#define QV_BLACKBOX_BLACKBOX_H

#include <cstdint>

#include "qvagent/qv_agent_blackbox.h"

namespace qv::box {

// Reads the head, initialising (and writing) it when it is not valid for this start. False when the
// head cannot be transferred.
bool LoadHead(QvAgentLogBox *box, QvAgentBoxHead &head);

// Empties the box: a fresh head, written. False when it cannot be written.
bool Reset(QvAgentLogBox *box, QvAgentBoxHead &head);

// Writes a record head and its record at data-area position pos: one system call unless the pair
// wraps or the write falls short. False when either is not written whole.
bool WriteRecord(QvAgentLogBox *box, const QvAgentBoxHead &head, uint32_t pos, const uint8_t *recordHead,
                 const uint8_t *record, uint32_t len);

// Position pos advanced by len bytes around the data area.
inline uint32_t Advance(const QvAgentBoxHead &head, uint32_t pos, uint32_t len) {
    return static_cast<uint32_t>((uint64_t{pos} + len) % head.uiCapacity);
}

}  // namespace qv::box

#endif
