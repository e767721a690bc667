// Logs by identifier and debug logs: the exact record, where each kind goes, the debug level, key and
// text, the VRID, refusals, the time fields at the last millisecond of a year, and allocation failure
// at each block of a report.
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "core/clock.h"
#include "module_fixture.h"

namespace {

class LogReportTest : public AgentTest {
protected:
    void TearDown() override {
        qv::clock::SetReader(nullptr);
        AgentTest::TearDown();
    }
    // The only record queued on any list, decoded; fails the test when there is not exactly one.
    qvtest::DecodedRecord Only(uint32_t *list = nullptr) {
        qvtest::DecodedRecord found;
        uint32_t count = 0;
        for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) {
            for (const auto &r : Queued(k)) {
                found = r;
                ++count;
                if (list != nullptr) *list = k;
            }
        }
        EXPECT_EQ(count, 1u);
        return found;
    }
    size_t NameLen() const { return std::strlen(module_->szServiceName); }
};

TEST_F(LogReportTest, PortDownRecordByteForByte) {
    ASSERT_EQ(QV_Agent_ReportLogById(4, 0x1234, "port %u down", 7u), QV_AGENT_OK);
    uint32_t list = 99;
    const qvtest::DecodedRecord r = Only(&list);
    ASSERT_TRUE(r.ok) << r.error;
    EXPECT_EQ(list, QV_AGENT_MSG_LOG);
    EXPECT_EQ(r.length, 48 + 4 + NameLen() + 8);
    EXPECT_TRUE(r.msgId == 0x1234 && r.kind == 4 && r.level == 0xFF && r.headWord == 0 && r.vrid == 0);
    EXPECT_EQ(r.optionWord, 0xAAAAAA01u);
    ASSERT_TRUE(r.options.size() == 1 && r.params.size() == 1 && r.tail.empty());
    EXPECT_TRUE(r.options[0].type == 67 && r.options[0].Text() == "evtsvc");
    EXPECT_TRUE(r.params[0].type == 3 && r.params[0].U32() == 7);
}

TEST_F(LogReportTest, EachKindGoesToItsList) {
    const struct {
        uint32_t kind;
        uint32_t id;
        uint32_t list;
        uint32_t restraintEntries;  // besides the allocator report's
    } cases[] = {{1, 0x10, QV_AGENT_MSG_LOG, 0},        {4, 0x11, QV_AGENT_MSG_LOG, 0},
                 {5, 0x12, QV_AGENT_MSG_ALARM, 0},      {10, 0x13, QV_AGENT_MSG_DEBUG, 0},
                 {20, 0x14, QV_AGENT_MSG_HIGH_PRECISION, 0}, {23, 0x15, QV_AGENT_MSG_LOG, 0},
                 {9, 0x16, QV_AGENT_MSG_LOG, 1},        {9, QV_AGENT_RESTRAINT_SUMMARY_ID, QV_AGENT_MSG_LOG, 0}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.kind);
        qvtest::DrainLists(module_);
        QV_AGENT_DiagNodeDelete(module_);
        ASSERT_EQ(QV_Agent_ReportLogById(c.kind, c.id, "%d", 1), QV_AGENT_OK);
        uint32_t list = 99;
        EXPECT_EQ(Only(&list).msgId, c.id);
        EXPECT_EQ(list, c.list);
        EXPECT_EQ(qvtest::RestraintEntries(module_), c.restraintEntries);
    }
}

TEST_F(LogReportTest, RefusedReportsQueueNothing) {
    const struct {
        const char *name;
        uint32_t rc;
    } cases[] = {
        {"identifier 0", QV_Agent_ReportLogById(1, 0, "%d", 1)},
        {"null format", QV_Agent_ReportLogById(1, 5, nullptr)},
        {"kind 8 needs a debug text", QV_Agent_ReportLogById(8, 5, "%d", 1)},
        {"unknown conversion", QV_Agent_ReportLogById(1, 5, "%q", 1)},
        {"debug without key", QV_Agent_Debug(nullptr, "t", 1, "")},
        {"debug without text", QV_Agent_Debug(reinterpret_cast<const QvAgentDebugKey *>(&baseBlocks_), nullptr, 1, "")},
    };
    for (const auto &c : cases) EXPECT_EQ(c.rc, QV_AGENT_ERR_PARAM) << c.name;
    for (uint32_t k = 0; k < QV_AGENT_MSG_KIND_COUNT; ++k) EXPECT_EQ(module_->astSendList[k].uiCount, 0u);
    EXPECT_EQ(QV_Agent_GetMsgTypeByQvType(8), QV_AGENT_MSG_DEBUG);

    QvAgentModule *saved = QV_Agent_GetHandle();
    QV_Agent_SetHandle(nullptr);
    const QvAgentDebugKey key{1, 2};
    EXPECT_EQ(QV_Agent_ReportLogById(1, 5, "%d", 1), QV_AGENT_ERR_PARAM) << "no module record";
    EXPECT_EQ(QV_Agent_Debug(&key, "t", 1, ""), QV_AGENT_ERR_PARAM);
    QV_Agent_SetHandle(saved);
}

TEST_F(LogReportTest, DebugRecordCarriesKeyLevelAndText) {
    const struct {
        uint32_t debugId;
        uint8_t level;
    } levels[] = {{0x0001C000, 7}, {0x00004000, 1}, {0x00003FFF, 0}, {0xFFFFFFFF, 7}, {0x00018000, 6}};
    const QvAgentDebugKey key{0xABCD0001, 0x12345678};
    for (const auto &c : levels) {
        SCOPED_TRACE(c.debugId);
        qvtest::DrainLists(module_);
        ASSERT_EQ(QV_Agent_Debug(&key, "ab", c.debugId, "%d", 5), QV_AGENT_OK);
        uint32_t list = 99;
        const qvtest::DecodedRecord r = Only(&list);
        ASSERT_TRUE(r.ok) << r.error;
        EXPECT_TRUE(list == QV_AGENT_MSG_DEBUG && r.kind == 8 && r.msgId == c.debugId && r.headWord == 0xABCD0001u);
        EXPECT_EQ(r.level, c.level);
        EXPECT_EQ(r.length, 48 + 4 + NameLen() + 8 + 4 + 3);
        EXPECT_EQ(r.tail, (qvtest::Bytes{0x78, 0x56, 0x34, 0x12, 'a', 'b', 0}));
    }
}

TEST_F(LogReportTest, DebugTextOf255CharactersFits) {
    const QvAgentDebugKey key{1, 2};
    const std::string fits(255, 'd');
    const std::string tooLong(256, 'd');
    EXPECT_EQ(QV_Agent_Debug(&key, tooLong.c_str(), 1, ""), QV_AGENT_ERR_DEBUG_TEXT);
    EXPECT_EQ(module_->astSendList[QV_AGENT_MSG_DEBUG].uiCount, 0u);
    ASSERT_EQ(QV_Agent_Debug(&key, fits.c_str(), 1, ""), QV_AGENT_OK);
    const qvtest::DecodedRecord r = Only();
    ASSERT_EQ(r.tail.size(), 4u + 256u);
    EXPECT_EQ(std::string(r.tail.begin() + 4, r.tail.end() - 1), fits);
    EXPECT_EQ(r.paraCount, 0u) << "an empty format gives no parameter";
    EXPECT_TRUE(r.params.empty());
}

TEST_F(LogReportTest, VridGoesIntoDebugHeadsOnly) {
    const QvAgentDebugKey key{1, 2};
    ASSERT_EQ(QV_Agent_Debug(&key, "x", 1, "%_VRID%d", 9u, 4), QV_AGENT_OK);
    qvtest::DecodedRecord r = Only();
    EXPECT_EQ(r.vrid, 9u);
    EXPECT_EQ(r.paraCount, 1u) << "the VRID is no parameter";
    qvtest::DrainLists(module_);
    ASSERT_EQ(QV_Agent_ReportLogById(1, 3, "%_VRID%d", 9u, 4), QV_AGENT_OK);
    r = Only();
    EXPECT_EQ(r.vrid, 0u);
    EXPECT_EQ(r.paraCount, 1u);
}

// 2026-12-31 23:59:59.999 UTC, a Thursday; the monotonic clock at 0x1_0000_0005 ms.
int LastMomentOfTheYear(clockid_t clock, timespec *now) {
    if (clock == CLOCK_MONOTONIC) {
        now->tv_sec = 0x100000005LL / 1000;
        now->tv_nsec = (0x100000005LL % 1000) * 1000000;
    } else {
        now->tv_sec = 1798761599;
        now->tv_nsec = 999999999;
    }
    return 0;
}

int BrokenWallClock(clockid_t clock, timespec *now) { return clock == CLOCK_REALTIME ? -1 : LastMomentOfTheYear(clock, now); }

TEST_F(LogReportTest, TimeFieldsAtTheLastMillisecondOfTheYear) {
    qv::clock::SetReader(LastMomentOfTheYear);
    ASSERT_EQ(QV_Agent_ReportLogById(1, 1, ""), QV_AGENT_OK);
    qvtest::DecodedRecord r = Only();
    EXPECT_EQ((std::vector<uint32_t>{r.year, r.month, r.day, r.hour, r.minute, r.second, r.weekday, r.millisecond}),
              (std::vector<uint32_t>{2026, 12, 31, 23, 59, 59, 4, 999}));
    EXPECT_EQ(r.monotonicMs, 0x100000005ull);

    qvtest::DrainLists(module_);
    qv::clock::SetReader(BrokenWallClock);
    ASSERT_EQ(QV_Agent_ReportLogById(1, 1, ""), QV_AGENT_OK);
    r = Only();
    EXPECT_EQ(r.year, 0u) << "an unreadable clock leaves the time at zero";
    EXPECT_EQ(r.monotonicMs, 0u);
}

TEST_F(LogReportTest, CalendarOfKnownDays) {
    const struct {
        long days;
        int year;
        unsigned month, day;
    } cases[] = {{0, 1970, 1, 1}, {59, 1970, 3, 1}, {11016, 2000, 2, 29}, {11017, 2000, 3, 1},
                 {20819, 2027, 1, 1}, {-1, 1969, 12, 31}, {47540, 2100, 2, 28}, {47541, 2100, 3, 1}};
    for (const auto &c : cases) {
        const qv::clock::CivilDate d = qv::clock::CivilFromDays(c.days);
        EXPECT_EQ(d.year, c.year) << c.days;
        EXPECT_EQ(d.month, c.month) << c.days;
        EXPECT_EQ(d.day, c.day) << c.days;
        for (int twice = 0; twice < 2; ++twice) {  // computed, then remembered
            const qv::clock::CivilDate remembered = qv::clock::DateOfDay(c.days);
            EXPECT_TRUE(remembered.year == c.year && remembered.month == c.month && remembered.day == c.day)
                << c.days;
        }
    }
}

}  // namespace
