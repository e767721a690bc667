// The KPI simulation: which generators run at which count, with and without the marker file and the
// service type, the rows they queue, and the timer tick that drives them.
#include <arpa/inet.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <map>

#include "kpi/kpi_internal.h"
#include "module_fixture.h"
#include "transport/scheduler.h"

namespace {

class KpiSimulationTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        ::mkdir("/opt/zanthe", 0755);
        ::mkdir("/opt/zanthe/var", 0755);
        ::mkdir("/opt/zanthe/var/log", 0755);
    }
    void TearDown() override {
        ::unlink(qv::kpi::kSimulationMarker);
        AgentTest::TearDown();
    }
    static void Marker() {
        FILE *f = std::fopen(qv::kpi::kSimulationMarker, "w");
        ASSERT_NE(f, nullptr);
        std::fclose(f);
    }
    std::vector<QvAgentKpiRecord> Drain() {
        std::vector<QvAgentKpiRecord> out;
        for (const qvtest::Bytes &b : qvtest::ListRecords(module_, QV_AGENT_MSG_KPI)) {
            QvAgentKpiRecord r;
            std::memcpy(&r, b.data(), sizeof r);
            out.push_back(r);
        }
        qvtest::DrainLists(module_);
        return out;
    }
};

TEST_F(KpiSimulationTest, GeneratorsRunByCountOnlyWhereSwitchedOn) {
    // Records per stored component: slow generator 11000-15000, fast 20000 and 30000, key KPI 10098.
    using Counts = std::map<uint16_t, int>;
    const Counts slow = {{11000, 1}, {12000, 1}, {13000, 1}, {14000, 1}, {15000, 1}};
    const Counts fast = {{20000, 1}, {30000, 2}};
    auto join = [](Counts a, const Counts &b) {
        for (const auto &[k, n] : b) a[k] += n;
        return a;
    };
    struct Case {
        uint32_t count;
        Counts expect;
    };
    const Case cases[] = {{0, join(join(slow, fast), {{10098, 1}})}, {10, fast}, {60, join(slow, fast)},
                          {61, {{10098, 1}}}, {7, {}}, {122, {{10098, 1}}}, {180, join(slow, fast)}};
    struct Switch {
        bool marker;
        const char *type;
        bool on;
    };
    for (const Switch sw : {Switch{false, "serla-daemon", false}, Switch{true, nullptr, false},
                            Switch{true, "serla-daemonx", false}, Switch{true, "serla-daemon", true}}) {
        SCOPED_TRACE(testing::Message() << sw.marker << " " << (sw.type ? sw.type : "unset"));
        ::unlink(qv::kpi::kSimulationMarker);
        if (sw.marker) Marker();
        qvtest::ServiceTypeEnv env(sw.type);
        EXPECT_EQ(QV_Agent_IsKpiSimuReport(), sw.on ? 1u : 0u);
        for (const Case &c : cases) {
            SCOPED_TRACE(c.count);
            qv::kpi::Simulate(c.count, module_);
            Counts got;
            for (const QvAgentKpiRecord &r : Drain()) ++got[uint16_t{r.usComponentId}];
            EXPECT_EQ(got, sw.on ? c.expect : Counts{});
        }
    }
}

TEST_F(KpiSimulationTest, SlowGeneratorRows) {
    Marker();
    qvtest::ServiceTypeEnv env("serla-daemon");
    module_->ucCpuId = 4;
    module_->ucLocalIdB = 9;
    const PAL_SYSTIME_S when{2024, 6, 11, 12, 0, 0, 2, 0};
    QVPLAT_TestSetTime(&when);
    for (const int32_t tick : {0, 60, 120, 180, 240, 360}) {
        SCOPED_TRACE(tick);
        StlmUpdateKpiTest(tick, nullptr);
        const auto rows = Drain();
        ASSERT_EQ(rows.size(), 5u);
        EXPECT_EQ(+rows[4].ulValue, (tick / 60) % 3 == 0 ? 50050u : 50000u);
        EXPECT_EQ(+rows[1].usComponentId, 12000);
        EXPECT_EQ(+rows[1].usSubObjectId, 100) << "the sub-object of the step before";
        EXPECT_EQ(+rows[3].uiKpiId, 70000u);
        for (const QvAgentKpiRecord &r : rows) {
            EXPECT_EQ(r.ucKpiFlag, 0xD1);
            EXPECT_EQ(r.ucCpuId, 4);
            EXPECT_EQ(r.ucLocalIdA, 0);
            EXPECT_EQ(r.ucLocalIdB, 9);
            EXPECT_EQ(+r.uiTimeStamp, 1718107200u);
        }
    }
    QVPLAT_TestClearTime();
    // Options were set for steps 1, 4 and 5 only.
    const uint32_t limits[] = {3, 0, 0, 5, 4};
    for (uint32_t i = 0; i < 5; ++i) {
        const QvAgentKpiObject key{i == 3 ? 70000 : i + 1, 10 * (i + 1), static_cast<uint16_t>(100 * (i + 1)),
                                   static_cast<uint16_t>(11000 + 1000 * i)};
        const QvAgentKpiObjectNode *node = QV_AGENT_GetKpiMngInfoNode(&key);
        EXPECT_EQ(node == nullptr, limits[i] == 0) << i;
        if (node != nullptr) {
            EXPECT_EQ(node->uiOnChangeLimit, limits[i]) << i;
        }
    }
}

TEST_F(KpiSimulationTest, TimerTickDrivesTheGeneratorsWithItsKpiCount) {
    Marker();
    qvtest::ServiceTypeEnv env("serla-daemon");
    module_->uiSelfIp = module_->uiMainBoardIp = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(QV_AGENT_SendTimerProc(0, 0, module_), QV_AGENT_OK);  // creates the sockets
    module_->uiKpiTick = 59;
    ASSERT_EQ(QV_AGENT_SendTimerProc(0, 0, module_), QV_AGENT_OK);
    EXPECT_EQ(module_->uiKpiTick, 60u);
    EXPECT_EQ(Drain().size(), 8u) << "count 60: the slow and the fast generator, after the tick's send";
}

}  // namespace
