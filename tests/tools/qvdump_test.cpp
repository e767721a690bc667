// qvdump on files that the agent wrote: wrapped local log files and blackboxes read back in the
// order written, and damaged ones printed as far as they can be read, then refused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "agent_support.h"
#include "qvagent/qv_agent_bootlog.h"
#include "qvagent/qv_agent_wire.h"
#include "test_support.h"

namespace {

struct DumpRun {
    int status;
    std::string out, err;
};

// Runs qvdump (under the build's emulator, if any) with these arguments.
DumpRun RunQvdump(const std::string &args) {
    std::string command;
    std::stringstream emulator(QV_QVDUMP_EMULATOR);  // parts separated by '|'
    for (std::string part; std::getline(emulator, part, '|');) command += part + " ";
    const std::string out = "/opt/zanthe/qvdump.out", err = "/opt/zanthe/qvdump.err";
    command += std::string(QV_QVDUMP_PATH) + " " + args + " >" + out + " 2>" + err;
    const int raw = std::system(command.c_str());
    return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, qvtest::ReadFile(out), qvtest::ReadFile(err)};
}

std::vector<std::string> Lines(const std::string &text) {
    std::vector<std::string> lines;
    std::stringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Sequence number of a text line "<time>[INFO][P:dump]<seq> <padding>".
int SeqOf(const std::string &line) {
    const size_t at = line.find("[P:dump]");
    return at == std::string::npos ? -1 : std::atoi(line.c_str() + at + 8);
}

TEST(Qvdump, WrappedFileComesBackInTheOrderWritten) {
    const std::string path = "/opt/zanthe/var/log/wrapped.log";
    ::unlink(path.c_str());
    ASSERT_GT(QV_Agent_SysbootLogInit("wrapped"), 0);
    const std::string pad(540, 'p');
    constexpr int kLines = 8000;  // about 4.5 MiB of lines: the ring wraps once
    for (int seq = 0; seq < kLines; ++seq) ASSERT_EQ(QV_Agent_SysbootLog("dump", 1, "%d %s", seq, pad.c_str()), 0u);
    ASSERT_NE(qvtest::ReadFile(path).substr(QV_PLOG_HEAD_WRAP_END_OFF, 4), std::string(4, '\0'));

    const DumpRun text = RunQvdump(path);
    EXPECT_EQ(text.status, 0) << text.err;
    const std::vector<std::string> lines = Lines(text.out);
    ASSERT_GT(lines.size(), 7000u);
    EXPECT_EQ(SeqOf(lines.back()), kLines - 1);
    for (size_t i = 1; i < lines.size(); ++i) ASSERT_EQ(SeqOf(lines[i]), SeqOf(lines[i - 1]) + 1) << lines[i];

    const DumpRun json = RunQvdump("--json --kind locallog " + path);
    EXPECT_EQ(json.status, 0) << json.err;
    const std::vector<std::string> objects = Lines(json.out);
    ASSERT_EQ(objects.size(), lines.size());
    const std::string time = lines.back().substr(0, QV_PLOG_TIME_PREFIX_LEN - 1);
    EXPECT_EQ(objects.back(), R"({"time":")" + time + R"(","level":"INFO","process":"dump","text":")" +
                                  std::to_string(kLines - 1) + " " + pad + R"("})");
}

TEST(Qvdump, DamagedHeadIsReportedAfterWhatCouldBeRead) {
    const std::string path = "/opt/zanthe/var/log/damaged.log";
    ::unlink(path.c_str());
    ASSERT_GT(QV_Agent_SysbootLogInit("damaged"), 0);
    for (int i = 0; i < 3; ++i) ASSERT_EQ(QV_Agent_SysbootLog("dump", 3, "line %d", i), 0u);
    QvAgentPlogHead head{};
    ASSERT_EQ(QV_AGENT_PLOG_ReadHead(g_iQvAgentLogFileFd, &head), 12);
    head.uiWriteOffset = 0x00FFFFFFu;
    ASSERT_EQ(QV_AGENT_PLOG_WriteHead(g_iQvAgentLogFileFd, &head), 12);

    const DumpRun run = RunQvdump(path);
    EXPECT_EQ(run.status, 3);
    const std::vector<std::string> lines = Lines(run.out);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[2].substr(QV_PLOG_TIME_PREFIX_LEN), "[ERROR][P:dump]line 2");
    EXPECT_NE(run.err.find("damaged head: uiWriteOffset 16777215 lies beyond"), std::string::npos) << run.err;
}

// The log_id of each record line of a blackbox dump, and whether it is marked read.
std::vector<std::pair<int, bool>> BoxRecords(const std::vector<std::string> &lines) {
    std::vector<std::pair<int, bool>> out;
    for (const std::string &line : lines) {
        const size_t at = line.find("\"log_id\":");
        if (at == std::string::npos) continue;
        out.emplace_back(std::atoi(line.c_str() + at + 9), line.find("\"state\":\"read\"") != std::string::npos);
    }
    return out;
}

// A blackbox that the agent wrote, wrapped once, with a datagram read and not acknowledged: its
// records come back oldest first with the read ones marked; a damaged record head stops the dump.
TEST(Qvdump, BlackboxRecordsComeBackOldestFirst) {
    qvtest::ReleaseModule();
    const std::string path = "/opt/zanthe/var/LOG_dumpbox_blackbox";
    ::unlink(path.c_str());
    qvtest::ServiceTypeEnv env("dumpbox");
    QvAgentModule *m = qvtest::InitWithoutScheduler(qvtest::MakeDesc("dumpsvc"));
    ASSERT_NE(m, nullptr);
    ASSERT_EQ(m->bBlackboxEnable, 1u);
    // Everything written so far is read and acknowledged, so the next records wrap around the end.
    const auto drain = [&](bool acknowledge) {
        std::vector<uint8_t> buf(QV_WIRE_SEND_BUFFER_LEN);
        for (uint32_t got = 1; got != 0;) {
            uint32_t space = static_cast<uint32_t>(buf.size());
            m->uiLogSendCnt = 0;
            ASSERT_EQ(QV_AGENT_ReadBlackbox(buf.data(), &space, &got, m), QV_AGENT_OK);
            if (!acknowledge) return;
        }
        ASSERT_EQ(QV_AGENT_ClearReadedBoxData(), QV_AGENT_OK);
    };
    for (int id = 1; id < 1500; ++id) ASSERT_EQ(QV_Agent_ReportLogById(4, id, "port %u down", 7u), 0u);
    drain(true);
    for (int id = 1500; id < 2100; ++id) ASSERT_EQ(QV_Agent_ReportLogById(4, id, "port %u down", 7u), 0u);
    drain(false);  // one datagram's worth
    const QvAgentBoxHead head = [] {
        QvAgentBoxHead h{};
        QV_AGENT_ReadBlackboxHead(g_pstQvAgentLogBox, &h);
        return h;
    }();
    ASSERT_LT(head.uiWritePos, head.uiCommitPos) << "the records wrap around the end";

    const DumpRun run = RunQvdump(path);
    EXPECT_EQ(run.status, 0) << run.err;
    const std::vector<std::pair<int, bool>> records = BoxRecords(Lines(run.out));
    ASSERT_EQ(records.size(), 600u);
    const uint32_t perRecord = (head.uiReadedLen + head.uiUsedLen) / 600;  // the records are of one size
    const auto readCount = static_cast<int>(head.uiReadedLen / perRecord);
    ASSERT_GT(readCount, 0);
    for (int i = 0; i < 600; ++i) {
        EXPECT_EQ(records[static_cast<size_t>(i)], std::make_pair(1500 + i, i < readCount)) << i;
    }
    EXPECT_NE(run.out.find("\"readed_len\":" + std::to_string(head.uiReadedLen)), std::string::npos);

    const uint32_t damagedAt = head.uiCommitPos;  // the oldest record's head
    const uint8_t zero = 0;
    ASSERT_EQ(QV_AGENT_BoxWrite(g_pstQvAgentLogBox->iFd, QV_BOX_HEAD_LEN + damagedAt + QV_BOX_REC_MAGIC_OFF, 1, &zero), 1);
    const DumpRun damaged = RunQvdump("--kind blackbox " + path);
    EXPECT_EQ(damaged.status, 3);
    EXPECT_TRUE(BoxRecords(Lines(damaged.out)).empty());
    EXPECT_NE(damaged.err.find("no record head at data position " + std::to_string(damagedAt)), std::string::npos)
        << damaged.err;
    qvtest::ReleaseModule();
}

TEST(Qvdump, BadInvocationsAndFilesSayWhy) {
    const std::string shortFile = "/opt/zanthe/short.log";
    const std::string unknown = "/opt/zanthe/unknown.bin";
    ::close(::open(shortFile.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640));
    ASSERT_EQ(::truncate(shortFile.c_str(), 5), 0);
    FILE *f = std::fopen(unknown.c_str(), "w");
    std::fputs("not a file of the agent", f);
    std::fclose(f);
    struct Case {
        std::string args;
        int status;
        const char *says;
    };
    const Case cases[] = {
        {"--help", 0, ""},
        {"", 1, "no file named"},
        {"--kind nothing x", 1, "unknown kind 'nothing'"},
        {"--frobnicate x", 1, "unknown option"},
        {"/opt/zanthe/none.log", 2, "cannot read"},
        {unknown, 2, "name it with --kind"},
        {"--kind=locallog " + shortFile, 3, "fewer than the 12-byte head"},
        {"--kind blackbox " + shortFile, 3, "shorter than the head"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.args);
        const DumpRun run = RunQvdump(c.args);
        EXPECT_EQ(run.status, c.status);
        EXPECT_NE(run.err.find(c.says), std::string::npos) << run.err;
    }
    EXPECT_NE(RunQvdump("--help").out.find("--kind KIND"), std::string::npos);
}

}  // namespace
