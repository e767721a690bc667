// The JSON line check of the fuzz targets: a recursive-descent reader that accepts nothing more than
// the tools' JSON writer may produce.
#include "json_check.h"

#include <cstddef>

namespace qvfuzz {

namespace {

class JsonCheck {
public:
    explicit JsonCheck(std::string_view text) : s_(text) {}

    bool WholeIsOneObject() {
        if (Peek() != '{' || !Value(0)) return false;
        return i_ == s_.size();
    }

private:
    static constexpr int kMaxDepth = 64;

    int Peek() const { return i_ < s_.size() ? static_cast<unsigned char>(s_[i_]) : -1; }
    bool Eat(char c) {
        if (Peek() != static_cast<unsigned char>(c)) return false;
        ++i_;
        return true;
    }
    bool Word(std::string_view w) {
        if (s_.substr(i_, w.size()) != w) return false;
        i_ += w.size();
        return true;
    }

    bool Value(int depth) {
        if (depth > kMaxDepth) return false;
        switch (Peek()) {
        case '{': return Object(depth);
        case '[': return Array(depth);
        case '"': return String();
        case 't': return Word("true");
        case 'f': return Word("false");
        case 'n': return Word("null");
        default: return Number();
        }
    }

    bool Object(int depth) {
        ++i_;
        if (Eat('}')) return true;
        do {
            if (Peek() != '"' || !String() || !Eat(':') || !Value(depth + 1)) return false;
        } while (Eat(','));
        return Eat('}');
    }

    bool Array(int depth) {
        ++i_;
        if (Eat(']')) return true;
        do {
            if (!Value(depth + 1)) return false;
        } while (Eat(','));
        return Eat(']');
    }

    bool Digits() {
        const size_t start = i_;
        while (Peek() >= '0' && Peek() <= '9') ++i_;
        return i_ > start;
    }

    // Integers are all the writer produces.
    bool Number() {
        Eat('-');
        if (Eat('0')) return !(Peek() >= '0' && Peek() <= '9');
        return Digits();
    }

    bool Hex4() {
        for (int k = 0; k < 4; ++k) {
            const int c = Peek();
            if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) return false;
            ++i_;
        }
        return true;
    }

    // One UTF-8 sequence of two to four bytes starting at a lead byte: no overlong forms, no
    // surrogates, nothing above U+10FFFF.
    bool Utf8() {
        const int c = Peek();
        size_t len;
        int lo = 0x80, hi = 0xBF;
        if (c >= 0xC2 && c <= 0xDF) {
            len = 2;
        } else if (c >= 0xE0 && c <= 0xEF) {
            len = 3;
            if (c == 0xE0) lo = 0xA0;
            if (c == 0xED) hi = 0x9F;
        } else if (c >= 0xF0 && c <= 0xF4) {
            len = 4;
            if (c == 0xF0) lo = 0x90;
            if (c == 0xF4) hi = 0x8F;
        } else {
            return false;
        }
        ++i_;
        for (size_t k = 1; k < len; ++k) {
            const int t = Peek();
            if (t < (k == 1 ? lo : 0x80) || t > (k == 1 ? hi : 0xBF)) return false;
            ++i_;
        }
        return true;
    }

    bool String() {
        ++i_;
        for (;;) {
            const int c = Peek();
            if (c < 0x20) return false;  // the end of the text, or a raw control character
            if (c == '"') {
                ++i_;
                return true;
            }
            if (c >= 0x80) {
                if (!Utf8()) return false;
                continue;
            }
            ++i_;
            if (c != '\\') continue;
            const int e = Peek();
            ++i_;
            switch (e) {
            case '"': case '\\': case '/': case 'b': case 'f': case 'n': case 'r': case 't': break;
            case 'u':
                if (!Hex4()) return false;
                break;
            default: return false;
            }
        }
    }

    std::string_view s_;
    size_t i_ = 0;
};

}  // namespace

bool IsOneJsonObject(std::string_view line) { return JsonCheck(line).WholeIsOneObject(); }

}  // namespace qvfuzz
