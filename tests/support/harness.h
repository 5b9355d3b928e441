// The kit of the kernel harnesses: fixed-seed inputs, guarded outputs, a first-difference report
// and the plain-versus-NEON loop. Header only, so that a benchmark can share a harness's inputs.
//
//   RandomBytes(n, seed[, mask])      bytes from a fixed seed, the same on every target
//   ImageLayout / FrameLayout / ...   what the bytes of an output are: planes, sizes, pitches
//   PlaneAt(layout, i, &x, &y)        the plane of byte i and the sample's position in it
//   FirstDifference(layout, a, b)     "" or "plane UV at (x=3, y=1): expected 17, got 18"
//   GuardedBytes out(n, fill[, mis])  an output with canary bytes on both sides, GuardReport()
//   CompareTwins(layout, run)         runs run(false, out) and run(true, out) on guarded outputs
//                                     prefilled alike and reports the first difference
//
// A family's sweep then reads (the streamed text gives the case's parameters on failure):
//
//   for (const Case &c : Cases()) {
//       const std::vector<uint8_t> vucSrc = ldc_test::RandomBytes(Bytes(c), c.uSeed);
//       ASSERT_EQ("", ldc_test::CompareTwins(ldc_test::FrameLayout(c.iW, c.iH, c.ePicType),
//                                            [&](bool bNeon, uint8_t *pucDst) {
//                                                (bNeon ? Kernel_neon : Kernel)(vucSrc.data(), pucDst, ...);
//                                            }))
//           << Describe(c);
//   }
//
// A kernel checked against an independent route (a direct formula written another way, OpenCV)
// uses FirstDifference on the same layouts, and GuardedBytes where it must also stay in bounds.
#ifndef LDC_TESTS_SUPPORT_HARNESS_H
#define LDC_TESTS_SUPPORT_HARNESS_H

#include <stdint.h>
#include <stdio.h>
#include <string.h>

#include <functional>
#include <random>
#include <string>
#include <vector>

namespace ldc_test {

// 64-bit FNV-1a: a golden digest of bytes that every target defines identically.
inline uint64_t Fnv1a(const void *pData, size_t uBytes, uint64_t uHash = 1469598103934665603ull)
{
    const uint8_t *puc = static_cast<const uint8_t *>(pData);
    for (size_t i = 0; i < uBytes; i++) {
        uHash = (uHash ^ puc[i]) * 1099511628211ull;
    }
    return uHash;
}

// mt19937's raw output is fixed by the standard (its distributions are not).
inline std::vector<uint8_t> RandomBytes(size_t uBytes, uint32_t uSeed, uint8_t ucMask = 0xFF)
{
    std::mt19937 rng(uSeed);
    std::vector<uint8_t> vuc(uBytes);
    for (uint8_t &uc : vuc) {
        uc = (uint8_t)(rng() >> 24) & ucMask;
    }
    return vuc;
}

// One plane of a buffer: iWidth samples of iSampleBytes (1 for pixels, 4 for int32 counters) per
// row, rows iPitch bytes apart, the first at uOffset.
struct tagST_TEST_PLANE {
    const char *pcName;
    size_t uOffset;
    int32_t iWidth;
    int32_t iHeight;
    int32_t iPitch;
    int32_t iSampleBytes;
};

struct tagST_TEST_LAYOUT {
    size_t uBytes;   // every byte of the buffer is compared, inside the planes or not
    std::vector<tagST_TEST_PLANE> vstPlanes;
};

inline tagST_TEST_LAYOUT ImageLayout(int32_t iWidth, int32_t iHeight)
{
    return {(size_t)iWidth * iHeight, {{"image", 0, iWidth, iHeight, iWidth, 1}}};
}

// A YUV 4:2:0 frame held as one block: luma, then the interleaved chroma (types 0 and 1, as byte
// columns) or the U and V planes (type 2).
inline tagST_TEST_LAYOUT FrameLayout(int32_t iWidth, int32_t iHeight, int32_t ePicType)
{
    const size_t uLuma = (size_t)iWidth * iHeight;
    tagST_TEST_LAYOUT stLayout = {uLuma * 3 / 2, {{"Y", 0, iWidth, iHeight, iWidth, 1}}};
    if (ePicType == 2) {
        stLayout.vstPlanes.push_back({"U", uLuma, iWidth / 2, iHeight / 2, iWidth / 2, 1});
        stLayout.vstPlanes.push_back({"V", uLuma + uLuma / 4, iWidth / 2, iHeight / 2, iWidth / 2, 1});
    } else {
        stLayout.vstPlanes.push_back({ePicType == 0 ? "VU" : "UV", uLuma, iWidth, iHeight / 2, iWidth, 1});
    }
    return stLayout;
}

// The plane holding byte i of a buffer and the sample's (x, y) in it; NULL outside the planes.
inline const tagST_TEST_PLANE *PlaneAt(const tagST_TEST_LAYOUT &stLayout, size_t i, int32_t *piX, int32_t *piY)
{
    *piX = *piY = -1;
    for (const tagST_TEST_PLANE &p : stLayout.vstPlanes) {
        const size_t uRel = i - p.uOffset;
        if (i >= p.uOffset && uRel < (size_t)p.iPitch * p.iHeight &&
            (int32_t)(uRel % p.iPitch) < p.iWidth * p.iSampleBytes) {
            *piX = (int32_t)(uRel % p.iPitch) / p.iSampleBytes;
            *piY = (int32_t)(uRel / p.iPitch);
            return &p;
        }
    }
    return NULL;
}

inline std::string FirstDifference(const tagST_TEST_LAYOUT &stLayout, const uint8_t *pucExpected,
                                   const uint8_t *pucGot)
{
    size_t i = 0;
    while (i < stLayout.uBytes && pucExpected[i] == pucGot[i]) {
        i++;
    }
    if (i == stLayout.uBytes) {
        return "";
    }
    char acText[160];
    int32_t x, y;
    const tagST_TEST_PLANE *p = PlaneAt(stLayout, i, &x, &y);
    if (p == NULL) {
        snprintf(acText, sizeof(acText), "byte %zu outside the planes: expected %d, got %d", i, pucExpected[i],
                 pucGot[i]);
        return acText;
    }
    const size_t uSample = p->uOffset + (size_t)y * p->iPitch + (size_t)x * p->iSampleBytes;
    int32_t iExpected = pucExpected[uSample];
    int32_t iGot = pucGot[uSample];
    if (p->iSampleBytes == 4) {
        memcpy(&iExpected, pucExpected + uSample, 4);
        memcpy(&iGot, pucGot + uSample, 4);
    }
    snprintf(acText, sizeof(acText), "plane %s at (x=%d, y=%d): expected %d, got %d", p->pcName, x, y, iExpected, iGot);
    return acText;
}

// uBytes prefilled with ucFill between two runs of kGuardBytes canaries; the payload starts
// uMisalign bytes after a 16-byte boundary (kernels that take any address are run misaligned).
class GuardedBytes {
public:
    static constexpr size_t kGuardBytes = 32;
    static constexpr uint8_t kCanary = 0xC3;

    GuardedBytes(size_t uBytes, uint8_t ucFill, size_t uMisalign = 0)
        : m_vucStorage(uBytes + 2 * kGuardBytes + 16 + uMisalign, kCanary), m_uBytes(uBytes)
    {
        const uintptr_t uBase = (uintptr_t)m_vucStorage.data() + kGuardBytes;
        m_pucData = (uint8_t *)((uBase + 15) & ~(uintptr_t)15) + uMisalign;
        memset(m_pucData, ucFill, uBytes);
    }
    GuardedBytes(const GuardedBytes &) = delete;
    GuardedBytes &operator=(const GuardedBytes &) = delete;

    uint8_t *Data() { return m_pucData; }
    const uint8_t *Data() const { return m_pucData; }
    size_t Size() const { return m_uBytes; }

    // "" while every canary holds, else the first one overwritten.
    std::string GuardReport() const
    {
        for (size_t i = 1; i <= kGuardBytes; i++) {
            if (m_pucData[-(ptrdiff_t)i] != kCanary) {
                return "guard byte " + std::to_string(i) + " before the buffer overwritten";
            }
            if (m_pucData[m_uBytes + i - 1] != kCanary) {
                return "guard byte " + std::to_string(i - 1) + " past the buffer overwritten";
            }
        }
        return "";
    }

private:
    std::vector<uint8_t> m_vucStorage;
    size_t m_uBytes;
    uint8_t *m_pucData;
};

// fnRun(bNeon, pucOut) runs one twin into pucOut (stLayout.uBytes prefilled with ucFill, so that
// bytes a twin must leave alone are compared too; a run may lay its own pattern there first). "" when both kept their guards and wrote the
// same bytes; else what broke, the first difference reported with the plain twin as expected.
inline std::string CompareTwins(const tagST_TEST_LAYOUT &stLayout,
                                const std::function<void(bool bNeon, uint8_t *pucOut)> &fnRun,
                                uint8_t ucFill = 0x5A, size_t uMisalign = 0)
{
    GuardedBytes stPlain(stLayout.uBytes, ucFill, uMisalign);
    GuardedBytes stNeon(stLayout.uBytes, ucFill, uMisalign);
    fnRun(false, stPlain.Data());
    fnRun(true, stNeon.Data());
    for (const GuardedBytes *pst : {&stPlain, &stNeon}) {
        if (!pst->GuardReport().empty()) {
            return (pst == &stPlain ? "plain: " : "neon: ") + pst->GuardReport();
        }
    }
    return FirstDifference(stLayout, stPlain.Data(), stNeon.Data());
}

}  // namespace ldc_test

#endif
