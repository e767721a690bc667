// The send window's schedule, driven pass by pass: a datagram is sent when built and on passes 5, 10
// and 20 of its life, released on pass 25; a datagram numbered 1 is offered until acknowledged; only
// an acknowledgement of the kept sequence number releases it.
#include <arpa/inet.h>

#include <string>
#include <vector>

#include "core/mutex_guard.h"
#include "module_fixture.h"
#include "transport/send_window.h"

namespace {

class SendWindowTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        module_->iSockFd = -1;  // the send after an acknowledgement goes nowhere
    }
    int32_t Pass(uint32_t k) {
        std::vector<uint8_t> buf(QV_WIRE_SEND_BUFFER_LEN);
        return QV_AGENT_GetSendMsg(k, buf.data(), static_cast<uint32_t>(buf.size()), module_);
    }
    // What the passes 1..n of kind k answered, as a string: 'S' sent, '.' waiting, '0' nothing.
    std::string Passes(uint32_t k, int n) {
        std::string out;
        for (int i = 0; i < n; ++i) {
            const int32_t r = Pass(k);
            out += r >= 1 ? 'S' : (r == -1 ? '.' : '0');
        }
        return out;
    }
    uint32_t Ack(uint32_t k, uint32_t seq) {
        const uint16_t port = k == QV_AGENT_MSG_ALARM ? 6011 : (k == QV_AGENT_MSG_HIGH_PRECISION ? 6012 : 6010);
        std::vector<uint8_t> ack = {0x00, 0x0C, 0x80, 0x01, static_cast<uint8_t>(seq >> 24),
                                    static_cast<uint8_t>(seq >> 16), static_cast<uint8_t>(seq >> 8),
                                    static_cast<uint8_t>(seq), static_cast<uint8_t>(k == QV_AGENT_MSG_DEBUG ? 2 : 1),
                                    0, 0, 0};
        sockaddr_in from{};
        from.sin_family = AF_INET;
        from.sin_port = htons(port);
        return QV_AGENT_ProcRecvMsg(ack.data(), static_cast<uint32_t>(ack.size()), &from, module_);
    }
    void Queue(uint32_t k) {
        const uint8_t record[16] = {};
        ASSERT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, k, module_), QV_AGENT_OK);
    }
};

TEST_F(SendWindowTest, UnansweredStreamStartIsOfferedOnEveryPass) {
    Queue(QV_AGENT_MSG_ALARM);
    EXPECT_EQ(Passes(QV_AGENT_MSG_ALARM, 40), std::string(40, 'S'));
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiSeqNo, 1u);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiCount, 1u) << "records wait behind it";
}

TEST_F(SendWindowTest, UnacknowledgedDatagramIsResentAtFiveTenTwentyAndDroppedAtTwentyFive) {
    Pass(QV_AGENT_MSG_ALARM);
    ASSERT_EQ(Ack(QV_AGENT_MSG_ALARM, 1), QV_AGENT_OK);
    Queue(QV_AGENT_MSG_ALARM);
    const std::string expect = "S...S....S.........S....";  // passes 1..24
    EXPECT_EQ(Passes(QV_AGENT_MSG_ALARM, 24), expect);
    EXPECT_NE(module_->astSendList[QV_AGENT_MSG_ALARM].pucResendMsg, nullptr);
    EXPECT_EQ(Passes(QV_AGENT_MSG_ALARM, 1), ".") << "pass 25 releases it unsent";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].pucResendMsg, nullptr);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiSeqNo, 2u);
    Queue(QV_AGENT_MSG_ALARM);
    EXPECT_EQ(Passes(QV_AGENT_MSG_ALARM, 1), "S") << "the next pass builds a new datagram";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiSeqNo, 3u);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiSendTimes, 1u);
}

TEST_F(SendWindowTest, OnlyTheKeptSequenceNumberIsAcknowledged) {
    Pass(QV_AGENT_MSG_HIGH_PRECISION);
    Queue(QV_AGENT_MSG_HIGH_PRECISION);
    ASSERT_EQ(Passes(QV_AGENT_MSG_HIGH_PRECISION, 1), "S");
    Pass(QV_AGENT_MSG_HIGH_PRECISION);  // seq 1 is offered every pass
    EXPECT_EQ(Ack(QV_AGENT_MSG_HIGH_PRECISION, 7), QV_AGENT_OK);
    EXPECT_NE(module_->astSendList[QV_AGENT_MSG_HIGH_PRECISION].pucResendMsg, nullptr) << "another number";
    EXPECT_EQ(Ack(QV_AGENT_MSG_HIGH_PRECISION, 1), QV_AGENT_OK);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_HIGH_PRECISION].pucResendMsg, nullptr);
    EXPECT_EQ(Passes(QV_AGENT_MSG_HIGH_PRECISION, 1), "0") << "idle: nothing queued";
}

TEST_F(SendWindowTest, AcknowledgementSendsTheNextDatagramAtOnce) {
    const int udp = ::socket(AF_INET, SOCK_DGRAM, 0);
    ASSERT_GE(udp, 0);
    module_->iSockFd = udp;
    Pass(QV_AGENT_MSG_LOG);
    Queue(QV_AGENT_MSG_LOG);
    ASSERT_EQ(Ack(QV_AGENT_MSG_LOG, 1), QV_AGENT_OK);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiSeqNo, 2u) << "built right after the acknowledgement";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, 0u);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiSendTimes, 1u);
    module_->iSockFd = -1;
    ::close(udp);
}

TEST_F(SendWindowTest, KeptCopyFailureStillSends) {
    Pass(QV_AGENT_MSG_ALARM);
    ASSERT_EQ(Ack(QV_AGENT_MSG_ALARM, 1), QV_AGENT_OK);
    Queue(QV_AGENT_MSG_ALARM);
    // The pass allocates nothing before the copy it keeps.
    QVPLAT_TestFailAllocation(1);
    EXPECT_GE(Pass(QV_AGENT_MSG_ALARM), 1);
    QVPLAT_TestFailAllocation(0);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].pucResendMsg, nullptr);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiCount, 0u);
    EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_);
}

}  // namespace
