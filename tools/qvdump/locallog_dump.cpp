// Reading and printing the persistent local log file.
#include "locallog_dump.h"

#include <algorithm>

#include "json_writer.h"
#include "qvagent/qv_agent_wire.h"

namespace qvdump {

namespace {

using qvdecode::Bytes;

constexpr uint8_t kLineEnd = QV_PLOG_LINE_END;
constexpr uint8_t kTagOpen = '[';
constexpr uint8_t kTagClose = ']';
constexpr std::string_view kProcessTag = QV_PLOG_PROCESS_TAG;
// The time prefix "YYMMDD-hh:mm:ss.uuuuuu ": 'd' a digit, anything else itself.
constexpr std::string_view kTimeShape = "dddddd-dd:dd:dd.dddddd ";
static_assert(kTimeShape.size() == QV_PLOG_TIME_PREFIX_LEN);

bool StartsWithTime(Bytes b) {
    if (b.size() < kTimeShape.size()) return false;
    for (size_t i = 0; i < kTimeShape.size(); ++i) {
        const bool ok = kTimeShape[i] == 'd' ? (b[i] >= '0' && b[i] <= '9') : b[i] == static_cast<uint8_t>(kTimeShape[i]);
        if (!ok) return false;
    }
    return true;
}

bool StartsWith(Bytes b, std::string_view prefix) {
    return b.size() >= prefix.size() && std::equal(prefix.begin(), prefix.end(), b.begin(),
                                                   [](char c, uint8_t u) { return static_cast<uint8_t>(c) == u; });
}

// Position of the first c in b at or after from, or b.size().
size_t Find(Bytes b, uint8_t c, size_t from) {
    const auto it = std::find(b.begin() + static_cast<std::ptrdiff_t>(std::min(from, b.size())), b.end(), c);
    return static_cast<size_t>(it - b.begin());
}

// Splits data bytes [begin, end) into lines, each ended by its line end.
void AddLines(Bytes data, uint32_t begin, uint32_t end, LocalLogRead &read) {
    const Bytes part = qvdecode::Sub(data, begin, end - begin);
    for (size_t at = 0; at < part.size();) {
        const size_t stop = Find(part, kLineEnd, at);
        const bool complete = stop < part.size();
        const auto offset = static_cast<uint32_t>(begin + at);
        read.lines.push_back({part.subspan(at, stop - at), offset, complete});
        if (!complete) read.damage.push_back("the line at data offset " + std::to_string(offset) + " has no line end");
        at = stop + 1;
    }
}

// The older part starts where the newest line ended, which is in general inside an older line that
// the newer part overwrote the beginning of: its remains, up to its line end, are no line.
uint32_t SkipOverwritten(Bytes data, uint32_t begin, uint32_t end, LocalLogRead &read) {
    const Bytes part = qvdecode::Sub(data, begin, end - begin);
    if (StartsWithTime(part)) return begin;
    const size_t stop = Find(part, kLineEnd, 0);
    const size_t skipped = stop < part.size() ? stop + 1 : part.size();
    read.overwrittenBytes = skipped;
    return static_cast<uint32_t>(begin + skipped);
}

// Clips a head offset to the data that exist, saying so.
uint32_t Clip(uint32_t value, uint32_t limit, const char *field, LocalLogRead &read) {
    if (value <= limit) return value;
    read.damage.push_back(std::string("damaged head: ") + field + " " + std::to_string(value) +
                          " lies beyond the " + std::to_string(limit) + " data bytes");
    return limit;
}

void AppendTextLine(std::string &out, Bytes line) {
    out.append(reinterpret_cast<const char *>(line.data()), line.size());
    out += '\n';
}

void AppendJsonLine(std::string &out, Bytes line) {
    const LocalLogFields f = SplitLocalLogLine(line);
    qvdecode::JsonWriter json;
    const auto field = [&](std::string_view key, bool present, Bytes value) {
        json.Key(key);
        if (present) {
            json.Text(value);
        } else {
            json.Null();
        }
    };
    json.BeginObject();
    field("time", f.hasTime, f.time);
    field("level", f.hasTags, f.level);
    field("process", f.hasTags, f.process);
    field("text", true, f.text);
    json.EndObject();
    out += json.Line();
    out += '\n';
}

}  // namespace

LocalLogRead ReadLocalLog(Bytes file) {
    LocalLogRead read;
    if (file.size() < QV_PLOG_HEAD_LEN) {
        read.damage.push_back("damaged head: the file has " + std::to_string(file.size()) + " bytes, fewer than the " +
                              std::to_string(QV_PLOG_HEAD_LEN) + "-byte head");
        return read;
    }
    read.hasHead = true;
    read.writeOffset = qvdecode::Le32(file, QV_PLOG_HEAD_WRITE_OFFSET_OFF);
    read.reserved = qvdecode::Le32(file, QV_PLOG_HEAD_RESERVED_OFF);
    read.wrapEnd = qvdecode::Le32(file, QV_PLOG_HEAD_WRAP_END_OFF);

    const Bytes data = file.subspan(QV_PLOG_HEAD_LEN);
    if (data.size() > QV_PLOG_DATA_MAX) {
        read.damage.push_back("the file is longer than " + std::to_string(QV_PLOG_FILE_MAX) + " bytes");
    }
    const auto limit = static_cast<uint32_t>(std::min<size_t>(data.size(), QV_PLOG_DATA_MAX));
    const uint32_t writeOffset = Clip(read.writeOffset, limit, "uiWriteOffset", read);
    uint32_t wrapEnd = Clip(read.wrapEnd, limit, "uiWrapEnd", read);
    if (wrapEnd != 0 && writeOffset > wrapEnd) {
        read.damage.push_back("damaged head: uiWriteOffset " + std::to_string(writeOffset) + " lies beyond uiWrapEnd " +
                              std::to_string(wrapEnd) + "; the older part is left out");
        wrapEnd = 0;
    }
    if (wrapEnd != 0) AddLines(data, SkipOverwritten(data, writeOffset, wrapEnd, read), wrapEnd, read);
    AddLines(data, 0, writeOffset, read);
    return read;
}

LocalLogFields SplitLocalLogLine(Bytes line) {
    LocalLogFields f;
    Bytes rest = line;
    if (StartsWithTime(rest)) {
        f.hasTime = true;
        f.time = rest.first(QV_PLOG_TIME_PREFIX_LEN - 1);  // without its blank
        rest = rest.subspan(QV_PLOG_TIME_PREFIX_LEN);
    }
    const size_t levelEnd = Find(rest, kTagClose, 0);
    if (!rest.empty() && rest[0] == kTagOpen && levelEnd < rest.size() &&
        StartsWith(rest.subspan(levelEnd + 1), kProcessTag)) {
        const size_t processBegin = levelEnd + 1 + kProcessTag.size();
        const size_t processEnd = Find(rest, kTagClose, processBegin);
        if (processEnd < rest.size()) {
            f.hasTags = true;
            f.level = rest.subspan(1, levelEnd - 1);
            f.process = rest.subspan(processBegin, processEnd - processBegin);
            rest = rest.subspan(processEnd + 1);
        }
    }
    f.text = rest;
    return f;
}

bool ProbeLocalLog(Bytes head) {
    if (head.size() < QV_PLOG_HEAD_LEN) return false;
    const Bytes data = head.subspan(QV_PLOG_HEAD_LEN);
    if (data.empty()) return std::all_of(head.begin(), head.end(), [](uint8_t b) { return b == 0; });
    return StartsWithTime(data);
}

DumpResult DumpLocalLog(Bytes file, const DumpOptions &options) {
    LocalLogRead read = ReadLocalLog(file);
    DumpResult result;
    for (const LocalLogLine &line : read.lines) {
        if (options.format == Format::Json) {
            AppendJsonLine(result.out, line.bytes);
        } else {
            AppendTextLine(result.out, line.bytes);
        }
    }
    result.damage = std::move(read.damage);
    return result;
}

}  // namespace qvdump
