// Subjects and message ids of the stream.
#include "stream_names.h"

#include <cstdio>
#include <cstring>

#include "qvagent/qv_agent_wire.h"

namespace qvcollector {

using qvdecode::Has;
using qvdecode::Le16;

namespace {

// Multiplier and seed of the datagram hash (64-bit odd constants with well-mixed bits).
constexpr uint64_t kHashMul = 0x9E3779B97F4A7C15ull;
constexpr uint64_t kHashSeed = 0xC2B2AE3D27D4EB4Full;

uint64_t Mix(uint64_t h) {
    h ^= h >> 32;
    h *= kHashMul;
    h ^= h >> 29;
    return h;
}

}  // namespace

std::string ServiceOfRecord(Bytes rec) {
    if (!Has(rec, QV_REC_TYPE_OFF, 2)) return {};
    const uint16_t type = Le16(rec, QV_REC_TYPE_OFF);
    size_t offset = type == QV_REC_TYPE_ALARM ? QV_ALARM_HEAD_LEN : QV_LOG_HEAD_LEN;
    // Entries follow the head back to back; the first one of the service-name type is the name.
    while (Has(rec, offset, QV_ENTRY_HEAD_LEN)) {
        const uint16_t len = Le16(rec, offset + QV_ENTRY_LEN_OFF);
        if (!Has(rec, offset + QV_ENTRY_HEAD_LEN, len)) break;
        if (Le16(rec, offset + QV_ENTRY_TYPE_OFF) == QV_OPT_SERVICE_NAME) {
            const auto *p = reinterpret_cast<const char *>(rec.data() + offset + QV_ENTRY_HEAD_LEN);
            return std::string(p, strnlen(p, len));
        }
        offset += QV_ENTRY_HEAD_LEN + len;
    }
    return {};
}

std::string SubjectOf(Kind kind, std::string_view service) {
    std::string s(kSubjectRoot);
    s += '.';
    s += KindName(kind);
    s += '.';
    if (service.empty()) return s + '_';
    for (const char c : service) {
        const auto u = static_cast<unsigned char>(c);
        s += (c == '.' || c == '*' || c == '>' || u <= ' ' || u == 0x7F) ? '_' : c;
    }
    return s;
}

uint64_t DatagramHash(Bytes d) {
    uint64_t h = kHashSeed ^ (d.size() * kHashMul);
    size_t i = 0;
    for (; i + sizeof(uint64_t) <= d.size(); i += sizeof(uint64_t)) {
        uint64_t w = 0;
        std::memcpy(&w, d.data() + i, sizeof w);
        h = Mix(h ^ w);
    }
    uint64_t tail = 0;
    if (i < d.size()) std::memcpy(&tail, d.data() + i, d.size() - i);
    return Mix(h ^ tail);
}

std::string MessageId(Kind kind, uint32_t senderIp, uint32_t seq, uint64_t hash) {
    char buf[80];
    std::snprintf(buf, sizeof buf, "%.*s-%08x-%u-%016llx", static_cast<int>(KindName(kind).size()), KindName(kind).data(),
                  senderIp, seq, static_cast<unsigned long long>(hash));
    return buf;
}

}  // namespace qvcollector
