// KPI updates: the queued 28-byte records, the component offset in 16 bits, time stamps with and
// without a clock, the trace line, the full list and the refusals.
#include <cstring>
#include <string>

#include "module_fixture.h"
#include "test_support.h"

namespace {

class KpiUpdateTest : public AgentTest {
protected:
    std::vector<QvAgentKpiRecord> Records() {
        std::vector<QvAgentKpiRecord> out;
        for (const qvtest::Bytes &b : qvtest::ListRecords(module_, QV_AGENT_MSG_KPI)) {
            EXPECT_EQ(b.size(), sizeof(QvAgentKpiRecord));
            QvAgentKpiRecord r;
            std::memcpy(&r, b.data(), sizeof r);
            out.push_back(r);
        }
        return out;
    }
};

TEST_F(KpiUpdateTest, EachCallQueuesOneRecord) {
    module_->ucCpuId = 0x2A;
    const uint8_t flag = 0xD1;
    const StlmKpiKey key{65535, 0xFFFF, 0xFFFFFFFF, 0xFFFF};
    const PAL_SYSTIME_S when{2024, 6, 11, 12, 0, 0, 2, 0};  // 1718107200 s
    QVPLAT_TestSetTime(&when);
    ASSERT_EQ(QV_AGENT_UpdateKpi(5, 7, 9, &flag, 42), QV_AGENT_OK);
    ASSERT_EQ(QV_AGENT_UpdateSubKpi(60000, 8, 10, 11, &flag, UINT64_MAX), QV_AGENT_OK);
    QVPLAT_TestFailTime(1);  // neither of the next two reads the clock successfully
    ASSERT_EQ(QV_AGENT_UpdateSubKpiWithTimeStamp(&key, &flag, 0, 1), QV_AGENT_OK);
    ASSERT_EQ(QV_AGENT_UpdateKpi(1, 1, 1, &flag, 1), QV_AGENT_OK) << "queued without a time";
    QVPLAT_TestClearTime();
    struct Expect {
        uint16_t component;
        uint32_t kpi, object;
        uint16_t sub;
        uint64_t value;
        uint32_t time;
    };
    const Expect expect[] = {{10005, 7, 9, 0, 42, 1718107200},
                             {4464, 8, 10, 11, UINT64_MAX, 1718107200},  // 70000 mod 65536
                             {9999, 0xFFFF, 0xFFFFFFFF, 0xFFFF, 1, 0},
                             {10001, 1, 1, 0, 1, 0}};
    const auto records = Records();
    ASSERT_EQ(records.size(), std::size(expect));
    for (size_t i = 0; i < records.size(); ++i) {
        SCOPED_TRACE(i);
        const QvAgentKpiRecord &r = records[i];
        EXPECT_EQ(+r.usComponentId, expect[i].component);
        EXPECT_EQ(+r.uiKpiId, expect[i].kpi);
        EXPECT_EQ(+r.uiObjectId, expect[i].object);
        EXPECT_EQ(+r.usSubObjectId, expect[i].sub);
        EXPECT_EQ(r.ucCpuId, 0x2A);
        EXPECT_EQ(r.ucLocalIdA, 0);
        EXPECT_EQ(r.ucLocalIdB, 0);
        EXPECT_EQ(r.ucKpiFlag, 0xD1);
        EXPECT_EQ(+r.ulValue, expect[i].value);
        EXPECT_EQ(+r.uiTimeStamp, expect[i].time);
    }
}

TEST_F(KpiUpdateTest, RefusalsAndTheFullList) {
    const uint8_t flag = 0xD1;
    const StlmKpiKey key{};
    EXPECT_EQ(QV_AGENT_UpdateKpi(1, 1, 1, nullptr, 1), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_UpdateSubKpi(1, 1, 1, 1, nullptr, 1), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_UpdateSubKpiWithTimeStamp(nullptr, &flag, 0, 1), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_UpdateSubKpiWithTimeStamp(&key, nullptr, 0, 1), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_KpiReportById(nullptr, module_), QV_AGENT_ERR_PARAM);
    QV_Agent_SetHandle(nullptr);
    EXPECT_EQ(QV_AGENT_UpdateKpi(1, 1, 1, &flag, 1), QV_AGENT_ERR_NO_MEMORY);
    EXPECT_EQ(QV_AGENT_UpdateSubKpiWithTimeStamp(&key, &flag, 0, 1), QV_AGENT_ERR_NO_MEMORY);
    EXPECT_EQ(QV_AGENT_KpiGetTimeStamp(), 0u);
    QV_Agent_SetHandle(module_);
    EXPECT_NE(QV_AGENT_KpiGetTimeStamp(), 0u);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_KPI].uiCount, 0u);

    QVPLAT_TestFailAllocation(1);
    EXPECT_EQ(QV_AGENT_UpdateKpi(1, 1, 1, &flag, 1), QV_AGENT_ERR_NO_MEMORY);
    for (uint32_t i = 0; i <= QV_AGENT_KPI_LIST_LIMIT; ++i) ASSERT_EQ(QV_AGENT_UpdateKpi(1, 1, 1, &flag, i), QV_AGENT_OK);
    ASSERT_EQ(module_->astSendList[QV_AGENT_MSG_KPI].uiCount, 4001u);

    // Past the limit the sample is lost, and the trace line is still written.
    ::unlink("/opt/zanthe/var/log/qvagent.log");
    qvtest::ServiceTypeEnv env("kpi");
    g_bQvagentDbgSwitch = 1;
    EXPECT_EQ(QV_AGENT_UpdateSubKpi(60000, 7, 9, 11, &flag, 1), QV_AGENT_ERR_LIST_FULL);
    g_bQvagentDbgSwitch = 0;
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_KPI].uiCount, 4001u);
    const std::string trace = qvtest::ReadFile("/opt/zanthe/var/log/qvagent.log");
    const std::string line = "UpdateSubKpi componentId = 4464, kpiId = 7, objectId = 9, subObjectId = 11";
    ASSERT_NE(trace.find(line), std::string::npos) << trace;
    EXPECT_EQ(trace.find(line), trace.rfind(line)) << "one line per call";
}

}  // namespace
