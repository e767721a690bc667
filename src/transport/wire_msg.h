// Building the heads of the datagrams the agent sends.
#ifndef QV_TRANSPORT_WIRE_HEAD_H
#define QV_TRANSPORT_WIRE_HEAD_H

#include <cstdint>

extern "C" {

// Sets the byte-order flag in the head of a datagram the agent builds; 0, or QV_AGENT_ERR_PARAM for a
// null head.
uint32_t QV_AGENT_SetMsgByteOrder(uint8_t *head);

}

#endif
