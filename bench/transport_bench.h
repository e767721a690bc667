// The benchmarks of each transport, registered by the transport benchmark program for the mode it
// was asked to measure.
#ifndef QV_BENCH_TRANSPORT_BENCH_H
#define QV_BENCH_TRANSPORT_BENCH_H

namespace qvbench {

void RegisterSocketModeBenchmarks();
void RegisterMeshModeBenchmarks();

}  // namespace qvbench

#endif
