// The module record in the transport under measurement, the per-run collector, and the throughput
// driver shared by socket mode and mesh mode.
#include "transport_support.h"

#include <arpa/inet.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "qvplatform/mesh.h"
#include "qvplatform_testctl.h"
#include "transport/scheduler.h"
#include "transport/socket_mode.h"

namespace qvbench {

namespace {

constexpr uint32_t kListLimit = 100000;         // far above any backlog the benchmarks keep
constexpr uint32_t kThroughputLogId = 0x5100;
constexpr int kCollectorStartMs = 5000;
constexpr int kCollectorStopMs = 5000;
constexpr int64_t kMs = 1000000;
constexpr int64_t kWarmUpNs = 10000 * kMs;      // the first send waits for a send pass or a tick
constexpr int64_t kIterationNs = 60000 * kMs;
constexpr int64_t kDrainNs = 30000 * kMs;       // a lost datagram is resent five passes later
constexpr int kPumpMs = 20;

QvAgentModule *g_module = nullptr;
Transport g_transport = Transport::Mesh;
bool g_failed = false;

int64_t CpuNs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

QvAgentServiceDesc BenchDesc() {
    QvAgentServiceDesc desc{};
    std::strncpy(desc.szServiceName, "bench_transport", sizeof desc.szServiceName - 1);
    desc.uiServiceId = 1;
    desc.usLocalPort = 0;  // socket mode: any free port
    desc.uiListLimit = kListLimit;
    desc.uiSelfIp = htonl(INADDR_LOOPBACK);
    return desc;
}

QvAgentModule *Fail(const char *why) {
    std::fprintf(stderr, "transport bench: %s\n", why);
    g_failed = true;
    return nullptr;
}

QvAgentModule *StartSocketMode() {
    const QvAgentServiceDesc desc = BenchDesc();
    QVPLAT_TestKevFailThreadCreate(1);  // no scheduler thread: the module waits for recovery
    QvAgentModule *module = QV_Agent_Init(&desc);
    QVPLAT_TestKevFailThreadCreate(0);
    if (module == nullptr) return Fail("QV_Agent_Init failed");
    if (module->uiTransportState != QV_AGENT_STATE_NO_THREADS) return Fail("the scheduler thread was created");
    QV_Agent_SetMainBoardIP(module, htonl(INADDR_LOOPBACK));
    if (QV_AGENT_CreateModuleRecovery(module) != QV_AGENT_OK) return Fail("socket-mode recovery failed");
    return module;
}

QvAgentModule *StartMeshMode() {
    const QvAgentServiceDesc desc = BenchDesc();
    QvAgentModule *module = QV_Agent_Init(&desc);
    if (module == nullptr) return Fail("QV_Agent_Init failed");
    if (module->uiTransportState != QV_AGENT_STATE_READY || module->pstSchedCtrl == nullptr ||
        module->pstSchedCtrl->ulTimer == 0) {
        return Fail("no scheduler thread or timer");
    }
    QV_Agent_SetMainBoardIP(module, htonl(INADDR_LOOPBACK));
    return module;
}

}  // namespace

QvAgentModule *TransportAgent(Transport transport) {
    if (g_module != nullptr || g_failed) return g_module;
    g_transport = transport;
    g_module = transport == Transport::Socket ? StartSocketMode() : StartMeshMode();
    return g_module;
}

void StopTransport() {
    QvAgentModule *module = g_module;
    if (module == nullptr) return;
    if (g_transport == Transport::Socket) {
        QV_AGENT_DeleteThread(module);
        module->ulRecvThread = module->ulSendThread = 0;
        QV_AGENT_CloseSocket(module);
    } else if (module->pstSchedCtrl != nullptr) {
        // The timer first: it runs on the scheduler thread, on the module record.
        QV_AGENT_StopKEVTimer(module->pstSchedCtrl->ulTimer);
        module->pstSchedCtrl->ulTimer = 0;
        QVPLAT_TestKevStopThread(module->pstSchedCtrl->ulSchedThread);
        module->pstSchedCtrl->ulSchedThread = 0;
        for (int32_t &fd : module->aiMeshFd) {
            if (fd != -1) MESH_Close(fd);
            fd = -1;
        }
    }
}

uint32_t ReportHighPrecision(uint32_t logId, uint32_t number) {
    return QV_Agent_ReportLogById(kHighPrecisionKind, logId, "%u %u", number, 0xBEEFu);
}

bool StartCollector(benchmark::State &state, CollectorChild &collector) {
    if (collector.Start({"--stats"}, kCollectorStartMs)) return true;
    state.SkipWithError(collector.Error().c_str());
    return false;
}

bool StopCollector(CollectorChild &collector, CollectorKindStats &highPrecision) {
    bool found = false;
    collector.Stop(kCollectorStopMs, [&](std::string_view line, int64_t) {
        if (ParseStatsLine(line, "hplog", highPrecision)) found = true;
    });
    return found;
}

void RunThroughput(benchmark::State &state, Transport transport, uint64_t perIteration, uint64_t backlog) {
    CollectorChild collector;
    if (!StartCollector(state, collector)) return;
    if (TransportAgent(transport) == nullptr) {
        state.SkipWithError("the agent could not be started");
        return;
    }

    uint64_t reported = 0;
    uint64_t received = 0;
    uint64_t rejected = 0;
    uint32_t number = 0;
    const LineFn count = [&](std::string_view line, int64_t) {
        if (IsHighPrecisionRecord(line)) ++received;
    };
    // Keeps `backlog` records between the report and the collector's line.
    const auto topUp = [&] {
        while (reported - std::min(received, reported) < backlog) {
            if (ReportHighPrecision(kThroughputLogId, ++number) != QV_AGENT_OK) {
                ++rejected;
                break;
            }
            ++reported;
        }
    };

    // Warm-up: the first datagram waits for a send pass (socket mode) or a tick (mesh mode); from then
    // on acknowledgements keep the datagrams going while the backlog lasts.
    const char *error = nullptr;
    const int64_t warmUpEnd = NowNs() + kWarmUpNs;
    while (received < backlog && error == nullptr) {
        topUp();
        if (!collector.Pump(kPumpMs, count)) error = "the collector ended";
        if (NowNs() > warmUpEnd) error = "no records arrived within the warm-up";
    }

    // CPU of the timed loop: the process less this thread is the agent's threads.
    const int64_t processCpu = CpuNs(CLOCK_PROCESS_CPUTIME_ID);
    const int64_t threadCpu = CpuNs(CLOCK_THREAD_CPUTIME_ID);
    const double collectorCpu = collector.CpuSeconds();
    const int64_t wall = NowNs();
    uint64_t timed = 0;
    for (auto _ : state) {
        if (error != nullptr) break;
        const uint64_t goal = received + perIteration;
        const int64_t end = NowNs() + kIterationNs;
        while (received < goal) {
            topUp();
            if (!collector.Pump(kPumpMs, count)) {
                error = "the collector ended";
                break;
            }
            if (NowNs() > end) {
                error = "an iteration ran out of time";
                break;
            }
        }
        if (error != nullptr) break;
        timed += perIteration;
    }

    const double wallSeconds = static_cast<double>(NowNs() - wall) / 1e9;
    const double agentSeconds = static_cast<double>((CpuNs(CLOCK_PROCESS_CPUTIME_ID) - processCpu) -
                                                    (CpuNs(CLOCK_THREAD_CPUTIME_ID) - threadCpu)) / 1e9;
    const double benchSeconds = static_cast<double>(CpuNs(CLOCK_THREAD_CPUTIME_ID) - threadCpu) / 1e9;
    const double collectorSeconds = collector.CpuSeconds() - collectorCpu;

    // Nothing more is reported: wait for every record reported to arrive, then the collector's stats.
    const int64_t drainEnd = NowNs() + kDrainNs;
    while (received < reported && NowNs() < drainEnd && collector.Pump(kPumpMs, count)) {
    }
    CollectorKindStats stats;
    const bool haveStats = StopCollector(collector, stats);
    if (error != nullptr) {
        state.SkipWithError(error);
        return;
    }
    state.counters["records_per_s"] = benchmark::Counter(static_cast<double>(timed), benchmark::Counter::kIsRate);
    if (haveStats && stats.datagrams != 0) {
        state.counters["records_per_datagram"] =
            static_cast<double>(stats.records) / static_cast<double>(stats.datagrams);
        state.counters["duplicates"] = static_cast<double>(stats.duplicates);
        state.counters["gaps"] = static_cast<double>(stats.gaps);
    }
    state.counters["lost"] = static_cast<double>(reported - std::min(received, reported));
    if (wallSeconds > 0) {
        state.counters["agent_cpu_pct"] = 100 * agentSeconds / wallSeconds;
        state.counters["bench_cpu_pct"] = 100 * benchSeconds / wallSeconds;
        if (collectorCpu >= 0) state.counters["collector_cpu_pct"] = 100 * collectorSeconds / wallSeconds;
    }
    if (rejected != 0) state.counters["rejected"] = static_cast<double>(rejected);
}

double Quantile(std::vector<double> &samples, double q) {
    if (samples.empty()) return 0;
    std::sort(samples.begin(), samples.end());
    const double rank = std::ceil(q * static_cast<double>(samples.size()));
    const size_t index = rank < 1 ? 0 : static_cast<size_t>(rank) - 1;
    return samples[std::min(index, samples.size() - 1)];
}

}  // namespace qvbench
