// Building records and datagrams for the tool tests.
#include "wire_builder.h"

#include "qvagent/qv_agent_wire.h"

namespace wiretest {

namespace {

Bytes Be16(size_t v) { return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)}; }

Bytes Service() { return Entry(QV_OPT_SERVICE_NAME, Text("svc")); }
Bytes SysTime() { return FromHex("ea07 0c 1f 17 3b 3b 04 e7030000 01000000 05000000"); }

}  // namespace

Bytes Le16(uint16_t v) { return {static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}; }
Bytes Le32(uint32_t v) { return Cat({Le16(static_cast<uint16_t>(v)), Le16(static_cast<uint16_t>(v >> 16))}); }
Bytes Le64(uint64_t v) { return Cat({Le32(static_cast<uint32_t>(v)), Le32(static_cast<uint32_t>(v >> 32))}); }
Bytes Cat(const std::vector<Bytes> &parts) {
    Bytes out;
    for (const Bytes &p : parts) out.insert(out.end(), p.begin(), p.end());
    return out;
}
Bytes Text(std::string_view s) { return Bytes(s.begin(), s.end()); }
Bytes TextZ(std::string_view s) { return Cat({Text(s), Bytes{0}}); }

Bytes FromHex(std::string_view hex) {
    Bytes out;
    for (size_t i = 0; i + 1 < hex.size(); i += hex[i] == ' ' ? 1 : 2) {
        if (hex[i] != ' ') out.push_back(static_cast<uint8_t>(std::stoul(std::string(hex.substr(i, 2)), nullptr, 16)));
    }
    return out;
}

std::string ToHex(const Bytes &b) {
    static const char digits[] = "0123456789abcdef";
    std::string s;
    for (const uint8_t c : b) s += {digits[c >> 4], digits[c & 0xF]};
    return s;
}

Bytes Entry(uint16_t type, const Bytes &value) {
    return Cat({Le16(type), Le16(static_cast<uint16_t>(value.size())), value});
}

Bytes WithLength(Bytes record, size_t length) {
    record[QV_REC_LEN_OFF] = static_cast<uint8_t>(length);
    record[QV_REC_LEN_OFF + 1] = static_cast<uint8_t>(length >> 8);
    return record;
}

Bytes LogRecord(const LogHead &h, const Bytes &afterHead) {
    return Cat({Le16(QV_REC_TYPE_LOG), Le16(static_cast<uint16_t>(QV_LOG_HEAD_LEN + afterHead.size())),
                Le32(h.headWord), Le32(h.vrid), Le32(h.logId), Le32(0), Le16(h.paraNum), Bytes{h.level, h.kind},
                SysTime(), Le32(h.optWord), afterHead});
}

Bytes ObjectLogRecord(uint32_t logId, uint8_t kind, const std::vector<Bytes> &callerOptions,
                      const std::vector<Bytes> &params) {
    std::vector<Bytes> options = callerOptions;
    for (const Bytes &o : {Service(), Entry(QV_OPT_SERVICE_ID, Le32(77)), Entry(QV_OPT_PROCESS_ID, Le32(4242)),
                           Entry(QV_OPT_POSITION, Le32(0x03020100)), Entry(QV_OPT_LOCAL_ID_A, Le16(2)),
                           Entry(QV_OPT_LOCAL_ID_B, Le16(3))}) {
        options.push_back(o);
    }
    const LogHead h{.logId = logId, .paraNum = static_cast<uint16_t>(params.size()), .kind = kind,
                    .optWord = static_cast<uint32_t>(options.size()) | QV_REC_OPT_MARKER};
    return LogRecord(h, Cat({Cat(options), Cat(params)}));
}

Bytes ByIdRecord(uint8_t kind, uint32_t logId, const std::vector<Bytes> &params) {
    const LogHead h{.logId = logId, .paraNum = static_cast<uint16_t>(params.size()), .kind = kind,
                    .optWord = QV_REC_FORMATTED_OPT_WORD};
    return LogRecord(h, Cat({Service(), Cat(params)}));
}

Bytes DebugRecord(uint32_t key0, uint32_t key1, uint32_t debugId, uint32_t vrid, const std::vector<Bytes> &params,
                  std::string_view text) {
    const LogHead h{.headWord = key0, .vrid = vrid, .logId = debugId, .paraNum = static_cast<uint16_t>(params.size()),
                    .level = static_cast<uint8_t>((debugId >> 14) & 7u), .kind = QV_REC_KIND_DEBUG,
                    .optWord = QV_REC_FORMATTED_OPT_WORD};
    return LogRecord(h, Cat({Service(), Cat(params), Le32(key1), TextZ(text)}));
}

Bytes TypicalAlarm(uint32_t alarmId, std::string_view text) {
    Bytes processInfo = Text("proc");
    processInfo.resize(QV_OPT_PROCESS_NAME_LEN, 0);
    for (uint32_t i = 1; i <= QV_OPT_PROCESS_INFO_WORDS; ++i) processInfo = Cat({processInfo, Le32(i)});
    const Bytes after = Cat({Entry(QV_OPT_ALARM_8, Le32(8)), Entry(QV_OPT_ALARM_16, Le32(16)), Service(),
                             Entry(QV_OPT_PROCESS_INFO, processInfo), Entry(QV_OPT_LOCAL_ID_A, Le16(2)),
                             Entry(QV_OPT_LOCAL_ID_B, Le16(3)), Entry(QV_PARA_TYPE_TEXT, TextZ(text))});
    // Head: reserved words, id, marker, one parameter, attribute byte 3, category 2, attribute word
    // 0x304, the wall time with a zero reserved byte, and six options under the marker.
    return Cat({Le16(QV_REC_TYPE_ALARM), Le16(static_cast<uint16_t>(QV_ALARM_HEAD_LEN + after.size())), Le32(0),
                Le32(0), Le32(alarmId), Bytes{0xFF, 1, 3, 2}, Le32(0x304), FromHex("ea07 0c 1f 17 3b 3b 00 e7030000"),
                Le32(6 | QV_REC_OPT_MARKER), after});
}

Bytes Datagram(uint8_t flags, uint32_t seq, std::optional<uint16_t> streamType, const Bytes &body) {
    const size_t headLen = streamType ? QV_WIRE_STREAM_HEAD_LEN : QV_WIRE_SHORT_HEAD_LEN;
    Bytes d = Cat({Be16(headLen + body.size()), Bytes{flags, QV_WIRE_MSG_NUMBERED}, Be16(seq >> 16), Be16(seq)});
    if (streamType) d = Cat({d, Le16(*streamType), Le16(QV_WIRE_STREAM_DATA_LEN), Bytes(QV_WIRE_STREAM_DATA_LEN, 0)});
    return Cat({d, body});
}

}  // namespace wiretest
