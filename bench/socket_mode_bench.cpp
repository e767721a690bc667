// Socket mode end to end: high-precision logs through the agent's own send and receive threads to
// qvcollector over loopback.
#include "transport_bench.h"
#include "transport_support.h"

namespace qvbench {

namespace {

// Records acknowledged per second with the send list never running dry, and how many records a
// datagram carried. The receive thread rests 10 ms after every acknowledgement it takes, so about a
// hundred datagrams a second go out; the backlog keeps each one full.
void BM_SocketModeThroughput(benchmark::State &state) {
    RunThroughput(state, Transport::Socket, static_cast<uint64_t>(state.range(0)), 2000);
}

}  // namespace

void RegisterSocketModeBenchmarks() {
    benchmark::RegisterBenchmark("BM_SocketModeThroughput", BM_SocketModeThroughput)
        ->Arg(4000)
        ->Iterations(5)
        ->UseRealTime()
        ->Unit(benchmark::kMillisecond);
}

}  // namespace qvbench
