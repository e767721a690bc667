// The blackbox file's reader and printer (see blackbox_dump.h). The ring is walked from the commit
// position over the read-but-unacknowledged bytes and then the unread ones, each record behind its
// 8-byte record head; positions wrap at the data area's end.
#include "blackbox_dump.h"

#include "json_writer.h"
#include "qvagent/qv_agent_wire.h"
#include "record_decode.h"

namespace qvdump {

namespace {

using qvdecode::Bytes;
using qvdecode::Le32;

constexpr uint32_t kCapacities[] = {QV_BOX_CAPACITY_SMALL, QV_BOX_CAPACITY_MEDIUM, QV_BOX_CAPACITY_LARGE,
                                    QV_BOX_CAPACITY_FRAME};

BoxHead DecodeHead(Bytes b) {
    return BoxHead{Le32(b, QV_BOX_HEAD_VALID_OFF),     Le32(b, QV_BOX_HEAD_CAPACITY_OFF),
                   Le32(b, QV_BOX_HEAD_READ_POS_OFF),  Le32(b, QV_BOX_HEAD_WRITE_POS_OFF),
                   Le32(b, QV_BOX_HEAD_USED_LEN_OFF),  Le32(b, QV_BOX_HEAD_COMMIT_POS_OFF),
                   Le32(b, QV_BOX_HEAD_READED_LEN_OFF)};
}

// The ring's bytes [pos, pos + len) joined across the data area's end; the data area is whole here.
std::vector<uint8_t> RingBytes(Bytes area, uint32_t pos, uint32_t len) {
    std::vector<uint8_t> out(len);
    for (uint32_t i = 0; i < len; ++i) out[i] = area[(uint64_t{pos} + i) % area.size()];
    return out;
}

// What makes the head unusable for a walk, or empty.
std::string HeadDamage(const BoxHead &h, size_t fileSize) {
    if (h.valid != QV_BOX_HEAD_VALID) return "head not initialised (valid " + std::to_string(h.valid) + ")";
    if (h.capacity == 0) return "head with capacity 0";
    if (fileSize < uint64_t{QV_BOX_HEAD_LEN} + h.capacity) {
        return "truncated: " + std::to_string(fileSize) + " bytes, the head's capacity needs " +
               std::to_string(uint64_t{QV_BOX_HEAD_LEN} + h.capacity);
    }
    if (h.commitPos >= h.capacity || h.readPos >= h.capacity || h.writePos >= h.capacity) {
        return "head positions outside the capacity";
    }
    if (uint64_t{h.usedLen} + h.readedLen > h.capacity) return "head counts more bytes than the capacity";
    if ((uint64_t{h.commitPos} + h.readedLen) % h.capacity != h.readPos) {
        return "read position " + std::to_string(h.readPos) + " is not the commit position plus the read bytes";
    }
    return {};
}

void WalkRecords(Bytes area, BoxRead &r) {
    const BoxHead &h = r.head;
    const uint64_t total = uint64_t{h.readedLen} + h.usedLen;
    uint64_t done = 0;
    uint32_t pos = h.commitPos;
    while (done < total) {
        const std::vector<uint8_t> rh = RingBytes(area, pos, QV_BOX_REC_HEAD_LEN);
        const uint32_t len = Le32(rh, QV_BOX_REC_LEN_OFF);
        if (total - done < QV_BOX_REC_HEAD_LEN || Le32(rh, QV_BOX_REC_MAGIC_OFF) != QV_BOX_REC_MAGIC) {
            r.damage.push_back("no record head at data position " + std::to_string(pos));
            return;
        }
        if (uint64_t{len} + QV_BOX_REC_HEAD_LEN > total - done) {
            r.damage.push_back("record at data position " + std::to_string(pos) + " of " + std::to_string(len) +
                               " bytes runs past the stored bytes");
            return;
        }
        const auto body = static_cast<uint32_t>((uint64_t{pos} + QV_BOX_REC_HEAD_LEN) % h.capacity);
        r.records.push_back(BoxRecord{pos, done < h.readedLen, RingBytes(area, body, len)});
        done += uint64_t{len} + QV_BOX_REC_HEAD_LEN;
        pos = static_cast<uint32_t>((uint64_t{body} + len) % h.capacity);
    }
}

}  // namespace

BoxRead ReadBlackboxFile(Bytes file) {
    BoxRead r;
    if (file.size() < QV_BOX_HEAD_LEN) {
        r.damage.push_back("truncated: " + std::to_string(file.size()) + " bytes, shorter than the head");
        return r;
    }
    r.hasHead = true;
    r.head = DecodeHead(file);
    const std::string bad = HeadDamage(r.head, file.size());
    if (!bad.empty()) {
        r.damage.push_back(bad);
        return r;
    }
    WalkRecords(qvdecode::Sub(file, QV_BOX_HEAD_LEN, r.head.capacity), r);
    return r;
}

bool ProbeBlackbox(Bytes head) {
    if (Le32(head, QV_BOX_HEAD_VALID_OFF) != QV_BOX_HEAD_VALID) return false;
    const uint32_t capacity = Le32(head, QV_BOX_HEAD_CAPACITY_OFF);
    for (const uint32_t c : kCapacities) {
        if (capacity == c) return true;
    }
    return false;
}

DumpResult DumpBlackbox(Bytes file, const DumpOptions & /*options*/) {
    const BoxRead r = ReadBlackboxFile(file);
    DumpResult out;
    out.damage = r.damage;
    if (r.hasHead) {
        qvdecode::JsonWriter w;
        w.BeginObject();
        w.Key("head");
        w.BeginObject();
        w.Field("valid", r.head.valid);
        w.Field("capacity", r.head.capacity);
        w.Field("read_pos", r.head.readPos);
        w.Field("write_pos", r.head.writePos);
        w.Field("used_len", r.head.usedLen);
        w.Field("commit_pos", r.head.commitPos);
        w.Field("readed_len", r.head.readedLen);
        w.EndObject();
        w.Field("records", r.records.size());
        w.EndObject();
        out.out += w.Take() + "\n";
    }
    for (const BoxRecord &rec : r.records) {
        qvdecode::JsonWriter w;
        w.BeginObject();
        w.Field("position", rec.position);
        w.FieldString("state", rec.read ? "read" : "unread");
        w.Field("length", rec.record.size());
        const qvdecode::JsonWriter::Mark mark = w.Here();
        if (const auto err = qvdecode::DecodeRecord(rec.record, w)) {
            w.Rewind(mark);
            w.FieldString("error", *err);
            out.damage.push_back("record at data position " + std::to_string(rec.position) + ": " + *err);
            w.FieldHex("bytes", rec.record);
        }
        w.EndObject();
        out.out += w.Take() + "\n";
    }
    return out;
}

}  // namespace qvdump
