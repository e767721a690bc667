// The generators of numbered test logs: how many each sends per call, their kind, id and text.
#include <string>
#include <vector>

#include "module_fixture.h"
#include "transport/test_reports.h"

namespace {

class TestReportsTest : public AgentTest {
protected:
    void TearDown() override {
        g_QvagentTestReportNum = 0;
        g_QvagentHighPrecReportNum = 0;
        AgentTest::TearDown();
    }
    // The texts of the queued records of list k with the given id, in order.
    std::vector<std::string> Texts(uint32_t k, uint32_t id) {
        std::vector<std::string> out;
        for (const auto &r : Queued(k)) {
            if (r.msgId == id && r.params.size() == 1 && r.params[0].type == QV_PARA_TYPE_TEXT) {
                out.push_back(r.params[0].Text());
            }
        }
        return out;
    }
};

TEST_F(TestReportsTest, CounterDrivenGeneratorsSendUpToTheirLimit) {
    struct Case {
        int32_t counter;
        size_t expectDiag;
        size_t expectHighPrec;
    };
    for (const Case c : {Case{0, 0, 0}, Case{-5, 0, 0}, Case{1, 1, 1}, Case{3, 3, 3}, Case{10000, 501, 801}}) {
        SCOPED_TRACE(c.counter);
        qvtest::DrainLists(module_);
        QV_AGENT_DiagNodeDelete(module_);
        g_QvagentTestReportNum = c.counter;
        g_QvagentHighPrecReportNum = c.counter;
        QV_AGENT_ReportTestLogForGlobalVariables(module_);
        QV_AGENT_ReportTestHighPrecLogForGlbVar(module_);
        const auto diag = Texts(QV_AGENT_MSG_LOG, 0x8301007);
        const auto highPrec = Texts(QV_AGENT_MSG_HIGH_PRECISION, 0xDD91008);
        ASSERT_EQ(diag.size(), c.expectDiag);
        ASSERT_EQ(highPrec.size(), c.expectHighPrec);
        for (size_t i = 0; i < diag.size(); ++i) EXPECT_EQ(diag[i], "evtsvc " + std::to_string(i));
        if (!highPrec.empty()) {
            EXPECT_EQ(highPrec.back(), "evtsvc " + std::to_string(highPrec.size() - 1));
        }
    }
}

TEST_F(TestReportsTest, MarkerGeneratorRunsOnlyForItsService) {
    EXPECT_NE(QV_AGENT_ReportTestLog(module_), QV_AGENT_OK) << "the name comparison's result";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, 0u);
    ASSERT_EQ(QV_Agent_SetServiceInfo(module_, "nbqrd_frame", 1), QV_AGENT_OK);
    EXPECT_EQ(QV_AGENT_ReportTestLog(module_), QV_AGENT_OK);
    const auto texts = Texts(QV_AGENT_MSG_LOG, 0x8301007);
    ASSERT_EQ(texts.size(), 100u);
    EXPECT_EQ(texts.front(), "nbqrd_frame 0");
    EXPECT_EQ(texts.back(), "nbqrd_frame 99");
}

}  // namespace
