// The local log file's helpers at their edges: splitting and resolving paths, and opening the file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qvagent/qv_agent_bootlog.h"

namespace {

TEST(LocalLogPath, SplitAtTheLastSeparator) {
    struct Case {
        const char *path;
        uint32_t dirSize, nameSize, result;
        const char *dir, *name;
    };
    const Case cases[] = {
        {"/opt/a/b.log", 256, 128, 1, "/opt/a/", "b.log"},
        {"c:\\logs\\b.log", 256, 128, 1, "c:\\logs\\", "b.log"},
        {"b.log", 256, 128, 1, "", "b.log"},
        {"/b.log", 256, 128, 1, "/", "b.log"},
        {"/opt/a/", 256, 128, 1, "/opt/a/", ""},
        {"", 256, 128, 0, "", ""},
        {nullptr, 256, 128, 0, "", ""},
        {"/opt/a/b.log", 7, 128, 0, "", ""},  // "/opt/a/" needs 8 bytes
        {"/opt/a/b.log", 8, 128, 1, "/opt/a/", "b.log"},
        {"/opt/a/b.log", 256, 5, 0, "/opt/a/", ""},  // "b.log" needs 6 bytes
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path != nullptr ? c.path : "null");
        char dir[256] = "junk";
        char name[128] = "junk";
        EXPECT_EQ(QV_AGENT_SplitPathFileName(c.path, dir, c.dirSize, name, c.nameSize), c.result);
        EXPECT_STREQ(dir, c.dir);
        EXPECT_STREQ(name, c.name);
    }
}

TEST(LocalLogPath, ResolveTheDirectory) {
    struct Case {
        const char *path;
        uint32_t outSize, result;
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
    ::mkdir("/opt/zanthe/var/log/sub", 0755);
    struct Case {
        const char *path;
        uint32_t flags, result;
    };
    const Case cases[] = {
        {"/opt/zanthe/var/log/open.log", O_RDWR | O_CREAT, QV_AGENT_PLOG_OK},
        {"/opt/zanthe/var/log/monitor_log.buffer", O_RDWR | O_CREAT, QV_AGENT_PLOG_FAILED},
        {"/opt/zanthe/var/nowhere/open.log", O_RDWR | O_CREAT, QV_AGENT_PLOG_FAILED},
        {"/opt/zanthe/var/log/absent.log", O_RDWR, QV_AGENT_PLOG_ERR_OPEN},
        {"/opt/zanthe/var/log/sub", O_RDWR, QV_AGENT_PLOG_ERR_OPEN},
        {nullptr, O_RDWR, QV_AGENT_PLOG_FAILED},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.path != nullptr ? c.path : "null");
        int fd = 0;
        EXPECT_EQ(QV_AGENT_LOG_OpenFile(c.path, c.flags, &fd), c.result);
        EXPECT_EQ(fd > 0, c.result == QV_AGENT_PLOG_OK);
        EXPECT_EQ(QV_AGENT_IsFileExist(c.path), c.result == QV_AGENT_PLOG_OK || c.path == cases[4].path ? 1u : 0u);
        if (fd <= 0) continue;
        EXPECT_NE(::fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
        EXPECT_EQ(QV_AGENT_IsFileEmpty(c.path), 1u);
        EXPECT_EQ(::write(fd, "x", 1), 1);
        EXPECT_EQ(QV_AGENT_IsFileEmpty(c.path), 0u);
        ::close(fd);
    }
    const int plain = ::dup(STDERR_FILENO);  // a copy does not close on exec until told to
    EXPECT_EQ(QV_AGENT_LOG_SetCloexecFlag(plain), 0);
    EXPECT_NE(::fcntl(plain, F_GETFD) & FD_CLOEXEC, 0);
    ::close(plain);
    EXPECT_LT(QV_AGENT_LOG_SetCloexecFlag(-1), 0);
}

}  // namespace
