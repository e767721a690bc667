// qvcollector: the collector at the other end of the agent's datagrams, for operators and tests.
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "collector.h"
#include "options.h"
#include "socket_loop.h"
#ifdef QV_COLLECTOR_WITH_NATS
#include "nats_sink.h"
#endif
#ifdef QV_COLLECTOR_WITH_METRICS
#include "metrics_http.h"
#endif

namespace {

const char *SignalName(int sig) {
    switch (sig) {
    case SIGINT: return "SIGINT";
    case SIGTERM: return "SIGTERM";
    default: return "a signal";
    }
}

// Blocks the stop signals in this thread before any other starts: the threads that the stream client
// and the metrics server start inherit the mask, so a stop signal always reaches the receive loop,
// which unblocks it only while it waits. Had another thread taken it, the loop would wait on.
void BlockStopSignals() {
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);
}

}  // namespace

int main(int argc, char **argv) {
    using namespace qvcollector;
    Options options;
    const std::vector<std::string> args(argv + 1, argv + argc);
    if (const auto err = ParseOptions(args, options)) {
        std::fprintf(stderr, "qvcollector: %s\nTry 'qvcollector --help'.\n", err->c_str());
        return 1;
    }
    if (options.help) {
        std::fputs(HelpText(), stdout);
        return 0;
    }

    BlockStopSignals();
    RecordStore *store = nullptr;
#ifdef QV_COLLECTOR_WITH_NATS
    NatsSink sink;
    if (!options.nats.empty()) {
        if (const auto err = sink.Open({options.nats, options.stream, options.replicas})) {
            std::fprintf(stderr, "qvcollector: %s\n", err->c_str());
            return 1;
        }
        store = &sink;
    }
#else
    if (!options.nats.empty()) {
        std::fputs("qvcollector: built without the NATS client library: --nats is not available\n", stderr);
        return 1;
    }
#endif

    Collector collector(options);
    std::function<void()> afterWake;
#ifdef QV_COLLECTOR_WITH_METRICS
    MetricsHttp metrics;
    if (!options.metrics.empty()) {
        if (const auto err = metrics.Start(options.metrics, store != nullptr)) {
            std::fprintf(stderr, "qvcollector: %s\n", err->c_str());
            return 2;
        }
        afterWake = [&] { metrics.Update(collector.Stats()); };
    }
#else
    if (!options.metrics.empty()) {
        std::fputs("qvcollector: built without libmicrohttpd: --metrics is not available\n", stderr);
        return 1;
    }
#endif
    const LoopEnd end = RunLoop(options, collector, store, afterWake);
    if (!end.bound) {
        std::fprintf(stderr, "qvcollector: %s\n", end.error.c_str());
        return 2;
    }
    if (options.stats) {
        for (size_t k = 0; k < kKindCount; ++k) {
            const std::string line = StatsLine(static_cast<Kind>(k), collector.Stats()[k], store != nullptr);
            std::printf("%s\n", line.c_str());
        }
        std::fflush(stdout);
    }
    std::string why;
    if (end.signal != 0) {
        why = std::string("stopped by ") + SignalName(end.signal);
    } else if (collector.Done()) {
        why = "stopped after " + std::to_string(options.count) + " records (--count)";
    } else {
        why = "stopped: " + end.error;
    }
    const KindStats t = collector.Totals();
    std::fprintf(stderr,
                 "qvcollector: %s; %llu datagrams, %llu records, %llu duplicates, %llu gaps, %llu errors, "
                 "%llu acks sent, %llu withheld\n",
                 why.c_str(), static_cast<unsigned long long>(t.datagrams), static_cast<unsigned long long>(t.records),
                 static_cast<unsigned long long>(t.duplicates), static_cast<unsigned long long>(t.gaps),
                 static_cast<unsigned long long>(t.errors), static_cast<unsigned long long>(t.acks),
                 static_cast<unsigned long long>(t.acksWithheld));
    return end.error.empty() ? 0 : 2;
}
