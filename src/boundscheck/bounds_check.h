// Bounds-checked memory and string functions. Every copy and fill of the library goes through
// them: the destination's capacity is always passed, and a call that would write beyond it is
// refused with an error code instead.
#ifndef LDC_BOUNDSCHECK_BOUNDS_CHECK_H
#define LDC_BOUNDSCHECK_BOUNDS_CHECK_H

#include <stdarg.h>
#include <stddef.h>

#include "vkt_zb_ldc.h"   // LDC_EXPORT

#ifndef EOK
#define EOK 0
#endif
// Error codes. The *_AND_RESET codes say that the destination was cleared (filled with zeros, or
// its first character set to NUL for strings) before the refusal, so it never holds a partial result;
// memset_s instead fills the whole capacity with its value.
#define LDC_EINVAL 22                  // NULL destination, zero or oversized capacity: nothing written
#define LDC_ERANGE 34                  // capacity or count out of range: nothing written
#define LDC_EINVAL_AND_RESET (22 | 128)
#define LDC_ERANGE_AND_RESET (34 | 128)
#define LDC_EOVERLAP_AND_RESET (54 | 128)

#define LDC_SECURE_MEM_MAX_LEN 0x7FFFFFFFUL      // largest capacity accepted, in bytes
#define LDC_SECURE_STRING_MAX_LEN 0x7FFFFFFFUL

typedef int errno_t;

#ifdef __cplusplus
extern "C" {
#endif

LDC_EXPORT errno_t memcpy_s(void *pDest, size_t uDestMax, const void *pSrc, size_t uCount);
LDC_EXPORT errno_t memmove_s(void *pDest, size_t uDestMax, const void *pSrc, size_t uCount);
LDC_EXPORT errno_t memset_s(void *pDest, size_t uDestMax, int iValue, size_t uCount);
LDC_EXPORT errno_t strcpy_s(char *pcDest, size_t uDestMax, const char *pcSrc);
LDC_EXPORT errno_t strncpy_s(char *pcDest, size_t uDestMax, const char *pcSrc, size_t uCount);
// Return the number of characters written, or -1 (the destination then holds an empty string).
LDC_EXPORT int sprintf_s(char *pcDest, size_t uDestMax, const char *pcFormat, ...)
    __attribute__((format(printf, 3, 4)));
LDC_EXPORT int vsprintf_s(char *pcDest, size_t uDestMax, const char *pcFormat, va_list args);
// As sscanf, but every %s, %c and %[ conversion takes its destination's capacity (size_t)
// right after the pointer. Returns the number of fields assigned, or -1.
LDC_EXPORT int sscanf_s(const char *pcBuffer, const char *pcFormat, ...);
LDC_EXPORT int vsscanf_s(const char *pcBuffer, const char *pcFormat, va_list args);

#ifdef __cplusplus
}
#endif

#endif
