// Bounded formatting and scanning of the platform stand-in: the bounded formatters (sprintf_s,
// snprintf_s, vsprintf_s, vsnprintf_s), the truncating formatters (snprintf_truncated_s,
// vsnprintf_truncated_s) and sscanf_s with sized string conversions.
#include "qvplatform/qv_bounded.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace {

constexpr int kFailed = -1;

// A destination the formatters accept: present, and a size neither zero nor beyond the limit.
constexpr bool ValidDest(const char *dest, size_t destMax) {
    return dest != nullptr && destMax != 0 && destMax <= QV_BOUNDED_MAX_SIZE;
}

// Formats into dest; the whole text must fit. Any failure leaves dest empty (when dest is valid).
__attribute__((format(printf, 3, 0))) int FormatWhole(char *dest, size_t destMax, const char *format,
                                                      va_list args) {
    if (!ValidDest(dest, destMax)) {
        return kFailed;
    }
    const int written = format == nullptr ? kFailed : std::vsnprintf(dest, destMax, format, args);
    if (written < 0 || static_cast<size_t>(written) >= destMax) {
        dest[0] = '\0';
        return kFailed;
    }
    return written;
}

// Formats into dest, cutting the text to destMax - 1 characters; returns the length kept.
__attribute__((format(printf, 3, 0))) int FormatTruncated(char *dest, size_t destMax,
                                                          const char *format, va_list args) {
    if (!ValidDest(dest, destMax)) {
        return kFailed;
    }
    const int written = format == nullptr ? kFailed : std::vsnprintf(dest, destMax, format, args);
    if (written < 0) {
        dest[0] = '\0';
        return kFailed;
    }
    return static_cast<size_t>(written) < destMax ? written : static_cast<int>(destMax - 1);
}

// ---- sscanf_s ----

constexpr bool IsSpace(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

constexpr bool IsDigit(char c) {
    return c >= '0' && c <= '9';
}

enum class Length { kNone, kChar, kShort, kLong, kLongLong, kMax, kSize };

// One conversion directive of the format, from its '%' to one past its conversion character.
struct Directive {
    const char *begin = nullptr;
    const char *end = nullptr;
    bool suppress = false;
    size_t width = 0;  // 0: no width given
    Length length = Length::kNone;
    char conversion = '\0';
    const char *setBegin = nullptr;  // members of a %[ set, between '[' (or "[^") and ']'
    const char *setEnd = nullptr;
    bool setNegated = false;
};

// Longest directive handed to the C library's scanner; longer ones are taken as malformed.
constexpr size_t kMaxIntegerDirective = 24;
constexpr size_t kMaxWidth = 99999999;

enum class Step { kDone, kMatchFailure, kInputFailure, kCallerError };

struct ScanState {
    const char *start;  // the whole input, for %n
    const char *pos;    // the next unread input character
    int assigned;       // conversions stored so far
};

// Reads the length modifier at p into *length; returns the character after it.
const char *ParseLength(const char *p, Length *length) {
    switch (*p) {
    case 'h':
        *length = p[1] == 'h' ? Length::kChar : Length::kShort;
        return p[1] == 'h' ? p + 2 : p + 1;
    case 'l':
        *length = p[1] == 'l' ? Length::kLongLong : Length::kLong;
        return p[1] == 'l' ? p + 2 : p + 1;
    case 'j':
        *length = Length::kMax;
        return p + 1;
    case 'z':
        *length = Length::kSize;
        return p + 1;
    default:
        *length = Length::kNone;
        return p;
    }
}

// Reads the body of a %[ set starting after '['; returns false when the closing ']' is missing.
bool ParseSet(const char *p, Directive *d) {
    d->setNegated = *p == '^';
    if (d->setNegated) {
        ++p;
    }
    d->setBegin = p;
    if (*p == ']') {
        ++p;  // a leading ']' is a member
    }
    while (*p != '\0' && *p != ']') {
        ++p;
    }
    if (*p != ']') {
        return false;
    }
    d->setEnd = p;
    d->end = p + 1;
    return true;
}

// Parses the directive whose '%' is at p; false for a malformed or unsupported one.
bool ParseDirective(const char *p, Directive *d) {
    d->begin = p++;
    d->suppress = *p == '*';
    if (d->suppress) {
        ++p;
    }
    if (*p == '0') {
        return false;
    }
    for (; IsDigit(*p); ++p) {
        d->width = d->width * 10 + static_cast<size_t>(*p - '0');
        if (d->width > kMaxWidth) {
            return false;
        }
    }
    p = ParseLength(p, &d->length);
    d->conversion = *p;
    d->end = p + 1;
    switch (d->conversion) {
    case 'd': case 'i': case 'u': case 'x': case 'X': case 'o':
        return static_cast<size_t>(d->end - d->begin) <= kMaxIntegerDirective;
    case 'n':
        return !d->suppress && d->width == 0;
    case 'c': case 's':
        return d->length == Length::kNone;
    case '[':
        return d->length == Length::kNone && ParseSet(p + 1, d);
    default:
        return false;
    }
}

// Membership of the characters of a %[ set; "a-z" is a range unless '-' is first or last.
class CharSet {
public:
    explicit CharSet(const Directive &d) {
        for (const char *p = d.setBegin; p != d.setEnd; ++p) {
            const auto low = static_cast<unsigned char>(*p);
            if (p + 2 < d.setEnd && p[1] == '-') {
                const auto high = static_cast<unsigned char>(p[2]);
                for (unsigned c = low; c <= high; ++c) {
                    members_[c] = true;
                }
                p += 2;
            } else {
                members_[low] = true;
            }
        }
        if (d.setNegated) {
            for (bool &member : members_) {
                member = !member;
            }
        }
    }
    bool Contains(char c) const { return members_[static_cast<unsigned char>(c)]; }

private:
    std::array<bool, 256> members_{};
};

template <typename T>
T *NextTarget(va_list *args) {
    return va_arg(*args, T *);
}

// Calls fn with std::type_identity of the integer type that the length modifier names.
template <typename Fn>
Step WithIntegerType(Length length, bool isSigned, Fn &&fn) {
    using SignedSize = std::make_signed_t<size_t>;
    switch (length) {
    case Length::kChar:
        return isSigned ? fn(std::type_identity<signed char>{}) : fn(std::type_identity<unsigned char>{});
    case Length::kShort:
        return isSigned ? fn(std::type_identity<short>{}) : fn(std::type_identity<unsigned short>{});
    case Length::kLong:
        return isSigned ? fn(std::type_identity<long>{}) : fn(std::type_identity<unsigned long>{});
    case Length::kLongLong:
        return isSigned ? fn(std::type_identity<long long>{})
                        : fn(std::type_identity<unsigned long long>{});
    case Length::kMax:
        return isSigned ? fn(std::type_identity<intmax_t>{}) : fn(std::type_identity<uintmax_t>{});
    case Length::kSize:
        return isSigned ? fn(std::type_identity<SignedSize>{}) : fn(std::type_identity<size_t>{});
    case Length::kNone:
        break;
    }
    return isSigned ? fn(std::type_identity<int>{}) : fn(std::type_identity<unsigned>{});
}

// An integer conversion: the C library scans the directive followed by "%n" at the current position.
template <typename T>
Step ScanInteger(ScanState *state, const Directive &d, va_list *args) {
    T *target = d.suppress ? nullptr : NextTarget<T>(args);
    if (!d.suppress && target == nullptr) {
        return Step::kCallerError;
    }
    std::array<char, kMaxIntegerDirective + 3> format{};
    const auto length = static_cast<size_t>(d.end - d.begin);
    std::memcpy(format.data(), d.begin, length);
    std::memcpy(format.data() + length, "%n", 3);
    T value{};
    int consumed = -1;
    const int result = d.suppress ? std::sscanf(state->pos, format.data(), &consumed)
                                  : std::sscanf(state->pos, format.data(), &value, &consumed);
    if (result == EOF) {
        return Step::kInputFailure;
    }
    if (consumed < 0) {
        return Step::kMatchFailure;
    }
    state->pos += consumed;
    if (target != nullptr) {
        *target = value;
        ++state->assigned;
    }
    return Step::kDone;
}

// %n: stores the number of input characters consumed so far; not counted as an assignment.
template <typename T>
Step StoreConsumed(ScanState *state, va_list *args) {
    T *target = NextTarget<T>(args);
    if (target == nullptr) {
        return Step::kCallerError;
    }
    *target = static_cast<T>(state->pos - state->start);
    return Step::kDone;
}

// Length of the input run that a %s or %[ conversion takes, at most limit characters.
size_t StringRun(const char *input, const Directive &d, size_t limit) {
    size_t length = 0;
    if (d.conversion == 's') {
        while (length < limit && input[length] != '\0' && !IsSpace(input[length])) {
            ++length;
        }
        return length;
    }
    const CharSet set(d);
    while (length < limit && input[length] != '\0' && set.Contains(input[length])) {
        ++length;
    }
    return length;
}

// %c, %s and %[: the target array's size follows its pointer. A run that does not fit is a matching
// failure; the array of a string conversion is then emptied.
Step ScanCharacters(ScanState *state, const Directive &d, va_list *args) {
    char *target = nullptr;
    size_t room = 0;
    if (!d.suppress) {
        target = NextTarget<char>(args);
        room = va_arg(*args, size_t);
        if (target == nullptr) {
            return Step::kCallerError;
        }
    }
    if (d.conversion == 's') {
        while (IsSpace(*state->pos)) {
            ++state->pos;
        }
    }
    if (*state->pos == '\0') {
        return Step::kInputFailure;
    }
    const bool isString = d.conversion != 'c';
    size_t length = 0;
    if (isString) {
        length = StringRun(state->pos, d, d.width != 0 ? d.width : SIZE_MAX);
        if (length == 0) {
            return Step::kMatchFailure;
        }
    } else {
        length = d.width != 0 ? d.width : 1;
        if (strnlen(state->pos, length) < length) {
            return Step::kInputFailure;
        }
    }
    if (target != nullptr) {
        if (length + (isString ? 1 : 0) > room) {
            if (isString && room != 0) {
                target[0] = '\0';
            }
            return Step::kMatchFailure;
        }
        std::memcpy(target, state->pos, length);
        if (isString) {
            target[length] = '\0';
        }
        ++state->assigned;
    }
    state->pos += length;
    return Step::kDone;
}

Step Convert(ScanState *state, const Directive &d, va_list *args) {
    switch (d.conversion) {
    case 'c': case 's': case '[':
        return ScanCharacters(state, d, args);
    case 'n':
        return WithIntegerType(d.length, true, [&](auto type) {
            return StoreConsumed<typename decltype(type)::type>(state, args);
        });
    default:
        return WithIntegerType(d.length, d.conversion == 'd' || d.conversion == 'i', [&](auto type) {
            return ScanInteger<typename decltype(type)::type>(state, d, args);
        });
    }
}

// Walks the format one directive at a time. Returns the conversions assigned, or EOF for an input
// failure before the first assignment and for a caller's error (null pointer, malformed format).
int Scan(const char *input, const char *format, va_list *args) {
    ScanState state{input, input, 0};
    const char *f = format;
    while (*f != '\0') {
        if (IsSpace(*f)) {
            while (IsSpace(*f)) {
                ++f;
            }
            while (IsSpace(*state.pos)) {
                ++state.pos;
            }
            continue;
        }
        Step step = Step::kDone;
        if (*f != '%' || f[1] == '%') {
            const bool literalPercent = *f == '%';
            if (literalPercent) {
                while (IsSpace(*state.pos)) {
                    ++state.pos;
                }
            }
            if (*state.pos == '\0') {
                step = Step::kInputFailure;
            } else if (*state.pos != *f) {
                step = Step::kMatchFailure;
            } else {
                ++state.pos;
            }
            f += literalPercent ? 2 : 1;
        } else {
            Directive d;
            if (!ParseDirective(f, &d)) {
                return EOF;
            }
            step = Convert(&state, d, args);
            f = d.end;
        }
        switch (step) {
        case Step::kDone:
            break;
        case Step::kMatchFailure:
            return state.assigned;
        case Step::kInputFailure:
            return state.assigned != 0 ? state.assigned : EOF;
        case Step::kCallerError:
            return EOF;
        }
    }
    return state.assigned;
}

}  // namespace

extern "C" {

// Writes the formatted text to dest (destMax bytes); returns its length, or -1 with dest emptied
// when an argument is invalid, formatting fails or the text needs destMax or more characters.
int sprintf_s(char *dest, size_t destMax, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = FormatWhole(dest, destMax, format, args);
    va_end(args);
    return result;
}

// Same contract as sprintf_s: a text that does not fit is an error, not a truncation.
int snprintf_s(char *dest, size_t destMax, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = FormatWhole(dest, destMax, format, args);
    va_end(args);
    return result;
}

// sprintf_s with an argument list.
int vsprintf_s(char *dest, size_t destMax, const char *format, va_list args) {
    return FormatWhole(dest, destMax, format, args);
}

// snprintf_s with an argument list.
int vsnprintf_s(char *dest, size_t destMax, const char *format, va_list args) {
    return FormatWhole(dest, destMax, format, args);
}

// Writes at most destMax - 1 characters of the formatted text and terminates them; returns the
// length written, or -1 for a null dest or format, a bad destMax or a formatting error.
int snprintf_truncated_s(char *dest, size_t destMax, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = FormatTruncated(dest, destMax, format, args);
    va_end(args);
    return result;
}

// snprintf_truncated_s with an argument list.
int vsnprintf_truncated_s(char *dest, size_t destMax, const char *format, va_list args) {
    return FormatTruncated(dest, destMax, format, args);
}

// Scans buffer under format with the sized %c, %s and %[ conversions (pointer, then size_t size).
// Returns the number of conversions assigned, or EOF for a null buffer or format, a null target, a
// malformed format, or input that ends before the first assignment.
int sscanf_s(const char *buffer, const char *format, ...) {
    if (buffer == nullptr || format == nullptr) {
        return EOF;
    }
    va_list args;
    va_start(args, format);
    const int result = Scan(buffer, format, &args);
    va_end(args);
    return result;
}

}  // extern "C"
