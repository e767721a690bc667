// Socket mode: the numbered datagrams of kinds 0 to 3 over one UDP socket of the agent's own, with a
// send thread ("QV_AGENT_SEND", one pass a second) and a receive thread ("QV_AGENT_RCV") for the
// acknowledgements.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_SOCKET_MODE_H
#define QV_TRANSPORT_SOCKET_MODE_H

#include "qvagent/qv_agent_transport.h"

#endif
