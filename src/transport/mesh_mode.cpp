// Mesh mode: creating and re-creating the mesh socket of each kind, sending a datagram of the send
// window, recovering from a lost socket, and taking acknowledgements on the scheduler thread.
#include "transport/mesh_mode.h"

#include <arpa/inet.h>

#include <cstring>

#include "core/mutex_guard.h"
#include "core/process_id.h"
#include "core/shared_field.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/kev.h"
#include "transport/board_discovery.h"
#include "transport/scheduler.h"
#include "transport/send_window.h"

namespace {

constexpr uint32_t kNoSocketAtAll = 0xFFFFFFFFu;  // the log kind's answer when no socket can be had
constexpr uint32_t kAckBuffer = 255;              // acknowledgements are read, not examined
constexpr uint32_t kFastRecreations = 20;         // re-creations allowed every kFastRecreateTicks ticks
constexpr uint32_t kFastRecreateTicks = 6;
constexpr uint32_t kSlowRecreateTicks = 60;       // after that, more than this many ticks apart

struct KindTable {
    QvAgentEventProc callback;  // null: no acknowledgements (KPI)
    uint16_t port;
};

constexpr KindTable kKinds[QV_AGENT_MSG_KIND_COUNT] = {
    {QV_AGENT_EpollLogEventProc, QV_WIRE_PORT_LOG},
    {QV_AGENT_EpollAlarmEventProc, QV_WIRE_PORT_ALARM},
    {QV_AGENT_EpollDebugEventProc, QV_WIRE_PORT_DEBUG},
    {QV_AGENT_EpollHighPreciLogEventProc, QV_WIRE_PORT_HIGH_PRECISION},
    {nullptr, QV_WIRE_PORT_KPI},
};

uint64_t SchedThread(const QvAgentModule *module) {
    return module->pstSchedCtrl != nullptr ? module->pstSchedCtrl->ulSchedThread : 0;
}

int Pid() { return static_cast<int>(qv::ProcessId()); }

// A socket that cannot be used: closed, and the kind waits for its re-creation.
uint32_t GiveUpSocket(QvAgentModule *module, uint32_t k, int32_t fd) {
    MESH_Close(fd);
    qv::StoreShared(module->auiMeshState[k], QV_AGENT_MESH_ADDR_CHANGED);
    return QV_AGENT_ERR_RECOVERY;
}

bool MakeNonBlocking(int32_t fd) {
    const int32_t flags = MESH_Fcntl(fd, MESH_F_GETFL, 0);
    return flags != -1 && MESH_Fcntl(fd, MESH_F_SETFL, flags | MESH_O_NONBLOCK) != -1;
}

uint32_t CreateMeshSocket(QvAgentModule *module, uint32_t k) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    const int32_t fd = MESH_Socket(MESH_DOMAIN_DEFAULT, MESH_SOCK_DGRAM, MESH_PROTO_DGRAM);
    if (fd == -1) {
        if (k == QV_AGENT_MSG_LOG) return kNoSocketAtAll;
        qv::StoreShared(module->auiMeshState[k], QV_AGENT_MESH_ADDR_CHANGED);
        return QV_AGENT_ERR_RECOVERY;
    }
    if (!MakeNonBlocking(fd)) {
        MESH_Close(fd);
        return QV_AGENT_ERR_RECOVERY;
    }
    if (qv::LoadShared(module->bServerInfoValid) != 1) QV_AGENT_GetLocalServerInfo(module);
    MESH_ADDR_S local{};
    QV_AGENT_GetLocalIpAddr(&local, module);
    if (local.uiIpAddr == 0) {
        QV_AGENT_GetSelfBoardIp(module);  // for the next try
        return GiveUpSocket(module, k, fd);
    }
    if (MESH_Bind(fd, &local) != 0) return GiveUpSocket(module, k, fd);
    module->aiMeshFd[k] = fd;
    if (kKinds[k].callback != nullptr) {
        const uint32_t rc = QV_AGENT_AddKEVThreadCtrl(fd, kKinds[k].callback, SchedThread(module), module);
        QV_AGENT_WriteToFile("QV_AGENT_AddKEVThreadCtrl log iFd=%d ret=%d pid=%d", fd, static_cast<int>(rc), Pid());
    }
    qv::StoreShared(module->auiMeshState[k], QV_AGENT_STATE_READY);
    return QV_AGENT_OK;
}

bool RecreationAllowed(const QvAgentModule *module, uint32_t k) {
    const uint32_t since = module->uiTick - module->auiRecreateTick[k];
    return module->auiRecreateTimes[k] < kFastRecreations ? since >= kFastRecreateTicks : since > kSlowRecreateTicks;
}

// The collector's address for a send of kind k to port.
MESH_ADDR_S Destination(QvAgentModule *module, int32_t port) {
    MESH_ADDR_S dest{};
    dest.ucAddrType = MESH_ADDR_TYPE_IPV4;
    dest.usPort = htons(static_cast<uint16_t>(port));
    if (qv::LoadShared(module->bLocalCollector) == 0 && qv::LoadShared(module->bServerInfoValid) == 1) {
        QV_AGENT_GetMainBoardIpAddr(&dest, module);
    } else {
        dest.uiIpAddr = htonl(INADDR_LOOPBACK);
    }
    return dest;
}

uint32_t EventProc(uint32_t *events, void *arg, uint32_t k) {
    auto *module = static_cast<QvAgentModule *>(arg);
    if (events == nullptr || module == nullptr) return QV_AGENT_OK;
    return QV_AGENT_RecieveUdpEventDeal(static_cast<uint32_t>(module->aiMeshFd[k]), *events, k, kKinds[k].port, module);
}

}  // namespace

uint32_t QV_AGENT_CreateMeshSendLog(QvAgentModule *module) { return CreateMeshSocket(module, QV_AGENT_MSG_LOG); }
uint32_t QV_AGENT_CreateMeshSendAlarm(QvAgentModule *module) { return CreateMeshSocket(module, QV_AGENT_MSG_ALARM); }
uint32_t QV_AGENT_CreateMeshSendDebug(QvAgentModule *module) { return CreateMeshSocket(module, QV_AGENT_MSG_DEBUG); }
uint32_t QV_AGENT_CreateMeshSendHighPreciLog(QvAgentModule *module) {
    return CreateMeshSocket(module, QV_AGENT_MSG_HIGH_PRECISION);
}
uint32_t QV_AGENT_CreateMeshSendKPI(QvAgentModule *module) { return CreateMeshSocket(module, QV_AGENT_MSG_KPI); }

void QV_AGENT_ReCreateMeshFd(uint32_t k, QvAgentModule * /*module*/) {
    QvAgentModule *module = QV_Agent_GetHandle();
    if (module == nullptr || k >= QV_AGENT_MSG_KIND_COUNT) return;
    if (qv::LoadShared(module->auiMeshState[k]) != QV_AGENT_STATE_READY) {
        const int32_t fd = module->aiMeshFd[k];
        if (fd != -1) {
            if (kKinds[k].callback != nullptr) {
                QV_AGENT_DelKEVThreadCtrl(static_cast<uint32_t>(fd), SchedThread(module), module);
                QV_AGENT_WriteToFile("DelKEVThreadCtrl iFd=%d pid=%d", fd, Pid());
            }
            MESH_Close(fd);
            module->aiMeshFd[k] = -1;
        }
        qv::StoreShared(module->auiMeshState[k], QV_AGENT_MESH_ADDR_CHANGED);
    }
    CreateMeshSocket(module, k);
}

uint32_t QV_AGENT_MeshSendTo(int32_t k, const uint8_t *buf, uint32_t len, const MESH_ADDR_S *dest,
                             QvAgentModule *module) {
    if (module == nullptr || buf == nullptr || dest == nullptr || k < 0 ||
        k >= static_cast<int32_t>(QV_AGENT_MSG_KIND_COUNT)) {
        return QV_AGENT_ERR_PARAM;
    }
    const auto kind = static_cast<uint32_t>(k);
    if (MESH_SendTo(module->aiMeshFd[kind], buf, len, dest) >= 0) return QV_AGENT_OK;
    const uint32_t error = MESH_GetErrorNo();
    if (error != MESH_ERR_RECREATE) return error;
    if (!RecreationAllowed(module, kind)) return QV_AGENT_OK;  // the send window offers it again
    module->auiRecreateTick[kind] = module->uiTick;
    ++module->auiRecreateTimes[kind];
    QV_AGENT_GetLocalServerInfo(module);
    qv::StoreShared(module->auiMeshState[kind], QV_AGENT_MESH_RECREATE);
    QV_AGENT_ReCreateMeshFd(kind, module);
    if (kind == QV_AGENT_MSG_KPI) return QV_AGENT_OK;
    MESH_ADDR_S fresh{};
    const uint32_t rc = QV_AGENT_GetDestIpAddr(&fresh, kind, module);
    if (rc != QV_AGENT_OK) return rc;
    return MESH_SendTo(module->aiMeshFd[kind], buf, len, &fresh) >= 0 ? QV_AGENT_OK : MESH_GetErrorNo();
}

uint32_t QV_AGENT_SendMeshMsg(uint32_t k, int32_t port, QvAgentModule *module) {
    if (module == nullptr || k >= QV_AGENT_MSG_KIND_COUNT) return QV_AGENT_ERR_PARAM;
    auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(QV_WIRE_SEND_BUFFER_LEN, module));
    if (buffer == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    const int32_t len = QV_AGENT_GetSendMsg(k, buffer, QV_WIRE_SEND_BUFFER_LEN, module);
    if (len >= 1) {
        const MESH_ADDR_S dest = Destination(module, port);
        QV_AGENT_WriteToFile(
            "QV_AGENT_SendMeshMsg service=%s%d msgtype=%d bufLen =%d destport=%u destip=0x%x sourceip=0x%x fd=%d",
            module->szServiceName, static_cast<int>(module->uiServiceId), static_cast<int>(k), len,
            static_cast<unsigned>(port), dest.uiIpAddr, qv::LoadShared(module->uiSelfIp), module->aiMeshFd[k]);
        const uint32_t rc =
            QV_AGENT_MeshSendTo(static_cast<int32_t>(k), buffer, static_cast<uint32_t>(len), &dest, module);
        if (rc != QV_AGENT_OK) QV_AGENT_WriteToFile("MESH_SendTo fail errno=%u", rc);
    }
    QV_AGENT_Free(buffer, module);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_RecieveUdpEventDeal(uint32_t fd, uint32_t events, uint32_t k, uint32_t port, QvAgentModule *module) {
    QV_AGENT_WriteToFile("QV_AGENT_RecieveUdpEventDeal iFd=%d msgType=%d iEvents=%d", static_cast<int>(fd),
                         static_cast<int>(k), static_cast<int>(events));
    if ((events & KEV_EVENT_READ) == 0 || module == nullptr || k >= QV_AGENT_MSG_KPI) return QV_AGENT_OK;
    uint8_t reply[kAckBuffer];
    MESH_ADDR_S from{};
    const int32_t n = MESH_RecvFrom(static_cast<int32_t>(fd), reply, sizeof reply, &from);
    if (n < 1) {
        QV_AGENT_WriteToFile("QV_AGENT_RecieveUdpEventDeal err=%d", static_cast<int>(MESH_GetErrorNo()));
        return QV_AGENT_OK;
    }
    QV_AGENT_WriteToFile("QV_AGENT_RecieveUdpEventDeal ilen=%d", n);
    qv::mesh::TakeReply(module, k, port);
    return QV_AGENT_OK;
}

namespace qv::mesh {

void TakeReply(QvAgentModule *module, uint32_t k, uint32_t port) {
    if (module == nullptr || k >= QV_AGENT_MSG_KPI) return;
    {
        qv::MutexGuard guard(module->stListMutex);
        qv::window::ReleaseAcknowledged(module, k);
    }
    QV_AGENT_WriteToFile("QV_AGENT_RecieveUdpEventDeal send next");
    QV_AGENT_SendMeshMsg(k, static_cast<int32_t>(port), module);
}

}  // namespace qv::mesh

uint32_t QV_AGENT_EpollLogEventProc(uint32_t *events, void *module) { return EventProc(events, module, QV_AGENT_MSG_LOG); }
uint32_t QV_AGENT_EpollAlarmEventProc(uint32_t *events, void *module) {
    return EventProc(events, module, QV_AGENT_MSG_ALARM);
}
uint32_t QV_AGENT_EpollDebugEventProc(uint32_t *events, void *module) {
    return EventProc(events, module, QV_AGENT_MSG_DEBUG);
}
uint32_t QV_AGENT_EpollHighPreciLogEventProc(uint32_t *events, void *module) {
    return EventProc(events, module, QV_AGENT_MSG_HIGH_PRECISION);
}
