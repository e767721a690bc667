// Builds one JSON object as a single line of text (JSON Lines): keys in the order written, no spaces.
// Text is escaped so that any bytes, valid UTF-8 or not, become a valid JSON string.
#ifndef QV_TOOLS_JSON_WRITER_H
#define QV_TOOLS_JSON_WRITER_H

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "byte_view.h"

namespace qvdecode {

class JsonWriter {
public:
    // A point to come back to: what was written after it is dropped by Rewind.
    struct Mark {
        size_t length;
        std::vector<bool> open;
        bool afterKey;
    };

    void BeginObject();
    void EndObject();
    void BeginArray();
    void EndArray();
    void Key(std::string_view key);

    // Values, inside an array or after Key.
    void Uint(uint64_t v);
    void Int(int64_t v);
    void Bool(bool v);
    void Null();
    void String(std::string_view text) { Text(Bytes(reinterpret_cast<const uint8_t *>(text.data()), text.size())); }
    void Text(Bytes bytes);  // bytes as a JSON string
    void Hex(Bytes bytes);   // bytes as a string of lowercase hex digits

    // Key and value in one call.
    void Field(std::string_view key, uint64_t v) { Key(key); Uint(v); }
    void FieldInt(std::string_view key, int64_t v) { Key(key); Int(v); }
    void FieldBool(std::string_view key, bool v) { Key(key); Bool(v); }
    void FieldString(std::string_view key, std::string_view v) { Key(key); String(v); }
    void FieldText(std::string_view key, Bytes v) { Key(key); Text(v); }
    void FieldHex(std::string_view key, Bytes v) { Key(key); Hex(v); }

    Mark Here() const { return Mark{out_.size(), open_, afterKey_}; }
    void Rewind(const Mark &m);

    const std::string &Line() const { return out_; }
    std::string Take() { return std::move(out_); }
    std::string_view View() const { return out_; }  // what is written so far

private:
    void Separate();

    std::string out_;
    std::vector<bool> open_;  // per open object or array: something was written in it already
    bool afterKey_ = false;
};

// Lowercase hex digits of the bytes.
std::string HexString(Bytes bytes);

}  // namespace qvdecode

#endif
