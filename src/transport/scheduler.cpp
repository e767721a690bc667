// The scheduler thread of mesh mode and the agent's timer on it. Everything of mesh mode runs on that
// one thread: the timer tick and the acknowledgement callbacks of the mesh sockets, one at a time.
#include "transport/scheduler.h"

#include <cstring>

#include "core/shared_field.h"
#include "kpi/kpi_internal.h"
#include "qvagent/qv_agent_kpi.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/kev.h"
#include "transport/board_discovery.h"
#include "transport/mesh_mode.h"
#include "transport/send_window.h"
#include "transport/test_reports.h"

namespace {

// The scheduler thread's attributes, the option of the sockets' tasks and the events they wait for.
constexpr char kThreadName[] = "QV_AGENT_SEND";
constexpr uint32_t kThreadPriority = 32;
constexpr uint32_t kThreadOption = 2;
constexpr uint32_t kTaskOption = 1;
constexpr uint32_t kWatchedEvents = KEV_EVENT_READ | KEV_EVENT_HUP;
constexpr uint32_t kNoTaskAttributes = 2;

// Send passes of one tick, in order: kind and collector port.
constexpr struct {
    int32_t kind;
    int32_t port;
} kTickPasses[] = {{QV_AGENT_MSG_LOG, QV_WIRE_PORT_LOG},
                   {QV_AGENT_MSG_DEBUG, QV_WIRE_PORT_DEBUG},
                   {QV_AGENT_MSG_ALARM, QV_WIRE_PORT_ALARM},
                   {QV_AGENT_MSG_HIGH_PRECISION, QV_WIRE_PORT_HIGH_PRECISION}};

template <typename T>
uint32_t SetAttr(uint32_t (*set)(void *, uint32_t, const void *, uint32_t), void *attr, uint32_t id, const T &value) {
    return set(attr, id, &value, sizeof value);
}

}  // namespace

uint32_t QV_AGENT_CreateKEVSchedulerThread(QvAgentSchedCtrl *ctrl) {
    if (ctrl == nullptr) return QV_AGENT_ERR_FAILED;
    void *attr = KEV_ThreadCreateAttr();
    if (attr == nullptr) return QV_AGENT_ERR_FAILED;
    const bool set = KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_NAME, kThreadName, sizeof kThreadName - 1) == 0 &&
                     SetAttr(KEV_ThreadSetAttr, attr, KEV_THREAD_ATTR_PRIORITY, kThreadPriority) == 0 &&
                     SetAttr(KEV_ThreadSetAttr, attr, KEV_THREAD_ATTR_OPTION, kThreadOption) == 0;
    if (set) ctrl->ulSchedThread = KEV_ThreadCreate(attr);
    KEV_ThreadDestroyAttr(attr);
    return set ? QV_AGENT_OK : QV_AGENT_ERR_FAILED;
}

uint64_t QV_AGENT_CreateKEVTimer(uint32_t periodMs, QvAgentTimerProc callback, void *arg, uint32_t periodic,
                                 uint64_t schedThread) {
    void *attr = KEV_TimerCreateAttr();
    if (attr == nullptr) return 0;
    const KEV_TIMER_FUNC_S func{callback, arg};
    uint64_t timer = 0;
    if (SetAttr(KEV_TimerSetAttr, attr, KEV_TIMER_ATTR_FUNC, func) == 0 &&
        SetAttr(KEV_TimerSetAttr, attr, KEV_TIMER_ATTR_PERIODIC, periodic) == 0 &&
        SetAttr(KEV_TimerSetAttr, attr, KEV_TIMER_ATTR_PERIOD_MS, periodMs) == 0) {
        timer = KEV_TimerCreate(schedThread, attr);
    }
    if (timer != 0 && KEV_TimerStart(timer) != 0) {
        KEV_TimerDestroy(timer);
        timer = 0;
    }
    KEV_TimerDestroyAttr(attr);
    return timer;
}

uint32_t QV_AGENT_StopKEVTimer(uint64_t timer) { return timer == 0 ? QV_AGENT_OK : KEV_TimerDestroy(timer); }

uint32_t QV_AGENT_AddKEVThreadCtrl(int32_t fd, QvAgentEventProc callback, uint64_t schedThread, QvAgentModule *module) {
    void *task = KEV_TaskCreateAttr();
    if (task == nullptr) return kNoTaskAttributes;
    const KEV_TASK_FUNC_S func{callback, module};
    uint32_t rc = SetAttr(KEV_TaskSetAttr, task, KEV_TASK_ATTR_FUNC, func);
    if (rc == 0) rc = SetAttr(KEV_TaskSetAttr, task, KEV_TASK_ATTR_OPTION, kTaskOption);
    if (rc == 0) {
        KEV_CTRL_S ctrl{kWatchedEvents, task};
        rc = KEV_ThreadCtrl(schedThread, KEV_CTRL_ADD, fd, &ctrl);
    }
    KEV_TaskDestroyAttr(task);
    return rc;
}

uint32_t QV_AGENT_DelKEVThreadCtrl(uint32_t fd, uint64_t schedThread, QvAgentModule * /*module*/) {
    return KEV_ThreadCtrl(schedThread, KEV_CTRL_DEL, static_cast<int32_t>(fd), nullptr);
}

void QV_AGENT_SendMeshMsgTimerProc(int32_t k, int32_t port, QvAgentModule *module) {
    if (module == nullptr || k < 0 || k >= static_cast<int32_t>(QV_AGENT_MSG_KIND_COUNT)) return;
    qv::window::ClearPassCounters(module);
    if (qv::LoadShared(module->auiMeshState[k]) != QV_AGENT_STATE_READY || module->aiMeshFd[k] == -1) {
        QV_AGENT_ReCreateMeshFd(static_cast<uint32_t>(k), module);  // and send nothing this tick
        return;
    }
    QV_AGENT_SendMeshMsg(static_cast<uint32_t>(k), port, module);
}

uint32_t QV_AGENT_SendTimerProc(uint64_t /*value1*/, uint64_t /*value2*/, void *arg) {
    auto *module = static_cast<QvAgentModule *>(arg);
    if (module == nullptr) return QV_AGENT_OK;
    if (qv::LoadShared(module->bServerInfoValid) != 1) QV_AGENT_GetLocalServerInfo(module);
    ++module->uiTick;
    QV_AGENT_Check_DiagRestrainTree(module);
    for (const auto &pass : kTickPasses) QV_AGENT_SendMeshMsgTimerProc(pass.kind, pass.port, module);
    if (qv::LoadShared(module->auiMeshState[QV_AGENT_MSG_KPI]) == QV_AGENT_STATE_READY) {
        QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module);
        ++module->uiKpiTick;
        qv::kpi::Simulate(module->uiKpiTick, module);
    } else {
        QV_AGENT_ReCreateMeshFd(QV_AGENT_MSG_KPI, module);
    }
    QV_AGENT_ReportTestLogForGlobalVariables(module);
    QV_AGENT_ReportTestHighPrecLogForGlbVar(module);
    return QV_AGENT_OK;
}
