// The numbered datagrams the agent sends and the acknowledgements it accepts: building the head,
// packing the body from a send list or the blackbox, and checking what comes back.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_WIRE_MSG_H
#define QV_TRANSPORT_WIRE_MSG_H

#include "qvagent/qv_agent_transport.h"
#include "qvagent/qv_agent_wire.h"

namespace qv::wire {

// The head length of a datagram of kind k: alarms carry no stream fields.
inline uint32_t HeadLen(uint32_t k) {
    return k == QV_AGENT_MSG_ALARM ? QV_WIRE_SHORT_HEAD_LEN : QV_WIRE_STREAM_HEAD_LEN;
}

}  // namespace qv::wire

#endif
