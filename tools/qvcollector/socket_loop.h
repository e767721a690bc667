// The collector's five UDP sockets and the loop that serves them until the --count budget is spent
// or SIGINT/SIGTERM arrives.
#ifndef QV_TOOLS_COLLECTOR_SOCKET_LOOP_H
#define QV_TOOLS_COLLECTOR_SOCKET_LOOP_H

#include <functional>
#include <string>

#include "collector.h"
#include "options.h"
#include "record_store.h"

namespace qvcollector {

struct LoopEnd {
    bool bound = false;      // false: a port could not be bound; `error` says which
    std::string error;
    int signal = 0;          // the signal that ended the loop, or 0
};

// Binds the ports, announces them on standard error, and serves them; JSON lines go to standard
// output, flushed after every datagram. With a store, records go into it and each numbered
// datagram's acknowledgement waits for its answer. afterWake runs after every wake-up of the loop.
LoopEnd RunLoop(const Options &options, Collector &collector, RecordStore *store = nullptr,
                const std::function<void()> &afterWake = {});

}  // namespace qvcollector

#endif
