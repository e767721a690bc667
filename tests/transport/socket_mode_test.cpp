// Socket mode's recovery from each transport state (records over it are checked end to end against
// the real collector in tests/tools).
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include "module_fixture.h"
#include "transport/socket_mode.h"

namespace {

class SocketModeTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        module_->usLocalPort = 0;  // any free port
        module_->uiSelfIp = htonl(INADDR_LOOPBACK);
    }
};

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

}  // namespace
