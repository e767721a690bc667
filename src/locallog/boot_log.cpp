// The boot log: a service names its local log file once and writes level-tagged lines into it,
// before or without the module record.
#include <cstdarg>

#include "core/mutex_guard.h"
#include "core/paths.h"
#include "locallog/log_file.h"
#include "qvagent/qv_agent_bootlog.h"
#include "qvplatform/qv_bounded.h"

namespace {

constexpr const char *kLevelNames[] = {"DEBUG", "INFO", "WARNING", "ERROR", "FATAL"};
static_assert(sizeof kLevelNames / sizeof kLevelNames[0] == QV_AGENT_BOOTLOG_FATAL + 1);

}  // namespace

// The descriptor of the previous path is let go, so that lines follow the new path even when that
// file exists already.
int32_t QV_Agent_SysbootLogInit(const char *name) {
    const qv::MutexGuard guard(qv::plog::g_writerMutex);
    qv::plog::ReleaseDescriptor(&g_iQvAgentLogFileFd);
    g_stQvAgentLogInfo[0] = '\0';
    if (name == nullptr) return -1;
    const int written = sprintf_s(g_stQvAgentLogInfo, sizeof g_stQvAgentLogInfo, qv::path::kBootLogFormat, name);
    if (written >= 0) g_stQvAgentLogInfo[sizeof g_stQvAgentLogInfo - 1] = '\0';
    return written;
}

uint32_t QV_Agent_SysbootLog(const char *process, uint32_t level, const char *format, ...) {
    if (process == nullptr || format == nullptr) return QV_AGENT_PLOG_FAILED;
    char text[QV_AGENT_BOOTLOG_TEXT_MAX + 1] = {};
    va_list args;
    va_start(args, format);
    const int written = vsnprintf_s(text, sizeof text, format, args);
    va_end(args);
    if (written < 0) return QV_AGENT_PLOG_FAILED;
    const uint32_t index = level < QV_AGENT_BOOTLOG_FATAL ? level : QV_AGENT_BOOTLOG_FATAL;
    return QV_AGENT_PLOG_LogFile("[%s][P:%s]%s\n", kLevelNames[index], process, text);
}
