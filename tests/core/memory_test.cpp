// The agent's allocator: which allocator each call uses, the accounting that lets tests prove there is
// no leak, failures, and allocation failure at each block of QV_Agent_Init.
#include <gtest/gtest.h>

#include <string>

#include "agent_support.h"
#include "qvplatform_testctl.h"
#include "test_support.h"

namespace {

constexpr char kTraceFile[] = "/opt/zanthe/var/log/qvagent.log";

class AgentMemoryTest : public testing::Test {
protected:
    void SetUp() override {
        qvtest::ReleaseModule();
        QVPLAT_TestSetStarted(1);
        QVPLAT_TestFailAllocation(0);
    }
    void TearDown() override {
        qvtest::ReleaseModule();
        QVPLAT_TestSetStarted(1);
        QVPLAT_TestFailAllocation(0);
        g_bQvagentDbgSwitch = 0;
        EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    }
};

TEST_F(AgentMemoryTest, EachCallUsesTheAllocatorChosenAtInitialisation) {
    struct Case {
        const char *name;
        uint32_t started;
        uint64_t expectPlatformBlocks;
    };
    const Case cases[] = {{"platform runtime started", 1, 2}, {"platform runtime absent", 0, 0}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        QVPLAT_TestSetStarted(c.started);
        ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
        EXPECT_EQ(g_farnoInited, c.started);
        const uint64_t platformBefore = QVPLAT_TestBlocksOutstanding(g_qvagentMemHandle);
        const uint64_t bytesBefore = QVPLAT_TestBytesOutstanding(g_qvagentMemHandle);

        void *a = QV_AGENT_Malloc(100, nullptr);
        void *b = QV_AGENT_MallocWithInit(28, nullptr);
        ASSERT_NE(a, nullptr);
        ASSERT_NE(b, nullptr);
        EXPECT_EQ(qvtest::AgentBlocks(), 2u);
        EXPECT_EQ(QVPLAT_TestBlocksOutstanding(g_qvagentMemHandle) - platformBefore, c.expectPlatformBlocks);
        if (c.started != 0) {
            EXPECT_EQ(QVPLAT_TestBytesOutstanding(g_qvagentMemHandle) - bytesBefore, 128u);
        }

        // Either release function takes a block of either allocation function.
        QV_AGENT_FreeWithInit(a, nullptr);
        QV_AGENT_Free(b, nullptr);
        EXPECT_EQ(qvtest::AgentBlocks(), 0u);
        EXPECT_EQ(QVPLAT_TestBlocksOutstanding(g_qvagentMemHandle), platformBefore);
    }
}

TEST_F(AgentMemoryTest, ChoiceIsKeptWhileBlocksAreOutstanding) {
    QVPLAT_TestSetStarted(0);
    ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
    void *fromSystem = QV_AGENT_Malloc(16, nullptr);
    ASSERT_NE(fromSystem, nullptr);

    QVPLAT_TestSetStarted(1);
    ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
    EXPECT_EQ(g_farnoInited, 0u) << "a block of the system allocator is still out";
    QV_AGENT_Free(fromSystem, nullptr);  // goes back to the system allocator

    ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
    EXPECT_EQ(g_farnoInited, 1u) << "with nothing outstanding the choice follows the platform again";
}

TEST_F(AgentMemoryTest, ReleasingNullDoesNothing) {
    ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
    const uint64_t platformBefore = QVPLAT_TestBlocksOutstanding(g_qvagentMemHandle);
    QV_AGENT_Free(nullptr, nullptr);
    QV_AGENT_FreeWithInit(nullptr, nullptr);
    EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    EXPECT_EQ(QVPLAT_TestBlocksOutstanding(g_qvagentMemHandle), platformBefore);
}

TEST_F(AgentMemoryTest, FailedAllocationIsNullAndTraced) {
    qvtest::ServiceTypeEnv env("memsvc");
    g_bQvagentDbgSwitch = 1;
    ASSERT_EQ(QV_Agent_InitMemHandle(), QV_AGENT_OK);
    QVPLAT_TestFailAllocation(1);
    EXPECT_EQ(QV_AGENT_Malloc(77, nullptr), nullptr);
    QVPLAT_TestFailAllocation(1);
    EXPECT_EQ(QV_AGENT_MallocWithInit(88, nullptr), nullptr);
    EXPECT_EQ(qvtest::AgentBlocks(), 0u);
    const std::string trace = qvtest::ReadFile(kTraceFile);
    EXPECT_NE(trace.find("[memsvc]malloc error, size=77\n"), std::string::npos) << trace;
    EXPECT_NE(trace.find("[memsvc]malloc with init error, size=88\n"), std::string::npos) << trace;
}

// Counts the allocations of a successful QV_Agent_Init, then fails each one in turn. The record and
// its scheduler control block are required: without them the result is null and nothing is left
// allocated. A failure after them only costs the allocator report.
TEST_F(AgentMemoryTest, InitSurvivesFailureOfEachAllocation) {
    QvAgentServiceDesc desc = qvtest::MakeDesc("alloc_svc", 5);
    const uint64_t callsBefore = QVPLAT_TestAllocCalls();
    ASSERT_NE(QV_Agent_Init(&desc), nullptr);
    const uint64_t allocations = QVPLAT_TestAllocCalls() - callsBefore;
    ASSERT_GE(allocations, 3u) << "the record, its control block and the report";
    qvtest::ReleaseModule();

    for (uint64_t n = 1; n <= allocations; ++n) {
        SCOPED_TRACE("failing allocation " + std::to_string(n));
        QVPLAT_TestFailAllocation(n);
        QvAgentModule *m = QV_Agent_Init(&desc);
        QVPLAT_TestFailAllocation(0);
        if (n <= 2) {
            EXPECT_EQ(m, nullptr);
            EXPECT_EQ(g_QvHandle, 0u);
            EXPECT_EQ(qvtest::AgentBlocks(), 0u);
            EXPECT_EQ(QVPLAT_TestBlocksOutstanding(g_qvagentMemHandle), 0u);
            m = QV_Agent_Init(&desc);  // the caller simply tries again
        }
        ASSERT_NE(m, nullptr);
        EXPECT_STREQ(m->szServiceName, "alloc_svc");
        const uint32_t reports = m->astSendList[QV_AGENT_MSG_LOG].uiCount;
        EXPECT_EQ(reports, n <= 2 ? 1u : 0u) << "a failed report is lost, nothing else";
        EXPECT_EQ(qvtest::AgentBlocks(), 2u + reports + qvtest::RestraintEntries(m))
            << "the record, its control block, the queued report and its restraint entry only";
        qvtest::ReleaseModule();
    }
}

}  // namespace
