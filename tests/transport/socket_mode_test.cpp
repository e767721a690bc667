// Socket mode over loopback (each test program has a network namespace of its own): recovery starts
// the socket and the two threads, records reach a collector on its ports, and acknowledgements make
// the next datagram go out at once.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "module_fixture.h"
#include "test_support.h"
#include "transport/socket_mode.h"
#include "udp_collector.h"

namespace {

class SocketModeTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        module_->usLocalPort = 0;  // any free port
        module_->uiSelfIp = htonl(INADDR_LOOPBACK);
    }
};

// Records of every datagram received on port with stream type st (0: any), in arrival order.
std::vector<qvtest::DecodedRecord> RecordsOn(const std::vector<qvtest::Datagram> &got, uint16_t port, uint8_t st) {
    std::vector<qvtest::DecodedRecord> out;
    for (const qvtest::Datagram &d : got) {
        const size_t head = port == QV_WIRE_PORT_ALARM ? 8 : 20;
        if (d.port != port || d.bytes.size() <= head || (st != 0 && d.bytes[8] != st)) continue;
        for (size_t at = head; at + 4 <= d.bytes.size();) {
            const size_t len = d.bytes[at + 2] | (d.bytes[at + 3] << 8);
            if (len == 0 || at + len > d.bytes.size()) break;
            out.push_back(qvtest::DecodeRecord(qvtest::Bytes(d.bytes.begin() + static_cast<long>(at),
                                                             d.bytes.begin() + static_cast<long>(at + len))));
            at += len;
        }
    }
    return out;
}

TEST_F(SocketModeTest, RecoveryStartsTheTransportAndRecordsReachTheCollector) {
    qvtest::UdpCollector collector({QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM, QV_WIRE_PORT_HIGH_PRECISION});
    ASSERT_TRUE(collector.ok());
    for (uint32_t id : {1u, 2u, 3u}) ASSERT_EQ(QV_Agent_Send(Create(1, id), module_), QV_AGENT_OK);
    for (uint32_t id : {11u, 12u}) ASSERT_EQ(QV_Agent_Send(Create(5, id), module_), QV_AGENT_OK);
    ASSERT_EQ(QV_Agent_Send(Create(20, 21), module_), QV_AGENT_OK);
    const qvtest::Bytes debug = qvtest::ListRecords(module_, QV_AGENT_MSG_LOG)[0];
    ASSERT_EQ(QV_AGENT_AddSendBuf(debug.data(), static_cast<uint32_t>(debug.size()), QV_AGENT_MSG_DEBUG, module_),
              QV_AGENT_OK);

    ASSERT_EQ(module_->uiTransportState, QV_AGENT_STATE_NO_THREADS);
    ASSERT_EQ(QV_AGENT_CreateModuleRecovery(module_), QV_AGENT_OK);
    EXPECT_EQ(module_->uiTransportState, QV_AGENT_STATE_READY);
    EXPECT_GT(module_->iSockFd, 0);
    bool named = false;
    for (int i = 0; i < 200 && !named; ++i) {  // the threads name themselves as they start
        const std::set<std::string> names = qvtest::ThreadNames();
        named = names.count("QV_AGENT_RCV") == 1 && names.count("QV_AGENT_SEND") == 1;
        if (!named) ::usleep(5000);
    }
    EXPECT_TRUE(named) << "threads QV_AGENT_RCV and QV_AGENT_SEND";

    const bool all = collector.WaitFor([](const std::vector<qvtest::Datagram> &got) {
        return RecordsOn(got, QV_WIRE_PORT_LOG, 1).size() >= 3 && RecordsOn(got, QV_WIRE_PORT_ALARM, 0).size() >= 2 &&
               RecordsOn(got, QV_WIRE_PORT_HIGH_PRECISION, 0).size() >= 1 && RecordsOn(got, QV_WIRE_PORT_LOG, 2).size() >= 1;
    });
    ASSERT_TRUE(all) << "not every record arrived";
    const std::vector<qvtest::Datagram> got = collector.Received();
    std::vector<uint32_t> logIds;
    for (const auto &r : RecordsOn(got, QV_WIRE_PORT_LOG, 1)) logIds.push_back(r.msgId);
    EXPECT_EQ(logIds, (std::vector<uint32_t>{1, 2, 3})) << "in order, each once";
    EXPECT_EQ(RecordsOn(got, QV_WIRE_PORT_ALARM, 0)[1].msgId, 12u);
    EXPECT_EQ(RecordsOn(got, QV_WIRE_PORT_HIGH_PRECISION, 0)[0].msgId, 21u);
    // The first datagram of each kind but the high-precision one is a bare stream start.
    for (uint16_t port : {QV_WIRE_PORT_LOG, QV_WIRE_PORT_ALARM}) {
        const auto first = std::find_if(got.begin(), got.end(), [&](const qvtest::Datagram &d) { return d.port == port; });
        ASSERT_NE(first, got.end());
        EXPECT_EQ(first->bytes[2], 0x44);
    }
    EXPECT_EQ(QV_AGENT_DeleteThread(module_), QV_AGENT_OK);
    module_->ulRecvThread = module_->ulSendThread = 0;
}

TEST_F(SocketModeTest, RecoveryFromEachTransportState) {
    // A socket without address reuse on the port the module binds makes the agent's bind fail.
    const int blocker = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(blocker, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
    socklen_t len = sizeof addr;
    ::getsockname(blocker, reinterpret_cast<sockaddr *>(&addr), &len);
    const uint16_t busyPort = ntohs(addr.sin_port);
    struct Case {
        const char *name;
        uint32_t state;
        int sockFd;
        uint16_t port;
        uint32_t expectResult;
        uint32_t expectState;
    };
    const Case cases[] = {
        {"running transport is left alone", QV_AGENT_STATE_READY, 0, 0, QV_AGENT_OK, QV_AGENT_STATE_READY},
        {"socket cannot be bound", QV_AGENT_STATE_NO_SOCKET, -1, busyPort, QV_AGENT_ERR_RECOVERY,
         QV_AGENT_STATE_NO_SOCKET},
        {"threads missing and never a socket, bind fails", QV_AGENT_STATE_NO_THREADS, 0, busyPort,
         QV_AGENT_ERR_RECOVERY, QV_AGENT_STATE_NO_SOCKET},
        {"socket missing", QV_AGENT_STATE_NO_SOCKET, -1, 0, QV_AGENT_OK, QV_AGENT_STATE_READY},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        module_->uiTransportState = c.state;
        module_->iSockFd = c.sockFd;
        module_->usLocalPort = c.port;
        EXPECT_EQ(QV_AGENT_CreateModuleRecovery(module_), c.expectResult);
        EXPECT_EQ(module_->uiTransportState, c.expectState);
        EXPECT_EQ(module_->ulSendThread != 0, c.expectResult == QV_AGENT_OK && c.state != QV_AGENT_STATE_READY);
        if (c.expectResult != QV_AGENT_OK) {
            EXPECT_EQ(module_->iSockFd, -1);
        }
        if (module_->ulSendThread != 0) {
            EXPECT_EQ(QV_AGENT_RecoveryThread(module_), QV_AGENT_OK) << "both alive: nothing to re-create";
            QV_AGENT_DeleteThread(module_);
            module_->ulRecvThread = module_->ulSendThread = 0;
        }
        if (module_->iSockFd > 0) QV_AGENT_CloseSocket(module_);
    }
    // With a socket already there, recovery starts the threads on it.
    ASSERT_EQ(QV_AGENT_CreateSocket(module_), QV_AGENT_OK);
    const int fd = module_->iSockFd;
    module_->uiTransportState = QV_AGENT_STATE_NO_THREADS;
    EXPECT_EQ(QV_AGENT_CreateModuleRecovery(module_), QV_AGENT_OK);
    EXPECT_EQ(module_->iSockFd, fd);
    EXPECT_EQ(QV_AGENT_DeleteThread(module_), QV_AGENT_OK);
    module_->ulRecvThread = module_->ulSendThread = 0;
    ::close(blocker);
}

TEST_F(SocketModeTest, CollectorAddressOfEachKind) {
    const struct {
        uint32_t k;
        uint16_t port;
    } cases[] = {{0, 6010}, {1, 6011}, {2, 6010}, {3, 6012}, {4, 0}};
    for (uint32_t mainBoard : {0u, htonl(0x0A000002)}) {
        module_->uiMainBoardIp = mainBoard;
        for (const auto &c : cases) {
            sockaddr_in a{};
            ASSERT_EQ(QV_AGENT_GetMainAddr(&a, c.k, module_), QV_AGENT_OK);
            EXPECT_EQ(a.sin_family, AF_INET);
            EXPECT_EQ(ntohs(a.sin_port), c.port) << "kind " << c.k;
            EXPECT_EQ(a.sin_addr.s_addr, mainBoard != 0 ? mainBoard : htonl(INADDR_LOOPBACK));
        }
    }
    EXPECT_EQ(QV_AGENT_GetMainAddr(nullptr, 0, module_), QV_AGENT_ERR_PARAM);
}

TEST_F(SocketModeTest, StoppingWithoutThreadsDoesNothing) {
    module_->ulRecvThread = module_->ulSendThread = 0;
    EXPECT_EQ(QV_AGENT_DeleteThread(module_), QV_AGENT_OK);
    module_->iSockFd = -1;
    EXPECT_EQ(QV_AGENT_CloseSocket(module_), QV_AGENT_OK);
    EXPECT_EQ(module_->iSockFd, -1);
}

}  // namespace
