// The numbered datagrams the agent sends and the acknowledgements it accepts: building the head,
// packing the body from a send list or the blackbox, and checking what comes back.
#ifndef QV_TRANSPORT_WIRE_MSG_H
#define QV_TRANSPORT_WIRE_MSG_H

#include <netinet/in.h>

#include <cstdint>

#include "qvagent/qv_agent_init.h"
#include "qvagent/qv_agent_wire.h"

extern "C" {

// Builds the head of the next datagram of kind k into a zeroed buffer: raises the kind's sequence
// number (0xFFFFFFFF wraps to 1), marks the first datagram of the kind as stream start. 0.
uint32_t QV_AGENT_AssembleMsgHead(uint32_t k, QvAgentSendList *list, uint8_t *buf, uint32_t size,
                                  QvAgentModule *module);

// Packs whole records behind the head, from the blackbox (log kind with the blackbox in use) or from
// the kind's send list, within 8096 bytes and the per-pass caps. 0, or QV_AGENT_ERR_PARAM when nothing
// was packed (the head is then left as it was).
uint32_t QV_AGENT_AssembleMsgBody(int32_t k, QvAgentSendList *list, uint8_t *buf, uint32_t size,
                                  QvAgentModule *module);

// Sets the byte-order flag in the head of a datagram the agent builds; 0, or QV_AGENT_ERR_PARAM for a
// null head.
uint32_t QV_AGENT_SetMsgByteOrder(uint8_t *head);

// 0 when the datagram from `from` is an acknowledgement, else QV_AGENT_ERR_PARAM.
uint32_t QV_AGENT_CheckRecvMsg(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from);

// The message kind (0 to 3) an acknowledgement belongs to, by the collector port it came from, or
// QV_AGENT_MSG_NONE.
uint32_t QV_AGENT_GetRecvMsgType(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from);

}

namespace qv::wire {

// The head length of a datagram of kind k: alarms carry no stream fields.
inline uint32_t HeadLen(uint32_t k) {
    return k == QV_AGENT_MSG_ALARM ? QV_WIRE_SHORT_HEAD_LEN : QV_WIRE_STREAM_HEAD_LEN;
}

}  // namespace qv::wire

#endif
