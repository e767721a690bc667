// The boot log and the line format: the path it names, level names, the time prefix in local time, and
// the bounds of the caller's text and of the whole line.
#include <gtest/gtest.h>
#include <sys/time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <ctime>
#include <string>

#include "locallog_support.h"
#include "qvagent/qv_agent_wire.h"
#include "test_support.h"

namespace {

// "YYMMDD-hh:mm:ss" of a UTC time moved by offset seconds.
std::string Stamp(time_t t, long offset) {
    const time_t shifted = t + offset;
    tm utc{};
    ::gmtime_r(&shifted, &utc);
    char out[80];
    std::snprintf(out, sizeof out, "%02d%02d%02d-%02d:%02d:%02d", utc.tm_year - 100, utc.tm_mon + 1, utc.tm_mday,
                  utc.tm_hour, utc.tm_min, utc.tm_sec);
    return out;
}

TEST(BootLog, TimePrefixIsLocalTimeWithMicroseconds) {
    struct Case {
        const char *tz;
        long offset;  // seconds east of UTC
    };
    const Case cases[] = {{"UTC0", 0}, {"EAST-5", 5 * 3600}, {"WEST+3:30", -(3 * 3600 + 1800)}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.tz);
        ::setenv("TZ", c.tz, 1);  // each test program runs alone: nothing else reads TZ meanwhile
        char buffer[64];
        const time_t before = ::time(nullptr);
        ASSERT_EQ(QV_AGENT_LOG_GetCurTime(buffer, sizeof buffer), static_cast<int32_t>(QV_PLOG_TIME_PREFIX_LEN));
        const time_t after = ::time(nullptr);
        const std::string prefix(buffer);
        const std::string clock = prefix.substr(0, 15);
        EXPECT_TRUE(clock == Stamp(before, c.offset) || clock == Stamp(after, c.offset)) << prefix;
        EXPECT_EQ(prefix[15], '.');
        EXPECT_EQ(prefix.find_first_not_of("0123456789", 16), 22u) << prefix;
        EXPECT_EQ(prefix[22], ' ');
    }
}

TEST(BootLog, TimePrefixAndTextMustFitTheBuffer) {
    const std::string text576(576, 'y');
    const std::string text577(577, 'y');
    struct Case {
        int32_t size;
        const char *text;
        uint32_t result;
        uint32_t length;
    };
    const Case cases[] = {
        {23, "", 1, 0},  // the prefix alone needs 24 bytes with its terminator
        {24, "", 0, 23},
        {24, "x", 1, 0},
        {25, "x", 0, 24},
        {600, text576.c_str(), 0, 599},
        {600, text577.c_str(), 1, 0},  // 600 characters do not fit 600 bytes
        {0, "", 1, 0},
        {-1, "", 1, 0},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.size);
        char buffer[700] = {};
        uint32_t length = 0;
        const auto call = [&](const char *format, ...) {
            va_list args;
            va_start(args, format);
            const uint32_t rc = QV_AGENT_LOG_BuffAddTime(buffer, c.size, &length, format, args);
            va_end(args);
            return rc;
        };
        EXPECT_EQ(call("%s", c.text), c.result);
        EXPECT_EQ(length, c.length);
        if (c.result == 0) {
            EXPECT_EQ(std::string(buffer).substr(QV_PLOG_TIME_PREFIX_LEN), c.text);
        }
    }
}

TEST(BootLog, InitNamesTheFileUnderTheLogDirectory) {
    const std::string longName(240, 'n');  // "/opt/zanthe/var/log/" + 240 + ".log" needs 265 bytes
    EXPECT_EQ(QV_Agent_SysbootLogInit("svc"), 27);
    EXPECT_STREQ(QvAgent_GetLogInfo(), "/opt/zanthe/var/log/svc.log");
    EXPECT_EQ(QvAgent_GetLogInfo(), g_stQvAgentLogInfo);
    for (const char *name : {longName.c_str(), static_cast<const char *>(nullptr)}) {
        EXPECT_LT(QV_Agent_SysbootLogInit(name), 0);
        EXPECT_STREQ(QvAgent_GetLogInfo(), "");
        EXPECT_EQ(QV_Agent_SysbootLog("p", 1, "never"), 1u);
    }
}

TEST(BootLog, LevelNamesAndTextBounds) {
    const std::string path = qvtest::BootLogPath("levels");
    struct Case {
        uint32_t level;
        std::string text;
        uint32_t result;
        const char *stored;  // tags and text after the time prefix; null: nothing stored
        size_t zeroHead = 0; // when nothing is stored: the file's size (the zero head, or no file)
    };
    const std::string text600(600, 't');
    const Case cases[] = {
        {0, "d %d", 0, "[DEBUG][P:proc]d 7\n"},
        {1, "i", 0, "[INFO][P:proc]i\n"},
        {2, "w", 0, "[WARNING][P:proc]w\n"},
        {3, "e", 0, "[ERROR][P:proc]e\n"},
        {4, "f", 0, "[FATAL][P:proc]f\n"},
        {5, "f", 0, "[FATAL][P:proc]f\n"},
        {0xFFFFFFFFu, "f", 0, "[FATAL][P:proc]f\n"},
        {1, text600, 1, nullptr, QV_PLOG_HEAD_LEN},  // formatted, but its line is too long
        {1, text600 + "t", 1, nullptr, 0},           // not even formatted: no file
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.level);
        ::unlink(path.c_str());
        qvtest::UseBootLog("levels");
        EXPECT_EQ(QV_Agent_SysbootLog("proc", c.level, c.text.c_str(), 7), c.result);
        const std::string bytes = qvtest::ReadFile(path);
        if (c.stored == nullptr) {
            EXPECT_EQ(bytes, std::string(c.zeroHead, '\0'));
        } else {
            ASSERT_GT(bytes.size(), QV_PLOG_HEAD_LEN + QV_PLOG_TIME_PREFIX_LEN);
            EXPECT_EQ(bytes.substr(QV_PLOG_HEAD_LEN + QV_PLOG_TIME_PREFIX_LEN), c.stored);
        }
    }
}

}  // namespace
