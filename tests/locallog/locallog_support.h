// Helpers of the local log tests: the boot log's file, its head, and lines of an exact length.
#ifndef QV_TEST_LOCALLOG_SUPPORT_H
#define QV_TEST_LOCALLOG_SUPPORT_H

#include <cstdint>
#include <string>

#include "qvagent/qv_agent_bootlog.h"

namespace qvtest {

// "/opt/zanthe/var/log/<name>.log", the boot log file of a service of that name.
std::string BootLogPath(const std::string &name);

// Lets go of the agent's descriptor and sets the path to that of the name.
void UseBootLog(const std::string &name);

// Characters a boot-log line adds to its text at level INFO from process "p": time prefix, tags and
// line end.
inline constexpr uint32_t kInfoLineOverhead = 23 + 11 + 1;

// Writes one INFO line of exactly `length` characters from process "p", its text made of `fill`;
// the boot log's result.
uint32_t WriteInfoLine(uint32_t length, char fill = 'x');

// The head at the start of the file (zero when there is none).
QvAgentPlogHead ReadHeadOf(const std::string &path);

}  // namespace qvtest

#endif
