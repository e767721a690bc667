// What the benchmarks share: one module record for the process, and draining its send lists the way
// the transport does, under the list mutex.
#ifndef QV_BENCH_SUPPORT_H
#define QV_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>

#include "qvagent/qvagent.h"

namespace qvbench {

// The process's module record, created on first use with a list limit that batches never reach.
QvAgentModule *Agent();

// Releases every record queued on send lists 0-3.
void DrainLists(QvAgentModule *module);

// The event-object reports the benchmarks time: a log (create, two options, three parameters, send)
// and an alarm (create, common attributes, two parameters, send).
uint32_t ReportLogObject(QvAgentModule *module);
uint32_t ReportAlarm(QvAgentModule *module);

// Drain every this many iterations, outside the timed region: often enough that the queue stays in
// the heap a service keeps (a few hundred records, as the transport drains them every tick), rather
// than growing and trimming the heap, which would time the kernel's page faults.
constexpr int kDrainEvery = 256;

// Times report() per iteration, draining the lists every kDrainEvery reports outside the timed region
// so that the list limit never stops a report. items_per_second is the throughput of all threads.
template <typename Report>
void RunReports(benchmark::State &state, Report report) {
    QvAgentModule *module = Agent();
    int n = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(report(module));
        if (++n % kDrainEvery == 0) {
            state.PauseTiming();
            DrainLists(module);
            state.ResumeTiming();
        }
    }
    DrainLists(module);
    state.SetItemsProcessed(state.iterations());
}

}  // namespace qvbench

#endif
