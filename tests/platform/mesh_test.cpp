// Tests of the stand-in's mesh socket library over loopback: address records, datagrams both ways and
// the error numbers the agent acts on.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "kev_test_support.h"
#include "qvplatform/mesh.h"

namespace {

using kevtest::WaitFor;

constexpr uint32_t kAgain = MESH_ERR_BASE | EAGAIN, kInvalid = MESH_ERR_BASE | EINVAL;

MESH_ADDR_S Loopback(uint16_t hostPort) {
    MESH_ADDR_S addr{};
    addr.ucAddrType = MESH_ADDR_TYPE_IPV4;
    addr.usPort = htons(hostPort);
    addr.uiIpAddr = htonl(INADDR_LOOPBACK);
    return addr;
}

// A mesh socket, closed when the scope ends (unless fd was set to -1).
struct MeshFd {
    MeshFd() : fd(MESH_Socket(MESH_DOMAIN_DEFAULT, MESH_SOCK_DGRAM, MESH_PROTO_DGRAM)) {}
    ~MeshFd() {
        if (fd >= 0) MESH_Close(fd);
    }
    MeshFd(const MeshFd &) = delete;
    // Binds to 127.0.0.1 on a free port and makes the socket non-blocking; the port, or 0.
    uint16_t BindLoopback() const {
        const MESH_ADDR_S local = Loopback(0);
        sockaddr_in bound{};
        socklen_t len = sizeof bound;
        const bool ok = MESH_Bind(fd, &local) == 0 && MESH_Fcntl(fd, MESH_F_SETFL, MESH_O_NONBLOCK) == 0 &&
                        ::getsockname(fd, reinterpret_cast<sockaddr *>(&bound), &len) == 0;
        return ok ? ntohs(bound.sin_port) : 0;
    }
    int32_t fd;
};

// Every test closes what it opens and leaves no failure injected.
struct Mesh : testing::Test {
    void SetUp() override { open_ = QVPLAT_TestMeshOpenSockets(); }
    void TearDown() override {
        for (uint32_t call = 0; call < QVPLAT_MESH_CALL_COUNT; ++call) QVPLAT_TestMeshFailCall(call, 0, 0);
        EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), open_);
    }
    uint32_t open_ = 0;
};

using MeshSocket = Mesh;
using MeshErrors = Mesh;

TEST_F(MeshSocket, DatagramsOfEverySizeArriveWithAnExactSenderRecord) {
    MeshFd a, b;
    const uint16_t portA = a.BindLoopback(), portB = b.BindLoopback();
    ASSERT_TRUE(portA != 0 && portB != 0);
    const MESH_ADDR_S toB = Loopback(portB), expectedFrom = Loopback(portA);
    std::vector<unsigned char> payload(65507), received(65536);
    for (size_t i = 0; i < payload.size(); ++i) payload[i] = static_cast<unsigned char>(i * 7 + 3);
    for (const uint32_t size : {0u, 1u, 1400u, 65507u}) {
        SCOPED_TRACE(size);
        ASSERT_EQ(MESH_SendTo(a.fd, payload.data(), size, &toB), static_cast<int32_t>(size));
        MESH_ADDR_S from;
        std::memset(&from, 0xEE, sizeof from);
        ASSERT_TRUE(WaitFor([&] { return MESH_RecvFrom(b.fd, received.data(), 65536, &from) == int32_t(size); }));
        EXPECT_EQ(std::memcmp(received.data(), payload.data(), size), 0);
        EXPECT_EQ(std::memcmp(&from, &expectedFrom, sizeof from), 0);  // type, port, address; reserved zeroed
    }
    // A longer datagram is cut to the buffer and its rest dropped.
    ASSERT_EQ(MESH_SendTo(a.fd, "0123456789", 10, &toB), 10);
    char cut[4] = {};
    ASSERT_TRUE(WaitFor([&] { return MESH_RecvFrom(b.fd, cut, sizeof cut, nullptr) == 4; }));
    EXPECT_EQ(std::string(cut, 4), "0123");
    // Nothing waiting on a non-blocking socket: try again later, not recreate; the record is untouched.
    MESH_ADDR_S from{};
    EXPECT_EQ(MESH_RecvFrom(b.fd, cut, sizeof cut, &from), -1);
    EXPECT_EQ(MESH_GetErrorNo(), kAgain);
    EXPECT_EQ(from.usPort, 0);
}

TEST_F(MeshErrors, ClosedAndForeignDescriptorsMustBeRecreated) {
    MeshFd closed;
    ASSERT_EQ(MESH_Close(closed.fd), 0);
    int pipeFds[2];
    ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
    const MESH_ADDR_S to = Loopback(6010), local = Loopback(0);
    char buf[8] = {};
    const std::function<int32_t(int32_t)> calls[] = {
        [&](int32_t fd) { return MESH_SendTo(fd, "x", 1, &to); },
        [&](int32_t fd) { return MESH_RecvFrom(fd, buf, sizeof buf, nullptr); },
        [&](int32_t fd) { return MESH_Bind(fd, &local); },
        [&](int32_t fd) { return MESH_Fcntl(fd, MESH_F_GETFL, 0); },
        [&](int32_t fd) { return MESH_Close(fd); },
    };
    for (const int32_t fd : {closed.fd, pipeFds[0], -1, 100000}) {
        for (const auto &call : calls) {
            QVPLAT_TestMeshFailCall(QVPLAT_MESH_CALL_BIND, 1, 0);  // clears the number: the call must set it
            static_cast<void>(MESH_Bind(fd, &local));
            EXPECT_EQ(call(fd), -1) << "fd " << fd << " call " << &call - calls;
            EXPECT_EQ(MESH_GetErrorNo(), MESH_ERR_RECREATE) << "fd " << fd << " call " << &call - calls;
        }
    }
    EXPECT_NE(::fcntl(pipeFds[0], F_GETFD), -1);  // a foreign descriptor is not touched
    closed.fd = -1;
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
}

TEST_F(MeshErrors, RefusedArgumentsAndKernelErrorsMapToTheirNumbers) {
    MeshFd sock, other;
    MESH_ADDR_S wrongType = Loopback(6010), notLocal = Loopback(0), unreachable = Loopback(6010);
    wrongType.ucAddrType = 1;
    // Only loopback exists in the test's network namespace: no other address is local or reachable.
    notLocal.uiIpAddr = htonl(0x0AFFFF01u);
    unreachable.uiIpAddr = htonl(0x0A010203u);
    const MESH_ADDR_S inUse = Loopback(other.BindLoopback()), to = Loopback(6010);
    const std::string big(65508, 'x');
    const int32_t fd = sock.fd;
    const struct { const char *what; std::function<int32_t()> call; uint32_t errorNo; } cases[] = {
        {"socket domain 1", [] { return MESH_Socket(1, MESH_SOCK_DGRAM, MESH_PROTO_DGRAM); }, kInvalid},
        {"socket protocol 17", [] { return MESH_Socket(MESH_DOMAIN_DEFAULT, MESH_SOCK_DGRAM, 17); }, kInvalid},
        {"bind to a port in use", [&] { return MESH_Bind(fd, &inUse); }, MESH_ERR_BASE | EADDRINUSE},
        {"bind without address", [&] { return MESH_Bind(fd, nullptr); }, kInvalid},
        {"bind to an address not local", [&] { return MESH_Bind(fd, &notLocal); }, MESH_ERR_RECREATE},
        {"bind to address type 1", [&] { return MESH_Bind(fd, &wrongType); }, kInvalid},
        {"send to an unreachable network", [&] { return MESH_SendTo(fd, "x", 1, &unreachable); }, MESH_ERR_RECREATE},
        {"send without destination", [&] { return MESH_SendTo(fd, "x", 1, nullptr); }, kInvalid},
        {"send too big", [&] { return MESH_SendTo(fd, big.data(), 65508, &to); }, MESH_ERR_BASE | EMSGSIZE},
        {"send without buffer", [&] { return MESH_SendTo(fd, nullptr, 1, &to); }, kInvalid},
        {"send over INT32_MAX", [&] { return MESH_SendTo(fd, "x", 0x80000000u, &to); }, kInvalid},
        {"send to address type 1", [&] { return MESH_SendTo(fd, "x", 1, &wrongType); }, kInvalid},
        {"receive without buffer", [&] { return MESH_RecvFrom(fd, nullptr, 4, nullptr); }, kInvalid},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(c.call(), -1) << c.what;
        EXPECT_EQ(MESH_GetErrorNo(), c.errorNo) << c.what;
    }
    EXPECT_EQ(QVPLAT_TestMeshOpenSockets(), open_ + 2);
    ASSERT_EQ(MESH_SendTo(fd, "x", 0, &to), 0);  // success leaves the number as it was
    EXPECT_EQ(MESH_GetErrorNo(), kInvalid);
}

}  // namespace
