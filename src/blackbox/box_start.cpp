// Opening the blackbox at module creation: its name and capacity from the service type and the file
// system, the file with its space reserved, and the rollback of what was read but never acknowledged
// before the last stop.
#include <sys/statfs.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "blackbox/blackbox.h"
#include "core/paths.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/qv_bounded.h"

QvAgentLogBox *g_pstQvAgentLogBox = nullptr;

namespace {

// The service type whose box is the largest, and the services that ask for a box by name.
constexpr char kFrameServiceType[] = "tzk_frm";
constexpr const char *kBoxServiceNames[] = {"tzk", "tzkd"};

// Puts back into the unread bytes what was read into datagrams that were never acknowledged; a head
// that is not valid for this start, or whose counts do not fit, empties the box.
void RollBackUnacknowledged(QvAgentLogBox *box, QvAgentBoxHead &head) {
    const bool consistent = QV_AGENT_BoxCheckValid(box, &head) == QV_AGENT_OK &&
                            uint64_t{head.uiUsedLen} + head.uiReadedLen <= head.uiCapacity;
    if (!consistent) {
        qv::box::Reset(box, head);
        return;
    }
    head.uiReadPos = head.uiCommitPos;
    head.uiUsedLen += head.uiReadedLen;
    head.uiReadedLen = 0;
    QV_AGENT_WriteBlackboxHead(box, &head);
}

}  // namespace

uint32_t QV_AGENT_GetFileBufName(char *name, int32_t size) {
    if (name == nullptr) return QV_AGENT_ERR_PARAM;
    if (size <= 0) return QV_AGENT_ERR_FAILED;
    const auto room = static_cast<size_t>(size);
    name[0] = '\0';
    const char *serviceType = std::getenv(qv::path::kServiceTypeEnv);
    if (serviceType == nullptr) return QV_AGENT_ERR_FAILED;
    if (snprintf_s(name, room, qv::path::kBlackboxFormat, serviceType) < 0) {
        name[0] = '\0';
        return QV_AGENT_ERR_FAILED;
    }
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_GetBlackBoxSize(QvAgentModule * /*module*/) {
    const char *serviceType = std::getenv(qv::path::kServiceTypeEnv);
    if (serviceType != nullptr && std::strcmp(serviceType, kFrameServiceType) == 0) return QV_BOX_CAPACITY_FRAME;
    struct statfs fs;
    // A file system that cannot be asked gets the smallest box.
    if (::statfs(qv::path::kBlackboxDir, &fs) != 0) return QV_BOX_CAPACITY_SMALL;
    uint64_t total = 0;
    if (__builtin_mul_overflow(static_cast<uint64_t>(fs.f_bsize), static_cast<uint64_t>(fs.f_blocks), &total)) {
        return QV_BOX_CAPACITY_LARGE;
    }
    if (total <= QV_BOX_FS_SMALL) return QV_BOX_CAPACITY_SMALL;
    if (total <= QV_BOX_FS_MEDIUM) return QV_BOX_CAPACITY_MEDIUM;
    return QV_BOX_CAPACITY_LARGE;
}

uint32_t QV_AGENT_CreateBlackbox(QvAgentLogBox *box, uint32_t fileSize, QvAgentModule *module) {
    if (box == nullptr || module == nullptr || fileSize > INT32_MAX) return QV_AGENT_ERR_FAILED;
    if (pthread_mutex_init(&box->stMutex, nullptr) != 0) return QV_AGENT_ERR_FAILED;
    box->iFd = QV_AGENT_GetBlackbox(module->szBlackboxFile, static_cast<int32_t>(fileSize));
    if (box->iFd < 0) {
        pthread_mutex_destroy(&box->stMutex);
        return QV_AGENT_ERR_FAILED;
    }
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_InitLogBlackbox(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_FAILED;
    // One box per process: a module created again (after a failed creation) keeps the open one.
    if (g_pstQvAgentLogBox != nullptr) return QV_AGENT_OK;
    auto *box = static_cast<QvAgentLogBox *>(QV_AGENT_Malloc(sizeof(QvAgentLogBox), module));
    if (box == nullptr) return QV_AGENT_ERR_FAILED;
    std::memset(box, 0, sizeof *box);
    const uint32_t capacity = QV_AGENT_GetBlackBoxSize(module);
    if (QV_AGENT_CreateBlackbox(box, capacity + QV_BOX_HEAD_LEN, module) != QV_AGENT_OK) {
        QV_AGENT_Free(box, module);
        return QV_AGENT_ERR_FAILED;
    }
    box->uiBoxSize = capacity;
    g_pstQvAgentLogBox = box;
    QvAgentBoxHead head;
    // A head that cannot be read yet is initialised by the first write.
    if (QV_AGENT_ReadBlackboxHead(box, &head) == QV_AGENT_OK) RollBackUnacknowledged(box, head);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_IsNeedUseLogBlackBox(const char *serviceName) {
    if (serviceName == nullptr) return 0;
    for (const char *name : kBoxServiceNames) {
        if (std::strcmp(serviceName, name) == 0) return 1;
    }
    return 0;
}
