// Log and alarm records: head fields by name, options, parameters, and the debug tail.
#include "record_decode.h"

#include "entry_values.h"
#include "qvagent/qv_agent_wire.h"

namespace qvdecode {

namespace {

struct Entry {
    size_t offset;
    uint16_t type;
    Bytes value;
};

using ValueWriter = void (*)(uint16_t, Bytes, JsonWriter &);

std::string At(const char *what, size_t offset) { return std::string(what) + " at offset " + std::to_string(offset); }

// Reads entries from `offset`: `count` of them, or, when count is absent, as many as fill the record.
// Returns the reason when an entry does not fit.
std::optional<std::string> ReadEntries(Bytes rec, size_t &offset, std::optional<size_t> count,
                                       std::vector<Entry> &out) {
    while (count ? out.size() < *count : offset < rec.size()) {
        if (!Has(rec, offset, QV_ENTRY_HEAD_LEN)) return At("entry head cut short", offset);
        const uint16_t len = Le16(rec, offset + QV_ENTRY_LEN_OFF);
        if (!Has(rec, offset + QV_ENTRY_HEAD_LEN, len)) {
            return At("entry", offset) + " of " + std::to_string(len) + " value bytes runs past the record end";
        }
        out.push_back({offset, Le16(rec, offset + QV_ENTRY_TYPE_OFF), rec.subspan(offset + QV_ENTRY_HEAD_LEN, len)});
        offset += QV_ENTRY_HEAD_LEN + len;
    }
    return std::nullopt;
}

void WriteEntries(const char *key, const Entry *first, size_t count, ValueWriter value, JsonWriter &w) {
    w.Key(key);
    w.BeginArray();
    for (size_t i = 0; i < count; ++i) {
        w.BeginObject();
        w.Field("type", first[i].type);
        w.Field("len", first[i].value.size());
        value(first[i].type, first[i].value, w);
        w.EndObject();
    }
    w.EndArray();
}

// The option count word must be the count of options, with or without the marker ORed in.
std::optional<std::string> CheckOptionWord(uint32_t word, size_t options) {
    const bool marked = (word & QV_REC_OPT_MARKER) == QV_REC_OPT_MARKER;
    const uint64_t expected = marked ? (options | QV_REC_OPT_MARKER) : options;
    if (word != expected) {
        return "option count word " + std::to_string(word) + " does not match " + std::to_string(options) + " options";
    }
    return std::nullopt;
}

// Records whose entries fill the record from the head on: options first, then the parameters,
// whose number the head gives. The option count is what remains.
std::optional<std::string> DecodeFilledEntries(Bytes rec, size_t headLen, size_t paraNum, uint32_t optWord,
                                               ValueWriter paraValue, JsonWriter &w) {
    std::vector<Entry> entries;
    size_t offset = headLen;
    if (auto err = ReadEntries(rec, offset, std::nullopt, entries)) return err;
    if (paraNum > entries.size()) {
        return "parameter count " + std::to_string(paraNum) + " but " + std::to_string(entries.size()) +
               " entries in the record";
    }
    const size_t options = entries.size() - paraNum;
    if (auto err = CheckOptionWord(optWord, options)) return err;
    w.Field("opt_count", options);
    WriteEntries("options", entries.data(), options, WriteOptionValue, w);
    WriteEntries("params", entries.data() + options, paraNum, paraValue, w);
    return std::nullopt;
}

// By-identifier and debug records: the service-name option, the parameter entries, and for debug
// records the second key word and the text with its terminating zero, which must end the record.
std::optional<std::string> DecodeFormattedEntries(Bytes rec, size_t paraNum, bool debug, JsonWriter &w) {
    std::vector<Entry> entries;
    size_t offset = QV_LOG_HEAD_LEN;
    if (auto err = ReadEntries(rec, offset, 1 + paraNum, entries)) return err;
    const size_t tail = rec.size() - offset;
    if (!debug && tail != 0) return std::to_string(tail) + " bytes after the parameters";
    w.Field("opt_count", 1);
    WriteEntries("options", entries.data(), 1, WriteOptionValue, w);
    WriteEntries("params", entries.data() + 1, paraNum, WriteFormatParaValue, w);
    if (!debug) return std::nullopt;
    if (tail < QV_DEBUG_KEY_WORD1_LEN + 1) return At("debug tail cut short", offset);
    const Bytes text = rec.subspan(offset + QV_DEBUG_KEY_WORD1_LEN);
    if (text.back() != 0) return At("debug text without its terminating zero", offset + QV_DEBUG_KEY_WORD1_LEN);
    if (TextBeforeZero(text).size() != text.size() - 1) {
        return At("zero byte inside the debug text", offset + QV_DEBUG_KEY_WORD1_LEN);
    }
    w.Field("key_word1", Le32(rec, offset));
    w.FieldText("text", text.first(text.size() - 1));
    return std::nullopt;
}

const char *FormName(LogForm form) {
    switch (form) {
    case LogForm::ById: return "by_id";
    case LogForm::Debug: return "debug";
    case LogForm::Object: break;
    }
    return "object";
}

// The 12-byte wall time of a record head as a "time" object; byte 7 is the log's weekday and a
// reserved byte in alarms, named by byte7Name.
void WriteWallTime(Bytes time, const char *byte7Name, JsonWriter &w) {
    w.Key("time");
    w.BeginObject();
    w.Field("year", Le16(time, QV_TIME_YEAR_OFF));
    w.Field("month", U8(time, QV_TIME_MONTH_OFF));
    w.Field("day", U8(time, QV_TIME_DAY_OFF));
    w.Field("hour", U8(time, QV_TIME_HOUR_OFF));
    w.Field("minute", U8(time, QV_TIME_MINUTE_OFF));
    w.Field("second", U8(time, QV_TIME_SECOND_OFF));
    w.Field(byte7Name, U8(time, QV_TIME_WEEKDAY_OFF));
    w.Field("ms", Le32(time, QV_TIME_MS_OFF));
    w.EndObject();
}

std::optional<std::string> DecodeLog(Bytes rec, JsonWriter &w) {
    if (rec.size() < QV_LOG_HEAD_LEN) {
        return "log record of " + std::to_string(rec.size()) + " bytes, shorter than its head";
    }
    const LogForm form = ClassifyLogRecord(rec);
    const uint8_t kind = U8(rec, QV_LOG_KIND_OFF);
    if (kind == QV_REC_KIND_DEBUG && form != LogForm::Debug) {
        return "debug record without the one service-name option";
    }
    const Bytes time = rec.subspan(QV_LOG_TIME_OFF, QV_SYS_TIME_LEN);
    const uint32_t optWord = Le32(rec, QV_LOG_OPT_COUNT_OFF);
    const uint16_t paraNum = Le16(rec, QV_LOG_PARA_NUM_OFF);
    w.FieldString("record", "log");
    w.FieldString("form", FormName(form));
    w.Field("length", rec.size());
    w.Field("head_word", Le32(rec, QV_LOG_HEAD_WORD_OFF));
    w.Field("vrid", Le32(rec, QV_LOG_VRID_OFF));
    w.Field("log_id", Le32(rec, QV_LOG_ID_OFF));
    w.Field("reserved", Le32(rec, QV_LOG_RESERVED_OFF));
    w.Field("para_num", paraNum);
    w.Field("level", U8(rec, QV_LOG_LEVEL_OFF));
    w.Field("obj_kind", kind);
    WriteWallTime(time, "weekday", w);
    w.Field("mono_ms", (static_cast<uint64_t>(Le32(time, QV_TIME_MONO_HIGH_OFF)) << 32) |
                           Le32(time, QV_TIME_MONO_LOW_OFF));
    w.Field("opt_word", optWord);
    if (form == LogForm::Object) {
        return DecodeFilledEntries(rec, QV_LOG_HEAD_LEN, paraNum, optWord, WriteObjectParaValue, w);
    }
    return DecodeFormattedEntries(rec, paraNum, form == LogForm::Debug, w);
}

std::optional<std::string> DecodeAlarm(Bytes rec, JsonWriter &w) {
    if (rec.size() < QV_ALARM_HEAD_LEN) {
        return "alarm record of " + std::to_string(rec.size()) + " bytes, shorter than its head";
    }
    const Bytes time = rec.subspan(QV_ALARM_TIME_OFF, QV_WALL_TIME_LEN);
    const uint32_t optWord = Le32(rec, QV_ALARM_OPT_COUNT_OFF);
    const uint8_t paraNum = U8(rec, QV_ALARM_PARA_NUM_OFF);
    w.FieldString("record", "alarm");
    w.Field("length", rec.size());
    w.Field("reserved0", Le32(rec, QV_ALARM_RESERVED0_OFF));
    w.Field("reserved1", Le32(rec, QV_ALARM_RESERVED1_OFF));
    w.Field("alarm_id", Le32(rec, QV_ALARM_ID_OFF));
    w.Field("attr_marker", U8(rec, QV_ALARM_ATTR_MARKER_OFF));
    w.Field("para_num", paraNum);
    w.Field("attr_byte", U8(rec, QV_ALARM_ATTR_BYTE_OFF));
    w.Field("category", U8(rec, QV_ALARM_CATEGORY_OFF));
    w.Field("attr_word", Le32(rec, QV_ALARM_ATTR_WORD_OFF));
    WriteWallTime(time, "reserved", w);
    w.Field("opt_word", optWord);
    return DecodeFilledEntries(rec, QV_ALARM_HEAD_LEN, paraNum, optWord, WriteObjectParaValue, w);
}

}  // namespace

LogForm ClassifyLogRecord(Bytes rec) {
    // An event object always carries the six sender options, so a single option, the service
    // name, marks a record built from a format; object kind 8 exists only for debug records.
    const bool formatted = Le32(rec, QV_LOG_OPT_COUNT_OFF) == QV_REC_FORMATTED_OPT_WORD &&
                           Has(rec, QV_LOG_HEAD_LEN, QV_ENTRY_HEAD_LEN) &&
                           Le16(rec, QV_LOG_HEAD_LEN + QV_ENTRY_TYPE_OFF) == QV_OPT_SERVICE_NAME;
    if (!formatted) return LogForm::Object;
    return U8(rec, QV_LOG_KIND_OFF) == QV_REC_KIND_DEBUG ? LogForm::Debug : LogForm::ById;
}

std::optional<std::string> DecodeRecord(Bytes rec, JsonWriter &w) {
    if (rec.size() < QV_REC_HEAD_MIN_LEN) {
        return "record of " + std::to_string(rec.size()) + " bytes, shorter than its type and length";
    }
    const uint16_t length = Le16(rec, QV_REC_LEN_OFF);
    if (length != rec.size()) {
        return "length field " + std::to_string(length) + " for a record of " + std::to_string(rec.size()) + " bytes";
    }
    switch (Le16(rec, QV_REC_TYPE_OFF)) {
    case QV_REC_TYPE_LOG: return DecodeLog(rec, w);
    case QV_REC_TYPE_ALARM: return DecodeAlarm(rec, w);
    default: break;
    }
    return "unknown record type " + std::to_string(Le16(rec, QV_REC_TYPE_OFF));
}

std::vector<RecordSlice> SplitRecords(Bytes run) {
    std::vector<RecordSlice> out;
    size_t offset = 0;
    while (offset < run.size()) {
        RecordSlice s;
        s.offset = offset;
        const uint16_t length = Le16(run, offset + QV_REC_LEN_OFF);
        if (!Has(run, offset, QV_REC_HEAD_MIN_LEN)) {
            s.error = "record head cut short";
        } else if (length < QV_REC_HEAD_MIN_LEN) {
            s.error = "record length field " + std::to_string(length) + ", shorter than a record head";
        } else if (!Has(run, offset, length)) {
            s.error = "record length field " + std::to_string(length) + " reaches past the end";
        }
        if (!s.error.empty()) {
            s.bytes = run.subspan(offset);
            out.push_back(s);
            break;
        }
        s.bytes = run.subspan(offset, length);
        out.push_back(s);
        offset += length;
    }
    return out;
}

}  // namespace qvdecode
