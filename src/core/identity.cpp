// What the service tells the agent about itself after initialisation (addresses, process and service
// identity, attributes), the per-service device log, and the flush notice to the collector.
#include <arpa/inet.h>
#include <fcntl.h>
#include <unistd.h>

#include <cstring>

#include "core/bytes.h"
#include "core/mutex_guard.h"
#include "core/paths.h"
#include "core/shared_field.h"
#include "qvagent/qv_agent_identity.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/qv_bounded.h"
#include "transport/board_discovery.h"
#include "transport/mesh_mode.h"
#include "transport/wire_msg.h"

namespace {

constexpr mode_t kDevLogMode = 0600;

// Where the flush notice goes: the log port of this board while the collector location is unknown or
// local, else of the main board.
MESH_ADDR_S FlushDestination(QvAgentModule *module) {
    MESH_ADDR_S dest{};
    dest.usPort = htons(QV_WIRE_PORT_LOG);
    if (qv::LoadShared(module->bLocalCollector) != 0 || qv::LoadShared(module->bServerInfoValid) != 1) {
        dest.uiIpAddr = htonl(INADDR_LOOPBACK);
    } else {
        QV_AGENT_GetMainBoardIpAddr(&dest, module);
    }
    return dest;
}

}  // namespace

uint32_t QV_Agent_SetMainBoardIP(QvAgentModule *module, uint32_t ip) {
    if (module == nullptr || ip == 0) return QV_AGENT_ERR_PARAM;
    qv::StoreShared(module->uiMainBoardIp, ip);
    return QV_AGENT_OK;
}

uint32_t QV_Agent_SetLocalIP(QvAgentModule *module, uint32_t ip) {
    if (module == nullptr || ip == 0) return QV_AGENT_ERR_PARAM;
    if (ip != qv::LoadShared(module->uiSelfIp) && qv::LoadShared(module->bLocalCollector) == 0 &&
        QV_Agent_InitHandleMutexLock() == QV_AGENT_OK) {
        qv::MutexGuard guard(g_handleMutex);
        for (uint32_t &state : module->auiMeshState) qv::StoreShared(state, QV_AGENT_MESH_ADDR_CHANGED);
    }
    qv::StoreShared(module->uiSelfIp, ip);
    return QV_AGENT_OK;
}

uint32_t QV_Agent_SetProcessInfo(QvAgentModule *module, const QvAgentProcessInfo *info) {
    if (module == nullptr || info == nullptr) return QV_AGENT_ERR_PARAM;
    std::memcpy(module->auiProcessInfo, info->auiProcessInfo, sizeof module->auiProcessInfo);
    return static_cast<uint32_t>(strncpy_s(module->szProcessName, sizeof module->szProcessName,
                                           info->szProcessName, sizeof info->szProcessName));
}

uint32_t QV_Agent_SetServiceInfo(QvAgentModule *module, const char *name, uint32_t serviceId) {
    if (module == nullptr || name == nullptr) return QV_AGENT_ERR_PARAM;
    std::memset(module->szServiceName, 0, sizeof module->szServiceName);
    const qv_errno_t rc = strcpy_s(module->szServiceName, sizeof module->szServiceName, name);
    if (rc != QV_EOK) return static_cast<uint32_t>(rc);
    module->uiServiceId = serviceId;
    return QV_AGENT_OK;
}

uint32_t QV_Agent_SetAttribute(QvAgentModule *module, int32_t attribute, const uint32_t *value) {
    if (module == nullptr || value == nullptr) return QV_AGENT_ERR_PARAM;
    switch (attribute) {
        case QV_AGENT_ATTR_LIST_LIMIT: qv::StoreShared(module->uiListLimit, *value); return QV_AGENT_OK;
        case QV_AGENT_ATTR_RESERVED: module->uiAttrReserved = *value; return QV_AGENT_OK;
        default: return QV_AGENT_ERR_PARAM;
    }
}

uint32_t QV_Agent_DevLog(const char *name, const uint8_t *bytes, int32_t len) {
    if (name == nullptr || bytes == nullptr || len < 0) return QV_AGENT_ERR_DEVLOG;
    char path[QV_AGENT_DEVLOG_PATH_MAX] = {};
    if (snprintf_s(path, sizeof path, qv::path::kDevLogFormat, name) < 0) return QV_AGENT_ERR_DEVLOG;
    const int fd = ::open(path, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kDevLogMode);
    if (fd < 0) return QV_AGENT_ERR_DEVLOG;
    const ssize_t written = ::write(fd, bytes, static_cast<size_t>(len));
    ::close(fd);
    return written == len ? QV_AGENT_OK : QV_AGENT_ERR_DEVLOG;
}

uint32_t QV_Agent_FlushToLogFile(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    auto *notice = static_cast<uint8_t *>(QV_AGENT_Malloc(QV_WIRE_FLUSH_NOTICE_LEN, module));
    if (notice == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    std::memset(notice, 0, QV_WIRE_FLUSH_NOTICE_LEN);
    qv::bytes::StoreBe16(notice + QV_WIRE_HEAD_TOTAL_LEN_OFF, QV_WIRE_FLUSH_NOTICE_LEN);
    notice[QV_WIRE_HEAD_MSG_TYPE_OFF] = QV_WIRE_MSG_FLUSH;
    QV_AGENT_SetMsgByteOrder(notice);

    const MESH_ADDR_S dest = FlushDestination(module);
    const uint32_t rc = QV_AGENT_MeshSendTo(QV_AGENT_MSG_LOG, notice, QV_WIRE_FLUSH_NOTICE_LEN, &dest, module);
    if (rc != QV_AGENT_OK) QV_AGENT_WriteToFile("MESH_SendTo fail errno=%u\n", rc);
    QV_AGENT_Free(notice, module);
    return rc;
}
