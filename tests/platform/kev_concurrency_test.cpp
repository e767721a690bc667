// Concurrency tests of the stand-in's scheduler framework: removal and timer destruction from other
// threads racing callbacks in progress, and registration from many threads at once. Run under
// ThreadSanitizer in the sanitizer build.
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>
#include <vector>

#include "kev_test_support.h"
#include "qvplatform/kev.h"
#include "qvplatform_testctl.h"

namespace {

using kevtest::milliseconds;
using kevtest::Register;
using kevtest::SocketPair;
using kevtest::Unregister;
using kevtest::WaitFor;

class KevConcurrency : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(QVPLAT_TestKevLiveThreads(), 0u);
        ASSERT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
    }
    void TearDown() override {
        EXPECT_EQ(QVPLAT_TestKevLiveThreads(), 0u);
        EXPECT_EQ(QVPLAT_TestKevLiveTimers(), 0u);
    }
};

// A task that stays a while inside every call and, on leaving, checks that its removal has not yet
// returned: a removal that did not wait for a call in progress is caught here.
struct Watched {
    int fd = -1;
    std::atomic<bool> removed{false};
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> lateCalls{0};
};

uint32_t SlowReader(uint32_t *events, void *arg) {
    auto *watched = static_cast<Watched *>(arg);
    if (watched->removed.load()) watched->lateCalls.fetch_add(1);
    if ((*events & KEV_EVENT_READ) != 0) {
        char byte = 0;
        static_cast<void>(::recv(watched->fd, &byte, 1, 0));
    }
    std::this_thread::sleep_for(std::chrono::microseconds(300));
    watched->calls.fetch_add(1);
    if (watched->removed.load()) watched->lateCalls.fetch_add(1);
    return 0;
}

TEST_F(KevConcurrency, NoTaskCallAfterRemovalReturnsWhileThePeerKeepsWriting) {
    kevtest::Scheduler sched;
    ASSERT_NE(sched.handle(), 0u);
    SocketPair pair;
    std::atomic<bool> stopWriting{false};
    std::thread writer([&] {
        // Bounded: a few hundred thousand datagrams at most, far more than the rounds need.
        for (int i = 0; i < 400000 && !stopWriting.load(); ++i) {
            if (!pair.Send()) std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    for (int round = 0; round < 25; ++round) {
        SCOPED_TRACE(round);
        Watched watched;
        watched.fd = pair.fds[0];
        ASSERT_EQ(Register(sched.handle(), pair.fds[0], KEV_EVENT_READ | KEV_EVENT_HUP, SlowReader, &watched),
                  KEV_OK);
        ASSERT_TRUE(WaitFor([&] { return watched.calls.load() >= 3; }));
        ASSERT_EQ(Unregister(sched.handle(), pair.fds[0]), KEV_OK);
        watched.removed.store(true);
        const uint32_t calls = watched.calls.load();
        std::this_thread::sleep_for(milliseconds(5));
        EXPECT_EQ(watched.calls.load(), calls);
        EXPECT_EQ(watched.lateCalls.load(), 0u);
    }
    stopWriting.store(true);
    writer.join();
}

struct SlowTicks {
    std::atomic<bool> destroyed{false};
    std::atomic<uint32_t> calls{0};
    std::atomic<uint32_t> lateCalls{0};
};

uint32_t SlowTick(uint64_t, uint64_t, void *arg) {
    auto *ticks = static_cast<SlowTicks *>(arg);
    if (ticks->destroyed.load()) ticks->lateCalls.fetch_add(1);
    std::this_thread::sleep_for(std::chrono::microseconds(500));
    ticks->calls.fetch_add(1);
    if (ticks->destroyed.load()) ticks->lateCalls.fetch_add(1);
    return 0;
}

TEST_F(KevConcurrency, TimerDestroyOnAnotherThreadWaitsForTheCallbackInProgress) {
    kevtest::Scheduler sched;
    for (int round = 0; round < 25; ++round) {
        SCOPED_TRACE(round);
        SlowTicks ticks;
        const uint64_t timer = kevtest::MakeTimer(sched.handle(), 1, 1, SlowTick, &ticks);
        ASSERT_NE(timer, 0u);
        ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
        ASSERT_TRUE(WaitFor([&] { return ticks.calls.load() >= 2; }));
        ASSERT_EQ(KEV_TimerDestroy(timer), KEV_OK);
        ticks.destroyed.store(true);
        const uint32_t calls = ticks.calls.load();
        std::this_thread::sleep_for(milliseconds(5));
        EXPECT_EQ(ticks.calls.load(), calls);
        EXPECT_EQ(ticks.lateCalls.load(), 0u);
    }
}

struct Counter {
    int fd = -1;
    std::atomic<uint32_t> calls{0};
    std::atomic<bool> removed{false};
    std::atomic<uint32_t> lateCalls{0};
};

uint32_t DrainAndCount(uint32_t *, void *arg) {
    auto *counter = static_cast<Counter *>(arg);
    if (counter->removed.load()) counter->lateCalls.fetch_add(1);
    char bytes[64];
    while (::recv(counter->fd, bytes, sizeof bytes, 0) > 0) {
    }
    counter->calls.fetch_add(1);
    return 0;
}

uint32_t Nothing(uint64_t, uint64_t, void *) { return 0; }

TEST_F(KevConcurrency, ManyThreadsRegisterRemoveAndMakeTimersAtOnce) {
    kevtest::Scheduler sched;
    constexpr int kThreads = 4;
    constexpr int kRounds = 60;
    std::atomic<uint32_t> failures{0};
    std::atomic<uint32_t> lateCalls{0};
    std::atomic<uint32_t> delivered{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            SocketPair pair;
            for (int round = 0; round < kRounds; ++round) {
                Counter counter;
                counter.fd = pair.fds[0];
                if (Register(sched.handle(), pair.fds[0], KEV_EVENT_READ, DrainAndCount, &counter) != KEV_OK) {
                    failures.fetch_add(1);
                    continue;
                }
                const uint64_t timer = kevtest::MakeTimer(sched.handle(), 1, 1, Nothing, nullptr);
                if (timer == 0 || KEV_TimerStart(timer) != KEV_OK) failures.fetch_add(1);
                static_cast<void>(pair.Send());
                if (!WaitFor([&] { return counter.calls.load() != 0; })) failures.fetch_add(1);
                static_cast<void>(pair.Send());
                if (Unregister(sched.handle(), pair.fds[0]) != KEV_OK) failures.fetch_add(1);
                counter.removed.store(true);
                if (timer != 0 && KEV_TimerDestroy(timer) != KEV_OK) failures.fetch_add(1);
                lateCalls.fetch_add(counter.lateCalls.load());
                delivered.fetch_add(counter.calls.load() != 0 ? 1u : 0u);
                char bytes[64];
                while (::recv(pair.fds[0], bytes, sizeof bytes, 0) > 0) {
                }
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0u);
    EXPECT_EQ(lateCalls.load(), 0u);
    EXPECT_EQ(delivered.load(), static_cast<uint32_t>(kThreads * kRounds));
    QVPLAT_KEV_THREAD_INFO_S info{};
    ASSERT_EQ(QVPLAT_TestKevThreadInfo(sched.handle(), &info), 0u);
    EXPECT_EQ(info.uiDescriptors, 0u);
    EXPECT_EQ(info.uiTimers, 0u);
}

TEST_F(KevConcurrency, StopJoinsAThreadBusyWithTasksAndTimers) {
    for (int round = 0; round < 10; ++round) {
        const uint64_t thread = KEV_ThreadCreate(nullptr);
        ASSERT_NE(thread, 0u);
        SocketPair pair;
        Counter counter;
        counter.fd = pair.fds[0];
        ASSERT_EQ(Register(thread, pair.fds[0], KEV_EVENT_READ, DrainAndCount, &counter), KEV_OK);
        const uint64_t timer = kevtest::MakeTimer(thread, 1, 1, Nothing, nullptr);
        ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
        std::atomic<bool> stop{false};
        std::thread writer([&] {
            for (int i = 0; i < 100000 && !stop.load(); ++i) {
                if (!pair.Send()) std::this_thread::yield();
            }
        });
        ASSERT_TRUE(WaitFor([&] { return counter.calls.load() >= 5; }));
        EXPECT_EQ(QVPLAT_TestKevStopThread(thread), 0u);
        counter.removed.store(true);
        std::this_thread::sleep_for(milliseconds(2));
        stop.store(true);
        writer.join();
        EXPECT_EQ(counter.lateCalls.load(), 0u);
        EXPECT_EQ(KEV_TimerDestroy(timer), KEV_ERR_NOT_FOUND);
    }
}

}  // namespace
