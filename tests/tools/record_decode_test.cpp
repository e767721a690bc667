// The record decoder shared by the collector and the dumper: every head field by name, options and
// parameters decoded by their type codes, the three forms of log records told apart, and bad records
// reported by reason, never read past their end.
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "json_writer.h"
#include "qvagent/qv_agent_wire.h"
#include "record_decode.h"
#include "wire_builder.h"

namespace {

using namespace wiretest;

// The record's line, or "error: REASON".
std::string Decode(const Bytes &record) {
    qvdecode::JsonWriter w;
    w.BeginObject();
    const auto err = qvdecode::DecodeRecord(qvdecode::Bytes(record.data(), record.size()), w);
    if (err) return "error: " + *err;
    w.EndObject();
    return w.Take();
}

void ExpectFragments(const std::string &line, const std::vector<std::string> &fragments) {
    for (const std::string &f : fragments) EXPECT_NE(line.find(f), std::string::npos) << "missing " << f << "\nin " << line;
}

// A record by identifier carrying one parameter entry.
Bytes OneParam(uint16_t type, const Bytes &value) { return ByIdRecord(4, 0x1234, {Entry(type, value)}); }

TEST(DecodeRecord, ByIdentifierRecordLineIsExact) {
    // What the agent builds for ReportLogById(4, 0x1234, "port %u down", 7) in service "svc".
    const Bytes rec = ByIdRecord(4, 0x1234, {Entry(QV_FMT_PARA_U32, Le32(7))});
    ASSERT_EQ(rec.size(), 48u + 4 + 3 + 8);
    EXPECT_EQ(Decode(rec),
              "{\"record\":\"log\",\"form\":\"by_id\",\"length\":63,\"head_word\":0,\"vrid\":0,\"log_id\":4660,"
              "\"reserved\":0,\"para_num\":1,\"level\":255,\"obj_kind\":4,\"time\":{\"year\":2026,\"month\":12,"
              "\"day\":31,\"hour\":23,\"minute\":59,\"second\":59,\"weekday\":4,\"ms\":999},\"mono_ms\":4294967301,"
              "\"opt_word\":2863311361,\"opt_count\":1,"
              "\"options\":[{\"type\":67,\"len\":3,\"as\":\"text\",\"value\":\"svc\"}],"
              "\"params\":[{\"type\":3,\"len\":4,\"as\":\"u32\",\"value\":7}]}");
}

struct RecordCase {
    const char *name;
    Bytes record;
    std::vector<std::string> fragments;
};

TEST(DecodeRecord, RecordsOfEveryFormDecodeFieldByField) {
    Bytes wallTime = TestSysTime();
    wallTime.resize(QV_WALL_TIME_LEN);
    std::vector<Bytes> manyOptions(250, Entry(99, Bytes{}));
    LogHead unsent;
    unsent.optWord = 1;  // a record before sending: no marker
    const RecordCase cases[] = {
        {"event-object log with sender options",
         ObjectLogRecord(0x1001, 4, {Entry(99, Text("ab"))}, {Entry(QV_PARA_TYPE_TEXT, TextZ("hello")), Entry(7, {1, 2, 3})}),
         {"\"record\":\"log\",\"form\":\"object\"", "\"log_id\":4097", "\"para_num\":2,\"level\":255,\"obj_kind\":4",
          "\"opt_word\":2863311367,\"opt_count\":7",
          "{\"type\":99,\"len\":2,\"as\":\"hex\",\"value\":\"6162\"}",
          "{\"type\":67,\"len\":3,\"as\":\"text\",\"value\":\"svc\"}",
          "{\"type\":79,\"len\":4,\"as\":\"u32\",\"value\":77}", "{\"type\":11,\"len\":4,\"as\":\"u32\",\"value\":4242}",
          "{\"type\":10,\"len\":4,\"as\":\"position\",\"value\":{\"local_id_b\":3,\"local_id_a\":2,\"cpu\":1}}",
          "{\"type\":20,\"len\":2,\"as\":\"u16\",\"value\":2}", "{\"type\":21,\"len\":2,\"as\":\"u16\",\"value\":3}",
          "\"params\":[{\"type\":25,\"len\":6,\"as\":\"text\",\"value\":\"hello\"},"
          "{\"type\":7,\"len\":3,\"as\":\"hex\",\"value\":\"010203\"}]"}},
        {"event-object type 25 is text, while in a formatted record it is a date",
         ObjectLogRecord(1, 2, {}, {Entry(QV_PARA_TYPE_TEXT, TextZ("x"))}),
         {"{\"type\":25,\"len\":2,\"as\":\"text\",\"value\":\"x\"}"}},
        {"log time option replaces nothing in the decoder and reads as a wall time",
         ObjectLogRecord(1, 2, {Entry(QV_OPT_LOG_TIME, wallTime)}, {}),
         {"{\"type\":38,\"len\":12,\"as\":\"wall_time\",\"value\":{\"year\":2026,\"month\":12,\"day\":31,\"hour\":23,"
          "\"minute\":59,\"second\":59,\"weekday\":4,\"ms\":999}}"}},
        {"more than 255 options: the marker word carries the count's low byte",
         ObjectLogRecord(1, 2, manyOptions, {}), {"\"opt_word\":2863311616,\"opt_count\":256"}},
        {"option word without the marker", LogRecord(unsent, Entry(67, Text("s"))), {"\"opt_word\":1,\"opt_count\":1"}},
        {"debug record with key words, level, VRID and text",
         DebugRecord(0x11, 0x22, 0x0001C005, 9, {Entry(QV_FMT_PARA_I32, Le32(static_cast<uint32_t>(-5)))}, "ab"),
         {"\"form\":\"debug\"", "\"head_word\":17,\"vrid\":9,\"log_id\":114693", "\"level\":7,\"obj_kind\":8",
          "\"params\":[{\"type\":4,\"len\":4,\"as\":\"i32\",\"value\":-5}],\"key_word1\":34,\"text\":\"ab\""}},
        {"debug record with an empty text and no parameters", DebugRecord(1, 2, 0x3FFF, 0, {}, ""),
         {"\"level\":0", "\"params\":[],\"key_word1\":2,\"text\":\"\""}},
        {"restraint summary is a by-identifier record of kind 9",
         ByIdRecord(9, 0x0957106C, {Entry(3, Le32(1)), Entry(3, Le32(2)), Entry(3, Le32(3))}),
         {"\"form\":\"by_id\"", "\"obj_kind\":9", "\"log_id\":156700780"}},
        {"alarm with common attributes and sender options", TypicalAlarm(0x2002, "disk full"),
         {"\"record\":\"alarm\",\"length\":", "\"reserved0\":0,\"reserved1\":0,\"alarm_id\":8194,\"attr_marker\":255,"
          "\"para_num\":1,\"attr_byte\":3,\"category\":2,\"attr_word\":772,\"time\":{\"year\":2026,\"month\":12,"
          "\"day\":31,\"hour\":23,\"minute\":59,\"second\":59,\"reserved\":0,\"ms\":999},"
          "\"opt_word\":2863311366,\"opt_count\":6",
          "{\"type\":8,\"len\":4,\"as\":\"u32\",\"value\":8}", "{\"type\":16,\"len\":4,\"as\":\"u32\",\"value\":16}",
          "{\"type\":80,\"len\":52,\"as\":\"process_info\",\"value\":{\"process_name\":\"proc\",\"info\":[1,2,3,4,5]}}",
          "\"params\":[{\"type\":25,\"len\":10,\"as\":\"text\",\"value\":\"disk full\"}]"}},
        {"text is escaped into valid JSON",
         ByIdRecord(4, 1, {Entry(QV_FMT_PARA_STRING, Cat({Text("a\"b\\c\n"), Bytes{0x01, 0xFF, 0xC3, 0xA9, 0x7F, 0}}))}),
         {"\"value\":\"a\\\"b\\\\c\\n\\u0001\\u00ff\xC3\xA9\\u007f\""}},
    };
    for (const RecordCase &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string line = Decode(c.record);
        ASSERT_EQ(line.rfind("error", 0), std::string::npos) << line;
        ExpectFragments(line, c.fragments);
    }
}

struct ParaCase {
    uint16_t type;
    Bytes value;
    std::string expected;  // "as" and "value" of the entry
};

TEST(DecodeRecord, FormatAnalyserParametersDecodeByTypeCode) {
    const ParaCase cases[] = {
        {QV_FMT_PARA_U64, Le64(~0ull), "\"as\":\"u64\",\"value\":18446744073709551615"},
        {QV_FMT_PARA_I64, Le64(static_cast<uint64_t>(-2)), "\"as\":\"i64\",\"value\":-2"},
        {QV_FMT_PARA_U32, Le32(0xFFFFFFFF), "\"as\":\"u32\",\"value\":4294967295"},
        {QV_FMT_PARA_I32, Le32(0x80000000), "\"as\":\"i32\",\"value\":-2147483648"},
        {QV_FMT_PARA_U16, {0x70, 0x11}, "\"as\":\"u16\",\"value\":4464"},
        {QV_FMT_PARA_I16, {0xFE, 0xFF}, "\"as\":\"i16\",\"value\":-2"},
        {QV_FMT_PARA_CHAR, {'A'}, "\"as\":\"char\",\"value\":\"A\""},
        {QV_FMT_PARA_CHAR, {0}, "\"as\":\"char\",\"value\":\"\\u0000\""},
        {QV_FMT_PARA_HEX, Le32(0xABCD), "\"as\":\"hex32\",\"value\":\"0x0000abcd\""},
        {QV_FMT_PARA_STRING, TextZ("port"), "\"as\":\"string\",\"value\":\"port\""},
        {QV_FMT_PARA_STRING, {0}, "\"as\":\"string\",\"value\":\"\""},
        {QV_FMT_PARA_STRING, Text("cut"), "\"as\":\"string\",\"value\":\"cut\""},
        {QV_FMT_PARA_IPV4, {0x01, 0x00, 0xA8, 0xC0}, "\"as\":\"ipv4\",\"value\":\"192.168.0.1\""},
        {QV_FMT_PARA_IPV6, FromHex("20010db8000000000000000000000001"), "\"as\":\"ipv6\",\"value\":\"2001:db8::1\""},
        {QV_FMT_PARA_MAC, FromHex("0011223344ff"), "\"as\":\"mac\",\"value\":\"00:11:22:33:44:ff\""},
        {QV_FMT_PARA_DATETIME, {0xEA, 0x07, 12, 31, 23, 59, 58}, "\"as\":\"datetime\",\"value\":\"2026-12-31 23:59:58\""},
        {QV_FMT_PARA_BLOCK, {5, 0, 0xAA, 0xBB, 0xCC}, "\"as\":\"block\",\"block_len\":5,\"value\":\"aabbcc\""},
        {QV_FMT_PARA_SIZED, {1, 2}, "\"as\":\"bytes\",\"value\":\"0102\""},
        {QV_FMT_PARA_SIZED, {}, "\"as\":\"bytes\",\"value\":\"\""},
        {QV_FMT_PARA_NO_VALUE, {}, "\"as\":\"none\",\"value\":null"},
        // Unknown codes, and known codes whose length does not fit them, are shown as hex.
        {99, {0xDE, 0xAD}, "\"as\":\"hex\",\"value\":\"dead\""},
        {QV_FMT_PARA_U32, {1, 2, 3}, "\"as\":\"hex\",\"value\":\"010203\""},
        {QV_FMT_PARA_IPV4, {1, 2, 3, 4, 5}, "\"as\":\"hex\",\"value\":\"0102030405\""},
        {QV_FMT_PARA_NO_VALUE, {7}, "\"as\":\"hex\",\"value\":\"07\""},
        {QV_FMT_PARA_BLOCK, {5}, "\"as\":\"hex\",\"value\":\"05\""},
    };
    for (const ParaCase &c : cases) {
        SCOPED_TRACE("type " + std::to_string(c.type) + " value " + ToHex(c.value));
        const std::string line = Decode(OneParam(c.type, c.value));
        ExpectFragments(line, {"{\"type\":" + std::to_string(c.type) + ",\"len\":" + std::to_string(c.value.size()) +
                                   "," + c.expected + "}"});
    }
}

// A record whose length field is patched to a given value.
Bytes WithLength(Bytes rec, size_t length) {
    rec[QV_REC_LEN_OFF] = static_cast<uint8_t>(length);
    rec[QV_REC_LEN_OFF + 1] = static_cast<uint8_t>(length >> 8);
    return rec;
}

TEST(DecodeRecord, BadRecordsAreRefusedWithTheirReason) {
    const Bytes object = ObjectLogRecord(1, 4, {}, {Entry(7, {1, 2})});
    const Bytes byId = ByIdRecord(4, 1, {Entry(3, Le32(1))});
    Bytes objectOverrun = object;
    objectOverrun[objectOverrun.size() - 4] = 9;  // the last entry's length claims more than is left
    Bytes paraCountTooHigh = object;
    paraCountTooHigh[QV_LOG_PARA_NUM_OFF] = 9;
    Bytes optWordWrong = object;
    optWordWrong[QV_LOG_OPT_COUNT_OFF] = 5;
    Bytes byIdMissingParam = byId;
    byIdMissingParam[QV_LOG_PARA_NUM_OFF] = 2;
    LogHead debugHead;
    debugHead.kind = QV_REC_KIND_DEBUG;
    debugHead.optWord = QV_REC_FORMATTED_OPT_WORD;
    const Bytes service = Entry(QV_OPT_SERVICE_NAME, Text("s"));
    const struct {
        const char *name;
        Bytes record;
        const char *reason;
    } cases[] = {
        {"empty", {}, "record of 0 bytes, shorter than its type and length"},
        {"three bytes", {1, 0, 3}, "record of 3 bytes"},
        {"length field longer than the record", WithLength(object, object.size() + 1), "length field"},
        {"log record shorter than its head", WithLength(Cat({Le16(1), Bytes(38, 0)}), 40), "log record of 40 bytes, shorter than its head"},
        {"alarm record shorter than its head", WithLength(Cat({Le16(2), Bytes(28, 0)}), 30),
         "alarm record of 30 bytes, shorter than its head"},
        {"unknown record type", WithLength(Cat({Le16(3), Bytes(50, 0)}), 52), "unknown record type 3"},
        {"entry running past the end", objectOverrun, "runs past the record end"},
        {"entry head cut short", WithLength(Cat({object, Bytes{1, 0}}), object.size() + 2), "entry head cut short"},
        {"parameter count above the entries", paraCountTooHigh, "parameter count 9 but 7 entries"},
        {"option word disagrees with the options", optWordWrong, "does not match 6 options"},
        {"by identifier, a parameter missing", byIdMissingParam, "entry head cut short"},
        {"by identifier, bytes after the parameters", WithLength(Cat({byId, Bytes{0}}), byId.size() + 1),
         "1 bytes after the parameters"},
        {"debug text without its zero", LogRecord(debugHead, Cat({service, Le32(1), Text("ab")})),
         "debug text without its terminating zero"},
        {"debug tail cut short", LogRecord(debugHead, Cat({service, Bytes{1, 2, 3}})), "debug tail cut short"},
        {"zero inside the debug text", LogRecord(debugHead, Cat({service, Le32(1), TextZ("a"), TextZ("b")})),
         "zero byte inside the debug text"},
        {"debug kind without the one service-name option", ObjectLogRecord(1, QV_REC_KIND_DEBUG, {}, {}),
         "debug record without the one service-name option"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string line = Decode(c.record);
        ASSERT_EQ(line.rfind("error: ", 0), 0u) << line;
        EXPECT_NE(line.find(c.reason), std::string::npos) << line;
    }
}

TEST(DecodeRecord, EveryTruncationOfAGoodRecordIsRefused) {
    const Bytes records[] = {
        ObjectLogRecord(1, 4, {Entry(99, Text("ab"))}, {Entry(QV_PARA_TYPE_TEXT, TextZ("hello")), Entry(7, {1})}),
        ByIdRecord(4, 1, {Entry(QV_FMT_PARA_STRING, TextZ("x")), Entry(QV_FMT_PARA_U64, Le64(1))}),
        DebugRecord(1, 2, 3, 4, {Entry(QV_FMT_PARA_U32, Le32(5))}, "text"),
        TypicalAlarm(7, "a"),
    };
    for (const Bytes &full : records) {
        ASSERT_EQ(Decode(full).rfind("error", 0), std::string::npos) << Decode(full);
        for (size_t n = 0; n < full.size(); ++n) {
            SCOPED_TRACE("first " + std::to_string(n) + " of " + std::to_string(full.size()) + " bytes");
            const Bytes cut(full.begin(), full.begin() + static_cast<long>(n));
            EXPECT_EQ(Decode(cut).rfind("error: ", 0), 0u);
            if (n >= QV_REC_HEAD_MIN_LEN) {
                EXPECT_EQ(Decode(WithLength(cut, n)).rfind("error: ", 0), 0u);
            }
        }
    }
}

TEST(DecodeRecord, RandomBytesNeverReadOutsideTheRecord) {
    std::mt19937 rng(20260101);
    for (int i = 0; i < 20000; ++i) {
        Bytes rec(rng() % 200);
        for (uint8_t &b : rec) b = static_cast<uint8_t>(rng());
        if (rec.size() >= QV_REC_HEAD_MIN_LEN) {
            rec[QV_REC_TYPE_OFF] = static_cast<uint8_t>(1 + rng() % 2);
            rec[QV_REC_TYPE_OFF + 1] = 0;
            if (rng() % 4 != 0) rec = WithLength(rec, rec.size());
            if (rec.size() > QV_LOG_OPT_COUNT_OFF + 4 && rng() % 2 == 0) {
                rec[QV_LOG_OPT_COUNT_OFF] = 1;  // often take the formatted path
                rec[QV_LOG_OPT_COUNT_OFF + 1] = rec[QV_LOG_OPT_COUNT_OFF + 2] = rec[QV_LOG_OPT_COUNT_OFF + 3] = 0xAA;
            }
        }
        const std::string line = Decode(rec);
        if (line.rfind("error: ", 0) == 0) continue;
        ASSERT_EQ(line.front(), '{');
        ASSERT_EQ(line.back(), '}');
    }
}

TEST(DecodeRecord, SplitFollowsLengthFieldsAndStopsWhereTheyFail) {
    const Bytes a = TypicalAlarm(1, "a");
    const Bytes b = TypicalAlarm(2, "bb");
    const Bytes run = Cat({a, b, Bytes{0x02, 0x00, 0xFF, 0x00, 1, 2}});
    const auto slices = qvdecode::SplitRecords(qvdecode::Bytes(run.data(), run.size()));
    ASSERT_EQ(slices.size(), 3u);
    EXPECT_EQ(slices[0].offset, 0u);
    EXPECT_EQ(slices[0].bytes.size(), a.size());
    EXPECT_EQ(slices[1].offset, a.size());
    EXPECT_EQ(slices[1].bytes.size(), b.size());
    EXPECT_TRUE(slices[1].error.empty());
    EXPECT_EQ(slices[2].offset, a.size() + b.size());
    EXPECT_EQ(slices[2].error, "record length field 255 reaches past the end");

    const struct {
        Bytes run;
        const char *error;
    } bad[] = {
        {{1, 0, 2}, "record head cut short"},
        {{1, 0, 2, 0}, "record length field 2, shorter than a record head"},
        {{1, 0, 0, 0}, "record length field 0, shorter than a record head"},
    };
    for (const auto &c : bad) {
        const auto s = qvdecode::SplitRecords(qvdecode::Bytes(c.run.data(), c.run.size()));
        ASSERT_EQ(s.size(), 1u);
        EXPECT_EQ(s[0].error, c.error);
        EXPECT_EQ(s[0].bytes.size(), c.run.size());
    }
}

}  // namespace
