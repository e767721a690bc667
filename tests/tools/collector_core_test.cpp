// The collector's handling of one datagram, without sockets: which kind it is, the acknowledgement
// byte for byte, the JSON lines, bad datagrams, sequence numbers (duplicates, gaps, wrap), the
// deterministic withholding of acknowledgements and the --count budget.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "collector.h"
#include "qvagent/qv_agent_wire.h"
#include "wire_builder.h"

namespace {

using namespace wiretest;
using qvcollector::Collector;
using qvcollector::KindStats;
using qvcollector::Options;
using qvcollector::Outcome;
using qvcollector::Port;
using qvcollector::Sender;

constexpr Sender kSender{0x7F000001, 40000};
constexpr uint16_t kLogStream = QV_WIRE_STREAM_TYPE_LOG;
constexpr uint16_t kOtherStream = QV_WIRE_STREAM_TYPE_OTHER;
constexpr uint8_t kData = QV_WIRE_FLAG_BYTE_ORDER;
constexpr uint8_t kStart = QV_WIRE_FLAG_BYTE_ORDER | QV_WIRE_FLAG_STREAM_START;

// The first n bytes.
Bytes First(size_t n, const Bytes &b) { return Bytes(b.begin(), b.begin() + static_cast<long>(n)); }

// The record with an unknown record type.
Bytes WithBadType(Bytes record) {
    record[QV_REC_TYPE_OFF] = 3;
    return record;
}

Outcome Feed(Collector &c, Port port, const Bytes &d, Sender from = kSender) {
    return c.Handle(port, from, qvdecode::Bytes(d.data(), d.size()));
}

struct DatagramCase {
    const char *name;
    Port port;
    Bytes datagram;
    const char *ack;                  // hex, "" for none
    std::vector<std::string> lines;   // one fragment per expected line, in order
};

TEST(DecodeDatagram, EachShapeIsAnsweredAndReported) {
    const Bytes alarms = Cat({TypicalAlarm(1, "a"), TypicalAlarm(2, "b")});
    const Bytes flush = FromHex("00 08 04 02 00 00 00 00");
    const Bytes kpi = FromHex("00 10 04 04 00 00 00 00 00 00 00 01 aa bb cc dd");
    const Bytes byId = ByIdRecord(20, 0x55, {Entry(QV_FMT_PARA_U32, Le32(7))});
    const Bytes debug = DebugRecord(1, 2, 0x4000, 0, {}, "dbg");
    Bytes longerThanSaid = Datagram(kData, 4, kLogStream, {});
    longerThanSaid[1] = 28;
    Bytes acknowledgement = FromHex("00 08 80 01 00 00 00 01");
    const DatagramCase cases[] = {
        {"stream start of the log kind", Port::Log, FromHex("00 14 44 01 00 00 00 01 01 00 08 00 0000000000000000"),
         "000c80010000000101000000",
         {"{\"kind\":\"log\",\"seq\":1,\"from\":\"127.0.0.1:40000\",\"event\":\"stream_start\",\"length\":20,\"flags\":68}"}},
        {"stream start of the alarm kind", Port::Alarm, FromHex("00 08 44 01 00 00 00 01"), "0008800100000001",
         {"{\"kind\":\"alarm\",\"seq\":1,\"from\":\"127.0.0.1:40000\",\"event\":\"stream_start\",\"length\":8,\"flags\":68}"}},
        {"debug on the log port (socket mode) carries the stream type back", Port::Log,
         Datagram(kData, 0x01020304, kOtherStream, debug), "000c80010102030402000000",
         {"{\"kind\":\"debug\",\"seq\":16909060,\"from\":\"127.0.0.1:40000\",\"index\":0,\"record\":\"log\",\"form\":\"debug\""}},
        {"debug on its own port", Port::Debug, Datagram(kStart, 1, kOtherStream, {}), "0008800100000001",
         {"\"kind\":\"debug\",\"seq\":1"}},
        {"high-precision log", Port::HighPrecision, Datagram(kData, 9, kOtherStream, byId), "0008800100000009",
         {"{\"kind\":\"hplog\",\"seq\":9,\"from\":\"127.0.0.1:40000\",\"index\":0,\"record\":\"log\",\"form\":\"by_id\""}},
        {"two alarm records", Port::Alarm, Datagram(kData, 2, std::nullopt, alarms), "0008800100000002",
         {"\"kind\":\"alarm\",\"seq\":2,\"from\":\"127.0.0.1:40000\",\"index\":0,\"record\":\"alarm\"",
          "\"index\":1,\"record\":\"alarm\""}},
        {"flush notice", Port::Log, flush, "",
         {"{\"kind\":\"log\",\"seq\":0,\"from\":\"127.0.0.1:40000\",\"event\":\"flush\",\"length\":8,\"flags\":4}"}},
        {"KPI packet", Port::Kpi, kpi, "",
         {"{\"kind\":\"kpi\",\"from\":\"127.0.0.1:40000\",\"event\":\"kpi\",\"length\":16,\"flags\":4,"
          "\"body\":\"0000000000000001aabbccdd\"}"}},
        {"7 bytes", Port::Log, FromHex("00 07 04 01 00 00 00"), "",
         {"{\"kind\":\"log\",\"from\":\"127.0.0.1:40000\",\"event\":\"error\",\"length\":7,"
          "\"reason\":\"7 bytes, shorter than a datagram head\"}"}},
        {"nothing at all", Port::Alarm, {}, "", {"\"event\":\"error\",\"length\":0"}},
        {"11 bytes on the log port", Port::Log, FromHex("00 0b 04 01 00 00 00 02 01 00 08"), "",
         {"\"seq\":2,\"from\":\"127.0.0.1:40000\",\"event\":\"error\",\"length\":11,"
          "\"reason\":\"11 bytes, shorter than the 20-byte head of the log kind\""}},
        {"19 bytes on the high-precision port", Port::HighPrecision, First(19, Datagram(kData, 1, 2, {})), "",
         {"19 bytes, shorter than the 20-byte head of the hplog kind"}},
        {"an acknowledgement sent to the collector", Port::Alarm, acknowledgement, "",
         {"\"reason\":\"an acknowledgement, not a datagram for the collector\""}},
        {"unknown message type", Port::Alarm, FromHex("00 08 04 03 00 00 00 01"), "", {"unknown message type 3"}},
        {"KPI packet on the alarm port", Port::Alarm, kpi, "", {"KPI packet on the alarm port"}},
        {"numbered datagram on the KPI port", Port::Kpi, Datagram(kStart, 1, kLogStream, {}), "",
         {"{\"kind\":\"kpi\",\"seq\":1,\"from\":\"127.0.0.1:40000\",\"event\":\"error\",\"length\":20,"
          "\"reason\":\"numbered datagram on the KPI port\"}"}},
        {"KPI packet whose length field disagrees", Port::Kpi, Cat({kpi, Bytes{0}}), "", {"length field 16 for 17 bytes"}},
        {"stream type 3 on the log port", Port::Log, Datagram(kData, 5, 3, {}), "", {"stream type 3 on the log port"}},
        {"length field disagrees: acknowledged, reported", Port::Log, longerThanSaid, "000c80010000000401000000",
         {"\"seq\":4,\"from\":\"127.0.0.1:40000\",\"event\":\"error\",\"length\":20,"
          "\"reason\":\"length field 28 for 20 bytes\""}},
        {"record reaching past the datagram", Port::Alarm, Datagram(kData, 3, std::nullopt, Cat({Le16(2), Le16(200), Bytes(40, 0)})),
         "0008800100000003",
         {"\"index\":0,\"event\":\"error\",\"offset\":8,\"length\":44,\"reason\":\"record length field 200 reaches past the end\""}},
        {"a good record, then garbage", Port::Alarm, Datagram(kData, 6, std::nullopt, Cat({TypicalAlarm(3, "c"), Bytes{9, 9, 9}})),
         "0008800100000006", {"\"index\":0,\"record\":\"alarm\"", "\"index\":1,\"event\":\"error\""}},
        {"a bad record, then a good one", Port::HighPrecision,
         Datagram(kData, 7, kOtherStream, Cat({WithBadType(byId), byId})), "0008800100000007",
         {"\"index\":0,\"event\":\"error\",\"offset\":20,", "\"index\":1,\"record\":\"log\""}},
    };
    for (const DatagramCase &c : cases) {
        SCOPED_TRACE(c.name);
        Collector collector(Options{});
        const Outcome out = Feed(collector, c.port, c.datagram);
        EXPECT_EQ(ToHex(out.ack), c.ack);
        ASSERT_EQ(out.lines.size(), c.lines.size());
        for (size_t i = 0; i < c.lines.size(); ++i) {
            EXPECT_NE(out.lines[i].find(c.lines[i]), std::string::npos) << out.lines[i];
        }
    }
}

TEST(DecodeDatagram, EveryTruncationAndMutationIsSurvived) {
    const Bytes good[] = {
        Datagram(kData, 2, std::nullopt, Cat({TypicalAlarm(1, "a"), TypicalAlarm(2, "b")})),
        Datagram(kData, 3, kLogStream, ObjectLogRecord(1, 4, {}, {Entry(7, {1, 2, 3})})),
        Datagram(kData, 4, kOtherStream, DebugRecord(1, 2, 3, 4, {Entry(QV_FMT_PARA_IPV4, Le32(1))}, "t")),
    };
    std::mt19937 rng(7);
    Collector collector(Options{});
    for (const Bytes &d : good) {
        for (size_t n = 0; n <= d.size(); ++n) {
            for (size_t p = 0; p < qvcollector::kPortCount; ++p) {
                const Outcome out = Feed(collector, static_cast<Port>(p), First(n, d));
                ASSERT_FALSE(out.lines.empty());
                ASSERT_TRUE(out.ack.empty() || out.ack.size() == 8 || out.ack.size() == 12);
            }
        }
        for (int i = 0; i < 3000; ++i) {
            Bytes m = d;
            for (int k = 0; k < 1 + static_cast<int>(rng() % 4); ++k) m[rng() % m.size()] = static_cast<uint8_t>(rng());
            const Outcome out = Feed(collector, static_cast<Port>(rng() % qvcollector::kPortCount), m);
            for (const std::string &line : out.lines) {
                ASSERT_EQ(line.front(), '{');
                ASSERT_EQ(line.back(), '}');
            }
        }
    }
    for (int i = 0; i < 5000; ++i) {
        Bytes junk(rng() % 120);
        for (uint8_t &b : junk) b = static_cast<uint8_t>(rng());
        ASSERT_FALSE(Feed(collector, static_cast<Port>(rng() % qvcollector::kPortCount), junk).lines.empty());
    }
}

TEST(CollectorSequence, ResendsAreDuplicatesAndSkippedNumbersAreGaps) {
    Collector c(Options{});
    const Sender other{0x7F000001, 40001};
    struct Step {
        Port port;
        uint32_t seq;
        uint8_t flags;
        Sender from;
        const char *event;  // expected first line's event, "" for a datagram without lines
    };
    const Step steps[] = {
        {Port::Log, 1, kStart, kSender, "stream_start"},
        {Port::Log, 1, kStart, kSender, "duplicate"},  // the stream start resent
        {Port::Log, 2, kData, kSender, ""},
        {Port::Log, 2, kData, kSender, "duplicate"},
        {Port::Log, 4, kData, kSender, ""},            // 3 missing
        {Port::Log, 9, kData, kSender, ""},            // 5 to 8 missing
        {Port::Log, 7, kData, kSender, ""},            // late, not a duplicate, not a gap
        {Port::Log, 4, kData, kSender, "duplicate"},
        {Port::Log, 2, kData, other, ""},              // another sender: its own numbering
        {Port::Alarm, 2, kData, kSender, ""},          // another kind: its own numbering
        {Port::Log, 1, kStart, kSender, "stream_start"},  // the agent started again
        {Port::Log, 2, kData, kSender, ""},
        {Port::HighPrecision, 0xFFFFFFFE, kData, kSender, ""},
        {Port::HighPrecision, 0xFFFFFFFF, kData, kSender, ""},
        {Port::HighPrecision, 1, kData, kSender, ""},  // the wrap skips 0
        {Port::HighPrecision, 3, kData, kSender, ""},  // 2 missing
    };
    for (const Step &s : steps) {
        SCOPED_TRACE(s.seq);
        const std::optional<uint16_t> stream =
            s.port == Port::Alarm ? std::nullopt : std::optional<uint16_t>(s.port == Port::Log ? kLogStream : kOtherStream);
        const Outcome out = Feed(c, s.port, Datagram(s.flags, s.seq, stream, {}), s.from);
        EXPECT_FALSE(out.ack.empty()) << "duplicates are acknowledged again";
        if (*s.event == '\0') {
            EXPECT_TRUE(out.lines.empty());
        } else {
            ASSERT_EQ(out.lines.size(), 1u);
            EXPECT_NE(out.lines[0].find(std::string("\"event\":\"") + s.event + "\""), std::string::npos) << out.lines[0];
        }
    }
    const KindStats &log = c.Stats()[0];
    EXPECT_EQ(log.datagrams, 11u);
    EXPECT_EQ(log.duplicates, 3u);
    EXPECT_EQ(log.gaps, 2u);
    EXPECT_EQ(log.missing, 5u);
    EXPECT_EQ(log.acks, 11u);
    const KindStats &hp = c.Stats()[3];
    EXPECT_EQ(hp.gaps, 1u);
    EXPECT_EQ(hp.missing, 1u);
    EXPECT_EQ(c.Stats()[1].duplicates, 0u);
}

TEST(CollectorSequence, DropAcksWithholdsTheFirstNumberedDatagramsOfEachKind) {
    const struct {
        Options options;
        std::vector<bool> logAcked;    // per log datagram, in order
        std::vector<bool> alarmAcked;  // per alarm datagram
    } cases[] = {
        {Options{}, {true, true, true}, {true, true}},
        {[] { Options o; o.dropAcks = 2; return o; }(), {false, false, true}, {false, false}},
        {[] { Options o; o.dropAcks = 1; return o; }(), {false, true, true}, {false, true}},
        {[] { Options o; o.noAck = true; return o; }(), {false, false, false}, {false, false}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE("drop " + std::to_string(c.options.dropAcks) + (c.options.noAck ? " no-ack" : ""));
        Collector col(c.options);
        // A flush notice and a bad datagram are not numbered and do not use up the withheld acks.
        Feed(col, Port::Log, FromHex("00 08 04 02 00 00 00 00"));
        Feed(col, Port::Log, FromHex("00 01"));
        for (size_t i = 0; i < c.logAcked.size(); ++i) {
            // The stream start resent, as the agent does until it is acknowledged.
            const Outcome out = Feed(col, Port::Log, Datagram(kStart, 1, kLogStream, {}));
            EXPECT_EQ(!out.ack.empty(), c.logAcked[i]) << "log datagram " << i;
        }
        for (size_t i = 0; i < c.alarmAcked.size(); ++i) {
            const Outcome out = Feed(col, Port::Alarm, Datagram(kStart, 1, std::nullopt, {}));
            EXPECT_EQ(!out.ack.empty(), c.alarmAcked[i]) << "alarm datagram " << i;
        }
        size_t withheld = 0;
        for (const bool acked : c.logAcked) withheld += acked ? 0 : 1;
        EXPECT_EQ(col.Stats()[0].acksWithheld, withheld);
        EXPECT_EQ(col.Stats()[0].acks, c.logAcked.size() - withheld);
    }
}

TEST(CollectorSequence, CountStopsAtExactlyTheRecordsAsked) {
    Options o;
    o.count = 3;
    Collector c(o);
    const Bytes two = Cat({TypicalAlarm(1, "a"), TypicalAlarm(2, "b")});
    Outcome out = Feed(c, Port::Alarm, Datagram(kStart, 1, std::nullopt, {}));
    EXPECT_FALSE(out.done);
    out = Feed(c, Port::Alarm, Datagram(kData, 2, std::nullopt, two));
    EXPECT_EQ(out.lines.size(), 2u);
    EXPECT_FALSE(out.done);
    out = Feed(c, Port::Alarm, Datagram(kData, 3, std::nullopt, two));
    EXPECT_TRUE(out.done);
    ASSERT_EQ(out.lines.size(), 1u) << "only the third record is printed";
    EXPECT_NE(out.lines[0].find("\"alarm_id\":1"), std::string::npos);
    EXPECT_EQ(ToHex(out.ack), "0008800100000003") << "the datagram is still acknowledged";
    EXPECT_EQ(c.Stats()[1].records, 3u);
    EXPECT_TRUE(c.Done());
}

}  // namespace
