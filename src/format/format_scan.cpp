// The walk over a format's literal text and conversions.
#include "format/format_scan.h"

#include <cstring>

namespace qv::fmt {

namespace {

constexpr char kConversionMark = '%';
constexpr char kPrecisionMark = '.';

constexpr bool IsFlag(char c) { return c == ' ' || c == '#' || c == '+' || c == '-' || c == '0'; }
constexpr bool IsDigit(char c) { return c >= '0' && c <= '9'; }
constexpr bool IsModifier(char c) { return c == 'h' || c == 'l'; }
constexpr bool IsLiteral(char c) { return c != kConversionMark; }

}  // namespace

FormatScanner::FormatScanner(const char *format)
    : pos_(format), budget_(static_cast<uint16_t>(std::strlen(format) + 1)) {}

bool FormatScanner::Next(Conversion *out) {
    SkipWhile(IsLiteral);
    if (!More()) return false;
    Take();  // '%'
    SkipWhile(IsFlag);
    SkipWhile(IsDigit);
    if (More() && *pos_ == kPrecisionMark) {
        Take();
        SkipWhile(IsDigit);
    }
    out->modifier = 0;
    if (More() && IsModifier(*pos_)) {
        out->modifier = static_cast<uint8_t>(*pos_);
        Take();
    }
    if (!More()) return false;
    out->at = pos_++;
    return true;
}

}  // namespace qv::fmt
