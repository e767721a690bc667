// What the end-to-end transport benchmarks share: the one module record of the process started in the
// transport this program was asked to measure, the collector each benchmark run starts for itself,
// the steady-state throughput driver, and small statistics.
//
// A process has exactly one module record, so a program measures one transport: socket mode (the
// agent's own send and receive threads, as recovery starts them when the scheduler thread could not be
// created) or mesh mode (the scheduler thread, its 1000 ms timer and acknowledgement-driven sends that
// QV_Agent_Init starts).
#ifndef QV_BENCH_TRANSPORT_SUPPORT_H
#define QV_BENCH_TRANSPORT_SUPPORT_H

#include <benchmark/benchmark.h>

#include <cstdint>
#include <vector>

#include "collector_child.h"
#include "qvagent/qvagent.h"

namespace qvbench {

enum class Transport { Socket, Mesh };

// The process's module record in its transport, created on first use; null when it could not be
// created or started (the reason then goes to standard error once).
QvAgentModule *TransportAgent(Transport transport);

// Stops what TransportAgent started: socket mode's two threads and socket, or mesh mode's timer and
// scheduler thread. Called once, after the last benchmark.
void StopTransport();

// The benchmarks' high-precision reports: object kind 20, two numbers.
constexpr uint32_t kHighPrecisionKind = QV_AGENT_OBJ_HIGH_PRECISION;
uint32_t ReportHighPrecision(uint32_t logId, uint32_t number);

// A collector started with --stats for one benchmark run; false (and the run skipped with the reason)
// when it could not be started.
bool StartCollector(benchmark::State &state, CollectorChild &collector);

// Stops the collector and reads its stats line of the high-precision kind; false when there was none.
bool StopCollector(CollectorChild &collector, CollectorKindStats &highPrecision);

// Steady-state throughput of high-precision reports through the transport to the collector. The
// benchmark keeps `backlog` records reported and not yet seen by the collector, and counts the
// collector's decoded record lines: each iteration lasts until `perIteration` more lines were read.
// Counters: records_per_s (rate), records_per_datagram (from the collector's stats), lost,
// duplicates and gaps, and the CPU of the timed loop as percent of one core: the agent's threads
// (agent_cpu_pct), this benchmark thread reporting and reading lines (bench_cpu_pct), and the collector
// (collector_cpu_pct, at clock-tick resolution).
void RunThroughput(benchmark::State &state, Transport transport, uint64_t perIteration, uint64_t backlog);

// The value at quantile q (0..1) of samples, nearest rank; 0 for none. Sorts samples.
double Quantile(std::vector<double> &samples, double q);

}  // namespace qvbench

#endif
