// The agent's trace file: one line per diagnostic, "time[service type]text\n", appended to
// "/opt/zanthe/var/log/qvagent.log" while g_bQvagentDbgSwitch is set. Each line is opened, written in
// one append-mode write and closed, so lines of different threads never interleave.
#include <dlfcn.h>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "core/paths.h"
#include "qvagent/qv_agent_memory.h"
#include "qvplatform/pal.h"
#include "qvplatform/qv_bounded.h"

uint32_t g_bQvagentDbgSwitch = 0;

namespace {

constexpr size_t kTextBuffer = QV_AGENT_TRACE_TEXT_MAX + 1;
constexpr size_t kLineBuffer = QV_AGENT_TRACE_LINE_MAX + 1;
constexpr size_t kStampBuffer = 128;
constexpr int kBacktraceFrames = 100;
constexpr mode_t kTraceFileMode = 0600;

bool TracingOn() { return std::atomic_ref<uint32_t>(g_bQvagentDbgSwitch).load(std::memory_order_relaxed) != 0; }

// One stack frame as "object(symbol+0xoffset) [address]", without allocating.
void DescribeFrame(void *address, char *out, size_t size) {
    Dl_info info{};
    if (dladdr(address, &info) == 0) {
        snprintf_truncated_s(out, size, "[%p]", address);
        return;
    }
    const char *object = info.dli_fname != nullptr ? info.dli_fname : "?";
    if (info.dli_sname == nullptr) {
        snprintf_truncated_s(out, size, "%s [%p]", object, address);
        return;
    }
    const auto offset = reinterpret_cast<uintptr_t>(address) - reinterpret_cast<uintptr_t>(info.dli_saddr);
    snprintf_truncated_s(out, size, "%s(%s+0x%lx) [%p]", object, info.dli_sname,
                         static_cast<unsigned long>(offset), address);
}

}  // namespace

void QV_AGENT_WriteToFile(const char *format, ...) {
    if (!TracingOn() || format == nullptr) return;
    char text[kTextBuffer] = {};
    va_list args;
    va_start(args, format);
    const int written = vsnprintf_truncated_s(text, sizeof text, format, args);
    va_end(args);
    if (written < 0) return;
    QV_AGENT_WriteToFileStr(text);
}

void QV_AGENT_WriteToFileStr(const char *text) {
    const char *serviceType = std::getenv(qv::path::kServiceTypeEnv);
    if (text == nullptr || serviceType == nullptr) return;
    const int fd = ::open(qv::path::kTraceFile, O_RDWR | O_CREAT | O_APPEND | O_CLOEXEC, kTraceFileMode);
    if (fd < 0) return;

    PAL_SYSTIME_S now{};
    PAL_SystimeGet(&now);  // a clock that cannot be read leaves the time at zero
    char stamp[kStampBuffer] = {};
    snprintf_truncated_s(stamp, sizeof stamp, "%04u-%02u-%02u %02u:%02u:%02u.%03u", unsigned{now.usYear},
                         unsigned{now.ucMonth}, unsigned{now.ucDate}, unsigned{now.ucHour},
                         unsigned{now.ucMinute}, unsigned{now.ucSecond}, now.uiMillSec);
    char line[kLineBuffer] = {};
    snprintf_truncated_s(line, sizeof line, "%s[%s]%s\n", stamp, serviceType, text);
    const ssize_t ignored = ::write(fd, line, std::strlen(line));  // a lost trace line is not an error
    static_cast<void>(ignored);
    ::close(fd);
}

void QV_AGENT_Backtrace(void) {
    if (!TracingOn()) return;
    void *frames[kBacktraceFrames];
    const int count = ::backtrace(frames, kBacktraceFrames);
    char text[kTextBuffer];
    for (int i = 0; i < count; ++i) {
        DescribeFrame(frames[i], text, sizeof text);
        QV_AGENT_WriteToFileStr(text);
    }
}
