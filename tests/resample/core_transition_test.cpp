// While the remap and the warp move onto the resampling core: the stages on the core against the
// stages as they were, byte for byte, on the harness sweeps; the scalar companions against the
// digests of their bytes before the move.
#include <gtest/gtest.h>

#include "geometry/distortion_correct_cases.h"
#include "warp/affine_transform_cases.h"

namespace {

template <typename Fn>
void Quietly(Fn fn)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    fn();
    (void)testing::internal::GetCapturedStdout();
    (void)testing::internal::GetCapturedStderr();
}

TEST(CoreTransition, RemapOnTheCoreGivesTheBytesOfTheRemap)
{
    tagST_DC_FRAMES stFrames;
    int32_t iCases = 0;
    std::vector<tagST_DC_CASE> vstCases = DcSweepCases();
    for (int32_t ePicType = 0; ePicType < 3; ePicType++) {
        vstCases.push_back({640, 480, ePicType, DC_PHONE_LENS, {0, 0, 0, 0}, 3});
        vstCases.push_back({322, 240, ePicType, DC_FOLDED_FACE, {0, 0, 0, 0}, 28});
    }
    for (tagST_DC_CASE stCase : vstCases) {
        bool bReady = false;
        for (int32_t iTry = 0; iTry < 64 && !bReady; iTry++, stCase.uSeed += 1000) {
            bReady = stFrames.Prepare(stCase);
            if (!bReady && stCase.eModel < DC_FACE) {
                break;
            }
        }
        ASSERT_TRUE(bReady);
        const std::string strCase = DcDescribe(stFrames.stCase, *stFrames.pstPara);
        for (int32_t bNeon = 0; bNeon < 2; bNeon++) {
            std::vector<uint8_t> vucOld;
            std::vector<uint8_t> vucNew;
            Quietly([&] {
                stFrames.Run(bNeon != 0, &vucNew);
                stFrames.FillPattern(&vucOld);
                const tagST_PIC stDst = stFrames.Picture(vucOld.data());
                DistortionCorrectBefore(stFrames.stCase.ePicType == 2, stFrames.pstPara.get(),
                                        tagST_DC_FRAMES::Planes(stFrames.stSrc).data(),
                                        tagST_DC_FRAMES::Planes(stDst).data(), bNeon);
            });
            const long iDiff = DcFirstDifference(vucOld, vucNew);
            ASSERT_EQ(iDiff, -1) << (bNeon ? "neon" : "plain") << " first difference at "
                                 << stFrames.Where((size_t)iDiff) << ": was " << (int)vucOld[iDiff] << ", now "
                                 << (int)vucNew[iDiff] << "; " << strCase;
        }
        iCases++;
    }
    EXPECT_GT(iCases, 240);
}

uint32_t Digest(const AffineFrame &f)
{
    uint32_t uHash = 2166136261u;
    for (uint8_t b : f.bytes) {
        uHash = (uHash ^ b) * 16777619u;
    }
    return uHash;
}

TEST(CoreTransition, WarpOnTheCoreGivesTheBytesOfTheWarp)
{
    std::vector<AffineCase> vCases = AffineCaseList();
    for (int32_t iType = 0; iType < 3; iType++) {
        AffineCase c{"face", 320, 240, iType, {0, 0, 320, 240}, {}};
        AffineFaceHomography(0.08, c.afMatrix);
        vCases.push_back(c);
        c.stArea = {2, 6, 310, 230};
        vCases.push_back(c);
    }
    for (const AffineCase &c : vCases) {
        for (int32_t bNeon = 0; bNeon < 2; bNeon++) {
            AffineFrame src(c.iWidth, c.iHeight, c.iPicType), dstOld(c.iWidth, c.iHeight, c.iPicType);
            src.Fill(0xA5u + (uint32_t)c.iWidth);
            dstOld.Fill(0x3Cu);
            AffineFrame dstNew(dstOld);
            std::vector<uint8_t> vucScratch(RESAMPLE_QUAD_BYTES * ((c.iWidth + 7) / 8) + 3);
            tagST_LDC_PARA stPara{};
            stPara.ePicType = c.iPicType;
            tagST_REGISTRATION_AREA stArea = c.stArea;
            float afM[9];
            memcpy(afM, c.afMatrix, sizeof(afM));
            Quietly([&] {
                if (bNeon) {
                    AffineTransformBefore(&stPara, &src.pic, &dstOld.pic, afM, &stArea, vucScratch.data() + 3,
                                          c.iPicType == LDC_PIC_YUV420);
                } else {
                    for (int32_t i = 0; i < 4; i++) {
                        stPara.aiThreadState[i] = 1;
                    }
                    AffineFillColumnTable(vucScratch.data() + 3, c.stArea.iStartX, c.iWidth);
                    const tagST_AFFINE_TASK stTask = {&src.pic, &dstOld.pic, c.stArea.iStartX, c.stArea.iStartY,
                                                      c.stArea.iWidth, c.stArea.iHeight, afM, vucScratch.data() + 3,
                                                      &stPara};
                    if (c.iPicType == LDC_PIC_YUV420) {
                        AffineTransformBand_YUV420(&stTask, 0, 1);
                    } else {
                        AffineTransformBand_NV12(&stTask, 0, 1);
                    }
                }
                if (bNeon) {
                    AffineTransform_neon(&stPara, &src.pic, &src.pic, &dstNew.pic, afM, &stArea, vucScratch.data() + 3);
                } else {
                    AffineTransformBands(&stPara, &src.pic, &dstNew.pic, afM, &stArea, vucScratch.data() + 3,
                                         c.iPicType == LDC_PIC_YUV420, 0);
                }
            });
            for (size_t i = 0; i < dstOld.bytes.size(); i++) {
                int32_t x, y;
                const char *pcPlane = AffineBytePosition(c.iWidth, c.iHeight, c.iPicType, i, &x, &y);
                ASSERT_EQ(dstOld.bytes[i], dstNew.bytes[i]) << (bNeon ? "neon" : "plain") << " " << pcPlane
                                                            << " (" << x << ", " << y << ") " << AffineDescribe(c);
            }
        }
    }
}

// The scalar companions on every case of the sweep, one digest per case.
TEST(CoreTransition, CompanionsKeepTheirBytes)
{
    std::string strDigests;
    for (const AffineCase &c : AffineCaseList()) {
        AffineFrame src(c.iWidth, c.iHeight, c.iPicType), dst(c.iWidth, c.iHeight, c.iPicType);
        src.Fill(0x77u + (uint32_t)c.iHeight);
        dst.Fill(0x12u);
        tagST_REGISTRATION_AREA stArea = c.stArea;
        float afM[9];
        memcpy(afM, c.afMatrix, sizeof(afM));
        AffineTransform(&src.pic, &src.pic, &dst.pic, afM, &stArea, NULL, c.iPicType);
        char acDigest[16];
        snprintf(acDigest, sizeof(acDigest), "%08x", Digest(dst));
        strDigests += acDigest;
    }
    uint32_t uAll = 2166136261u;
    for (char ch : strDigests) {
        uAll = (uAll ^ (uint8_t)ch) * 16777619u;
    }
    EXPECT_EQ(uAll, 2368958585u) << strDigests;
}

}  // namespace
