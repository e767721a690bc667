// What the collector does with one received datagram: read its head, note its sequence number,
// decide on the acknowledgement, and turn it into JSON lines. No sockets here, so that tests drive
// it with datagrams built byte by byte.
#ifndef QV_TOOLS_COLLECTOR_COLLECTOR_H
#define QV_TOOLS_COLLECTOR_COLLECTOR_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "datagram.h"
#include "options.h"
#include "stats.h"

namespace qvcollector {

// What the stream is to store of one datagram: its records' JSON objects, one per line.
struct ToStore {
    Kind kind = Kind::Log;
    std::string subject;
    std::string id;       // the message id; empty for KPI packets, which are never resent
    std::string payload;  // the JSON objects, each ended by '\n'
    size_t records = 0;
};

// A numbered datagram whose acknowledgement waits until the stream has stored its records.
struct Held {
    Kind kind = Kind::Log;
    Sender from;
    uint32_t seq = 0;
    bool streamStart = false;
};

struct Outcome {
    std::vector<std::string> lines;  // JSON objects, one per line, without the newline
    std::vector<uint8_t> ack;        // to send back from the receiving port; empty: none
    bool done = false;               // the --count budget is spent
    // With a stream only. held: `ack` goes out only once Release(*held) says so, after the stream
    // stored `store` (at once when there is nothing to store). store: what goes into the stream.
    std::optional<Held> held;
    std::optional<ToStore> store;
};

class Collector {
public:
    explicit Collector(const Options &options) : options_(options), toStream_(!options.nats.empty()) {}

    Outcome Handle(Port port, const Sender &from, Bytes datagram);

    // With a stream: a datagram's records handed to it, and its answer (stored, perhaps as a
    // duplicate of a message it had, or failed).
    void Publishing(Kind kind);
    void PublishDone(Kind kind, bool stored, bool duplicate);
    // With a stream: the datagram's records are stored (or it had none); notes its sequence number
    // (gaps count what was never stored) and says whether its acknowledgement is sent.
    bool Release(const Held &held);

    const std::array<KindStats, kKindCount> &Stats() const { return stats_; }
    KindStats Totals() const;
    bool Done() const { return done_; }

private:
    void DecodeBody(const Head &h, const std::string &from, Bytes body, bool print, Outcome &out);
    void AddToStore(Kind kind, std::string_view record, Outcome &out);
    void DecodeKpi(const Head &h, const std::string &from, Bytes packet, Outcome &out);
    void CountPrinted();
    bool AckNumbered(Kind kind);

    Options options_;
    bool toStream_ = false;
    SequenceTracker sequences_;
    SequenceTracker stored_;  // with a stream: the numbers of what it stored
    std::array<KindStats, kKindCount> stats_{};
    std::array<uint64_t, kKindCount> numbered_{};  // numbered datagrams received, for --drop-acks
    uint64_t printed_ = 0;
    bool done_ = false;
};

}  // namespace qvcollector

#endif
