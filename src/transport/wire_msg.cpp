// The numbered datagrams of the send window: the head with its sequence number and flags, the body of
// whole records, and the checks that an acknowledgement from the collector must pass.
#include "transport/wire_msg.h"

#include "blackbox/blackbox.h"
#include "core/bytes.h"
#include "event/send_list.h"
#include "qvagent/qv_agent_event.h"
#include "qvagent/qv_agent_types.h"
#include "qvplatform/qv_bounded.h"
#include "transport/send_window.h"

namespace {

using qv::bytes::LoadBe16;
using qv::bytes::LoadLe16;
using qv::bytes::StoreBe16;
using qv::bytes::StoreBe32;
using qv::bytes::StoreLe16;

uint32_t NextSeqNo(uint32_t seqNo) { return seqNo == UINT32_MAX ? 1u : seqNo + 1; }

// Moves records from the head of the list behind the datagram's end while they fit; the new end.
uint32_t PackFromList(int32_t k, QvAgentSendList &list, uint8_t *buf, uint32_t size, uint32_t end,
                      QvAgentModule *module) {
    while (QvAgentListItem *item = qv::sendlist::First(list)) {
        if (qv::window::PassCapReached(module, k) || end + item->uiLen > QV_WIRE_MAX_LIST_DATAGRAM) break;
        if (item->uiLen != 0 && memcpy_s(buf + end, size - end, item->pucData, item->uiLen) != QV_EOK) break;
        end += item->uiLen;
        qv::sendlist::Unlink(list, item);
        qv::sendlist::Release(item, module);
        qv::window::CountPacked(module, k);
    }
    return end;
}

uint16_t SenderPort(const struct sockaddr_in *from) { return LoadBe16(reinterpret_cast<const uint8_t *>(&from->sin_port)); }

}  // namespace

uint32_t QV_AGENT_SetMsgByteOrder(uint8_t *head) {
    if (head == nullptr) return QV_AGENT_ERR_PARAM;
    head[QV_WIRE_HEAD_FLAGS_OFF] = static_cast<uint8_t>(head[QV_WIRE_HEAD_FLAGS_OFF] | QV_WIRE_FLAG_BYTE_ORDER);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_AssembleMsgHead(uint32_t k, QvAgentSendList *list, uint8_t *buf, uint32_t size,
                                  QvAgentModule * /*module*/) {
    const uint32_t headLen = qv::wire::HeadLen(k);
    if (list == nullptr || buf == nullptr || size < headLen) return QV_AGENT_ERR_PARAM;
    if (k != QV_AGENT_MSG_ALARM) {
        const auto streamType = k == QV_AGENT_MSG_LOG ? QV_WIRE_STREAM_TYPE_LOG : QV_WIRE_STREAM_TYPE_OTHER;
        StoreLe16(buf + QV_WIRE_HEAD_STREAM_TYPE_OFF, static_cast<uint16_t>(streamType));
        StoreLe16(buf + QV_WIRE_HEAD_STREAM_LEN_OFF, QV_WIRE_STREAM_DATA_LEN);
    }
    list->uiSeqNo = NextSeqNo(list->uiSeqNo);
    buf[QV_WIRE_HEAD_MSG_TYPE_OFF] = QV_WIRE_MSG_NUMBERED;
    StoreBe16(buf + QV_WIRE_HEAD_TOTAL_LEN_OFF, static_cast<uint16_t>(headLen));
    StoreBe32(buf + QV_WIRE_HEAD_SEQ_NO_OFF, list->uiSeqNo);
    if (list->bSynced == 0) {
        buf[QV_WIRE_HEAD_FLAGS_OFF] = static_cast<uint8_t>(buf[QV_WIRE_HEAD_FLAGS_OFF] | QV_WIRE_FLAG_STREAM_START);
        list->bSynced = 1;
    }
    return QV_AGENT_SetMsgByteOrder(buf);
}

uint32_t QV_AGENT_AssembleMsgBody(int32_t k, QvAgentSendList *list, uint8_t *buf, uint32_t size,
                                  QvAgentModule *module) {
    if (list == nullptr || buf == nullptr || module == nullptr) return QV_AGENT_ERR_PARAM;
    const uint32_t head = LoadBe16(buf + QV_WIRE_HEAD_TOTAL_LEN_OFF);
    if (head > size) return QV_AGENT_ERR_PARAM;
    uint32_t end = head;
    if (k == static_cast<int32_t>(QV_AGENT_MSG_LOG) && module->bBlackboxEnable != 0) {
        uint32_t space = size - head;
        uint32_t got = 0;
        QV_AGENT_ReadBlackbox(buf + head, &space, &got, module);
        if (got != 0) end += space;
    } else {
        end = PackFromList(k, *list, buf, size, head, module);
    }
    if (end == head) return QV_AGENT_ERR_PARAM;
    StoreBe16(buf + QV_WIRE_HEAD_TOTAL_LEN_OFF, static_cast<uint16_t>(end));
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_CheckRecvMsg(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from) {
    if (buf == nullptr || from == nullptr || len < QV_WIRE_ACK_MIN_LEN) return QV_AGENT_ERR_PARAM;
    if (buf[QV_WIRE_HEAD_MSG_TYPE_OFF] != QV_WIRE_MSG_NUMBERED) return QV_AGENT_ERR_PARAM;
    if ((buf[QV_WIRE_HEAD_FLAGS_OFF] & QV_WIRE_FLAG_ACK) == 0) return QV_AGENT_ERR_PARAM;
    if (SenderPort(from) == QV_WIRE_PORT_LOG && len < QV_WIRE_ACK_MIN_LEN_LOG_PORT) return QV_AGENT_ERR_PARAM;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_GetRecvMsgType(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from) {
    if (buf == nullptr || from == nullptr) return QV_AGENT_MSG_NONE;
    switch (SenderPort(from)) {
        case QV_WIRE_PORT_ALARM: return QV_AGENT_MSG_ALARM;
        case QV_WIRE_PORT_HIGH_PRECISION: return QV_AGENT_MSG_HIGH_PRECISION;
        case QV_WIRE_PORT_LOG:
            if (len < QV_WIRE_ACK_MIN_LEN_LOG_PORT) return QV_AGENT_MSG_NONE;
            switch (LoadLe16(buf + QV_WIRE_HEAD_STREAM_TYPE_OFF)) {
                case QV_WIRE_STREAM_TYPE_LOG: return QV_AGENT_MSG_LOG;
                case QV_WIRE_STREAM_TYPE_OTHER: return QV_AGENT_MSG_DEBUG;
                default: return QV_AGENT_MSG_NONE;
            }
        default: return QV_AGENT_MSG_NONE;
    }
}
