// Entry point of the end-to-end transport benchmarks. A process has one module record and so one
// transport: --mode=socket or --mode=mesh (taken out before the benchmark library reads the rest of
// the arguments) chooses which benchmarks this run registers. scripts/bench runs the program once in
// each mode, each time in namespaces of its own.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "transport_bench.h"
#include "transport_support.h"

int main(int argc, char **argv) {
    std::string mode;
    std::vector<char *> rest;
    for (int i = 0; i < argc; ++i) {
        if (i > 0 && std::strncmp(argv[i], "--mode=", 7) == 0) {
            mode = argv[i] + 7;
        } else if (i > 0 && std::strcmp(argv[i], "--mode") == 0 && i + 1 < argc) {
            mode = argv[++i];
        } else {
            rest.push_back(argv[i]);
        }
    }
    if (mode == "socket") {
        qvbench::RegisterSocketModeBenchmarks();
    } else if (mode == "mesh") {
        qvbench::RegisterMeshModeBenchmarks();
    } else {
        std::fprintf(stderr, "usage: %s --mode=socket|mesh [benchmark options]\n", argv[0]);
        return 2;
    }
    int restCount = static_cast<int>(rest.size());
    rest.push_back(nullptr);
    benchmark::Initialize(&restCount, rest.data());
    if (benchmark::ReportUnrecognizedArguments(restCount, rest.data())) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    qvbench::StopTransport();
    return 0;
}
