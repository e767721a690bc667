// Send lists: limits (limit + 1 items), the KPI list's own limit, the debug cap of the current send
// pass, records no datagram could carry, and the copy the list keeps.
#include <cstring>
#include <vector>

#include "event/send_list.h"
#include "module_fixture.h"

namespace {

using SendListTest = AgentTest;

TEST_F(SendListTest, ListHoldsItsLimitPlusOne) {
    const struct {
        uint32_t limit;
        uint32_t accepted;
    } cases[] = {{2, 3}, {0, 1}, {5, 6}};
    const uint8_t record[16] = {1, 2, 3};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.limit);
        qvtest::DrainLists(module_);
        module_->uiListLimit = c.limit;
        for (uint32_t k = QV_AGENT_MSG_LOG; k <= QV_AGENT_MSG_HIGH_PRECISION; ++k) {
            for (uint32_t i = 0; i < c.accepted; ++i) {
                EXPECT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, k, module_), QV_AGENT_OK) << "list " << k;
            }
            EXPECT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, k, module_), QV_AGENT_ERR_LIST_FULL) << "list " << k;
            EXPECT_EQ(module_->astSendList[k].uiCount, c.accepted);
        }
        EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_ + 4 * c.accepted) << "refused records leave nothing";
    }
}

TEST_F(SendListTest, KpiListHasItsOwnLimit) {
    module_->uiListLimit = 1;
    const uint8_t entry[28] = {};
    for (uint32_t i = 0; i < QV_AGENT_KPI_LIST_LIMIT + 1; ++i) {
        ASSERT_EQ(QV_AGENT_AddLogToDataList(entry, sizeof entry, QV_AGENT_MSG_KPI, module_), QV_AGENT_OK) << i;
    }
    EXPECT_EQ(QV_AGENT_AddLogToDataList(entry, sizeof entry, QV_AGENT_MSG_KPI, module_), QV_AGENT_ERR_LIST_FULL);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_KPI].uiCount, 4001u);
    EXPECT_EQ(QV_AGENT_AddSendBuf(entry, sizeof entry, QV_AGENT_MSG_KPI, module_), QV_AGENT_ERR_PARAM)
        << "the KPI list is not filled through the record entry";
}

TEST_F(SendListTest, DebugCapOfTheCurrentPass) {
    const uint8_t record[8] = {};
    const struct {
        uint32_t packedThisPass;
        uint32_t expect;
    } cases[] = {{0, QV_AGENT_OK}, {199, QV_AGENT_OK}, {200, QV_AGENT_ERR_LIST_FULL}, {5000, QV_AGENT_ERR_LIST_FULL}};
    for (const auto &c : cases) {
        module_->uiDebugSendCnt = c.packedThisPass;
        EXPECT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, QV_AGENT_MSG_DEBUG, module_), c.expect)
            << c.packedThisPass;
        EXPECT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, QV_AGENT_MSG_LOG, module_), QV_AGENT_OK)
            << "only the debug list has the cap";
    }
}

TEST_F(SendListTest, RecordsNoDatagramCouldCarryNeverEnterTheList) {
    std::vector<uint8_t> record(8100, 0x77);
    const struct {
        uint32_t k;
        uint32_t largest;  // 8096 less the datagram head of the kind
    } cases[] = {{QV_AGENT_MSG_LOG, 8076}, {QV_AGENT_MSG_ALARM, 8088}, {QV_AGENT_MSG_DEBUG, 8076},
                 {QV_AGENT_MSG_HIGH_PRECISION, 8076}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.k);
        EXPECT_EQ(QV_AGENT_AddSendBuf(record.data(), c.largest, c.k, module_), QV_AGENT_OK);
        EXPECT_EQ(QV_AGENT_AddSendBuf(record.data(), c.largest + 1, c.k, module_), QV_AGENT_ERR_NO_ROOM);
        EXPECT_EQ(module_->astSendList[c.k].uiCount, 1u);
    }
}

TEST_F(SendListTest, ListKeepsItsOwnCopyInOrder) {
    uint8_t record[4] = {1, 2, 3, 4};
    ASSERT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, QV_AGENT_MSG_ALARM, module_), QV_AGENT_OK);
    record[0] = 9;
    ASSERT_EQ(QV_AGENT_AddSendBuf(record, 0, QV_AGENT_MSG_ALARM, module_), QV_AGENT_OK) << "an empty record";
    ASSERT_EQ(QV_AGENT_AddSendBuf(record, sizeof record, QV_AGENT_MSG_ALARM, module_), QV_AGENT_OK);
    const std::vector<qvtest::Bytes> queued = qvtest::ListRecords(module_, QV_AGENT_MSG_ALARM);
    ASSERT_EQ(queued.size(), 3u);
    EXPECT_EQ(queued[0], (qvtest::Bytes{1, 2, 3, 4}));
    EXPECT_TRUE(queued[1].empty());
    EXPECT_EQ(queued[2], (qvtest::Bytes{9, 2, 3, 4}));
    QvAgentSendList &list = module_->astSendList[QV_AGENT_MSG_ALARM];
    EXPECT_EQ(list.pstPrev->pstNext, qv::sendlist::Head(list)) << "the last item closes the circle";
    EXPECT_EQ(list.pstNext->pstPrev, qv::sendlist::Head(list));

    EXPECT_EQ(QV_AGENT_AddSendBuf(nullptr, 4, QV_AGENT_MSG_LOG, module_), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_AddSendBuf(record, 4, QV_AGENT_MSG_LOG, nullptr), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_AddSendBuf(record, 4, 5, module_), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_AddLogToDataList(record, 4, -1, module_), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_AddLogToDataList(nullptr, 4, 0, module_), QV_AGENT_ERR_PARAM);
}

}  // namespace
