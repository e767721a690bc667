// Mesh mode, the default transport: one mesh socket per message kind, bound to the board's own
// address, non-blocking, and (kinds 0 to 3) registered on the scheduler thread with a callback that
// takes the collector's acknowledgement and sends the next datagram at once.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_MESH_MODE_H
#define QV_TRANSPORT_MESH_MODE_H

#include "qvagent/qv_agent_transport.h"

namespace qv::mesh {

// What a datagram read from the mesh socket of kind k (0 to 3) does, whatever its bytes: it counts as
// the acknowledgement of the kept datagram, which is released, and the next datagram goes out to port.
// The seam under the socket read, for the receive path's fuzz target.
void TakeReply(QvAgentModule *module, uint32_t k, uint32_t port);

}  // namespace qv::mesh

#endif
