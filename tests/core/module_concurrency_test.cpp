// Concurrent use of the agent: threads racing into QV_Agent_Init, trace lines written from many
// threads at once, and the setters running while services report and the transport sends.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "agent_support.h"
#include "transport/scheduler.h"
#include "qvplatform_testctl.h"
#include "test_support.h"

namespace {

constexpr int kThreads = 8;

// Spins until every thread has arrived, so the calls after it overlap as much as possible.
class StartLine {
public:
    explicit StartLine(int parties) : waiting_(parties) {}
    void Arrive() {
        waiting_.fetch_sub(1);
        while (waiting_.load() > 0) std::this_thread::yield();
    }

private:
    std::atomic<int> waiting_;
};

TEST(ModuleConcurrency, ThreadsRacingIntoInitAllReceiveTheOneRecord) {
    for (int round = 0; round < 20; ++round) {
        qvtest::ReleaseModule();
        StartLine start(kThreads);
        std::vector<QvAgentModule *> got(kThreads, nullptr);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t) {
            threads.emplace_back([&, t] {
                QvAgentServiceDesc desc = qvtest::MakeDesc("racer" + std::to_string(t), static_cast<uint32_t>(t));
                start.Arrive();
                got[static_cast<size_t>(t)] = QV_Agent_Init(&desc);
            });
        }
        for (std::thread &th : threads) th.join();
        ASSERT_NE(got[0], nullptr);
        for (QvAgentModule *m : got) EXPECT_EQ(m, got[0]);
        EXPECT_EQ(qvtest::AgentBlocks(), 4u) << "one record with its control block, allocator report and restraint entry, round "
                                             << round;
        EXPECT_EQ(QVPLAT_TestKevLiveThreads(), 1u) << "one scheduler thread";
    }
    qvtest::ReleaseModule();
    EXPECT_EQ(qvtest::AgentBlocks(), 0u);
}

TEST(ModuleConcurrency, TraceLinesOfManyThreadsNeverInterleave) {
    constexpr char kTraceFile[] = "/opt/zanthe/var/log/qvagent.log";
    constexpr int kLines = 200;
    ::unlink(kTraceFile);
    qvtest::ServiceTypeEnv env("conc");
    g_bQvagentDbgSwitch = 1;
    StartLine start(kThreads);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            start.Arrive();
            for (int i = 0; i < kLines; ++i) QV_AGENT_WriteToFile("thread %d line %d %s", t, i, std::string(300, 'x').c_str());
        });
    }
    for (std::thread &th : threads) th.join();
    g_bQvagentDbgSwitch = 0;

    std::istringstream in(qvtest::ReadFile(kTraceFile));
    std::string line;
    std::vector<int> next(kThreads, 0);
    int total = 0;
    while (std::getline(in, line)) {
        int t = -1;
        int i = -1;
        const size_t at = line.find("[conc]thread ");
        ASSERT_NE(at, std::string::npos) << line;
        ASSERT_EQ(std::sscanf(line.c_str() + at, "[conc]thread %d line %d", &t, &i), 2) << line;
        ASSERT_TRUE(t >= 0 && t < kThreads);
        EXPECT_EQ(i, next[static_cast<size_t>(t)]++) << "lines of one thread stay in order";
        EXPECT_EQ(line.size() - line.rfind(' ') - 1, 300u) << "line is whole";
        ++total;
    }
    EXPECT_EQ(total, kThreads * kLines);
}

// The addresses, the list limit and the mesh states change under the transport's feet: two threads
// report, a third runs timer ticks (sends, socket re-creation, discovery), a fourth calls the setters.
// Run under the thread sanitizer, this is the check that every such field is accessed race-free.
TEST(ModuleConcurrency, SettersRunWhileThreadsReportAndTheTransportSends) {
    qvtest::ReleaseModule();
    qvtest::DevmLibraries devm("full");
    ASSERT_TRUE(devm.ok());
    QvAgentModule *m = qvtest::InitWithoutScheduler(qvtest::MakeDesc("setters"));
    ASSERT_NE(m, nullptr);
    constexpr int kReports = 2000;
    std::atomic<bool> done{false};
    std::atomic<int> accepted{0};
    StartLine start(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            start.Arrive();
            for (int i = 1; i <= kReports; ++i) {
                const uint32_t rc = QV_Agent_ReportLogById(4, static_cast<uint32_t>(i), "port %u down", 7u);
                EXPECT_TRUE(rc == QV_AGENT_OK || rc == QV_AGENT_ERR_LIST_FULL) << rc;
                if (rc == QV_AGENT_OK) accepted.fetch_add(1);
            }
        });
    }
    threads.emplace_back([&] {
        start.Arrive();
        while (!done.load()) QV_AGENT_SendTimerProc(0, 0, m);
    });
    threads.emplace_back([&] {
        start.Arrive();
        for (uint32_t i = 0; !done.load(); ++i) {
            EXPECT_EQ(QV_Agent_SetMainBoardIP(m, htonl(INADDR_LOOPBACK + (i & 1))), QV_AGENT_OK);
            EXPECT_EQ(QV_Agent_SetLocalIP(m, htonl(INADDR_LOOPBACK + 2 + (i & 1))), QV_AGENT_OK);
            const uint32_t limit = (i & 1) != 0 ? 50 : 100000;
            EXPECT_EQ(QV_Agent_SetAttribute(m, QV_AGENT_ATTR_LIST_LIMIT, &limit), QV_AGENT_OK);
        }
    });
    threads[0].join();
    threads[1].join();
    done.store(true);
    threads[2].join();
    threads[3].join();
    EXPECT_GT(accepted.load(), 0);
    // What waits on the log list was accepted (or is the allocator report of the start).
    EXPECT_LE(m->astSendList[QV_AGENT_MSG_LOG].uiCount, static_cast<uint32_t>(accepted.load()) + 1);
    qvtest::ReleaseModule();
    EXPECT_EQ(qvtest::AgentBlocks(), 0u);
}

}  // namespace
