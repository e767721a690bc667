// Tests of the bounded and truncating formatters and of sscanf_s: return values and the exact bytes
// left in the destination.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "qvplatform/qv_bounded.h"

using namespace std::string_view_literals;

namespace {

constexpr std::string_view kInitial = "ABCDEFGHIJKLMNOP";
constexpr std::string_view kEmptied = "\0BCDEFGHIJKLMNOP"sv;
constexpr std::string_view kEmptiedAfterError = "\0???????IJKLMNOP"sv;  // the C library may write up to destMax
constexpr size_t kOversize = size_t{QV_BOUNDED_MAX_SIZE} + 1;
constexpr const char *kBadWidth = "%2147483648s";  // the C library refuses a width this large

// True when bytes equals pattern, where '?' in pattern stands for any byte.
bool Matches(std::string_view bytes, std::string_view pattern) {
    return std::equal(bytes.begin(), bytes.end(), pattern.begin(), pattern.end(),
                      [](char byte, char want) { return want == '?' || want == byte; });
}

using Formatter = int (*)(char *, size_t, const char *, const char *);

__attribute__((format(printf, 4, 5))) int ViaList(int (*formatter)(char *, size_t, const char *, va_list),
                                                  char *dest, size_t destMax, const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = formatter(dest, destMax, format, args);
    va_end(args);
    return result;
}

template <auto kFunction>
int Direct(char *dest, size_t destMax, const char *format, const char *arg) {
    return kFunction(dest, destMax, format, arg);
}

template <auto kFunction>
int Listed(char *dest, size_t destMax, const char *format, const char *arg) {
    return ViaList(kFunction, dest, destMax, format, arg);
}

}  // namespace

TEST(BoundedFormat, EveryFormatterAtItsBoundsAndOnBadArguments) {
    // One text formatted by every formatter: the bounded ones give it whole or fail with an empty
    // destination, the truncating ones cut it. The 16 destination bytes afterwards, '?' for any.
    const struct {
        const char *name;
        bool nullDest;
        size_t destMax;
        const char *format, *arg;
        int whole;
        std::string_view wholeAfter;
        int truncated;
        std::string_view truncatedAfter;
    } cases[] = {
        {"fits", false, 8, "%s!", "abc", 4, "abc!\0FGHIJKLMNOP"sv, 4, "abc!\0FGHIJKLMNOP"sv},
        {"exactly fits", false, 8, "%s", "abcdefg", 7, "abcdefg\0IJKLMNOP"sv, 7, "abcdefg\0IJKLMNOP"sv},
        {"one too long", false, 8, "%s", "abcdefgh", -1, kEmptiedAfterError, 7, "abcdefg\0IJKLMNOP"sv},
        {"far too long", false, 4, "%s", "abcdefgh", -1, kEmptiedAfterError, 3, "abc\0EFGHIJKLMNOP"sv},
        {"room for the terminator only", false, 1, "%s", "abc", -1, kEmptied, 0, kEmptied},
        {"empty text", false, 8, "%s", "", 0, kEmptied, 0, kEmptied},
        {"null dest", true, 8, "%s", "abc", -1, kInitial, -1, kInitial},
        {"null format", false, 8, nullptr, "abc", -1, kEmptied, -1, kEmptied},
        {"zero destMax", false, 0, "%s", "abc", -1, kInitial, -1, kInitial},
        {"oversize destMax", false, kOversize, "%s", "abc", -1, kInitial, -1, kInitial},
        {"formatting error", false, 8, kBadWidth, "abc", -1, kEmptiedAfterError, -1, kEmptiedAfterError},
    };
    const struct { const char *name; Formatter formatter; bool truncating; } formatters[] = {
        {"sprintf_s", Direct<sprintf_s>, false},   {"snprintf_s", Direct<snprintf_s>, false},
        {"vsprintf_s", Listed<vsprintf_s>, false}, {"vsnprintf_s", Listed<vsnprintf_s>, false},
        {"snprintf_truncated_s", Direct<snprintf_truncated_s>, true},
        {"vsnprintf_truncated_s", Listed<vsnprintf_truncated_s>, true}};
    for (const auto &f : formatters) {
        for (const auto &c : cases) {
            SCOPED_TRACE(std::string(f.name) + ": " + c.name);
            std::array<char, 16> buffer{};
            kInitial.copy(buffer.data(), buffer.size());
            EXPECT_EQ(f.formatter(c.nullDest ? nullptr : buffer.data(), c.destMax, c.format, c.arg),
                      f.truncating ? c.truncated : c.whole);
            EXPECT_PRED2(Matches, std::string_view(buffer.data(), buffer.size()),
                         f.truncating ? c.truncatedAfter : c.wholeAfter);
        }
    }
}

TEST(BoundedScan, SizedCharacterConversionsAtTheirRoom) {
    // Each converts into an 8-byte target filled with '#': input, format, size, result, target afterwards.
    struct { const char *input, *format; size_t size; int expected; std::string_view after; } const cases[] = {
        {"abcdefg", "%s", 8, 1, "abcdefg\0"sv}, {"abcdefgh", "%s", 8, 0, "\0#######"sv}, {"a", "%s", 0, 0, "########"sv},
        {"abcdef", "%3s", 4, 1, "abc\0####"sv}, {"xyz", "%3c", 2, 0, "########"sv},   {"aaaaaaaa", "%[a]", 8, 0, "\0#######"sv},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << '"' << c.input << "\" " << c.format << " size " << c.size);
        std::array<char, 8> target;
        target.fill('#');
        EXPECT_EQ(sscanf_s(c.input, c.format, target.data(), c.size), c.expected);
        EXPECT_EQ(std::string_view(target.data(), target.size()), c.after);
    }
}

TEST(BoundedScan, IntegersSuppressionAndCounts) {  // the agent reads numbers only
    // Input, format, result, then the two int targets afterwards (kUnset: not assigned).
    constexpr int kUnset = -7;
    struct { const char *input, *format; int expected, first, second; } const cases[] = {
        {"12 -34", "%d %d", 2, 12, -34},          {"12345", "%2d%d", 2, 12, 345},
        {"0x1f 017", "%i %i", 2, 31, 15},         {"12345", "%3d%n", 1, 123, 3},
        {"12345", "%*2d%d", 1, 345, kUnset},      {"skip 9", "%*s %d", 1, 9, kUnset},  // no size for %*s
        {"abc1", "%*[a-z]%n", 0, 3, kUnset},      {"3 % 4", "%d%%%d", 2, 3, 4},
        {"5;6", "%d,%d", 1, 5, kUnset},           {"abc", "%d", 0, kUnset, kUnset},
        {"7", "%d %d", 1, 7, kUnset},             {"", "%d", -1, kUnset, kUnset},
        {nullptr, "%d", -1, kUnset, kUnset},      {"1", nullptr, -1, kUnset, kUnset},
        {"1", "%q", -1, kUnset, kUnset},         {"4294967295 x", "%u x%n", 1, -1, 12},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        int first = kUnset, second = kUnset;
        EXPECT_EQ(sscanf_s(c.input, c.format, &first, &second), c.expected);
        EXPECT_EQ(first, c.first);
        EXPECT_EQ(second, c.second);
    }
    EXPECT_EQ(sscanf_s("5", "%d", static_cast<int *>(nullptr)), -1);
}
