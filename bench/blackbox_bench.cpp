// Cost of a log by identifier with the blackbox on (the record written to the box's file, a tmpfs file
// under the scratch /opt) beside the same log with it off (the record queued on the log list), in the
// same run and the same loop, and beside the bare file calls a stored record needs: read the head,
// write record head and record in one call, write the head.
//
// Every run counts the read and write system calls of the process per report (file_reads and
// file_writes, from /proc/self/io; the box's emptying adds one write per 256 reports). That nothing
// else (fstat, lseek, open) is called per record was checked once with, for X = On and X = Off,
//   tests/support/qv_isolate strace -f -c build/bench/bench/qvagent_bench
//       --benchmark_filter='BM_ReportLogById_BlackboxX$' --benchmark_min_time=0.3   (one line)
// whose counts differ only by one pread64, one pwritev and one pwrite64 per report, and where the
// time goes with perf record under the same runner (most of it in those three calls).
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "bench_support.h"
#include "blackbox/blackbox.h"
#include "core/mutex_guard.h"

namespace {

// The box is emptied this often, outside the timed region, so that it never fills (a full box queues
// in memory); the smallest box holds well over this many of these records.
constexpr int kEmptyEvery = 256;

// Bytes of the by-identifier record reported below: its head, the service name and one number.
constexpr uint32_t kRecordLen = 73;

// Read and write system calls of the process so far, from /proc/self/io; zeros where it is missing.
struct IoCalls {
    uint64_t reads = 0;
    uint64_t writes = 0;
};

IoCalls CountIoCalls() {
    IoCalls calls;
    char text[512] = {};
    const int fd = ::open("/proc/self/io", O_RDONLY | O_CLOEXEC);
    if (fd < 0) return calls;
    const ssize_t n = ::read(fd, text, sizeof text - 1);
    ::close(fd);
    if (n <= 0) return calls;
    if (const char *r = std::strstr(text, "syscr: ")) std::sscanf(r, "syscr: %" SCNu64, &calls.reads);
    if (const char *w = std::strstr(text, "syscw: ")) std::sscanf(w, "syscw: %" SCNu64, &calls.writes);
    return calls;
}

void ReportIoCalls(benchmark::State &state, const IoCalls &before) {
    const IoCalls after = CountIoCalls();
    state.counters["file_reads"] =
        benchmark::Counter(static_cast<double>(after.reads - before.reads), benchmark::Counter::kAvgIterations);
    state.counters["file_writes"] =
        benchmark::Counter(static_cast<double>(after.writes - before.writes), benchmark::Counter::kAvgIterations);
}

// Empties the box as an acknowledgement of everything would, and the lists.
bool EmptyBox(QvAgentModule *module) {
    {
        qv::MutexGuard guard(module->stListMutex);
        QvAgentBoxHead head;
        if (!qv::box::Reset(g_pstQvAgentLogBox, head)) return false;
    }
    qvbench::DrainLists(module);
    return true;
}

void ReportWithBlackbox(benchmark::State &state, bool on) {
    QvAgentModule *module = qvbench::Agent();
    if (module == nullptr || g_pstQvAgentLogBox == nullptr) {
        state.SkipWithError("no blackbox: PX_SERVICE_TYPE unset or /opt/zanthe/var not writable");
        return;
    }
    const uint32_t saved = module->bBlackboxEnable;
    module->bBlackboxEnable = on ? 1 : 0;
    EmptyBox(module);
    const IoCalls before = CountIoCalls();
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(QV_Agent_ReportLogById(4, 0x1234, "port %u down", 7u));
        if (++n % kEmptyEvery == 0) {
            state.PauseTiming();
            // With the box on, a record on the log list means the box was full: not what is measured.
            if (on && module->astSendList[QV_AGENT_MSG_LOG].uiCount != 0) state.SkipWithError("the blackbox filled");
            if (!EmptyBox(module)) state.SkipWithError("the blackbox head cannot be written");
            state.ResumeTiming();
        }
    }
    ReportIoCalls(state, before);
    EmptyBox(module);
    module->bBlackboxEnable = saved;
}

void BM_ReportLogById_BlackboxOff(benchmark::State &state) { ReportWithBlackbox(state, false); }
BENCHMARK(BM_ReportLogById_BlackboxOff);

void BM_ReportLogById_BlackboxOn(benchmark::State &state) { ReportWithBlackbox(state, true); }
BENCHMARK(BM_ReportLogById_BlackboxOn);

// The three calls of a stored record on a file of the same file system, without the agent: a 32-byte
// head read, an 8-byte record head and a record of the size of the one above written together, the
// head written back.
void BM_BlackboxFileCallsBaseline(benchmark::State &state) {
    const int fd = ::open("/opt/zanthe/var/bench_file_calls", O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fd < 0 || ::posix_fallocate(fd, 0, 64 * 1024) != 0) {
        state.SkipWithError("cannot make /opt/zanthe/var/bench_file_calls");
        if (fd >= 0) ::close(fd);
        return;
    }
    uint8_t head[QV_BOX_HEAD_LEN] = {};
    uint8_t recordHead[QV_BOX_REC_HEAD_LEN] = {};
    uint8_t record[kRecordLen] = {};
    iovec parts[2] = {{recordHead, sizeof recordHead}, {record, sizeof record}};
    off_t pos = 0;
    const IoCalls before = CountIoCalls();
    for (auto _ : state) {
        benchmark::DoNotOptimize(::pread(fd, head, sizeof head, 0));
        benchmark::DoNotOptimize(::pwritev(fd, parts, 2, QV_BOX_HEAD_LEN + pos));
        benchmark::DoNotOptimize(::pwrite(fd, head, sizeof head, 0));
        pos = (pos + QV_BOX_REC_HEAD_LEN + kRecordLen) % (32 * 1024);
    }
    ReportIoCalls(state, before);
    ::close(fd);
    ::unlink("/opt/zanthe/var/bench_file_calls");
}
BENCHMARK(BM_BlackboxFileCallsBaseline);

}  // namespace
