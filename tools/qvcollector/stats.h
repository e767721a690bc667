// Counters per kind, and the sequence numbers seen per sender and kind, from which duplicates
// (resends) and gaps are told.
#ifndef QV_TOOLS_COLLECTOR_STATS_H
#define QV_TOOLS_COLLECTOR_STATS_H

#include <array>
#include <cstdint>
#include <map>
#include <string>

#include "datagram.h"

namespace qvcollector {

struct KindStats {
    uint64_t datagrams = 0;
    uint64_t records = 0;
    uint64_t duplicates = 0;
    uint64_t gaps = 0;      // times a sequence number jumped ahead
    uint64_t missing = 0;   // numbers skipped by those jumps
    uint64_t errors = 0;    // bad datagrams and bad records
    uint64_t acks = 0;
    uint64_t acksWithheld = 0;
    // With a stream:
    uint64_t published = 0;         // messages handed to it
    uint64_t pending = 0;           // of those, not yet answered
    uint64_t publishFailed = 0;     // answered with an error or not in time
    uint64_t streamDuplicates = 0;  // stored already: the stream dropped them by their message id
};

// The "stats" line of one kind; with a stream, its counters too.
std::string StatsLine(Kind kind, const KindStats &s, bool stream = false);

struct Sender {
    uint32_t ip = 0;  // host order
    uint16_t port = 0;
};

std::string SenderText(const Sender &s);

class SequenceTracker {
public:
    struct Seen {
        bool duplicate = false;
        uint32_t missing = 0;  // numbers skipped before this one
    };

    // Notes a numbered datagram. The first one of a sender and kind begins its stream there; a stream
    // start repeating the last number is a duplicate (the start resent), any other begins the stream
    // afresh; a number among the recent ones is a duplicate; a number ahead of the last one leaves a
    // gap of what lies between; one behind (and not recent) is taken as late: no gap, no duplicate.
    Seen Observe(Kind kind, const Sender &from, uint32_t seq, bool streamStart);

    // Streams tracked at once; beyond it the tracker starts afresh, so that a flood of senders cannot
    // grow it without bound.
    static constexpr size_t kMaxStreams = 4096;
    static constexpr size_t kRecent = 32;

private:
    struct Stream {
        uint32_t last = 0;
        std::array<uint32_t, kRecent> recent{};
        size_t used = 0;
        size_t next = 0;
        bool Recent(uint32_t seq) const;
        void Remember(uint32_t seq);
    };
    std::map<uint64_t, Stream> streams_;
};

}  // namespace qvcollector

#endif
