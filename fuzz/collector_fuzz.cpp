// Fuzz target of the collector's datagram handling: the same entry the receive loop calls for every
// datagram, so head reading, sequence tracking, acknowledgement building, record decoding and JSON
// writing all see the bytes. The first input byte chooses how the datagram arrives:
//   bits 0-2  the receiving port (taken modulo the five ports)
//   bit  3    the datagram arrives twice, as a resend does
//   bits 4-5  the options: none, --count 1, --drop-acks 1, --no-ack
//   bit  6    the rest is several datagrams for one collector, so that sequence numbers meet: each is
//             a byte (bits 0-2 its port, bit 3 the second of two senders), a big-endian u16 length
//             (cut to what remains) and its bytes
// Otherwise the rest is the datagram. No input may crash; every line must be one valid JSON object
// (valid UTF-8, no raw newline), and an acknowledgement is 8 bytes, or 12 from the log port. Lines are
// written to /dev/null, so that writing them costs what it costs the collector.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "collector.h"
#include "json_check.h"
#include "qvagent/qv_agent_wire.h"
#include "stats.h"

namespace {

constexpr uint8_t kPortBits = 0x07;
constexpr uint8_t kResendBit = 0x08;
constexpr unsigned kOptionsShift = 4;
constexpr uint8_t kOptionsBits = 0x03;
constexpr uint8_t kSeveralBit = 0x40;
constexpr uint8_t kOtherSenderBit = 0x08;  // in the byte before each of several datagrams
constexpr size_t kPartHead = 3;            // that byte and the u16 length
constexpr qvcollector::Sender kSenders[] = {{0x7F000001, 40000}, {0x0A000002, 40001}};

void Require(bool ok) {
    if (!ok) std::abort();
}

std::FILE *Sink() {
    static std::FILE *const sink = std::fopen("/dev/null", "w");
    return sink;
}

void Write(const std::string &line) {
    Require(qvfuzz::IsOneJsonObject(line));
    if (std::FILE *sink = Sink()) {
        std::fwrite(line.data(), 1, line.size(), sink);
        std::fputc('\n', sink);
    }
}

qvcollector::Options OptionsOf(uint8_t selector) {
    qvcollector::Options o;
    switch ((selector >> kOptionsShift) & kOptionsBits) {
    case 1: o.count = 1; break;
    case 2: o.dropAcks = 1; break;
    case 3: o.noAck = true; break;
    default: break;
    }
    return o;
}

qvcollector::Port PortOf(uint8_t selector) {
    return static_cast<qvcollector::Port>(static_cast<size_t>(selector & kPortBits) % qvcollector::kPortCount);
}

void Deliver(qvcollector::Collector &collector, qvcollector::Port port, const qvcollector::Sender &sender,
             qvdecode::Bytes datagram) {
    const bool wasDone = collector.Done();
    const qvcollector::Outcome out = collector.Handle(port, sender, datagram);
    if (!out.ack.empty()) {
        const size_t expected = port == qvcollector::Port::Log ? QV_WIRE_ACK_LEN_LOG_PORT : QV_WIRE_ACK_LEN;
        Require(out.ack.size() == expected);
        Require(out.ack[QV_WIRE_HEAD_FLAGS_OFF] == QV_WIRE_FLAG_ACK);
    }
    Require(out.done == collector.Done());
    Require(!wasDone || out.done);  // a spent budget stays spent
    for (const std::string &line : out.lines) Write(line);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size == 0) return 0;
    const uint8_t selector = data[0];
    const uint64_t copies = (selector & kResendBit) != 0 ? 2 : 1;
    qvcollector::Collector collector(OptionsOf(selector));
    uint64_t delivered = 0;
    const auto deliver = [&](uint8_t how, const qvcollector::Sender &sender, qvdecode::Bytes datagram) {
        for (uint64_t c = 0; c < copies; ++c) Deliver(collector, PortOf(how), sender, datagram);
        delivered += copies;
    };

    if ((selector & kSeveralBit) == 0) {
        deliver(selector, kSenders[0], qvdecode::Bytes(data + 1, size - 1));
    } else {
        size_t at = 1;
        while (at + kPartHead <= size) {
            const uint8_t how = data[at];
            const size_t said = static_cast<size_t>(data[at + 1]) << 8 | data[at + 2];
            at += kPartHead;
            const size_t len = std::min(said, size - at);
            deliver(how, kSenders[(how & kOtherSenderBit) != 0 ? 1 : 0], qvdecode::Bytes(data + at, len));
            at += len;
        }
    }

    Require(collector.Totals().datagrams == delivered);
    for (size_t k = 0; k < qvcollector::kKindCount; ++k) {
        Write(qvcollector::StatsLine(static_cast<qvcollector::Kind>(k), collector.Stats()[k]));
    }
    return 0;
}
