// Shared by the KPI tests: a module with its KPI mesh socket towards a collector on loopback, and KPI
// packets decoded back into their fields.
#ifndef QV_TEST_KPI_SUPPORT_H
#define QV_TEST_KPI_SUPPORT_H

#include <arpa/inet.h>

#include <vector>

#include "module_fixture.h"
#include "transport/mesh_mode.h"
#include "udp_collector.h"

namespace qvtest {

struct KpiRow {
    uint16_t component = 0;
    uint32_t kpi = 0;
    uint32_t object = 0;
    uint16_t subObject = 0;
    uint8_t cpu = 0;
    uint8_t localA = 0;
    uint8_t localB = 0;
    uint8_t flag = 0;
    uint64_t value = 0;
    uint32_t time = 0;
};

struct KpiPacket {
    uint16_t totalLen = 0;
    uint8_t flags = 0;
    uint8_t msgType = 0;
    uint32_t reserved = 0;
    uint32_t recordNum = 0;
    std::vector<KpiRow> rows;
};

inline uint64_t BeAt(const std::vector<uint8_t> &b, size_t off, size_t width) {
    uint64_t v = 0;
    for (size_t i = 0; i < width; ++i) v = (v << 8) | b.at(off + i);
    return v;
}

// The packet's head and as many whole records as its bytes hold.
inline KpiPacket DecodeKpiPacket(const std::vector<uint8_t> &b) {
    KpiPacket p;
    p.totalLen = static_cast<uint16_t>(BeAt(b, QV_KPI_PKT_TOTAL_LEN_OFF, 2));
    p.flags = b.at(QV_KPI_PKT_FLAGS_OFF);
    p.msgType = b.at(QV_KPI_PKT_MSG_TYPE_OFF);
    p.reserved = static_cast<uint32_t>(BeAt(b, QV_KPI_PKT_RESERVED_OFF, 4));
    p.recordNum = static_cast<uint32_t>(BeAt(b, QV_KPI_PKT_RECORD_NUM_OFF, 4));
    for (size_t at = QV_KPI_PKT_HEAD_LEN; at + QV_KPI_REC_LEN <= b.size(); at += QV_KPI_REC_LEN) {
        KpiRow r;
        r.component = static_cast<uint16_t>(BeAt(b, at + QV_KPI_REC_COMPONENT_OFF, 2));
        r.kpi = static_cast<uint32_t>(BeAt(b, at + QV_KPI_REC_KPI_ID_OFF, 4));
        r.object = static_cast<uint32_t>(BeAt(b, at + QV_KPI_REC_OBJECT_OFF, 4));
        r.subObject = static_cast<uint16_t>(BeAt(b, at + QV_KPI_REC_SUB_OBJECT_OFF, 2));
        r.cpu = b[at + QV_KPI_REC_CPU_OFF];
        r.localA = b[at + QV_KPI_REC_LOCAL_ID_A_OFF];
        r.localB = b[at + QV_KPI_REC_LOCAL_ID_B_OFF];
        r.flag = b[at + QV_KPI_REC_FLAG_OFF];
        r.value = BeAt(b, at + QV_KPI_REC_VALUE_OFF, 8);
        r.time = static_cast<uint32_t>(BeAt(b, at + QV_KPI_REC_TIME_OFF, 4));
        p.rows.push_back(r);
    }
    return p;
}

// A module whose KPI mesh socket is bound on loopback, sending to the collector there.
class KpiSendTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        module_->uiSelfIp = module_->uiMainBoardIp = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(QV_AGENT_CreateMeshSendKPI(module_), QV_AGENT_OK);
    }

    // Sends what list 4 holds and returns the packets that arrive, up to a D5 marker packet sent after
    // them (so that "nothing arrived" is told from "not arrived yet"), from the since-th packet received
    // on (default: those of this call). The marker is not returned.
    std::vector<KpiPacket> SendAndCollect(UdpCollector &collector, size_t since = SIZE_MAX) {
        const size_t before = since == SIZE_MAX ? collector.Received().size() : since;
        EXPECT_EQ(QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module_), QV_AGENT_OK);
        EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_KPI].uiCount, 0u);
        const uint8_t always = kMarkerFlag;
        EXPECT_EQ(QV_AGENT_UpdateKpi(kMarkerComponent, 0, 0, &always, 0), QV_AGENT_OK);
        EXPECT_EQ(QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module_), QV_AGENT_OK);
        EXPECT_TRUE(collector.WaitFor([&](const auto &got) {
            return got.size() > before && DecodeKpiPacket(got.back().bytes).rows.size() == 1 &&
                   DecodeKpiPacket(got.back().bytes).rows[0].component == StoredMarker();
        }));
        const auto got = collector.Received();
        std::vector<KpiPacket> out;
        for (size_t i = before; i + 1 < got.size(); ++i) {
            EXPECT_EQ(got[i].port, QV_WIRE_PORT_KPI);
            out.push_back(DecodeKpiPacket(got[i].bytes));
        }
        return out;
    }

    static constexpr uint8_t kMarkerFlag = 0xD5;
    static constexpr uint32_t kMarkerComponent = 55000;
    static uint16_t StoredMarker() { return static_cast<uint16_t>(kMarkerComponent + QV_KPI_COMPONENT_OFFSET); }
};

}  // namespace qvtest

#endif
