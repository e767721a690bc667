// Pieces shared by log and alarm records: the length field, option and parameter entries, the
// parameter buffer's head, and appending the parameters to a finished record.
#ifndef QV_EVENT_RECORD_ENTRY_H
#define QV_EVENT_RECORD_ENTRY_H

#include <cstddef>
#include <cstdint>

#include "core/bytes.h"
#include "qvagent/qv_agent_types.h"
#include "qvagent/qv_agent_wire.h"

namespace qv::record {

inline uint16_t Length(const uint8_t *record) { return bytes::LoadHost<uint16_t>(record + QV_REC_LEN_OFF); }
inline void SetLength(uint8_t *record, uint32_t len) {
    bytes::StoreHost<uint16_t>(record + QV_REC_LEN_OFF, static_cast<uint16_t>(len));
}

// Adds one to a u32 count at offset (option counts).
inline void CountUp32(uint8_t *record, uint32_t offset) {
    bytes::StoreHost<uint32_t>(record + offset, bytes::LoadHost<uint32_t>(record + offset) + 1);
}

inline void MarkSent(uint8_t *record, uint32_t optCountOffset) {
    bytes::StoreHost<uint32_t>(record + optCountOffset,
                               bytes::LoadHost<uint32_t>(record + optCountOffset) | QV_REC_OPT_MARKER);
}

// The parameter buffer: u16 0, u16 bytes used (these four included), then entries.
constexpr uint32_t kParaHeadLen = 4;
inline uint16_t ParaUsed(const uint8_t *para) { return bytes::LoadHost<uint16_t>(para + 2); }
inline void SetParaUsed(uint8_t *para, uint32_t used) {
    bytes::StoreHost<uint16_t>(para + 2, static_cast<uint16_t>(used));
}
inline void ResetParaBuf(uint8_t *para) {
    bytes::StoreHost<uint16_t>(para, 0);
    SetParaUsed(para, kParaHeadLen);
}

// The stored length of a value: an empty value is stored as one 0 byte.
inline uint16_t StoredLen(uint16_t len) { return len == 0 ? uint16_t{1} : len; }

// Writes an option entry at `at`: type, length, and the value copied with `room` bytes allowed for it.
// 0, or the bounded copy's error.
uint32_t WriteOption(uint8_t *at, size_t room, uint32_t type, uint16_t len, const void *value);

// The same for a parameter entry, where an empty value is stored as one 0 byte.
uint32_t WriteParameter(uint8_t *at, size_t room, uint32_t type, uint16_t len, const void *value);

// Cuts a type-25 text value to `max` bytes, terminating it in the caller's buffer.
void CutText(uint32_t type, uint16_t &len, void *value, uint16_t max);

// Writes the 12-byte wall time (year, month, day, hour, minute, second, weekday byte, millisecond)
// at `at`; alarm heads keep 0 in the weekday byte.
void StoreWallTime(uint8_t *at, const QvAgentSysTime &time, uint8_t weekdayByte);

// Appends the parameter entries after a record's options: QV_AGENT_ERR_NO_ROOM when the record
// would pass its nominal capacity.
uint32_t AppendParas(uint8_t *record, const uint8_t *para);

}  // namespace qv::record

#endif
