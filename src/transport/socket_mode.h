// Socket mode: the numbered datagrams of kinds 0 to 3 over one UDP socket of the agent's own, with a
// send thread ("QV_AGENT_SEND", one pass a second) and a receive thread ("QV_AGENT_RCV") for the
// acknowledgements.
#ifndef QV_TRANSPORT_SOCKET_MODE_H
#define QV_TRANSPORT_SOCKET_MODE_H

#include <netinet/in.h>

#include <cstdint>

#include "qvagent/qv_agent_init.h"

extern "C" {

// Creates the UDP socket bound to usLocalPort and uiSelfIp into iSockFd. 0; 0xFFFFFFFF when no socket
// could be made; the negative result of bind (the socket is then closed).
uint32_t QV_AGENT_CreateSocket(QvAgentModule *module);
// Closes iSockFd (if open) and sets it to -1; 0.
uint32_t QV_AGENT_CloseSocket(QvAgentModule *module);
// One send of kind k: the next datagram, a resend, or nothing. 0; QV_AGENT_ERR_NO_MEMORY.
uint32_t QV_AGENT_SendMsg(uint32_t k, QvAgentModule *module);
// The collector's address for kind k (port 6010 for log and debug, 6011 alarm, 6012 high precision).
uint32_t QV_AGENT_GetMainAddr(struct sockaddr_in *addr, uint32_t k, QvAgentModule *module);
// The collector's IPv4 address in network order: the main board's, or 127.0.0.1 while unknown.
uint32_t QV_AGENT_GetIpAddr(QvAgentModule *module);
// Thread bodies; the argument is the module record. They run until cancelled, and mark their end
// for QV_AGENT_RecoveryThread however they end.
void *QV_AGENT_RecvThreadProc(void *module);
void *QV_AGENT_SendThreadProc(void *module);
// Starts both threads (128 KiB stacks). 0, or QV_AGENT_ERR_THREAD with neither left running.
uint32_t QV_AGENT_CreateThread(QvAgentModule *module);
// Re-creates a thread of the pair that has ended (joining it first) or was never started. 0; QV_AGENT_ERR_THREAD; QV_AGENT_ERR_RECOVERY.
uint32_t QV_AGENT_RecoveryThread(QvAgentModule *module);
// Cancels and joins both threads; the socket stays open. 0, or the result of joining.
uint32_t QV_AGENT_DeleteThread(QvAgentModule *module);

}

namespace qv::socketmode {

enum class Role { Receive, Send };

// Test seam: asked by each thread body before every turn of its loop; true makes that thread end
// there, as a thread that dies does. Null (the default) never ends them.
using EndHook = bool (*)(Role role);
void SetEndHookForTest(EndHook hook);

}  // namespace qv::socketmode

#endif
