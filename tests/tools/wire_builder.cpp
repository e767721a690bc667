// Building records and datagrams for the tool tests.
#include "wire_builder.h"

#include <algorithm>

#include "qvagent/qv_agent_wire.h"

namespace wiretest {

namespace {

void Put16(Bytes &b, size_t off, uint16_t v) {
    b[off] = static_cast<uint8_t>(v);
    b[off + 1] = static_cast<uint8_t>(v >> 8);
}

void Put32(Bytes &b, size_t off, uint32_t v) {
    for (size_t i = 0; i < 4; ++i) b[off + i] = static_cast<uint8_t>(v >> (8 * i));
}

Bytes Joined(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}

}  // namespace

Bytes Le16(uint16_t v) { return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}; }

Bytes Le32(uint32_t v) { return Cat({Le16(static_cast<uint16_t>(v)), Le16(static_cast<uint16_t>(v >> 16))}); }

Bytes Le64(uint64_t v) { return Cat({Le32(static_cast<uint32_t>(v)), Le32(static_cast<uint32_t>(v >> 32))}); }

Bytes Cat(std::initializer_list<Bytes> parts) { return Joined(std::vector<Bytes>(parts)); }

Bytes Text(std::string_view s) { return Bytes(s.begin(), s.end()); }

Bytes TextZ(std::string_view s) { return Cat({Text(s), Bytes{0}}); }

Bytes FromHex(std::string_view hex) {
    Bytes out;
    int hi = -1;
    for (const char c : hex) {
        int v;
        if (c >= '0' && c <= '9') {
            v = c - '0';
        } else if (c >= 'a' && c <= 'f') {
            v = c - 'a' + 10;
        } else if (c >= 'A' && c <= 'F') {
            v = c - 'A' + 10;
        } else {
            continue;  // spaces between bytes
        }
        if (hi < 0) {
            hi = v;
        } else {
            out.push_back(static_cast<uint8_t>(hi * 16 + v));
            hi = -1;
        }
    }
    return out;
}

std::string ToHex(const Bytes &b) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (const uint8_t c : b) {
        s += digits[c >> 4];
        s += digits[c & 0xF];
    }
    return s;
}

Bytes Entry(uint16_t type, const Bytes &value) {
    return Cat({Le16(type), Le16(static_cast<uint16_t>(value.size())), value});
}

Bytes TestSysTime() {
    Bytes t(QV_SYS_TIME_LEN, 0);
    Put16(t, QV_TIME_YEAR_OFF, 2026);
    t[QV_TIME_MONTH_OFF] = 12;
    t[QV_TIME_DAY_OFF] = 31;
    t[QV_TIME_HOUR_OFF] = 23;
    t[QV_TIME_MINUTE_OFF] = 59;
    t[QV_TIME_SECOND_OFF] = 59;
    t[QV_TIME_WEEKDAY_OFF] = 4;
    Put32(t, QV_TIME_MS_OFF, 999);
    Put32(t, QV_TIME_MONO_HIGH_OFF, 1);
    Put32(t, QV_TIME_MONO_LOW_OFF, 5);
    return t;
}

Bytes LogRecord(const LogHead &h, const Bytes &afterHead) {
    Bytes r(QV_LOG_HEAD_LEN, 0);
    Put16(r, QV_REC_TYPE_OFF, QV_REC_TYPE_LOG);
    Put16(r, QV_REC_LEN_OFF, static_cast<uint16_t>(QV_LOG_HEAD_LEN + afterHead.size()));
    Put32(r, QV_LOG_HEAD_WORD_OFF, h.headWord);
    Put32(r, QV_LOG_VRID_OFF, h.vrid);
    Put32(r, QV_LOG_ID_OFF, h.logId);
    Put16(r, QV_LOG_PARA_NUM_OFF, h.paraNum);
    r[QV_LOG_LEVEL_OFF] = h.level;
    r[QV_LOG_KIND_OFF] = h.kind;
    const Bytes t = TestSysTime();
    std::copy(t.begin(), t.end(), r.begin() + QV_LOG_TIME_OFF);
    Put32(r, QV_LOG_OPT_COUNT_OFF, h.optWord);
    r.insert(r.end(), afterHead.begin(), afterHead.end());
    return r;
}

Bytes ObjectLogRecord(uint32_t logId, uint8_t kind, const std::vector<Bytes> &callerOptions,
                      const std::vector<Bytes> &params) {
    std::vector<Bytes> options = callerOptions;
    options.push_back(Entry(QV_OPT_SERVICE_NAME, Text(kServiceName)));
    options.push_back(Entry(QV_OPT_SERVICE_ID, Le32(77)));
    options.push_back(Entry(QV_OPT_PROCESS_ID, Le32(4242)));
    options.push_back(Entry(QV_OPT_POSITION, Le32(0x03020100)));
    options.push_back(Entry(QV_OPT_LOCAL_ID_A, Le16(2)));
    options.push_back(Entry(QV_OPT_LOCAL_ID_B, Le16(3)));
    LogHead h;
    h.logId = logId;
    h.kind = kind;
    h.paraNum = static_cast<uint16_t>(params.size());
    h.optWord = static_cast<uint32_t>(options.size()) | QV_REC_OPT_MARKER;
    return LogRecord(h, Cat({Joined(options), Joined(params)}));
}

Bytes ByIdRecord(uint8_t kind, uint32_t logId, const std::vector<Bytes> &params) {
    LogHead h;
    h.logId = logId;
    h.kind = kind;
    h.paraNum = static_cast<uint16_t>(params.size());
    h.optWord = QV_REC_FORMATTED_OPT_WORD;
    return LogRecord(h, Cat({Entry(QV_OPT_SERVICE_NAME, Text(kServiceName)), Joined(params)}));
}

Bytes DebugRecord(uint32_t key0, uint32_t key1, uint32_t debugId, uint32_t vrid, const std::vector<Bytes> &params,
                  std::string_view text) {
    LogHead h;
    h.headWord = key0;
    h.vrid = vrid;
    h.logId = debugId;
    h.kind = QV_REC_KIND_DEBUG;
    h.level = static_cast<uint8_t>((debugId >> 14) & 7u);
    h.paraNum = static_cast<uint16_t>(params.size());
    h.optWord = QV_REC_FORMATTED_OPT_WORD;
    return LogRecord(h, Cat({Entry(QV_OPT_SERVICE_NAME, Text(kServiceName)), Joined(params), Le32(key1), TextZ(text)}));
}

Bytes AlarmRecord(const AlarmHead &h, const Bytes &afterHead) {
    Bytes r(QV_ALARM_HEAD_LEN, 0);
    Put16(r, QV_REC_TYPE_OFF, QV_REC_TYPE_ALARM);
    Put16(r, QV_REC_LEN_OFF, static_cast<uint16_t>(QV_ALARM_HEAD_LEN + afterHead.size()));
    Put32(r, QV_ALARM_ID_OFF, h.alarmId);
    r[QV_ALARM_ATTR_MARKER_OFF] = h.attrMarker;
    r[QV_ALARM_PARA_NUM_OFF] = h.paraNum;
    r[QV_ALARM_ATTR_BYTE_OFF] = h.attrByte;
    r[QV_ALARM_CATEGORY_OFF] = h.category;
    Put32(r, QV_ALARM_ATTR_WORD_OFF, h.attrWord);
    const Bytes t = TestSysTime();
    std::copy(t.begin(), t.begin() + QV_WALL_TIME_LEN, r.begin() + QV_ALARM_TIME_OFF);
    r[QV_ALARM_TIME_OFF + QV_ALARM_TIME_RESERVED_OFF] = 0;
    Put32(r, QV_ALARM_OPT_COUNT_OFF, h.optWord);
    r.insert(r.end(), afterHead.begin(), afterHead.end());
    return r;
}

Bytes TypicalAlarm(uint32_t alarmId, std::string_view text) {
    Bytes processInfo = Text("proc");
    processInfo.resize(QV_OPT_PROCESS_NAME_LEN, 0);
    for (uint32_t i = 1; i <= QV_OPT_PROCESS_INFO_WORDS; ++i) processInfo = Cat({processInfo, Le32(i)});
    const Bytes options = Cat({Entry(QV_OPT_ALARM_8, Le32(8)), Entry(QV_OPT_ALARM_16, Le32(16)),
                               Entry(QV_OPT_SERVICE_NAME, Text(kServiceName)), Entry(QV_OPT_PROCESS_INFO, processInfo),
                               Entry(QV_OPT_LOCAL_ID_A, Le16(2)), Entry(QV_OPT_LOCAL_ID_B, Le16(3))});
    AlarmHead h;
    h.alarmId = alarmId;
    h.paraNum = 1;
    h.optWord = 6 | QV_REC_OPT_MARKER;
    return AlarmRecord(h, Cat({options, Entry(QV_PARA_TYPE_TEXT, TextZ(text))}));
}

Bytes Datagram(uint8_t flags, uint32_t seq, std::optional<uint16_t> streamType, const Bytes &body) {
    const size_t headLen = streamType ? QV_WIRE_STREAM_HEAD_LEN : QV_WIRE_SHORT_HEAD_LEN;
    Bytes d(headLen, 0);
    const size_t total = headLen + body.size();
    d[QV_WIRE_HEAD_TOTAL_LEN_OFF] = static_cast<uint8_t>(total >> 8);
    d[QV_WIRE_HEAD_TOTAL_LEN_OFF + 1] = static_cast<uint8_t>(total);
    d[QV_WIRE_HEAD_FLAGS_OFF] = flags;
    d[QV_WIRE_HEAD_MSG_TYPE_OFF] = QV_WIRE_MSG_NUMBERED;
    for (size_t i = 0; i < 4; ++i) d[QV_WIRE_HEAD_SEQ_NO_OFF + i] = static_cast<uint8_t>(seq >> (24 - 8 * i));
    if (streamType) {
        Put16(d, QV_WIRE_HEAD_STREAM_TYPE_OFF, *streamType);
        Put16(d, QV_WIRE_HEAD_STREAM_LEN_OFF, QV_WIRE_STREAM_DATA_LEN);
    }
    d.insert(d.end(), body.begin(), body.end());
    return d;
}

}  // namespace wiretest
