// Mesh mode's heartbeat: the platform scheduler thread ("QV_AGENT_SEND"), the descriptors of the mesh
// sockets registered on it, and the agent's 1000 ms timer, whose tick runs the restraint, one send
// pass per kind, socket re-creation and KPI sending.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_SCHEDULER_H
#define QV_TRANSPORT_SCHEDULER_H

#include "qvagent/qv_agent_transport.h"

#endif
