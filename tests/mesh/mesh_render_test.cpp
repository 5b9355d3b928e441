// The mesh render over the remap's lens sweep and a few wide frames (cells of several groups, as
// in a camera frame): the vector twin gives the plain twin's bytes for gentle, wild and
// non-finite meshes (positions far outside the frame and NaN are clamped by the core, the frame
// allocated to its exact size), writes only the lens rectangle, and a zero mesh gives the lens
// remap's bytes.
#include "mesh/mesh_render.h"

#include <gtest/gtest.h>
#include <math.h>

#include <random>
#include <vector>

#include "geometry/distortion_correct_cases.h"

namespace {

enum eMeshKind { MESH_ZERO, MESH_GENTLE, MESH_WILD, MESH_NOT_FINITE };

std::vector<float> MakeMesh(const tagST_MESH_GRID &stGrid, int32_t eKind, int32_t iW, int32_t iH, uint32_t uSeed)
{
    std::vector<float> vfMesh(2 * (size_t)stGrid.iCols * stGrid.iRows, 0.0f);
    std::mt19937 rng(uSeed);
    const float fGentle = 0.5f * fminf(stGrid.fStepX, stGrid.fStepY);
    const float fWild = 4.0f * (float)(iW > iH ? iW : iH);
    for (size_t i = 0; eKind != MESH_ZERO && i < vfMesh.size(); i++) {
        const float fU = DcUniform(rng, -1.0f, 1.0f);
        vfMesh[i] = eKind == MESH_GENTLE ? fGentle * fU : fWild * fU;
        if (eKind == MESH_NOT_FINITE && i % 7 == 3) {
            vfMesh[i] = i % 2 ? INFINITY : NAN;
        }
    }
    return vfMesh;
}

TEST(MeshRender, VectorMatchesPlainWritesOnlyTheRectangleAndAZeroMeshIsTheLensRemap)
{
    std::vector<tagST_DC_CASE> vstCases = DcSweepCases();
    for (int32_t ePicType = 0; ePicType < 3; ePicType++) {
        vstCases.push_back({1030 + 2 * (ePicType != 2), 18, ePicType, DC_BARREL, {2, 0, 6, 2}, 91u + ePicType});
    }
    tagST_DC_FRAMES stFrames;
    int32_t iCases = 0;
    for (const tagST_DC_CASE &stCase : vstCases) {
        if (stCase.eModel > DC_PHONE_LENS) {
            continue;   // the mesh goes with the lens model only
        }
        ASSERT_TRUE(DcPrepare(&stFrames, stCase)) << DcDescribe(stCase, *stFrames.pstPara);
        tagST_LDC_PARA *pstPara = stFrames.pstPara.get();
        const int32_t iW = stCase.iWidth, iH = stCase.iHeight;
        tagST_MESH_GRID stGrid;
        FaceMeshGrid(iW, iH, 0, &stGrid);
        std::vector<float> vfRows(MeshRowTableBytes(iW, iH) / sizeof(float) + 4);
        const ldc_test::tagST_TEST_LAYOUT stLayout = ldc_test::FrameLayout(iW, iH, stCase.ePicType);
        const int32_t iPlanar = stCase.ePicType == 2;
        const auto apucSrc = tagST_DC_FRAMES::Planes(stFrames.stSrc);
        for (int32_t eKind = MESH_ZERO; eKind <= MESH_NOT_FINITE; eKind++) {
            const std::vector<float> vfMesh = MakeMesh(stGrid, eKind, iW, iH, stCase.uSeed + 77u * eKind);
            auto render = [&](bool bNeon, uint8_t *pucDst) {
                const auto apucDst = tagST_DC_FRAMES::Planes(stFrames.Picture(pucDst));
                (bNeon ? MeshRemap_neon : MeshRemap)(iPlanar, pstPara, vfMesh.data(), apucSrc.data(), apucDst.data(),
                                                     (uint8_t *)vfRows.data());
            };
            ASSERT_EQ("", ldc_test::CompareTwins(stLayout, render))
                << "mesh kind " << eKind << ", " << DcDescribe(stCase, *pstPara);
            ldc_test::GuardedBytes stOut(stLayout.uBytes, 0x5A);
            render(true, stOut.Data());
            for (size_t i = 0; i < stLayout.uBytes; i++) {
                ASSERT_TRUE(stFrames.InRectangle(i) || stOut.Data()[i] == 0x5A)
                    << "byte " << i << " outside the rectangle, " << DcDescribe(stCase, *pstPara);
            }
            if (eKind == MESH_ZERO) {
                ldc_test::GuardedBytes stLens(stLayout.uBytes, 0x5A);
                stFrames.Run(true, stLens.Data());
                ASSERT_EQ("", ldc_test::FirstDifference(stLayout, stLens.Data(), stOut.Data()))
                    << DcDescribe(stCase, *pstPara);
            }
        }
        iCases++;
    }
    EXPECT_GT(iCases, 100);
}

}  // namespace
