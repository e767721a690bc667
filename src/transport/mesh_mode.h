// Mesh mode, the default transport: one mesh socket per message kind, bound to the board's own
// address, non-blocking, and (kinds 0 to 3) registered on the scheduler thread with a callback that
// takes the collector's acknowledgement and sends the next datagram at once.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_MESH_MODE_H
#define QV_TRANSPORT_MESH_MODE_H

#include "qvagent/qv_agent_transport.h"

#endif
