// Tests of the bounds-checked copies memcpy_s, memset_s, strcpy_s and strncpy_s: return codes and the
// exact bytes of a 16-byte destination afterwards, including the bytes that must stay untouched.
#include <gtest/gtest.h>

#include <array>
#include <span>
#include <string_view>

#include "qvplatform/qv_bounded.h"

using namespace std::string_view_literals;

namespace {

constexpr size_t kOversize = size_t{QV_BOUNDED_MAX_SIZE} + 1;
// Every case starts from this buffer; the terminator at [11] gives the string copies a source inside
// the destination.
constexpr std::string_view kInitial = "ABCDEFGHIJK\0MNOP"sv;
constexpr std::string_view kCleared = "\0\0\0\0\0\0\0\0IJK\0MNOP"sv;  // memcpy_s failed over 8 bytes
constexpr std::string_view kEmptied = "\0BCDEFGHIJK\0MNOP"sv;          // a string copy failed
constexpr int kNull = -1;                                              // offset of a null source

struct Buffer {
    std::array<char, 16> bytes{};
    Buffer() { kInitial.copy(bytes.data(), bytes.size()); }
    std::string_view View() const { return {bytes.data(), bytes.size()}; }
};

// The source is text, or (text null) the buffer at offset, or (offset kNull) none. strcpy_s ignores count.
struct CopyCase {
    const char *name;
    bool nullDest;
    size_t destMax;
    const char *text;
    int offset;
    size_t count;
    qv_errno_t expected;
    std::string_view after;
};

template <typename Call>
void RunCopyCases(std::span<const CopyCase> cases, Call call) {
    for (const CopyCase &c : cases) {
        SCOPED_TRACE(c.name);
        Buffer buffer;
        const char *src = c.text ? c.text : c.offset == kNull ? nullptr : &buffer.bytes[static_cast<size_t>(c.offset)];
        EXPECT_EQ(call(c.nullDest ? nullptr : buffer.bytes.data(), c.destMax, src, c.count), c.expected);
        EXPECT_EQ(buffer.View(), c.after);
    }
}

}  // namespace

TEST(BoundedCopy, MemcpyS) {
    const CopyCase cases[] = {
        {"fits", false, 8, "abcdefghi", 0, 5, QV_EOK, "abcdeFGHIJK\0MNOP"sv},
        {"exactly fits", false, 8, "abcdefghi", 0, 8, QV_EOK, "abcdefghIJK\0MNOP"sv},
        {"one too long", false, 8, "abcdefghi", 0, 9, QV_ERANGE, kCleared},
        {"zero count", false, 8, "abc", 0, 0, QV_EOK, kInitial},
        {"null dest", true, 8, "abc", 0, 3, QV_EINVAL, kInitial},
        {"null src", false, 8, nullptr, kNull, 3, QV_EINVAL, kCleared},
        {"zero destMax", false, 0, "abc", 0, 0, QV_ERANGE, kInitial},
        {"oversize destMax", false, kOversize, "abc", 0, 3, QV_ERANGE, kInitial},
        {"overlap by one byte", false, 8, nullptr, 7, 8, QV_EOVERLAP, kCleared},
        {"adjacent source", false, 8, nullptr, 8, 8, QV_EOK, "IJK\0MNOPIJK\0MNOP"sv},
    };
    RunCopyCases(cases, [](char *d, size_t n, const char *s, size_t count) { return memcpy_s(d, n, s, count); });
    // The same boundary with the destination after the source.
    Buffer buffer;
    EXPECT_EQ(memcpy_s(buffer.bytes.data() + 7, 8, buffer.bytes.data(), 8), QV_EOVERLAP);
    EXPECT_EQ(memcpy_s(buffer.bytes.data() + 8, 8, buffer.bytes.data(), 8), QV_EOK);
    EXPECT_EQ(buffer.View(), "ABCDEFG\0ABCDEFG\0"sv);
}

TEST(BoundedCopy, MemsetS) {
    // The source text is the fill byte.
    const CopyCase cases[] = {
        {"exactly fits", false, 8, "x", 0, 8, QV_EOK, "xxxxxxxxIJK\0MNOP"sv},
        {"one too long sets destMax bytes", false, 8, "x", 0, 9, QV_ERANGE, "xxxxxxxxIJK\0MNOP"sv},
        {"zero count", false, 8, "x", 0, 0, QV_EOK, kInitial},
        {"null dest", true, 8, "x", 0, 3, QV_EINVAL, kInitial},
        {"zero destMax", false, 0, "x", 0, 0, QV_ERANGE, kInitial},
        {"oversize destMax", false, kOversize, "x", 0, 3, QV_ERANGE, kInitial},
    };
    RunCopyCases(cases, [](char *d, size_t n, const char *s, size_t count) { return memset_s(d, n, s[0], count); });
    Buffer buffer;  // the fill value is converted to unsigned char
    EXPECT_EQ(memset_s(buffer.bytes.data(), 2, 0x1FF, 2), QV_EOK);
    EXPECT_EQ(buffer.View(), "\xFF\xFF" "CDEFGHIJK\0MNOP"sv);
}

TEST(BoundedCopy, StrcpyS) {
    const CopyCase cases[] = {
        {"exactly fits", false, 8, "abcdefg", 0, 0, QV_EOK, "abcdefg\0IJK\0MNOP"sv},
        {"one too long", false, 8, "abcdefgh", 0, 0, QV_ERANGE, kEmptied},
        {"empty source", false, 8, "", 0, 0, QV_EOK, kEmptied},
        {"null dest", true, 8, "abc", 0, 0, QV_EINVAL, kInitial},
        {"null src", false, 8, nullptr, kNull, 0, QV_EINVAL, kEmptied},
        {"zero destMax", false, 0, "abc", 0, 0, QV_ERANGE, kInitial},
        {"oversize destMax", false, kOversize, "abc", 0, 0, QV_ERANGE, kInitial},
        // "FGHIJK" at [5] overlaps the 7 bytes written; "GHIJK" at [6] just touches the 6 written.
        {"overlap", false, 8, nullptr, 5, 0, QV_EOVERLAP, kEmptied},
        {"adjacent source", false, 8, nullptr, 6, 0, QV_EOK, "GHIJK\0GHIJK\0MNOP"sv},
    };
    RunCopyCases(cases, [](char *d, size_t n, const char *s, size_t) { return strcpy_s(d, n, s); });
}

TEST(BoundedCopy, StrncpyS) {
    const CopyCase cases[] = {
        {"short source, no padding", false, 8, "ab", 0, 5, QV_EOK, "ab\0DEFGHIJK\0MNOP"sv},
        {"exactly fits", false, 8, "abcdefg", 0, 8, QV_EOK, "abcdefg\0IJK\0MNOP"sv},
        {"count below destMax cuts a long source", false, 8, "abcdefghijk", 0, 7, QV_EOK, "abcdefg\0IJK\0MNOP"sv},
        {"one too long", false, 8, "abcdefgh", 0, 8, QV_ERANGE, kEmptied},
        {"large count, short source", false, 8, "abc", 0, 100, QV_EOK, "abc\0EFGHIJK\0MNOP"sv},
        {"zero count", false, 8, "abc", 0, 0, QV_EOK, kEmptied},
        {"null dest", true, 8, "abc", 0, 3, QV_EINVAL, kInitial},
        {"null src", false, 8, nullptr, kNull, 3, QV_EINVAL, kEmptied},
        {"zero destMax", false, 0, "abc", 0, 3, QV_ERANGE, kInitial},
        {"oversize destMax", false, kOversize, "abc", 0, 3, QV_ERANGE, kInitial},
        {"oversize count", false, 8, "abc", 0, kOversize, QV_ERANGE, kEmptied},
        // Three characters and a terminator are written to [0, 4): a source at [3] overlaps them.
        {"overlap", false, 8, nullptr, 3, 3, QV_EOVERLAP, kEmptied},
        {"adjacent source", false, 8, nullptr, 4, 3, QV_EOK, "EFG\0EFGHIJK\0MNOP"sv},
    };
    RunCopyCases(cases, [](char *d, size_t n, const char *s, size_t count) { return strncpy_s(d, n, s, count); });
    // A source just before the destination is read only up to count, so it does not overlap.
    Buffer buffer;
    EXPECT_EQ(strncpy_s(buffer.bytes.data() + 3, 8, buffer.bytes.data(), 3), QV_EOK);
    EXPECT_EQ(buffer.View(), "ABCABC\0HIJK\0MNOP"sv);
}
