// JSON line building and string escaping.
#include "json_writer.h"

namespace qvdecode {

namespace {

constexpr char kHexDigits[] = "0123456789abcdef";

// Length of the valid UTF-8 sequence starting at b[i] (2 to 4), or 0 when there is none.
size_t Utf8SequenceAt(Bytes b, size_t i) {
    const uint8_t c = b[i];
    size_t len;
    uint8_t lo = 0x80, hi = 0xBF;  // bounds of the second byte
    if (c >= 0xC2 && c <= 0xDF) {
        len = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        len = 3;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        len = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (!Has(b, i, len)) return 0;
    if (b[i + 1] < lo || b[i + 1] > hi) return 0;
    for (size_t k = 2; k < len; ++k) {
        if (b[i + k] < 0x80 || b[i + k] > 0xBF) return 0;
    }
    return len;
}

void AppendEscapedByte(std::string &out, uint8_t c) {
    out += "\\u00";
    out += kHexDigits[c >> 4];
    out += kHexDigits[c & 0xF];
}

}  // namespace

void JsonWriter::Separate() {
    if (afterKey_) {
        afterKey_ = false;
        return;
    }
    if (!open_.empty()) {
        if (open_.back()) out_ += ',';
        open_.back() = true;
    }
}

void JsonWriter::BeginObject() {
    Separate();
    out_ += '{';
    open_.push_back(false);
}

void JsonWriter::EndObject() {
    out_ += '}';
    if (!open_.empty()) open_.pop_back();
}

void JsonWriter::BeginArray() {
    Separate();
    out_ += '[';
    open_.push_back(false);
}

void JsonWriter::EndArray() {
    out_ += ']';
    if (!open_.empty()) open_.pop_back();
}

void JsonWriter::Key(std::string_view key) {
    String(key);
    out_ += ':';
    afterKey_ = true;
}

void JsonWriter::Uint(uint64_t v) {
    Separate();
    out_ += std::to_string(v);
}

void JsonWriter::Int(int64_t v) {
    Separate();
    out_ += std::to_string(v);
}

void JsonWriter::Bool(bool v) {
    Separate();
    out_ += v ? "true" : "false";
}

void JsonWriter::Null() {
    Separate();
    out_ += "null";
}

void JsonWriter::Text(Bytes b) {
    Separate();
    out_ += '"';
    for (size_t i = 0; i < b.size();) {
        const uint8_t c = b[i];
        if (c >= 0x80) {
            const size_t n = Utf8SequenceAt(b, i);
            if (n == 0) {
                AppendEscapedByte(out_, c);  // not UTF-8: the byte as a Latin-1 code point
                ++i;
            } else {
                out_.append(reinterpret_cast<const char *>(b.data() + i), n);
                i += n;
            }
            continue;
        }
        switch (c) {
        case '"': out_ += "\\\""; break;
        case '\\': out_ += "\\\\"; break;
        case '\n': out_ += "\\n"; break;
        case '\r': out_ += "\\r"; break;
        case '\t': out_ += "\\t"; break;
        default:
            if (c < 0x20 || c == 0x7F) {
                AppendEscapedByte(out_, c);
            } else {
                out_ += static_cast<char>(c);
            }
        }
        ++i;
    }
    out_ += '"';
}

void JsonWriter::Hex(Bytes b) {
    Separate();
    out_ += '"';
    out_ += HexString(b);
    out_ += '"';
}

void JsonWriter::Rewind(const Mark &m) {
    out_.resize(m.length);
    open_ = m.open;
    afterKey_ = m.afterKey;
}

std::string HexString(Bytes b) {
    std::string s;
    s.reserve(b.size() * 2);
    for (const uint8_t c : b) {
        s += kHexDigits[c >> 4];
        s += kHexDigits[c & 0xF];
    }
    return s;
}

}  // namespace qvdecode
