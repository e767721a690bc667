// What the benchmarks share: one module record for the process, and draining its send lists the way
// the transport does, under the list mutex.
#ifndef QV_BENCH_SUPPORT_H
#define QV_BENCH_SUPPORT_H

#include "qvagent/qvagent.h"

namespace qvbench {

// The process's module record, created on first use with a list limit that batches never reach.
QvAgentModule *Agent();

// Releases every record queued on send lists 0-3.
void DrainLists(QvAgentModule *module);

// Drain every this many iterations, outside the timed region.
constexpr int kDrainEvery = 4096;

}  // namespace qvbench

#endif
