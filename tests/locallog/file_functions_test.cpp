// The local log file's helpers at their edges: path splitting and resolving, opening, locking, the
// head and plain writes, and the file-state questions.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "qvagent/qv_agent_bootlog.h"
#include "qvagent/qv_agent_wire.h"

namespace {

constexpr char kDir[] = "/opt/zanthe/var/log";

TEST(LocalLogPath, SplitAtTheLastSeparator) {
    struct Case {
        const char *path;
        uint32_t dirSize, nameSize;
        uint32_t result;
        const char *dir, *name;
    };
    const Case cases[] = {
        {"/opt/a/b.log", 256, 128, 1, "/opt/a/", "b.log"},
        {"c:\\logs\\b.log", 256, 128, 1, "c:\\logs\\", "b.log"},
        {"b.log", 256, 128, 1, "", "b.log"},
        {"/b.log", 256, 128, 1, "/", "b.log"},
        {"/opt/a/", 256, 128, 1, "/opt/a/", ""},
        {"", 256, 128, 0, "", ""},
        {"/opt/a/b.log", 7, 128, 0, "", ""},   // "/opt/a/" needs 8 bytes
        {"/opt/a/b.log", 8, 128, 1, "/opt/a/", "b.log"},
        {"/opt/a/b.log", 256, 5, 0, "/opt/a/", ""},  // "b.log" needs 6 bytes
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        char dir[256] = "junk";
        char name[128] = "junk";
        EXPECT_EQ(QV_AGENT_SplitPathFileName(c.path, dir, c.dirSize, name, c.nameSize), c.result);
        EXPECT_STREQ(dir, c.dir);
        EXPECT_STREQ(name, c.name);
    }
    char dir[8], name[8];
    EXPECT_EQ(QV_AGENT_SplitPathFileName(nullptr, dir, sizeof dir, name, sizeof name), 0u);
    EXPECT_EQ(QV_AGENT_SplitPathFileName("/a/b", nullptr, 8, name, sizeof name), 0u);
}

TEST(LocalLogPath, ResolveTheDirectory) {
    struct Case {
        const char *path;
        uint32_t outSize;
        uint32_t result;
        const char *out;
    };
    const Case cases[] = {
        {"/opt/zanthe/var/log/../log/x.log", 64, QV_AGENT_PATH_OK, "/opt/zanthe/var/log/x.log"},
        {"/opt/zanthe/var/log/x.log", 26, QV_AGENT_PATH_OK, "/opt/zanthe/var/log/x.log"},
        {"/opt/zanthe/var/log/x.log", 25, QV_AGENT_PATH_ERR_FAILED, ""},
        {"/opt/zanthe/var/log/x.log", 0, QV_AGENT_PATH_ERR_NO_ROOM, "unchanged"},
        {"/opt/zanthe/missing/x.log", 64, QV_AGENT_PATH_ERR_FAILED, "unchanged"},
        {"x.log", 64, QV_AGENT_PATH_ERR_FAILED, "unchanged"},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        char out[64] = "unchanged";
        EXPECT_EQ(QV_AGENT_GetAbsolutePathAndFileName(c.path, out, c.outSize), c.result);
        EXPECT_STREQ(out, c.out);
    }
}

TEST(LocalLogFile, OpenAnswersByCause) {
    struct Case {
        const char *path;
        uint32_t flags;
        uint32_t result;
        bool opened;
    };
    ::mkdir("/opt/zanthe/var/log/sub", 0755);
    const Case cases[] = {
        {"/opt/zanthe/var/log/open.log", O_RDWR | O_CREAT, QV_AGENT_PLOG_OK, true},
        {"/opt/zanthe/var/log/monitor_log.buffer", O_RDWR | O_CREAT, QV_AGENT_PLOG_FAILED, false},
        {"/opt/zanthe/var/nowhere/open.log", O_RDWR | O_CREAT, QV_AGENT_PLOG_FAILED, false},
        {"/opt/zanthe/var/log/absent.log", O_RDWR, QV_AGENT_PLOG_ERR_OPEN, false},
        {"/opt/zanthe/var/log/sub", O_RDWR, QV_AGENT_PLOG_ERR_OPEN, false},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path);
        int fd = 0;
        EXPECT_EQ(QV_AGENT_LOG_OpenFile(c.path, c.flags, &fd), c.result);
        EXPECT_EQ(fd > 0, c.opened);
        if (c.opened) {
            EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
            ::close(fd);
        }
    }
    EXPECT_EQ(QV_AGENT_LOG_OpenFile(nullptr, O_RDWR, nullptr), QV_AGENT_PLOG_FAILED);
}

TEST(LocalLogFile, LowLevelCallsRefuseBadDescriptorsAndPointers) {
    const QvAgentPlogHead head{1, 2, 3};
    QvAgentPlogHead read{};
    EXPECT_EQ(QV_AGENT_LOG_Write(-1, 1, "x"), -1);
    EXPECT_EQ(QV_AGENT_LOG_Write(1, 1, nullptr), -1);
    EXPECT_EQ(QV_AGENT_PLOG_WriteHead(-1, &head), -1);
    EXPECT_EQ(QV_AGENT_PLOG_ReadHead(-1, &read), -1);
    EXPECT_EQ(QV_AGENT_LOG_SetCloexecFlag(-1), -1);
    EXPECT_EQ(QV_AGENT_DBG_LockReg(-1, F_SETLK, F_WRLCK, 0, SEEK_SET, 0), QV_AGENT_PLOG_ERR_LOCK);
    EXPECT_EQ(QV_AGENT_LOG_CheckAndCreateFile(nullptr, &g_iQvAgentLogFileFd), QV_AGENT_PLOG_FAILED);
    EXPECT_EQ(QV_AGENT_PLOG_Buff2File(-1, reinterpret_cast<const uint8_t *>("x\n"), 2, QV_PLOG_FILE_MAX),
              QV_AGENT_PLOG_FAILED);

    const std::string path = std::string(kDir) + "/head.log";
    const int fd = ::open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640);
    ASSERT_GT(fd, 0);
    EXPECT_EQ(QV_AGENT_LOG_Write(fd, 5, "abcde"), 5);
    EXPECT_EQ(QV_AGENT_PLOG_ReadHead(fd, &read), 5);  // a short head
    EXPECT_EQ(QV_AGENT_PLOG_WriteHead(fd, &head), 12);
    EXPECT_EQ(QV_AGENT_PLOG_ReadHead(fd, &read), 12);
    EXPECT_EQ(read.uiWriteOffset, 1u);
    EXPECT_EQ(read.uiWrapEnd, 3u);
    EXPECT_EQ(QV_AGENT_DBG_LockReg(fd, F_SETLKW, F_WRLCK, 0, SEEK_SET, 0), QV_AGENT_PLOG_OK);
    EXPECT_EQ(QV_AGENT_DBG_LockReg(fd, F_SETLK, F_UNLCK, 0, SEEK_SET, 0), QV_AGENT_PLOG_OK);
    // a ring too small for the line
    EXPECT_EQ(QV_AGENT_PLOG_Buff2File(fd, reinterpret_cast<const uint8_t *>("abc\n"), 4, 15), QV_AGENT_PLOG_FAILED);
    EXPECT_EQ(QV_AGENT_PLOG_Buff2File(fd, reinterpret_cast<const uint8_t *>("abc\n"), 4, 16), QV_AGENT_PLOG_OK);
    ::close(fd);
}

TEST(LocalLogFile, ExistAndEmpty) {
    const std::string empty = std::string(kDir) + "/empty.log";
    const std::string full = std::string(kDir) + "/full.log";
    ::close(::open(empty.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640));
    const int fd = ::open(full.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0640);
    ASSERT_EQ(::write(fd, "x", 1), 1);
    ::close(fd);
    struct Case {
        const char *path;
        uint32_t exists, isEmpty;
    };
    const Case cases[] = {{empty.c_str(), 1, 1}, {full.c_str(), 1, 0}, {"/opt/zanthe/none", 0, 0}, {nullptr, 0, 0}};
    for (const Case &c : cases) {
        EXPECT_EQ(QV_AGENT_IsFileExist(c.path), c.exists) << (c.path ? c.path : "null");
        EXPECT_EQ(QV_AGENT_IsFileEmpty(c.path), c.isEmpty) << (c.path ? c.path : "null");
    }
}

}  // namespace
