// Lines of the local log file: the file's path and descriptor, the local time prefix, and formatting
// and storing one line under the mutex of this process's writers.
#include <sys/time.h>

#include <cstdarg>
#include <ctime>

#include "core/mutex_guard.h"
#include "locallog/log_file.h"
#include "qvagent/qv_agent_bootlog.h"
#include "qvagent/qv_agent_wire.h"
#include "qvplatform/qv_bounded.h"

char g_stQvAgentLogInfo[QV_AGENT_LOG_PATH_LEN] = {};
int g_iQvAgentLogFileFd = 0;

namespace {

constexpr int kYearBase = 100;  // struct tm counts years from 1900; the prefix from 2000
constexpr int kMonthBase = 1;

}  // namespace

char *QvAgent_GetLogInfo(void) { return g_stQvAgentLogInfo; }

// tzset() first, so that a time zone changed while the process runs is followed (localtime_r alone
// need not look at TZ again).
int32_t QV_AGENT_LOG_GetCurTime(char *buffer, uint32_t size) {
    if (buffer == nullptr) return -1;
    timeval now{};
    ::gettimeofday(&now, nullptr);
    ::tzset();
    tm local{};
    if (::localtime_r(&now.tv_sec, &local) == nullptr) return -1;
    return snprintf_s(buffer, size, "%02d%02d%02d-%02d:%02d:%02d.%06lu ", local.tm_year - kYearBase,
                      local.tm_mon + kMonthBase, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                      static_cast<unsigned long>(now.tv_usec));
}

uint32_t QV_AGENT_LOG_BuffAddTime(char *buffer, int32_t size, uint32_t *length, const char *format, va_list args) {
    if (buffer == nullptr || length == nullptr || format == nullptr || size <= 0) return QV_AGENT_PLOG_FAILED;
    const int32_t prefix = QV_AGENT_LOG_GetCurTime(buffer, static_cast<uint32_t>(size));
    if (prefix < 0) return QV_AGENT_PLOG_FAILED;
    const int text = vsprintf_s(buffer + prefix, static_cast<size_t>(size - prefix), format, args);
    if (text < 0) return QV_AGENT_PLOG_FAILED;
    *length = static_cast<uint32_t>(prefix + text);
    return QV_AGENT_PLOG_OK;
}

uint32_t QV_AGENT_PLOG_LogFile(const char *format, ...) {
    if (format == nullptr) return QV_AGENT_PLOG_FAILED;
    char line[QV_AGENT_LOG_LINE_BUF + 1] = {};
    const qv::MutexGuard guard(qv::plog::g_writerMutex);
    if (QV_AGENT_LOG_CheckAndCreateFile(QvAgent_GetLogInfo(), &g_iQvAgentLogFileFd) != QV_AGENT_PLOG_OK) {
        return QV_AGENT_PLOG_FAILED;
    }
    uint32_t length = 0;
    va_list args;
    va_start(args, format);
    const uint32_t formatted = QV_AGENT_LOG_BuffAddTime(line, QV_AGENT_LOG_LINE_BUF, &length, format, args);
    va_end(args);
    if (formatted != QV_AGENT_PLOG_OK) return QV_AGENT_PLOG_FAILED;
    return QV_AGENT_PLOG_Buff2File(g_iQvAgentLogFileFd, reinterpret_cast<const uint8_t *>(line), length,
                                   QV_PLOG_FILE_MAX);
}
