// Concurrency test of the stand-in's scheduler framework: removal, timer destruction and stopping from
// other threads racing callbacks in progress. Run under ThreadSanitizer in the thread build.
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

}  // namespace
