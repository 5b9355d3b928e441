// The warp's behaviour that the frame driver relies on (identity, half-pixel translation, edge
// samples out of the frame, the same bytes on every target; the face path end to end is the frame
// driver's, tests/interface) and the rules of the scalar companions. Vector against plain over the sweep: the resampling core's
// harness (tests/resample).
#include <gtest/gtest.h>

#include "support/harness.h"
#include "vkt_zb_ldc.h"
#include "warp/affine_transform.h"
#include "warp/affine_transform_cases.h"

namespace {

// Everything one warp call needs.
struct AffineRun {
    const AffineCase &c;
    AffineFrame src;
    AffineFrame dst;
    std::vector<uint8_t> scratch;
    tagST_LDC_PARA para{};

    explicit AffineRun(const AffineCase &stCase)
        : c(stCase), src(c.iWidth, c.iHeight, c.iPicType), dst(c.iWidth, c.iHeight, c.iPicType),
          scratch(RESAMPLE_QUAD_BYTES * ((c.iWidth + 7) / 8) + 3)
    {
        src.Fill(0xA5u + (uint32_t)c.iWidth);
        dst.Fill(0x3Cu);
        para.ePicType = c.iPicType;
    }
    bool Planar() const { return c.iPicType == LDC_PIC_YUV420; }
    void Driver()
    {
        tagST_REGISTRATION_AREA stArea = c.stArea;
        AffineTransform_neon(&para, &src.pic, &src.pic, &dst.pic, const_cast<float *>(c.afMatrix), &stArea,
                             scratch.data() + 3);   // the table at an odd address, as the working buffer may give
    }
    // The single-threaded scalar companion.
    void Scalar()
    {
        tagST_REGISTRATION_AREA stArea = c.stArea;
        AffineTransform(&src.pic, &src.pic, &dst.pic, const_cast<float *>(c.afMatrix), &stArea, NULL, c.iPicType);
    }
};

std::string Locate(const AffineCase &c, size_t i)
{
    int32_t x, y;
    const char *pcPlane = AffineBytePosition(c.iWidth, c.iHeight, c.iPicType, i, &x, &y);
    return std::string(pcPlane) + " byte " + std::to_string(i) + " (x " + std::to_string(x) + ", y " +
           std::to_string(y) + ")";
}

bool InsideArea(const AffineCase &c, size_t i)
{
    const tagST_REGISTRATION_AREA &a = c.stArea;
    int32_t x, y;
    AffineBytePosition(c.iWidth, c.iHeight, c.iPicType, i, &x, &y);
    return x >= a.iStartX && x < a.iStartX + a.iWidth && y >= a.iStartY && y < a.iStartY + a.iHeight;
}

const AffineCase &FindCase(const char *pcName, int32_t iType)
{
    static const std::vector<AffineCase> cases = AffineCaseList();
    for (const AffineCase &c : cases) {
        if (c.name == pcName && c.iPicType == iType) {
            return c;
        }
    }
    throw std::runtime_error(pcName);
}

uint8_t SrcLuma(const AffineRun &r, int32_t x, int32_t y)
{
    return r.src.pic.pY[y * r.c.iWidth + x];
}

// Identity reproduces the source inside the area, through the driver and the scalar companion;
// a translation by half a pixel gives top = (64 a + 64 b + 32) >> 6, out = (128 top + 128) >> 8,
// and leaves chroma in place.
TEST(AffineTransform, IdentityAndHalfPixelTranslation)
{
    for (int32_t iType = 0; iType <= 2; iType++) {
        AffineRun id(FindCase("identity", iType)), scalar(id.c), half(FindCase("half-pixel", iType));
        id.Driver();
        scalar.Scalar();
        half.Driver();
        const tagST_REGISTRATION_AREA &a = id.c.stArea;
        for (int32_t y = a.iStartY; y < a.iStartY + a.iHeight; y++) {
            for (int32_t x = a.iStartX; x < a.iStartX + a.iWidth; x++) {
                // Columns right of the last whole group of 8 come from the nearest-sample tail.
                const bool bTail = x >= a.iStartX + (a.iWidth & ~7);
                const int32_t iTop = (64 * SrcLuma(half, x, y) + 64 * SrcLuma(half, x + 1, y) + 32) >> 6;
                ASSERT_EQ(bTail ? SrcLuma(half, x, y) : (iTop * 128 + 128) >> 8, half.dst.pic.pY[y * half.c.iWidth + x])
                    << "type " << iType << " x " << x << " y " << y;
            }
        }
        for (size_t i = 0; i < id.dst.FrameBytes(); i++) {
            if (InsideArea(id.c, i)) {
                ASSERT_EQ(id.src.bytes[i], id.dst.bytes[i]) << Locate(id.c, i) << " type " << iType;
                // The planar companion holds positions below the area's size (PlanarLimitsUseTheAreaSize).
                int32_t x, y;
                AffineBytePosition(id.c.iWidth, id.c.iHeight, iType, i, &x, &y);
                ASSERT_TRUE(id.src.bytes[i] == scalar.dst.bytes[i] || (scalar.Planar() && (x >= a.iWidth || y >= a.iHeight)))
                    << "scalar, " << Locate(id.c, i) << " type " << iType;
                ASSERT_TRUE(i < (size_t)id.c.iWidth * id.c.iHeight || half.src.bytes[i] == half.dst.bytes[i])
                    << Locate(half.c, i) << " type " << iType;
            }
        }
    }
}

// Source positions are clamped per block and axis: below 0 (and NaN) to 0, at or past the last
// column (row) to the one before it. Far outside the frame every 2 x 2 block therefore repeats
// the first or last two columns (rows) of the source, and its chroma the nearest edge sample, in
// the vector groups and the tail alike. The scalar companions never read outside the exact-size
// frames, and far right the semi-planar one repeats the last two columns too.
TEST(AffineTransform, OutOfFramePositionsRepeatTheEdgeSamples)
{
    for (int32_t iType = 0; iType <= 2; iType++) {
        for (const AffineCase &c : AffineOutOfFrameCases(iType)) {
            AffineRun r(c);
            r.Scalar();
            for (int32_t i = 0; c.name == "out-of-frame/far-right" && !r.Planar() && i < c.iWidth * c.iHeight; i++) {
                ASSERT_EQ(r.src.pic.pY[i - i % c.iWidth + c.iWidth - 2 + i % 2], r.dst.pic.pY[i]) << i << " type " << iType;
            }
        }
    }
    struct Expect {
        const char *name;
        int (*sx)(int x, int w);   // source column of the block at output column x (even)
        int (*sy)(int y, int h);
    };
    const Expect expects[] = {
        {"far-right", [](int, int w) { return w - 2; }, [](int y, int) { return y; }},
        {"far-left-up", [](int, int) { return 0; }, [](int, int) { return 0; }},
        {"far-down", [](int x, int) { return x; }, [](int, int h) { return h - 2; }},
        {"nan", [](int, int) { return 0; }, [](int, int) { return 0; }},
    };
    for (int32_t iType = 0; iType <= 2; iType++) {
        for (const Expect &e : expects) {
            for (const char *pcArea : {"", "/tail"}) {
                AffineRun r(FindCase((std::string("out-of-frame/") + e.name + pcArea).c_str(), iType));
                r.Driver();
                const int32_t w = r.c.iWidth, h = r.c.iHeight;
                const tagST_REGISTRATION_AREA &a = r.c.stArea;
                for (int32_t y = a.iStartY; y < a.iStartY + a.iHeight; y += 2) {
                    for (int32_t x = a.iStartX; x < a.iStartX + a.iWidth; x += 2) {
                        const int32_t sx = e.sx(x, w), sy = e.sy(y, h);
                        for (int32_t i = 0; i < 4; i++) {
                            ASSERT_EQ(SrcLuma(r, sx + i % 2, sy + i / 2), r.dst.pic.pY[(y + i / 2) * w + x + i % 2])
                                << "luma (" << x + i % 2 << ", " << y + i / 2 << ") " << AffineDescribe(r.c);
                        }
                        if (r.Planar()) {
                            const int32_t d = (y / 2) * (w / 2) + x / 2, s = (sy / 2) * (w / 2) + sx / 2;
                            ASSERT_EQ(r.src.pic.pU[s], r.dst.pic.pU[d]) << "U (" << x << ", " << y << ") " << AffineDescribe(r.c);
                            ASSERT_EQ(r.src.pic.pV[s], r.dst.pic.pV[d]) << "V (" << x << ", " << y << ") " << AffineDescribe(r.c);
                        } else {
                            for (int32_t i = 0; i < 2; i++) {
                                ASSERT_EQ(r.src.pic.pU[(sy / 2) * w + sx + i], r.dst.pic.pU[(y / 2) * w + x + i])
                                    << "chroma byte (" << x + i << ", " << y / 2 << ") " << AffineDescribe(r.c);
                            }
                        }
                    }
                }
            }
        }
    }
}

// A digest of one output frame. The plain twin defines the bytes identically on every target, so
// host (through SIMDe), armhf and arm64 must all arrive at this value.
TEST(AffineTransform, SameBytesOnEveryTarget)
{
    const AffineCase &c = FindCase("inner-tail-6/wide-jitter", LDC_PIC_NV21);
    AffineRun r(c);
    r.Driver();
    EXPECT_EQ(0x2a6585d4f60243dcull, ldc_test::Fnv1a(r.dst.bytes.data(), r.dst.FrameBytes())) << AffineDescribe(c);
}

// The scalar companions: a horizontal luma ramp (value 2x) makes the source column visible.
struct RampRun {
    AffineFrame src;
    AffineFrame dst;
    explicit RampRun(int32_t iType) : src(128, 16, iType), dst(128, 16, iType)
    {
        src.Fill(7);
        for (int32_t y = 0; y < 16; y++) {
            for (int32_t x = 0; x < 128; x++) {
                src.pic.pY[y * 128 + x] = (uint8_t)(2 * x);
            }
        }
    }
    uint8_t Out(int32_t x, int32_t y) const { return dst.pic.pY[y * 128 + x]; }
};

// den = 1 + x / 100: the semi-planar companion holds the reciprocal of each group's first block
// for the whole group, the planar one divides for every block.
TEST(AffineTransformScalar, ReciprocalPerGroupOrPerBlock)
{
    float afM[9] = {1, 0, 0, 0, 1, 0, 0.01f, 0, 1};
    tagST_REGISTRATION_AREA stArea = {0, 0, 64, 4};
    RampRun semi(LDC_PIC_NV21), planar(LDC_PIC_YUV420);
    AffineTransform_NV12(&semi.src.pic, &semi.src.pic, &semi.dst.pic, afM, &stArea, NULL);
    AffineTransform_YUV420(&planar.src.pic, &planar.src.pic, &planar.dst.pic, afM, &stArea, NULL);
    // Block x = 14 of the group at 8: 14 / 1.08 = 12.96 against 14 / 1.14 = 12.28 (ramp value 2x).
    EXPECT_NEAR(2 * 14 / 1.08, semi.Out(14, 0), 1.0);
    EXPECT_NEAR(2 * 14 / 1.14, planar.Out(14, 0), 1.0);
    EXPECT_EQ(semi.Out(8, 0), planar.Out(8, 0));   // the group's first block agrees
}

// The planar companion limits ix to [x0, area width - 1], the width standing in for the far edge.
TEST(AffineTransformScalar, PlanarLimitsUseTheAreaSize)
{
    float afShift[9] = {1, 0, 100, 0, 1, 0, 0, 0, 1};
    tagST_REGISTRATION_AREA stArea = {0, 0, 32, 8};
    RampRun r(LDC_PIC_YUV420);
    AffineTransform(&r.src.pic, &r.src.pic, &r.dst.pic, afShift, &stArea, NULL, LDC_PIC_YUV420);
    for (int32_t x = 0; x < 32; x += 2) {
        ASSERT_EQ(2 * 31, r.Out(x, 0)) << x;
        ASSERT_EQ(2 * 32, r.Out(x + 1, 0)) << x;
    }
}

}  // namespace
