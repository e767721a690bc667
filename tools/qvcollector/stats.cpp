// Sequence tracking and the stats lines.
#include "stats.h"

#include <algorithm>

#include "json_writer.h"
#include "qvagent/qv_agent_wire.h"

namespace qvcollector {

namespace {

// Steps forward from a to b in the numbering 1 .. 0xFFFFFFFF, where 0xFFFFFFFF is followed by 1.
uint64_t Forward(uint32_t a, uint32_t b) {
    if (b > a) return static_cast<uint64_t>(b) - a;
    return static_cast<uint64_t>(QV_WIRE_SEQ_NO_MAX - a) + b;
}

}  // namespace

std::string StatsLine(Kind kind, const KindStats &s, bool stream) {
    qvdecode::JsonWriter w;
    w.BeginObject();
    w.FieldString("event", "stats");
    w.FieldString("kind", KindName(kind));
    w.Field("datagrams", s.datagrams);
    w.Field("records", s.records);
    w.Field("duplicates", s.duplicates);
    w.Field("gaps", s.gaps);
    w.Field("missing", s.missing);
    w.Field("errors", s.errors);
    w.Field("acks", s.acks);
    w.Field("acks_withheld", s.acksWithheld);
    if (stream) {
        w.Field("published", s.published);
        w.Field("pending", s.pending);
        w.Field("publish_failed", s.publishFailed);
        w.Field("stream_duplicates", s.streamDuplicates);
    }
    w.EndObject();
    return w.Take();
}

std::string SenderText(const Sender &s) {
    return std::to_string(s.ip >> 24) + "." + std::to_string((s.ip >> 16) & 0xFFu) + "." +
           std::to_string((s.ip >> 8) & 0xFFu) + "." + std::to_string(s.ip & 0xFFu) + ":" + std::to_string(s.port);
}

bool SequenceTracker::Stream::Recent(uint32_t seq) const {
    return std::find(recent.begin(), recent.begin() + static_cast<long>(used), seq) !=
           recent.begin() + static_cast<long>(used);
}

void SequenceTracker::Stream::Remember(uint32_t seq) {
    recent[next] = seq;
    next = (next + 1) % kRecent;
    if (used < kRecent) ++used;
}

SequenceTracker::Seen SequenceTracker::Observe(Kind kind, const Sender &from, uint32_t seq, bool streamStart) {
    const uint64_t key = (static_cast<uint64_t>(kind) << 48) | (static_cast<uint64_t>(from.ip) << 16) | from.port;
    auto it = streams_.find(key);
    if (it == streams_.end()) {
        if (streams_.size() >= kMaxStreams) streams_.clear();
        it = streams_.emplace(key, Stream{}).first;
        it->second.last = seq;
        it->second.Remember(seq);
        return {};
    }
    Stream &s = it->second;
    if (streamStart) {
        // Resent while it waits for its acknowledgement; after later numbers, the agent started again.
        if (seq == s.last) return {true, 0};
        s = Stream{};
        s.last = seq;
        s.Remember(seq);
        return {};
    }
    if (s.Recent(seq)) return {true, 0};
    Seen seen;
    const uint64_t ahead = Forward(s.last, seq);
    if (ahead >= 1 && ahead < 0x80000000u) {
        seen.missing = static_cast<uint32_t>(ahead - 1);
        s.last = seq;
    }
    s.Remember(seq);
    return seen;
}

}  // namespace qvcollector
