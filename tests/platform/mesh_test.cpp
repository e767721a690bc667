// Tests of the stand-in's mesh socket library over loopback: address records, datagrams both ways,
// flags, error numbers and their per-thread keeping, injected failures, and use from a scheduler
// thread as the agent does.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "kev_test_support.h"
#include "qvplatform/kev.h"
#include "qvplatform/mesh.h"
#include "qvplatform_testctl.h"

namespace {

using kevtest::WaitFor;

constexpr uint32_t kLoopback = 0x7F000001u;

MESH_ADDR_S Address(uint32_t hostIp, uint16_t hostPort) {
    MESH_ADDR_S addr{};
    addr.ucAddrType = MESH_ADDR_TYPE_IPV4;
    addr.usPort = htons(hostPort);
    addr.uiIpAddr = htonl(hostIp);
    return addr;
}

// A mesh socket closed when the scope ends.
class MeshFd {
public:
    MeshFd() : fd_(MESH_Socket(MESH_DOMAIN_DEFAULT, MESH_SOCK_DGRAM, MESH_PROTO_DGRAM)) {}
    ~MeshFd() {
        if (fd_ >= 0) static_cast<void>(MESH_Close(fd_));
    }
    MeshFd(const MeshFd &) = delete;
    MeshFd &operator=(const MeshFd &) = delete;
    int32_t fd() const { return fd_; }
    int32_t Release() {
        const int32_t fd = fd_;
        fd_ = -1;
        return fd;
    }
    // Binds to 127.0.0.1 on a free port and makes the socket non-blocking; the port, or 0.
    uint16_t BindLoopback() {
        const MESH_ADDR_S local = Address(kLoopback, 0);
        if (MESH_Bind(fd_, &local) != 0 || MESH_Fcntl(fd_, MESH_F_SETFL, MESH_O_NONBLOCK) != 0) return 0;
        sockaddr_in bound{};
        socklen_t len = sizeof bound;
        if (::getsockname(fd_, reinterpret_cast<sockaddr *>(&bound), &len) != 0) return 0;
        return ntohs(bound.sin_port);
    }

private:
    int32_t fd_;
};

// Every test closes what it opens and leaves no failure injected.
class Mesh : public testing::Test {
protected:
    void SetUp() override { open_ = QVPLAT_TestMeshOpenSockets(); }
    void TearDown() override {
        for (uint32_t call = 0; call < QVPLAT_MESH_CALL_COUNT; ++call) QVPLAT_TestMeshFailCall(call, 0, 0);
        EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), open_);
    }

private:
    uint32_t open_ = 0;
};

using MeshSocket = Mesh;
using MeshErrors = Mesh;

TEST_F(MeshSocket, IsACloseOnExecUdpSocketCountedWhileOpen) {
    const uint32_t before = QVPLAT_TestMeshOpenSockets();
    MeshFd sock;
    ASSERT_GE(sock.fd(), 0);
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), before + 1);
    int value = 0;
    socklen_t len = sizeof value;
    ASSERT_EQ(::getsockopt(sock.fd(), SOL_SOCKET, SO_DOMAIN, &value, &len), 0);
    EXPECT_EQ(value, AF_INET);
    ASSERT_EQ(::getsockopt(sock.fd(), SOL_SOCKET, SO_TYPE, &value, &len), 0);
    EXPECT_EQ(value, SOCK_DGRAM);
    ASSERT_EQ(::getsockopt(sock.fd(), SOL_SOCKET, SO_PROTOCOL, &value, &len), 0);
    EXPECT_EQ(value, IPPROTO_UDP);
    EXPECT_EQ(::fcntl(sock.fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(MESH_Fcntl(sock.fd(), MESH_F_GETFL, 0), 0);

    const int32_t fd = sock.Release();
    EXPECT_EQ(MESH_Close(fd), 0);
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), before);

    MeshFd a;
    MeshFd b;
    ASSERT_GE(b.fd(), 0);
    EXPECT_EQ(QVPLAT_TestMeshCloseAll(), before + 2);
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), 0u);
    EXPECT_EQ(::fcntl(a.fd(), F_GETFD), -1);
    static_cast<void>(a.Release());
    static_cast<void>(b.Release());
}

TEST_F(MeshSocket, BoundSocketsExchangeDatagramsAndTheSenderAddressRoundTrips) {
    MeshFd a;
    MeshFd b;
    const uint16_t portA = a.BindLoopback();
    const uint16_t portB = b.BindLoopback();
    ASSERT_NE(portA, 0);
    ASSERT_NE(portB, 0);
    ASSERT_NE(portA, portB);
    std::vector<unsigned char> payload(65507);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<unsigned char>(i * 7 + 3);
    std::vector<unsigned char> received(65536);
    for (const uint32_t size : {0u, 1u, 255u, 1400u, 65507u}) {
        SCOPED_TRACE(size);
        const MESH_ADDR_S toB = Address(kLoopback, portB);
        ASSERT_EQ(MESH_SendTo(a.fd(), payload.data(), size, &toB), static_cast<int32_t>(size));
        MESH_ADDR_S from;
        std::memset(&from, 0xEE, sizeof from);
        ASSERT_TRUE(WaitFor([&] {
            return MESH_RecvFrom(b.fd(), received.data(), static_cast<uint32_t>(received.size()), &from) ==
                   static_cast<int32_t>(size);
        }));
        EXPECT_EQ(std::memcmp(received.data(), payload.data(), size), 0);
        EXPECT_EQ(from.ucAddrType, MESH_ADDR_TYPE_IPV4);
        EXPECT_EQ(ntohs(from.usPort), portA);
        EXPECT_EQ(ntohl(from.uiIpAddr), kLoopback);
        const MESH_ADDR_S zeros{};
        EXPECT_EQ(std::memcmp(from.aucReserved1, zeros.aucReserved1, sizeof from.aucReserved1), 0);
        EXPECT_EQ(std::memcmp(from.aucReserved2, zeros.aucReserved2, sizeof from.aucReserved2), 0);

        // The record received is the address to answer.
        ASSERT_EQ(MESH_SendTo(b.fd(), "ack", 3, &from), 3);
        char ack[8] = {};
        MESH_ADDR_S replyFrom{};
        ASSERT_TRUE(WaitFor([&] { return MESH_RecvFrom(a.fd(), ack, sizeof ack, &replyFrom) == 3; }));
        EXPECT_EQ(std::string(ack, 3), "ack");
        EXPECT_EQ(ntohs(replyFrom.usPort), portB);
    }
    // A longer datagram is cut to the buffer and its rest dropped.
    const MESH_ADDR_S toB = Address(kLoopback, portB);
    ASSERT_EQ(MESH_SendTo(a.fd(), "0123456789", 10, &toB), 10);
    char cut[4] = {};
    ASSERT_TRUE(WaitFor([&] { return MESH_RecvFrom(b.fd(), cut, sizeof cut, nullptr) == 4; }));
    EXPECT_EQ(std::string(cut, 4), "0123");
    EXPECT_LT(MESH_RecvFrom(b.fd(), cut, sizeof cut, nullptr), 1);
    EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_BASE | EAGAIN);
}

TEST_F(MeshSocket, NonBlockingFlagMapsToTheDescriptor) {
    MeshFd sock;
    ASSERT_GE(sock.fd(), 0);
    const struct {
        int32_t cmd;
        int32_t flags;
        int32_t result;
        int32_t getAfter;
        uint32_t errorNo;  // when result is -1
    } steps[] = {
        {MESH_F_GETFL, 0, 0, 0, 0},
        {MESH_F_SETFL, MESH_O_NONBLOCK, 0, MESH_O_NONBLOCK, 0},
        {MESH_F_GETFL, 0x7F, MESH_O_NONBLOCK, MESH_O_NONBLOCK, 0},
        {MESH_F_SETFL, MESH_O_NONBLOCK | 0x2, -1, MESH_O_NONBLOCK, MESH_ERR_BASE | EINVAL},
        {2, 0, -1, MESH_O_NONBLOCK, MESH_ERR_BASE | EINVAL},
        {-1, 0, -1, MESH_O_NONBLOCK, MESH_ERR_BASE | EINVAL},
        {MESH_F_SETFL, 0, 0, 0, 0},
    };
    for (const auto &step : steps) {
        SCOPED_TRACE(testing::Message() << "cmd " << step.cmd << " flags " << step.flags);
        EXPECT_EQ(MESH_Fcntl(sock.fd(), step.cmd, step.flags), step.result);
        if (step.result < 0) {
            EXPECT_EQ(MESH_GetErrorNo(), step.errorNo);
        }
        EXPECT_EQ(MESH_Fcntl(sock.fd(), MESH_F_GETFL, 0), step.getAfter);
        EXPECT_EQ((::fcntl(sock.fd(), F_GETFL) & O_NONBLOCK) != 0, step.getAfter != 0);
    }
}

TEST_F(MeshErrors, EmptyNonBlockingReceiveIsNotARecreateError) {
    MeshFd sock;
    ASSERT_NE(sock.BindLoopback(), 0);
    char buf[16];
    MESH_ADDR_S from{};
    EXPECT_LT(MESH_RecvFrom(sock.fd(), buf, sizeof buf, &from), 1);
    EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_BASE | EAGAIN);
    EXPECT_NE(MESH_GetErrorNo(), MESH_ERR_RECREATE);
    EXPECT_EQ(from.usPort, 0);
}

TEST_F(MeshErrors, ClosedAndForeignDescriptorsMustBeRecreated) {
    MeshFd closed;
    const int32_t closedFd = closed.Release();
    ASSERT_EQ(MESH_Close(closedFd), 0);
    int pipeFds[2];
    ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
    const MESH_ADDR_S to = Address(kLoopback, 6010);
    const MESH_ADDR_S local = Address(kLoopback, 0);
    char buf[8] = {};
    for (const int32_t fd : {closedFd, pipeFds[0], -1, 100000}) {
        SCOPED_TRACE(fd);
        const struct {
            const char *call;
            int32_t result;
        } calls[] = {
            {"send", MESH_SendTo(fd, "x", 1, &to)},
            {"receive", MESH_RecvFrom(fd, buf, sizeof buf, nullptr)},
            {"bind", MESH_Bind(fd, &local)},
            {"get flags", MESH_Fcntl(fd, MESH_F_GETFL, 0)},
            {"close", MESH_Close(fd)},
        };
        for (const auto &c : calls) {
            EXPECT_EQ(c.result, -1) << c.call;
        }
        EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_RECREATE);
    }
    // Each failure leaves the recreate number; a foreign descriptor is not touched.
    EXPECT_EQ(MESH_SendTo(pipeFds[0], "x", 1, &to), -1);
    EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_RECREATE);
    EXPECT_NE(::fcntl(pipeFds[0], F_GETFD), -1);
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
}

TEST_F(MeshErrors, RefusedArgumentsAndKernelErrorsMapToTheirNumbers) {
    MeshFd sock;
    MeshFd other;
    const uint16_t otherPort = other.BindLoopback();
    ASSERT_NE(otherPort, 0);
    MESH_ADDR_S wrongType = Address(kLoopback, 6010);
    wrongType.ucAddrType = 1;
    const MESH_ADDR_S inUse = Address(kLoopback, otherPort);
    // Only loopback exists in the test's network namespace: no other address is local or reachable.
    const MESH_ADDR_S notLocal = Address(0x0AFFFF01u, 0);
    const MESH_ADDR_S unreachable = Address(0x0A010203u, 6010);
    const MESH_ADDR_S to = Address(kLoopback, 6010);
    const std::string big(65508, 'x');
    const int32_t fd = sock.fd();
    const struct {
        const char *what;
        std::function<int32_t()> call;
        uint32_t errorNo;
    } cases[] = {
        {"socket domain 1", [] { return MESH_Socket(1, MESH_SOCK_DGRAM, MESH_PROTO_DGRAM); }, MESH_ERR_BASE | EINVAL},
        {"socket type 1", [] { return MESH_Socket(MESH_DOMAIN_DEFAULT, 1, MESH_PROTO_DGRAM); }, MESH_ERR_BASE | EINVAL},
        {"socket protocol 17", [] { return MESH_Socket(MESH_DOMAIN_DEFAULT, MESH_SOCK_DGRAM, 17); },
         MESH_ERR_BASE | EINVAL},
        {"bind to a port in use", [&] { return MESH_Bind(fd, &inUse); }, MESH_ERR_BASE | EADDRINUSE},
        {"bind without address", [&] { return MESH_Bind(fd, nullptr); }, MESH_ERR_BASE | EINVAL},
        {"bind to an address not local", [&] { return MESH_Bind(fd, &notLocal); }, MESH_ERR_RECREATE},
        {"bind to address type 1", [&] { return MESH_Bind(fd, &wrongType); }, MESH_ERR_BASE | EINVAL},
        {"send to an unreachable network", [&] { return MESH_SendTo(fd, "x", 1, &unreachable); }, MESH_ERR_RECREATE},
        {"send without destination", [&] { return MESH_SendTo(fd, "x", 1, nullptr); }, MESH_ERR_BASE | EINVAL},
        {"send too big", [&] { return MESH_SendTo(fd, big.data(), 65508, &to); }, MESH_ERR_BASE | EMSGSIZE},
        {"send without buffer", [&] { return MESH_SendTo(fd, nullptr, 1, &to); }, MESH_ERR_BASE | EINVAL},
        {"send over INT32_MAX", [&] { return MESH_SendTo(fd, "x", 0x80000000u, &to); }, MESH_ERR_BASE | EINVAL},
        {"send to address type 1", [&] { return MESH_SendTo(fd, "x", 1, &wrongType); }, MESH_ERR_BASE | EINVAL},
        {"receive without buffer", [&] { return MESH_RecvFrom(fd, nullptr, 4, nullptr); }, MESH_ERR_BASE | EINVAL},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.call(), -1) << c.what;
        EXPECT_EQ(MESH_GetErrorNo(), c.errorNo) << c.what;
    }
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), 2u);
    // A successful call leaves the number as it was.
    ASSERT_EQ(MESH_SendTo(fd, "x", 1, &to), 1);
    EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_BASE | EINVAL);
}

TEST_F(MeshErrors, InjectedFailuresHitTheNextCallsOnly) {
    MeshFd a;
    MeshFd b;
    ASSERT_NE(a.BindLoopback(), 0);
    const uint16_t portB = b.BindLoopback();
    const MESH_ADDR_S toB = Address(kLoopback, portB);
    char buf[8] = {};

    QVPLAT_TestMeshFailSend(2, MESH_ERR_RECREATE);
    ASSERT_EQ(MESH_SendTo(a.fd(), "1", 1, &toB), -1);
    EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_RECREATE);
    QVPLAT_TestMeshFailSend(2, 0x60450069u);
    ASSERT_EQ(MESH_SendTo(a.fd(), "2", 1, &toB), -1);
    EXPECT_EQ(MESH_GetErrorNo(), 0x60450069u);
    ASSERT_EQ(MESH_SendTo(a.fd(), "3", 1, &toB), -1);
    ASSERT_EQ(MESH_SendTo(a.fd(), "4", 1, &toB), 1);
    // Only the datagram sent after the failures arrives.
    ASSERT_TRUE(WaitFor([&] { return MESH_RecvFrom(b.fd(), buf, sizeof buf, nullptr) == 1; }));
    EXPECT_EQ(buf[0], '4');
    EXPECT_LT(MESH_RecvFrom(b.fd(), buf, sizeof buf, nullptr), 1);

    const MESH_ADDR_S local = Address(kLoopback, 0);
    const uint32_t open = QVPLAT_TestMeshOpenSockets();
    const struct {
        uint32_t call;
        int32_t (*run)(int32_t fd, const MESH_ADDR_S *local);
    } calls[] = {
        {QVPLAT_MESH_CALL_SOCKET, [](int32_t, const MESH_ADDR_S *) { return MESH_Socket(0, 0, 4097); }},
        {QVPLAT_MESH_CALL_FCNTL, [](int32_t fd, const MESH_ADDR_S *) { return MESH_Fcntl(fd, MESH_F_GETFL, 0); }},
        {QVPLAT_MESH_CALL_BIND, [](int32_t fd, const MESH_ADDR_S *l) { return MESH_Bind(fd, l); }},
        {QVPLAT_MESH_CALL_RECVFROM,
         [](int32_t fd, const MESH_ADDR_S *) {
             char bytes[4];
             return MESH_RecvFrom(fd, bytes, sizeof bytes, nullptr);
         }},
    };
    for (const auto &c : calls) {
        SCOPED_TRACE(c.call);
        MeshFd fresh;
        ASSERT_GE(fresh.fd(), 0);
        ASSERT_EQ(::fcntl(fresh.fd(), F_SETFL, O_NONBLOCK), 0);
        QVPLAT_TestMeshFailCall(c.call, 1, 0x60450000u + c.call);
        EXPECT_EQ(c.run(fresh.fd(), &local), -1);
        EXPECT_EQ(MESH_GetErrorNo(), 0x60450000u + c.call);
        QVPLAT_TestMeshFailCall(c.call, 3, 1);
        QVPLAT_TestMeshFailCall(c.call, 0, 1);
        // Cancelled: the call runs (a receive on the empty non-blocking socket finds nothing).
        const int32_t result = c.run(fresh.fd(), &local);
        if (c.call == QVPLAT_MESH_CALL_RECVFROM) {
            EXPECT_EQ(result, -1);
            EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_BASE | EAGAIN);
        } else {
            EXPECT_GE(result, 0);
        }
    }
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), open + 1);  // the one socket made after its failure
    EXPECT_EQ(QVPLAT_TestMeshCloseAll(), open + 1);
    QVPLAT_TestMeshFailCall(QVPLAT_MESH_CALL_COUNT, 5, 1);
    static_cast<void>(a.Release());
    static_cast<void>(b.Release());
}

TEST_F(MeshErrors, ErrorNumbersAreKeptPerThread) {
    MeshFd sock;
    ASSERT_NE(sock.BindLoopback(), 0);
    constexpr int kThreads = 4;
    std::atomic<int> ready{0};
    std::atomic<uint32_t> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            if (MESH_GetErrorNo() != 0) wrong.fetch_add(1);
            char buf[4];
            const uint32_t expected = (t % 2 == 0) ? (MESH_ERR_BASE | EAGAIN) : MESH_ERR_RECREATE;
            for (int i = 0; i < 200; ++i) {
                if (t % 2 == 0) {
                    static_cast<void>(MESH_RecvFrom(sock.fd(), buf, sizeof buf, nullptr));
                } else {
                    static_cast<void>(MESH_Fcntl(-5, MESH_F_GETFL, 0));
                }
                if (i == 0) {
                    // Every thread has failed once before any reads its number back.
                    ready.fetch_add(1);
                    static_cast<void>(WaitFor([&] { return ready.load() == kThreads; }));
                }
                if (MESH_GetErrorNo() != expected) wrong.fetch_add(1);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(wrong.load(), 0u);
}

// The agent's use: a bound, non-blocking socket registered for readable and hang-up on a scheduler
// thread, read from the task.
struct Receiver {
    int32_t fd = -1;
    std::atomic<uint32_t> mask{0};
    std::atomic<int32_t> length{0};
    std::atomic<uint16_t> fromPort{0};
    std::atomic<uint32_t> calls{0};
};

uint32_t ReceiveOne(uint32_t *events, void *arg) {
    auto *receiver = static_cast<Receiver *>(arg);
    receiver->mask.store(*events);
    if ((*events & KEV_EVENT_READ) != 0) {
        char buf[255];
        MESH_ADDR_S from{};
        receiver->length.store(MESH_RecvFrom(receiver->fd, buf, sizeof buf, &from));
        receiver->fromPort.store(ntohs(from.usPort));
    }
    receiver->calls.fetch_add(1);
    return 0;
}

TEST_F(MeshSocket, ScheduledSocketTaskReceivesEveryDatagram) {
    ASSERT_EQ(QVPLAT_TestKevLiveThreads(), 0u);
    kevtest::Scheduler sched("QV_AGENT_SEND");
    MeshFd collector;
    MeshFd sock;
    const uint16_t collectorPort = collector.BindLoopback();
    const uint16_t sockPort = sock.BindLoopback();
    ASSERT_NE(collectorPort, 0);
    ASSERT_NE(sockPort, 0);
    Receiver receiver;
    receiver.fd = sock.fd();
    ASSERT_EQ(kevtest::Register(sched.handle(), sock.fd(), KEV_EVENT_READ | KEV_EVENT_HUP, ReceiveOne, &receiver),
              KEV_OK);
    const MESH_ADDR_S toSock = Address(kLoopback, sockPort);
    for (uint32_t i = 1; i <= 5; ++i) {
        ASSERT_EQ(MESH_SendTo(collector.fd(), "a", 1, &toSock), 1);
        ASSERT_TRUE(WaitFor([&] { return receiver.calls.load() == i; }));
        EXPECT_EQ(receiver.mask.load(), KEV_EVENT_READ);
        EXPECT_EQ(receiver.length.load(), 1);
        EXPECT_EQ(receiver.fromPort.load(), collectorPort);
    }
    EXPECT_EQ(kevtest::Unregister(sched.handle(), sock.fd()), KEV_OK);
}

}  // namespace
