// Tests of the stand-in's scheduler framework as the agent uses it: attributes, descriptor events and
// their masks, removal from inside a callback, registration refusals and the periodic timer.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>

#include <string>

#include "kev_test_support.h"

namespace {

using namespace kevtest;

uint32_t NoopTask(uint32_t *, void *) { return 0; }
uint32_t NoopTimer(uint64_t, uint64_t, void *) { return 0; }

using KevAttributes = KevTest;
using KevScheduler = KevTest;
using KevControl = KevTest;
using KevTimer = KevTest;

struct AttrKind {
    void *(*create)();
    uint32_t (*set)(void *, uint32_t, const void *, uint32_t);
    void (*destroy)(void *);
};
constexpr AttrKind kThread{KEV_ThreadCreateAttr, KEV_ThreadSetAttr, KEV_ThreadDestroyAttr};
constexpr AttrKind kTask{KEV_TaskCreateAttr, KEV_TaskSetAttr, KEV_TaskDestroyAttr};
constexpr AttrKind kTimer{KEV_TimerCreateAttr, KEV_TimerSetAttr, KEV_TimerDestroyAttr};

TEST_F(KevAttributes, SetAttrAcceptsKnownIdsAtTheirExactLengthOnly) {
    const uint32_t zero = 0, one = 1, two = 2;
    const uint64_t wide = 1;
    const KEV_TASK_FUNC_S task{NoopTask, nullptr}, taskWithoutFn{nullptr, nullptr};
    const std::string name(64, 'n');
    constexpr uint32_t kRefused = KEV_ERR_PARAM;
    const struct { const AttrKind *kind; uint32_t id; const void *value; uint32_t len, expected; } cases[] = {
        {&kThread, KEV_THREAD_ATTR_NAME, name.data(), 63, KEV_OK},
        {&kThread, KEV_THREAD_ATTR_NAME, name.data(), 64, kRefused},
        {&kThread, KEV_THREAD_ATTR_NAME, name.data(), 0, kRefused},
        {&kThread, KEV_THREAD_ATTR_NAME, "\0abc", 4, kRefused},
        {&kThread, KEV_THREAD_ATTR_PRIORITY, &one, 4, KEV_OK},
        {&kThread, KEV_THREAD_ATTR_OPTION, &wide, 8, kRefused},
        {&kThread, 101, &two, 4, kRefused},
        {&kTask, KEV_TASK_ATTR_FUNC, &task, sizeof task, KEV_OK},
        {&kTask, KEV_TASK_ATTR_FUNC, &task, 8, kRefused},
        {&kTask, KEV_TASK_ATTR_FUNC, &taskWithoutFn, sizeof task, kRefused},
        {&kTask, 5, &one, 4, kRefused},
        {&kTimer, KEV_TIMER_ATTR_PERIODIC, &zero, 4, KEV_OK},
        {&kTimer, KEV_TIMER_ATTR_PERIODIC, &two, 4, kRefused},
        {&kTimer, KEV_TIMER_ATTR_PERIOD_MS, &zero, 4, kRefused},
    };
    for (const auto &c : cases) {
        // Accepted or refused on its own kind; refused on no object and on an object of each other kind.
        for (const AttrKind *kind : {&kThread, &kTask, &kTimer}) {
            void *attr = kind->create();
            EXPECT_EQ(c.kind->set(attr, c.id, c.value, c.len), kind == c.kind ? c.expected : kRefused) << &c - cases;
            kind->destroy(attr);
        }
        EXPECT_EQ(c.kind->set(nullptr, c.id, c.value, c.len), kRefused) << "case " << &c - cases;
    }
}

// A UDP socket connected to a closed loopback port with a datagram sent: the refusal is pending on it.
int RefusedUdpSocket() {
    const int closed = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof addr;
    ::bind(closed, reinterpret_cast<sockaddr *>(&addr), sizeof addr);
    ::getsockname(closed, reinterpret_cast<sockaddr *>(&addr), &len);
    ::close(closed);
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    return ::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr) == 0 && ::send(fd, "x", 1, 0) == 1 ? fd : -1;
}

TEST_F(KevScheduler, DescriptorTaskRunsOnItsThreadWithItsMaskWhileTheConditionLasts) {
    enum class Action { kSend, kClosePeer, kNothing, kRefused };
    const struct { int type; uint32_t events; Action action; uint32_t expected; } cases[] = {
        {SOCK_DGRAM, KEV_EVENT_READ | KEV_EVENT_HUP, Action::kSend, KEV_EVENT_READ},
        {SOCK_STREAM, KEV_EVENT_READ | KEV_EVENT_HUP, Action::kClosePeer, KEV_EVENT_READ | KEV_EVENT_HUP},
        {SOCK_STREAM, KEV_EVENT_READ, Action::kClosePeer, KEV_EVENT_READ | KEV_EVENT_HUP},
        {SOCK_STREAM, KEV_EVENT_HUP, Action::kClosePeer, KEV_EVENT_HUP},
        {SOCK_DGRAM, KEV_EVENT_WRITE, Action::kNothing, KEV_EVENT_WRITE},
        {SOCK_DGRAM, KEV_EVENT_ALL, Action::kNothing, KEV_EVENT_WRITE},
        {SOCK_DGRAM, KEV_EVENT_READ | KEV_EVENT_HUP, Action::kRefused, KEV_EVENT_READ | KEV_EVENT_ERR},
        {SOCK_DGRAM, KEV_EVENT_HUP, Action::kRefused, KEV_EVENT_ERR},
    };
    Scheduler sched("KEV_EVENTS");
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        SocketPair pair(c.type);
        const int fd = c.action == Action::kRefused ? RefusedUdpSocket() : pair.fds[0];
        // Nothing is read, so the condition lasts; the third call removes the descriptor from inside.
        Probe probe{.actAt = 3, .act = [&] { return Unregister(sched.handle, fd); }};
        ASSERT_EQ(Register(sched.handle, fd, c.events, ProbeTask, &probe), KEV_OK);
        if (c.events == KEV_EVENT_HUP && c.action == Action::kClosePeer) {
            ASSERT_TRUE(pair.Send());  // data is not an event the task asked for
            std::this_thread::sleep_for(milliseconds(30));
            EXPECT_EQ(probe.calls.load(), 0u);
        }
        ASSERT_TRUE(c.action != Action::kSend || pair.Send());
        if (c.action == Action::kClosePeer) pair.CloseSide(1);
        ASSERT_TRUE(WaitFor([&] { return probe.calls.load() == 3; }));
        std::this_thread::sleep_for(milliseconds(30));
        EXPECT_EQ(probe.calls.load(), 3u);
        EXPECT_EQ(probe.acted.load(), KEV_OK);
        EXPECT_EQ(probe.firstMask.load(), c.expected);
        EXPECT_STREQ(probe.name, "KEV_EVENTS");
        if (fd != pair.fds[0]) ::close(fd);
    }
}

TEST_F(KevControl, RefusesBadRequestsWithTheirCodes) {
    Scheduler sched;
    const uint64_t thread = sched.handle, timer = MakeTimer(thread, 1000, 1, NoopTimer, nullptr);
    SocketPair pair;
    const int fd = pair.fds[0], closedFd = ::dup(fd);
    ::close(closedFd);
    const int fileFd = ::open("/opt/kev_file", O_CREAT | O_RDWR | O_CLOEXEC, 0600);  // cannot be watched
    void *task = KEV_TaskCreateAttr(), *emptyTask = KEV_TaskCreateAttr(), *timerAttr = KEV_TimerCreateAttr();
    const KEV_TASK_FUNC_S func{NoopTask, nullptr};
    ASSERT_EQ(KEV_TaskSetAttr(task, KEV_TASK_ATTR_FUNC, &func, sizeof func), KEV_OK);
    KEV_CTRL_S good{KEV_EVENT_READ | KEV_EVENT_HUP, task}, taskWithoutFn{KEV_EVENT_READ, emptyTask};
    KEV_CTRL_S foreignTask{KEV_EVENT_READ, timerAttr}, noEvents{0, task}, unknownBit{KEV_EVENT_READ | 0x2u, task};
    constexpr uint32_t kAdd = KEV_CTRL_ADD, kDel = KEV_CTRL_DEL;
    // In order: the last five add, add again and remove.
    const struct { uint64_t thread; uint32_t op; int32_t fd; KEV_CTRL_S *rec; uint32_t expected; } cases[] = {
        {thread + 1000, kAdd, fd, &good, KEV_ERR_NOT_FOUND}, {timer, kAdd, fd, &good, KEV_ERR_NOT_FOUND},
        {thread, 1, fd, &good, KEV_ERR_PARAM},              {thread, kAdd, -1, &good, KEV_ERR_PARAM},
        {thread, kAdd, fd, nullptr, KEV_ERR_PARAM},         {thread, kAdd, fd, &taskWithoutFn, KEV_ERR_PARAM},
        {thread, kAdd, fd, &foreignTask, KEV_ERR_PARAM},    {thread, kAdd, fd, &noEvents, KEV_ERR_PARAM},
        {thread, kAdd, fd, &unknownBit, KEV_ERR_PARAM},     {thread, kAdd, closedFd, &good, KEV_ERR_SYSTEM},
        {thread, kAdd, fileFd, &good, KEV_ERR_SYSTEM},      {thread, kDel, fd, nullptr, KEV_ERR_NOT_FOUND},
        {thread, kAdd, fd, &good, KEV_OK},                  {thread, kAdd, fd, &good, KEV_ERR_EXIST},
        {thread + 1000, kDel, fd, nullptr, KEV_ERR_NOT_FOUND}, {thread, kDel, fd, &good, KEV_OK},
        {thread, kDel, fd, nullptr, KEV_ERR_NOT_FOUND},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(KEV_ThreadCtrl(c.thread, c.op, c.fd, c.rec), c.expected) << "case " << &c - cases;
    }
    uint32_t events = 0, option = 0;  // a registration keeps its events and option, a removal drops them
    ASSERT_EQ(Register(thread, fd, KEV_EVENT_READ, NoopTask, nullptr, 7), KEV_OK);
    EXPECT_EQ(QVPLAT_TestKevDescriptorInfo(thread, fd, &events, &option), 0u);
    EXPECT_EQ(events, KEV_EVENT_READ);
    EXPECT_EQ(option, 7u);
    EXPECT_EQ(Unregister(thread, fd), KEV_OK);
    EXPECT_NE(QVPLAT_TestKevDescriptorInfo(thread, fd, &events, &option), 0u);
    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_OK);
    KEV_TaskDestroyAttr(task);
    KEV_TaskDestroyAttr(emptyTask);
    KEV_TimerDestroyAttr(timerAttr);
    ::close(fileFd);
}

TEST_F(KevTimer, PeriodicTimerRepeatsAtItsPeriodUntilItDestroysItselfFromItsCallback) {
    Scheduler sched;
    Probe probe{.actAt = 5, .act = [&] { return KEV_TimerDestroy(probe.timer.load()); }};
    const uint64_t timer = ProbeTimerOn(sched.handle, 20, 1, probe);
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
    ASSERT_TRUE(WaitFor([&] { return probe.calls.load() == 5; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(100));  // five periods at least
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(probe.calls.load(), 5u);
    EXPECT_EQ(probe.acted.load(), KEV_OK);
    EXPECT_EQ(probe.wrongHandle.load(), 0u);
    EXPECT_STREQ(probe.name, "KEV_TEST");
    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(KEV_TimerStart(timer), KEV_ERR_NOT_FOUND);
}

}  // namespace
