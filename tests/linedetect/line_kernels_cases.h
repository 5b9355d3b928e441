// Inputs shared by the line-kernel equivalence harness and its benchmark: the size sweeps,
// fixed-seed random planes and a first-difference report.
#ifndef LDC_TESTS_LINEDETECT_LINE_KERNELS_CASES_H
#define LDC_TESTS_LINEDETECT_LINE_KERNELS_CASES_H

#include <stdint.h>
#include <stdio.h>

#include <random>
#include <string>
#include <vector>

namespace line_kernels {

struct Size {
    int32_t iWidth;
    int32_t iHeight;
};

// Downscale sources: tiny, odd, widths off the 16- and 32-column vector steps, one block short
// of a vector step, and a few full vector rows with tails.
inline const std::vector<Size> &DownScaleSizes()
{
    static const std::vector<Size> s_sizes = {
        {1, 1},   {3, 3},   {4, 4},   {8, 8},    {7, 5},   {15, 9},   {16, 16},  {31, 17},
        {32, 32}, {33, 12}, {63, 40}, {64, 64},  {65, 65}, {100, 37}, {127, 24}, {128, 16},
        {129, 70}, {255, 9}, {257, 33}, {320, 8}, {519, 23}, {640, 48},
    };
    return s_sizes;
}

// Sobel inputs: heights 1 and 2 (all zero), widths on and off the 8-column step.
inline const std::vector<Size> &SobelSizes()
{
    static const std::vector<Size> s_sizes = {
        {1, 1},  {3, 3},  {4, 4},  {8, 8},   {1, 7},   {2, 9},   {9, 1},   {17, 2},   {9, 9},
        {10, 5}, {11, 6}, {16, 3}, {17, 17}, {25, 13}, {33, 20}, {64, 11}, {100, 37}, {161, 21},
    };
    return s_sizes;
}

// Frame of the benchmark: 4000 x 3000 luma reduced by 8 to the 500 x 375 working image.
constexpr int32_t kBenchWidth = 4000;
constexpr int32_t kBenchHeight = 3000;
constexpr int32_t kBenchFactor = 8;
constexpr int32_t kBenchThresh = 100;   // the configuration's default binarization threshold

// Uniform samples in 0 .. uMask; a small mask keeps Sobel magnitudes around the thresholds.
inline std::vector<uint8_t> RandomPlane(size_t uSize, uint32_t uSeed, uint32_t uMask = 0xFF)
{
    std::mt19937 rng(uSeed);
    std::vector<uint8_t> v(uSize);
    for (uint8_t &b : v) {
        b = (uint8_t)(rng() & uMask);
    }
    return v;
}

// "" when equal, else the first differing pixel with its coordinates and both values.
inline std::string FirstDifference(const uint8_t *pucRef, const uint8_t *pucNew, int32_t iWidth, int32_t iHeight)
{
    for (int32_t y = 0; y < iHeight; y++) {
        for (int32_t x = 0; x < iWidth; x++) {
            const size_t i = (size_t)y * iWidth + x;
            if (pucRef[i] != pucNew[i]) {
                char acMsg[96];
                snprintf(acMsg, sizeof(acMsg), "first difference at (x=%d, y=%d): plain %d, neon %d", x, y,
                         pucRef[i], pucNew[i]);
                return acMsg;
            }
        }
    }
    return "";
}

}  // namespace line_kernels

#endif
