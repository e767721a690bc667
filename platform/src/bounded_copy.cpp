// Bounds-checked memory and string copies of the platform stand-in: memcpy_s, memset_s, strcpy_s and
// strncpy_s. Every check comes before the first write, so a failed call leaves no partial copy behind.
#include "qvplatform/qv_bounded.h"

#include <cstdint>
#include <cstring>

namespace {

// A destination size the copies accept: neither zero nor beyond the platform's limit.
constexpr bool ValidSize(size_t size) {
    return size != 0 && size <= QV_BOUNDED_MAX_SIZE;
}

// True when the byte ranges [a, a + aLen) and [b, b + bLen) share at least one byte.
bool Overlaps(const void *a, size_t aLen, const void *b, size_t bLen) {
    const auto first = reinterpret_cast<uintptr_t>(a);
    const auto second = reinterpret_cast<uintptr_t>(b);
    return aLen != 0 && bLen != 0 && first < second + bLen && second < first + aLen;
}

// Clears the whole destination of a failed memcpy_s and passes the error on.
qv_errno_t FailMemory(void *dest, size_t destMax, qv_errno_t error) {
    std::memset(dest, 0, destMax);
    return error;
}

// Empties the destination string of a failed string copy and passes the error on.
qv_errno_t FailString(char *dest, qv_errno_t error) {
    dest[0] = '\0';
    return error;
}

}  // namespace

extern "C" {

// Copies count bytes of src to dest, which holds destMax bytes. On failure dest, when it and destMax
// are valid, is cleared over its destMax bytes.
qv_errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count) {
    if (dest == nullptr) {
        return QV_EINVAL;
    }
    if (!ValidSize(destMax)) {
        return QV_ERANGE;
    }
    if (src == nullptr) {
        return FailMemory(dest, destMax, QV_EINVAL);
    }
    if (count > destMax) {
        return FailMemory(dest, destMax, QV_ERANGE);
    }
    if (Overlaps(dest, count, src, count)) {
        return FailMemory(dest, destMax, QV_EOVERLAP);
    }
    if (count != 0) {
        std::memcpy(dest, src, count);
    }
    return QV_EOK;
}

// Sets the first count bytes of dest (destMax bytes) to c converted to unsigned char. A count beyond
// destMax still sets all destMax bytes and reports QV_ERANGE. The stores are never optimised away.
qv_errno_t memset_s(void *dest, size_t destMax, int c, size_t count) {
    if (dest == nullptr) {
        return QV_EINVAL;
    }
    if (!ValidSize(destMax)) {
        return QV_ERANGE;
    }
    const size_t length = count > destMax ? destMax : count;
    std::memset(dest, c, length);
    // Tell the compiler the stores are observed, so clearing a secret before release survives.
    __asm__ __volatile__("" : : "r"(dest) : "memory");
    return count > destMax ? QV_ERANGE : QV_EOK;
}

// Copies the string src, terminator included, to dest (destMax bytes). On failure dest, when it and
// destMax are valid, holds an empty string. Bytes after the copied terminator are left as they were.
qv_errno_t strcpy_s(char *dest, size_t destMax, const char *src) {
    if (dest == nullptr) {
        return QV_EINVAL;
    }
    if (!ValidSize(destMax)) {
        return QV_ERANGE;
    }
    if (src == nullptr) {
        return FailString(dest, QV_EINVAL);
    }
    const size_t length = strnlen(src, destMax);
    if (length == destMax) {
        return FailString(dest, QV_ERANGE);
    }
    if (Overlaps(dest, length + 1, src, length + 1)) {
        return FailString(dest, QV_EOVERLAP);
    }
    std::memcpy(dest, src, length + 1);
    return QV_EOK;
}

// Copies at most count characters of src to dest (destMax bytes) and terminates the result; there is
// no padding. Fails with QV_ERANGE when count >= destMax and src has destMax or more characters. On
// failure dest, when it and destMax are valid, holds an empty string.
qv_errno_t strncpy_s(char *dest, size_t destMax, const char *src, size_t count) {
    if (dest == nullptr) {
        return QV_EINVAL;
    }
    if (!ValidSize(destMax)) {
        return QV_ERANGE;
    }
    if (src == nullptr) {
        return FailString(dest, QV_EINVAL);
    }
    if (count > QV_BOUNDED_MAX_SIZE) {
        return FailString(dest, QV_ERANGE);
    }
    const size_t length = strnlen(src, count < destMax ? count : destMax);
    if (length == destMax) {
        return FailString(dest, QV_ERANGE);
    }
    // The source is read up to its terminator only when that lies within count characters.
    const size_t readLength = length < count ? length + 1 : length;
    if (Overlaps(dest, length + 1, src, readLength)) {
        return FailString(dest, QV_EOVERLAP);
    }
    std::memcpy(dest, src, length);
    dest[length] = '\0';
    return QV_EOK;
}

}  // extern "C"
