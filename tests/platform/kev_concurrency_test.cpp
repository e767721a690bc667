// Concurrency tests of the stand-in's scheduler framework: removal, timer destruction and stopping from
// other threads racing callbacks in progress, and registration from many threads at once. Run under
// ThreadSanitizer in the sanitizer build.
#include <gtest/gtest.h>

#include <vector>

#include "kev_test_support.h"

namespace {

using namespace kevtest;
using KevConcurrency = KevTest;

uint32_t NoopTimer(uint64_t, uint64_t, void *) { return 0; }

TEST_F(KevConcurrency, NoCallbackRunsAfterRemovalDestroyOrStopReturnsOnAnotherThread) {
    enum class Ending { kRemoval, kTimerDestroy, kStop };
    Scheduler sched;
    SocketPair pair;
    const std::jthread writer([&](const std::stop_token &stop) {  // stopped and joined at the end of the scope
        while (!stop.stop_requested()) {
            static_cast<void>(pair.Send());
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
    });
    for (const Ending ending : {Ending::kRemoval, Ending::kTimerDestroy, Ending::kStop}) {
        for (int round = 0; round < 20; ++round) {
            SCOPED_TRACE(testing::Message() << "ending " << static_cast<int>(ending) << " round " << round);
            // Each callback stays a while inside; a stopped thread also takes a busy timer with it.
            const uint64_t thread = ending == Ending::kStop ? KEV_ThreadCreate(nullptr) : sched.handle;
            const bool byTimer = ending == Ending::kTimerDestroy;
            Probe probe{.fd = pair.fds[0], .drain = !byTimer, .pauseUs = 300};
            const uint64_t timer = byTimer ? ProbeTimerOn(thread, 1, 1, probe) : MakeTimer(thread, 1, 1, NoopTimer, {});
            ASSERT_EQ(KEV_TimerStart(timer), KEV_OK);
            ASSERT_EQ(byTimer ? KEV_OK : Register(thread, pair.fds[0], KEV_EVENT_READ, ProbeTask, &probe), KEV_OK);
            ASSERT_TRUE(WaitFor([&] { return probe.calls.load() >= 3; }));
            ASSERT_EQ(ending == Ending::kRemoval ? Unregister(thread, pair.fds[0])
                      : ending == Ending::kStop  ? QVPLAT_TestKevStopThread(thread)
                                                 : KEV_TimerDestroy(timer),
                      KEV_OK);
            probe.removed.store(true);
            const uint32_t calls = probe.calls.load();
            std::this_thread::sleep_for(milliseconds(5));
            EXPECT_EQ(probe.calls.load(), calls);
            EXPECT_EQ(probe.lateCalls.load(), 0u);
            EXPECT_EQ(KEV_TimerDestroy(timer), ending == Ending::kRemoval ? KEV_OK : KEV_ERR_NOT_FOUND);
        }
    }
}

TEST_F(KevConcurrency, ManyThreadsRegisterRemoveAndMakeTimersAtOnce) {
    Scheduler sched;
    constexpr uint32_t kThreads = 4, kRounds = 60;
    std::atomic<uint32_t> failures{0}, lateCalls{0}, delivered{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&] {
            SocketPair pair;
            for (uint32_t round = 0; round < kRounds; ++round) {
                Probe probe{.fd = pair.fds[0], .drain = true};
                const uint64_t timer = MakeTimer(sched.handle, 1, 1, NoopTimer, nullptr);
                const bool ok = Register(sched.handle, pair.fds[0], KEV_EVENT_READ, ProbeTask, &probe) == KEV_OK &&
                                KEV_TimerStart(timer) == KEV_OK && pair.Send() &&
                                WaitFor([&] { return probe.calls.load() != 0; }) && pair.Send() &&
                                Unregister(sched.handle, pair.fds[0]) == KEV_OK;
                probe.removed.store(true);
                failures.fetch_add(ok && KEV_TimerDestroy(timer) == KEV_OK ? 0 : 1);
                lateCalls.fetch_add(probe.lateCalls.load());
                delivered.fetch_add(probe.calls.load() != 0 ? 1 : 0);
                Drain(pair.fds[0]);
            }
        });
    }
    for (std::thread &thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0u);
    EXPECT_EQ(lateCalls.load(), 0u);
    EXPECT_EQ(delivered.load(), kThreads * kRounds);
    QVPLAT_KEV_THREAD_INFO_S info{};
    ASSERT_EQ(QVPLAT_TestKevThreadInfo(sched.handle, &info), 0u);
    EXPECT_EQ(info.uiDescriptors + info.uiTimers, 0u);
}

}  // namespace
