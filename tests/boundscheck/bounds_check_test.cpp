#include "boundscheck/bounds_check.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

// A destination of kCap bytes followed by guard bytes: a write past the capacity shows up there.
constexpr size_t kCap = 16;
constexpr unsigned char kGuard = 0xA5;
const char kSrc[] = "0123456789abcdefghijklmnopqrstuvwxyz";

struct GuardedBuffer {
    unsigned char auc[kCap + 16];
    GuardedBuffer() { memset(auc, kGuard, sizeof(auc)); }
    char *c() { return reinterpret_cast<char *>(auc); }
    bool GuardIntact() const { return CountOf(kGuard, kCap, sizeof(auc)) == sizeof(auc) - kCap; }
    bool Cleared() const { return CountOf(0, 0, kCap) == kCap; }
    size_t CountOf(unsigned char uc, size_t uFrom, size_t uTo) const
    {
        return (size_t)std::count(auc + uFrom, auc + uTo, uc);
    }
};

int CallVsprintf(char *pcDest, size_t uDestMax, const char *pcFormat, ...)
{
    va_list args;
    va_start(args, pcFormat);
    const int iRet = vsprintf_s(pcDest, uDestMax, pcFormat, args);
    va_end(args);
    return iRet;
}

TEST(BoundsCheck, BadDestinationIsRefusedWithoutWriting)
{
    GuardedBuffer b;
    for (size_t uCap : {(size_t)0, (size_t)LDC_SECURE_MEM_MAX_LEN + 1}) {
        EXPECT_EQ(LDC_EINVAL, memcpy_s(b.auc, uCap, kSrc, 4));
        EXPECT_EQ(LDC_EINVAL, memmove_s(b.auc, uCap, kSrc, 4));
        EXPECT_EQ(LDC_EINVAL, memset_s(b.auc, uCap, 0, 4));
        EXPECT_EQ(LDC_EINVAL, strcpy_s(b.c(), uCap, "a"));
        EXPECT_EQ(LDC_EINVAL, strncpy_s(b.c(), uCap, "a", 1));
        EXPECT_EQ(-1, sprintf_s(b.c(), uCap, "x"));
    }
    EXPECT_EQ(kCap + 16, b.CountOf(kGuard, 0, sizeof(b.auc)));
    EXPECT_EQ(LDC_EINVAL, memcpy_s(NULL, kCap, kSrc, 4));
    EXPECT_EQ(LDC_EINVAL, memmove_s(NULL, kCap, kSrc, 4));
    EXPECT_EQ(LDC_EINVAL, memset_s(NULL, kCap, 0, 4));
    EXPECT_EQ(LDC_EINVAL, strcpy_s(NULL, kCap, "a"));
    EXPECT_EQ(LDC_EINVAL, strncpy_s(NULL, kCap, "a", 1));
    EXPECT_EQ(-1, sprintf_s(NULL, kCap, "x"));
}

TEST(BoundsCheck, MemoryCopiesRefuseAndClearOnOverflowNullSourceAndOverlap)
{
    GuardedBuffer b;
    EXPECT_EQ(EOK, memcpy_s(b.auc, kCap, kSrc, kCap));
    EXPECT_EQ(0, memcmp(b.auc, kSrc, kCap));
    EXPECT_EQ(LDC_ERANGE_AND_RESET, memcpy_s(b.auc, kCap, kSrc, kCap + 1));
    EXPECT_TRUE(b.Cleared());
    memcpy(b.auc, kSrc, kCap);
    EXPECT_EQ(LDC_EINVAL_AND_RESET, memcpy_s(b.auc, kCap, NULL, 4));
    EXPECT_TRUE(b.Cleared());
    EXPECT_EQ(LDC_EOVERLAP_AND_RESET, memcpy_s(b.auc, kCap, b.auc + 2, 8));
    EXPECT_EQ(LDC_EOVERLAP_AND_RESET, memcpy_s(b.auc + 2, kCap - 2, b.auc, 8));
    memcpy(b.auc, kSrc, kCap);
    EXPECT_EQ(EOK, memcpy_s(b.auc, 8, b.auc + 8, 8));   // adjacent ranges do not overlap
    EXPECT_EQ(0, memcmp(b.auc, kSrc + 8, 8));

    memcpy(b.auc, kSrc, kCap);
    EXPECT_EQ(EOK, memmove_s(b.auc + 2, kCap - 2, b.auc, 10));
    EXPECT_EQ(0, memcmp(b.auc + 2, kSrc, 10));
    EXPECT_EQ(LDC_ERANGE_AND_RESET, memmove_s(b.auc, kCap, kSrc, kCap + 1));
    EXPECT_TRUE(b.Cleared());
    EXPECT_EQ(LDC_EINVAL_AND_RESET, memmove_s(b.auc, kCap, NULL, 1));

    EXPECT_EQ(LDC_ERANGE_AND_RESET, memset_s(b.auc, kCap, 7, kCap + 100));   // fills only what fits
    EXPECT_EQ(kCap, b.CountOf(7, 0, kCap));
    EXPECT_TRUE(b.GuardIntact());
}

TEST(BoundsCheck, StringCopiesNeedRoomForTheTerminator)
{
    GuardedBuffer b;
    EXPECT_EQ(EOK, strcpy_s(b.c(), kCap, "0123456789abcde"));   // 15 characters + NUL
    EXPECT_STREQ("0123456789abcde", b.c());
    EXPECT_EQ(LDC_ERANGE_AND_RESET, strcpy_s(b.c(), kCap, "0123456789abcdef"));
    EXPECT_EQ('\0', b.c()[0]);
    EXPECT_EQ(LDC_EINVAL_AND_RESET, strcpy_s(b.c(), kCap, NULL));
    char acOverlap[kCap] = "abcdef";
    EXPECT_EQ(LDC_EOVERLAP_AND_RESET, strcpy_s(acOverlap + 2, kCap - 2, acOverlap));
    strcpy(acOverlap, "abcdef");
    EXPECT_EQ(LDC_EOVERLAP_AND_RESET, strcpy_s(acOverlap, kCap, acOverlap + 2));

    // strncpy_s truncates the source to the count, never to the capacity.
    EXPECT_EQ(EOK, strncpy_s(b.c(), kCap, kSrc, 5));
    EXPECT_STREQ("01234", b.c());
    EXPECT_EQ(EOK, strncpy_s(b.c(), kCap, "abc", 100));
    EXPECT_STREQ("abc", b.c());
    EXPECT_EQ(LDC_ERANGE_AND_RESET, strncpy_s(b.c(), kCap, kSrc, kCap));
    EXPECT_EQ('\0', b.c()[0]);
    EXPECT_EQ(LDC_ERANGE_AND_RESET, strncpy_s(b.c(), kCap, "a", LDC_SECURE_STRING_MAX_LEN + 1));
    EXPECT_EQ(LDC_EINVAL_AND_RESET, strncpy_s(b.c(), kCap, NULL, 1));

    EXPECT_EQ(15, sprintf_s(b.c(), kCap, "%s_%05d", "abcdefghi", 42));
    EXPECT_STREQ("abcdefghi_00042", b.c());
    EXPECT_EQ(-1, sprintf_s(b.c(), kCap, "%s_%06d", "abcdefghi", 42));   // a truncated text is refused
    EXPECT_STREQ("", b.c());
    b.c()[0] = 'x';
    EXPECT_EQ(-1, CallVsprintf(b.c(), kCap, NULL));
    EXPECT_EQ('\0', b.c()[0]);
    EXPECT_TRUE(b.GuardIntact());
}

TEST(BoundsScan, SizedTextFieldsNeverOverflow)
{
    int iA = 0;
    float fB = 0;
    char acName[8];
    EXPECT_EQ(3, sscanf_s("  -42 3.5e1 width", "%d%f %s", &iA, &fB, acName, sizeof(acName)));
    EXPECT_EQ(-42, iA);
    EXPECT_EQ(35.0f, fB);
    EXPECT_STREQ("width", acName);

    GuardedBuffer b;
    EXPECT_EQ(1, sscanf_s("0123456789abcde", "%s", b.c(), kCap));   // fits with its terminator
    EXPECT_STREQ("0123456789abcde", b.c());
    EXPECT_EQ(1, sscanf_s("7 0123456789abcdef 9", "%d %s %d", &iA, b.c(), kCap, &iA));
    EXPECT_EQ('\0', b.c()[0]);
    EXPECT_EQ(7, iA);
    EXPECT_TRUE(b.GuardIntact());
    EXPECT_EQ(0, sscanf_s("abc", "%s", acName, (size_t)0));

    char acTwo[2];
    EXPECT_EQ(0, sscanf_s("abc", "%3c", acTwo, sizeof(acTwo)));
    EXPECT_EQ(1, sscanf_s("abc", "%2c", acTwo, sizeof(acTwo)));   // %c stores no terminator
    EXPECT_EQ(0, memcmp(acTwo, "ab", 2));

    char acRest[16];
    int iN = -1;
    EXPECT_EQ(2, sscanf_s("key_1=a-b]c", "%[a-z_0-9]=%[^]]%n", acName, sizeof(acName), acRest, sizeof(acRest), &iN));
    EXPECT_STREQ("key_1", acName);
    EXPECT_STREQ("a-b", acRest);
    EXPECT_EQ(9, iN);
    EXPECT_EQ(1, sscanf_s("]-x", "%[]-]", acName, sizeof(acName)));
    EXPECT_STREQ("]-", acName);
    EXPECT_EQ(1, sscanf_s("skip 8", "%*s %d", &iA));
    EXPECT_EQ(8, iA);
}

TEST(BoundsScan, FailuresAndEndOfInput)
{
    int iA = 5;
    int iB = 5;
    int iN = 0;
    EXPECT_EQ(-1, sscanf_s(NULL, "%d", &iA));
    EXPECT_EQ(-1, sscanf_s("1", NULL));
    EXPECT_EQ(-1, sscanf_s("   ", " %d", &iA));
    EXPECT_EQ(0, sscanf_s("x1", "%d", &iA));
    EXPECT_EQ(5, iA);
    EXPECT_EQ(1, sscanf_s("3", "%d %d", &iA, &iB));   // the input ends after a conversion
    EXPECT_EQ(0, sscanf_s("3", "%*d %d", &iA));       // a suppressed one counts as a conversion
    float fA = 0;
    EXPECT_EQ(2, sscanf_s("2e,0xg", "%f%*[e,]%i%n", &fA, &iB, &iN));   // dangling prefixes stay
    EXPECT_EQ(2.0f, fA);
    EXPECT_EQ(0, iB);
    EXPECT_EQ(4, iN);
    EXPECT_EQ(0, sscanf_s("a", "b%d", &iA));
    EXPECT_EQ(0, sscanf_s("1", "%q", &iA));
    EXPECT_EQ(0, sscanf_s("abc", "%[abc", &iA));
}

// For numbers the scanner must agree with the C library's own scanf, overflow included. Inputs
// where C libraries differ among themselves ("1e", "0x" without digits) are left out: here a
// number ends where strtod or strtol ends it.
TEST(BoundsScan, AgreesWithSscanfOnNumbers)
{
    const char *apcInputs[] = {"12 -7 +3",   "0x1A 017 9", "  4294967297 1 2",          "-0 x",   "1e3 .5 -inf",
                               "0x1p4 0X1F 2", "-",        "99999999999999999999 1 1", "50% 1 2", "1.5.6"};
    const char *apcIntFormats[] = {"%d %d %d", "%i %i %i", "%x %o %u", "%2d%1d%d", "%d%*d%d", "%hd,%hhu %lld",
                                   "%d%% %d"};
    const char *apcFloatFormats[] = {"%f %f %f", "%3e%g%a", "%*f %f"};
    for (const char *pcIn : apcInputs) {
        for (const char *pcFmt : apcIntFormats) {
            long long allA[3] = {0, 0, 0};
            long long allB[3] = {0, 0, 0};
            EXPECT_EQ(sscanf(pcIn, pcFmt, &allB[0], &allB[1], &allB[2]),
                      sscanf_s(pcIn, pcFmt, &allA[0], &allA[1], &allA[2]))
                << pcIn << " / " << pcFmt;
            EXPECT_EQ(0, memcmp(allA, allB, sizeof(allA))) << pcIn << " / " << pcFmt;
        }
        for (const char *pcFmt : apcFloatFormats) {
            float afA[3] = {0, 0, 0};
            float afB[3] = {0, 0, 0};
            EXPECT_EQ(sscanf(pcIn, pcFmt, &afB[0], &afB[1], &afB[2]), sscanf_s(pcIn, pcFmt, &afA[0], &afA[1], &afA[2]))
                << pcIn << " / " << pcFmt;
            EXPECT_EQ(0, memcmp(afA, afB, sizeof(afA))) << pcIn << " / " << pcFmt;
        }
    }
    // The remaining length modifiers store through their own widths.
    size_t uZ = 0;
    ptrdiff_t iT = 0;
    double dV = 0;
    long double ldV = 0;
    void *pV = NULL;
    EXPECT_EQ(5, sscanf_s("0777 -9 -1.25 2.5 0x10", "%zo %td %lf %Lg %p", &uZ, &iT, &dV, &ldV, &pV));
    EXPECT_EQ(0777u, uZ);
    EXPECT_EQ(-9, iT);
    EXPECT_EQ(-1.25, dV);
    EXPECT_EQ(2.5L, ldV);
    EXPECT_EQ(reinterpret_cast<void *>(0x10), pV);
}

}  // namespace
