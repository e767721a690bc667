/*
 * Bounds-checked memory and string functions of the device platform.
 *
 * The copy functions follow the C11 bounds-checking interfaces: they return 0 on success and a
 * non-zero error code otherwise, and on a failed copy they leave the destination cleared where it
 * can be (an empty string for the string copies, zero bytes for memcpy_s).
 * The bounded formatters (sprintf_s, snprintf_s, vsprintf_s, vsnprintf_s) return the number of
 * characters written, or a negative value on any failure, truncation included; the destination then
 * holds an empty string.
 * The truncating formatters write at most size - 1 characters, always terminate, and return the
 * length written or a negative value on error.
 * sscanf_s takes, after the pointer of every %s, %c and %[ conversion that is not suppressed, the size
 * of the receiving array as a size_t; a string that does not fit there (terminator included) ends the
 * scan with the array emptied.
 * The stand-in reports every negative result as -1; callers should test for a negative value only.
 */
#ifndef QVPLATFORM_QV_BOUNDED_H
#define QVPLATFORM_QV_BOUNDED_H

#include <stdarg.h>
#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef int qv_errno_t;

#define QV_EOK 0
#define QV_EINVAL 22      /* null pointer or invalid argument */
#define QV_ERANGE 34      /* size zero, too large, or the source does not fit */
#define QV_EOVERLAP 54    /* source and destination overlap */

/* Largest size any bounded function accepts; larger sizes are taken as a caller's error. */
#define QV_BOUNDED_MAX_SIZE 0x7FFFFFFFu

qv_errno_t memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
qv_errno_t memset_s(void *dest, size_t destMax, int c, size_t count);
qv_errno_t strcpy_s(char *dest, size_t destMax, const char *src);
qv_errno_t strncpy_s(char *dest, size_t destMax, const char *src, size_t count);

int sprintf_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int snprintf_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int vsprintf_s(char *dest, size_t destMax, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
int vsnprintf_s(char *dest, size_t destMax, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));
int sscanf_s(const char *buffer, const char *format, ...);

int snprintf_truncated_s(char *dest, size_t destMax, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int vsnprintf_truncated_s(char *dest, size_t destMax, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

#ifdef __cplusplus
}
#endif

#endif
