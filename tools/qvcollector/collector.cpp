// Per-datagram processing: head, sequence, acknowledgement, records.
#include "collector.h"

#include "json_writer.h"
#include "kpi_decode.h"
#include "qvagent/qv_agent_wire.h"
#include "record_decode.h"
#include "stream_names.h"

namespace qvcollector {

using qvdecode::JsonWriter;

namespace {

// Every line starts with the kind, the sequence number when there is one, and the sender.
void BeginLine(JsonWriter &w, const Head &h, const std::string &from) {
    w.BeginObject();
    w.FieldString("kind", KindName(h.kind));
    if (h.hasSeq && h.shape != Shape::Kpi) w.Field("seq", h.seq);
    w.FieldString("from", from);
}

std::string EventLine(const Head &h, const std::string &from, const char *event, size_t length) {
    JsonWriter w;
    BeginLine(w, h, from);
    w.FieldString("event", event);
    w.Field("length", length);
    if (h.shape != Shape::Bad) w.Field("flags", h.flags);
    w.EndObject();
    return w.Take();
}

}  // namespace

KindStats Collector::Totals() const {
    KindStats t;
    for (const KindStats &s : stats_) {
        t.datagrams += s.datagrams;
        t.records += s.records;
        t.duplicates += s.duplicates;
        t.gaps += s.gaps;
        t.missing += s.missing;
        t.errors += s.errors;
        t.acks += s.acks;
        t.acksWithheld += s.acksWithheld;
        t.published += s.published;
        t.pending += s.pending;
        t.publishFailed += s.publishFailed;
        t.streamDuplicates += s.streamDuplicates;
    }
    return t;
}

bool Collector::AckNumbered(Kind kind) {
    const uint64_t nth = numbered_[static_cast<size_t>(kind)]++;
    return !options_.noAck && nth >= options_.dropAcks;
}

Outcome Collector::Handle(Port port, const Sender &sender, Bytes d) {
    Outcome out;
    const Head h = ReadHead(port, d);
    const std::string from = SenderText(sender);
    KindStats &st = stats_[static_cast<size_t>(h.kind)];
    ++st.datagrams;

    switch (h.shape) {
    case Shape::Bad: {
        ++st.errors;
        JsonWriter w;
        BeginLine(w, h, from);
        w.FieldString("event", "error");
        w.Field("length", d.size());
        w.FieldString("reason", h.error);
        w.EndObject();
        out.lines.push_back(w.Take());
        break;
    }
    case Shape::Flush:
        out.lines.push_back(EventLine(h, from, "flush", d.size()));
        break;
    case Shape::Kpi:
        DecodeKpi(h, from, d, out);
        break;
    case Shape::Numbered: {
        const bool streamStart = (h.flags & QV_WIRE_FLAG_STREAM_START) != 0;
        const SequenceTracker::Seen seen = sequences_.Observe(h.kind, sender, h.seq, streamStart);
        if (toStream_) {
            // Gaps and the acknowledgement follow what the stream stores (Release).
            out.ack = BuildAck(port, h);
            out.held = Held{h.kind, sender, h.seq, streamStart};
        } else {
            if (seen.missing != 0) {
                ++st.gaps;
                st.missing += seen.missing;
            }
            if (AckNumbered(h.kind)) {
                out.ack = BuildAck(port, h);
                ++st.acks;
            } else {
                ++st.acksWithheld;
            }
        }
        const bool whole = h.totalLen == d.size();
        if (seen.duplicate) {
            ++st.duplicates;
            out.lines.push_back(EventLine(h, from, "duplicate", d.size()));
            // The first copy may not be stored yet, or not at all: the stream drops it if it is.
            if (toStream_ && whole) DecodeBody(h, from, d.subspan(h.headLen), false, out);
        } else {
            if (streamStart) out.lines.push_back(EventLine(h, from, "stream_start", d.size()));
            if (!whole) {
                // The head is intact, so the datagram is acknowledged: a resend would bring the same bytes.
                ++st.errors;
                JsonWriter w;
                BeginLine(w, h, from);
                w.FieldString("event", "error");
                w.Field("length", d.size());
                w.FieldString("reason", "length field " + std::to_string(h.totalLen) + " for " +
                                            std::to_string(d.size()) + " bytes");
                w.EndObject();
                out.lines.push_back(w.Take());
                break;
            }
            DecodeBody(h, from, d.subspan(h.headLen), true, out);
        }
        if (out.store) out.store->id = MessageId(h.kind, sender.ip, h.seq, DatagramHash(d));
        break;
    }
    }
    out.done = done_;
    return out;
}

void Collector::Publishing(Kind kind) {
    KindStats &st = stats_[static_cast<size_t>(kind)];
    ++st.published;
    ++st.pending;
}

void Collector::PublishDone(Kind kind, bool stored, bool duplicate) {
    KindStats &st = stats_[static_cast<size_t>(kind)];
    if (st.pending != 0) --st.pending;
    if (!stored) ++st.publishFailed;
    if (stored && duplicate) ++st.streamDuplicates;
}

bool Collector::Release(const Held &held) {
    KindStats &st = stats_[static_cast<size_t>(held.kind)];
    const SequenceTracker::Seen seen = stored_.Observe(held.kind, held.from, held.seq, held.streamStart);
    if (seen.missing != 0) {
        ++st.gaps;
        st.missing += seen.missing;
    }
    if (!AckNumbered(held.kind)) {
        ++st.acksWithheld;
        return false;
    }
    ++st.acks;
    return true;
}

// Appends one decoded record to what the stream is to store of this datagram.
void Collector::AddToStore(Kind kind, std::string_view record, Outcome &out) {
    if (!out.store) out.store = ToStore{kind, {}, {}, {}, 0};
    out.store->payload += record;
    out.store->payload += '\n';
    ++out.store->records;
}

// Decodes the records of a numbered datagram: printed as lines when `print`, and with a stream also
// kept for it (a resend's records are kept but not printed again).
void Collector::DecodeBody(const Head &h, const std::string &from, Bytes body, bool print, Outcome &out) {
    KindStats &st = stats_[static_cast<size_t>(h.kind)];
    const std::vector<qvdecode::RecordSlice> slices = qvdecode::SplitRecords(body);
    if (toStream_ && !slices.empty()) out.store = ToStore{h.kind, SubjectOf(h.kind, ServiceOfRecord(slices[0].bytes)), {}, {}, 0};
    for (size_t i = 0; i < slices.size() && !(print && done_); ++i) {
        const qvdecode::RecordSlice &s = slices[i];
        JsonWriter w;
        BeginLine(w, h, from);
        w.Field("index", i);
        const JsonWriter::Mark mark = w.Here();
        std::optional<std::string> err;
        if (!s.error.empty()) {
            err = s.error;
        } else {
            err = qvdecode::DecodeRecord(s.bytes, w);
        }
        if (err) {
            if (!print) continue;
            w.Rewind(mark);
            w.FieldString("event", "error");
            w.Field("offset", h.headLen + s.offset);
            w.Field("length", s.bytes.size());
            w.FieldString("reason", *err);
            ++st.errors;
        } else if (print) {
            ++st.records;
            CountPrinted();
        }
        w.EndObject();
        if (toStream_ && !err) AddToStore(h.kind, w.View(), out);
        if (print) out.lines.push_back(w.Take());
    }
    if (out.store && out.store->records == 0) out.store.reset();
}

void Collector::CountPrinted() {
    ++printed_;
    if (options_.count != 0 && printed_ >= options_.count) done_ = true;
}

// A KPI packet: one line for the packet (or for why its records cannot be read), then one per record.
void Collector::DecodeKpi(const Head &h, const std::string &from, Bytes packet, Outcome &out) {
    KindStats &st = stats_[static_cast<size_t>(h.kind)];
    qvdecode::KpiPacketHead head;
    const std::optional<std::string> err = qvdecode::ReadKpiPacket(packet, head);
    JsonWriter w;
    BeginLine(w, h, from);
    w.FieldString("event", err ? "error" : "kpi");
    w.Field("length", packet.size());
    w.Field("flags", h.flags);
    if (err) {
        ++st.errors;
        w.FieldString("reason", *err);
    } else {
        w.Field("records", head.recordNum);
    }
    w.EndObject();
    out.lines.push_back(w.Take());
    for (uint32_t i = 0; !err && i < head.recordNum && !done_; ++i) {
        const Bytes record = qvdecode::KpiRecordAt(packet, i);
        JsonWriter r;
        BeginLine(r, h, from);
        r.Field("index", i);
        r.FieldString("record", "kpi");
        qvdecode::DecodeKpiRecord(record, r);
        r.EndObject();
        if (toStream_) {
            if (!out.store) {
                const auto component = static_cast<uint16_t>(qvdecode::Be16(record, QV_KPI_REC_COMPONENT_OFF) - QV_KPI_COMPONENT_OFFSET);
                out.store = ToStore{h.kind, SubjectOf(h.kind, std::to_string(component)), {}, {}, 0};
            }
            AddToStore(h.kind, r.View(), out);
        }
        out.lines.push_back(r.Take());
        ++st.records;
        CountPrinted();
    }
}

}  // namespace qvcollector
