// Tests of the stand-in's scheduler framework: attributes, descriptor events and their masks,
// registration from inside callbacks, timers, thread names, failure injection and stopping.
#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "kev_test_support.h"
#include "qvplatform/kev.h"
#include "qvplatform_testctl.h"

namespace {

using kevtest::Clock;
using kevtest::milliseconds;
using kevtest::Register;
using kevtest::SocketPair;
using kevtest::Unregister;
using kevtest::WaitFor;

uint32_t NoopTask(uint32_t *, void *) { return 0; }
uint32_t NoopTimer(uint64_t, uint64_t, void *) { return 0; }

std::string CurrentThreadName() {
    char name[32] = {};
    if (::pthread_getname_np(::pthread_self(), name, sizeof name) != 0) return "?";
    return name;
}

// Every test leaves no scheduler thread and no timer behind.
class Kev : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(QVPLAT_TestKevLiveThreads(), 0u);
        ASSERT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
    }
    void TearDown() override {
        QVPLAT_TestKevFailThreadCreate(0);
        QVPLAT_TestKevFailTimerCreate(0);
        EXPECT_EQ(QVPLAT_TestKevLiveThreads(), 0u);
        EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
    }
};

using KevAttributes = Kev;
using KevScheduler = Kev;
using KevTimer = Kev;
using KevControl = Kev;

enum class Kind { kThread, kTask, kTimer };

void *CreateAttr(Kind kind) {
    switch (kind) {
        case Kind::kThread: return KEV_ThreadCreateAttr();
        case Kind::kTask: return KEV_TaskCreateAttr();
        case Kind::kTimer: return KEV_TimerCreateAttr();
    }
    return nullptr;
}

uint32_t SetAttr(Kind kind, void *attr, uint32_t id, const void *value, uint32_t len) {
    switch (kind) {
        case Kind::kThread: return KEV_ThreadSetAttr(attr, id, value, len);
        case Kind::kTask: return KEV_TaskSetAttr(attr, id, value, len);
        case Kind::kTimer: return KEV_TimerSetAttr(attr, id, value, len);
    }
    return 0xFFFFFFFFu;
}

void DestroyAttr(Kind kind, void *attr) {
    switch (kind) {
        case Kind::kThread: KEV_ThreadDestroyAttr(attr); break;
        case Kind::kTask: KEV_TaskDestroyAttr(attr); break;
        case Kind::kTimer: KEV_TimerDestroyAttr(attr); break;
    }
}

TEST_F(KevAttributes, SetAttrAcceptsKnownIdsAtTheirExactLengthOnly) {
    const uint32_t zero = 0;
    const uint32_t one = 1;
    const uint32_t two = 2;
    const uint32_t thirtyTwo = 32;
    const uint64_t wide = 32;
    const KEV_TASK_FUNC_S task{NoopTask, nullptr};
    const KEV_TASK_FUNC_S taskWithoutFn{nullptr, nullptr};
    const KEV_TIMER_FUNC_S timer{NoopTimer, nullptr};
    const KEV_TIMER_FUNC_S timerWithoutFn{nullptr, nullptr};
    const std::string name63(63, 'n');
    const std::string name64(64, 'n');
    const struct {
        Kind kind;
        uint32_t id;
        const void *value;
        uint32_t len;
        uint32_t expected;
    } cases[] = {
        {Kind::kThread, KEV_THREAD_ATTR_NAME, "QV_AGENT_SEND", 13, KEV_OK},
        {Kind::kThread, KEV_THREAD_ATTR_NAME, name63.data(), 63, KEV_OK},
        {Kind::kThread, KEV_THREAD_ATTR_NAME, name64.data(), 64, KEV_ERR_PARAM},
        {Kind::kThread, KEV_THREAD_ATTR_NAME, "x", 0, KEV_ERR_PARAM},
        {Kind::kThread, KEV_THREAD_ATTR_NAME, "\0abc", 4, KEV_ERR_PARAM},
        {Kind::kThread, KEV_THREAD_ATTR_NAME, nullptr, 4, KEV_ERR_PARAM},
        {Kind::kThread, KEV_THREAD_ATTR_PRIORITY, &thirtyTwo, 4, KEV_OK},
        {Kind::kThread, KEV_THREAD_ATTR_PRIORITY, &wide, 8, KEV_ERR_PARAM},
        {Kind::kThread, KEV_THREAD_ATTR_PRIORITY, &thirtyTwo, 2, KEV_ERR_PARAM},
        {Kind::kThread, KEV_THREAD_ATTR_OPTION, &two, 4, KEV_OK},
        {Kind::kThread, KEV_THREAD_ATTR_OPTION, &two, 0, KEV_ERR_PARAM},
        {Kind::kThread, 2, &two, 4, KEV_ERR_PARAM},
        {Kind::kThread, 99, &two, 4, KEV_ERR_PARAM},
        {Kind::kThread, 101, &two, 4, KEV_ERR_PARAM},
        {Kind::kTask, KEV_TASK_ATTR_FUNC, &task, sizeof task, KEV_OK},
        {Kind::kTask, KEV_TASK_ATTR_FUNC, &task, 8, KEV_ERR_PARAM},
        {Kind::kTask, KEV_TASK_ATTR_FUNC, &taskWithoutFn, sizeof task, KEV_ERR_PARAM},
        {Kind::kTask, KEV_TASK_ATTR_OPTION, &one, 4, KEV_OK},
        {Kind::kTask, KEV_TASK_ATTR_OPTION, &wide, 8, KEV_ERR_PARAM},
        {Kind::kTask, 1, &one, 4, KEV_ERR_PARAM},
        {Kind::kTask, 3, &one, 4, KEV_ERR_PARAM},
        {Kind::kTask, 5, &one, 4, KEV_ERR_PARAM},
        {Kind::kTimer, KEV_TIMER_ATTR_FUNC, &timer, sizeof timer, KEV_OK},
        {Kind::kTimer, KEV_TIMER_ATTR_FUNC, &timer, 8, KEV_ERR_PARAM},
        {Kind::kTimer, KEV_TIMER_ATTR_FUNC, &timerWithoutFn, sizeof timer, KEV_ERR_PARAM},
        {Kind::kTimer, KEV_TIMER_ATTR_PERIODIC, &one, 4, KEV_OK},
        {Kind::kTimer, KEV_TIMER_ATTR_PERIODIC, &zero, 4, KEV_OK},
        {Kind::kTimer, KEV_TIMER_ATTR_PERIODIC, &two, 4, KEV_ERR_PARAM},
        {Kind::kTimer, KEV_TIMER_ATTR_PERIOD_MS, &thirtyTwo, 4, KEV_OK},
        {Kind::kTimer, KEV_TIMER_ATTR_PERIOD_MS, &zero, 4, KEV_ERR_PARAM},
        {Kind::kTimer, KEV_TIMER_ATTR_PERIOD_MS, &wide, 8, KEV_ERR_PARAM},
        {Kind::kTimer, 3, &one, 4, KEV_ERR_PARAM},
        {Kind::kTimer, 100, &one, 4, KEV_ERR_PARAM},
    };
    for (const auto &c : cases) {
        void *attr = CreateAttr(c.kind);
        ASSERT_NE(attr, nullptr);
        EXPECT_EQ(SetAttr(c.kind, attr, c.id, c.value, c.len), c.expected)
            << "kind " << static_cast<int>(c.kind) << " id " << c.id << " len " << c.len;
        DestroyAttr(c.kind, attr);
        // The same call on no object, or on an object of each other kind, is refused.
        EXPECT_EQ(SetAttr(c.kind, nullptr, c.id, c.value, c.len), KEV_ERR_PARAM);
        for (const Kind other : {Kind::kThread, Kind::kTask, Kind::kTimer}) {
            if (other == c.kind) continue;
            void *foreign = CreateAttr(other);
            EXPECT_EQ(SetAttr(c.kind, foreign, c.id, c.value, c.len), KEV_ERR_PARAM);
            DestroyAttr(other, foreign);
        }
    }
    KEV_ThreadDestroyAttr(nullptr);
    KEV_TaskDestroyAttr(nullptr);
    KEV_TimerDestroyAttr(nullptr);
}

uint32_t RecordThreadName(uint64_t, uint64_t, void *arg) {
    auto *seen = static_cast<std::pair<std::mutex, std::string> *>(arg);
    const std::lock_guard lock(seen->first);
    seen->second = CurrentThreadName();
    return 0;
}

TEST_F(KevScheduler, ThreadNamesItselfAndKeepsItsAttributes) {
    const std::string longName = "ABCDEFGHIJKLMNOPQRST";
    const struct {
        const char *name;  // null: no name attribute
        uint32_t len;
        const char *kept;
        const char *visible;
    } cases[] = {
        {"QV_AGENT_SEND", 13, "QV_AGENT_SEND", "QV_AGENT_SEND"},
        {longName.c_str(), 20, "ABCDEFGHIJKLMNOPQRST", "ABCDEFGHIJKLMNO"},
        {"QV_AGENT_SEND_EXTRA", 13, "QV_AGENT_SEND", "QV_AGENT_SEND"},
        {"ab\0cd", 5, "ab", "ab"},
        {nullptr, 0, "", "kev_sched"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.kept);
        void *attr = KEV_ThreadCreateAttr();
        ASSERT_NE(attr, nullptr);
        const uint32_t priority = 32;
        const uint32_t option = 2;
        const uint64_t badPriority = 7;
        if (c.name != nullptr) {
            ASSERT_EQ(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_NAME, c.name, c.len), KEV_OK);
        }
        ASSERT_EQ(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_PRIORITY, &priority, sizeof priority), KEV_OK);
        ASSERT_EQ(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_OPTION, &option, sizeof option), KEV_OK);
        // Refused settings leave what was set before.
        ASSERT_NE(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_NAME, "", 0), KEV_OK);
        ASSERT_NE(KEV_ThreadSetAttr(attr, KEV_THREAD_ATTR_PRIORITY, &badPriority, sizeof badPriority), KEV_OK);
        const uint64_t thread = KEV_ThreadCreate(attr);
        KEV_ThreadDestroyAttr(attr);
        ASSERT_NE(thread, 0u);

        QVPLAT_KEV_THREAD_INFO_S info{};
        ASSERT_EQ(QVPLAT_TestKevThreadInfo(thread, &info), 0u);
        EXPECT_STREQ(info.szName, c.kept);
        EXPECT_EQ(info.uiPriority, 32u);
        EXPECT_EQ(info.uiOption, 2u);
        EXPECT_EQ(info.uiDescriptors, 0u);
        EXPECT_EQ(info.uiTimers, 0u);

        std::pair<std::mutex, std::string> seen;
        const uint64_t timer = kevtest::MakeTimer(thread, 1, 0, RecordThreadName, &seen);
        ASSERT_NE(timer, 0u);
        ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
        EXPECT_TRUE(WaitFor([&] {
            const std::lock_guard lock(seen.first);
            return !seen.second.empty();
        }));
        EXPECT_EQ(KEV_TimerDestroy(timer), KEV_OK);
        {
            const std::lock_guard lock(seen.first);
            EXPECT_EQ(seen.second, c.visible);
        }
        EXPECT_EQ(QVPLAT_TestKevStopThread(thread), 0u);
    }
}

// What a task saw on its first call; it removes its own descriptor then, so that a condition that
// lasts (a peer closed) does not call it again.
struct FirstEvent {
    uint64_t thread = 0;
    int fd = -1;
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> mask{0};
    std::atomic<void *> arg{nullptr};
    std::atomic<uint32_t> delResult{0xFFFFFFFFu};
    std::mutex mutex;
    std::string threadName;
};

uint32_t RecordFirstEvent(uint32_t *events, void *arg) {
    auto *first = static_cast<FirstEvent *>(arg);
    if (first->calls.fetch_add(1) == 0) {
        first->mask.store(*events);
        first->arg.store(arg);
        {
            const std::lock_guard lock(first->mutex);
            first->threadName = CurrentThreadName();
        }
        first->delResult.store(Unregister(first->thread, first->fd));
    }
    return 0;
}

TEST_F(KevScheduler, DescriptorEventsReachTheTaskOnTheSchedulerThreadWithTheirMask) {
    enum class Action { kSend, kClosePeer, kNothing };
    const struct {
        int type;
        uint32_t events;
        Action action;
        uint32_t expected;
    } cases[] = {
        {SOCK_DGRAM, KEV_EVENT_READ | KEV_EVENT_HUP, Action::kSend, KEV_EVENT_READ},
        {SOCK_STREAM, KEV_EVENT_READ | KEV_EVENT_HUP, Action::kSend, KEV_EVENT_READ},
        {SOCK_STREAM, KEV_EVENT_READ | KEV_EVENT_HUP, Action::kClosePeer, KEV_EVENT_READ | KEV_EVENT_HUP},
        {SOCK_STREAM, KEV_EVENT_READ, Action::kClosePeer, KEV_EVENT_READ | KEV_EVENT_HUP},
        {SOCK_STREAM, KEV_EVENT_HUP, Action::kClosePeer, KEV_EVENT_HUP},
        {SOCK_DGRAM, KEV_EVENT_WRITE, Action::kNothing, KEV_EVENT_WRITE},
        {SOCK_DGRAM, KEV_EVENT_ALL, Action::kNothing, KEV_EVENT_WRITE},
    };
    kevtest::Scheduler sched("KEV_EVENTS");
    ASSERT_NE(sched.handle(), 0u);
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "type " << c.type << " events " << c.events << " expected "
                                        << c.expected);
        SocketPair pair(c.type);
        ASSERT_GE(pair.fds[0], 0);
        FirstEvent first;
        first.thread = sched.handle();
        first.fd = pair.fds[0];
        ASSERT_EQ(Register(sched.handle(), pair.fds[0], c.events, RecordFirstEvent, &first), KEV_OK);
        const bool waitsForAction = (c.events & KEV_EVENT_WRITE) == 0;  // a fresh socket has room at once
        if (waitsForAction) {
            uint32_t registered = 0;
            uint32_t option = 0;
            ASSERT_EQ(QVPLAT_TestKevDescriptorInfo(sched.handle(), pair.fds[0], &registered, &option), 0u);
            EXPECT_EQ(registered, c.events);
            EXPECT_EQ(option, 1u);
        }
        if (waitsForAction && (c.events & KEV_EVENT_READ) == 0) {
            // Data is not an event the task asked for.
            ASSERT_TRUE(pair.Send());
            std::this_thread::sleep_for(milliseconds(30));
            EXPECT_EQ(first.calls.load(), 0u);
        }
        if (c.action == Action::kSend) {
            ASSERT_TRUE(pair.Send());
        }
        if (c.action == Action::kClosePeer) pair.CloseSide(1);
        ASSERT_TRUE(WaitFor([&] { return first.delResult.load() != 0xFFFFFFFFu; }));
        // The task removed itself from inside its call: nothing more arrives, though the condition lasts.
        std::this_thread::sleep_for(milliseconds(30));
        EXPECT_EQ(first.calls.load(), 1u);
        EXPECT_EQ(first.mask.load(), c.expected);
        EXPECT_EQ(first.arg.load(), &first);
        EXPECT_EQ(first.delResult.load(), KEV_OK);
        const std::lock_guard lock(first.mutex);
        EXPECT_EQ(first.threadName, "KEV_EVENTS");
        EXPECT_NE(QVPLAT_TestKevDescriptorInfo(sched.handle(), pair.fds[0], nullptr, nullptr), 0u);
    }
}

TEST_F(KevScheduler, PendingSocketErrorIsReportedAsAnErrorAndToReadersAsReadable) {
    // A connected UDP socket whose peer port is closed collects the refusal as a pending error.
    const struct {
        uint32_t events;
        uint32_t expected;
    } cases[] = {
        {KEV_EVENT_READ | KEV_EVENT_HUP, KEV_EVENT_READ | KEV_EVENT_ERR},
        {KEV_EVENT_HUP, KEV_EVENT_ERR},
    };
    kevtest::Scheduler sched;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.events);
        const int closedPort = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        ASSERT_EQ(::bind(closedPort, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        ASSERT_EQ(::getsockname(closedPort, reinterpret_cast<sockaddr *>(&addr), &len), 0);
        ::close(closedPort);

        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        ASSERT_EQ(::connect(fd, reinterpret_cast<sockaddr *>(&addr), sizeof addr), 0);
        FirstEvent first;
        first.thread = sched.handle();
        first.fd = fd;
        ASSERT_EQ(Register(sched.handle(), fd, c.events, RecordFirstEvent, &first), KEV_OK);
        ASSERT_EQ(::send(fd, "x", 1, 0), 1);
        EXPECT_TRUE(WaitFor([&] { return first.delResult.load() != 0xFFFFFFFFu; }));
        EXPECT_EQ(first.mask.load(), c.expected);
        char byte = 0;
        EXPECT_EQ(::recv(fd, &byte, 1, 0), -1);
        EXPECT_EQ(errno, ECONNREFUSED);
        ::close(fd);
    }
}

TEST_F(KevControl, RefusesBadRequests) {
    kevtest::Scheduler sched;
    const uint64_t thread = sched.handle();
    ASSERT_NE(thread, 0u);
    SocketPair pair;
    void *task = KEV_TaskCreateAttr();
    void *emptyTask = KEV_TaskCreateAttr();
    void *timerAttr = KEV_TimerCreateAttr();
    const KEV_TASK_FUNC_S func{NoopTask, nullptr};
    ASSERT_EQ(KEV_TaskSetAttr(task, KEV_TASK_ATTR_FUNC, &func, sizeof func), KEV_OK);
    const uint64_t timer = kevtest::MakeTimer(thread, 1000, 1, NoopTimer, nullptr);
    ASSERT_NE(timer, 0u);
    const int closedFd = ::dup(pair.fds[0]);
    ::close(closedFd);
    const int fileFd = ::open("/opt/kev_regular_file", O_CREAT | O_RDWR | O_CLOEXEC, 0600);
    ASSERT_GE(fileFd, 0);

    KEV_CTRL_S good{KEV_EVENT_READ | KEV_EVENT_HUP, task};
    KEV_CTRL_S noTask{KEV_EVENT_READ, nullptr};
    KEV_CTRL_S taskWithoutFn{KEV_EVENT_READ, emptyTask};
    KEV_CTRL_S foreignTask{KEV_EVENT_READ, timerAttr};
    KEV_CTRL_S noEvents{0, task};
    KEV_CTRL_S unknownBit{KEV_EVENT_READ | 0x2u, task};
    KEV_CTRL_S highBit{0x100u, task};
    const struct {
        uint64_t thread;
        uint32_t op;
        int32_t fd;
        KEV_CTRL_S *rec;
        uint32_t expected;
        const char *what;
    } cases[] = {
        {thread + 1000, KEV_CTRL_ADD, pair.fds[0], &good, KEV_ERR_NOT_FOUND, "unknown thread"},
        {0, KEV_CTRL_ADD, pair.fds[0], &good, KEV_ERR_NOT_FOUND, "thread 0"},
        {timer, KEV_CTRL_ADD, pair.fds[0], &good, KEV_ERR_NOT_FOUND, "timer handle as thread"},
        {thread, 1, pair.fds[0], &good, KEV_ERR_PARAM, "operation 1"},
        {thread, 3, pair.fds[0], &good, KEV_ERR_PARAM, "operation 3"},
        {thread, KEV_CTRL_ADD, -1, &good, KEV_ERR_PARAM, "negative descriptor"},
        {thread, KEV_CTRL_ADD, pair.fds[0], nullptr, KEV_ERR_PARAM, "no record"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &noTask, KEV_ERR_PARAM, "no task"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &taskWithoutFn, KEV_ERR_PARAM, "task without callback"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &foreignTask, KEV_ERR_PARAM, "timer attributes as task"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &noEvents, KEV_ERR_PARAM, "empty mask"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &unknownBit, KEV_ERR_PARAM, "unknown event bit"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &highBit, KEV_ERR_PARAM, "high event bit"},
        {thread, KEV_CTRL_ADD, closedFd, &good, KEV_ERR_SYSTEM, "closed descriptor"},
        {thread, KEV_CTRL_ADD, fileFd, &good, KEV_ERR_SYSTEM, "regular file"},
        {thread, KEV_CTRL_DEL, pair.fds[0], nullptr, KEV_ERR_NOT_FOUND, "removal of what was never added"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &good, KEV_OK, "add"},
        {thread, KEV_CTRL_ADD, pair.fds[0], &good, KEV_ERR_EXIST, "second add"},
        {thread + 1000, KEV_CTRL_DEL, pair.fds[0], nullptr, KEV_ERR_NOT_FOUND, "removal on an unknown thread"},
        {thread, KEV_CTRL_DEL, pair.fds[0], &good, KEV_OK, "removal (record ignored)"},
        {thread, KEV_CTRL_DEL, pair.fds[0], nullptr, KEV_ERR_NOT_FOUND, "second removal"},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(KEV_ThreadCtrl(c.thread, c.op, c.fd, c.rec), c.expected) << c.what;
    }
    QVPLAT_KEV_THREAD_INFO_S info{};
    ASSERT_EQ(QVPLAT_TestKevThreadInfo(thread, &info), 0u);
    EXPECT_EQ(info.uiDescriptors, 0u);
    EXPECT_EQ(info.uiTimers, 1u);
    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_OK);
    KEV_TaskDestroyAttr(task);
    KEV_TaskDestroyAttr(emptyTask);
    KEV_TimerDestroyAttr(timerAttr);
    ::close(fileFd);
}

// A task that, like the agent's socket handling, reads a datagram, then removes its descriptor and
// adds it again with another argument.
struct Readd {
    uint64_t thread = 0;
    int fd = -1;
    void *nextArg = nullptr;
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> delResult{0xFFFFFFFFu};
    std::atomic<uint32_t> addResult{0xFFFFFFFFu};
};

uint32_t ReaddTask(uint32_t *, void *arg);

uint32_t CountTask(uint32_t *, void *arg) {
    auto *state = static_cast<Readd *>(arg);
    char byte = 0;
    while (::recv(state->fd, &byte, 1, 0) == 1) {
    }
    state->calls.fetch_add(1);
    return 0;
}

uint32_t ReaddTask(uint32_t *, void *arg) {
    auto *state = static_cast<Readd *>(arg);
    char byte = 0;
    static_cast<void>(::recv(state->fd, &byte, 1, 0));
    state->calls.fetch_add(1);
    state->delResult.store(Unregister(state->thread, state->fd));
    state->addResult.store(Register(state->thread, state->fd, KEV_EVENT_READ | KEV_EVENT_HUP, CountTask,
                                    state->nextArg, 7));
    return 0;
}

TEST_F(KevControl, TaskRemovesAndAddsItsDescriptorAgainFromInside) {
    kevtest::Scheduler sched;
    SocketPair pair;
    Readd first;
    Readd second;
    first.thread = second.thread = sched.handle();
    first.fd = second.fd = pair.fds[0];
    first.nextArg = &second;
    ASSERT_EQ(Register(sched.handle(), pair.fds[0], KEV_EVENT_READ | KEV_EVENT_HUP, ReaddTask, &first), KEV_OK);
    ASSERT_TRUE(pair.Send());
    ASSERT_TRUE(WaitFor([&] { return first.calls.load() == 1 && first.addResult.load() != 0xFFFFFFFFu; }));
    EXPECT_EQ(first.delResult.load(), KEV_OK);
    EXPECT_EQ(first.addResult.load(), KEV_OK);
    uint32_t option = 0;
    ASSERT_EQ(QVPLAT_TestKevDescriptorInfo(sched.handle(), pair.fds[0], nullptr, &option), 0u);
    EXPECT_EQ(option, 7u);
    ASSERT_TRUE(pair.Send());
    ASSERT_TRUE(WaitFor([&] { return second.calls.load() >= 1; }));
    EXPECT_EQ(first.calls.load(), 1u);
    EXPECT_EQ(Unregister(sched.handle(), pair.fds[0]), KEV_OK);
}

// Two descriptors made ready in the same round: whichever task runs first removes the other, whose
// event was collected already and must be dropped.
struct Rival {
    uint64_t thread = 0;
    int fd = -1;
    int otherFd = -1;
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> removeOther{0xFFFFFFFFu};
};

uint32_t RivalTask(uint32_t *, void *arg) {
    auto *rival = static_cast<Rival *>(arg);
    rival->calls.fetch_add(1);
    rival->removeOther.store(Unregister(rival->thread, rival->otherFd));
    char byte = 0;
    static_cast<void>(::recv(rival->fd, &byte, 1, 0));
    return 0;
}

struct Gate {
    std::atomic<bool> entered{false};
    std::atomic<bool> release{false};
    int fd = -1;
};

uint32_t GateTask(uint32_t *, void *arg) {
    auto *gate = static_cast<Gate *>(arg);
    char byte = 0;
    static_cast<void>(::recv(gate->fd, &byte, 1, 0));
    gate->entered.store(true);
    static_cast<void>(WaitFor([&] { return gate->release.load(); }));
    return 0;
}

TEST_F(KevControl, TaskRemovingAnotherDropsItsCollectedEvent) {
    kevtest::Scheduler sched;
    SocketPair gatePair;
    SocketPair a;
    SocketPair b;
    Gate gate;
    gate.fd = gatePair.fds[0];
    Rival ra;
    Rival rb;
    ra.thread = rb.thread = sched.handle();
    ra.fd = rb.otherFd = a.fds[0];
    rb.fd = ra.otherFd = b.fds[0];
    ASSERT_EQ(Register(sched.handle(), gate.fd, KEV_EVENT_READ, GateTask, &gate), KEV_OK);
    ASSERT_EQ(Register(sched.handle(), a.fds[0], KEV_EVENT_READ, RivalTask, &ra), KEV_OK);
    ASSERT_EQ(Register(sched.handle(), b.fds[0], KEV_EVENT_READ, RivalTask, &rb), KEV_OK);
    // Hold the loop inside the gate's task while both rivals become ready.
    ASSERT_TRUE(gatePair.Send());
    ASSERT_TRUE(WaitFor([&] { return gate.entered.load(); }));
    ASSERT_TRUE(a.Send());
    ASSERT_TRUE(b.Send());
    gate.release.store(true);
    ASSERT_TRUE(WaitFor([&] { return ra.calls.load() + rb.calls.load() != 0; }));
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_EQ(ra.calls.load() + rb.calls.load(), 1u);
    Rival &winner = ra.calls.load() != 0 ? ra : rb;
    EXPECT_EQ(winner.removeOther.load(), KEV_OK);
    EXPECT_EQ(Unregister(sched.handle(), winner.fd), KEV_OK);
    EXPECT_EQ(Unregister(sched.handle(), winner.otherFd), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(Unregister(sched.handle(), gate.fd), KEV_OK);
}

TEST_F(KevControl, DescriptorClosedWithoutRemovalIsReplacedByANewOneUnderItsNumber) {
    kevtest::Scheduler sched;
    SocketPair old;
    Readd stale;
    Readd fresh;
    stale.fd = fresh.fd = old.fds[0];
    ASSERT_EQ(Register(sched.handle(), old.fds[0], KEV_EVENT_READ, CountTask, &stale), KEV_OK);
    SocketPair replacement;
    const int number = old.fds[0];
    // The number now names another socket; the kernel forgot the closed one's watch.
    ASSERT_EQ(::dup3(replacement.fds[0], number, O_CLOEXEC), number);
    ASSERT_EQ(Register(sched.handle(), number, KEV_EVENT_READ, CountTask, &fresh), KEV_OK);
    EXPECT_EQ(Register(sched.handle(), number, KEV_EVENT_READ, CountTask, &fresh), KEV_ERR_EXIST);
    ASSERT_TRUE(replacement.Send());
    ASSERT_TRUE(WaitFor([&] { return fresh.calls.load() != 0; }));
    EXPECT_EQ(stale.calls.load(), 0u);
    QVPLAT_KEV_THREAD_INFO_S info{};
    ASSERT_EQ(QVPLAT_TestKevThreadInfo(sched.handle(), &info), 0u);
    EXPECT_EQ(info.uiDescriptors, 1u);
    EXPECT_EQ(Unregister(sched.handle(), number), KEV_OK);
}

// Timer calls as seen by the test.
struct Ticks {
    std::atomic<uint32_t> calls{0};
    std::atomic<uint64_t> expirations{0};
    std::atomic<uint64_t> handle{0};
    std::atomic<uint32_t> wrongHandle{0};
    std::atomic<uint32_t> destroyAt{0};  // destroy the timer from inside on this call (0: never)
    std::atomic<uint32_t> destroyResult{0xFFFFFFFFu};
    std::atomic<uint32_t> offThread{0};
};

uint32_t TickTimer(uint64_t value1, uint64_t value2, void *arg) {
    auto *ticks = static_cast<Ticks *>(arg);
    if (value1 != ticks->handle.load()) ticks->wrongHandle.fetch_add(1);
    if (CurrentThreadName() != "KEV_TEST") ticks->offThread.fetch_add(1);
    ticks->expirations.fetch_add(value2);
    const uint32_t call = ticks->calls.fetch_add(1) + 1;
    if (call == ticks->destroyAt.load()) ticks->destroyResult.store(KEV_TimerDestroy(value1));
    return 0;
}

TEST_F(KevTimer, PeriodicTimerFiresOncePerPeriodAndStopsOnDestroy) {
    kevtest::Scheduler sched;
    Ticks ticks;
    const uint64_t timer = kevtest::MakeTimer(sched.handle(), 20, 1, TickTimer, &ticks);
    ASSERT_NE(timer, 0u);
    ticks.handle.store(timer);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 1u);
    const auto start = Clock::now();
    ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
    std::this_thread::sleep_for(milliseconds(400));
    const uint64_t expirations = ticks.expirations.load();
    const auto elapsed = std::chrono::duration_cast<milliseconds>(Clock::now() - start).count();
    // Expirations cannot outrun the clock; the lower bound only proves the timer repeats.
    EXPECT_LE(expirations, static_cast<uint64_t>(elapsed / 20 + 1));
    EXPECT_GE(expirations, 4u);
    EXPECT_LE(ticks.calls.load(), expirations + 1);
    EXPECT_EQ(ticks.wrongHandle.load(), 0u);
    EXPECT_EQ(ticks.offThread.load(), 0u);

    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_OK);
    const uint32_t after = ticks.calls.load();
    std::this_thread::sleep_for(milliseconds(60));
    EXPECT_EQ(ticks.calls.load(), after);
    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(KEV_TimerStart(timer), KEV_ERR_NOT_FOUND);
}

TEST_F(KevTimer, OneShotTimerFiresOnceAndMayBeStartedAgain) {
    kevtest::Scheduler sched;
    Ticks ticks;
    const uint64_t timer = kevtest::MakeTimer(sched.handle(), 5, 0, TickTimer, &ticks);
    ASSERT_NE(timer, 0u);
    ticks.handle.store(timer);
    // Not started: never fires.
    std::this_thread::sleep_for(milliseconds(30));
    EXPECT_EQ(ticks.calls.load(), 0u);
    for (uint32_t round = 1; round <= 2; ++round) {
        ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
        ASSERT_TRUE(WaitFor([&] { return ticks.calls.load() == round; }));
        std::this_thread::sleep_for(milliseconds(50));
        EXPECT_EQ(ticks.calls.load(), round);
        EXPECT_EQ(ticks.expirations.load(), round);
    }
    EXPECT_EQ(ticks.wrongHandle.load(), 0u);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 1u);
    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_OK);
}

TEST_F(KevTimer, TimerDestroysItselfFromItsOwnCallback) {
    kevtest::Scheduler sched;
    Ticks ticks;
    ticks.destroyAt.store(3);
    const uint64_t timer = kevtest::MakeTimer(sched.handle(), 2, 1, TickTimer, &ticks);
    ASSERT_NE(timer, 0u);
    ticks.handle.store(timer);
    ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
    ASSERT_TRUE(WaitFor([&] { return ticks.destroyResult.load() != 0xFFFFFFFFu; }));
    std::this_thread::sleep_for(milliseconds(40));
    EXPECT_EQ(ticks.destroyResult.load(), KEV_OK);
    EXPECT_EQ(ticks.calls.load(), 3u);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_ERR_NOT_FOUND);
    QVPLAT_KEV_THREAD_INFO_S info{};
    ASSERT_EQ(QVPLAT_TestKevThreadInfo(sched.handle(), &info), 0u);
    EXPECT_EQ(info.uiTimers, 0u);
}

TEST_F(KevTimer, CreationNeedsCallbackPeriodAndAKnownThread) {
    kevtest::Scheduler sched;
    const KEV_TIMER_FUNC_S func{NoopTimer, nullptr};
    const uint32_t period = 10;
    const uint32_t periodic = 1;
    const struct {
        bool func;
        bool period;
        bool periodic;
        bool knownThread;
        bool created;
    } cases[] = {
        {true, true, true, true, true},     {true, true, false, true, true},
        {false, true, true, true, false},   {true, false, true, true, false},
        {true, true, true, false, false},   {false, false, false, true, false},
    };
    for (const auto &c : cases) {
        void *attr = KEV_TimerCreateAttr();
        if (c.func) {
            ASSERT_EQ(KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_FUNC, &func, sizeof func), KEV_OK);
        }
        if (c.period) {
            ASSERT_EQ(KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_PERIOD_MS, &period, sizeof period), KEV_OK);
        }
        if (c.periodic) {
            ASSERT_EQ(KEV_TimerSetAttr(attr, KEV_TIMER_ATTR_PERIODIC, &periodic, sizeof periodic), KEV_OK);
        }
        const uint64_t timer = KEV_TimerCreate(c.knownThread ? sched.handle() : sched.handle() + 1000, attr);
        KEV_TimerDestroyAttr(attr);
        EXPECT_EQ(timer != 0, c.created) << c.func << c.period << c.periodic << c.knownThread;
        if (timer != 0) {
            EXPECT_EQ(KEV_TimerDestroy(timer), KEV_OK);
        }
    }
    void *threadAttr = KEV_ThreadCreateAttr();
    EXPECT_EQ(KEV_TimerCreate(sched.handle(), threadAttr), 0u);
    EXPECT_EQ(KEV_TimerCreate(sched.handle(), nullptr), 0u);
    KEV_ThreadDestroyAttr(threadAttr);
    EXPECT_EQ(KEV_TimerStart(0), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(KEV_TimerDestroy(0), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(KEV_TimerStart(sched.handle()), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
}

TEST_F(KevScheduler, InjectedCreationFailuresHitTheNextCallOnly) {
    QVPLAT_TestKevFailThreadCreate(1);
    EXPECT_EQ(KEV_ThreadCreate(nullptr), 0u);
    EXPECT_EQ(QVPLAT_TestKevLiveThreads(), 0u);
    QVPLAT_TestKevFailThreadCreate(1);
    QVPLAT_TestKevFailThreadCreate(0);
    kevtest::Scheduler sched;
    ASSERT_NE(sched.handle(), 0u);

    QVPLAT_TestKevFailTimerCreate(1);
    EXPECT_EQ(kevtest::MakeTimer(sched.handle(), 10, 1, NoopTimer, nullptr), 0u);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
    const uint64_t timer = kevtest::MakeTimer(sched.handle(), 10, 1, NoopTimer, nullptr);
    EXPECT_NE(timer, 0u);
    QVPLAT_TestKevFailTimerCreate(1);
    QVPLAT_TestKevFailTimerCreate(0);
    const uint64_t second = kevtest::MakeTimer(sched.handle(), 10, 1, NoopTimer, nullptr);
    EXPECT_NE(second, 0u);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 2u);
    EXPECT_EQ(KEV_TimerDestroy(timer), KEV_OK);
    EXPECT_EQ(KEV_TimerDestroy(second), KEV_OK);
}

struct SelfStop {
    uint64_t thread = 0;
    std::atomic<uint32_t> result{0};
    std::atomic<bool> done{false};
};

uint32_t TryStopOwnThread(uint64_t, uint64_t, void *arg) {
    auto *state = static_cast<SelfStop *>(arg);
    state->result.store(QVPLAT_TestKevStopThread(state->thread));
    state->done.store(true);
    return 0;
}

TEST_F(KevScheduler, StopReleasesTimersAndRegistrationsButLeavesDescriptorsOpen) {
    void *task = KEV_TaskCreateAttr();
    EXPECT_EQ(KEV_ThreadCreate(task), 0u);  // attributes of another kind
    KEV_TaskDestroyAttr(task);
    const uint64_t thread = KEV_ThreadCreate(nullptr);
    const uint64_t other = KEV_ThreadCreate(nullptr);
    ASSERT_NE(thread, 0u);
    ASSERT_NE(other, 0u);
    ASSERT_NE(other, thread);
    SocketPair pair;
    ASSERT_EQ(Register(thread, pair.fds[0], KEV_EVENT_READ, NoopTask, nullptr), KEV_OK);
    SelfStop self;
    self.thread = thread;
    const uint64_t timer = kevtest::MakeTimer(thread, 1, 0, TryStopOwnThread, &self);
    const uint64_t idle = kevtest::MakeTimer(thread, 1000, 1, NoopTimer, nullptr);
    ASSERT_NE(timer, 0u);
    ASSERT_NE(idle, 0u);
    ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
    ASSERT_EQ(KEV_TimerStart(idle), KEV_OK);
    // A thread cannot stop itself.
    ASSERT_TRUE(WaitFor([&] { return self.done.load(); }));
    EXPECT_NE(self.result.load(), 0u);
    EXPECT_EQ(QVPLAT_TestKevLiveThreads(), 2u);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 2u);

    EXPECT_EQ(QVPLAT_TestKevStopThread(thread), 0u);
    EXPECT_EQ(QVPLAT_TestKevLiveThreads(), 1u);
    EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
    EXPECT_EQ(KEV_ThreadCtrl(thread, KEV_CTRL_DEL, pair.fds[0], nullptr), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(Register(thread, pair.fds[1], KEV_EVENT_READ, NoopTask, nullptr), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(kevtest::MakeTimer(thread, 10, 1, NoopTimer, nullptr), 0u);
    EXPECT_EQ(KEV_TimerStart(idle), KEV_ERR_NOT_FOUND);
    EXPECT_EQ(KEV_TimerDestroy(idle), KEV_ERR_NOT_FOUND);
    EXPECT_NE(::fcntl(pair.fds[0], F_GETFD), -1);
    EXPECT_NE(QVPLAT_TestKevStopThread(thread), 0u);
    EXPECT_NE(QVPLAT_TestKevStopThread(0), 0u);

    ASSERT_NE(KEV_ThreadCreate(nullptr), 0u);
    EXPECT_EQ(QVPLAT_TestKevStopAll(), 2u);
    EXPECT_EQ(QVPLAT_TestKevLiveThreads(), 0u);
    EXPECT_EQ(QVPLAT_TestKevStopAll(), 0u);
}

}  // namespace
