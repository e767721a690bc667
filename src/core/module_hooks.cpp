// Hooks for the subsystems still to be built into the agent (see module_hooks.h). Each answers "not
// available" in the terms of its caller, so the module is created with the feature off.
#include "core/module_hooks.h"

namespace qv::hook {

namespace {
constexpr uint32_t kNotAvailable = QV_AGENT_ERR_FAILED;
}

uint32_t InitLogBlackbox(QvAgentModule * /*module*/) { return kNotAvailable; }

uint32_t ReadBlackbox(uint8_t * /*dst*/, uint32_t /*room*/, QvAgentModule * /*module*/) { return 0; }

bool BlackboxIsEmpty() { return true; }

void CommitBlackbox(QvAgentSendList & /*logList*/, QvAgentModule * /*module*/) {}

uint32_t WriteBlackbox(const uint8_t * /*record*/, uint32_t /*len*/) { return kNotAvailable; }

}  // namespace qv::hook
