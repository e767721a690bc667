// Decoding of entry values by type code. Record fields are in the device's byte order (little-endian).
#include "entry_values.h"

#include <arpa/inet.h>

#include <cstdio>
#include <string>

#include "qvagent/qv_agent_wire.h"

namespace qvdecode {

namespace {

void AsHex(Bytes v, JsonWriter &w) {
    w.FieldString("as", "hex");
    w.FieldHex("value", v);
}

void AsUint(const char *as, uint64_t n, JsonWriter &w) {
    w.FieldString("as", as);
    w.Field("value", n);
}

void AsInt(const char *as, int64_t n, JsonWriter &w) {
    w.FieldString("as", as);
    w.FieldInt("value", n);
}

// Wall time of 12 bytes (u16 year, month, day, hour, minute, second, weekday, u32 ms) as an object.
void WriteWallTime(Bytes v, bool hasWeekday, JsonWriter &w) {
    w.BeginObject();
    w.Field("year", Le16(v, QV_TIME_YEAR_OFF));
    w.Field("month", U8(v, QV_TIME_MONTH_OFF));
    w.Field("day", U8(v, QV_TIME_DAY_OFF));
    w.Field("hour", U8(v, QV_TIME_HOUR_OFF));
    w.Field("minute", U8(v, QV_TIME_MINUTE_OFF));
    w.Field("second", U8(v, QV_TIME_SECOND_OFF));
    w.Field(hasWeekday ? "weekday" : "reserved", U8(v, QV_TIME_WEEKDAY_OFF));
    w.Field("ms", Le32(v, QV_TIME_MS_OFF));
    w.EndObject();
}

std::string Ipv4Text(uint32_t address) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", (address >> 24) & 0xFFu, (address >> 16) & 0xFFu,
                  (address >> 8) & 0xFFu, address & 0xFFu);
    return text;
}

std::string Ipv6Text(Bytes v) {
    char text[INET6_ADDRSTRLEN] = {};
    if (inet_ntop(AF_INET6, v.data(), text, sizeof text) == nullptr) return HexString(v);
    return text;
}

std::string MacText(Bytes v) {
    std::string s;
    for (size_t i = 0; i < v.size(); ++i) {
        char part[4];
        std::snprintf(part, sizeof part, i == 0 ? "%02x" : ":%02x", v[i]);
        s += part;
    }
    return s;
}

std::string DateTimeText(Bytes v) {
    char text[40];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u", Le16(v, QV_FMT_DATETIME_YEAR_OFF),
                  U8(v, QV_FMT_DATETIME_MONTH_OFF), U8(v, QV_FMT_DATETIME_DAY_OFF), U8(v, QV_FMT_DATETIME_HOUR_OFF),
                  U8(v, QV_FMT_DATETIME_MINUTE_OFF), U8(v, QV_FMT_DATETIME_SECOND_OFF));
    return text;
}

}  // namespace

Bytes TextBeforeZero(Bytes value) {
    for (size_t i = 0; i < value.size(); ++i) {
        if (value[i] == 0) return value.first(i);
    }
    return value;
}

void WriteOptionValue(uint16_t type, Bytes v, JsonWriter &w) {
    switch (type) {
    case QV_OPT_SERVICE_NAME:
        w.FieldString("as", "text");
        w.FieldText("value", v);
        return;
    case QV_OPT_SERVICE_ID:
    case QV_OPT_PROCESS_ID:
    case QV_OPT_ALARM_8:
    case QV_OPT_ALARM_16:
        if (v.size() == 4) return AsUint("u32", Le32(v, 0), w);
        break;
    case QV_OPT_LOCAL_ID_A:
    case QV_OPT_LOCAL_ID_B:
        if (v.size() == 2) return AsUint("u16", Le16(v, 0), w);
        break;
    case QV_OPT_POSITION:
        if (v.size() == 4) {
            const uint32_t word = Le32(v, 0);
            w.FieldString("as", "position");
            w.Key("value");
            w.BeginObject();
            w.Field("local_id_b", (word >> QV_OPT_POSITION_LOCAL_ID_B_SHIFT) & 0xFFu);
            w.Field("local_id_a", (word >> QV_OPT_POSITION_LOCAL_ID_A_SHIFT) & 0xFFu);
            w.Field("cpu", (word >> QV_OPT_POSITION_CPU_SHIFT) & 0xFFu);
            w.EndObject();
            return;
        }
        break;
    case QV_OPT_LOG_TIME:
        if (v.size() == QV_WALL_TIME_LEN) {
            w.FieldString("as", "wall_time");
            w.Key("value");
            WriteWallTime(v, true, w);
            return;
        }
        break;
    case QV_OPT_PROCESS_INFO:
        if (v.size() == QV_OPT_PROCESS_INFO_LEN) {
            w.FieldString("as", "process_info");
            w.Key("value");
            w.BeginObject();
            w.FieldText("process_name", TextBeforeZero(v.first(QV_OPT_PROCESS_NAME_LEN)));
            w.Key("info");
            w.BeginArray();
            for (size_t i = 0; i < QV_OPT_PROCESS_INFO_WORDS; ++i) w.Uint(Le32(v, QV_OPT_PROCESS_NAME_LEN + 4 * i));
            w.EndArray();
            w.EndObject();
            return;
        }
        break;
    default:
        break;
    }
    AsHex(v, w);
}

void WriteFormatParaValue(uint16_t type, Bytes v, JsonWriter &w) {
    const size_t n = v.size();
    switch (type) {
    case QV_FMT_PARA_NO_VALUE:
        if (n == 0) {
            w.FieldString("as", "none");
            w.Key("value");
            w.Null();
            return;
        }
        break;
    case QV_FMT_PARA_U64:
        if (n == 8) return AsUint("u64", Le64(v, 0), w);
        break;
    case QV_FMT_PARA_I64:
        if (n == 8) return AsInt("i64", static_cast<int64_t>(Le64(v, 0)), w);
        break;
    case QV_FMT_PARA_U32:
        if (n == 4) return AsUint("u32", Le32(v, 0), w);
        break;
    case QV_FMT_PARA_I32:
        if (n == 4) return AsInt("i32", static_cast<int32_t>(Le32(v, 0)), w);
        break;
    case QV_FMT_PARA_U16:
        if (n == 2) return AsUint("u16", Le16(v, 0), w);
        break;
    case QV_FMT_PARA_I16:
        if (n == 2) return AsInt("i16", static_cast<int16_t>(Le16(v, 0)), w);
        break;
    case QV_FMT_PARA_CHAR:
        if (n == 1) {
            w.FieldString("as", "char");
            w.FieldText("value", v);
            return;
        }
        break;
    case QV_FMT_PARA_HEX:
        if (n == 4) {
            char text[12];
            std::snprintf(text, sizeof text, "0x%08x", Le32(v, 0));
            w.FieldString("as", "hex32");
            w.FieldString("value", text);
            return;
        }
        break;
    case QV_FMT_PARA_STRING:
        w.FieldString("as", "string");
        w.FieldText("value", TextBeforeZero(v));
        return;
    case QV_FMT_PARA_IPV4:
        if (n == QV_FMT_IPV4_LEN) {
            w.FieldString("as", "ipv4");
            w.FieldString("value", Ipv4Text(Le32(v, 0)));
            return;
        }
        break;
    case QV_FMT_PARA_IPV6:
        if (n == QV_FMT_IPV6_LEN) {
            w.FieldString("as", "ipv6");
            w.FieldString("value", Ipv6Text(v));
            return;
        }
        break;
    case QV_FMT_PARA_MAC:
        if (n == QV_FMT_MAC_LEN) {
            w.FieldString("as", "mac");
            w.FieldString("value", MacText(v));
            return;
        }
        break;
    case QV_FMT_PARA_DATETIME:
        if (n == QV_FMT_DATETIME_LEN) {
            w.FieldString("as", "datetime");
            w.FieldString("value", DateTimeText(v));
            return;
        }
        break;
    case QV_FMT_PARA_BLOCK:
        if (n >= 2) {
            w.FieldString("as", "block");
            w.Field("block_len", Le16(v, QV_FMT_BLOCK_LEN_OFF));
            w.FieldHex("value", v.subspan(2));
            return;
        }
        break;
    case QV_FMT_PARA_SIZED:
        w.FieldString("as", "bytes");
        w.FieldHex("value", v);
        return;
    default:
        break;
    }
    AsHex(v, w);
}

void WriteObjectParaValue(uint16_t type, Bytes v, JsonWriter &w) {
    if (type == QV_PARA_TYPE_TEXT) {
        w.FieldString("as", "text");
        w.FieldText("value", TextBeforeZero(v));
        return;
    }
    AsHex(v, w);
}

}  // namespace qvdecode
