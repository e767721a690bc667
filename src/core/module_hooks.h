// The calls into subsystems still to be built into the agent: the blackbox. Each hook
// answers what the agent sees today: the feature is not available. As a subsystem lands, its hook is
// removed and the call site calls the subsystem.
#ifndef QV_CORE_MODULE_HOOKS_H
#define QV_CORE_MODULE_HOOKS_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

namespace qv::hook {

// Opens the blackbox file named in szBlackboxFile; 0 when the blackbox is in use, else 1.
uint32_t InitLogBlackbox(QvAgentModule *module);

// Reads whole records from the blackbox into dst (room bytes); the bytes read, 0 when none.
uint32_t ReadBlackbox(uint8_t *dst, uint32_t room, QvAgentModule *module);

// True when the blackbox holds no record to send, or is not in use.
bool BlackboxIsEmpty();

// After an acknowledgement of the log kind: commits what was read from the blackbox and moves the
// records queued on list 0 into it.
void CommitBlackbox(QvAgentSendList &logList, QvAgentModule *module);

// Writes a log record into the blackbox: 0 stored, 0xFFFFFFFA full, 1 any other failure.
uint32_t WriteBlackbox(const uint8_t *record, uint32_t len);

}  // namespace qv::hook

#endif
