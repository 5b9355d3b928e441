#include "boundscheck/bounds_check.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "support/harness.h"

namespace {

// Destinations of kCap bytes between guard bytes: a write past the capacity shows up there.
constexpr size_t kCap = 16;
const char kSrc[] = "0123456789abcdefghijklmnopqrstuvwxyz";

size_t CountOf(const ldc_test::GuardedBytes &b, uint8_t uc)
{
    return (size_t)std::count(b.Data(), b.Data() + b.Size(), uc);
}

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
    const std::pair<int, std::function<int(void *, size_t)>> astCalls[] = {
        {LDC_EINVAL, [](void *p, size_t u) { return memcpy_s(p, u, kSrc, 4); }},
        {LDC_EINVAL, [](void *p, size_t u) { return memmove_s(p, u, kSrc, 4); }},
        {LDC_EINVAL, [](void *p, size_t u) { return memset_s(p, u, 0, 4); }},
        {LDC_EINVAL, [](void *p, size_t u) { return strcpy_s((char *)p, u, "a"); }},
        {LDC_EINVAL, [](void *p, size_t u) { return strncpy_s((char *)p, u, "a", 1); }},
        {-1, [](void *p, size_t u) { return sprintf_s((char *)p, u, "x"); }},
    };
    ldc_test::GuardedBytes b(kCap, 0xA5);
    for (const auto &c : astCalls) {
        EXPECT_EQ(c.first, c.second(b.Data(), 0));
        EXPECT_EQ(c.first, c.second(b.Data(), LDC_SECURE_MEM_MAX_LEN + 1));
        EXPECT_EQ(c.first, c.second(NULL, kCap));
    }
    EXPECT_EQ(kCap, CountOf(b, 0xA5));
    EXPECT_EQ("", b.GuardReport());
}

TEST(BoundsCheck, MemoryCopiesRefuseAndClearOnOverflowNullSourceAndOverlap)
{
    ldc_test::GuardedBytes b(kCap, 0xA5);
    uint8_t *p = b.Data();
    EXPECT_EQ(EOK, memcpy_s(p, kCap, kSrc, kCap));
    EXPECT_EQ(0, memcmp(p, kSrc, kCap));
    // Each refusal clears its destination, which starts uOff bytes into the buffer.
    const struct {
        int iRet;
        size_t uOff;
        std::function<int(uint8_t *)> fn;
    } astRefused[] = {
        {LDC_ERANGE_AND_RESET, 0, [](uint8_t *d) { return memcpy_s(d, kCap, kSrc, kCap + 1); }},
        {LDC_EINVAL_AND_RESET, 0, [](uint8_t *d) { return memcpy_s(d, kCap, NULL, 4); }},
        {LDC_EOVERLAP_AND_RESET, 0, [](uint8_t *d) { return memcpy_s(d, kCap, d + 2, 8); }},
        {LDC_EOVERLAP_AND_RESET, 2, [](uint8_t *d) { return memcpy_s(d, kCap - 2, d - 2, 8); }},
        {LDC_ERANGE_AND_RESET, 0, [](uint8_t *d) { return memmove_s(d, kCap, kSrc, kCap + 1); }},
        {LDC_EINVAL_AND_RESET, 0, [](uint8_t *d) { return memmove_s(d, kCap, NULL, 1); }},
    };
    for (const auto &c : astRefused) {
        memcpy(p, kSrc, kCap);
        EXPECT_EQ(c.iRet, c.fn(p + c.uOff));
        EXPECT_EQ(std::string(kSrc, c.uOff) + std::string(kCap - c.uOff, '\0'), std::string((char *)p, kCap))
            << &c - astRefused;
    }
    memcpy(p, kSrc, kCap);
    EXPECT_EQ(EOK, memcpy_s(p, 8, p + 8, 8));   // adjacent ranges do not overlap
    EXPECT_EQ(0, memcmp(p, kSrc + 8, 8));
    memcpy(p, kSrc, kCap);
    EXPECT_EQ(EOK, memmove_s(p + 2, kCap - 2, p, 10));
    EXPECT_EQ(0, memcmp(p + 2, kSrc, 10));
    EXPECT_EQ(LDC_ERANGE_AND_RESET, memset_s(p, kCap, 7, kCap + 100));   // fills only what fits
    EXPECT_EQ(kCap, CountOf(b, 7));
    EXPECT_EQ("", b.GuardReport());
}

TEST(BoundsCheck, StringCopiesNeedRoomForTheTerminator)
{
    ldc_test::GuardedBytes b(kCap, 0xA5);
    char *pc = reinterpret_cast<char *>(b.Data());
    EXPECT_EQ(EOK, strcpy_s(pc, kCap, "0123456789abcde"));   // 15 characters + NUL
    EXPECT_STREQ("0123456789abcde", pc);
    // strncpy_s truncates the source to the count, never to the capacity.
    EXPECT_EQ(EOK, strncpy_s(pc, kCap, kSrc, 5));
    EXPECT_STREQ("01234", pc);
    EXPECT_EQ(EOK, strncpy_s(pc, kCap, "abc", 100));
    EXPECT_STREQ("abc", pc);
    EXPECT_EQ(15, sprintf_s(pc, kCap, "%s_%05d", "abcdefghi", 42));
    EXPECT_STREQ("abcdefghi_00042", pc);
    // Each refusal leaves an empty string in its destination; a truncated text is refused too.
    char acOverlap[kCap];
    const struct {
        int iRet;
        char *pcDest;
        std::function<int()> fn;
    } astRefused[] = {
        {LDC_ERANGE_AND_RESET, pc, [&] { return strcpy_s(pc, kCap, "0123456789abcdef"); }},
        {LDC_EINVAL_AND_RESET, pc, [&] { return strcpy_s(pc, kCap, NULL); }},
        {LDC_ERANGE_AND_RESET, pc, [&] { return strncpy_s(pc, kCap, kSrc, kCap); }},
        {LDC_ERANGE_AND_RESET, pc, [&] { return strncpy_s(pc, kCap, "a", LDC_SECURE_STRING_MAX_LEN + 1); }},
        {LDC_EINVAL_AND_RESET, pc, [&] { return strncpy_s(pc, kCap, NULL, 1); }},
        {-1, pc, [&] { return sprintf_s(pc, kCap, "%s_%06d", "abcdefghi", 42); }},
        {-1, pc, [&] { return CallVsprintf(pc, kCap, NULL); }},
        {LDC_EOVERLAP_AND_RESET, acOverlap + 2, [&] { return strcpy_s(acOverlap + 2, kCap - 2, acOverlap); }},
        {LDC_EOVERLAP_AND_RESET, acOverlap, [&] { return strcpy_s(acOverlap, kCap, acOverlap + 2); }},
    };
    for (const auto &c : astRefused) {
        strcpy(pc, "x");
        strcpy(acOverlap, "abcdef");
        EXPECT_EQ(c.iRet, c.fn()) << &c - astRefused;
        EXPECT_EQ('\0', c.pcDest[0]) << &c - astRefused;
    }
    EXPECT_EQ("", b.GuardReport());
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

    ldc_test::GuardedBytes b(kCap, 0xA5);
    char *pc = reinterpret_cast<char *>(b.Data());
    EXPECT_EQ(1, sscanf_s("0123456789abcde", "%s", pc, kCap));   // fits with its terminator
    EXPECT_STREQ("0123456789abcde", pc);
    EXPECT_EQ(1, sscanf_s("7 0123456789abcdef 9", "%d %s %d", &iA, pc, kCap, &iA));
    EXPECT_EQ('\0', pc[0]);
    EXPECT_EQ(7, iA);
    EXPECT_EQ("", b.GuardReport());
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
    int iA = 5, iB = 5, iN = 0;
    EXPECT_EQ(-1, sscanf_s(NULL, "%d", &iA));
    EXPECT_EQ(-1, sscanf_s("1", NULL));
    EXPECT_EQ(-1, sscanf_s("   ", " %d", &iA));
    EXPECT_EQ(0, sscanf_s("x1", "%d", &iA));
    EXPECT_EQ(5, iA);
    EXPECT_EQ(1, sscanf_s("3", "%d %d", &iA, &iB));   // the input ends after a conversion
    EXPECT_EQ(0, sscanf_s("3", "%*d %d", &iA));       // a suppressed one counts as a conversion
    float fA = 0;
    EXPECT_EQ(2, sscanf_s("2e,0xg", "%f%*[e,]%i%n", &fA, &iB, &iN));   // dangling prefixes stay
    EXPECT_EQ((std::vector<float>{2.0f, 0, 4}), (std::vector<float>{fA, (float)iB, (float)iN}));
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
            long long allA[3] = {0, 0, 0}, allB[3] = {0, 0, 0};
            EXPECT_EQ(sscanf(pcIn, pcFmt, &allB[0], &allB[1], &allB[2]),
                      sscanf_s(pcIn, pcFmt, &allA[0], &allA[1], &allA[2]))
                << pcIn << " / " << pcFmt;
            EXPECT_EQ(0, memcmp(allA, allB, sizeof(allA))) << pcIn << " / " << pcFmt;
        }
        for (const char *pcFmt : apcFloatFormats) {
            float afA[3] = {0, 0, 0}, afB[3] = {0, 0, 0};
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
    EXPECT_EQ((std::vector<double>{0777, -9, -1.25, 2.5}), (std::vector<double>{(double)uZ, (double)iT, dV, (double)ldV}));
    EXPECT_EQ(reinterpret_cast<void *>(0x10), pV);
}

}  // namespace
