// Border fill: vector copies against the plain twin, and the contract of the fill for every shape
// of kept rectangle (touching the top, the right edge, the bottom, two rows high).
#include <gtest/gtest.h>

#include "warp/affine_transform_cases.h"
#include "warp/fill_blank.h"

namespace {

struct FillRect {
    int32_t iLeft, iTop, iRight, iRows;
};

std::string Describe(int32_t iWidth, int32_t iHeight, int32_t iType, const FillRect &r)
{
    char ac[160];
    snprintf(ac, sizeof(ac), "%dx%d type %d left %d top %d right %d rows %d", iWidth, iHeight, iType, r.iLeft,
             r.iTop, r.iRight, r.iRows);
    return ac;
}

void CheckShape(int32_t iWidth, int32_t iHeight, int32_t iType, const FillRect &r)
{
    AffineFrame src(iWidth, iHeight, iType), before(iWidth, iHeight, iType);
    src.Fill(0x51u);
    before.Fill(0x9Du);
    AffineFrame vec(before), plain(before);
    if (iType == LDC_PIC_YUV420) {
        FillBlank_neon_YUV420(&vec.pic, &src.pic, r.iLeft, r.iTop, r.iRight, r.iRows);
        FillBlank_YUV420(&plain.pic, &src.pic, r.iLeft, r.iTop, r.iRight, r.iRows);
    } else {
        FillBlank_neon_NV12(&vec.pic, &src.pic, r.iLeft, r.iTop, r.iRight, r.iRows);
        FillBlank_NV12(&plain.pic, &src.pic, r.iLeft, r.iTop, r.iRight, r.iRows);
    }
    for (size_t i = 0; i < vec.bytes.size(); i++) {
        if (plain.bytes[i] != vec.bytes[i]) {
            FAIL() << "vector vs plain at byte " << i << ": " << +plain.bytes[i] << " vs " << +vec.bytes[i] << ", "
                   << Describe(iWidth, iHeight, iType, r);
        }
        if (i >= src.FrameBytes()) {
            if (before.bytes[i] != vec.bytes[i]) {
                FAIL() << "written past the frame, " << Describe(iWidth, iHeight, iType, r);
            }
            continue;
        }
        int32_t x, y;
        const char *pcPlane = AffineBytePosition(iWidth, iHeight, iType, i, &x, &y);
        const bool bInside = x >= r.iLeft && x < r.iRight && y >= r.iTop && y < r.iTop + r.iRows;
        const bool bLastPair = y >= r.iTop + r.iRows - 2;   // the bottom band may start there
        const auto Where = [&]() {
            return std::string(pcPlane) + " byte " + std::to_string(i) + " (x " + std::to_string(x) + ", y " +
                   std::to_string(y) + ")";
        };
        if (!bInside && src.bytes[i] != vec.bytes[i]) {
            FAIL() << "border not copied at " << Where() << ", " << Describe(iWidth, iHeight, iType, r);
        }
        if (bInside && !bLastPair && before.bytes[i] != vec.bytes[i]) {
            FAIL() << "rectangle written at " << Where() << ", " << Describe(iWidth, iHeight, iType, r);
        }
    }
}

TEST(FillBlank, EveryRectangleShapeInEveryLayout)
{
    const int32_t aiSizes[][2] = {{40, 24}, {54, 20}};   // 54: odd planar chroma pitch, odd remainders
    for (const auto &size : aiSizes) {
        const int32_t iW = size[0], iH = size[1];
        for (int32_t iType = 0; iType <= 2; iType++) {
            for (int32_t iLeft : {0, 2, 10}) {
                for (int32_t iTop : {0, 2, 8}) {
                    for (int32_t iRight : {iLeft + 2, 30, iW}) {
                        for (int32_t iRows : {2, 4, iH - iTop}) {
                            CheckShape(iW, iH, iType, {iLeft, iTop, iRight, iRows});
                            if (HasFatalFailure()) {
                                return;
                            }
                        }
                    }
                }
            }
        }
    }
}

}  // namespace
