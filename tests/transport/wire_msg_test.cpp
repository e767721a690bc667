// Datagram bytes: stream start heads of every kind, sequence numbers, packing whole records within the
// bound and the per-pass caps, and which replies count as acknowledgements of which kind.
#include <arpa/inet.h>

#include <vector>

#include "module_fixture.h"
#include "core/mutex_guard.h"
#include "transport/send_window.h"
#include "transport/wire_msg.h"

namespace {

using Bytes = qvtest::Bytes;

class WireTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        module_->iSockFd = -1;  // nothing leaves the process in these tests
    }
    // One send pass of kind k: the datagram, empty when nothing is sent.
    Bytes Pass(uint32_t k) {
        std::vector<uint8_t> buf(QV_WIRE_SEND_BUFFER_LEN);
        const int32_t n = QV_AGENT_GetSendMsg(k, buf.data(), static_cast<uint32_t>(buf.size()), module_);
        return n >= 1 ? Bytes(buf.begin(), buf.begin() + n) : Bytes{};
    }
    void Acknowledge(uint32_t k) {
        qv::MutexGuard guard(module_->stListMutex);
        qv::window::ReleaseAcknowledged(module_, k);
    }
    void Queue(uint32_t k, size_t len, uint8_t fill) {
        const Bytes record(len, fill);
        ASSERT_EQ(QV_AGENT_AddSendBuf(record.data(), static_cast<uint32_t>(len), k, module_), QV_AGENT_OK);
    }
};

uint32_t SeqOf(const Bytes &d) { return (uint32_t{d[4]} << 24) | (uint32_t{d[5]} << 16) | (uint32_t{d[6]} << 8) | d[7]; }
uint32_t LenOf(const Bytes &d) { return (uint32_t{d[0]} << 8) | d[1]; }

TEST_F(WireTest, FirstDatagramOfEachKindIsABareStreamStart) {
    // A 20-byte datagram: the header, then the stream start of that kind, whose last 8 bytes are zero.
    auto withStream = [](uint8_t type) {
        return Bytes{0x00, 0x14, 0x44, 0x01, 0x00, 0x00, 0x00, 0x01, type, 0x00, 0x08, 0x00,
                     0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00};
    };
    Queue(QV_AGENT_MSG_LOG, 100, 0xAA);  // records wait behind the stream start
    EXPECT_EQ(Pass(QV_AGENT_MSG_LOG), withStream(1));
    EXPECT_EQ(Pass(QV_AGENT_MSG_ALARM), (Bytes{0x00, 0x08, 0x44, 0x01, 0x00, 0x00, 0x00, 0x01}));
    EXPECT_EQ(Pass(QV_AGENT_MSG_DEBUG), withStream(2));
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, 1u);
}

TEST_F(WireTest, HighPrecisionKindStartsWithRecords) {
    EXPECT_TRUE(Pass(QV_AGENT_MSG_HIGH_PRECISION).empty()) << "nothing queued, nothing sent";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_HIGH_PRECISION].uiSeqNo, 0u);
    Queue(QV_AGENT_MSG_HIGH_PRECISION, 30, 0x33);
    const Bytes d = Pass(QV_AGENT_MSG_HIGH_PRECISION);
    ASSERT_EQ(d.size(), 50u);
    EXPECT_EQ(Bytes(d.begin(), d.begin() + 12), (Bytes{0x00, 0x32, 0x04, 0x01, 0, 0, 0, 1, 0x02, 0x00, 0x08, 0x00}));
    EXPECT_EQ(Bytes(d.begin() + 20, d.end()), Bytes(30, 0x33));
}

TEST_F(WireTest, SequenceNumberWrapsToOne) {
    Pass(QV_AGENT_MSG_ALARM);
    Acknowledge(QV_AGENT_MSG_ALARM);
    module_->astSendList[QV_AGENT_MSG_ALARM].uiSeqNo = 0xFFFFFFFE;
    Queue(QV_AGENT_MSG_ALARM, 40, 1);
    EXPECT_EQ(SeqOf(Pass(QV_AGENT_MSG_ALARM)), 0xFFFFFFFFu);
    Acknowledge(QV_AGENT_MSG_ALARM);
    Queue(QV_AGENT_MSG_ALARM, 40, 2);
    const Bytes d = Pass(QV_AGENT_MSG_ALARM);
    EXPECT_EQ(SeqOf(d), 1u);
    EXPECT_EQ(d[2], 0x04) << "no second stream start";
}

TEST_F(WireTest, RecordsAreNeverSplitAcrossDatagrams) {
    Pass(QV_AGENT_MSG_ALARM);
    Acknowledge(QV_AGENT_MSG_ALARM);
    for (uint8_t fill : {0xA1, 0xA2, 0xA3}) Queue(QV_AGENT_MSG_ALARM, 3000, fill);
    const Bytes first = Pass(QV_AGENT_MSG_ALARM);
    ASSERT_EQ(first.size(), 8u + 6000u);
    EXPECT_EQ(LenOf(first), 6008u);
    EXPECT_EQ(first[8], 0xA1);
    EXPECT_EQ(first[8 + 3000], 0xA2);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiCount, 1u);
    Acknowledge(QV_AGENT_MSG_ALARM);
    const Bytes second = Pass(QV_AGENT_MSG_ALARM);
    ASSERT_EQ(second.size(), 3008u);
    EXPECT_EQ(second[8], 0xA3);
    EXPECT_EQ(SeqOf(second), SeqOf(first) + 1);
}

TEST_F(WireTest, DatagramStaysWithin8096Bytes) {
    Pass(QV_AGENT_MSG_LOG);
    Acknowledge(QV_AGENT_MSG_LOG);
    Queue(QV_AGENT_MSG_LOG, 8000, 1);
    Queue(QV_AGENT_MSG_LOG, 76, 2);   // 20 + 8000 + 76 = 8096 exactly
    Queue(QV_AGENT_MSG_LOG, 1, 3);
    EXPECT_EQ(Pass(QV_AGENT_MSG_LOG).size(), 8096u);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, 1u);
}

TEST_F(WireTest, PerPassCapStopsPackingAndAnEmptyPackingConsumesASequenceNumber) {
    for (uint32_t k : {QV_AGENT_MSG_LOG, QV_AGENT_MSG_DEBUG}) {
        SCOPED_TRACE(k);
        Pass(k);
        Acknowledge(k);
        for (int i = 0; i < 250; ++i) Queue(k, 10, static_cast<uint8_t>(i));
        const Bytes first = Pass(k);
        EXPECT_EQ(first.size(), 20u + 200u * 10u) << "at most 200 records per pass";
        Acknowledge(k);
        const uint32_t seq = SeqOf(first);
        EXPECT_TRUE(Pass(k).empty()) << "the cap of this pass is reached";
        EXPECT_EQ(module_->astSendList[k].uiSeqNo, seq + 1) << "the number was used all the same";
        ASSERT_EQ(QV_AGENT_ClearSendCountInfo(module_), QV_AGENT_OK);
        const Bytes next = Pass(k);
        EXPECT_EQ(SeqOf(next), seq + 2) << "the collector sees a gap";
        EXPECT_EQ(next.size(), 20u + 50u * 10u);
        Acknowledge(k);
        ASSERT_EQ(QV_AGENT_ClearSendCountInfo(module_), QV_AGENT_OK);
    }
}

TEST_F(WireTest, RepliesThatAreAcknowledgements) {
    auto from = [](uint16_t port) {
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        return a;
    };
    const Bytes ack8 = {0x00, 0x08, 0x80, 0x01, 0, 0, 0, 5};
    const Bytes ack12log = {0x00, 0x0C, 0x80, 0x01, 0, 0, 0, 5, 0x01, 0x00, 0, 0};
    const Bytes ack12debug = {0x00, 0x0C, 0x80, 0x01, 0, 0, 0, 5, 0x02, 0x00, 0, 0};
    const Bytes ack12other = {0x00, 0x0C, 0x80, 0x01, 0, 0, 0, 5, 0x03, 0x00, 0, 0};
    const struct {
        const char *name;
        Bytes reply;
        uint16_t port;
        uint32_t check;
        uint32_t kind;
    } cases[] = {
        {"7 bytes", Bytes(ack8.begin(), ack8.end() - 1), 6011, QV_AGENT_ERR_PARAM, QV_AGENT_MSG_ALARM},
        {"type 2", {0x00, 0x08, 0x80, 0x02, 0, 0, 0, 5}, 6011, QV_AGENT_ERR_PARAM, QV_AGENT_MSG_ALARM},
        {"no ack flag", {0x00, 0x08, 0x04, 0x01, 0, 0, 0, 5}, 6011, QV_AGENT_ERR_PARAM, QV_AGENT_MSG_ALARM},
        {"11 bytes from the log port", Bytes(ack12log.begin(), ack12log.end() - 1), 6010, QV_AGENT_ERR_PARAM,
         QV_AGENT_MSG_NONE},
        {"alarm", ack8, 6011, QV_AGENT_OK, QV_AGENT_MSG_ALARM},
        {"high precision", ack8, 6012, QV_AGENT_OK, QV_AGENT_MSG_HIGH_PRECISION},
        {"log", ack12log, 6010, QV_AGENT_OK, QV_AGENT_MSG_LOG},
        {"debug on the log port", ack12debug, 6010, QV_AGENT_OK, QV_AGENT_MSG_DEBUG},
        {"unknown stream type", ack12other, 6010, QV_AGENT_OK, QV_AGENT_MSG_NONE},
        {"KPI port", ack8, 6013, QV_AGENT_OK, QV_AGENT_MSG_NONE},
        {"foreign port", ack8, 7000, QV_AGENT_OK, QV_AGENT_MSG_NONE},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const sockaddr_in addr = from(c.port);
        const auto len = static_cast<uint32_t>(c.reply.size());
        EXPECT_EQ(QV_AGENT_CheckRecvMsg(c.reply.data(), len, &addr), c.check);
        EXPECT_EQ(QV_AGENT_GetRecvMsgType(c.reply.data(), len, &addr), c.kind);
    }
    EXPECT_EQ(QV_AGENT_ProcRecvMsg(ack12other.data(), 12, nullptr, module_), QV_AGENT_ERR_PARAM);
}

}  // namespace
