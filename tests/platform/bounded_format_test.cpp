// Tests of the bounded and truncating formatters and of sscanf_s: return values and the exact bytes
// left in the destination.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "qvplatform/qv_bounded.h"

using namespace std::string_view_literals;

namespace {

constexpr std::string_view kInitial = "ABCDEFGHIJKLMNOP";
constexpr size_t kOversize = size_t{QV_BOUNDED_MAX_SIZE} + 1;
constexpr const char *kBadWidth = "%2147483648s";  // the C library refuses a width this large

// True when bytes equals pattern, where '?' in pattern stands for any byte.
bool Matches(std::string_view bytes, std::string_view pattern) {
    return std::equal(bytes.begin(), bytes.end(), pattern.begin(), pattern.end(),
                      [](char byte, char want) { return want == '?' || want == byte; });
}

using Formatter = int (*)(char *, size_t, const char *, const char *);
using ListFormatter = int (*)(char *, size_t, const char *, va_list);

// Calls a formatter that takes an argument list.
__attribute__((format(printf, 4, 5))) int ViaList(ListFormatter formatter, char *dest, size_t destMax,
                                                  const char *format, ...) {
    va_list args;
    va_start(args, format);
    const int result = formatter(dest, destMax, format, args);
    va_end(args);
    return result;
}

struct FormatCase {
    const char *name;
    bool nullDest;
    size_t destMax;
    const char *format;
    const char *arg;
    int expected;
    std::string_view after;  // the 16 destination bytes afterwards; '?' for any
};

void RunFormatCases(const char *function, Formatter formatter, std::span<const FormatCase> cases) {
    for (const FormatCase &c : cases) {
        SCOPED_TRACE(std::string(function) + ": " + c.name);
        std::array<char, 16> buffer{};
        kInitial.copy(buffer.data(), buffer.size());
        EXPECT_EQ(formatter(c.nullDest ? nullptr : buffer.data(), c.destMax, c.format, c.arg), c.expected);
        EXPECT_PRED2(Matches, std::string_view(buffer.data(), buffer.size()), c.after);
    }
}

}  // namespace

TEST(BoundedFormat, WholeTextOrEmptyDestination) {
    const FormatCase cases[] = {
        {"fits", false, 8, "%s!", "abc", 4, "abc!\0FGHIJKLMNOP"sv},
        {"exactly fits", false, 8, "%s", "abcdefg", 7, "abcdefg\0IJKLMNOP"sv},
        {"one too long", false, 8, "%s", "abcdefgh", -1, "\0???????IJKLMNOP"sv},
        {"empty text", false, 8, "%s", "", 0, "\0BCDEFGHIJKLMNOP"sv},
        {"null dest", true, 8, "%s", "abc", -1, kInitial},
        {"null format", false, 8, nullptr, "abc", -1, "\0BCDEFGHIJKLMNOP"sv},
        {"zero destMax", false, 0, "%s", "abc", -1, kInitial},
        {"oversize destMax", false, kOversize, "%s", "abc", -1, kInitial},
        {"formatting error", false, 8, kBadWidth, "abc", -1, "\0???????IJKLMNOP"sv},
    };
    const std::pair<const char *, Formatter> formatters[] = {
        {"sprintf_s",
         [](char *d, size_t n, const char *f, const char *a) { return sprintf_s(d, n, f, a); }},
        {"snprintf_s",
         [](char *d, size_t n, const char *f, const char *a) { return snprintf_s(d, n, f, a); }},
        {"vsprintf_s",
         [](char *d, size_t n, const char *f, const char *a) { return ViaList(vsprintf_s, d, n, f, a); }},
        {"vsnprintf_s",
         [](char *d, size_t n, const char *f, const char *a) { return ViaList(vsnprintf_s, d, n, f, a); }},
    };
    for (const auto &[function, formatter] : formatters) {
        RunFormatCases(function, formatter, cases);
    }
}

TEST(BoundedFormat, TruncatingFormattersCutAndTerminate) {
    const FormatCase cases[] = {
        {"fits", false, 8, "%s!", "abc", 4, "abc!\0FGHIJKLMNOP"sv},
        {"exactly fits", false, 8, "%s", "abcdefg", 7, "abcdefg\0IJKLMNOP"sv},
        {"one too long", false, 8, "%s", "abcdefgh", 7, "abcdefg\0IJKLMNOP"sv},
        {"far too long", false, 4, "%s", "abcdefgh", 3, "abc\0EFGHIJKLMNOP"sv},
        {"room for the terminator only", false, 1, "%s", "abc", 0, "\0BCDEFGHIJKLMNOP"sv},
        {"null dest", true, 8, "%s", "abc", -1, kInitial},
        {"null format", false, 8, nullptr, "abc", -1, "\0BCDEFGHIJKLMNOP"sv},
        {"zero destMax", false, 0, "%s", "abc", -1, kInitial},
        {"oversize destMax", false, kOversize, "%s", "abc", -1, kInitial},
        {"formatting error", false, 8, kBadWidth, "abc", -1, "\0???????IJKLMNOP"sv},
    };
    RunFormatCases(
        "snprintf_truncated_s",
        [](char *d, size_t n, const char *f, const char *a) { return snprintf_truncated_s(d, n, f, a); },
        cases);
    RunFormatCases(
        "vsnprintf_truncated_s",
        [](char *d, size_t n, const char *f, const char *a) {
            return ViaList(vsnprintf_truncated_s, d, n, f, a);
        },
        cases);
}

TEST(BoundedScan, SizedCharacterConversions) {
    struct {
        const char *name, *input, *format;
        size_t size;
        int expected;
        std::string_view after;  // the 8-byte target afterwards, from "########"
    } const cases[] = {
        {"word", "hello world", "%s", 8, 1, "hello\0##"sv},
        {"word exactly fits", "abcdefg", "%s", 8, 1, "abcdefg\0"sv},
        {"word one too long", "abcdefgh", "%s", 8, 0, "\0#######"sv},
        {"width within size", "abcdef", "%3s", 4, 1, "abc\0####"sv},
        {"width beyond size", "abcdef", "%4s", 4, 0, "\0#######"sv},
        {"zero size", "a", "%s", 0, 0, "########"sv},
        {"blank input", "   ", "%s", 8, -1, "########"sv},
        {"one char, no terminator", "xyz", "%c", 1, 1, "x#######"sv},
        {"chars keep spaces", " yz", "%3c", 3, 1, " yz#####"sv},
        {"chars beyond size", "xyz", "%3c", 2, 0, "########"sv},
        {"input ends inside chars", "xy", "%3c", 8, -1, "########"sv},
        {"range set", "abcabd", "%[a-c]", 8, 1, "abcab\0##"sv},
        {"negated set", "key,value", "%[^,]", 8, 1, "key\0####"sv},
        {"leading bracket member", "]x]y", "%[]x]", 8, 1, "]x]\0####"sv},
        {"trailing dash member", "a-a-b", "%[a-]", 8, 1, "a-a-\0###"sv},
        {"set matches nothing", "xyz", "%[a-c]", 8, 0, "########"sv},
        {"set one too long", "aaaaaaaa", "%[a]", 8, 0, "\0#######"sv},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::array<char, 8> target;
        target.fill('#');
        EXPECT_EQ(sscanf_s(c.input, c.format, target.data(), c.size), c.expected);
        EXPECT_EQ(std::string_view(target.data(), target.size()), c.after);
    }
}

TEST(BoundedScan, IntegersSuppressionAndCounts) {
    constexpr int kUnset = -7;
    struct {
        const char *name, *input, *format;
        int expected, first, second;
    } const cases[] = {
        {"two numbers", "12 -34", "%d %d", 2, 12, -34},
        {"widths", "12345", "%2d%d", 2, 12, 345},
        {"bases", "0x1f 017", "%i %i", 2, 31, 15},
        {"count after width", "12345", "%3d%n", 1, 123, 3},
        {"suppressed number", "12345", "%*2d%d", 1, 345, kUnset},
        {"suppressed word takes no size", "skip 9", "%*s %d", 1, 9, kUnset},
        {"suppressed set then count", "abc1", "%*[a-z]%n", 0, 3, kUnset},
        {"percent skips spaces", "3 % 4", "%d%%%d", 2, 3, 4},
        {"literal mismatch", "5;6", "%d,%d", 1, 5, kUnset},
        {"no number", "abc", "%d", 0, kUnset, kUnset},
        {"input ends after first", "7", "%d %d", 1, 7, kUnset},
        {"empty input", "", "%d", -1, kUnset, kUnset},
        {"blank input", "  ", "%d", -1, kUnset, kUnset},
        {"null input", nullptr, "%d", -1, kUnset, kUnset},
        {"null format", "1", nullptr, -1, kUnset, kUnset},
        {"unknown conversion", "1", "%q", -1, kUnset, kUnset},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        int first = kUnset;
        int second = kUnset;
        EXPECT_EQ(sscanf_s(c.input, c.format, &first, &second), c.expected);
        EXPECT_EQ(first, c.first);
        EXPECT_EQ(second, c.second);
    }
    EXPECT_EQ(sscanf_s("5", "%d", static_cast<int *>(nullptr)), -1);
}

TEST(BoundedScan, LengthModifiersStoreOnlyTheirType) {
    // Each narrow target sits between guards that a too-wide store would overwrite.
    std::array<signed char, 3> hhd{1, 0, 1};
    std::array<unsigned char, 3> hhx{1, 0, 1};
    std::array<short, 3> hd{1, 0, 1};
    long ld = 0;
    long long lld = 0;
    size_t zu = 0;
    intmax_t jd = 0;
    EXPECT_EQ(sscanf_s("-5 ff -300 -40 123456789012 42 -9", "%hhd %hhx %hd %ld %lld %zu %jd", &hhd[1],
                       &hhx[1], &hd[1], &ld, &lld, &zu, &jd),
              7);
    EXPECT_EQ(hhd, (std::array<signed char, 3>{1, -5, 1}));
    EXPECT_EQ(hhx, (std::array<unsigned char, 3>{1, 0xFF, 1}));
    EXPECT_EQ(hd, (std::array<short, 3>{1, -300, 1}));
    EXPECT_EQ(ld, -40);
    EXPECT_EQ(lld, 123456789012LL);
    EXPECT_EQ(zu, 42U);
    EXPECT_EQ(jd, -9);
}

TEST(BoundedScan, StopsAtAStringThatDoesNotFit) {
    int first = 0;
    int second = -7;
    std::array<char, 4> word{'#', '#', '#', '#'};
    EXPECT_EQ(sscanf_s("1 abcdefgh 2", "%d %s %d", &first, word.data(), word.size(), &second), 1);
    EXPECT_EQ(first, 1);
    EXPECT_EQ(std::string_view(word.data(), word.size()), "\0###"sv);
    EXPECT_EQ(second, -7);
}
