// Helpers of the scheduler framework's tests: bounded waiting, a scheduler thread that is stopped at
// the end of its scope, registration and timer creation in one call.
#ifndef QV_KEV_TEST_SUPPORT_H
#define QV_KEV_TEST_SUPPORT_H

#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>

#include "qvplatform/kev.h"
#include "qvplatform_testctl.h"

namespace kevtest {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Polls pred every millisecond until it holds or timeout passes; its last answer.
template <typename Pred>
bool WaitFor(Pred pred, milliseconds timeout = milliseconds(5000)) {
    const auto deadline = Clock::now() + timeout;
    while (!pred()) {
        if (Clock::now() >= deadline) {
            return pred();
        }
        std::this_thread::sleep_for(milliseconds(1));
    }
    return true;
}

// A scheduler thread for one test, stopped and joined when the scope ends.
class Scheduler {
public:
    explicit Scheduler(const char *name = "KEV_TEST") {
        void *attr = KEV_ThreadCreateAttr();
        if (attr != nullptr) {
            if (name != nullptr) {
                static_cast<void>(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_NAME, name,
                                                    static_cast<uint32_t>(std::strlen(name))));
            }
            handle_ = KEV_ThreadCreate(attr);
            KEV_ThreadDestroyAttr(attr);
        }
    }
    ~Scheduler() {
        if (handle_ != 0) static_cast<void>(QVPLAT_TestKevStopThread(handle_));
    }
    Scheduler(const Scheduler &) = delete;
    Scheduler &operator=(const Scheduler &) = delete;
    uint64_t handle() const { return handle_; }

private:
    uint64_t handle_ = 0;
};

// Registers fd on thread with a task {fn, arg} as the agent does; KEV_ThreadCtrl's result.
inline uint32_t Register(uint64_t thread, int fd, uint32_t events, KEV_TASK_FUNC fn, void *arg,
                         uint32_t option = 1) {
    void *task = KEV_TaskCreateAttr();
    if (task == nullptr) return 0xFFFFFFFFu;
    const KEV_TASK_FUNC_S func{fn, arg};
    uint32_t rc = KEV_TaskSetAttr(task, KEV_TASK_ATTR_FUNC, &func, sizeof func);
    if (rc == KEV_OK) rc = KEV_TaskSetAttr(task, KEV_TASK_ATTR_OPTION, &option, sizeof option);
    KEV_CTRL_S ctrl{events, task};
    if (rc == KEV_OK) rc = KEV_ThreadCtrl(thread, KEV_CTRL_ADD, fd, &ctrl);
    KEV_TaskDestroyAttr(task);
    return rc;
}

inline uint32_t Unregister(uint64_t thread, int fd) {
    return KEV_ThreadCtrl(thread, KEV_CTRL_DEL, fd, nullptr);
}

// A timer on thread, not started; 0 on failure.
inline uint64_t MakeTimer(uint64_t thread, uint32_t periodMs, uint32_t periodic, KEV_TIMER_FUNC fn, void *arg) {
    void *attr = KEV_TimerCreateAttr();
    if (attr == nullptr) return 0;
    const KEV_TIMER_FUNC_S func{fn, arg};
    uint64_t timer = 0;
    if (KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_FUNC, &func, sizeof func) == KEV_OK &&
        KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_PERIODIC, &periodic, sizeof periodic) == KEV_OK &&
        KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_PERIOD_MS, &periodMs, sizeof periodMs) == KEV_OK) {
        timer = KEV_TimerCreate(thread, attr);
    }
    KEV_TimerDestroyAttr(attr);
    return timer;
}

// A connected pair of local sockets, closed when the scope ends (a side already closed is -1).
struct SocketPair {
    explicit SocketPair(int type = SOCK_DGRAM) {
        if (::socketpair(AF_UNIX, type | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, fds) != 0) fds[0] = fds[1] = -1;
    }
    ~SocketPair() {
        CloseSide(0);
        CloseSide(1);
    }
    SocketPair(const SocketPair &) = delete;
    SocketPair &operator=(const SocketPair &) = delete;
    void CloseSide(int side) {
        if (fds[side] >= 0) ::close(fds[side]);
        fds[side] = -1;
    }
    bool Send(char byte = 'x') const { return ::send(fds[1], &byte, 1, MSG_NOSIGNAL) == 1; }
    int fds[2];
};

}  // namespace kevtest

#endif
