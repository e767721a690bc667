// The send window of kinds 0 to 3: one datagram outstanding per kind, kept until acknowledged and
// resent on a fixed schedule.
#ifndef QV_TRANSPORT_SEND_WINDOW_H
#define QV_TRANSPORT_SEND_WINDOW_H

#include <netinet/in.h>

#include <cstdint>

#include "qvagent/qv_agent_init.h"

extern "C" {

// One send pass of kind k into buf (size bytes): the bytes to send (at least 1), 0 when there is
// nothing to send, -1 while the kept datagram waits for its acknowledgement.
int32_t QV_AGENT_GetSendMsg(uint32_t k, uint8_t *buf, uint32_t size, QvAgentModule *module);

// 1 when kind k is to build a new datagram on this pass, else 0. The caller holds stListMutex.
uint32_t QV_AGETN_IsNeedSendMsg(int32_t k, QvAgentSendList *list, QvAgentModule *module);

// 1 when the kept datagram is to be resent on this pass; else 0, and the copy is released when its
// last pass has come. The caller holds stListMutex.
uint32_t QV_AGENT_CheckReSendLimit(QvAgentSendList *list, QvAgentModule *module);

// Keeps a copy of the datagram just built. 0; 1 for length 0; QV_AGENT_ERR_NO_MEMORY; the copy's error.
uint32_t QV_AGENT_AddRetransMsg(QvAgentSendList *list, const uint8_t *msg, uint32_t len, QvAgentModule *module);

// Releases the kept copy and its send count.
uint32_t QV_AGENT_FreeResendMsg(QvAgentSendList *list, QvAgentModule *module);

// Takes an acknowledgement from the collector (socket mode) and sends the next datagram of its kind.
// 0, or QV_AGENT_ERR_PARAM for a datagram that is no acknowledgement.
uint32_t QV_AGENT_ProcRecvMsg(const uint8_t *buf, uint32_t len, const struct sockaddr_in *from,
                              QvAgentModule *module);

// Starts a send pass: clears the per-pass record counters under stListMutex; the lock's result.
uint32_t QV_AGENT_ClearSendCountInfo(QvAgentModule *module);

}

namespace qv::window {

// Releases the kept datagram of kind k after its acknowledgement and, for the log kind with the
// blackbox in use, commits the blackbox. The caller holds stListMutex.
void ReleaseAcknowledged(QvAgentModule *module, uint32_t k);

// Whether kind k has packed its share of this send pass (log and debug kinds: 200 records).
bool PassCapReached(QvAgentModule *module, int32_t k);

// Counts one record of kind k packed in this send pass.
void CountPacked(QvAgentModule *module, int32_t k);

// Clears the per-pass record counters without the list mutex.
void ClearPassCounters(QvAgentModule *module);

}  // namespace qv::window

#endif
