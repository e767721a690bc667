// Mesh socket library over the kernel's UDP/IPv4 sockets: MESH_Socket, MESH_Fcntl, MESH_Bind,
// MESH_SendTo, MESH_RecvFrom, MESH_Close, the per-thread error number, and the test controls that
// inject failures and count open sockets.
//
// The library keeps the set of descriptors it opened, so a number it did not open (or has closed) is
// a bad descriptor here even when the process has reused it for something else: a mesh call never
// touches another part of the process's files.
#include <errno.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <unordered_set>
#include <vector>

#include "qvplatform/mesh.h"
#include "qvplatform_testctl.h"

namespace {

constexpr int32_t kFailed = -1;
constexpr uint32_t kMaxLen = 0x7FFFFFFFu;

// Error number of the calling thread's last failed call.
thread_local uint32_t t_errorNo = 0;

// Descriptors opened by MESH_Socket and not yet closed. On the heap and never destroyed, so that a
// socket closed from another static object's destructor still finds it.
struct OpenSet {
    std::mutex mutex;
    std::unordered_set<int> fds;
};

OpenSet &Open() {
    static OpenSet *set = new OpenSet;
    return *set;
}

// Failures injected per call: the next `left` calls fail with `errorNo`.
struct Injection {
    std::atomic<uint32_t> left;
    std::atomic<uint32_t> errorNo;
};
constinit Injection g_injected[QVPLAT_MESH_CALL_COUNT]{};

// The kernel errors after which the socket cannot be used again and must be made anew: the descriptor
// itself is bad, or the network the socket is bound to has gone.
bool MeansRecreate(int error) {
    switch (error) {
        case EBADF:
        case ENOTSOCK:
        case ENETDOWN:
        case ENETUNREACH:
        case EADDRNOTAVAIL:
            return true;
        default:
            return false;
    }
}

int32_t Fail(int error) {
    t_errorNo = MeansRecreate(error) ? MESH_ERR_RECREATE : (MESH_ERR_BASE | static_cast<uint32_t>(error));
    return kFailed;
}

// Counts one call against its injected failures; true (and the error number set) when it is to fail.
bool Injected(uint32_t call) {
    Injection &injection = g_injected[call];
    uint32_t left = injection.left.load();
    while (left != 0 && !injection.left.compare_exchange_weak(left, left - 1)) {
    }
    if (left == 0) {
        return false;
    }
    t_errorNo = injection.errorNo.load();
    return true;
}

bool IsOpen(int32_t fd) {
    OpenSet &open = Open();
    const std::lock_guard lock(open.mutex);
    return open.fds.count(fd) != 0;
}

bool ToSockaddr(const MESH_ADDR_S &addr, sockaddr_in *out) {
    if (addr.ucAddrType != MESH_ADDR_TYPE_IPV4) {
        return false;
    }
    *out = sockaddr_in{};
    out->sin_family = AF_INET;
    out->sin_port = addr.usPort;
    out->sin_addr.s_addr = addr.uiIpAddr;
    return true;
}

const sockaddr *AsSockaddr(const sockaddr_in *in) {
    return reinterpret_cast<const sockaddr *>(in);
}

}  // namespace

extern "C" int32_t MESH_Socket(int32_t domain, int32_t type, int32_t protocol) {
    if (Injected(QVPLAT_MESH_CALL_SOCKET)) {
        return kFailed;
    }
    if (domain != MESH_DOMAIN_DEFAULT || type != MESH_SOCK_DGRAM || protocol != MESH_PROTO_DGRAM) {
        return Fail(EINVAL);
    }
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, IPPROTO_UDP);
    if (fd < 0) {
        return Fail(errno);
    }
    OpenSet &open = Open();
    const std::lock_guard lock(open.mutex);
    open.fds.insert(fd);
    return fd;
}

extern "C" int32_t MESH_Fcntl(int32_t fd, int32_t cmd, int32_t flags) {
    if (Injected(QVPLAT_MESH_CALL_FCNTL)) {
        return kFailed;
    }
    if (cmd != MESH_F_GETFL && cmd != MESH_F_SETFL) {
        return Fail(EINVAL);
    }
    if (!IsOpen(fd)) {
        return Fail(EBADF);
    }
    const int current = ::fcntl(fd, F_GETFL);
    if (current < 0) {
        return Fail(errno);
    }
    if (cmd == MESH_F_GETFL) {
        return (current & O_NONBLOCK) != 0 ? MESH_O_NONBLOCK : 0;
    }
    if ((flags & ~MESH_O_NONBLOCK) != 0) {
        return Fail(EINVAL);
    }
    const int wanted = (flags & MESH_O_NONBLOCK) != 0 ? (current | O_NONBLOCK) : (current & ~O_NONBLOCK);
    return ::fcntl(fd, F_SETFL, wanted) == 0 ? 0 : Fail(errno);
}

extern "C" int32_t MESH_Bind(int32_t fd, const MESH_ADDR_S *addr) {
    if (Injected(QVPLAT_MESH_CALL_BIND)) {
        return kFailed;
    }
    sockaddr_in local{};
    if (addr == nullptr || !ToSockaddr(*addr, &local)) {
        return Fail(EINVAL);
    }
    if (!IsOpen(fd)) {
        return Fail(EBADF);
    }
    return ::bind(fd, AsSockaddr(&local), sizeof local) == 0 ? 0 : Fail(errno);
}

extern "C" int32_t MESH_SendTo(int32_t fd, const void *buf, uint32_t len, const MESH_ADDR_S *dest) {
    if (Injected(QVPLAT_MESH_CALL_SENDTO)) {
        return kFailed;
    }
    sockaddr_in to{};
    if (dest == nullptr || (buf == nullptr && len != 0) || len > kMaxLen || !ToSockaddr(*dest, &to)) {
        return Fail(EINVAL);
    }
    if (!IsOpen(fd)) {
        return Fail(EBADF);
    }
    const char empty = 0;
    const void *bytes = buf != nullptr ? buf : &empty;
    ssize_t sent = 0;
    do {
        sent = ::sendto(fd, bytes, len, MSG_NOSIGNAL, AsSockaddr(&to), sizeof to);
    } while (sent < 0 && errno == EINTR);
    return sent >= 0 ? static_cast<int32_t>(sent) : Fail(errno);
}

extern "C" int32_t MESH_RecvFrom(int32_t fd, void *buf, uint32_t len, MESH_ADDR_S *from) {
    if (Injected(QVPLAT_MESH_CALL_RECVFROM)) {
        return kFailed;
    }
    if ((buf == nullptr && len != 0) || len > kMaxLen) {
        return Fail(EINVAL);
    }
    if (!IsOpen(fd)) {
        return Fail(EBADF);
    }
    char spare = 0;
    void *bytes = buf != nullptr ? buf : &spare;
    sockaddr_in sender{};
    ssize_t got = 0;
    do {
        socklen_t senderLen = sizeof sender;
        got = ::recvfrom(fd, bytes, len, 0, reinterpret_cast<sockaddr *>(&sender), &senderLen);
    } while (got < 0 && errno == EINTR);
    if (got < 0) {
        return Fail(errno);
    }
    if (from != nullptr) {
        *from = MESH_ADDR_S{};
        from->ucAddrType = MESH_ADDR_TYPE_IPV4;
        from->usPort = sender.sin_port;
        from->uiIpAddr = sender.sin_addr.s_addr;
    }
    return static_cast<int32_t>(got);
}

extern "C" uint32_t MESH_GetErrorNo(void) {
    return t_errorNo;
}

extern "C" int32_t MESH_Close(int32_t fd) {
    {
        // Forgotten before it is closed, so a socket opened meanwhile under the same number stays known.
        OpenSet &open = Open();
        const std::lock_guard lock(open.mutex);
        if (open.fds.erase(fd) == 0) {
            return Fail(EBADF);
        }
    }
    // Linux releases the descriptor even when close reports an error; nothing is left to retry.
    static_cast<void>(::close(fd));
    return 0;
}

extern "C" void QVPLAT_TestMeshFailCall(uint32_t call, uint32_t count, uint32_t errorNo) {
    if (call >= QVPLAT_MESH_CALL_COUNT) {
        return;
    }
    g_injected[call].errorNo.store(errorNo);
    g_injected[call].left.store(count);
}

extern "C" void QVPLAT_TestMeshFailSend(uint32_t count, uint32_t errorNo) {
    QVPLAT_TestMeshFailCall(QVPLAT_MESH_CALL_SENDTO, count, errorNo);
}

extern "C" uint32_t QVPLAT_TestMeshOpenSockets(void) {
    OpenSet &open = Open();
    const std::lock_guard lock(open.mutex);
    return static_cast<uint32_t>(open.fds.size());
}

extern "C" uint32_t QVPLAT_TestMeshCloseAll(void) {
    std::vector<int> fds;
    {
        OpenSet &open = Open();
        const std::lock_guard lock(open.mutex);
        fds.assign(open.fds.begin(), open.fds.end());
        open.fds.clear();
    }
    for (const int fd : fds) {
        static_cast<void>(::close(fd));
    }
    return static_cast<uint32_t>(fds.size());
}
