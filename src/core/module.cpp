// The module record of the process: its creation, publication in g_QvHandle, soft shutdown and
// refresh, and the recovery of the socket-mode transport.
#include <sys/socket.h>

#include <cstring>

#include "blackbox/blackbox.h"
#include "core/memory_internal.h"
#include "core/mutex_guard.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/pal.h"
#include "qvplatform/qv_bounded.h"
#include "transport/board_discovery.h"
#include "transport/scheduler.h"
#include "transport/socket_mode.h"

uintptr_t g_QvHandle = 0;
pthread_mutex_t g_handleMutex;
uint32_t g_handleMutexInited = 0;
pthread_mutex_t g_qvagntInitMutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

constexpr char kMemHandleName[] = "qvagent";
constexpr uint32_t kTickPeriodMs = 1000;
constexpr uint32_t kPeriodic = 1;
// Blackbox names that never take the queuing role of the blackbox.
constexpr char kBlackboxNeverUsed[] = "LOG_ukt";
constexpr char kBlackboxNotForQueuing[] = "LOG_lmo_xvd_blackbox";

bool Contains(const char *text, const char *part) { return PAL_StrStr(text, part) != nullptr; }

// The platform mutex helpers' u32 result.
uint32_t MutexResult(int rc) { return static_cast<uint32_t>(rc); }

void InitListHead(QvAgentSendList &list) {
    auto *self = reinterpret_cast<QvAgentListItem *>(&list);
    list.pstNext = self;
    list.pstPrev = self;
    list.uiCount = 0;
}

void InitRestraintTree(QvAgentModule *module) {
    module->stDiagTree.pfnCompare = QV_AGENT_DiagStatisTreeCompare;
    module->stDiagTree.pstRoot = nullptr;
    module->stDiagTree.pstFirst = nullptr;
    module->stDiagTree.pstLast = nullptr;
    pthread_mutex_init(&module->stDiagMutex, nullptr);
}

// Steps 8 and 9 of creation: the scheduler control block, the scheduler thread and the timer.
// False only when the control block cannot be allocated.
bool StartScheduler(QvAgentModule *module, const QvAgentServiceDesc *desc) {
    auto *ctrl = static_cast<QvAgentSchedCtrl *>(QV_AGENT_MallocWithInit(sizeof(QvAgentSchedCtrl), desc));
    if (ctrl == nullptr) return false;
    std::memset(ctrl, 0, sizeof *ctrl);
    module->pstSchedCtrl = ctrl;
    if (QV_AGENT_CreateKEVSchedulerThread(ctrl) != QV_AGENT_OK || ctrl->ulSchedThread == 0) {
        QV_AGENT_FreeWithInit(ctrl, desc);
        module->pstSchedCtrl = nullptr;
        module->uiTransportState = QV_AGENT_STATE_NO_THREADS;
        return true;
    }
    QV_AGENT_CreateModuleTimerInit(module);
    module->uiTransportState = QV_AGENT_STATE_READY;
    return true;
}

void DestroyModuleMutexes(QvAgentModule *module) {
    pthread_mutex_destroy(&module->stListMutex);
    pthread_mutex_destroy(&module->stDiagMutex);
    pthread_mutex_destroy(&module->stKpiMutex);
}

// True when iSockFd is an open datagram socket. A module created without a scheduler thread never had
// a socket, and its zeroed iSockFd cannot tell that by itself: descriptor 0 may be a socket too.
bool HasDatagramSocket(const QvAgentModule *module) {
    int type = 0;
    socklen_t len = sizeof type;
    return module->iSockFd >= 0 && getsockopt(module->iSockFd, SOL_SOCKET, SO_TYPE, &type, &len) == 0 &&
           type == SOCK_DGRAM;
}

}  // namespace

QvAgentModule *QV_Agent_GetHandle(void) { return reinterpret_cast<QvAgentModule *>(g_QvHandle); }

void QV_Agent_SetHandle(QvAgentModule *module) { g_QvHandle = reinterpret_cast<uintptr_t>(module); }

uint32_t QV_Agent_HandleMutexLock(void) { return MutexResult(pthread_mutex_lock(&g_handleMutex)); }

uint32_t QV_Agent_HandleUnMutexLock(void) { return MutexResult(pthread_mutex_unlock(&g_handleMutex)); }

uint32_t QV_Agent_InitHandleMutexLock(void) {
    qv::MutexGuard guard(g_qvagntInitMutex);
    if (g_handleMutexInited == 1) return QV_AGENT_OK;
    pthread_mutexattr_t attr;
    int rc = pthread_mutexattr_init(&attr);
    if (rc != 0) {
        QV_AGENT_WriteToFile("mutex atr init error, ret=%d", rc);
        return QV_AGENT_ERR_FAILED;
    }
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
    rc = pthread_mutex_init(&g_handleMutex, &attr);
    pthread_mutexattr_destroy(&attr);
    if (rc != 0) {
        QV_AGENT_WriteToFile("mutex init error, ret=%d", rc);
        return QV_AGENT_ERR_FAILED;
    }
    g_handleMutexInited = 1;
    return QV_AGENT_OK;
}

// Keeps the allocator choice while any block of the agent is outstanding, so that every block goes
// back to the allocator that produced it.
uint32_t QV_Agent_InitMemHandle(void) {
    qv::MutexGuard guard(g_farnoInitMutex);
    if (qv::BlocksOutstanding() == 0) g_farnoInited = PAL_StarterSystemStartUpIs();
    if (g_farnoInited != 0) {
        const uint32_t rc = PAL_HandleInitialize(kMemHandleName, &g_qvagentMemHandle);
        if (rc != 0) {
            QV_AGENT_WriteToFile("init memory handle error, ret=%u", rc);
            return QV_AGENT_ERR_FAILED;
        }
    }
    return QV_AGENT_OK;
}

QvAgentModule *QV_Agent_Init(const QvAgentServiceDesc *desc) {
    if (desc == nullptr) return nullptr;
    uint32_t rc = QV_Agent_InitHandleMutexLock();
    QV_AGENT_WriteToFile("qvagent init mutex lock, ret=%d, service=%s", static_cast<int>(rc), desc->szServiceName);
    if (rc != QV_AGENT_OK) return nullptr;

    QvAgentModule *module = nullptr;
    {
        qv::MutexGuard guard(g_handleMutex);
        module = QV_Agent_GetHandle();
        if (module != nullptr) {
            if (module->bNeedFlush == 1) {
                QV_AGENT_FlushModule(desc, module);
                module->bNeedFlush = 0;
            }
            return module;
        }
        rc = QV_Agent_InitMemHandle();
        QV_AGENT_WriteToFile("qvagent init mem handle, ret=%d, service=%s, farnoinit=%u", static_cast<int>(rc),
                             desc->szServiceName, g_farnoInited);
        if (rc != QV_AGENT_OK) return nullptr;
        module = QV_AGENT_CreateModule(desc);
        QV_Agent_SetHandle(module);
    }
    // The report queues a log, which takes the module's own mutexes: never under the handle mutex.
    QV_AGENT_SendMallocLog(module);
    return module;
}

uint32_t QV_Agent_UnInit(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    if (QV_Agent_InitHandleMutexLock() != QV_AGENT_OK) return QV_AGENT_ERR_FAILED;
    qv::MutexGuard guard(g_handleMutex);
    module->bNeedFlush = 1;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_FlushModule(const QvAgentServiceDesc *desc, QvAgentModule *module) {
    if (desc == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    module->uiServiceId = desc->uiServiceId;
    if (strncpy_s(module->szServiceName, sizeof module->szServiceName, desc->szServiceName,
                  sizeof desc->szServiceName) != QV_EOK) {
        return QV_AGENT_ERR_FAILED;
    }
    module->ulCallerData1 = desc->ulCallerData1;
    module->ulCallerData2 = desc->ulCallerData2;
    if (desc->uiListLimit != 0) module->uiListLimit = desc->uiListLimit;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_CreateModuleDatalistInit(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    if (module->uiListLimit == 0) module->uiListLimit = QV_AGENT_DEFAULT_LIST_LIMIT;
    pthread_mutex_init(&module->stListMutex, nullptr);
    for (QvAgentSendList &list : module->astSendList) InitListHead(list);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_CreateModuleLogFileBufferInit(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    QV_AGENT_GetFileBufName(module->szBlackboxFile, static_cast<int32_t>(sizeof module->szBlackboxFile));
    if (module->szBlackboxFile[0] == '\0' || Contains(module->szBlackboxFile, kBlackboxNeverUsed)) {
        return QV_AGENT_OK;
    }
    if (QV_AGENT_InitLogBlackbox(module) == QV_AGENT_OK) module->bBlackboxEnable = 1;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_CreateModuleKpiInfoInit(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    module->iReservedFd = -1;
    for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
        module->aiMeshFd[k] = -1;
        module->auiMeshState[k] = QV_AGENT_MESH_NOT_CREATED;
    }
    pthread_mutex_init(&module->stKpiMutex, nullptr);
    QV_AGENT_DevmBasicInfoApiInit(module);
    QV_AGENT_DevmDBInfoApiInit(module);
    QV_AGENT_GetPositionInfo(module);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_CreateModuleTimerInit(QvAgentModule *module) {
    if (module == nullptr || module->pstSchedCtrl == nullptr) return QV_AGENT_ERR_PARAM;
    // A timer that cannot be made is not reported: the record lives on without its heartbeat.
    module->pstSchedCtrl->ulTimer = QV_AGENT_CreateKEVTimer(kTickPeriodMs, QV_AGENT_SendTimerProc, module, kPeriodic,
                                                            module->pstSchedCtrl->ulSchedThread);
    return QV_AGENT_OK;
}

QvAgentModule *QV_AGENT_CreateModule(const QvAgentServiceDesc *desc) {
    if (desc == nullptr) return nullptr;
    auto *module = static_cast<QvAgentModule *>(QV_AGENT_MallocWithInit(sizeof(QvAgentModule), desc));
    if (module == nullptr) return nullptr;
    std::memset(module, 0, sizeof *module);
    if (memcpy_s(module, sizeof *module, desc, sizeof *desc) != QV_EOK) {
        QV_AGENT_FreeWithInit(module, desc);
        return nullptr;
    }
    QV_AGENT_CreateModuleDatalistInit(module);
    InitRestraintTree(module);
    QV_AGENT_CreateModuleLogFileBufferInit(module);
    if (Contains(module->szBlackboxFile, kBlackboxNotForQueuing)) module->bBlackboxEnable = 0;
    QV_AGENT_CreateModuleKpiInfoInit(module);
    module->bCreated = 1;
    if (!StartScheduler(module, desc)) {
        DestroyModuleMutexes(module);
        QV_AGENT_FreeWithInit(module, desc);
        return nullptr;
    }
    return module;
}

uint32_t QV_AGENT_CreateModuleRecovery(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    if (QV_Agent_InitHandleMutexLock() != QV_AGENT_OK) return QV_AGENT_ERR_RECOVERY;
    qv::MutexGuard guard(g_handleMutex);
    if (module->uiTransportState == QV_AGENT_STATE_READY) return QV_AGENT_OK;
    const bool needSocket = module->uiTransportState == QV_AGENT_STATE_NO_SOCKET || !HasDatagramSocket(module);
    if (needSocket && QV_AGENT_CreateSocket(module) != QV_AGENT_OK) {
        module->uiTransportState = QV_AGENT_STATE_NO_SOCKET;
        return QV_AGENT_ERR_RECOVERY;
    }
    if (QV_AGENT_CreateThread(module) != QV_AGENT_OK) {
        module->uiTransportState = QV_AGENT_STATE_NO_THREADS;
        return QV_AGENT_ERR_RECOVERY;
    }
    module->uiTransportState = QV_AGENT_STATE_READY;
    return QV_AGENT_OK;
}
