// Helpers for tests of the agent.
#include "agent_support.h"

#include <cstdlib>
#include <cstring>

#include "core/memory_internal.h"
#include "qvplatform/pal.h"
#include "record_decoder.h"
#include "transport/send_window.h"
#include "transport/socket_mode.h"

namespace qvtest {

QvAgentServiceDesc MakeDesc(const std::string &name, uint32_t serviceId, uint32_t listLimit) {
    QvAgentServiceDesc desc{};
    std::strncpy(desc.szServiceName, name.c_str(), sizeof desc.szServiceName - 1);
    desc.uiServiceId = serviceId;
    desc.uiListLimit = listLimit;
    return desc;
}

void ReleaseModule() {
    QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr) return;
    QV_Agent_SetHandle(nullptr);
    if (module->ulSendThread != 0 || module->ulRecvThread != 0) QV_AGENT_DeleteThread(module);
    if (module->iSockFd > 0) QV_AGENT_CloseSocket(module);
    for (QvAgentSendList &list : module->astSendList) QV_AGENT_FreeResendMsg(&list, module);
    DrainLists(module);
    QV_AGENT_DiagNodeDelete(module);
    QV_AGENT_Free(module->pstSchedCtrl, module);
    pthread_mutex_destroy(&module->stListMutex);
    pthread_mutex_destroy(&module->stDiagMutex);
    pthread_mutex_destroy(&module->stKpiMutex);
    QV_AGENT_Free(module, module);
}

uint64_t AgentBlocks() { return qv::BlocksOutstanding(); }

uint32_t RestraintEntries(QvAgentModule *module) {
    uint32_t n = 0;
    for (auto *node = static_cast<PAL_AVL_NODE_S *>(module->stDiagTree.pstFirst); node != nullptr;
         node = PAL_AVL_Next(node)) {
        ++n;
    }
    return n;
}

ServiceTypeEnv::ServiceTypeEnv(const char *value) {
    const char *old = std::getenv("PX_SERVICE_TYPE");
    hadValue_ = old != nullptr;
    if (hadValue_) saved_ = old;
    if (value != nullptr) {
        setenv("PX_SERVICE_TYPE", value, 1);
    } else {
        unsetenv("PX_SERVICE_TYPE");
    }
}

ServiceTypeEnv::~ServiceTypeEnv() {
    if (hadValue_) {
        setenv("PX_SERVICE_TYPE", saved_.c_str(), 1);
    } else {
        unsetenv("PX_SERVICE_TYPE");
    }
}

}  // namespace qvtest
