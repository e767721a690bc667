// Mesh mode: the timer tick's order of work, socket creation and re-creation, the rate limit after a
// lost socket and acknowledgements read on the scheduler thread (the whole default transport on its
// real timer is checked end to end in tests/tools).
#include <arpa/inet.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "module_fixture.h"
#include "test_support.h"
#include "qvplatform/kev.h"
#include "qvplatform/mesh.h"
#include "transport/board_discovery.h"
#include "transport/mesh_mode.h"
#include "transport/scheduler.h"
#include "udp_collector.h"

namespace {

const std::vector<uint16_t> kAllPorts = {QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_HIGH_PRECISION,
                                         QV_WIRE_PORT_KPI, QV_WIRE_PORT_DEBUG};

class MeshModeTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        // No device-management libraries: the collector is on the main board the service names.
        module_->uiSelfIp = module_->uiMainBoardIp = htonl(INADDR_LOOPBACK);
    }
    void Tick() { ASSERT_EQ(QV_AGENT_SendTimerProc(0, 0, module_), QV_AGENT_OK); }
    static size_t CountOn(const std::vector<qvtest::Datagram> &got, uint16_t port) {
        return static_cast<size_t>(std::count_if(got.begin(), got.end(), [&](const auto &d) { return d.port == port; }));
    }
};

TEST_F(MeshModeTest, FirstTickCreatesTheSocketsAndTheSecondSends) {
    qvtest::UdpCollector collector(kAllPorts, /*acknowledge=*/false);
    ASSERT_TRUE(collector.ok());
    const uint32_t socketsBefore = QVPLAT_TestMeshOpenSockets();
    Tick();
    EXPECT_EQ(module_->bServerInfoValid, 1u);
    EXPECT_EQ(module_->uiTick, 1u);
    for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
        EXPECT_EQ(module_->auiMeshState[k], QV_AGENT_STATE_READY) << k;
        EXPECT_NE(module_->aiMeshFd[k], -1) << k;
    }
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), socketsBefore + 5);
    EXPECT_EQ(module_->uiKpiTick, 0u) << "the KPI socket was not ready at this tick";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiSeqNo, 0u) << "a re-creating tick sends nothing";

    ::unlink("/opt/zanthe/var/log/qvagent.log");
    qvtest::ServiceTypeEnv env("mesh");
    g_bQvagentDbgSwitch = 1;  // the trace tells the order of the sends
    Tick();
    g_bQvagentDbgSwitch = 0;
    EXPECT_EQ(module_->uiKpiTick, 1u);
    ASSERT_TRUE(collector.WaitFor([](const auto &got) { return got.size() >= 3; }));
    const auto got = collector.Received();
    EXPECT_EQ(CountOn(got, QV_WIRE_PORT_LOG), 1u);
    EXPECT_EQ(CountOn(got, QV_WIRE_PORT_DEBUG), 1u) << "debug has a port of its own in mesh mode";
    EXPECT_EQ(CountOn(got, QV_WIRE_PORT_ALARM), 1u);
    EXPECT_EQ(CountOn(got, QV_WIRE_PORT_HIGH_PRECISION), 0u) << "no stream start, nothing queued";
    const std::string trace = qvtest::ReadFile("/opt/zanthe/var/log/qvagent.log");
    std::string order;
    for (size_t at = trace.find("msgtype="); at != std::string::npos; at = trace.find("msgtype=", at + 1)) {
        order += trace[at + 8];
    }
    EXPECT_EQ(order, "021") << "kinds are sent in the order log, debug, alarm\n" << trace;
}

TEST_F(MeshModeTest, BrokenSocketIsRecreatedAndSendsNothingInThatTick) {
    qvtest::UdpCollector collector(kAllPorts, false);
    Tick();
    module_->auiMeshState[QV_AGENT_MSG_ALARM] = QV_AGENT_MESH_RECREATE;
    Tick();
    EXPECT_EQ(module_->auiMeshState[QV_AGENT_MSG_ALARM], QV_AGENT_STATE_READY);
    EXPECT_NE(module_->aiMeshFd[QV_AGENT_MSG_ALARM], -1);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiSeqNo, 0u) << "no alarm datagram in the re-creating tick";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiSeqNo, 1u) << "the other kinds send";
}

TEST_F(MeshModeTest, LocalAddressChangeRecreatesEverySocket) {
    Tick();
    std::vector<int32_t> before(module_->aiMeshFd, module_->aiMeshFd + QV_AGENT_MSG_KIND_COUNT);
    ASSERT_EQ(QV_Agent_SetLocalIP(module_, htonl(0x7F000002)), QV_AGENT_OK);  // 127.0.0.2
    for (uint32_t state : module_->auiMeshState) EXPECT_EQ(state, QV_AGENT_MESH_ADDR_CHANGED);
    Tick();
    for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) EXPECT_EQ(module_->auiMeshState[k], QV_AGENT_STATE_READY);
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), static_cast<uint32_t>(before.size())) << "the old sockets were closed";
}

TEST_F(MeshModeTest, LostSocketIsRecreatedAtARateLimit) {
    Tick();
    // Every send fails as if the socket were gone; count the ticks at which it is made anew.
    std::vector<uint32_t> recreatedAt;
    const uint8_t datagram[8] = {0, 8, 4, 1, 0, 0, 0, 9};
    MESH_ADDR_S dest{};
    QV_AGENT_GetDestIpAddr(&dest, QV_AGENT_MSG_ALARM, module_);
    for (uint32_t tick = 1; tick <= 800 && recreatedAt.size() < 22; ++tick) {
        module_->uiTick = tick;
        const uint32_t times = module_->auiRecreateTimes[QV_AGENT_MSG_ALARM];
        QVPLAT_TestMeshFailSend(1, MESH_ERR_RECREATE);
        EXPECT_EQ(QV_AGENT_MeshSendTo(QV_AGENT_MSG_ALARM, datagram, sizeof datagram, &dest, module_), QV_AGENT_OK);
        if (module_->auiRecreateTimes[QV_AGENT_MSG_ALARM] != times) recreatedAt.push_back(tick);
        QVPLAT_TestMeshFailSend(0, 0);
    }
    ASSERT_GE(recreatedAt.size(), 21u);
    EXPECT_EQ(recreatedAt[0], 6u);
    for (size_t i = 1; i < 20; ++i) EXPECT_EQ(recreatedAt[i] - recreatedAt[i - 1], 6u) << i;
    EXPECT_EQ(recreatedAt[20] - recreatedAt[19], 61u) << "from the 20th re-creation on, more than 60 ticks";
    EXPECT_EQ(module_->auiMeshState[QV_AGENT_MSG_ALARM], QV_AGENT_STATE_READY);

    QVPLAT_TestMeshFailSend(1, MESH_ERR_BASE | 113);
    EXPECT_EQ(QV_AGENT_MeshSendTo(QV_AGENT_MSG_ALARM, datagram, sizeof datagram, &dest, module_), MESH_ERR_BASE | 113)
        << "other errors are only reported";
}

TEST_F(MeshModeTest, AnyReplyAcknowledgesTheKeptDatagram) {
    qvtest::UdpCollector collector(kAllPorts, false);
    Tick();
    Tick();  // the alarm stream start is kept now
    ASSERT_NE(module_->astSendList[QV_AGENT_MSG_ALARM].pucResendMsg, nullptr);
    const int32_t fd = module_->aiMeshFd[QV_AGENT_MSG_ALARM];
    uint32_t events = KEV_EVENT_HUP;  // readable bit clear: nothing is read
    EXPECT_EQ(QV_AGENT_EpollAlarmEventProc(&events, module_), QV_AGENT_OK);
    EXPECT_NE(module_->astSendList[QV_AGENT_MSG_ALARM].pucResendMsg, nullptr);

    // One byte from anywhere to the alarm socket.
    MESH_ADDR_S self{};
    const int32_t peer = MESH_Socket(MESH_DOMAIN_DEFAULT, MESH_SOCK_DGRAM, MESH_PROTO_DGRAM);
    ASSERT_GE(peer, 0);
    sockaddr_in bound{};
    socklen_t len = sizeof bound;
    ASSERT_EQ(::getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &len), 0);
    self.usPort = bound.sin_port;
    self.uiIpAddr = htonl(INADDR_LOOPBACK);
    const uint8_t one = 0x5A;
    ASSERT_EQ(MESH_SendTo(peer, &one, 1, &self), 1);
    QV_AGENT_SendMeshMsgTimerProc(QV_AGENT_MSG_LOG, QV_WIRE_PORT_LOG, module_);  // give the datagram time
    events = KEV_EVENT_READ;
    EXPECT_EQ(QV_AGENT_RecieveUdpEventDeal(static_cast<uint32_t>(fd), events, QV_AGENT_MSG_ALARM, QV_WIRE_PORT_ALARM,
                                           module_),
              QV_AGENT_OK);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].pucResendMsg, nullptr) << "released whatever its number";
    MESH_Close(peer);
}

TEST_F(MeshModeTest, SelfAddressUnknownFailsUntilTheLibraryGivesIt) {
    qvtest::ReleaseModule();
    qvtest::DevmLibraries libs("full");
    ASSERT_TRUE(libs.ok());
    setenv("QV_FAKE_DEVM_BOARD_TYPE", "5", 1);  // the collector is on the main board
    setenv("QV_FAKE_DEVM_SELF_IP", "127.0.0.3", 1);
    setenv("QV_FAKE_DEVM_FAIL", "DEVM_GetSelfBoardIp", 1);  // unknown at creation
    QvAgentServiceDesc desc = qvtest::MakeDesc("evtsvc");
    module_ = qvtest::InitWithoutScheduler(desc);
    ASSERT_NE(module_, nullptr);
    ASSERT_EQ(module_->uiSelfIp, 0u);
    unsetenv("QV_FAKE_DEVM_FAIL");
    EXPECT_EQ(QV_AGENT_CreateMeshSendAlarm(module_), QV_AGENT_ERR_RECOVERY);
    EXPECT_EQ(module_->auiMeshState[QV_AGENT_MSG_ALARM], QV_AGENT_MESH_ADDR_CHANGED);
    EXPECT_EQ(module_->uiSelfIp, inet_addr("127.0.0.3")) << "refreshed for the next try";
    EXPECT_EQ(QV_AGENT_CreateMeshSendAlarm(module_), QV_AGENT_OK);
    sockaddr_in bound{};
    socklen_t len = sizeof bound;
    ASSERT_EQ(::getsockname(module_->aiMeshFd[QV_AGENT_MSG_ALARM], reinterpret_cast<sockaddr *>(&bound), &len), 0);
    EXPECT_EQ(bound.sin_addr.s_addr, inet_addr("127.0.0.3"));
}

}  // namespace
