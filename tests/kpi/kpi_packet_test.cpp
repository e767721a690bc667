// KPI sends through the real packer and a real socket: the on-change filter over sample sequences,
// packet bounds, exact record bytes with the position of packing time, failed sends, and updates that
// race a send.
#include <arpa/inet.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "kpi_decode.h"
#include "module_fixture.h"
#include "qvplatform/mesh.h"
#include "transport/board_discovery.h"
#include "transport/mesh_mode.h"
#include "udp_collector.h"

namespace {

using qvtest::UdpCollector;

constexpr uint8_t kOnChange = 0xD1;
constexpr uint8_t kOnChangeOtherBits = 0xD3;  // bits 2-3 still 00: only the flag differs
constexpr uint8_t kAlways = 0xD5;
constexpr uint32_t kNoOption = 0xFFFFFFFFu;

struct KpiRow {
    uint16_t component = 0;
    uint8_t flag = 0;
    uint64_t value = 0;
};

struct KpiPacket {
    qvdecode::KpiPacketHead head;
    std::vector<KpiRow> rows;  // none when the head's record count does not match the bytes
};

// The packet's head and records, read by the collector's decoder.
KpiPacket DecodeKpiPacket(const std::vector<uint8_t> &bytes) {
    const qvdecode::Bytes b(bytes.data(), bytes.size());
    KpiPacket p;
    if (qvdecode::ReadKpiPacket(b, p.head)) return p;
    for (uint32_t i = 0; i < p.head.recordNum; ++i) {
        const qvdecode::Bytes r = qvdecode::KpiRecordAt(b, i);
        const uint64_t high = qvdecode::Be32(r, QV_KPI_REC_VALUE_OFF);
        p.rows.push_back({qvdecode::Be16(r, QV_KPI_REC_COMPONENT_OFF), qvdecode::U8(r, QV_KPI_REC_FLAG_OFF),
                          high << 32 | qvdecode::Be32(r, QV_KPI_REC_VALUE_OFF + 4)});
    }
    return p;
}

// A module whose KPI mesh socket is bound on loopback, sending to the collector there.
class KpiPacketTest : public AgentTest {
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
        EXPECT_EQ(QV_AGENT_UpdateKpi(kMarkerComponent, 0, 0, &kAlways, 0), QV_AGENT_OK);
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

    static constexpr uint32_t kMarkerComponent = 55000;
    static uint16_t StoredMarker() { return static_cast<uint16_t>(kMarkerComponent + QV_KPI_COMPONENT_OFFSET); }
};

std::vector<KpiRow> Rows(const std::vector<KpiPacket> &packets) {
    std::vector<KpiRow> rows;
    for (const KpiPacket &p : packets) rows.insert(rows.end(), p.rows.begin(), p.rows.end());
    return rows;
}

TEST_F(KpiPacketTest, OnChangeFilterLetsThroughWhatItShould) {
    struct Sample {
        uint8_t flag;
        uint64_t value;
    };
    struct Case {
        const char *what;
        uint32_t limit;
        std::vector<Sample> samples;
        std::vector<size_t> sent;  // indexes of the samples that leave
        uint32_t sameCountAfter;
    };
    std::vector<Sample> many720(722, Sample{kOnChange, 7});
    std::vector<size_t> sent720 = {0, 721};
    const std::vector<Case> cases = {
        {"no option", kNoOption, {{kOnChange, 7}, {kOnChange, 7}, {kOnChange, 7}}, {0, 1, 2}, 0},
        {"limit 0", 0, {{kOnChange, 7}, {kOnChange, 7}, {kOnChange, 7}}, {0, 1, 2}, 0},
        {"limit 2, constant", 2, {{kOnChange, 7}, {kOnChange, 7}, {kOnChange, 7}, {kOnChange, 7}, {kOnChange, 7}},
         {0, 3}, 1},
        {"limit 2, value change", 2, {{kOnChange, 7}, {kOnChange, 7}, {kOnChange, 8}, {kOnChange, 8}, {kOnChange, 8}, {kOnChange, 8}},
         {0, 2, 5}, 0},
        {"limit 2, flag change", 2, {{kOnChange, 7}, {kOnChangeOtherBits, 7}, {kOnChangeOtherBits, 7}, {kOnChange, 7}},
         {0, 1, 3}, 0},
        {"limit 2, always-send samples between", 2,
         {{kOnChange, 7}, {kAlways, 7}, {kOnChange, 7}, {kAlways, 7}, {kOnChange, 7}, {kOnChange, 7}}, {0, 1, 3, 5}, 0},
        {"limit 720", KPI_ONCHANGE_MAX, many720, sent720, 0},
    };
    UdpCollector collector({QV_WIRE_PORT_KPI}, false);
    ASSERT_TRUE(collector.ok());
    uint32_t component = 0;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ++component;  // every case has an instance of its own
        QvAgentKpiObject object{7, 9, 3, static_cast<uint16_t>(component)};
        if (c.limit != kNoOption) {
            ASSERT_EQ(QV_Agent_SetKpiOption(&object, KPI_OPTION_ONCHANGE, 4, &c.limit), QV_AGENT_OK);
        }
        for (const Sample &s : c.samples) {
            ASSERT_EQ(QV_AGENT_UpdateSubKpi(component, 7, 9, 3, &s.flag, s.value), QV_AGENT_OK);
        }
        const std::vector<KpiRow> rows = Rows(SendAndCollect(collector));
        ASSERT_EQ(rows.size(), c.sent.size());
        for (size_t i = 0; i < rows.size(); ++i) {
            EXPECT_EQ(rows[i].flag, c.samples[c.sent[i]].flag) << i;
            EXPECT_EQ(rows[i].value, c.samples[c.sent[i]].value) << i;
            EXPECT_EQ(rows[i].component, component + QV_KPI_COMPONENT_OFFSET);
        }
        object.usComponentId = static_cast<uint16_t>(component + QV_KPI_COMPONENT_OFFSET);
        const QvAgentKpiObjectNode *node = QV_AGENT_GetKpiMngInfoNode(&object);
        if (c.limit != kNoOption) {
            ASSERT_NE(node, nullptr);
            EXPECT_EQ(node->uiSameCount, c.sameCountAfter);
        }
    }

    // Every sample held back: nothing leaves (only the marker arrives) and the list is emptied anyway.
    const uint8_t flag = kOnChange;
    ASSERT_EQ(QV_AGENT_UpdateSubKpi(3, 7, 9, 3, &flag, 7), QV_AGENT_OK);  // "limit 2, constant" holds 7
    EXPECT_TRUE(SendAndCollect(collector).empty());
}

TEST_F(KpiPacketTest, PacketsHoldAtMost288Records) {
    struct Case {
        uint32_t records;
        std::vector<uint32_t> perPacket;
    };
    std::vector<uint32_t> full(13, QV_KPI_PKT_RECORDS_MAX);
    full.push_back(4001 - 13 * QV_KPI_PKT_RECORDS_MAX);
    const Case cases[] = {{1, {1}}, {288, {288}}, {289, {288, 1}}, {300, {288, 12}}, {4001, full}};
    UdpCollector collector({QV_WIRE_PORT_KPI}, false);
    ASSERT_TRUE(collector.ok());
    const uint8_t flag = kOnChange;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.records);
        for (uint32_t i = 0; i < c.records; ++i) ASSERT_EQ(QV_AGENT_UpdateKpi(1, 2, 3, &flag, i), QV_AGENT_OK);
        const std::vector<KpiPacket> packets = SendAndCollect(collector);
        ASSERT_EQ(packets.size(), c.perPacket.size());
        uint64_t next = 0;
        for (size_t p = 0; p < packets.size(); ++p) {
            EXPECT_EQ(packets[p].head.recordNum, c.perPacket[p]) << p;
            EXPECT_EQ(packets[p].head.totalLen, QV_KPI_PKT_HEAD_LEN + c.perPacket[p] * QV_KPI_REC_LEN) << p;
            EXPECT_LE(packets[p].head.totalLen, KPI_PACKET_MAX);
            EXPECT_EQ(packets[p].rows.size(), c.perPacket[p]);
            for (const KpiRow &r : packets[p].rows) EXPECT_EQ(r.value, next++) << "records keep their order";
        }
    }
    EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_) << "every drained record was released";
}

TEST_F(KpiPacketTest, RecordBytesAreBigEndianWithThePositionOfPackingTime) {
    qvtest::DevmLibraries devm("full");
    ASSERT_TRUE(devm.ok());
    UdpCollector collector({QV_WIRE_PORT_KPI}, false);
    const uint8_t flag = 0x91;
    ASSERT_EQ(QV_AGENT_UpdateSubKpi(0x1234, 0xBEEF, 0x01020304, 0x0A0B, &flag, 0x1122334455667788ull), QV_AGENT_OK);
    // The position changes after the update: the packet carries the new one.
    setenv("QV_FAKE_DEVM_CPU", "3", 1);
    setenv("QV_FAKE_DEVM_LOCAL_A", "5", 1);
    setenv("QV_FAKE_DEVM_LOCAL_B", "6", 1);
    setenv("QV_FAKE_DEVM_MASTER_IP", "127.0.0.1", 1);
    setenv("QV_FAKE_DEVM_SELF_IP", "127.0.0.1", 1);
    QV_AGENT_DevmBasicInfoApiInit(module_);
    QV_AGENT_DevmDBInfoApiInit(module_);
    QV_AGENT_GetPositionInfo(module_);
    ASSERT_EQ(module_->astSendList[QV_AGENT_MSG_KPI].uiCount, 1u);
    QvAgentKpiRecord queued;
    std::memcpy(&queued, module_->astSendList[QV_AGENT_MSG_KPI].pstNext->pucData, sizeof queued);
    EXPECT_EQ(queued.ucCpuId, 0) << "the CPU of the update";
    const uint32_t stamp = queued.uiTimeStamp;
    ASSERT_EQ(QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module_), QV_AGENT_OK);
    ASSERT_TRUE(collector.WaitFor([](const auto &got) { return !got.empty(); }));
    const std::vector<uint8_t> expect = {
        0x00, 40, 0x04, 0x04, 0, 0, 0, 0, 0, 0, 0, 1,                           // head
        0x39, 0x44,                                                               // 0x1234 + 10000
        0x00, 0x00, 0xBE, 0xEF, 0x01, 0x02, 0x03, 0x04, 0x0A, 0x0B, 3, 5, 6, 0x91, // ids, position, flag
        0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88,                           // value
        static_cast<uint8_t>(stamp >> 24), static_cast<uint8_t>(stamp >> 16), static_cast<uint8_t>(stamp >> 8),
        static_cast<uint8_t>(stamp)};
    EXPECT_EQ(collector.Received().at(0).bytes, expect);
    QV_AGENT_DevmBasicInfoApiUninit(module_);
    QV_AGENT_DevmDBInfoApiUninit(module_);
}

TEST_F(KpiPacketTest, FailedSendIsReportedOnceWithItsTarget) {
    UdpCollector collector({QV_WIRE_PORT_KPI}, false);
    const uint8_t flag = kOnChange;
    for (uint32_t i = 0; i < 300; ++i) ASSERT_EQ(QV_AGENT_UpdateKpi(1, 3, 1, &flag, i), QV_AGENT_OK);
    const uint32_t error = MESH_ERR_BASE | 90;  // the message is too long: not a lost socket
    QVPLAT_TestMeshFailSend(1, error);
    const std::vector<KpiPacket> packets = SendAndCollect(collector);
    QVPLAT_TestMeshFailSend(0, 0);
    ASSERT_EQ(packets.size(), 1u) << "the first packet is lost, the second goes";
    EXPECT_EQ(packets[0].head.recordNum, 12u);
    const auto logs = Queued(QV_AGENT_MSG_LOG);
    ASSERT_EQ(logs.size(), 1u);
    EXPECT_EQ(logs[0].kind, QV_AGENT_OBJ_DIAG);
    EXPECT_EQ(logs[0].msgId, QV_AGENT_KPI_SEND_FAIL_LOG_ID);
    ASSERT_EQ(logs[0].params.size(), 1u);
    EXPECT_EQ(logs[0].params[0].type, QV_PARA_TYPE_TEXT);
    EXPECT_EQ(logs[0].params[0].Text(), "addr=127.0.0.1, kpiid=3, msgLen=8076, ret=" +
                                            std::to_string(static_cast<int32_t>(error)) + ", service=evtsvc");

    // A packet without a record is not reported; a failure report of 40 bytes is.
    const MESH_ADDR_S dest{};
    uint8_t packet[QV_KPI_PKT_HEAD_LEN + QV_KPI_REC_LEN] = {};
    EXPECT_EQ(QV_AGENT_SendKpiReportLog(&dest, packet, sizeof packet - 1, -1, module_), QV_AGENT_ERR_FAILED);
    EXPECT_EQ(QV_AGENT_SendKpiReportLog(&dest, packet, sizeof packet, -1, module_), QV_AGENT_OK);
    EXPECT_EQ(Queued(QV_AGENT_MSG_LOG).back().params.at(0).Text(), "addr=0.0.0.0, kpiid=0, msgLen=40, ret=-1, service=evtsvc");
}

TEST_F(KpiPacketTest, EmptyListAndWrongTypeSendNothing) {
    uint8_t buffer[KPI_PACKET_MAX] = {};
    EXPECT_EQ(QV_AGENT_SendKpiDataByPacket(QV_AGENT_MSG_LOG, buffer, sizeof buffer, module_), QV_AGENT_ERR_PARAM);
    QVPLAT_TestMeshFailSend(1, MESH_ERR_BASE | 90);  // a send would fail and be reported
    EXPECT_EQ(QV_AGENT_SendKpiDataByPacket(QV_AGENT_MSG_KPI, buffer, sizeof buffer, module_), QV_AGENT_OK);
    QVPLAT_TestMeshFailSend(0, 0);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, 0u);
    QVPLAT_TestFailAllocation(1);
    EXPECT_EQ(QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module_), QV_AGENT_ERR_NO_MEMORY);
}

TEST_F(KpiPacketTest, UpdatesRacingSendsAreEachSentOnce) {
    UdpCollector collector({QV_WIRE_PORT_KPI}, false);
    constexpr uint32_t kPerThread = 1500;
    std::atomic<bool> done{false};
    std::thread sender([&] {
        while (!done.load()) QV_AGENT_SendKpiMsg(QV_AGENT_MSG_KPI, module_);
    });
    auto update = [](uint32_t component) {
        const uint8_t flag = kOnChange;
        for (uint32_t i = 0; i < kPerThread; ++i) ASSERT_EQ(QV_AGENT_UpdateKpi(component, 1, 1, &flag, i), QV_AGENT_OK);
    };
    std::thread a(update, 1);
    std::thread b(update, 2);
    a.join();
    b.join();
    done = true;
    sender.join();
    const std::vector<KpiRow> rows = Rows(SendAndCollect(collector, /*since=*/0));
    std::vector<uint64_t> next(2, 0);
    for (const KpiRow &r : rows) {
        const size_t who = r.component - QV_KPI_COMPONENT_OFFSET - 1u;
        ASSERT_LT(who, 2u);
        EXPECT_EQ(r.value, next[who]++) << "each thread's samples leave once, in order";
    }
    EXPECT_EQ(next[0], kPerThread);
    EXPECT_EQ(next[1], kPerThread);
}

}  // namespace
