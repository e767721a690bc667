// Where the agent runs and where the collector is: the device-management libraries, loaded at module
// creation, give the CPU, slot, board type and addresses; from them the agent decides whether the
// collector is on its own board (127.0.0.1) or on the main board, and fills mesh addresses.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_BOARD_DISCOVERY_H
#define QV_TRANSPORT_BOARD_DISCOVERY_H

#include "qvagent/qv_agent_transport.h"

#endif
