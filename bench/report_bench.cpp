// Cost of reporting by identifier and of a debug log, beside the cost of formatting the same message
// as text with snprintf into a 256-byte buffer.
#include <benchmark/benchmark.h>

#include <malloc.h>

#include <cstdio>

#include "bench_support.h"

namespace {

const char kText64[] = "0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef";

void BM_ReportLogById(benchmark::State &state) {
    qvbench::RunReports(state, [](QvAgentModule *) { return QV_Agent_ReportLogById(4, 0x1234, "port %u down", 7u); });
}
BENCHMARK(BM_ReportLogById)->Threads(1)->Threads(2)->UseRealTime();

void BM_ReportLogByIdSixConversions(benchmark::State &state) {
    qvbench::RunReports(state, [](QvAgentModule *) {
        return QV_Agent_ReportLogById(4, 0x1235, "%d %u %x %s %c %_ipv4", -5, 7u, 0xBEEFu, kText64, 'z', 0x0A000001u);
    });
}
BENCHMARK(BM_ReportLogByIdSixConversions);

void BM_Debug(benchmark::State &state) {
    const QvAgentDebugKey key{1, 2};
    qvbench::RunReports(state, [&](QvAgentModule *) { return QV_Agent_Debug(&key, "fan speed", 0x4000, "%u", 3000u); });
}
BENCHMARK(BM_Debug)->Threads(1)->Threads(2)->UseRealTime();

// Heap taken per queued record beyond the record's own bytes: the list item, the allocators' heads and
// rounding, and any bookkeeping that grows with the blocks outstanding.
void BM_QueuedRecordMemory(benchmark::State &state) {
    constexpr int kBatch = 1000;
    QvAgentModule *module = qvbench::Agent();
    double beyond = 0;
    for (auto _ : state) {
        const struct mallinfo2 before = mallinfo2();
        for (int i = 0; i < kBatch; ++i) QV_Agent_ReportLogById(4, 0x1234, "port %u down", 7u);
        const struct mallinfo2 after = mallinfo2();
        const double perRecord =
            static_cast<double>((after.uordblks + after.hblkhd) - (before.uordblks + before.hblkhd)) / kBatch;
        beyond = perRecord - module->astSendList[QV_AGENT_MSG_LOG].pstNext->uiLen;
        state.PauseTiming();
        qvbench::DrainLists(module);
        state.ResumeTiming();
    }
    state.counters["bytes_beyond_record"] = beyond;
}
BENCHMARK(BM_QueuedRecordMemory)->Iterations(20);

void BM_SnprintfBaseline(benchmark::State &state) {
    char text[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(std::snprintf(text, sizeof text, "port %u down", 7u));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SnprintfBaseline);

void BM_SnprintfBaselineSixConversions(benchmark::State &state) {
    char text[256];
    for (auto _ : state) {
        benchmark::DoNotOptimize(
            std::snprintf(text, sizeof text, "%d %u %x %s %c %u", -5, 7u, 0xBEEFu, kText64, 'z', 0x0A000001u));
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_SnprintfBaselineSixConversions);

}  // namespace
