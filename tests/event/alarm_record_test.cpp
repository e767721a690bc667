// Alarm records: the 40-byte head, the common attributes, the sender's four options, the parameter
// limits, the attribute word helper and the trace written when an alarm is sent.
#include <unistd.h>

#include <cstring>
#include <string>
#include <vector>

#include "module_fixture.h"
#include "test_support.h"

namespace {

using AlarmRecordTest = AgentTest;

QvAgentSysTime AlarmTime() {
    QvAgentSysTime t{};
    t.usYear = 2026;
    t.ucMonth = 11;
    t.ucDay = 23;
    t.ucHour = 4;
    t.ucMinute = 5;
    t.ucSecond = 6;
    t.ucWeekDay = 1;  // not taken over
    t.uiMilliSec = 789;
    return t;
}

QvAgentAlarmComAttr Attributes(const QvAgentSysTime *time, uint32_t category) {
    QvAgentAlarmComAttr a{};
    a.uiCategory = category;
    a.uiOption16Val = 0x16161616;
    a.uiHeaderByte = 0x1AB;  // only the low byte is kept
    a.pstTime = time;
    a.uiOption8Val = 0x08080808;
    a.uiHeaderWord = 0xCAFEF00D;
    return a;
}

TEST_F(AlarmRecordTest, CommonAttributesFillTheHeadAndAddTwoOptions) {
    QvAgentObj *obj = Create(5, 0xA1A2);
    uint16_t len = 0;
    std::memcpy(&len, obj->pucRecord + QV_REC_LEN_OFF, 2);
    EXPECT_EQ(len, 40u);
    const QvAgentSysTime time = AlarmTime();
    const QvAgentAlarmComAttr attr = Attributes(&time, 4);
    ASSERT_EQ(QV_Agent_SetAlarmComAttr(obj, &attr, module_), QV_AGENT_OK);
    const qvtest::DecodedRecord r = qvtest::DecodeRecord(qvtest::Bytes(obj->pucRecord, obj->pucRecord + 56));
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(r.length, 56u);
    EXPECT_EQ(r.optionWord, 2u);
    EXPECT_EQ(r.attrMarker, 0xFFu);
    EXPECT_EQ(r.attrByte, 0xABu);
    EXPECT_EQ(r.category, 4u);
    EXPECT_EQ(r.attrWord, 0xCAFEF00Du);
    // The weekday is not taken over: its byte stays 0.
    EXPECT_EQ((std::vector<uint32_t>{r.year, r.month, r.day, r.hour, r.minute, r.second, r.weekday, r.millisecond}),
              (std::vector<uint32_t>{2026, 11, 23, 4, 5, 6, 0, 789}));
    ASSERT_EQ(r.options.size(), 2u);
    EXPECT_EQ(r.options[0].type, 8u);
    EXPECT_EQ(r.options[0].U32(), 0x08080808u);
    EXPECT_EQ(r.options[1].type, 16u);
    EXPECT_EQ(r.options[1].U32(), 0x16161616u);
    QV_Agent_ObjFree(obj, module_);
}

TEST_F(AlarmRecordTest, OnlyCategoriesOneTwoAndFourAreAccepted) {
    const QvAgentSysTime time = AlarmTime();
    for (uint32_t category : {0u, 1u, 2u, 3u, 4u, 5u, 0xFFFFFFFFu}) {
        SCOPED_TRACE(category);
        QvAgentObj *obj = Create(5, 1);
        const std::vector<uint8_t> before(obj->pucRecord, obj->pucRecord + 40);
        const QvAgentAlarmComAttr attr = Attributes(&time, category);
        const bool accepted = category == 1 || category == 2 || category == 4;
        EXPECT_EQ(QV_AGENT_CheckAlarmComAttr(obj, &attr, module_), accepted ? QV_AGENT_OK : QV_AGENT_ERR_PARAM);
        EXPECT_EQ(QV_Agent_SetAlarmComAttr(obj, &attr, module_), accepted ? QV_AGENT_OK : QV_AGENT_ERR_PARAM);
        if (!accepted) {
            EXPECT_EQ(std::vector<uint8_t>(obj->pucRecord, obj->pucRecord + 40), before) << "nothing changed";
        }
        QV_Agent_ObjFree(obj, module_);
    }
}

TEST_F(AlarmRecordTest, SentAlarmCarriesTheSendersFourOptions) {
    QvAgentProcessInfo info{};
    std::strcpy(info.szProcessName, "proc");
    for (uint32_t i = 0; i < 5; ++i) info.auiProcessInfo[i] = 0x100 + i;
    ASSERT_EQ(QV_Agent_SetProcessInfo(module_, &info), QV_AGENT_OK);
    module_->ucLocalIdA = 7;
    module_->ucLocalIdB = 9;
    const QvAgentSysTime time = AlarmTime();
    const QvAgentAlarmComAttr attr = Attributes(&time, 2);
    const std::string name = "evtsvc";
    struct Case {
        bool withAttributes;
        uint32_t expectOptionWord;
        size_t expectLength;
    };
    for (const Case c : {Case{false, 0xAAAAAA04u, 40 + (4 + name.size()) + 56 + 6 + 6},
                         Case{true, 0xAAAAAA06u, 40 + 16 + (4 + name.size()) + 56 + 6 + 6}}) {
        SCOPED_TRACE(c.withAttributes);
        qvtest::DrainLists(module_);
        QvAgentObj *obj = Create(5, 0xBEEF);
        if (c.withAttributes) {
            ASSERT_EQ(QV_Agent_SetAlarmComAttr(obj, &attr, module_), QV_AGENT_OK);
        }
        ASSERT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_OK);
        const auto queued = Queued(QV_AGENT_MSG_ALARM);
        ASSERT_EQ(queued.size(), 1u);
        const qvtest::DecodedRecord &r = queued[0];
        EXPECT_EQ(r.recordType, QV_REC_TYPE_ALARM);
        EXPECT_EQ(r.msgId, 0xBEEFu);
        EXPECT_EQ(r.optionWord, c.expectOptionWord);
        EXPECT_EQ(r.length, c.expectLength);
        const size_t first = c.withAttributes ? 2 : 0;
        ASSERT_EQ(r.options.size(), first + 4);
        EXPECT_EQ(r.options[first].type, 67u);
        EXPECT_EQ(r.options[first].Text(), name);
        EXPECT_EQ(r.options[first + 1].type, 80u);
        qvtest::Bytes process(52, 0);
        std::memcpy(process.data(), "proc", 4);
        for (uint32_t i = 0; i < 5; ++i) {
            const uint32_t v = 0x100 + i;
            std::memcpy(process.data() + 32 + 4 * i, &v, 4);
        }
        EXPECT_EQ(r.options[first + 1].value, process);
        EXPECT_EQ(r.options[first + 2].U16(), 7u);
        EXPECT_EQ(r.options[first + 3].U16(), 9u);
    }
}

TEST_F(AlarmRecordTest, ParameterLimits) {
    QvAgentObj *obj = Create(5, 1);
    uint8_t byte = 1;
    for (int i = 0; i < 255; ++i) ASSERT_EQ(QV_Agent_AddPara(obj, 1, 1, &byte, module_), QV_AGENT_OK) << i;
    EXPECT_EQ(QV_Agent_AddPara(obj, 1, 1, &byte, module_), QV_AGENT_ERR_PARAM) << "the 256th parameter";
    EXPECT_EQ(obj->pucRecord[QV_ALARM_PARA_NUM_OFF], 255u);
    QV_Agent_ObjFree(obj, module_);

    obj = Create(5, 1);
    std::vector<char> text(2000, 'y');
    ASSERT_EQ(QV_Agent_AddPara(obj, 25, 2000, text.data(), module_), QV_AGENT_OK);
    EXPECT_EQ(text[1023], '\0');
    uint16_t stored = 0;
    std::memcpy(&stored, obj->pucParaBuf + 6, 2);
    EXPECT_EQ(stored, 1024u);
    EXPECT_EQ(obj->pucParaBuf[8 + 1023], 0u);
    // Head 40 + this entry 1028 leave 1480 bytes: an entry of 1476 fits, one of 1477 does not.
    std::vector<uint8_t> big(1477, 0x42);
    EXPECT_EQ(QV_Agent_AddPara(obj, 2, 1477, big.data(), module_), QV_AGENT_ERR_NO_ROOM);
    EXPECT_EQ(QV_Agent_AddPara(obj, 2, 1476, big.data(), module_), QV_AGENT_OK);
    EXPECT_EQ(QV_Agent_Send(obj, module_), QV_AGENT_ERR_NO_ROOM) << "no room left for the sender's options";
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_ALARM].uiCount, 0u);
}

TEST_F(AlarmRecordTest, AttributeWordFromNotificationBytes) {
    const struct {
        uint8_t in[2];
        uint32_t expect;
    } cases[] = {{{0, 0}, 0x4}, {{0, 1}, 0xC}, {{3, 0}, 0x304}, {{3, 1}, 0x30C}, {{0xFF, 0xFE}, 0xFF04}};
    for (const auto &c : cases) {
        uint32_t out = 0;
        EXPECT_EQ(QV_AGENT_GetAttributeExtByNtfOpValue(&out, c.in), QV_AGENT_OK);
        EXPECT_EQ(out, c.expect) << int{c.in[0]} << "," << int{c.in[1]};
    }
    uint32_t out = 0;
    EXPECT_EQ(QV_AGENT_GetAttributeExtByNtfOpValue(nullptr, cases[0].in), QV_AGENT_ERR_PARAM);
    EXPECT_EQ(QV_AGENT_GetAttributeExtByNtfOpValue(&out, nullptr), QV_AGENT_ERR_PARAM);
}

TEST_F(AlarmRecordTest, SendingTracesTheAlarmWithAStackDump) {
    constexpr char kTraceFile[] = "/opt/zanthe/var/log/qvagent.log";
    ::unlink(kTraceFile);
    qvtest::ServiceTypeEnv env("alm");
    ASSERT_EQ(QV_Agent_Send(Create(5, 0x1234), module_), QV_AGENT_OK);
    EXPECT_FALSE(qvtest::FileExists(kTraceFile)) << "nothing while tracing is off";
    g_bQvagentDbgSwitch = 1;
    ASSERT_EQ(QV_Agent_Send(Create(5, 0x1234), module_), QV_AGENT_OK);
    const std::string trace = qvtest::ReadFile(kTraceFile);
    const size_t line = trace.find("[alm]almid=0x1234, service=evtsvc\n");
    ASSERT_NE(line, std::string::npos) << trace;
    EXPECT_NE(trace.find("QV_AGENT_SendAlarmMsg", line), std::string::npos) << "the stack dump follows:\n" << trace;
}

}  // namespace
