// The KPI send: drains send list 4 under stKpiMutex, lets each record through the on-change filter
// and packs the survivors into big-endian KPI packets of at most 8096 bytes, built one after the other
// in a single buffer and sent over the KPI mesh socket. Packets are not numbered nor kept: a packet
// whose send fails is reported by a diagnostic log and its records are gone.
#include <cstring>

#include "core/agent_block.h"
#include "core/bytes.h"
#include "core/mutex_guard.h"
#include "event/send_list.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_kpi.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/mesh.h"
#include "qvplatform/pal.h"
#include "qvplatform/qv_bounded.h"
#include "transport/board_discovery.h"
#include "transport/mesh_mode.h"
#include "transport/wire_msg.h"

namespace {

using qv::bytes::LoadBe16;
using qv::bytes::LoadBe32;
using qv::bytes::StoreBe16;
using qv::bytes::StoreBe32;
using qv::bytes::StoreBe64;

static_assert(QV_KPI_REC_LEN == sizeof(QvAgentKpiRecord));
static_assert(QV_KPI_PKT_HEAD_LEN + QV_KPI_PKT_RECORDS_MAX * QV_KPI_REC_LEN <= KPI_PACKET_MAX);
static_assert(QV_KPI_PKT_HEAD_LEN + (QV_KPI_PKT_RECORDS_MAX + 1) * QV_KPI_REC_LEN > KPI_PACKET_MAX);
static_assert(KPI_PACKET_MAX <= QV_WIRE_SEND_BUFFER_LEN);

constexpr uint32_t kDiagKind = 9;
constexpr size_t kAddressText = 50;
constexpr size_t kLogText = 512;
constexpr char kSendFailFormat[] = "addr=%s, kpiid=%u, msgLen=%u, ret=%d, service=%s";
constexpr uint8_t kAlwaysMode = QV_KPI_FLAG_MODE_ALWAYS << QV_KPI_FLAG_MODE_SHIFT;

uint16_t PacketLen(const uint8_t *packet) { return LoadBe16(packet + QV_KPI_PKT_TOTAL_LEN_OFF); }

void CloseBody(uint8_t *packet, uint32_t len, uint32_t count) {
    StoreBe16(packet + QV_KPI_PKT_TOTAL_LEN_OFF, static_cast<uint16_t>(len));
    StoreBe32(packet + QV_KPI_PKT_RECORD_NUM_OFF, count);
}

// One packet record, field by field in big-endian, with the module's position bytes of now.
void PackRecord(uint8_t *at, const QvAgentKpiRecord &r, const QvAgentModule &module) {
    StoreBe16(at + QV_KPI_REC_COMPONENT_OFF, r.usComponentId);
    StoreBe32(at + QV_KPI_REC_KPI_ID_OFF, r.uiKpiId);
    StoreBe32(at + QV_KPI_REC_OBJECT_OFF, r.uiObjectId);
    StoreBe16(at + QV_KPI_REC_SUB_OBJECT_OFF, r.usSubObjectId);
    at[QV_KPI_REC_CPU_OFF] = module.ucCpuId;
    at[QV_KPI_REC_LOCAL_ID_A_OFF] = module.ucLocalIdA;
    at[QV_KPI_REC_LOCAL_ID_B_OFF] = module.ucLocalIdB;
    at[QV_KPI_REC_FLAG_OFF] = r.ucKpiFlag;
    StoreBe64(at + QV_KPI_REC_VALUE_OFF, r.ulValue);
    StoreBe32(at + QV_KPI_REC_TIME_OFF, r.uiTimeStamp);
}

void SendPacket(const uint8_t *packet, const MESH_ADDR_S &dest, QvAgentModule *module) {
    const uint16_t len = PacketLen(packet);
    const uint32_t rc = QV_AGENT_MeshSendTo(static_cast<int32_t>(QV_AGENT_MSG_KPI), packet, len, &dest, module);
    if (rc != QV_AGENT_OK) QV_AGENT_SendKpiReportLog(&dest, packet, len, static_cast<int32_t>(rc), module);
}

void StartPacket(QvAgentSendList &list, uint8_t *buffer, uint32_t bufferLen, QvAgentModule *module) {
    std::memset(buffer, 0, bufferLen);
    QV_AGENT_AssembleKpiMsgHead(&list, buffer, bufferLen, module);
}

}  // namespace

uint32_t QV_AGENT_IPv4ToStr(uint32_t address, char *out, uint32_t outLen) {
    if (out == nullptr || outLen == 0) return QV_AGENT_ERR_PARAM;
    snprintf_truncated_s(out, outLen, "%d.%d.%d.%d", static_cast<int>(address & 0xFFu),
                         static_cast<int>((address >> 8) & 0xFFu), static_cast<int>((address >> 16) & 0xFFu),
                         static_cast<int>(address >> 24));
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_IsKpiDataNeedRpt(const QvAgentKpiRecord *record, QvAgentModule *handle) {
    if (record == nullptr || handle == nullptr) return 0;
    if ((record->ucKpiFlag & QV_KPI_FLAG_MODE_MASK) == kAlwaysMode) return 1;
    QvAgentKpiObject key;
    std::memset(&key, 0, sizeof key);
    key.uiKpiId = record->uiKpiId;
    key.uiObjectId = record->uiObjectId;
    key.usSubObjectId = record->usSubObjectId;
    key.usComponentId = record->usComponentId;
    QvAgentKpiObjectNode *node = QV_AGENT_GetKpiMngInfoNode(&key);
    if (node == nullptr) return 1;  // no option: every sample goes
    QvAgentKpiValueImage image;
    std::memset(&image, 0, sizeof image);
    image.ucKpiFlag = record->ucKpiFlag;
    const uint64_t value = record->ulValue;
    std::memcpy(image.aucValue, &value, sizeof value);
    if (node->bHasLast == 0) {
        node->bHasLast = 1;
        node->stLastValue = image;
        return 1;
    }
    if (PAL_MemCmp(&image, &node->stLastValue, sizeof image) == 0) {
        const uint32_t same = node->uiSameCount + 1;
        if (same > node->uiOnChangeLimit) {
            node->uiSameCount = 0;
            return 1;
        }
        node->uiSameCount = same;
        return 0;
    }
    node->stLastValue = image;
    node->uiSameCount = 0;
    return 1;
}

uint32_t QV_AGENT_AssembleKpiMsgHead(QvAgentSendList *kpiList, uint8_t *buffer, uint32_t bufferLen,
                                     QvAgentModule *handle) {
    if (kpiList == nullptr || buffer == nullptr || handle == nullptr || bufferLen < QV_KPI_PKT_HEAD_LEN) {
        return QV_AGENT_ERR_PARAM;
    }
    StoreBe16(buffer + QV_KPI_PKT_TOTAL_LEN_OFF, QV_KPI_PKT_HEAD_LEN);
    buffer[QV_KPI_PKT_MSG_TYPE_OFF] = QV_WIRE_MSG_KPI;
    StoreBe32(buffer + QV_KPI_PKT_RECORD_NUM_OFF, 0);
    return QV_AGENT_SetMsgByteOrder(buffer);
}

uint32_t QV_AGENT_AssembleKpiMsgBody(QvAgentSendList *kpiList, uint8_t *buffer, uint32_t bufferLen,
                                     QvAgentModule *handle) {
    if (kpiList == nullptr || buffer == nullptr || handle == nullptr || bufferLen < KPI_PACKET_MAX) {
        return QV_AGENT_ERR_PARAM;
    }
    uint32_t len = PacketLen(buffer);
    uint32_t count = LoadBe32(buffer + QV_KPI_PKT_RECORD_NUM_OFF);
    uint32_t packed = 0;
    QvAgentListItem *item = qv::sendlist::First(*kpiList);
    if (item == nullptr || len + item->uiLen > KPI_PACKET_MAX) return QV_AGENT_ERR_PARAM;
    while (item != nullptr) {
        QvAgentListItem *next = item->pstNext == qv::sendlist::Head(*kpiList) ? nullptr : item->pstNext;
        // Every item of list 4 is one record; anything else cannot be read as one and is dropped.
        const auto *record = reinterpret_cast<const QvAgentKpiRecord *>(item->pucData);
        if (item->uiLen == sizeof *record && QV_AGENT_IsKpiDataNeedRpt(record, handle) == 1) {
            PackRecord(buffer + len, *record, *handle);
            len += item->uiLen;
            ++count;
            ++packed;
        }
        qv::sendlist::Unlink(*kpiList, item);
        qv::sendlist::Release(item, handle);
        if (next != nullptr && len + next->uiLen > KPI_PACKET_MAX) {
            CloseBody(buffer, len, count);
            return packed != 0 ? QV_AGENT_KPI_PACKET_FULL : QV_AGENT_ERR_PARAM;
        }
        item = next;
    }
    CloseBody(buffer, len, count);
    return packed != 0 ? QV_AGENT_OK : QV_AGENT_ERR_PARAM;
}

uint32_t QV_AGENT_SendKpiDataByPacket(int32_t msgType, uint8_t *buffer, uint32_t bufferLen, QvAgentModule *handle) {
    if (msgType != static_cast<int32_t>(QV_AGENT_MSG_KPI) || buffer == nullptr || handle == nullptr ||
        bufferLen < KPI_PACKET_MAX) {
        return QV_AGENT_ERR_PARAM;
    }
    qv::MutexGuard guard(handle->stKpiMutex);  // across the sends: updates and options wait
    QvAgentSendList &list = handle->astSendList[QV_AGENT_MSG_KPI];
    if (qv::sendlist::IsEmpty(list)) return QV_AGENT_OK;
    MESH_ADDR_S dest{};
    const uint32_t rc = QV_AGENT_GetDestIpAddr(&dest, QV_AGENT_MSG_KPI, handle);
    if (rc != QV_AGENT_OK) return rc;
    StartPacket(list, buffer, bufferLen, handle);
    for (;;) {
        const uint32_t body = QV_AGENT_AssembleKpiMsgBody(&list, buffer, bufferLen, handle);
        if (body == QV_AGENT_KPI_PACKET_FULL) {
            SendPacket(buffer, dest, handle);
            StartPacket(list, buffer, bufferLen, handle);
        } else if (body != QV_AGENT_OK) {
            break;
        }
        if (qv::sendlist::IsEmpty(list)) break;
    }
    if (PacketLen(buffer) > QV_KPI_PKT_HEAD_LEN) SendPacket(buffer, dest, handle);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_SendKpiMsg(uint32_t msgType, QvAgentModule *handle) {
    if (handle == nullptr) return QV_AGENT_ERR_PARAM;
    qv::AgentBlock buffer(QV_WIRE_SEND_BUFFER_LEN, handle);
    if (buffer.get() == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    QV_AGENT_SendKpiDataByPacket(static_cast<int32_t>(msgType), buffer.get(), QV_WIRE_SEND_BUFFER_LEN, handle);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_SendKpiReportLog(const MESH_ADDR_S *dest, const uint8_t *packet, uint32_t packetLen,
                                   int32_t sendResult, QvAgentModule *handle) {
    if (dest == nullptr || packet == nullptr || handle == nullptr) return QV_AGENT_ERR_PARAM;
    if (packetLen < QV_KPI_PKT_HEAD_LEN + QV_KPI_REC_LEN) return QV_AGENT_ERR_FAILED;  // no record to name
    char address[kAddressText];
    QV_AGENT_IPv4ToStr(dest->uiIpAddr, address, sizeof address);
    const uint32_t kpiId = LoadBe32(packet + QV_KPI_PKT_HEAD_LEN + QV_KPI_REC_KPI_ID_OFF);
    char text[kLogText];
    if (snprintf_truncated_s(text, sizeof text, kSendFailFormat, address, static_cast<unsigned>(kpiId),
                             static_cast<unsigned>(packetLen), static_cast<int>(sendResult),
                             handle->szServiceName) < 0) {
        return QV_AGENT_ERR_FAILED;
    }
    QvAgentObj *obj = nullptr;
    QV_Agent_ObjCreate(kDiagKind, QV_AGENT_KPI_SEND_FAIL_LOG_ID, &obj, handle);
    QV_Agent_AddPara(obj, QV_PARA_TYPE_TEXT, static_cast<uint16_t>(std::strlen(text)), text, handle);
    QV_Agent_Send(obj, handle);
    return QV_AGENT_OK;
}
