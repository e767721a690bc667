// Mesh mode end to end, the default transport that QV_Agent_Init starts: throughput of high-precision
// logs to qvcollector, the latency from a report to the collector's decoded line, and the CPU an idle
// agent costs. The latency and idle benchmarks whose names end in "_long" run for ten seconds or more.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "transport_bench.h"
#include "transport_support.h"

namespace qvbench {

namespace {

constexpr int64_t kMs = 1000000;
constexpr uint32_t kProbeLogIdBase = 0x5200;  // probe i reports log id kProbeLogIdBase + i
constexpr uint32_t kWarmUpLogId = 0x51FF;
constexpr int kProbes = 300;
constexpr int64_t kIdleWindowMs = 10000;

double Seconds(int64_t ns) { return static_cast<double>(ns) / 1e9; }

int64_t ProcessCpuNs() {
    timespec ts{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

// Ticks of the agent's timer so far. The scheduler thread writes the field; a torn or stale read
// only blurs a count that is reported, never acted on.
uint32_t Ticks(QvAgentModule *module) { return std::atomic_ref<uint32_t>(module->uiTick).load(std::memory_order_relaxed); }

// The time each probe's record line was read, 0 until then.
class ProbeArrivals {
public:
    explicit ProbeArrivals(size_t probes) : at_(probes, 0) {}
    LineFn Recorder() {
        return [this](std::string_view line, int64_t readNs) {
            uint64_t id = 0;
            if (!IsHighPrecisionRecord(line) || !JsonNumber(line, "log_id", id)) return;
            if (id == kWarmUpLogId) warmUpSeen_ = true;
            if (id < kProbeLogIdBase || id - kProbeLogIdBase >= at_.size()) return;
            int64_t &slot = at_[id - kProbeLogIdBase];
            if (slot == 0) {
                slot = readNs;
                ++arrived_;
            }
        };
    }
    int64_t At(size_t i) const { return at_[i]; }
    size_t Arrived() const { return arrived_; }
    bool WarmUpSeen() const { return warmUpSeen_; }

private:
    std::vector<int64_t> at_;
    size_t arrived_ = 0;
    bool warmUpSeen_ = false;
};

// One warm-up report, which goes out on a tick: afterwards the agent's mesh sockets exist and the
// high-precision stream is running. False when its line did not come within a few ticks.
bool WarmUp(CollectorChild &collector, ProbeArrivals &arrivals, const LineFn &record) {
    if (ReportHighPrecision(kWarmUpLogId, 0) != QV_AGENT_OK) return false;
    const int64_t end = NowNs() + 5000 * kMs;
    while (!arrivals.WarmUpSeen() && NowNs() < end) {
        if (!collector.Pump(50, record)) return false;
    }
    return arrivals.WarmUpSeen();
}

// Pumps the collector's output until the deadline, or until done() holds, waking at least every
// sliceMs to look at done(). False when the collector's output closed.
template <typename Done>
bool PumpUntil(CollectorChild &collector, const LineFn &record, int64_t deadline, Done done, int64_t sliceMs = 50) {
    while (!done()) {
        const int64_t left = deadline - NowNs();
        if (left <= 0) return true;
        if (!collector.Pump(static_cast<int>(std::min<int64_t>(left / kMs + 1, sliceMs)), record)) return false;
    }
    return true;
}

// Latencies in milliseconds of the probes that arrived; the number that did not.
struct Latencies {
    std::vector<double> ms;
    size_t lost = 0;
};

Latencies Collect(const ProbeArrivals &arrivals, const std::vector<int64_t> &reportedAt) {
    Latencies l;
    for (size_t i = 0; i < reportedAt.size(); ++i) {
        if (arrivals.At(i) == 0) {
            ++l.lost;
        } else {
            l.ms.push_back(static_cast<double>(arrivals.At(i) - reportedAt[i]) / 1e6);
        }
    }
    return l;
}

// A plain UDP socket that sends one byte to the agent's high-precision mesh socket. Mesh mode reads
// whatever arrives there as the collector's acknowledgement of the datagram in flight, releases it and
// sends the next datagram at once: the byte stands for an acknowledgement arriving just after a report.
class AckNudge {
public:
    explicit AckNudge(int32_t agentFd) {
        socklen_t len = sizeof to_;
        if (agentFd < 0 || getsockname(agentFd, reinterpret_cast<sockaddr *>(&to_), &len) != 0) return;
        fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in self{};
        self.sin_family = AF_INET;
        self.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (fd_ >= 0 && bind(fd_, reinterpret_cast<const sockaddr *>(&self), sizeof self) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~AckNudge() {
        if (fd_ >= 0) close(fd_);
    }
    AckNudge(const AckNudge &) = delete;
    AckNudge &operator=(const AckNudge &) = delete;
    bool Ok() const { return fd_ >= 0; }
    bool Send() const {
        const unsigned char one = 0xA5;
        return sendto(fd_, &one, 1, 0, reinterpret_cast<const sockaddr *>(&to_), sizeof to_) == 1;
    }

private:
    int fd_ = -1;
    sockaddr_in to_{};
};

// Stops the collector and reports a latency run: its error, or the median and 99th percentile of the
// probes' latencies (in unit, scale per millisecond), the probes lost and the records per datagram.
void ReportLatencies(benchmark::State &state, CollectorChild &collector, const ProbeArrivals &arrivals,
                     const std::vector<int64_t> &reportedAt, const char *error, const std::string &unit, double scale) {
    CollectorKindStats stats;
    StopCollector(collector, stats);
    if (error != nullptr) {
        state.SkipWithError(error);
        return;
    }
    Latencies l = Collect(arrivals, reportedAt);
    state.counters["p50_" + unit] = Quantile(l.ms, 0.50) * scale;
    state.counters["p99_" + unit] = Quantile(l.ms, 0.99) * scale;
    state.counters["lost"] = static_cast<double>(l.lost);
    if (stats.datagrams != 0) {
        state.counters["records_per_datagram"] =
            static_cast<double>(stats.records) / static_cast<double>(stats.datagrams);
    }
}

void BM_MeshModeThroughput(benchmark::State &state) {
    RunThroughput(state, Transport::Mesh, static_cast<uint64_t>(state.range(0)), 2000);
}

// Latency of a report whose datagram goes out on an acknowledgement: each probe is reported, the
// acknowledgement is nudged in, and the next probe waits until the previous one's line was read and
// the collector's own acknowledgement of it has had 2 ms to be taken. One probe per datagram.
void BM_MeshModeLatencyAckDriven(benchmark::State &state) {
    CollectorChild collector;
    if (!StartCollector(state, collector)) return;
    QvAgentModule *module = TransportAgent(Transport::Mesh);
    if (module == nullptr) {
        state.SkipWithError("the agent could not be started");
        return;
    }
    ProbeArrivals arrivals(kProbes);
    const LineFn record = arrivals.Recorder();
    const char *error = WarmUp(collector, arrivals, record) ? nullptr : "the warm-up report did not arrive";
    AckNudge nudge(module->aiMeshFd[QV_AGENT_MSG_HIGH_PRECISION]);
    if (error == nullptr && !nudge.Ok()) error = "no socket for the acknowledgement";

    std::vector<int64_t> reportedAt(kProbes, 0);
    for (auto _ : state) {
        for (size_t i = 0; i < reportedAt.size() && error == nullptr; ++i) {
            reportedAt[i] = NowNs();
            const uint32_t id = kProbeLogIdBase + static_cast<uint32_t>(i);
            if (ReportHighPrecision(id, id) != QV_AGENT_OK || !nudge.Send()) {
                error = "a probe could not be reported";
                break;
            }
            // Not there within 1.5 s: it missed its send and waited for a tick; its latency shows that.
            if (!PumpUntil(collector, record, NowNs() + 1500 * kMs, [&] { return arrivals.At(i) != 0; }) ||
                !PumpUntil(collector, record, NowNs() + 2 * kMs, [] { return false; })) {
                error = "the collector ended";
            }
        }
    }
    ReportLatencies(state, collector, arrivals, reportedAt, error, "us", 1000);
}

// Latency of reports spaced 20 to 80 ms apart (about 15 s for all): the list is empty whenever an
// acknowledgement comes, so each report waits for the next tick of the 1000 ms timer, and the figures
// mostly show where in the tick period the reports fell.
void BM_MeshModeLatencyNextTick(benchmark::State &state) {
    CollectorChild collector;
    if (!StartCollector(state, collector)) return;
    if (TransportAgent(Transport::Mesh) == nullptr) {
        state.SkipWithError("the agent could not be started");
        return;
    }
    ProbeArrivals arrivals(kProbes);
    const LineFn record = arrivals.Recorder();
    const char *error = WarmUp(collector, arrivals, record) ? nullptr : "the warm-up report did not arrive";

    std::vector<int64_t> reportedAt(kProbes, 0);
    uint32_t lcg = 12345;  // fixed gaps from run to run
    for (auto _ : state) {
        for (size_t i = 0; i < reportedAt.size() && error == nullptr; ++i) {
            reportedAt[i] = NowNs();
            const uint32_t id = kProbeLogIdBase + static_cast<uint32_t>(i);
            if (ReportHighPrecision(id, id) != QV_AGENT_OK) {
                error = "a probe could not be reported";
                break;
            }
            lcg = lcg * 1664525u + 1013904223u;
            const int64_t gap = (20 + static_cast<int64_t>((lcg >> 16) % 61)) * kMs;
            if (!PumpUntil(collector, record, reportedAt[i] + gap, [] { return false; })) error = "the collector ended";
        }
        if (error == nullptr &&
            !PumpUntil(collector, record, NowNs() + 3000 * kMs, [&] { return arrivals.Arrived() == reportedAt.size(); })) {
            error = "the collector ended";
        }
    }
    ReportLatencies(state, collector, arrivals, reportedAt, error, "ms", 1);
}

// CPU time of the whole process over 10 s with an initialised agent in mesh mode and nothing to send,
// as percent of one core. First the agent settles: its sockets made, its log stream started and
// acknowledged, the collector quiet for a whole tick.
void BM_MeshModeIdleCost(benchmark::State &state) {
    CollectorChild collector;
    if (!StartCollector(state, collector)) return;
    QvAgentModule *module = TransportAgent(Transport::Mesh);
    if (module == nullptr) {
        state.SkipWithError("the agent could not be started");
        return;
    }
    uint64_t lines = 0;
    int64_t lastLine = NowNs();
    const LineFn note = [&](std::string_view, int64_t readNs) {
        ++lines;
        lastLine = readNs;
    };
    const char *error = nullptr;
    const int64_t settleEnd = NowNs() + 10000 * kMs;
    if (!PumpUntil(collector, note, settleEnd,
                   [&] { return Ticks(module) >= 3 && NowNs() - lastLine > 1200 * kMs; })) {
        error = "the collector ended";
    } else if (NowNs() >= settleEnd) {
        error = "the agent did not settle";
    }

    for (auto _ : state) {
        if (error != nullptr) break;
        lines = 0;
        const uint32_t ticks = Ticks(module);
        const int64_t wall = NowNs();
        const int64_t cpu = ProcessCpuNs();
        // One wait for the whole window: every wake-up of this thread would be charged to the process.
        if (!PumpUntil(collector, note, wall + kIdleWindowMs * kMs, [] { return false; }, kIdleWindowMs)) {
            error = "the collector ended";
        }
        const int64_t cpuUsed = ProcessCpuNs() - cpu;
        const int64_t wallUsed = NowNs() - wall;
        state.counters["cpu_pct"] = 100.0 * Seconds(cpuUsed) / Seconds(wallUsed);
        state.counters["cpu_us_per_tick"] =
            static_cast<double>(cpuUsed) / 1000.0 / std::max<double>(1, Ticks(module) - ticks);
        state.counters["ticks"] = static_cast<double>(Ticks(module) - ticks);
        state.counters["collector_lines"] = static_cast<double>(lines);
    }
    CollectorKindStats stats;
    StopCollector(collector, stats);
    if (error != nullptr) state.SkipWithError(error);
}

}  // namespace

void RegisterMeshModeBenchmarks() {
    benchmark::RegisterBenchmark("BM_MeshModeThroughput", BM_MeshModeThroughput)
        ->Arg(50000)
        ->Iterations(5)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_MeshModeLatencyAckDriven", BM_MeshModeLatencyAckDriven)
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_MeshModeLatencyNextTick_long", BM_MeshModeLatencyNextTick)
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_MeshModeIdleCost_long", BM_MeshModeIdleCost)
        ->Iterations(1)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace qvbench
