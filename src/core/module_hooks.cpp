// Hooks for the subsystems still to be built into the agent (see module_hooks.h). Each answers "not
// available" in the terms of its caller, so the module is created with the feature off.
#include "core/module_hooks.h"

#include "qvagent/qv_agent_event.h"

namespace qv::hook {

namespace {
constexpr uint32_t kNotAvailable = QV_AGENT_ERR_FAILED;
}

uint32_t InitLogBlackbox(QvAgentModule * /*module*/) { return kNotAvailable; }

void LoadDeviceManagement(QvAgentModule * /*module*/) {}

uint32_t CreateSchedulerThread(QvAgentSchedCtrl * /*ctrl*/) { return kNotAvailable; }

uint64_t CreateSendTimer(QvAgentModule * /*module*/) { return 0; }

uint32_t CreateSocket(QvAgentModule * /*module*/) { return kNotAvailable; }

uint32_t CreateSocketThreads(QvAgentModule * /*module*/) { return QV_AGENT_ERR_THREAD; }

uint32_t MeshSendToCollector(QvAgentModule * /*module*/, uint32_t /*kind*/, uint32_t /*collectorIp*/,
                             const uint8_t * /*data*/, uint32_t /*len*/) {
    return kNotAvailable;
}

uint32_t MainBoardIp(QvAgentModule *module) { return module->uiMainBoardIp; }

uint32_t RestrainDiagnosticLog(const uint8_t *record, uint32_t len, QvAgentModule *module) {
    return QV_AGENT_AddSendBuf(record, len, QV_AGENT_MSG_LOG, module);
}

uint32_t WriteBlackbox(const uint8_t * /*record*/, uint32_t /*len*/) { return kNotAvailable; }

}  // namespace qv::hook
