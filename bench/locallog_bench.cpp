// Cost of one boot-log line in the local log file (on tmpfs under the benchmark runner): alone, and
// while a second process writes the same file as fast as it can, so that the two take turns at the
// file lock. A line of about 100 characters; the ring wraps now and then, as it does in service.
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>

#include "qvagent/qv_agent_bootlog.h"

namespace {

constexpr char kService[] = "bench";
constexpr char kText[] = "interface eth0 up, speed 10000, duplex full, mtu 9000";

uint32_t WriteLine() { return QV_Agent_SysbootLog("benchproc", QV_AGENT_BOOTLOG_INFO, "%s %d", kText, 42); }

void BM_BootLogLine(benchmark::State &state) {
    QV_Agent_SysbootLogInit(kService);
    for (auto _ : state) benchmark::DoNotOptimize(WriteLine());
}
BENCHMARK(BM_BootLogLine);

// The other process writes until it is told to stop; it starts before the timed loop.
void BM_BootLogLineTwoProcesses(benchmark::State &state) {
    QV_Agent_SysbootLogInit(kService);
    const pid_t other = ::fork();
    if (other < 0) {
        state.SkipWithError("fork failed");
        return;
    }
    if (other == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the benchmark
        QV_Agent_SysbootLogInit(kService);  // a descriptor of its own: record locks belong to a process
        for (;;) WriteLine();
    }
    WriteLine();
    for (auto _ : state) benchmark::DoNotOptimize(WriteLine());
    ::kill(other, SIGKILL);
    ::waitpid(other, nullptr, 0);
}
BENCHMARK(BM_BootLogLineTwoProcesses)->UseRealTime();

}  // namespace
