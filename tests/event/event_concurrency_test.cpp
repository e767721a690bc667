// Service threads sending log objects at once: every record reaches the list exactly once and in
// each thread's order; with a small limit, accepted plus refused equals sent.
#include <atomic>
#include <map>
#include <thread>
#include <vector>

#include "module_fixture.h"

namespace {

constexpr uint32_t kThreads = 8;
constexpr uint32_t kPerThread = 10000;

using EventConcurrency = AgentTest;

// Each thread sends kPerThread logs with message id = thread and one parameter = sequence number.
std::vector<uint32_t> SendFromThreads(QvAgentModule *module) {
    std::vector<uint32_t> accepted(kThreads, 0);
    std::atomic<uint32_t> ready{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ready.fetch_add(1);
            while (ready.load() < kThreads) std::this_thread::yield();
            for (uint32_t seq = 0; seq < kPerThread; ++seq) {
                QvAgentObj *obj = nullptr;
                if (QV_Agent_ObjCreate(1, t, &obj, module) != QV_AGENT_OK) continue;
                uint32_t value = seq;
                QV_Agent_AddPara(obj, 6, sizeof value, &value, module);
                if (QV_Agent_Send(obj, module) == QV_AGENT_OK) ++accepted[t];
            }
        });
    }
    for (std::thread &th : threads) th.join();
    return accepted;
}

TEST_F(EventConcurrency, EveryRecordIsQueuedOnceInEachThreadsOrder) {
    module_->uiListLimit = kThreads * kPerThread;
    const std::vector<uint32_t> accepted = SendFromThreads(module_);
    for (uint32_t t = 0; t < kThreads; ++t) EXPECT_EQ(accepted[t], kPerThread) << "thread " << t;

    std::vector<uint32_t> next(kThreads, 0);
    uint32_t total = 0;
    for (const qvtest::Bytes &bytes : qvtest::ListRecords(module_, QV_AGENT_MSG_LOG)) {
        const qvtest::DecodedRecord r = qvtest::DecodeRecord(bytes);
        ASSERT_TRUE(r.ok) << r.error;
        ASSERT_LT(r.msgId, kThreads);
        ASSERT_EQ(r.params.size(), 1u);
        EXPECT_EQ(r.params[0].U32(), next[r.msgId]++) << "thread " << r.msgId;
        ++total;
    }
    EXPECT_EQ(total, kThreads * kPerThread);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, total);
}

TEST_F(EventConcurrency, WithASmallLimitAcceptedPlusRefusedIsSent) {
    module_->uiListLimit = 999;
    const std::vector<uint32_t> accepted = SendFromThreads(module_);
    uint32_t sum = 0;
    for (uint32_t n : accepted) sum += n;
    EXPECT_EQ(sum, 1000u) << "the limit admits limit + 1 records";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, sum);
    EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_ + sum) << "refused records leave nothing behind";
}

}  // namespace

namespace {

// Service threads report diagnostic logs while the timer thread ages the restraint: every report is
// either queued or counted as dropped in a summary, never both and never lost.
TEST_F(EventConcurrency, RestrainedAndQueuedAddUpToReported) {
    constexpr uint32_t kIds = 4;
    constexpr uint32_t kReports = 4000;  // per thread
    constexpr int kTicksWhileSending = 200;
    module_->uiListLimit = 1u << 20;
    std::atomic<bool> sending{true};
    std::thread timer([&] {
        for (int i = 0; i < kTicksWhileSending || sending.load(); ++i) {
            QV_AGENT_Check_DiagRestrainTree(module_);
            std::this_thread::yield();
        }
    });
    std::vector<std::thread> threads;
    std::atomic<uint32_t> failed{0};
    for (uint32_t t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (uint32_t i = 0; i < kReports; ++i) {
                QvAgentObj *obj = nullptr;
                const uint32_t id = 0x7000 + (i + t) % kIds;
                if (QV_Agent_ObjCreate(QV_AGENT_OBJ_DIAG, id, &obj, module_) != QV_AGENT_OK ||
                    QV_Agent_Send(obj, module_) != QV_AGENT_OK) {
                    failed.fetch_add(1);
                }
            }
        });
    }
    for (std::thread &th : threads) th.join();
    sending = false;
    timer.join();
    for (int i = 0; i < 310; ++i) QV_AGENT_Check_DiagRestrainTree(module_);  // end every restraint

    uint64_t queued = 0;
    uint64_t dropped = 0;
    for (const qvtest::Bytes &bytes : qvtest::ListRecords(module_, QV_AGENT_MSG_LOG)) {
        const qvtest::DecodedRecord r = qvtest::DecodeRecord(bytes);
        ASSERT_TRUE(r.ok) << r.error;
        if (r.msgId == QV_AGENT_RESTRAINT_SUMMARY_ID) {
            ASSERT_EQ(r.params.size(), 3u);
            dropped += r.params[1].U32();
        } else if (r.msgId >= 0x7000 && r.msgId < 0x7000 + kIds) {
            ++queued;
        }
    }
    EXPECT_EQ(failed.load(), 0u);
    EXPECT_EQ(queued + dropped, uint64_t{kThreads} * kReports);
}

}  // namespace
