// The send window of kinds 0 to 3: one datagram outstanding per kind, kept until acknowledged and
// resent on a fixed schedule.
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_SEND_WINDOW_H
#define QV_TRANSPORT_SEND_WINDOW_H

#include "qvagent/qv_agent_transport.h"

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

// Datagrams of kind k (0 to 3) released unacknowledged after their last resend, since the process
// started: each is a gap in the numbers the collector receives.
uint64_t Dropped(uint32_t k);

// Numbers of kind k (0 to 3) raised for a datagram that then found nothing to pack (the pass cap
// reached, or a blackbox with nothing left to read), since the process started: gaps too.
uint64_t Skipped(uint32_t k);

}  // namespace qv::window

#endif
