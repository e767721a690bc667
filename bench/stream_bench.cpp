// The collector with and without a stream: records a second from several flood_agent services through
// one qvcollector, into a stream kept on three nats-server nodes (--nats) or only printed, and the
// collector's own processor time per record. With one service the rate is bounded by the round trip
// of each datagram (the next waits for the acknowledgement), which the stream's confirmation joins.
// Runs in a network namespace of its own (scripts/bench), with every process on loopback.
#include <benchmark/benchmark.h>

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "stream_cluster.h"

namespace {

using namespace streamtest;
using Clock = std::chrono::steady_clock;

constexpr int kStartMs = 10000;
constexpr uint16_t kMetricsPort = 9464;
constexpr int kFirstRecordMs = 15000;  // a datagram refused before the stream exists waits for a resend
constexpr int kWarmUpMs = 1000;
constexpr int kWindowMs = 3000;
constexpr int kAgentSeconds = 30;  // outlives the measurement, which kills them
const std::string kDir = "/opt/stream-bench";

// The collector's counter of high-precision records, from its metrics endpoint; -1 when unread.
double Records() {
    const std::string text = HttpGet(kMetricsPort, "/metrics");
    const std::string key = "\nqvcollector_records_total{kind=\"hplog\"} ";
    const size_t at = text.find(key);
    return at == std::string::npos ? -1 : std::stod(text.substr(at + key.size()));
}

// User and system time of a process, in seconds.
double CpuSeconds(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string stat((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return -1;
    std::istringstream rest(stat.substr(close + 2));
    std::string field;
    double ticks = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i >= 14) ticks += std::stod(field);  // utime, stime
    }
    return ticks / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// args: 0 without a stream, 1 into a stream replicated three times; the number of services.
void BM_CollectorRecords(benchmark::State &state) {
    const bool stream = state.range(0) != 0;
    const auto agents = static_cast<int>(state.range(1));
    // A fresh store each run: the scratch /opt is small, and stores of earlier runs would fill it.
    std::filesystem::remove_all(kDir);
    mkdir(kDir.c_str(), 0755);
    Cluster cluster(kDir + "/cluster", 4330, 3);
    std::vector<std::string> args = {QV_BENCH_COLLECTOR_PATH, "--metrics", "127.0.0.1:" + std::to_string(kMetricsPort)};
    if (stream) {
        if (!cluster.StartAll(kStartMs)) return state.SkipWithError("the cluster did not start");
        args.insert(args.end(), {"--nats", cluster.Urls(), "--replicas", "3", "--stream", "BENCH"});
    }
    Child collector;
    if (!collector.Start(args, "/dev/null", kDir + "/collector.err") || !WaitListening(kMetricsPort, kStartMs)) {
        return state.SkipWithError("the collector did not start");
    }
    std::vector<Child> services(static_cast<size_t>(agents));
    for (Child &s : services) s.Start({QV_BENCH_FLOOD_AGENT_PATH, std::to_string(kAgentSeconds)}, "/dev/null", "/dev/null");

    double records = 0;
    double cpu = 0;
    const auto firstBy = Clock::now() + std::chrono::milliseconds(kFirstRecordMs);
    while (Records() <= 0 && Clock::now() < firstBy) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    for (auto _ : state) {
        std::this_thread::sleep_for(std::chrono::milliseconds(kWarmUpMs));
        const double r0 = Records();
        const double c0 = CpuSeconds(collector.Pid());
        const auto t0 = Clock::now();
        std::this_thread::sleep_for(std::chrono::milliseconds(kWindowMs));
        const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        records = Records() - r0;
        cpu = CpuSeconds(collector.Pid()) - c0;
        state.SetIterationTime(seconds);
        state.counters["records_per_s"] = records / seconds;
    }
    if (records > 0) state.counters["collector_ns_per_record"] = cpu * 1e9 / records;
    for (Child &s : services) s.Stop(SIGKILL, kStartMs);
    collector.Stop(SIGTERM, kStartMs);
    if (records <= 0) state.SkipWithError("no records counted");
}

BENCHMARK(BM_CollectorRecords)
    ->ArgNames({"stream", "agents"})
    ->Args({0, 4})
    ->Args({1, 4})
    ->Args({0, 1})
    ->Args({1, 1})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
