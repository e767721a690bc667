// Socket mode: the numbered datagrams of kinds 0 to 3 over one UDP socket of the agent's own, with a
// send thread ("QV_AGENT_SEND", one pass a second) and a receive thread ("QV_AGENT_RCV") for the
// acknowledgements.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_SOCKET_MODE_H
#define QV_TRANSPORT_SOCKET_MODE_H

#include "qvagent/qv_agent_transport.h"

namespace qv::socketmode {

enum class Role { Receive, Send };

// Test seam: asked by each thread body before every turn of its loop; true makes that thread end
// there, as a thread that dies does. Null (the default) never ends them.
using EndHook = bool (*)(Role role);
void SetEndHookForTest(EndHook hook);

}  // namespace qv::socketmode

#endif
