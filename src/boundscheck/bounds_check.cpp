#include "boundscheck/bounds_check.h"

#include <stdint.h>
#include <stdio.h>
#include <string.h>

static bool RangesOverlap(const void *pA, size_t uLenA, const void *pB, size_t uLenB)
{
    const uintptr_t a = (uintptr_t)pA;
    const uintptr_t b = (uintptr_t)pB;
    return (a < b + uLenB) && (b < a + uLenA);
}

// The refusals that copy and move share; EOK means the request may go ahead.
static errno_t CheckMemRequest(void *pDest, size_t uDestMax, const void *pSrc, size_t uCount)
{
    if (pDest == NULL || uDestMax == 0 || uDestMax > LDC_SECURE_MEM_MAX_LEN) {
        return LDC_EINVAL;
    }
    if (pSrc == NULL) {
        memset(pDest, 0, uDestMax);
        return LDC_EINVAL_AND_RESET;
    }
    if (uCount > uDestMax) {
        memset(pDest, 0, uDestMax);
        return LDC_ERANGE_AND_RESET;
    }
    return EOK;
}

errno_t memcpy_s(void *pDest, size_t uDestMax, const void *pSrc, size_t uCount)
{
    const errno_t iErr = CheckMemRequest(pDest, uDestMax, pSrc, uCount);
    if (iErr != EOK || uCount == 0 || pDest == pSrc) {
        return iErr;
    }
    if (RangesOverlap(pDest, uCount, pSrc, uCount)) {
        memset(pDest, 0, uDestMax);
        return LDC_EOVERLAP_AND_RESET;
    }
    memcpy(pDest, pSrc, uCount);
    return EOK;
}

errno_t memmove_s(void *pDest, size_t uDestMax, const void *pSrc, size_t uCount)
{
    const errno_t iErr = CheckMemRequest(pDest, uDestMax, pSrc, uCount);
    if (iErr == EOK && uCount != 0 && pDest != pSrc) {
        memmove(pDest, pSrc, uCount);
    }
    return iErr;
}

errno_t memset_s(void *pDest, size_t uDestMax, int iValue, size_t uCount)
{
    if (pDest == NULL || uDestMax == 0 || uDestMax > LDC_SECURE_MEM_MAX_LEN) {
        return LDC_EINVAL;
    }
    if (uCount > uDestMax) {
        memset(pDest, iValue, uDestMax);   // fill what fits, and say that the request did not
        return LDC_ERANGE_AND_RESET;
    }
    memset(pDest, iValue, uCount);
    return EOK;
}

errno_t strcpy_s(char *pcDest, size_t uDestMax, const char *pcSrc)
{
    if (pcDest == NULL || uDestMax == 0 || uDestMax > LDC_SECURE_STRING_MAX_LEN) {
        return LDC_EINVAL;
    }
    if (pcSrc == NULL) {
        pcDest[0] = '\0';
        return LDC_EINVAL_AND_RESET;
    }
    const size_t uLen = strnlen(pcSrc, uDestMax);
    if (uLen >= uDestMax) {
        pcDest[0] = '\0';
        return LDC_ERANGE_AND_RESET;
    }
    if (pcDest == pcSrc) {
        return EOK;
    }
    if (RangesOverlap(pcDest, uLen + 1, pcSrc, uLen + 1)) {
        pcDest[0] = '\0';
        return LDC_EOVERLAP_AND_RESET;
    }
    memcpy(pcDest, pcSrc, uLen + 1);
    return EOK;
}

errno_t strncpy_s(char *pcDest, size_t uDestMax, const char *pcSrc, size_t uCount)
{
    if (pcDest == NULL || uDestMax == 0 || uDestMax > LDC_SECURE_STRING_MAX_LEN) {
        return LDC_EINVAL;
    }
    if (pcSrc == NULL || uCount > LDC_SECURE_STRING_MAX_LEN) {
        pcDest[0] = '\0';
        return pcSrc == NULL ? LDC_EINVAL_AND_RESET : LDC_ERANGE_AND_RESET;
    }
    const size_t uLen = strnlen(pcSrc, uCount);   // copies at most uCount characters
    if (uLen >= uDestMax) {
        pcDest[0] = '\0';
        return LDC_ERANGE_AND_RESET;
    }
    if (pcDest != pcSrc && RangesOverlap(pcDest, uLen + 1, pcSrc, uLen)) {
        pcDest[0] = '\0';
        return LDC_EOVERLAP_AND_RESET;
    }
    memmove(pcDest, pcSrc, uLen);
    pcDest[uLen] = '\0';
    return EOK;
}

int vsprintf_s(char *pcDest, size_t uDestMax, const char *pcFormat, va_list args)
{
    if (pcDest == NULL || uDestMax == 0 || uDestMax > LDC_SECURE_STRING_MAX_LEN) {
        return -1;
    }
    if (pcFormat == NULL) {
        pcDest[0] = '\0';
        return -1;
    }
    const int iLen = vsnprintf(pcDest, uDestMax, pcFormat, args);
    if (iLen < 0 || (size_t)iLen >= uDestMax) {
        pcDest[0] = '\0';   // a truncated text is never handed on
        return -1;
    }
    return iLen;
}

int sprintf_s(char *pcDest, size_t uDestMax, const char *pcFormat, ...)
{
    va_list args;
    va_start(args, pcFormat);
    const int iRet = vsprintf_s(pcDest, uDestMax, pcFormat, args);
    va_end(args);
    return iRet;
}
