// qvcollector as a child process of a benchmark: started on its default ports (the benchmark runs in a
// network namespace of its own), its JSON lines read through a pipe with the time each was read, and
// stopped with SIGTERM so that it prints its stats lines. Every wait is bounded in time, and the child
// is killed with its parent should the benchmark die.
#ifndef QV_BENCH_COLLECTOR_CHILD_H
#define QV_BENCH_COLLECTOR_CHILD_H

#include <sys/types.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace qvbench {

// CLOCK_MONOTONIC in nanoseconds.
int64_t NowNs();

// One complete line of the collector's standard output, and the monotonic time it was read.
using LineFn = std::function<void(std::string_view line, int64_t readNs)>;

class CollectorChild {
public:
    CollectorChild() = default;
    ~CollectorChild();  // kills a child still running
    CollectorChild(const CollectorChild &) = delete;
    CollectorChild &operator=(const CollectorChild &) = delete;

    // Starts qvcollector with these options and waits up to timeoutMs for it to announce its ports.
    // False, with the reason in Error(), when it did not.
    bool Start(const std::vector<std::string> &options, int timeoutMs);

    // Waits up to timeoutMs for output and hands every complete line to onLine. False once the child's
    // output has closed.
    bool Pump(int timeoutMs, const LineFn &onLine);

    // SIGTERM, then the rest of its output to onLine (the stats lines come last) until it closes, and
    // the exit. The exit status, or -1 when it had to be killed.
    int Stop(int timeoutMs, const LineFn &onLine);

    bool Running() const { return pid_ > 0; }
    // CPU time the running child has used so far (clock-tick resolution), or a negative value.
    double CpuSeconds() const;
    const std::string &Error() const { return error_; }

private:
    bool ReadOnce(int timeoutMs, const LineFn &onLine);
    void DeliverLines(int64_t readNs, const LineFn &onLine);
    bool Reap(int timeoutMs);
    void CloseFds();

    pid_t pid_ = -1;
    int outFd_ = -1;
    int errFd_ = -1;
    std::array<char, 1 << 16> chunk_{};  // the buffer of one read
    std::string out_;                     // standard output not yet handed out as lines
    std::string err_;                     // everything of standard error
    std::string error_;
    int status_ = -1;
};

// Counters of one kind from the collector's stats line.
struct CollectorKindStats {
    uint64_t datagrams = 0;
    uint64_t records = 0;
    uint64_t duplicates = 0;
    uint64_t gaps = 0;
    uint64_t missing = 0;
    uint64_t errors = 0;
};

// True when line is the stats line of kind (e.g. "hplog"); its counters into out.
bool ParseStatsLine(std::string_view line, std::string_view kind, CollectorKindStats &out);

// The unsigned number after "key": in a JSON line, or false when the field is not there.
bool JsonNumber(std::string_view line, std::string_view key, uint64_t &out);

// True for a line that carries a decoded log record of the high-precision kind.
bool IsHighPrecisionRecord(std::string_view line);

}  // namespace qvbench

#endif
