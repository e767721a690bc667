// The record decoder and the collector's handling of one datagram, without sockets: head fields by
// name, options and parameters by type code, the three forms of log records, bad and cut records
// refused by reason; the kind of a datagram, its acknowledgement byte for byte, its JSON lines, bad
// datagrams, and sequence numbers (duplicates, gaps, wrap).
#include <gtest/gtest.h>

#include <string>

#include "collector.h"
#include "json_writer.h"
#include "record_decode.h"
#include "wire_builder.h"

namespace {

using namespace wiretest;
using qvcollector::Collector;
using qvcollector::Options;
using qvcollector::Outcome;
using qvcollector::Port;
using qvcollector::Sender;

constexpr Sender kSender{0x7F000001, 40000};
constexpr uint16_t kLogStream = QV_WIRE_STREAM_TYPE_LOG;
constexpr uint16_t kOtherStream = QV_WIRE_STREAM_TYPE_OTHER;

// The stream type a numbered datagram of the port carries; alarms carry none.
std::optional<uint16_t> StreamOf(Port port) {
    if (port == Port::Alarm) return std::nullopt;
    return port == Port::Log ? kLogStream : kOtherStream;
}

Outcome Feed(Collector &c, Port port, const Bytes &d, Sender from = kSender) {
    return c.Handle(port, from, qvdecode::Bytes(d.data(), d.size()));
}

// The record's fields as one JSON object, or "error: REASON".
std::string Decode(const Bytes &record) {
    qvdecode::JsonWriter w;
    w.BeginObject();
    const auto err = qvdecode::DecodeRecord(qvdecode::Bytes(record.data(), record.size()), w);
    if (err) return "error: " + *err;
    w.EndObject();
    return w.Take();
}

TEST(DecodeRecord, RecordsOfEveryFormDecodeFieldByField) {
    const Bytes wallTime = FromHex("ea07 0c 1f 17 3b 3b 04 e7030000");  // 2026-12-31 23:59:59.999, weekday 4
    const Bytes minus5 = Le32(static_cast<uint32_t>(-5));
    const Bytes escaped = Cat({Text("a\"b\\c\n"), Bytes{0x01, 0xFF, 0xC3, 0xA9, 0x7F, 0}});
    const struct {
        const char *name;
        Bytes record;
        std::vector<std::string> fragments;
    } cases[] = {
        {"by identifier, the whole line: ReportLogById(4, 0x1234, \"port %u down\", 7) in service svc",
         ByIdRecord(4, 0x1234, {Entry(QV_FMT_PARA_U32, Le32(7))}),
         {R"({"record":"log","form":"by_id","length":63,"head_word":0,"vrid":0,"log_id":4660,"reserved":0,)"
          R"("para_num":1,"level":255,"obj_kind":4,"time":{"year":2026,"month":12,"day":31,"hour":23,)"
          R"("minute":59,"second":59,"weekday":4,"ms":999},"mono_ms":4294967301,"opt_word":2863311361,)"
          R"("opt_count":1,"options":[{"type":67,"len":3,"as":"text","value":"svc"}],)"
          R"("params":[{"type":3,"len":4,"as":"u32","value":7}]})"}},
        {"event-object log with sender options",
         ObjectLogRecord(0x1001, 4, {Entry(99, Text("ab"))}, {Entry(25, TextZ("hello")), Entry(7, {1, 2, 3})}),
         {R"("record":"log","form":"object")", R"("log_id":4097,)", R"("para_num":2,"level":255,"obj_kind":4,)",
          R"("opt_word":2863311367,"opt_count":7,"options":[{"type":99,"len":2,"as":"hex","value":"6162"},)"
          R"({"type":67,"len":3,"as":"text","value":"svc"},{"type":79,"len":4,"as":"u32","value":77},)"
          R"({"type":11,"len":4,"as":"u32","value":4242},)"
          R"({"type":10,"len":4,"as":"position","value":{"local_id_b":3,"local_id_a":2,"cpu":1}},)"
          R"({"type":20,"len":2,"as":"u16","value":2},{"type":21,"len":2,"as":"u16","value":3}],)"
          R"("params":[{"type":25,"len":6,"as":"text","value":"hello"},)"
          R"({"type":7,"len":3,"as":"hex","value":"010203"}]})"}},
        {"log time option as a wall time", ObjectLogRecord(1, 2, {Entry(QV_OPT_LOG_TIME, wallTime)}, {}),
         {R"({"type":38,"len":12,"as":"wall_time","value":{"year":2026,"month":12,"day":31,"hour":23,)"
          R"("minute":59,"second":59,"weekday":4,"ms":999}})"}},
        {"256 options: the marker word carries the count past its low byte",
         ObjectLogRecord(1, 2, std::vector<Bytes>(250, Entry(99, {})), {}),
         {R"("opt_word":2863311616,"opt_count":256,)"}},
        {"option word without the marker", LogRecord({.optWord = 1}, Entry(67, Text("s"))),
         {R"("opt_word":1,"opt_count":1,)"}},
        {"debug record", DebugRecord(0x11, 0x22, 0x0001C005, 9, {Entry(QV_FMT_PARA_I32, minus5)}, "ab"),
         {R"("form":"debug")", R"("head_word":17,"vrid":9,"log_id":114693,)", R"("level":7,"obj_kind":8,)",
          R"("params":[{"type":4,"len":4,"as":"i32","value":-5}],"key_word1":34,"text":"ab"})"}},
        {"debug record with an empty text", DebugRecord(1, 2, 0x3FFF, 0, {}, ""),
         {R"("level":0,)", R"("params":[],"key_word1":2,"text":""})"}},
        {"alarm", TypicalAlarm(0x2002, "disk full"),
         {R"({"record":"alarm","length":145,"reserved0":0,"reserved1":0,"alarm_id":8194,"attr_marker":255,)"
          R"("para_num":1,"attr_byte":3,"category":2,"attr_word":772,"time":{"year":2026,"month":12,"day":31,)"
          R"("hour":23,"minute":59,"second":59,"reserved":0,"ms":999},"opt_word":2863311366,"opt_count":6,)"
          R"("options":[{"type":8,"len":4,"as":"u32","value":8},{"type":16,"len":4,"as":"u32","value":16},)",
          R"({"type":80,"len":52,"as":"process_info","value":{"process_name":"proc","info":[1,2,3,4,5]}})",
          R"("params":[{"type":25,"len":10,"as":"text","value":"disk full"}]})"}},
        {"text escaped into valid JSON", ByIdRecord(4, 1, {Entry(QV_FMT_PARA_STRING, escaped)}),
         {"\"value\":\"a\\\"b\\\\c\\n\\u0001\\u00ff\xC3\xA9\\u007f\""}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        const std::string line = Decode(c.record);
        for (const std::string &f : c.fragments) EXPECT_NE(line.find(f), std::string::npos) << f << "\nin " << line;
    }
}

TEST(DecodeRecord, FormatAnalyserParametersDecodeByTypeCode) {
    const struct {
        uint16_t type;
        Bytes value;
        std::string expected;  // "as" and "value" of the entry
    } cases[] = {
        {QV_FMT_PARA_U64, Le64(~0ull), R"("as":"u64","value":18446744073709551615)"},
        {QV_FMT_PARA_I64, Le64(static_cast<uint64_t>(-2)), R"("as":"i64","value":-2)"},
        {QV_FMT_PARA_I32, Le32(0x80000000), R"("as":"i32","value":-2147483648)"},
        {QV_FMT_PARA_I16, {0xFE, 0xFF}, R"("as":"i16","value":-2)"},
        {QV_FMT_PARA_CHAR, {'A'}, R"("as":"char","value":"A")"},
        {QV_FMT_PARA_HEX, Le32(0xABCD), R"("as":"hex32","value":"0x0000abcd")"},
        {QV_FMT_PARA_STRING, Text("cut"), R"("as":"string","value":"cut")"},
        {QV_FMT_PARA_IPV4, {0x01, 0x00, 0xA8, 0xC0}, R"("as":"ipv4","value":"192.168.0.1")"},
        {QV_FMT_PARA_IPV6, FromHex("20010db8000000000000000000000001"), R"("as":"ipv6","value":"2001:db8::1")"},
        {QV_FMT_PARA_MAC, FromHex("0011223344ff"), R"("as":"mac","value":"00:11:22:33:44:ff")"},
        {QV_FMT_PARA_DATETIME, {0xEA, 0x07, 12, 31, 23, 59, 58}, R"("as":"datetime","value":"2026-12-31 23:59:58")"},
        {QV_FMT_PARA_BLOCK, {5, 0, 0xAA, 0xBB, 0xCC}, R"("as":"block","block_len":5,"value":"aabbcc")"},
        {QV_FMT_PARA_SIZED, {1, 2}, R"("as":"bytes","value":"0102")"},
        {QV_FMT_PARA_NO_VALUE, {}, R"("as":"none","value":null)"},
        // Unknown codes, and known codes whose length does not fit them, are shown as hex.
        {99, {0xDE, 0xAD}, R"("as":"hex","value":"dead")"},
        {QV_FMT_PARA_U32, {1, 2, 3}, R"("as":"hex","value":"010203")"},
        {QV_FMT_PARA_BLOCK, {5}, R"("as":"hex","value":"05")"},
    };
    for (const auto &c : cases) {
        const std::string entry = "{\"type\":" + std::to_string(c.type) + ",\"len\":" + std::to_string(c.value.size()) +
                                  "," + c.expected + "}";
        EXPECT_NE(Decode(ByIdRecord(4, 1, {Entry(c.type, c.value)})).find(entry), std::string::npos) << entry;
    }
}

TEST(DecodeRecord, BadRecordsAreRefusedWithTheirReason) {
    const Bytes object = ObjectLogRecord(1, 4, {}, {Entry(7, {1, 2})});
    const Bytes byId = ByIdRecord(4, 1, {Entry(3, Le32(1))});
    const auto patched = [](Bytes rec, size_t offset, uint8_t value) {
        rec[offset] = value;
        return rec;
    };
    const LogHead debug{.kind = QV_REC_KIND_DEBUG, .optWord = QV_REC_FORMATTED_OPT_WORD};
    const Bytes service = Entry(QV_OPT_SERVICE_NAME, Text("s"));
    const struct {
        Bytes record;
        const char *reason;
    } cases[] = {
        {{1, 0, 3}, "record of 3 bytes, shorter than its type and length"},
        {WithLength(object, object.size() + 1), "length field"},
        {WithLength(Cat({Le16(1), Bytes(45, 0)}), 47), "log record of 47 bytes, shorter than its head"},
        {WithLength(Cat({Le16(2), Bytes(37, 0)}), 39), "alarm record of 39 bytes, shorter than its head"},
        {patched(object, object.size() - 4, 3), "entry at offset 91 of 3 value bytes runs past the record end"},
        {WithLength(Cat({object, Bytes{1, 0, 0}}), object.size() + 3), "entry head cut short"},
        {patched(object, QV_LOG_PARA_NUM_OFF, 9), "parameter count 9 but 7 entries"},
        {patched(object, QV_LOG_OPT_COUNT_OFF, 5), "does not match 6 options"},
        {patched(byId, QV_LOG_PARA_NUM_OFF, 2), "entry head cut short"},
        {WithLength(Cat({byId, Bytes{0}}), byId.size() + 1), "1 bytes after the parameters"},
        {LogRecord(debug, Cat({service, Le32(1), Text("ab")})), "debug text without its terminating zero"},
        {LogRecord(debug, Cat({service, Bytes{1, 2, 3, 4}})), "debug tail cut short"},
        {LogRecord(debug, Cat({service, Le32(1), TextZ("a"), TextZ("b")})), "zero byte inside the debug text"},
        {ObjectLogRecord(1, QV_REC_KIND_DEBUG, {}, {}), "debug record without the one service-name option"},
    };
    for (const auto &c : cases) {
        const std::string line = Decode(c.record);
        EXPECT_EQ(line.rfind("error: ", 0), 0u) << line;
        EXPECT_NE(line.find(c.reason), std::string::npos) << line;
    }
}

TEST(DecodeDatagram, EachShapeIsAnsweredAndReported) {
    const Bytes kpi = FromHex("00 10 04 04 00 00 00 00 00 00 00 01 aa bb cc dd");
    const Bytes byId = ByIdRecord(20, 0x55, {Entry(QV_FMT_PARA_U32, Le32(7))});
    const struct {
        Port port;
        Bytes datagram;
        const char *ack;                 // hex, "" for none
        std::vector<std::string> lines;  // one fragment per expected line, in order
    } cases[] = {
        {Port::Log, FromHex("00 14 44 01 00 00 00 01 01 00 08 00 0000000000000000"), "000c80010000000101000000",
         {R"({"kind":"log","seq":1,"from":"127.0.0.1:40000","event":"stream_start","length":20,"flags":68})"}},
        // Debug datagrams on the log port (socket mode): the stream type goes back in the acknowledgement.
        {Port::Log, Datagram(kData, 0x01020304, kOtherStream, DebugRecord(1, 2, 0x4000, 0, {}, "d")),
         "000c80010102030402000000",
         {R"({"kind":"debug","seq":16909060,"from":"127.0.0.1:40000","index":0,"record":"log","form":"debug")"}},
        {Port::Log, FromHex("00 08 04 02 00 00 00 00"), "",
         {R"({"kind":"log","seq":0,"from":"127.0.0.1:40000","event":"flush","length":8,"flags":4})"}},
        {Port::Kpi, kpi, "",
         {R"({"kind":"kpi","from":"127.0.0.1:40000","event":"error","length":16,"flags":4,)"
          R"("reason":"record count 1 for 4 bytes of records"})"}},
        {Port::Log, FromHex("00 07 04 01 00 00 00"), "",
         {R"({"kind":"log","from":"127.0.0.1:40000","event":"error","length":7,)"
          R"("reason":"7 bytes, shorter than a datagram head"})"}},
        {Port::HighPrecision, FromHex("00 13 04 01 00 00 00 02 02 00 08 00 00000000000000"), "",
         {R"("seq":2,"from":"127.0.0.1:40000","event":"error","length":19,)"
          R"("reason":"19 bytes, shorter than the 20-byte head of the hplog kind"})"}},
        {Port::Alarm, FromHex("00 08 80 01 00 00 00 01"), "", {"an acknowledgement, not a datagram for the collector"}},
        {Port::Alarm, FromHex("00 08 04 03 00 00 00 01"), "", {"unknown message type 3"}},
        {Port::Alarm, kpi, "", {"KPI packet on the alarm port"}},
        {Port::Kpi, Cat({kpi, Bytes{0}}), "", {"length field 16 for 17 bytes"}},
        {Port::Kpi, Datagram(kStart, 1, kLogStream, {}), "",
         {R"({"kind":"kpi","seq":1,"from":"127.0.0.1:40000","event":"error","length":20,)"
          R"("reason":"numbered datagram on the KPI port"})"}},
        {Port::Log, Datagram(kData, 5, 3, {}), "", {"stream type 3 on the log port"}},
        // A whole head is acknowledged even when what follows it cannot be used.
        {Port::Log, FromHex("00 1c 04 01 00 00 00 04 01 00 08 00 0000000000000000"), "000c80010000000401000000",
         {R"("seq":4,"from":"127.0.0.1:40000","event":"error","length":20,"reason":"length field 28 for 20 bytes"})"}},
        {Port::Alarm, Datagram(kData, 3, std::nullopt, {1, 0, 4}), "0008800100000003",
         {R"("index":0,"event":"error","offset":8,"length":3,"reason":"record head cut short"})"}},
        {Port::Alarm, Datagram(kData, 3, std::nullopt, {1, 0, 3, 0}), "0008800100000003",
         {R"("offset":8,"length":4,"reason":"record length field 3, shorter than a record head"})"}},
        {Port::Alarm, Datagram(kData, 3, std::nullopt, Cat({Le16(2), Le16(45), Bytes(40, 0)})), "0008800100000003",
         {R"("offset":8,"length":44,"reason":"record length field 45 reaches past the end"})"}},
        {Port::Alarm, Datagram(kData, 6, std::nullopt, Cat({TypicalAlarm(3, "c"), Bytes{9, 9, 9}})),
         "0008800100000006", {R"("index":0,"record":"alarm")", R"("index":1,"event":"error","offset":145,)"}},
        // An unknown record type is reported, and the record after it decoded.
        {Port::HighPrecision, Datagram(kData, 7, kOtherStream, Cat({Le16(3), Le16(6), Le16(0), byId})),
         "0008800100000007",
         {R"({"kind":"hplog","seq":7,"from":"127.0.0.1:40000","index":0,"event":"error","offset":20,"length":6,)"
          R"("reason":"unknown record type 3"})",
          R"({"kind":"hplog","seq":7,"from":"127.0.0.1:40000","index":1,"record":"log","form":"by_id")"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(ToHex(c.datagram).substr(0, 40));
        Collector collector(Options{});
        const Outcome out = Feed(collector, c.port, c.datagram);
        EXPECT_EQ(ToHex(out.ack), c.ack);
        ASSERT_EQ(out.lines.size(), c.lines.size());
        for (size_t i = 0; i < c.lines.size(); ++i) {
            EXPECT_NE(out.lines[i].find(c.lines[i]), std::string::npos) << out.lines[i];
        }
    }
}

// Every record cut short, its length field fixed to match, in a datagram of every port: one error
// line, and the datagram acknowledged all the same (12 bytes from the log port, none from the KPI port).
TEST(DecodeDatagram, EveryCutRecordIsReportedOnEveryPort) {
    Collector collector(Options{});
    uint32_t seq = 0;
    for (const Bytes &full : {ObjectLogRecord(1, 4, {Entry(99, Text("ab"))}, {Entry(25, TextZ("hi")), Entry(7, {1})}),
                              ByIdRecord(4, 1, {Entry(16, TextZ("x")), Entry(1, Le64(1))}),
                              DebugRecord(1, 2, 3, 4, {Entry(17, Le32(5))}, "text"), TypicalAlarm(7, "a")}) {
        for (size_t n = 1; n < full.size(); ++n) {
            Bytes cut(full.begin(), full.begin() + static_cast<long>(n));
            if (n >= QV_REC_HEAD_MIN_LEN) cut = WithLength(cut, n);
            for (const Port port : {Port::Log, Port::Alarm, Port::HighPrecision, Port::Kpi, Port::Debug}) {
                SCOPED_TRACE(std::to_string(n) + " bytes on port " + std::to_string(static_cast<int>(port)));
                const Outcome out = Feed(collector, port, Datagram(kData, ++seq, StreamOf(port), cut));
                ASSERT_EQ(out.lines.size(), 1u);
                EXPECT_NE(out.lines[0].find(R"("event":"error")"), std::string::npos) << out.lines[0];
                EXPECT_EQ(out.ack.size(), port == Port::Log ? 12u : port == Port::Kpi ? 0u : 8u);
            }
        }
    }
}

TEST(CollectorSequence, ResendsAreDuplicatesAndSkippedNumbersAreGaps) {
    Collector c(Options{});
    const struct {
        Port port;
        uint32_t seq;
        uint8_t flags;
        Sender from;
        const char *event;  // the one line's event; "" for no line
    } steps[] = {
        {Port::Log, 1, kStart, kSender, "stream_start"},
        {Port::Log, 1, kStart, kSender, "duplicate"},  // the stream start resent
        {Port::Log, 2, kData, kSender, ""},
        {Port::Log, 2, kData, kSender, "duplicate"},
        {Port::Log, 4, kData, kSender, ""},            // 3 missing
        {Port::Log, 9, kData, kSender, ""},            // 5 to 8 missing
        {Port::Log, 7, kData, kSender, ""},            // late: neither a duplicate nor a gap
        {Port::Log, 4, kData, kSender, "duplicate"},
        {Port::Log, 2, kData, {0x7F000001, 40001}, ""},  // another sender: its own numbering
        {Port::Alarm, 2, kData, kSender, ""},          // another kind: its own numbering
        {Port::Log, 1, kStart, kSender, "stream_start"},  // the agent started again
        {Port::Log, 2, kData, kSender, ""},
        {Port::HighPrecision, 0xFFFFFFFE, kData, kSender, ""},
        {Port::HighPrecision, 0xFFFFFFFF, kData, kSender, ""},
        {Port::HighPrecision, 1, kData, kSender, ""},  // the wrap skips 0
        {Port::HighPrecision, 3, kData, kSender, ""},  // 2 missing
    };
    for (const auto &s : steps) {
        SCOPED_TRACE(s.seq);
        const Outcome out = Feed(c, s.port, Datagram(s.flags, s.seq, StreamOf(s.port), {}), s.from);
        EXPECT_FALSE(out.ack.empty()) << "duplicates are acknowledged again";
        ASSERT_EQ(out.lines.size(), *s.event == '\0' ? 0u : 1u);
        const std::string event = std::string("\"event\":\"") + s.event + "\"";
        EXPECT_TRUE(out.lines.empty() || out.lines[0].find(event) != std::string::npos);
    }
    const auto counts = [](const qvcollector::KindStats &k) {
        return std::vector<uint64_t>{k.datagrams, k.duplicates, k.gaps, k.missing, k.acks};
    };
    EXPECT_EQ(counts(c.Stats()[0]), (std::vector<uint64_t>{11, 3, 2, 5, 11}));  // log
    EXPECT_EQ(counts(c.Stats()[1]), (std::vector<uint64_t>{1, 0, 0, 0, 1}));    // alarm
    EXPECT_EQ(counts(c.Stats()[3]), (std::vector<uint64_t>{4, 0, 1, 1, 4}));    // high-precision
}

// A KPI packet: its own line, then every field of every record; both counted in the statistics.
TEST(DecodeDatagram, KpiPacketRecordsAreDecodedWhole) {
    const Bytes packet = FromHex(
        "00 44 04 04 00 00 00 00 00 00 00 02"
        " 27 15 00 00 00 07 00 00 00 09 00 00 01 02 03 d1 00 00 00 00 00 00 00 2a 66 68 3c 40"
        " 11 b0 ff ff ff ff 80 00 00 00 ff ff 00 00 00 d5 ff ff ff ff ff ff ff ff 00 00 00 00");
    Options options;
    options.count = 2;
    Collector collector(options);
    const Outcome out = Feed(collector, Port::Kpi, packet);
    const std::string head = R"({"kind":"kpi","from":"127.0.0.1:40000",)";
    const std::vector<std::string> lines = {
        head + R"("event":"kpi","length":68,"flags":4,"records":2})",
        head + R"("index":0,"record":"kpi","component":10005,"component_id":5,"kpi":7,"object":9,"sub_object":0,)"
               R"("cpu":1,"local_id_a":2,"local_id_b":3,"flag":209,"report":"on_change","value":42,)"
               R"("time":1718107200,"time_utc":"2024-06-11T12:00:00Z"})",
        head + R"("index":1,"record":"kpi","component":4528,"component_id":60064,"kpi":4294967295,)"
               R"("object":2147483648,"sub_object":65535,"cpu":0,"local_id_a":0,"local_id_b":0,"flag":213,)"
               R"("report":"always","value":18446744073709551615,"time":0,"time_utc":"1970-01-01T00:00:00Z"})",
    };
    EXPECT_EQ(out.lines, lines);
    EXPECT_TRUE(out.ack.empty());
    EXPECT_TRUE(out.done) << "KPI records count towards --count";
    const auto &kpi = collector.Stats()[static_cast<size_t>(qvcollector::Kind::Kpi)];
    EXPECT_EQ(kpi.datagrams, 1u);
    EXPECT_EQ(kpi.records, 2u);
    EXPECT_EQ(kpi.errors, 0u);
    // A count that does not match the bytes is an error, and no record is read.
    Bytes wrong = packet;
    wrong[QV_KPI_PKT_RECORD_NUM_OFF + 3] = 3;
    const Outcome bad = Feed(collector, Port::Kpi, wrong);
    ASSERT_EQ(bad.lines.size(), 1u);
    EXPECT_NE(bad.lines[0].find(R"("reason":"record count 3 for 56 bytes of records")"), std::string::npos);
    EXPECT_EQ(kpi.errors, 1u);
}

}  // namespace
