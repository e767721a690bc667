// The trace file: when a line is written, its exact format and its bounds (the stack dump is checked
// where an alarm is sent).
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "agent_support.h"
#include "qvplatform_testctl.h"
#include "test_support.h"

namespace {

constexpr char kTraceFile[] = "/opt/zanthe/var/log/qvagent.log";
constexpr char kStamp[] = "2026-12-31 23:59:59.999";

class TraceTest : public testing::Test {
protected:
    void SetUp() override {
        ::unlink(kTraceFile);
        const PAL_SYSTIME_S lastMoment{2026, 12, 31, 23, 59, 59, 4, 999};
        QVPLAT_TestSetTime(&lastMoment);
    }
    void TearDown() override {
        g_bQvagentDbgSwitch = 0;
        QVPLAT_TestClearTime();
    }
};

TEST_F(TraceTest, LineIsWrittenOnlyWithSwitchAndServiceType) {
    const std::string text511(511, 'a');
    const std::string longType(700, 't');
    struct Case {
        const char *name;
        uint32_t dbgSwitch;
        const char *serviceType;
        std::string message;
        std::string expectFile;  // empty: no file at all
    };
    const Case cases[] = {
        {"switch off", 0, "svc", "hello", ""},
        {"no service type", 1, nullptr, "hello", ""},
        {"plain line", 1, "svc", "hello 42", std::string(kStamp) + "[svc]hello 42\n"},
        {"message cut at 511 characters", 1, "svc", text511 + "bbbb", std::string(kStamp) + "[svc]" + text511 + "\n"},
        {"line cut at 1023 characters", 1, longType.c_str(), text511,
         (std::string(kStamp) + "[" + longType + "]" + text511).substr(0, 1023)},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        ::unlink(kTraceFile);
        qvtest::ServiceTypeEnv env(c.serviceType);
        g_bQvagentDbgSwitch = c.dbgSwitch;
        QV_AGENT_WriteToFile("%s", c.message.c_str());
        if (c.expectFile.empty()) {
            EXPECT_FALSE(qvtest::FileExists(kTraceFile));
        } else {
            EXPECT_EQ(qvtest::ReadFile(kTraceFile), c.expectFile);
        }
    }
}

// Lines are appended; finished text is written whatever the switch; an unreadable clock gives zeros.
TEST_F(TraceTest, FormattedFinishedAndClocklessLinesAreAppended) {
    qvtest::ServiceTypeEnv env("svc");
    g_bQvagentDbgSwitch = 1;
    QV_AGENT_WriteToFile("ret=%d, service=%s, id=0x%x", -3, "name", 0xABCDu);
    g_bQvagentDbgSwitch = 0;
    QV_AGENT_WriteToFileStr("finished 100%");
    QV_AGENT_WriteToFileStr(nullptr);
    QVPLAT_TestFailTime(1);
    QV_AGENT_WriteToFileStr("x");
    QVPLAT_TestFailTime(0);
    EXPECT_EQ(qvtest::ReadFile(kTraceFile), std::string(kStamp) + "[svc]ret=-3, service=name, id=0xabcd\n" + kStamp +
                                                "[svc]finished 100%\n0000-00-00 00:00:00.000[svc]x\n");
}

}  // namespace
