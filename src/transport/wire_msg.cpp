// Heads of the datagrams the agent sends.
#include "transport/wire_head.h"

#include "qvagent/qv_agent_types.h"
#include "qvagent/qv_agent_wire.h"

uint32_t QV_AGENT_SetMsgByteOrder(uint8_t *head) {
    if (head == nullptr) return QV_AGENT_ERR_PARAM;
    head[QV_WIRE_HEAD_FLAGS_OFF] = static_cast<uint8_t>(head[QV_WIRE_HEAD_FLAGS_OFF] | QV_WIRE_FLAG_BYTE_ORDER);
    return QV_AGENT_OK;
}
