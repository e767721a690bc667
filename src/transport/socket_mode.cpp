// Socket mode: one UDP socket and two threads of the agent's own. The send thread runs a send pass a
// second; the receive thread takes acknowledgements and sends the next datagram of their kind at once.
// The threads act on a cancellation only between the slices of their waits, never while they hold a
// lock or inside a system call.
#include "transport/socket_mode.h"

#include <arpa/inet.h>
#include <poll.h>
#include <pthread.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <type_traits>

#include "core/shared_field.h"
#include "kpi/kpi_internal.h"
#include "qvagent/qv_agent_kpi.h"
#include "qvagent/qv_agent_memory.h"
#include "qvagent/qv_agent_wire.h"
#include "locallog/file_exist.h"
#include "transport/send_window.h"
#include "transport/test_reports.h"

namespace {

static_assert(std::is_integral_v<pthread_t> && sizeof(pthread_t) <= sizeof(uint64_t),
              "thread identifiers are kept in u64 fields");

constexpr size_t kThreadStack = 0x20000;
constexpr uint32_t kBufferSize = QV_WIRE_SEND_BUFFER_LEN;
constexpr useconds_t kAfterReceive = 10000;   // 10 ms
// Waits are cut in slices, between which a cancellation is acted on: a send pass a second.
constexpr int kWaitSliceMs = 100;
constexpr int kSlicesPerPass = 10;
constexpr char kRecvThreadName[] = "QV_AGENT_RCV";
constexpr char kSendThreadName[] = "QV_AGENT_SEND";
constexpr uint32_t kLoopbackIp = INADDR_LOOPBACK;  // host order
constexpr uint32_t kNoSocket = 0xFFFFFFFFu;
// The order of the kinds in a send pass.
constexpr uint32_t kPassOrder[] = {QV_AGENT_MSG_LOG, QV_AGENT_MSG_DEBUG, QV_AGENT_MSG_ALARM, QV_AGENT_MSG_HIGH_PRECISION};

uint16_t PortOfKind(uint32_t k) {
    switch (k) {
        case QV_AGENT_MSG_LOG:
        case QV_AGENT_MSG_DEBUG: return QV_WIRE_PORT_LOG;  // told apart by the stream type
        case QV_AGENT_MSG_ALARM: return QV_WIRE_PORT_ALARM;
        case QV_AGENT_MSG_HIGH_PRECISION: return QV_WIRE_PORT_HIGH_PRECISION;
        default: return 0;
    }
}

pthread_t ThreadOf(uint64_t id) { return static_cast<pthread_t>(id); }

// The life of each of the two threads. A body marks its own end (by returning or by cancellation), so
// the recovery knows a dead thread without asking the C library about an identifier that may already
// be gone, and reaps it before starting another.
enum class Life { Running, Ended, Joined };
constexpr size_t kRoleCount = 2;
std::atomic<Life> g_life[kRoleCount] = {Life::Joined, Life::Joined};
std::atomic<qv::socketmode::EndHook> g_endHook{nullptr};

void MarkEnded(void *life) { static_cast<std::atomic<Life> *>(life)->store(Life::Ended, std::memory_order_release); }

bool BodyShouldEnd(qv::socketmode::Role role) {
    const qv::socketmode::EndHook hook = g_endHook.load(std::memory_order_acquire);
    return hook != nullptr && hook(role);
}

std::atomic<Life> &LifeOf(qv::socketmode::Role role) { return g_life[static_cast<size_t>(role)]; }

// Acts on a pending cancellation here, in the thread's own context: the waits themselves run with
// cancellation disabled, so a cancellation never unwinds out of a system call.
void CancellationPoint() {
    pthread_setcancelstate(PTHREAD_CANCEL_ENABLE, nullptr);
    pthread_testcancel();
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
}

// Waits up to one slice for a datagram on fd; true when one is there to read.
bool DatagramWaiting(int fd) {
    pollfd ready{fd, POLLIN, 0};
    return ::poll(&ready, 1, kWaitSliceMs) > 0;
}

void ReleaseBuffer(void *buffer) { QV_AGENT_Free(buffer, nullptr); }

// Thread attributes with the agent's stack size, or default ones when the size cannot be set.
class ThreadAttr {
public:
    ThreadAttr() : ok_(pthread_attr_init(&attr_) == 0) {
        if (ok_ && pthread_attr_setstacksize(&attr_, kThreadStack) != 0) {
            pthread_attr_destroy(&attr_);
            ok_ = pthread_attr_init(&attr_) == 0;
        }
    }
    ~ThreadAttr() {
        if (ok_) pthread_attr_destroy(&attr_);
    }
    ThreadAttr(const ThreadAttr &) = delete;
    ThreadAttr &operator=(const ThreadAttr &) = delete;
    bool ok() const { return ok_; }
    const pthread_attr_t *get() const { return &attr_; }

private:
    pthread_attr_t attr_;
    bool ok_;
};

using qv::socketmode::Role;

bool Start(const ThreadAttr &attr, Role role, QvAgentModule *module, uint64_t &id) {
    void *(*const body)(void *) = role == Role::Receive ? QV_AGENT_RecvThreadProc : QV_AGENT_SendThreadProc;
    LifeOf(role).store(Life::Running, std::memory_order_release);
    pthread_t thread;
    if (pthread_create(&thread, attr.get(), body, module) != 0) {
        LifeOf(role).store(Life::Joined, std::memory_order_release);
        return false;
    }
    id = static_cast<uint64_t>(thread);
    return true;
}

// Whether the thread of role has ended (or never started); an ended one is joined, so its resources
// come back before another takes its place.
bool ReapIfGone(Role role, uint64_t id) {
    if (id == 0) return true;
    const Life life = LifeOf(role).load(std::memory_order_acquire);
    if (life == Life::Running) return false;
    if (life == Life::Ended) pthread_join(ThreadOf(id), nullptr);
    LifeOf(role).store(Life::Joined, std::memory_order_release);
    return true;
}

// Cancels and joins the thread of role unless it was joined already; the join's result.
uint32_t StopThread(Role role, uint64_t id) {
    if (id == 0 || LifeOf(role).load(std::memory_order_acquire) == Life::Joined) return 0;
    pthread_cancel(ThreadOf(id));
    const int rc = pthread_join(ThreadOf(id), nullptr);
    LifeOf(role).store(Life::Joined, std::memory_order_release);
    return static_cast<uint32_t>(rc);
}

}  // namespace

uint32_t QV_AGENT_CreateSocket(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    module->iSockFd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (module->iSockFd < 0) {
        module->iSockFd = -1;
        return kNoSocket;
    }
    const int reuse = 1;
    ::setsockopt(module->iSockFd, SOL_SOCKET, SO_REUSEADDR, &reuse, sizeof reuse);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    local.sin_port = htons(module->usLocalPort);
    local.sin_addr.s_addr = qv::LoadShared(module->uiSelfIp);
    const int rc = ::bind(module->iSockFd, reinterpret_cast<const sockaddr *>(&local), sizeof local);
    if (rc != 0) {
        QV_AGENT_CloseSocket(module);
        return static_cast<uint32_t>(rc);
    }
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_CloseSocket(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    if (module->iSockFd != -1) {
        ::shutdown(module->iSockFd, SHUT_RDWR);
        ::close(module->iSockFd);
    }
    module->iSockFd = -1;
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_GetIpAddr(QvAgentModule *module) {
    const uint32_t ip = module != nullptr ? qv::LoadShared(module->uiMainBoardIp) : 0;
    return ip != 0 ? ip : htonl(kLoopbackIp);
}

uint32_t QV_AGENT_GetMainAddr(struct sockaddr_in *addr, uint32_t k, QvAgentModule *module) {
    if (addr == nullptr) return QV_AGENT_ERR_PARAM;
    std::memset(addr, 0, sizeof *addr);
    addr->sin_family = AF_INET;
    addr->sin_port = htons(PortOfKind(k));
    addr->sin_addr.s_addr = QV_AGENT_GetIpAddr(module);
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_SendMsg(uint32_t k, QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(kBufferSize, module));
    if (buffer == nullptr) return QV_AGENT_ERR_NO_MEMORY;
    sockaddr_in collector{};
    QV_AGENT_GetMainAddr(&collector, k, module);
    const int32_t len = QV_AGENT_GetSendMsg(k, buffer, kBufferSize, module);
    if (len >= 1) {
        // A datagram that cannot be sent stays kept and is offered again at its next resend point.
        ::sendto(module->iSockFd, buffer, static_cast<size_t>(len), MSG_DONTWAIT,
                 reinterpret_cast<const sockaddr *>(&collector), sizeof collector);
    }
    QV_AGENT_Free(buffer, module);
    return QV_AGENT_OK;
}

namespace {

// The receive thread's loop, with its buffer released however the thread ends.
void ReceiveLoop(QvAgentModule *module, uint8_t *buffer) {
    pthread_cleanup_push(ReleaseBuffer, buffer);
    while (!BodyShouldEnd(Role::Receive)) {
        CancellationPoint();
        if (!DatagramWaiting(module->iSockFd)) continue;
        sockaddr_in from{};
        socklen_t fromLen = sizeof from;
        const ssize_t n =
            ::recvfrom(module->iSockFd, buffer, kBufferSize, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &fromLen);
        if (n >= 1) QV_AGENT_ProcRecvMsg(buffer, static_cast<uint32_t>(n), &from, module);
        ::usleep(kAfterReceive);
    }
    pthread_cleanup_pop(1);
}

void SendLoop(QvAgentModule *module) {
    for (uint32_t pass = 0; !BodyShouldEnd(Role::Send); ++pass) {
        QV_AGENT_ClearSendCountInfo(module);
        for (uint32_t k : kPassOrder) QV_AGENT_SendMsg(k, module);
        QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module);
        qv::kpi::Simulate(pass, module);
        if (QV_AGENT_IsFileExist(qv::testreport::kMarkerFile) != 0) QV_AGENT_ReportTestLog(module);
        for (int slice = 0; slice < kSlicesPerPass; ++slice) {
            CancellationPoint();
            ::usleep(kWaitSliceMs * 1000);
        }
    }
}

}  // namespace

void *QV_AGENT_RecvThreadProc(void *arg) {
    auto *module = static_cast<QvAgentModule *>(arg);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    prctl(PR_SET_NAME, kRecvThreadName);
    pthread_cleanup_push(MarkEnded, &LifeOf(Role::Receive));
    auto *buffer = static_cast<uint8_t *>(QV_AGENT_Malloc(kBufferSize, module));
    if (buffer != nullptr) ReceiveLoop(module, buffer);
    pthread_cleanup_pop(1);
    return nullptr;
}

void *QV_AGENT_SendThreadProc(void *arg) {
    auto *module = static_cast<QvAgentModule *>(arg);
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, nullptr);
    prctl(PR_SET_NAME, kSendThreadName);
    pthread_cleanup_push(MarkEnded, &LifeOf(Role::Send));
    SendLoop(module);
    pthread_cleanup_pop(1);
    return nullptr;
}

uint32_t QV_AGENT_CreateThread(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    ThreadAttr attr;
    if (!attr.ok() || !Start(attr, Role::Receive, module, module->ulRecvThread)) {
        return QV_AGENT_ERR_THREAD;
    }
    if (!Start(attr, Role::Send, module, module->ulSendThread)) {
        StopThread(Role::Receive, module->ulRecvThread);
        return QV_AGENT_ERR_THREAD;
    }
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_RecoveryThread(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    ThreadAttr attr;
    if (!attr.ok()) return QV_AGENT_ERR_THREAD;
    if (ReapIfGone(Role::Receive, module->ulRecvThread) && !Start(attr, Role::Receive, module, module->ulRecvThread)) {
        return QV_AGENT_ERR_RECOVERY;
    }
    if (ReapIfGone(Role::Send, module->ulSendThread) && !Start(attr, Role::Send, module, module->ulSendThread)) {
        return QV_AGENT_ERR_RECOVERY;
    }
    return QV_AGENT_OK;
}

uint32_t QV_AGENT_DeleteThread(QvAgentModule *module) {
    if (module == nullptr) return QV_AGENT_ERR_PARAM;
    StopThread(Role::Receive, module->ulRecvThread);
    return StopThread(Role::Send, module->ulSendThread);
}

namespace qv::socketmode {

void SetEndHookForTest(EndHook hook) { g_endHook.store(hook, std::memory_order_release); }

}  // namespace qv::socketmode
