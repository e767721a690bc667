// The ring of the local log file: where each line lands, the head after it, the wrap and its rules,
// the size limit of a line, and the paths that are refused.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <functional>
#include <string>
#include <vector>

#include "locallog_support.h"
#include "qvagent/qv_agent_wire.h"
#include "test_support.h"

namespace {

constexpr uint32_t kDataMax = QV_PLOG_FILE_MAX - QV_PLOG_HEAD_LEN;
constexpr char kName[] = "ring";

// Puts a file with this head, sparse up to size bytes, where the boot log will write.
void PlaceFile(const QvAgentPlogHead &head, off_t size) {
    const int fd = ::open(qvtest::BootLogPath(kName).c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(::pwrite(fd, &head, sizeof head, 0), static_cast<ssize_t>(sizeof head));
    ASSERT_EQ(::ftruncate(fd, size), 0);
    ::close(fd);
}

bool SameHead(const QvAgentPlogHead &a, const QvAgentPlogHead &b) {
    return a.uiWriteOffset == b.uiWriteOffset && a.uiReserved == b.uiReserved && a.uiWrapEnd == b.uiWrapEnd;
}

TEST(LocalLogRing, LinesLandWhereTheHeadSaysAndWrapByTheRules) {
    struct Case {
        const char *name;
        std::function<void()> before;    // the file as found; the path is set to kName's
        std::vector<uint32_t> lines;     // lengths of the INFO lines written, in order
        uint32_t lastResult;             // of the last line; every earlier one succeeds
        QvAgentPlogHead head;            // after the last line
        off_t size;                      // -1: there is no file
        uint32_t lastAt;                 // data offset of the last line, when it was stored
    };
    const std::string path = qvtest::BootLogPath(kName);
    const auto none = [] {};
    const auto wrapped = [](uint32_t reserved) {
        return [reserved] { PlaceFile({0, reserved, 300}, QV_PLOG_FILE_MAX); };
    };
    const Case cases[] = {
        {"first line into a missing file", none, {100}, 0, {100, 0, 0}, 112, 0},
        {"lines follow each other", none, {100, 60}, 0, {160, 0, 0}, 172, 100},
        {"a line that would end beyond the limit wraps",
         [] { PlaceFile({kDataMax - 50, 0, 0}, QV_PLOG_HEAD_LEN + kDataMax - 50); }, {100}, 0,
         {100, 0, kDataMax - 50}, QV_PLOG_FILE_MAX, 0},
        {"a line that ends exactly at the limit does not wrap",
         [] { PlaceFile({kDataMax - 100, 0, 0}, QV_PLOG_HEAD_LEN + kDataMax - 100); }, {100}, 0, {kDataMax, 0, 0},
         QV_PLOG_FILE_MAX, kDataMax - 100},
        {"a line ending exactly at the wrap end", wrapped(7), {100, 200}, 0, {0, 7, 300}, QV_PLOG_FILE_MAX, 100},
        {"after it the next line goes to the front", wrapped(7), {100, 200, 50}, 0, {50, 7, 300}, QV_PLOG_FILE_MAX, 0},
        {"a line ending beyond the wrap end moves it", wrapped(0), {100, 250}, 0, {0, 0, 350}, QV_PLOG_FILE_MAX, 100},
        {"a head pointing beyond the data counts as none",
         [] { PlaceFile({0xFFFFFFF0u, 0, 0}, QV_PLOG_HEAD_LEN); }, {100}, 0, {100, 0, 0}, 112, 0},
        {"599 characters are stored", none, {599}, 0, {599, 0, 0}, 12 + 599, 0},
        {"600 characters are refused; the file has its head", none, {600}, 1, {0, 0, 0}, 12, 0},
        {"a deleted file is re-created with a fresh head", none, {100, 0, 80}, 0, {80, 0, 0}, 92, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ::unlink(path.c_str());
        qvtest::UseBootLog(kName);
        c.before();
        for (size_t i = 0; i < c.lines.size(); ++i) {
            if (c.lines[i] == 0) {  // 0 stands for deleting the file between two lines
                ::unlink(path.c_str());
                continue;
            }
            EXPECT_EQ(qvtest::WriteInfoLine(c.lines[i], static_cast<char>('a' + i)),
                      i + 1 == c.lines.size() ? c.lastResult : 0u);
        }
        const std::string bytes = qvtest::ReadFile(path);
        EXPECT_EQ(static_cast<off_t>(bytes.size()), c.size);
        const QvAgentPlogHead head = qvtest::ReadHeadOf(path);
        EXPECT_TRUE(SameHead(head, c.head)) << head.uiWriteOffset << " " << head.uiReserved << " " << head.uiWrapEnd;
        if (c.lastResult != 0 || bytes.size() < QV_PLOG_HEAD_LEN + c.lastAt + c.lines.back()) continue;
        const std::string line = bytes.substr(QV_PLOG_HEAD_LEN + c.lastAt, c.lines.back());
        const std::string fill(c.lines.back() - qvtest::kInfoLineOverhead, static_cast<char>('a' + c.lines.size() - 1));
        EXPECT_EQ(line.substr(QV_PLOG_TIME_PREFIX_LEN), "[INFO][P:p]" + fill + "\n");
    }
}

TEST(LocalLogRing, RefusedPathsNeverGetAFile) {
    struct Case {
        const char *name;  // service name given to the boot log
        const char *path;  // the file that must not appear
    };
    const Case cases[] = {
        {"monitor_log.buffer", "/opt/zanthe/var/log/monitor_log.buffer.log"},
        {"x_monitor_log.buffer_y", "/opt/zanthe/var/log/x_monitor_log.buffer_y.log"},
        {"missing/dir", "/opt/zanthe/var/log/missing/dir.log"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        qvtest::UseBootLog(c.name);
        EXPECT_EQ(qvtest::WriteInfoLine(100), 1u);
        EXPECT_EQ(qvtest::WriteInfoLine(100), 1u);
        EXPECT_FALSE(qvtest::FileExists(c.path));
    }
}

// The new file is private and closes on exec. A daemon's standard input may be closed: the file then
// never stays on descriptor 0 (the variable's value at load), and standard input's number is never
// closed by the agent.
TEST(LocalLogRing, NewFileIsPrivateAndNeverStaysOnDescriptorZero) {
    const std::string path = qvtest::BootLogPath(kName);
    ::unlink(path.c_str());
    const int savedStdin = ::dup(0);
    ASSERT_GE(savedStdin, 0);
    ::umask(0);
    qvtest::UseBootLog(kName);
    ::close(0);
    EXPECT_EQ(qvtest::WriteInfoLine(50), 0u);
    const int fd = g_iQvAgentLogFileFd;
    EXPECT_GT(fd, 0);
    EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_EQ(::fcntl(0, F_GETFD), -1);
    EXPECT_EQ(qvtest::WriteInfoLine(50), 0u);
    EXPECT_EQ(g_iQvAgentLogFileFd, fd);  // still held: no second open
    struct stat st {};
    ASSERT_EQ(::stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0640u);
    ::dup2(savedStdin, 0);
    ::close(savedStdin);
    qvtest::UseBootLog(kName);
    EXPECT_NE(::fcntl(0, F_GETFD), -1);  // letting the file go left standard input alone
}

TEST(LocalLogRing, LineLargerThanAnEmptyRingIsRefused) {
    const int fd = ::open("/opt/zanthe/var/log/tiny.log", O_RDWR | O_CREAT | O_TRUNC, 0640);
    ASSERT_GT(fd, 0);
    const auto *line = reinterpret_cast<const uint8_t *>("abc\n");
    EXPECT_EQ(QV_AGENT_PLOG_Buff2File(fd, line, 4, QV_PLOG_HEAD_LEN + 3), QV_AGENT_PLOG_FAILED);
    EXPECT_EQ(QV_AGENT_PLOG_Buff2File(fd, line, 4, QV_PLOG_HEAD_LEN + 4), QV_AGENT_PLOG_OK);
    EXPECT_EQ(QV_AGENT_PLOG_Buff2File(-1, line, 4, QV_PLOG_FILE_MAX), QV_AGENT_PLOG_FAILED);  // cannot lock
    QvAgentPlogHead head{};
    EXPECT_EQ(QV_AGENT_PLOG_ReadHead(fd, &head), 12);
    EXPECT_EQ(head.uiWriteOffset, 4u);  // a file without a head counts as an empty ring
    EXPECT_EQ(head.uiWrapEnd, 0u);
    EXPECT_EQ(QV_AGENT_PLOG_ReadHead(fd, nullptr), -1);
    EXPECT_EQ(QV_AGENT_LOG_Write(-1, 4, line), -1);
    EXPECT_EQ(QV_AGENT_LOG_Write(fd, 4, nullptr), -1);
    EXPECT_EQ(QV_AGENT_LOG_Write(fd, 4, line), 4);
    ::close(fd);
}

}  // namespace
