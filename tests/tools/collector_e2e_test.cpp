// The real qvcollector process over loopback: acknowledgements byte for byte from the right port,
// the JSON lines of what was sent, --drop-acks, --no-ack, --count, --stats, bad datagrams, signals.
#include <gtest/gtest.h>

#include <signal.h>

#include <random>
#include <string>

#include "collector_process.h"
#include "qvagent/qv_agent_wire.h"

namespace {

using namespace wiretest;

constexpr int kWaitMs = 5000;     // for what must arrive
constexpr int kSilenceMs = 300;   // for what must not
constexpr uint8_t kData = QV_WIRE_FLAG_BYTE_ORDER;
constexpr uint8_t kStart = QV_WIRE_FLAG_BYTE_ORDER | QV_WIRE_FLAG_STREAM_START;

const Bytes kLogStreamStart = FromHex("00 14 44 01 00 00 00 01 01 00 08 00 00 00 00 00 00 00 00 00");

// The one line of `lines` that holds every fragment, or "" when none does.
std::string FindLine(const std::vector<std::string> &lines, const std::vector<std::string> &fragments) {
    for (const std::string &line : lines) {
        bool all = true;
        for (const std::string &f : fragments) all = all && line.find(f) != std::string::npos;
        if (all) return line;
    }
    return "";
}

std::string Joined(const std::vector<std::string> &lines) {
    std::string s;
    for (const std::string &l : lines) s += l + "\n";
    return s;
}

class CollectorEndToEnd : public testing::Test {
protected:
    void StartCollector(const std::vector<std::string> &options) {
        ASSERT_TRUE(client_.Ok());
        ASSERT_TRUE(collector_.Start(options)) << collector_.Stderr();
        from_ = "\"from\":\"127.0.0.1:" + std::to_string(client_.Port()) + "\"";
    }
    uint16_t PortOf(unsigned offset) const { return static_cast<uint16_t>(collector_.Base() + offset); }

    // Sends the datagram and expects exactly `ack` (hex) back from the same port.
    void ExpectAck(unsigned portOffset, const Bytes &datagram, const std::string &ack) {
        client_.Send(PortOf(portOffset), datagram);
        const auto reply = client_.Receive(kWaitMs);
        ASSERT_TRUE(reply.has_value()) << "no acknowledgement from port " << PortOf(portOffset);
        EXPECT_EQ(ToHex(reply->bytes), ack);
        EXPECT_EQ(reply->fromPort, PortOf(portOffset));
    }
    void ExpectNoAck(unsigned portOffset, const Bytes &datagram) {
        client_.Send(PortOf(portOffset), datagram);
        const auto reply = client_.Receive(kSilenceMs);
        EXPECT_FALSE(reply.has_value()) << "unexpected " << ToHex(reply->bytes);
    }

    UdpClient client_;
    CollectorProcess collector_;
    std::string from_;
};

TEST_F(CollectorEndToEnd, AcknowledgesEveryKindFromItsPortAndPrintsItsRecords) {
    StartCollector({});
    const Bytes alarms = Cat({TypicalAlarm(0x2002, "disk full"), TypicalAlarm(0x2003, "fan")});
    const Bytes debug = DebugRecord(0x11, 0x22, 0x1C000, 9, {Entry(QV_FMT_PARA_IPV4, FromHex("0100a8c0"))}, "ab");
    const Bytes byId = ByIdRecord(20, 0x1234, {Entry(QV_FMT_PARA_U32, Le32(7))});
    const struct {
        unsigned port;
        Bytes datagram;
        const char *ack;
    } acked[] = {
        {0, kLogStreamStart, "000c80010000000101000000"},
        {1, FromHex("00 08 44 01 00 00 00 01"), "0008800100000001"},
        {1, Datagram(kData, 2, std::nullopt, alarms), "0008800100000002"},
        {4, Datagram(kData, 7, QV_WIRE_STREAM_TYPE_OTHER, debug), "0008800100000007"},
        {0, Datagram(kData, 3, QV_WIRE_STREAM_TYPE_OTHER, debug), "000c80010000000302000000"},  // socket mode
        {2, Datagram(kData, 0xFFFFFFFF, QV_WIRE_STREAM_TYPE_OTHER, byId), "00088001ffffffff"},
    };
    for (const auto &a : acked) {
        SCOPED_TRACE(a.ack);
        ExpectAck(a.port, a.datagram, a.ack);
    }
    ExpectNoAck(0, FromHex("00 08 04 02 00 00 00 00"));                     // flush notice
    ExpectNoAck(3, FromHex("00 10 04 04 00 00 00 00 00 00 00 01 01020304"));  // KPI packet

    const std::vector<std::string> lines = collector_.Lines(9, kWaitMs);
    ASSERT_EQ(lines.size(), 9u) << Joined(lines);
    const std::vector<std::vector<std::string>> expected = {
        {"\"kind\":\"log\",\"seq\":1,", from_, "\"event\":\"stream_start\",\"length\":20,\"flags\":68"},
        {"\"kind\":\"alarm\",\"seq\":1,", "\"event\":\"stream_start\",\"length\":8"},
        {"\"kind\":\"alarm\",\"seq\":2,", "\"index\":0,\"record\":\"alarm\"", "\"alarm_id\":8194",
         "\"value\":\"disk full\""},
        {"\"kind\":\"alarm\",\"seq\":2,", "\"index\":1,\"record\":\"alarm\"", "\"alarm_id\":8195", "\"value\":\"fan\""},
        {"\"kind\":\"debug\",\"seq\":7,", "\"form\":\"debug\"", "\"level\":7,\"obj_kind\":8",
         "\"as\":\"ipv4\",\"value\":\"192.168.0.1\"", "\"key_word1\":34,\"text\":\"ab\""},
        {"\"kind\":\"debug\",\"seq\":3,", "\"form\":\"debug\""},
        {"\"kind\":\"hplog\",\"seq\":4294967295,", "\"form\":\"by_id\"", "\"log_id\":4660",
         "\"params\":[{\"type\":3,\"len\":4,\"as\":\"u32\",\"value\":7}]"},
        {"\"kind\":\"log\",\"seq\":0,", "\"event\":\"flush\""},
        {"\"kind\":\"kpi\",", "\"event\":\"kpi\",\"length\":16,\"flags\":4,\"body\":\"000000000000000101020304\""},
    };
    for (size_t i = 0; i < expected.size(); ++i) {
        EXPECT_NE(FindLine({lines[i]}, expected[i]), "") << "line " << i << ": " << lines[i];
    }
    EXPECT_EQ(collector_.Stop(SIGTERM, kWaitMs), 0);
}

TEST_F(CollectorEndToEnd, DropAcksWithholdsTheFirstDatagramsOfEachKindAndStatsCountTheResends) {
    StartCollector({"--drop-acks", "2", "--stats"});
    ExpectNoAck(0, kLogStreamStart);
    ExpectNoAck(0, kLogStreamStart);
    ExpectAck(0, kLogStreamStart, "000c80010000000101000000");
    ExpectAck(0, Datagram(kData, 2, QV_WIRE_STREAM_TYPE_LOG, ObjectLogRecord(1, 4, {}, {})), "000c80010000000201000000");
    ExpectAck(0, Datagram(kData, 4, QV_WIRE_STREAM_TYPE_LOG, ObjectLogRecord(2, 4, {}, {})), "000c80010000000401000000");
    ExpectNoAck(1, FromHex("00 08 44 01 00 00 00 01"));  // the alarm kind has its own two to withhold

    const std::vector<std::string> lines = collector_.Lines(6, kWaitMs);
    ASSERT_EQ(lines.size(), 6u) << Joined(lines);
    EXPECT_NE(lines[0].find("\"event\":\"stream_start\""), std::string::npos);
    EXPECT_NE(lines[1].find("\"event\":\"duplicate\""), std::string::npos);
    EXPECT_NE(lines[2].find("\"event\":\"duplicate\""), std::string::npos);
    EXPECT_NE(lines[3].find("\"form\":\"object\""), std::string::npos);

    EXPECT_EQ(collector_.Stop(SIGTERM, kWaitMs), 0);
    const std::vector<std::string> stats = collector_.Lines(5, kWaitMs);
    ASSERT_EQ(stats.size(), 5u) << Joined(stats);
    EXPECT_EQ(stats[0],
              "{\"event\":\"stats\",\"kind\":\"log\",\"datagrams\":5,\"records\":2,\"duplicates\":2,\"gaps\":1,"
              "\"missing\":1,\"errors\":0,\"acks\":3,\"acks_withheld\":2}");
    EXPECT_NE(stats[1].find("\"kind\":\"alarm\",\"datagrams\":1,"), std::string::npos) << stats[1];
    EXPECT_NE(stats[1].find("\"acks\":0,\"acks_withheld\":1"), std::string::npos) << stats[1];
    EXPECT_NE(collector_.Stderr().find("stopped by SIGTERM; 6 datagrams, 2 records, 2 duplicates, 1 gaps"),
              std::string::npos)
        << collector_.Stderr();
}

TEST_F(CollectorEndToEnd, CountEndsTheCollectorAfterTheRecordsAsked) {
    StartCollector({"--count", "3"});
    ExpectAck(1, Datagram(kStart, 1, std::nullopt, {}), "0008800100000001");
    ExpectAck(1, Datagram(kData, 2, std::nullopt, Cat({TypicalAlarm(1, "a"), TypicalAlarm(2, "b")})),
              "0008800100000002");
    ExpectAck(1, Datagram(kData, 3, std::nullopt, Cat({TypicalAlarm(3, "c"), TypicalAlarm(4, "d")})),
              "0008800100000003");
    EXPECT_EQ(collector_.WaitExit(kWaitMs), 0) << "it ends by itself";
    const std::vector<std::string> lines = collector_.Lines(10, 1000);
    ASSERT_EQ(lines.size(), 4u) << Joined(lines);
    EXPECT_NE(lines[3].find("\"alarm_id\":3"), std::string::npos);
    EXPECT_NE(collector_.Stderr().find("stopped after 3 records (--count)"), std::string::npos) << collector_.Stderr();
}

TEST_F(CollectorEndToEnd, NoAckNeverAnswersButStillReports) {
    StartCollector({"--no-ack"});
    ExpectNoAck(0, kLogStreamStart);
    ExpectNoAck(1, Datagram(kData, 2, std::nullopt, TypicalAlarm(5, "x")));
    const std::vector<std::string> lines = collector_.Lines(2, kWaitMs);
    ASSERT_EQ(lines.size(), 2u) << Joined(lines);
    EXPECT_NE(lines[1].find("\"alarm_id\":5"), std::string::npos);
    EXPECT_EQ(collector_.Stop(SIGINT, kWaitMs), 0);
    EXPECT_NE(collector_.Stderr().find("stopped by SIGINT"), std::string::npos) << collector_.Stderr();
}

TEST_F(CollectorEndToEnd, BadDatagramsAreReportedAndTheCollectorGoesOn) {
    StartCollector({"--stats"});
    std::mt19937 rng(99);
    size_t sent = 0;
    for (unsigned port = 0; port < QV_WIRE_PORT_COUNT; ++port) {
        ExpectNoAck(port, FromHex("00 07 04 01 00 00 00"));
        const Bytes eleven = FromHex("00 0b 04 01 00 00 00 02 01 00 08");
        if (port == 1) {
            // The alarm head is 8 bytes: a whole head with a broken body is acknowledged all the same.
            ExpectAck(port, eleven, "0008800100000002");
        } else {
            ExpectNoAck(port, eleven);
        }
        Bytes junk(100);
        for (uint8_t &b : junk) b = static_cast<uint8_t>(rng());
        junk[QV_WIRE_HEAD_FLAGS_OFF] = QV_WIRE_FLAG_ACK;  // never a datagram that would be acknowledged
        ExpectNoAck(port, junk);
        sent += 3;
    }
    ExpectAck(0, kLogStreamStart, "000c80010000000101000000");
    const std::vector<std::string> lines = collector_.Lines(sent + 1, kWaitMs);
    ASSERT_EQ(lines.size(), sent + 1) << Joined(lines);
    EXPECT_NE(FindLine(lines, {"\"kind\":\"log\"", "\"event\":\"error\",\"length\":7,"}), "");
    EXPECT_NE(FindLine(lines, {"\"kind\":\"debug\"", "\"event\":\"error\",\"length\":11,"}), "");
    EXPECT_NE(FindLine(lines, {"\"kind\":\"alarm\",\"seq\":2,", "\"index\":0,\"event\":\"error\",\"offset\":8,",
                               "\"reason\":\"record head cut short\""}),
              "");
    EXPECT_NE(FindLine(lines, {"\"kind\":\"kpi\"", "\"event\":\"error\",\"length\":100,"}), "");
    EXPECT_NE(lines.back().find("\"event\":\"stream_start\""), std::string::npos);
    EXPECT_EQ(collector_.Stop(SIGINT, kWaitMs), 0);
    const std::vector<std::string> stats = collector_.Lines(5, kWaitMs);
    ASSERT_EQ(stats.size(), 5u);
    EXPECT_NE(stats[0].find("\"datagrams\":4,"), std::string::npos) << stats[0];
    EXPECT_NE(stats[0].find("\"errors\":3,"), std::string::npos) << stats[0];
}

TEST_F(CollectorEndToEnd, HelpBadOptionsAndABusyPortEndWithTheirStatus) {
    std::vector<std::string> help = CollectorCommand();
    help.push_back("--help");
    const RunResult h = RunToEnd(help, kWaitMs);
    EXPECT_EQ(h.status, 0);
    for (const char *option : {"--bind", "--base-port", "--no-ack", "--drop-acks", "--count", "--stats"}) {
        EXPECT_NE(h.out.find(option), std::string::npos) << option;
    }

    std::vector<std::string> bad = CollectorCommand();
    bad.push_back("--count");
    bad.push_back("many");
    const RunResult b = RunToEnd(bad, kWaitMs);
    EXPECT_EQ(b.status, 1);
    EXPECT_NE(b.err.find("--count wants a number"), std::string::npos) << b.err;

    // The client's own port is taken: a collector whose ports include it cannot bind.
    std::vector<std::string> busy = CollectorCommand();
    busy.push_back("--base-port");
    busy.push_back(std::to_string(client_.Port() > 65531 ? client_.Port() - 4 : client_.Port()));
    const RunResult p = RunToEnd(busy, kWaitMs);
    EXPECT_EQ(p.status, 2);
    EXPECT_NE(p.err.find("cannot bind 127.0.0.1:"), std::string::npos) << p.err;
}

}  // namespace
