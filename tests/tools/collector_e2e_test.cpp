// The real qvcollector process over loopback: acknowledgements byte for byte from the receiving port,
// a line for every datagram, bad datagrams survived, --drop-acks, --count and --stats, --no-ack with
// SIGINT, and the exit status of --help, bad options and a busy port.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "collector_process.h"
#include "wire_builder.h"

namespace {

using namespace wiretest;
using Lines = std::vector<std::string>;  // per line, a part it must hold

constexpr uint16_t kBase = 7000;
constexpr int kWaitMs = 5000;    // for what must arrive
constexpr int kSilenceMs = 300;  // for what must not
constexpr uint16_t kOther = QV_WIRE_STREAM_TYPE_OTHER;
const Bytes kLogStart = FromHex("00 14 44 01 00 00 00 01 01 00 08 00 0000000000000000");
const Bytes kAlarmStart = FromHex("00 08 44 01 00 00 00 01");
const Bytes kFlush = FromHex("00 08 04 02 00 00 00 00");

sockaddr_in Loopback(uint16_t port) {
    sockaddr_in sa{};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(port);
    sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return sa;
}

// A collector and a UDP socket of the test's own on a loopback port, to send from and to receive on.
class CollectorEndToEnd : public testing::Test {
protected:
    void SetUp() override {
        sockaddr_in sa = Loopback(0);
        socklen_t len = sizeof sa;
        ASSERT_EQ(bind(fd_, reinterpret_cast<sockaddr *>(&sa), len), 0);
        ASSERT_EQ(getsockname(fd_, reinterpret_cast<sockaddr *>(&sa), &len), 0);
        port_ = ntohs(sa.sin_port);
    }
    void TearDown() override { close(fd_); }
    void StartCollector(const std::vector<std::string> &options) {
        ASSERT_TRUE(collector_.StartAt(kBase, options)) << collector_.Stderr();
    }
    // Sends the datagram to the port kBase + offset; expects `ack` (hex) back from that port, or none.
    void Exchange(unsigned offset, const Bytes &datagram, const std::string &ack) {
        const auto port = static_cast<uint16_t>(kBase + offset);
        const sockaddr_in to = Loopback(port);
        sendto(fd_, datagram.data(), datagram.size(), 0, reinterpret_cast<const sockaddr *>(&to), sizeof to);
        pollfd f{fd_, POLLIN, 0};
        std::string got;  // the reply in hex and the port it came from
        if (poll(&f, 1, ack.empty() ? kSilenceMs : kWaitMs) > 0) {
            Bytes reply(65536);
            sockaddr_in from{};
            socklen_t len = sizeof from;
            const ssize_t n = recvfrom(fd_, reply.data(), reply.size(), 0, reinterpret_cast<sockaddr *>(&from), &len);
            reply.resize(static_cast<size_t>(std::max<ssize_t>(n, 0)));
            got = ToHex(reply) + " from " + std::to_string(ntohs(from.sin_port));
        }
        EXPECT_EQ(got, ack.empty() ? "" : ack + " from " + std::to_string(port));
    }
    void ExpectLines(const Lines &expected) {
        for (const std::string &part : expected) {
            const std::string line = collector_.NextLine(kWaitMs).value_or("no line");
            EXPECT_NE(line.find(part), std::string::npos) << part << " in " << line;
        }
    }

    const int fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    uint16_t port_ = 0;
    CollectorProcess collector_;
};

TEST_F(CollectorEndToEnd, AnswersFromTheReceivingPortAndReportsEveryDatagram) {
    StartCollector({});
    const Bytes debug = DebugRecord(1, 2, 3, 4, {}, "d");
    const struct {
        unsigned port;
        Bytes datagram;
        const char *ack;
        std::string line;  // a part of the one line it brings
    } cases[] = {
        {0, FromHex("00 07 04 01 00 00 00"), "", R"({"kind":"log","from")"},  // too short for a number
        {0, kLogStart, "000c80010000000101000000",
         R"({"kind":"log","seq":1,"from":"127.0.0.1:)" + std::to_string(port_) + R"(","event":"stream_start")"},
        {1, kAlarmStart, "0008800100000001", R"({"kind":"alarm","seq":1,)"},
        {4, Datagram(kData, 7, kOther, debug), "0008800100000007", R"({"kind":"debug","seq":7,)"},
        {2, Datagram(kData, 0xFFFFFFFF, kOther, ByIdRecord(20, 1, {})), "00088001ffffffff",
         R"({"kind":"hplog","seq":4294967295,)"},
        {0, kFlush, "", R"("event":"flush")"},
        {3, FromHex("00 10 04 04 00 00 00 00 00 00 00 01 01020304"), "",
         R"("event":"error","length":16,"flags":4,"reason":"record count 1 for 4 bytes of records")"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(ToHex(c.datagram).substr(0, 24));
        Exchange(c.port, c.datagram, c.ack);
        ExpectLines({c.line});
    }
    EXPECT_EQ(collector_.Stop(SIGTERM, kWaitMs), 0);
}

// --drop-acks 2 withholds the first two numbered datagrams of each kind (the agent resends its stream
// start until it is answered); --count=3 ends the collector inside a datagram, which is still
// acknowledged; --stats then counts what happened.
TEST_F(CollectorEndToEnd, DropAcksAndCountEndWithTheStats) {
    StartCollector({"--drop-acks", "2", "--count=3", "--stats"});
    // A flush notice and a bad datagram are not numbered: they use up none of the withheld acks.
    Exchange(0, kFlush, "");
    Exchange(0, FromHex("00 01"), "");
    Exchange(0, kLogStart, "");
    Exchange(0, kLogStart, "");
    Exchange(0, kLogStart, "000c80010000000101000000");
    Exchange(1, kAlarmStart, "");  // the alarm kind has its own two to withhold
    Exchange(0, Datagram(kData, 2, QV_WIRE_STREAM_TYPE_LOG, ObjectLogRecord(1, 4, {}, {})), "000c80010000000201000000");
    Bytes three;  // records 2, 3 and 4
    for (uint32_t id = 2; id <= 4; ++id) three = Cat({three, ObjectLogRecord(id, 4, {}, {})});
    Exchange(0, Datagram(kData, 4, QV_WIRE_STREAM_TYPE_LOG, three), "000c80010000000401000000");
    EXPECT_EQ(collector_.WaitExit(kWaitMs), 0) << "it ends by itself";
    ExpectLines({"flush", "error", "stream_start", "duplicate", "duplicate", R"({"kind":"alarm")", R"("log_id":1,)",
                 R"("log_id":2,)", R"("log_id":3,)",
                 R"({"event":"stats","kind":"log","datagrams":7,"records":3,"duplicates":2,"gaps":1,"missing":1,)"
                 R"("errors":1,"acks":3,"acks_withheld":2})",
                 R"({"event":"stats","kind":"alarm","datagrams":1,"records":0,"duplicates":0,"gaps":0,"missing":0,)"
                 R"("errors":0,"acks":0,"acks_withheld":1})"});
    EXPECT_NE(collector_.Stderr().find("stopped after 3 records (--count); 8 datagrams, 3 records, 2 duplicates, "
                                       "1 gaps, 1 errors, 3 acks sent, 3 withheld"),
              std::string::npos) << collector_.Stderr();
}

TEST_F(CollectorEndToEnd, NoAckNeverAnswersButStillReportsAndSigintEndsIt) {
    StartCollector({"--no-ack"});
    Exchange(0, kLogStart, "");
    Exchange(1, Datagram(kData, 2, std::nullopt, TypicalAlarm(5, "x")), "");
    ExpectLines({"stream_start", R"("alarm_id":5,)"});
    EXPECT_EQ(collector_.Stop(SIGINT, kWaitMs), 0);
    EXPECT_NE(collector_.Stderr().find("stopped by SIGINT"), std::string::npos) << collector_.Stderr();
}

TEST_F(CollectorEndToEnd, HelpBadOptionsAndABusyPortEndWithTheirStatusAndMessage) {
    // The client's own port is taken: a collector whose ports include it cannot bind.
    const unsigned busy = port_ > 65531 ? port_ - 4u : port_;
    const struct {
        std::vector<std::string> args;
        int status;
        std::string text;  // on standard output after status 0, else on standard error
    } cases[] = {
        {{"--help"}, 0, "Usage: qvcollector [OPTIONS]"},
        {{"-h"}, 0, "Usage: qvcollector [OPTIONS]"},
        {{"--count", "0"}, 1, "qvcollector: --count wants a number from 1"},
        {{"--count"}, 1, "qvcollector: --count needs a value"},
        {{"--drop-acks", "2x"}, 1, "qvcollector: --drop-acks wants a number"},
        {{"--base-port", "65532"}, 1, "--base-port wants a number from 1 to 65531, not '65532'"},
        {{"--bind", "1.2.3"}, 1, "--bind wants an IPv4 address"},
        {{"--stats=1"}, 1, "--stats takes no value"},
        {{"6010"}, 1, "unknown option '6010'"},
        {{"--base-port", std::to_string(busy)}, 2, "cannot bind 127.0.0.1:" + std::to_string(port_)},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.args[0]);
        CollectorProcess p;
        ASSERT_TRUE(p.Spawn(c.args));
        EXPECT_EQ(p.WaitExit(kWaitMs), c.status);
        std::string out;
        while (auto line = p.NextLine(0)) out += *line + "\n";
        EXPECT_NE((c.status == 0 ? out : p.Stderr()).find(c.text), std::string::npos) << out << p.Stderr();
    }
}

}  // namespace
