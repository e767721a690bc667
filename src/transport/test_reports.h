// Load generators that send bursts of numbered test logs through event objects, so the whole path to
// the collector can be exercised on a running device: one switched on by a marker file (socket mode's
// send pass), two by exported counters (mesh mode's timer tick).
// The exported functions are declared in the installed header qvagent/qv_agent_transport.h.
#ifndef QV_TRANSPORT_TEST_REPORTS_H
#define QV_TRANSPORT_TEST_REPORTS_H

#include "qvagent/qv_agent_transport.h"

namespace qv::testreport {

// Path of the marker file that switches the socket-mode generator on.
inline constexpr char kMarkerFile[] = "/opt/zanthe/var/log/QvagentTestlog";

}  // namespace qv::testreport

#endif
