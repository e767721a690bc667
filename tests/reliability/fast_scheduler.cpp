// The mesh-mode transport with a fast tick.
#include "fast_scheduler.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>

#include "transport/scheduler.h"

namespace qvtest {

bool StartFastScheduler(QvAgentModule *module, uint32_t periodMs) {
    auto *ctrl = static_cast<QvAgentSchedCtrl *>(QV_AGENT_Malloc(sizeof(QvAgentSchedCtrl), module));
    if (ctrl == nullptr) return false;
    std::memset(ctrl, 0, sizeof *ctrl);
    if (QV_AGENT_CreateKEVSchedulerThread(ctrl) != QV_AGENT_OK || ctrl->ulSchedThread == 0) {
        QV_AGENT_Free(ctrl, module);
        return false;
    }
    module->pstSchedCtrl = ctrl;
    bool ready = true;
    // Made here rather than by the first tick, so that the test thread knows the descriptors without
    // reading what the scheduler thread writes.
    for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
        QV_AGENT_ReCreateMeshFd(k, module);
        ready = ready && module->auiMeshState[k] == QV_AGENT_STATE_READY;
    }
    ctrl->ulTimer = QV_AGENT_CreateKEVTimer(periodMs, QV_AGENT_SendTimerProc, module, 1, ctrl->ulSchedThread);
    return ready && ctrl->ulTimer != 0;
}

uint16_t LocalPort(int fd) {
    sockaddr_in local{};
    socklen_t len = sizeof local;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&local), &len) != 0) return 0;
    return ntohs(local.sin_port);
}

}  // namespace qvtest
