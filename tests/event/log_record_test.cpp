// Log records: the exact head, the six sender options, caller options and parameters in order, the
// wall time of option 38, text parameters cut to size, and the capacity boundaries of both buffers.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "module_fixture.h"
#include "qvplatform/qv_bounded.h"

namespace {

using LogRecordTest = AgentTest;

uint16_t RecordLength(const QvAgentObj *obj) {
    uint16_t len = 0;
    std::memcpy(&len, obj->pucRecord + QV_REC_LEN_OFF, sizeof len);
    return len;
}

uint16_t ParaUsed(const QvAgentObj *obj) {
    uint16_t used = 0;
    std::memcpy(&used, obj->pucParaBuf + 2, sizeof used);
    return used;
}

TEST_F(LogRecordTest, EmptyLogCarriesSixSenderOptions) {
    module_->ucCpuId = 0x11;
    module_->ucLocalIdA = 0x22;
    module_->ucLocalIdB = 0x33;
    ASSERT_EQ(QV_Agent_Send(Create(1, 0x0A0B0C0D), module_), QV_AGENT_OK);
    const auto queued = Queued(QV_AGENT_MSG_LOG);
    ASSERT_EQ(queued.size(), 1u);
    const qvtest::DecodedRecord &r = queued[0];
    const std::string name = "evtsvc";
    EXPECT_EQ(r.length, 48u + (4 + name.size()) + 8 + 8 + 8 + 6 + 6);
    EXPECT_EQ(r.optionWord, 0xAAAAAA06u);
    EXPECT_EQ(r.msgId, 0x0A0B0C0Du);
    EXPECT_TRUE(r.level == 0xFF && r.kind == 1 && r.headWord == 0 && r.vrid == 0 && r.paraCount == 0);
    EXPECT_GT(r.monotonicMs, 0u);
    ASSERT_EQ(r.options.size(), 6u);
    const struct {
        uint16_t type;
        size_t len;
        uint32_t value;  // for 2- and 4-byte options
    } expect[] = {{67, name.size(), 0},
                  {79, 4, 31},
                  {11, 4, static_cast<uint32_t>(::getpid())},
                  {10, 4, 0x33221100},
                  {20, 2, 0x22},
                  {21, 2, 0x33}};
    for (size_t i = 0; i < 6; ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(r.options[i].type, expect[i].type);
        ASSERT_EQ(r.options[i].value.size(), expect[i].len);
        if (expect[i].len == 4) {
            EXPECT_EQ(r.options[i].U32(), expect[i].value);
        }
        if (expect[i].len == 2) {
            EXPECT_EQ(r.options[i].U16(), expect[i].value);
        }
    }
    EXPECT_EQ(r.options[0].Text(), name);
    EXPECT_TRUE(r.params.empty());
    EXPECT_TRUE(r.tail.empty());
}

TEST_F(LogRecordTest, CallerOptionsAndParametersKeepTheirOrder) {
    QvAgentObj *obj = Create(2, 77);
    uint32_t a = 0xA1A2A3A4;
    uint16_t b = 0xB1B2;
    char text[] = "hello";
    char empty[] = "";
    ASSERT_EQ(QV_Agent_AddPara(obj, 7, sizeof a, &a, module_), QV_AGENT_OK);
    ASSERT_EQ(QV_Agent_AddOption(obj, 300, sizeof b, &b, module_), QV_AGENT_OK);
    ASSERT_EQ(QV_Agent_AddPara(obj, 25, 0, empty, module_), QV_AGENT_OK);
    ASSERT_EQ(QV_Agent_AddOption(obj, 0x10005, 0, &b, module_), QV_AGENT_OK) << "type is cut to 16 bits";
    ASSERT_EQ(QV_Agent_AddPara(obj, 25, sizeof text, text, module_), QV_AGENT_OK);
    ASSERT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK);

    const auto queued = Queued(QV_AGENT_MSG_LOG);
    ASSERT_EQ(queued.size(), 1u);
    const qvtest::DecodedRecord &r = queued[0];
    EXPECT_EQ(r.optionWord, 0xAAAAAA08u);
    ASSERT_EQ(r.options.size(), 8u);
    EXPECT_EQ(r.options[0].type, 300u);
    EXPECT_EQ(r.options[0].U16(), 0xB1B2u);
    EXPECT_EQ(r.options[1].type, 5u);
    EXPECT_TRUE(r.options[1].value.empty());
    EXPECT_EQ(r.options[2].type, 67u) << "sender options follow the caller's";
    ASSERT_EQ(r.params.size(), 3u);
    EXPECT_EQ(r.paraCount, 3u);
    EXPECT_EQ(r.params[0].type, 7u);
    EXPECT_EQ(r.params[0].U32(), 0xA1A2A3A4u);
    EXPECT_EQ(r.params[1].type, 25u);
    EXPECT_EQ(r.params[1].value, qvtest::Bytes{0}) << "an empty text is one 0 byte";
    EXPECT_EQ(r.params[2].value, qvtest::Bytes(text, text + sizeof text));
    EXPECT_TRUE(r.tail.empty());
}

TEST_F(LogRecordTest, WallTimeOptionReplacesTheHeadTime) {
    QvAgentObj *obj = Create(1, 1);
    const uint8_t head[QV_LOG_HEAD_LEN] = {};
    std::memcpy(const_cast<uint8_t *>(head), obj->pucRecord, sizeof head);
    const uint8_t time[12] = {0xE8, 0x07, 12, 31, 23, 59, 59, 2, 0xE7, 0x03, 0, 0};  // 2024-12-31 23:59:59.999
    EXPECT_EQ(QV_Agent_AddOption(obj, 38, 11, time, module_), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(std::memcmp(obj->pucRecord, head, sizeof head), 0) << "a refused option changes nothing";
    ASSERT_EQ(QV_Agent_AddOption(obj, 38, 12, time, module_), QV_AGENT_OK);
    EXPECT_EQ(std::memcmp(obj->pucRecord + 24, time, 12), 0);
    EXPECT_EQ(std::memcmp(obj->pucRecord + 36, head + 36, 8), 0) << "the monotonic time stays";
    ASSERT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK);
    const auto queued = Queued(QV_AGENT_MSG_LOG);
    ASSERT_EQ(queued.size(), 1u);
    EXPECT_EQ(queued[0].year, 2024u);
    EXPECT_EQ(queued[0].millisecond, 999u);
    EXPECT_EQ(queued[0].options[0].type, 38u) << "it also stays as an ordinary option";
}

TEST_F(LogRecordTest, LongTextIsCutAndTerminatedInTheCallersBuffer) {
    QvAgentObj *obj = Create(1, 1);
    std::vector<char> text(9000, 'x');
    ASSERT_EQ(QV_Agent_AddPara(obj, 25, static_cast<uint16_t>(text.size()), text.data(), module_), QV_AGENT_OK);
    EXPECT_EQ(text[8191], '\0') << "the agent terminates the caller's value";
    EXPECT_EQ(text[8190], 'x');
    EXPECT_EQ(text[8192], 'x');
    EXPECT_EQ(ParaUsed(obj), 4u + 4u + 8192u);
    uint16_t storedLen = 0;
    std::memcpy(&storedLen, obj->pucParaBuf + 4 + 2, sizeof storedLen);
    EXPECT_EQ(storedLen, 8192u);
    EXPECT_EQ(obj->pucParaBuf[8 + 8191], 0u);
    EXPECT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_ERR_NO_ROOM) << "no log record passes 2548 bytes";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, 0u);
}

// The two capacities: a buffer grows from 2548 to 9716 bytes when an entry would pass 2548 while it
// is still below, and is measured against 2548 again afterwards; a sent record never passes 2548.
TEST_F(LogRecordTest, CapacityBoundaries) {
    enum What { kOption, kPara };
    struct Step {
        What what;
        uint16_t len;
        uint32_t expect;
    };
    struct Case {
        const char *name;
        std::vector<Step> steps;
        uint16_t expectRecordLen;
        uint32_t expectSend;
        bool recordReplaced;  // the growth test gave the record a buffer of the large capacity
    };
    // Sender options of "evtsvc": 4 + 6, 8, 8, 8, 6, 6 = 46 bytes.
    const Case cases[] = {
        {"option filling 2548 exactly", {{kOption, 2496, QV_AGENT_OK}, {kOption, 0, QV_AGENT_ERR_NO_ROOM}}, 2548,
         QV_AGENT_ERR_NO_ROOM, false},
        {"option one past 2548 grows the record",
         {{kOption, 2497, QV_AGENT_OK}, {kOption, 1, QV_AGENT_ERR_NO_ROOM}},
         2549,
         QV_AGENT_ERR_NO_ROOM,
         true},
        {"option filling 9716 exactly", {{kOption, 9664, QV_AGENT_OK}}, 9716, QV_AGENT_ERR_NO_ROOM, true},
        {"option one past 9716", {{kOption, 9665, QV_AGENT_ERR_NO_ROOM}}, 48, QV_AGENT_OK, true},
        {"parameter within 2548", {{kPara, 2492, QV_AGENT_OK}}, 48, QV_AGENT_ERR_NO_ROOM, false},
        {"parameter one past 2548 grows both buffers", {{kPara, 2497, QV_AGENT_OK}}, 48, QV_AGENT_ERR_NO_ROOM, true},
        {"parameter filling 9716 exactly", {{kPara, 9708, QV_AGENT_OK}}, 48, QV_AGENT_ERR_NO_ROOM, true},
        {"parameter one past 9716", {{kPara, 9709, QV_ERANGE}}, 48, QV_AGENT_OK, true},
        {"record of exactly 2548 is sent", {{kPara, 2548 - 48 - 46 - 4, QV_AGENT_OK}}, 48, QV_AGENT_OK, false},
        {"record of 2549 is not", {{kPara, 2548 - 48 - 46 - 3, QV_AGENT_OK}}, 48, QV_AGENT_ERR_NO_ROOM, false},
    };
    std::vector<uint8_t> value(9716, 0x5A);
    for (const Case &c : cases) {
        SCOPED_TRACE(c.name);
        qvtest::DrainLists(module_);
        QvAgentObj *obj = Create(1, 1);
        const uint8_t *firstRecordBuffer = obj->pucRecord;
        for (const Step &s : c.steps) {
            const uint32_t rc = s.what == kOption ? QV_Agent_AddOption(obj, 99, s.len, value.data(), module_)
                                                  : QV_Agent_AddPara(obj, 6, s.len, value.data(), module_);
            EXPECT_EQ(rc, s.expect) << (s.what == kOption ? "option " : "parameter ") << s.len;
        }
        EXPECT_EQ(RecordLength(obj), c.expectRecordLen);
        EXPECT_EQ(obj->pucRecord != firstRecordBuffer, c.recordReplaced);
        EXPECT_EQ(QV_Agent_Send(obj, module_), c.expectSend);
        EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_LOG].uiCount, c.expectSend == QV_AGENT_OK ? 1u : 0u);
        if (c.expectSend == QV_AGENT_OK) {
            EXPECT_LE(Queued(QV_AGENT_MSG_LOG)[0].length, 2548u);
        }
        EXPECT_EQ(qvtest::AgentBlocks(), baseBlocks_ + module_->astSendList[QV_AGENT_MSG_LOG].uiCount);
    }
}

}  // namespace
