// Helpers for tests of the agent.
#include "agent_support.h"

#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "core/memory_internal.h"
#include "qvplatform/pal.h"
#include "record_decoder.h"
#include "qvplatform/mesh.h"
#include "qvplatform_testctl.h"
#include "transport/board_discovery.h"
#include "transport/scheduler.h"
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

void CloseBlackbox(QvAgentModule *module) {
    QvAgentLogBox *box = g_pstQvAgentLogBox;
    if (box == nullptr) return;
    g_pstQvAgentLogBox = nullptr;
    ::close(box->iFd);
    pthread_mutex_destroy(&box->stMutex);
    QV_AGENT_Free(box, module);
}

void ReleaseModule() {
    QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr) return;
    QV_Agent_SetHandle(nullptr);
    if (module->pstSchedCtrl != nullptr) {  // the scheduler thread first: it runs the timer on the record
        QV_AGENT_StopKEVTimer(module->pstSchedCtrl->ulTimer);
        QVPLAT_TestKevStopThread(module->pstSchedCtrl->ulSchedThread);
    }
    for (int32_t &fd : module->aiMeshFd) {
        if (fd != -1) MESH_Close(fd);
        fd = -1;
    }
    QV_AGENT_DevmBasicInfoApiUninit(module);
    QV_AGENT_DevmDBInfoApiUninit(module);
    if (module->ulSendThread != 0 || module->ulRecvThread != 0) QV_AGENT_DeleteThread(module);
    if (module->iSockFd > 0) QV_AGENT_CloseSocket(module);
    for (QvAgentSendList &list : module->astSendList) QV_AGENT_FreeResendMsg(&list, module);
    DrainLists(module);
    QV_AGENT_DiagNodeDelete(module);
    QV_AGENT_KpiMngMouduleUnInit(module);
    CloseBlackbox(module);
    QV_AGENT_Free(module->pstSchedCtrl, module);
    pthread_mutex_destroy(&module->stListMutex);
    pthread_mutex_destroy(&module->stDiagMutex);
    pthread_mutex_destroy(&module->stKpiMutex);
    QV_AGENT_Free(module, module);
}

QvAgentModule *InitWithoutScheduler(const QvAgentServiceDesc &desc) {
    QVPLAT_TestKevFailThreadCreate(1);
    QvAgentModule *module = QV_Agent_Init(&desc);
    QVPLAT_TestKevFailThreadCreate(0);
    return module;
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

DevmLibraries::DevmLibraries(const std::string &variant) {
    for (const char *name : {"QV_FAKE_DEVM_CPU", "QV_FAKE_DEVM_SLOT", "QV_FAKE_DEVM_BOARD_TYPE", "QV_FAKE_DEVM_MASTER_SLOT",
                             "QV_FAKE_DEVM_LOCAL_A", "QV_FAKE_DEVM_LOCAL_B", "QV_FAKE_DEVM_MASTER_IP",
                             "QV_FAKE_DEVM_SELF_IP", "QV_FAKE_DEVM_FAIL"}) {
        unsetenv(name);
    }
    const std::string dir = std::string(QV_FAKE_DEVM_DIR) + "/" + variant;
    ok_ = ::mount(dir.c_str(), "/usr/local/lib", nullptr, MS_BIND, nullptr) == 0;
}

DevmLibraries::~DevmLibraries() {
    if (ok_) ::umount2("/usr/local/lib", MNT_DETACH);
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
