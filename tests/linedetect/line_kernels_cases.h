// Inputs shared by the line-kernel equivalence harness and its benchmark: fixed-seed random
// planes, rendered scenes with straight edges at many angles, and a first-difference report.
#ifndef LDC_TESTS_LINEDETECT_LINE_KERNELS_CASES_H
#define LDC_TESTS_LINEDETECT_LINE_KERNELS_CASES_H

#include <math.h>
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

inline std::vector<uint8_t> RandomPlane(size_t uSize, uint32_t uSeed)
{
    std::mt19937 rng(uSeed);
    std::vector<uint8_t> v(uSize);
    for (uint8_t &b : v) {
        b = (uint8_t)(rng() & 0xFF);
    }
    return v;
}

// Fills the convex polygon (vertices in order) with a constant grey, row by row.
inline void FillConvex(std::vector<uint8_t> &img, int32_t iWidth, int32_t iHeight, const std::vector<double> &xs,
                       const std::vector<double> &ys, uint8_t ucValue)
{
    const size_t n = xs.size();
    for (int32_t y = 0; y < iHeight; y++) {
        const double fy = y + 0.5;
        double fLeft = 1e30, fRight = -1e30;
        for (size_t i = 0; i < n; i++) {
            const size_t j = (i + 1) % n;
            if ((ys[i] <= fy && ys[j] > fy) || (ys[j] <= fy && ys[i] > fy)) {
                const double fx = xs[i] + (fy - ys[i]) * (xs[j] - xs[i]) / (ys[j] - ys[i]);
                fLeft = fx < fLeft ? fx : fLeft;
                fRight = fx > fRight ? fx : fRight;
            }
        }
        const int32_t x0 = fLeft < 0 ? 0 : (int32_t)lround(fLeft);
        const int32_t x1 = fRight > iWidth ? iWidth : (int32_t)lround(fRight);
        for (int32_t x = x0; x < x1; x++) {
            img[(size_t)y * iWidth + x] = ucValue;
        }
    }
}

// A luma plane that looks like a room: a lit gradient, rotated boxes and bars of varied grey at
// many angles (window frames, shelves, door edges), and sensor noise.
inline std::vector<uint8_t> RenderScene(int32_t iWidth, int32_t iHeight, uint32_t uSeed)
{
    std::mt19937 rng(uSeed);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    std::vector<uint8_t> img((size_t)iWidth * iHeight);
    for (int32_t y = 0; y < iHeight; y++) {
        for (int32_t x = 0; x < iWidth; x++) {
            img[(size_t)y * iWidth + x] = (uint8_t)(60 + 80 * x / iWidth + 40 * y / iHeight);
        }
    }
    const double fScale = (iWidth < iHeight ? iWidth : iHeight);
    for (int32_t k = 0; k < 40; k++) {
        const double cx = unit(rng) * iWidth, cy = unit(rng) * iHeight;
        const double fAngle = unit(rng) * M_PI;
        const double fLen = (0.1 + 0.5 * unit(rng)) * fScale;
        const double fThick = (k % 3 == 0) ? 0.01 * fScale : (0.05 + 0.25 * unit(rng)) * fScale;
        const double ux = cos(fAngle), uy = sin(fAngle);
        const std::vector<double> xs = {cx - ux * fLen - uy * fThick, cx + ux * fLen - uy * fThick,
                                        cx + ux * fLen + uy * fThick, cx - ux * fLen + uy * fThick};
        const std::vector<double> ys = {cy - uy * fLen + ux * fThick, cy + uy * fLen + ux * fThick,
                                        cy + uy * fLen - ux * fThick, cy - uy * fLen - ux * fThick};
        FillConvex(img, iWidth, iHeight, xs, ys, (uint8_t)(20 + rng() % 216));
    }
    for (uint8_t &b : img) {
        const int32_t v = b + (int32_t)(rng() % 9) - 4;
        b = (uint8_t)(v < 0 ? 0 : (v > 255 ? 255 : v));
    }
    return img;
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
