// Writers in two processes, each with two threads, write the same boot log at once. Every line read
// back through qvdump's reader is whole; each writer's lines come back in the order written; within
// the ring's capacity none is lost, and past it what is left is each writer's most recent lines.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "locallog_dump.h"
#include "locallog_support.h"
#include "qvagent/qv_agent_wire.h"
#include "test_support.h"

namespace {

constexpr int kProcesses = 2;
constexpr int kThreads = 2;
constexpr char kName[] = "shared";

// Writes `lines` lines "w<writer> <seq> <padding>" from this thread; the count that failed.
int WriteLines(int writer, int lines, size_t padding) {
    const std::string pad(padding, 'p');
    // Formatted into an array: gcc 12 at -O3 warns falsely (-Wrestrict) about "w" + std::to_string().
    char tag[16];
    std::snprintf(tag, sizeof tag, "w%d", writer);
    int failed = 0;
    for (int seq = 0; seq < lines; ++seq) {
        if (QV_Agent_SysbootLog(tag, QV_AGENT_BOOTLOG_INFO, "%d %s", seq, pad.c_str()) != 0) ++failed;
    }
    return failed;
}

// One writer process: its threads write, and the exit status says whether every line was stored.
[[noreturn]] void RunWriterProcess(int process, int lines, size_t padding) {
    std::vector<std::thread> threads;
    std::vector<int> failed(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] { failed[t] = WriteLines(process * kThreads + t, lines, padding); });
    }
    for (auto &th : threads) th.join();
    int total = 0;
    for (int f : failed) total += f;
    std::_Exit(total == 0 ? 0 : 1);
}

TEST(LocalLogConcurrency, ProcessesAndThreadsNeitherTearNorLoseLines) {
    struct Case {
        const char *name;
        int linesPerWriter;
        size_t padding;
        bool wraps;
    };
    const Case cases[] = {
        {"within the ring's capacity", 2500, 60, false},
        {"past it, several wraps", 4000, 500, true},
    };
    const std::string path = qvtest::BootLogPath(kName);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ::unlink(path.c_str());
        qvtest::UseBootLog(kName);
        std::vector<pid_t> children;
        for (int p = 0; p < kProcesses; ++p) {
            const pid_t pid = ::fork();
            ASSERT_GE(pid, 0);
            if (pid == 0) RunWriterProcess(p, c.linesPerWriter, c.padding);
            children.push_back(pid);
        }
        for (pid_t pid : children) {
            int status = 0;
            ASSERT_EQ(::waitpid(pid, &status, 0), pid);
            EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
        }

        const std::string bytes = qvtest::ReadFile(path);
        const qvdump::LocalLogRead read =
            qvdump::ReadLocalLog(qvdecode::Bytes(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()));
        EXPECT_TRUE(read.damage.empty()) << read.damage.front();
        EXPECT_EQ(read.wrapEnd != 0, c.wraps);
        std::map<std::string, std::vector<int>> seen;  // per writer, the sequence numbers in order read
        for (const qvdump::LocalLogLine &line : read.lines) {
            const qvdump::LocalLogFields f = qvdump::SplitLocalLogLine(line.bytes);
            ASSERT_TRUE(line.complete && f.hasTime && f.hasTags);
            const std::string text(f.text.begin(), f.text.end());
            int seq = -1;
            size_t used = 0;
            ASSERT_EQ(std::sscanf(text.c_str(), "%d %zn", &seq, &used), 1) << text;
            ASSERT_EQ(text.substr(used), std::string(c.padding, 'p'));  // nothing of another line inside
            seen[std::string(f.process.begin(), f.process.end())].push_back(seq);
        }
        ASSERT_EQ(seen.size(), static_cast<size_t>(kProcesses * kThreads));
        for (const auto &[writer, seqs] : seen) {
            SCOPED_TRACE(writer);
            ASSERT_FALSE(seqs.empty());
            EXPECT_EQ(seqs.back(), c.linesPerWriter - 1);  // the newest line is never lost
            for (size_t i = 1; i < seqs.size(); ++i) ASSERT_EQ(seqs[i], seqs[i - 1] + 1) << "at " << i;
            if (!c.wraps) {
                EXPECT_EQ(seqs.front(), 0);
            }
        }
    }
}

}  // namespace
