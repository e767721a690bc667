// Stand-in for the platform's string helpers (PAL_StrStr, PAL_StrCmp, PAL_MemCmp): the C library's,
// made total. A null pointer sorts before every other pointer and equal to another null, and the
// comparisons answer exactly -1, 0 or 1, comparing bytes as unsigned whatever the sign of char.
#include <cstdint>
#include <cstring>

#include "qvplatform/pal.h"

namespace {

constexpr int32_t Sign(int value) {
    return value < 0 ? -1 : (value > 0 ? 1 : 0);
}

// The order of two pointers of which at least one is null.
constexpr int32_t NullOrder(const void *a, const void *b) {
    return a == b ? 0 : (a == nullptr ? -1 : 1);
}

}  // namespace

// First occurrence of needle in haystack (haystack itself for an empty needle); null when absent or
// for a null argument.
extern "C" const char *PAL_StrStr(const char *haystack, const char *needle) {
    if (haystack == nullptr || needle == nullptr) {
        return nullptr;
    }
    return std::strstr(haystack, needle);
}

// Orders two strings: -1, 0 or 1.
extern "C" int32_t PAL_StrCmp(const char *s1, const char *s2) {
    if (s1 == nullptr || s2 == nullptr) {
        return NullOrder(s1, s2);
    }
    return Sign(std::strcmp(s1, s2));
}

// Orders the first len bytes of two blocks: -1, 0 or 1. A null block sorts first even for len 0.
extern "C" int32_t PAL_MemCmp(const void *s1, const void *s2, uint32_t len) {
    if (s1 == nullptr || s2 == nullptr) {
        return NullOrder(s1, s2);
    }
    return Sign(std::memcmp(s1, s2, len));
}
