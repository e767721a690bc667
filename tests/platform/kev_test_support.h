// Helpers of the scheduler framework's and the mesh library's tests: bounded waiting, a fixture, a
// scheduler thread stopped at the end of its scope, registration and timer creation in one call, a
// probe that records what callbacks saw, and a pair of local sockets.
#ifndef QV_KEV_TEST_SUPPORT_H
#define QV_KEV_TEST_SUPPORT_H

#include <gtest/gtest.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>

#include "qvplatform/kev.h"
#include "qvplatform_testctl.h"

namespace kevtest {

using std::chrono::milliseconds;
constexpr uint32_t kUnset = 0xFFFFFFFFu;  // a result not yet stored

// Polls pred every millisecond until it holds or timeout passes; its last answer.
template <typename Pred>
bool WaitFor(Pred pred, milliseconds timeout = milliseconds(5000)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= deadline) return pred();
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

// Fixture of the scheduler's tests: each leaves no scheduler thread, no timer and no injected failure.
struct KevTest : testing::Test {
    void SetUp() override { ASSERT_EQ(QVPLAT_TestKevLiveThreads() + QVPLAT_TestKevLiveTimers(), 0u); }
    void TearDown() override {
        QVPLAT_TestKevFailThreadCreate(0);
        QVPLAT_TestKevFailTimerCreate(0);
        EXPECT_EQ(QVPLAT_TestKevLiveThreads() + QVPLAT_TestKevLiveTimers(), 0u);
    }
};

// A named scheduler thread for one test, stopped and joined when the scope ends.
struct Scheduler {
    explicit Scheduler(const char *name = "KEV_TEST") {
        void *attr = KEV_ThreadCreateAttr();
        static_cast<void>(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_NAME, name, static_cast<uint32_t>(strlen(name))));
        handle = KEV_ThreadCreate(attr);
        KEV_ThreadDestroyAttr(attr);
    }
    ~Scheduler() { static_cast<void>(QVPLAT_TestKevStopThread(handle)); }
    uint64_t handle = 0;
};

// Registers fd on thread with the task {fn, arg} as the agent does; KEV_ThreadCtrl's result.
inline uint32_t Register(uint64_t thread, int fd, uint32_t events, KEV_TASK_FUNC fn, void *arg, uint32_t option = 1) {
    void *task = KEV_TaskCreateAttr();
    const KEV_TASK_FUNC_S func{fn, arg};
    KEV_CTRL_S ctrl{events, task};
    uint32_t rc = KEV_TaskSetAttr(task, KEV_TASK_ATTR_FUNC, &func, sizeof func);
    rc = rc != KEV_OK ? rc : KEV_TaskSetAttr(task, KEV_TASK_ATTR_OPTION, &option, sizeof option);
    rc = rc != KEV_OK ? rc : KEV_ThreadCtrl(thread, KEV_CTRL_ADD, fd, &ctrl);
    KEV_TaskDestroyAttr(task);
    return rc;
}

inline uint32_t Unregister(uint64_t thread, int fd) { return KEV_ThreadCtrl(thread, KEV_CTRL_DEL, fd, nullptr); }

// A timer on thread, not started; 0 on failure.
inline uint64_t MakeTimer(uint64_t thread, uint32_t periodMs, uint32_t periodic, KEV_TIMER_FUNC fn, void *arg) {
    void *attr = KEV_TimerCreateAttr();
    const KEV_TIMER_FUNC_S func{fn, arg};
    const bool set = KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_FUNC, &func, sizeof func) == KEV_OK &&
                     KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_PERIODIC, &periodic, sizeof periodic) == KEV_OK &&
                     KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_PERIOD_MS, &periodMs, sizeof periodMs) == KEV_OK;
    const uint64_t timer = set ? KEV_TimerCreate(thread, attr) : 0;
    KEV_TimerDestroyAttr(attr);
    return timer;
}

// Reads fd until nothing is left.
inline void Drain(int fd) {
    char bytes[64];
    while (::recv(fd, bytes, sizeof bytes, 0) > 0) {
    }
}

// What a task or timer callback saw. Each call drains fd (when drain is set) and stays pauseUs inside;
// call number actAt runs act from inside and keeps its result. Once removed is set, every call that
// begins or ends counts as late: a removal that returned while a call was running is caught so.
struct Probe {
    int fd = -1;
    bool drain = false;
    uint32_t actAt = 1, pauseUs = 0;
    std::function<uint32_t()> act = nullptr;
    std::atomic<bool> removed{false};
    std::atomic<uint64_t> timer{0};  // the handle the callback must be given
    std::atomic<uint32_t> calls{0}, firstMask{0}, acted{kUnset}, wrongHandle{0}, lateCalls{0};
    char name[16] = {};  // the calling thread's name at the first call; read once calls != 0
};

inline uint32_t Called(Probe &probe) {
    probe.lateCalls.fetch_add(probe.removed.load() ? 1 : 0);
    if (probe.drain) Drain(probe.fd);
    const uint32_t call = probe.calls.load() + 1;
    if (call == 1) ::pthread_getname_np(::pthread_self(), probe.name, sizeof probe.name);
    if (call == probe.actAt && probe.act) probe.acted.store(probe.act());
    std::this_thread::sleep_for(std::chrono::microseconds(probe.pauseUs));
    probe.lateCalls.fetch_add(probe.removed.load() ? 1 : 0);
    probe.calls.store(call);  // the last access: once a waiter sees it, the probe may go
    return 0;
}

inline uint32_t ProbeTask(uint32_t *events, void *arg) {
    auto &probe = *static_cast<Probe *>(arg);
    if (probe.calls.load() == 0) probe.firstMask.store(*events);
    return Called(probe);
}

inline uint32_t ProbeTimer(uint64_t timer, uint64_t, void *arg) {
    auto &probe = *static_cast<Probe *>(arg);
    probe.wrongHandle.fetch_add(timer != probe.timer.load() ? 1 : 0);
    return Called(probe);
}

// A timer calling probe, not started.
inline uint64_t ProbeTimerOn(uint64_t thread, uint32_t periodMs, uint32_t periodic, Probe &probe) {
    probe.timer.store(MakeTimer(thread, periodMs, periodic, ProbeTimer, &probe));
    return probe.timer.load();
}

// A connected, non-blocking pair of local sockets, closed when the scope ends (a side closed is -1).
struct SocketPair {
    explicit SocketPair(int type = SOCK_DGRAM) {
        if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) != 0) fds[0] = fds[1] = -1;
    }
    ~SocketPair() {
        CloseSide(0);
        CloseSide(1);
    }
    void CloseSide(int side) {
        if (fds[side] >= 0) ::close(fds[side]);
        fds[side] = -1;
    }
    bool Send() const { return ::send(fds[1], "x", 1, MSG_NOSIGNAL) == 1; }
    int fds[2];
};

}  // namespace kevtest

#endif
