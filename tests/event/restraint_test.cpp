// The restraint of repeated diagnostic logs, driven tick by tick: cool ids are forgotten, an id hot for
// nine ticks is silenced for 300, and its summary reports what was dropped.
#include <cstring>
#include <string>
#include <vector>

#include "module_fixture.h"

namespace {

class RestraintTest : public AgentTest {
protected:
    // Sends n diagnostic logs of id through event objects; every send must report success.
    void SendDiag(uint32_t id, uint32_t n) {
        for (uint32_t i = 0; i < n; ++i) {
            QvAgentObj *obj = Create(QV_AGENT_OBJ_DIAG, id);
            ASSERT_NE(obj, nullptr);
            ASSERT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK);
        }
    }
    uint32_t QueuedOf(uint32_t id) {
        uint32_t n = 0;
        for (const auto &r : Queued(QV_AGENT_MSG_LOG)) n += r.msgId == id ? 1 : 0;
        return n;
    }
    const QvAgentDiagStatis *Statis(uint32_t id) { return QV_AGENT_DiagNodeFind(id, &module_->stDiagTree); }
    void Tick() { ASSERT_EQ(QV_AGENT_Check_DiagRestrainTree(module_), QV_AGENT_OK); }
    std::vector<qvtest::DecodedRecord> Summaries() {
        std::vector<qvtest::DecodedRecord> out;
        for (auto &r : Queued(QV_AGENT_MSG_LOG)) {
            if (r.msgId == QV_AGENT_RESTRAINT_SUMMARY_ID) out.push_back(r);
        }
        return out;
    }
};

TEST_F(RestraintTest, CoolIdIsNeverRestrainedAndForgottenEachTick) {
    constexpr uint32_t kId = 0x1111;
    for (int tick = 0; tick < 20; ++tick) {
        SendDiag(kId, 49);
        ASSERT_NE(Statis(kId), nullptr);
        EXPECT_EQ(Statis(kId)->uiSendCnt, 49u);
        Tick();
        EXPECT_EQ(Statis(kId), nullptr) << "a cool tick at level 0 forgets the id, tick " << tick;
    }
    EXPECT_EQ(QueuedOf(kId), 20u * 49u);
}

TEST_F(RestraintTest, NineHotTicksStartARestraintOfThreeHundredTicks) {
    constexpr uint32_t kId = 0x2222;
    for (uint32_t tick = 1; tick <= 9; ++tick) {
        SendDiag(kId, 50);
        Tick();
        ASSERT_NE(Statis(kId), nullptr);
        EXPECT_EQ(Statis(kId)->uiHotLevel, tick);
        EXPECT_EQ(Statis(kId)->bRestrained, 0u);
    }
    Tick();  // the tenth tick restrains whatever its count
    ASSERT_NE(Statis(kId), nullptr);
    EXPECT_EQ(Statis(kId)->bRestrained, 1u);
    const uint32_t queuedBefore = QueuedOf(kId);
    EXPECT_EQ(queuedBefore, 450u);

    SendDiag(kId, 1234);  // dropped, and the caller still sees success
    EXPECT_EQ(QueuedOf(kId), queuedBefore);
    EXPECT_EQ(Statis(kId)->uiSuppressCnt, 1234u);
    for (int tick = 1; tick < 300; ++tick) Tick();
    ASSERT_NE(Statis(kId), nullptr) << "still restrained after 299 ticks";
    EXPECT_TRUE(Summaries().empty());
    Tick();
    EXPECT_EQ(Statis(kId), nullptr) << "forgotten after the 300th tick";

    const auto summaries = Summaries();
    ASSERT_EQ(summaries.size(), 1u);
    const qvtest::DecodedRecord &s = summaries[0];
    EXPECT_EQ(s.kind, QV_AGENT_OBJ_DIAG);
    ASSERT_EQ(s.params.size(), 3u);
    EXPECT_EQ(s.params[0].U32(), kId);
    EXPECT_EQ(s.params[1].U32(), 1234u);
    EXPECT_EQ(s.params[2].U32(), 300u);

    SendDiag(kId, 1);
    EXPECT_EQ(QueuedOf(kId), queuedBefore + 1) << "the id starts again from level 0";
}

TEST_F(RestraintTest, CoolTicksLowerTheLevel) {
    constexpr uint32_t kId = 0x3333;
    const struct {
        uint32_t records;
        uint32_t expectLevel;
    } ticks[] = {{50, 1}, {50, 2}, {10, 1}, {50, 2}, {0, 1}, {0, 0}};
    for (const auto &t : ticks) {
        SendDiag(kId, t.records);
        Tick();
        ASSERT_NE(Statis(kId), nullptr);
        EXPECT_EQ(Statis(kId)->uiHotLevel, t.expectLevel);
    }
    Tick();
    EXPECT_EQ(Statis(kId), nullptr);
}

TEST_F(RestraintTest, IdsAreCountedIndependently) {
    constexpr uint32_t kHot = 0x4444;
    constexpr uint32_t kCalm = 0x4445;
    for (int tick = 0; tick < 10; ++tick) {
        SendDiag(kHot, 50);
        SendDiag(kCalm, 5);
        Tick();
    }
    ASSERT_NE(Statis(kHot), nullptr);
    EXPECT_EQ(Statis(kHot)->bRestrained, 1u);
    SendDiag(kHot, 7);
    SendDiag(kCalm, 5);
    EXPECT_EQ(QueuedOf(kHot), 500u);
    EXPECT_EQ(QueuedOf(kCalm), 55u);
}

TEST_F(RestraintTest, DeleteForgetsEveryId) {
    for (uint32_t id = 1; id <= 100; ++id) SendDiag(id * 7919, 1);
    EXPECT_NE(module_->stDiagTree.pstFirst, nullptr);
    EXPECT_EQ(QV_AGENT_DiagNodeDelete(module_), QV_AGENT_OK);
    EXPECT_EQ(module_->stDiagTree.pstFirst, nullptr);
    EXPECT_EQ(module_->stDiagTree.pstRoot, nullptr);
    qvtest::DrainLists(module_);
    EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_ - 1) << "the allocator report's entry went too";
}

}  // namespace
