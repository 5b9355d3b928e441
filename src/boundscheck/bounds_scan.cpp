// Formatted input with bounded destinations. The scanner is our own rather than a wrapper of
// vsscanf: the capacities that follow each %s, %c and %[ pointer cannot be forwarded to it.
// Numbers are still converted by strtoll, strtoull and strtold, on a bounded copy of the field
// so that a field width is honoured.
#include "boundscheck/bounds_check.h"

#include <ctype.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

// Longest numeric field read; a longer one (only possible with padding zeros) is a mismatch.
#define LDC_SCAN_NUMBER_MAX 511

typedef enum tagE_SCAN_LEN {
    SCAN_LEN_NONE,
    SCAN_LEN_HH,
    SCAN_LEN_H,
    SCAN_LEN_L,
    SCAN_LEN_LL,   // also "L" on integers, as the C libraries accept it
    SCAN_LEN_BIG_L,
    SCAN_LEN_J,
    SCAN_LEN_Z,
    SCAN_LEN_T
} E_SCAN_LEN;

typedef enum tagE_SCAN_RESULT {
    SCAN_OK,
    SCAN_MISMATCH,       // the input does not fit the directive, or a field did not fit its buffer
    SCAN_INPUT_FAILURE   // the input ended first
} E_SCAN_RESULT;

typedef struct tagST_SCAN_SPEC {
    bool bSuppress;
    size_t uWidth;   // 0: no width given
    E_SCAN_LEN eLen;
    char cConv;
    bool abSet[256];   // %[ only: the characters that the field may contain
} tagST_SCAN_SPEC;

typedef struct tagST_SCAN_STATE {
    const char *pcIn;    // the whole input
    size_t uPos;         // characters consumed so far (what %n reports)
    va_list args;
    int iAssigned;
    bool bConverted;     // a conversion has completed, suppressed or not
} tagST_SCAN_STATE;

static bool IsSpace(char c)
{
    return isspace((unsigned char)c) != 0;
}

static void SkipSpace(tagST_SCAN_STATE *pstState)
{
    while (IsSpace(pstState->pcIn[pstState->uPos])) {
        pstState->uPos++;
    }
}

// Reads "[^]...]" after the '[': a ']' right after the '[' or '^' belongs to the set, and a '-'
// between two characters spans their range. Returns the format position after the ']', or NULL.
static const char *ParseScanSet(const char *pcFmt, bool *pbSet)
{
    bool bInvert = false;
    if (*pcFmt == '^') {
        bInvert = true;
        pcFmt++;
    }
    bool abIn[256] = {false};
    const char *pcStart = pcFmt;
    while (*pcFmt != '\0' && (*pcFmt != ']' || pcFmt == pcStart)) {
        const unsigned char ucFrom = (unsigned char)*pcFmt;
        if (pcFmt[1] == '-' && pcFmt[2] != ']' && pcFmt[2] != '\0' && (unsigned char)pcFmt[2] >= ucFrom) {
            for (unsigned int c = ucFrom; c <= (unsigned char)pcFmt[2]; c++) {
                abIn[c] = true;
            }
            pcFmt += 3;
        } else {
            abIn[ucFrom] = true;
            pcFmt++;
        }
    }
    if (*pcFmt != ']') {
        return NULL;
    }
    for (int c = 0; c < 256; c++) {
        pbSet[c] = abIn[c] != bInvert;
    }
    pbSet[0] = false;   // the terminator always ends the field
    return pcFmt + 1;
}

// Reads flags, width, length and conversion after the '%'. Returns the position after the
// directive, or NULL when it is malformed.
static const char *ParseSpec(const char *pcFmt, tagST_SCAN_SPEC *pstSpec)
{
    pstSpec->bSuppress = false;
    pstSpec->uWidth = 0;
    pstSpec->eLen = SCAN_LEN_NONE;
    if (*pcFmt == '*') {
        pstSpec->bSuppress = true;
        pcFmt++;
    }
    while (isdigit((unsigned char)*pcFmt)) {
        if (pstSpec->uWidth > LDC_SECURE_STRING_MAX_LEN / 10) {
            return NULL;
        }
        pstSpec->uWidth = pstSpec->uWidth * 10 + (size_t)(*pcFmt - '0');
        pcFmt++;
    }
    switch (*pcFmt) {
    case 'h':
        pstSpec->eLen = (pcFmt[1] == 'h') ? SCAN_LEN_HH : SCAN_LEN_H;
        pcFmt += (pcFmt[1] == 'h') ? 2 : 1;
        break;
    case 'l':
        pstSpec->eLen = (pcFmt[1] == 'l') ? SCAN_LEN_LL : SCAN_LEN_L;
        pcFmt += (pcFmt[1] == 'l') ? 2 : 1;
        break;
    case 'L':
        pstSpec->eLen = SCAN_LEN_BIG_L;
        pcFmt++;
        break;
    case 'j':
        pstSpec->eLen = SCAN_LEN_J;
        pcFmt++;
        break;
    case 'z':
        pstSpec->eLen = SCAN_LEN_Z;
        pcFmt++;
        break;
    case 't':
        pstSpec->eLen = SCAN_LEN_T;
        pcFmt++;
        break;
    default:
        break;
    }
    pstSpec->cConv = *pcFmt;
    if (pstSpec->cConv == '\0') {
        return NULL;
    }
    if (pstSpec->cConv == '[') {
        return ParseScanSet(pcFmt + 1, pstSpec->abSet);
    }
    return pcFmt + 1;
}

static void StoreInteger(tagST_SCAN_STATE *pstState, E_SCAN_LEN eLen, unsigned long long ullValue)
{
    // Narrower destinations keep the low bits, as the C library's scanf does.
    switch (eLen) {
    case SCAN_LEN_HH:
        *va_arg(pstState->args, signed char *) = (signed char)ullValue;
        break;
    case SCAN_LEN_H:
        *va_arg(pstState->args, short *) = (short)ullValue;
        break;
    case SCAN_LEN_L:
        *va_arg(pstState->args, long *) = (long)ullValue;
        break;
    case SCAN_LEN_LL:
    case SCAN_LEN_BIG_L:
        *va_arg(pstState->args, long long *) = (long long)ullValue;
        break;
    case SCAN_LEN_J:
        *va_arg(pstState->args, intmax_t *) = (intmax_t)ullValue;
        break;
    case SCAN_LEN_Z:
        *va_arg(pstState->args, size_t *) = (size_t)ullValue;
        break;
    case SCAN_LEN_T:
        *va_arg(pstState->args, ptrdiff_t *) = (ptrdiff_t)ullValue;
        break;
    default:
        *va_arg(pstState->args, int *) = (int)ullValue;
        break;
    }
}

// Copies the next field (at most the width, at most LDC_SCAN_NUMBER_MAX characters) and lets the
// C library's conversion say how much of it forms a number: a dangling "1e" or "0x" ends before
// the letter, which stays in the input (as Android's scanf does; glibc would swallow it).
static E_SCAN_RESULT ScanNumber(tagST_SCAN_STATE *pstState, const tagST_SCAN_SPEC *pstSpec)
{
    SkipSpace(pstState);
    const char *pcField = pstState->pcIn + pstState->uPos;
    if (*pcField == '\0') {
        return SCAN_INPUT_FAILURE;
    }
    const bool bCapped = pstSpec->uWidth == 0 || pstSpec->uWidth > LDC_SCAN_NUMBER_MAX;
    const size_t uLimit = bCapped ? LDC_SCAN_NUMBER_MAX : pstSpec->uWidth;
    char acField[LDC_SCAN_NUMBER_MAX + 1];
    const size_t uLen = strnlen(pcField, uLimit);
    if (memcpy_s(acField, sizeof(acField), pcField, uLen) != EOK) {
        return SCAN_MISMATCH;
    }
    acField[uLen] = '\0';

    char *pcEnd = acField;
    unsigned long long ullValue = 0;
    float fValue = 0;
    double dValue = 0;
    long double ldValue = 0;
    const char cConv = pstSpec->cConv;
    const E_SCAN_LEN eLen = pstSpec->eLen;
    const bool bFloat = strchr("fFeEgGaA", cConv) != NULL;
    // Each width is converted directly: a float through a wider type could round twice.
    if (bFloat && eLen == SCAN_LEN_L) {
        dValue = strtod(acField, &pcEnd);
    } else if (bFloat && eLen == SCAN_LEN_BIG_L) {
        ldValue = strtold(acField, &pcEnd);
    } else if (bFloat) {
        fValue = strtof(acField, &pcEnd);
    } else {
        // An out-of-range field saturates at the width of long (long long for ll, L and j) and
        // is then narrowed, which is what the C library's scanf does on each target.
        const bool bLongLong = eLen == SCAN_LEN_LL || eLen == SCAN_LEN_BIG_L || eLen == SCAN_LEN_J;
        const bool bSigned = cConv == 'd' || cConv == 'i';
        const int iBase = (cConv == 'i') ? 0 : (cConv == 'd' || cConv == 'u') ? 10 : (cConv == 'o') ? 8 : 16;
        if (bSigned) {
            ullValue = bLongLong ? (unsigned long long)strtoll(acField, &pcEnd, iBase)
                                 : (unsigned long long)strtol(acField, &pcEnd, iBase);
        } else {
            ullValue = bLongLong ? strtoull(acField, &pcEnd, iBase) : strtoul(acField, &pcEnd, iBase);
        }
    }
    const size_t uUsed = (size_t)(pcEnd - acField);
    // strtoX skips white space of its own, but there is none left: the field starts after it.
    if (uUsed == 0 || (bCapped && uUsed == LDC_SCAN_NUMBER_MAX)) {
        return SCAN_MISMATCH;
    }
    pstState->uPos += uUsed;
    if (pstSpec->bSuppress) {
        return SCAN_OK;
    }
    if (cConv == 'p') {
        *va_arg(pstState->args, void **) = (void *)(uintptr_t)ullValue;
    } else if (bFloat) {
        if (eLen == SCAN_LEN_L) {
            *va_arg(pstState->args, double *) = dValue;
        } else if (eLen == SCAN_LEN_BIG_L) {
            *va_arg(pstState->args, long double *) = ldValue;
        } else {
            *va_arg(pstState->args, float *) = fValue;
        }
    } else {
        StoreInteger(pstState, eLen, ullValue);
    }
    pstState->iAssigned++;
    return SCAN_OK;
}

// %s, %c and %[: the characters go to a buffer whose capacity follows its pointer. A field that
// does not fit (with its terminator, except for %c) is refused and the buffer's first byte cleared.
static E_SCAN_RESULT ScanChars(tagST_SCAN_STATE *pstState, const tagST_SCAN_SPEC *pstSpec)
{
    const char cConv = pstSpec->cConv;
    if (cConv == 's') {
        SkipSpace(pstState);
    }
    const char *pcField = pstState->pcIn + pstState->uPos;
    if (*pcField == '\0') {
        return SCAN_INPUT_FAILURE;
    }
    size_t uLen = 0;
    if (cConv == 'c') {
        const size_t uWant = (pstSpec->uWidth == 0) ? 1 : pstSpec->uWidth;
        uLen = strnlen(pcField, uWant);
        if (uLen < uWant) {
            return SCAN_INPUT_FAILURE;
        }
    } else {
        const size_t uMax = (pstSpec->uWidth == 0) ? SIZE_MAX : pstSpec->uWidth;
        while (uLen < uMax && pcField[uLen] != '\0' &&
               ((cConv == 's') ? !IsSpace(pcField[uLen]) : pstSpec->abSet[(unsigned char)pcField[uLen]])) {
            uLen++;
        }
        if (uLen == 0) {
            return SCAN_MISMATCH;
        }
    }
    if (!pstSpec->bSuppress) {
        char *pcDest = va_arg(pstState->args, char *);
        const size_t uDestMax = va_arg(pstState->args, size_t);
        const size_t uNeed = (cConv == 'c') ? uLen : uLen + 1;
        if (pcDest == NULL || uDestMax == 0 || uDestMax > LDC_SECURE_STRING_MAX_LEN) {
            return SCAN_MISMATCH;
        }
        if (uNeed > uDestMax) {
            pcDest[0] = '\0';
            return SCAN_MISMATCH;
        }
        (void)memcpy_s(pcDest, uDestMax, pcField, uLen);
        if (cConv != 'c') {
            pcDest[uLen] = '\0';
        }
        pstState->iAssigned++;
    }
    pstState->uPos += uLen;
    return SCAN_OK;
}

static E_SCAN_RESULT ScanDirective(tagST_SCAN_STATE *pstState, const tagST_SCAN_SPEC *pstSpec)
{
    switch (pstSpec->cConv) {
    case '%':
        SkipSpace(pstState);
        if (pstState->pcIn[pstState->uPos] == '\0') {
            return SCAN_INPUT_FAILURE;
        }
        if (pstState->pcIn[pstState->uPos] != '%') {
            return SCAN_MISMATCH;
        }
        pstState->uPos++;
        return SCAN_OK;
    case 'n':
        if (!pstSpec->bSuppress) {
            StoreInteger(pstState, pstSpec->eLen, (unsigned long long)pstState->uPos);
        }
        return SCAN_OK;
    case 's':
    case 'c':
    case '[':
        return ScanChars(pstState, pstSpec);
    case 'd':
    case 'i':
    case 'u':
    case 'o':
    case 'x':
    case 'X':
    case 'p':
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A':
        return ScanNumber(pstState, pstSpec);
    default:
        return SCAN_MISMATCH;
    }
}

int vsscanf_s(const char *pcBuffer, const char *pcFormat, va_list args)
{
    if (pcBuffer == NULL || pcFormat == NULL) {
        return -1;
    }
    tagST_SCAN_STATE stState;
    stState.pcIn = pcBuffer;
    stState.uPos = 0;
    stState.iAssigned = 0;
    stState.bConverted = false;
    va_copy(stState.args, args);

    E_SCAN_RESULT eResult = SCAN_OK;
    const char *pcFmt = pcFormat;
    while (*pcFmt != '\0' && eResult == SCAN_OK) {
        if (IsSpace(*pcFmt)) {
            SkipSpace(&stState);
            pcFmt++;
        } else if (*pcFmt != '%') {
            const char cIn = pcBuffer[stState.uPos];
            eResult = (cIn == '\0') ? SCAN_INPUT_FAILURE : (cIn == *pcFmt) ? SCAN_OK : SCAN_MISMATCH;
            if (eResult == SCAN_OK) {
                stState.uPos++;
                pcFmt++;
            }
        } else {
            tagST_SCAN_SPEC stSpec;
            pcFmt = ParseSpec(pcFmt + 1, &stSpec);
            if (pcFmt == NULL) {
                eResult = SCAN_MISMATCH;
                break;
            }
            eResult = ScanDirective(&stState, &stSpec);
            if (eResult == SCAN_OK && stSpec.cConv != 'n' && stSpec.cConv != '%') {
                stState.bConverted = true;
            }
        }
    }
    va_end(stState.args);
    // Running out of input before any conversion completed reads as end of file. A suppressed
    // conversion counts as completed, as in Android's C library (glibc would answer -1 there).
    return (eResult == SCAN_INPUT_FAILURE && !stState.bConverted) ? -1 : stState.iAssigned;
}

int sscanf_s(const char *pcBuffer, const char *pcFormat, ...)
{
    va_list args;
    va_start(args, pcFormat);
    const int iRet = vsscanf_s(pcBuffer, pcFormat, args);
    va_end(args);
    return iRet;
}
