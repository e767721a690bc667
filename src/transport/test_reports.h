// Load generators that send bursts of numbered test logs through event objects, so the whole path to
// the collector can be exercised on a running device: one switched on by a marker file (socket mode's
// send pass), two by exported counters (mesh mode's timer tick).
#ifndef QV_TRANSPORT_TEST_REPORTS_H
#define QV_TRANSPORT_TEST_REPORTS_H

#include <cstdint>

#include "qvagent/qv_agent_init.h"

extern "C" {

// Test logs per tick of the two counter-driven generators; set from outside the agent, 0 at load.
extern int32_t g_QvagentTestReportNum;
extern int32_t g_QvagentHighPrecReportNum;

// 100 diagnostic test logs when the service is "nbqrd_frame"; the last send's result, or the name
// comparison's when the service differs.
uint32_t QV_AGENT_ReportTestLog(QvAgentModule *module);
// min(g_QvagentTestReportNum, 501) diagnostic test logs; the last send's result.
uint32_t QV_AGENT_ReportTestLogForGlobalVariables(QvAgentModule *module);
// min(g_QvagentHighPrecReportNum, 801) high-precision test logs; the last send's result.
uint32_t QV_AGENT_ReportTestHighPrecLogForGlbVar(QvAgentModule *module);

}

namespace qv::testreport {

// Path of the marker file that switches the socket-mode generator on.
inline constexpr char kMarkerFile[] = "/opt/zanthe/var/log/QvagentTestlog";

}  // namespace qv::testreport

#endif
