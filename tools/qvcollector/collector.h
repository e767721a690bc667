// What the collector does with one received datagram: read its head, note its sequence number,
// decide on the acknowledgement, and turn it into JSON lines. No sockets here, so that tests drive
// it with datagrams built byte by byte.
#ifndef QV_TOOLS_COLLECTOR_COLLECTOR_H
#define QV_TOOLS_COLLECTOR_COLLECTOR_H

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "datagram.h"
#include "options.h"
#include "stats.h"

namespace qvcollector {

struct Outcome {
    std::vector<std::string> lines;  // JSON objects, one per line, without the newline
    std::vector<uint8_t> ack;        // to send back from the receiving port; empty: none
    bool done = false;               // the --count budget is spent
};

class Collector {
public:
    explicit Collector(const Options &options) : options_(options) {}

    Outcome Handle(Port port, const Sender &from, Bytes datagram);

    const std::array<KindStats, kKindCount> &Stats() const { return stats_; }
    KindStats Totals() const;
    bool Done() const { return done_; }

private:
    void DecodeBody(const Head &h, const std::string &from, Bytes body, Outcome &out);
    void DecodeKpi(const Head &h, const std::string &from, Bytes packet, Outcome &out);
    void CountPrinted();
    bool AckNumbered(Kind kind);

    Options options_;
    SequenceTracker sequences_;
    std::array<KindStats, kKindCount> stats_{};
    std::array<uint64_t, kKindCount> numbered_{};  // numbered datagrams received, for --drop-acks
    uint64_t printed_ = 0;
    bool done_ = false;
};

}  // namespace qvcollector

#endif
