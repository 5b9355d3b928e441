// The size sweeps of the line-kernel harness and the frame of its benchmark.
#ifndef LDC_TESTS_LINEDETECT_LINE_KERNELS_CASES_H
#define LDC_TESTS_LINEDETECT_LINE_KERNELS_CASES_H

#include <stdint.h>

#include <vector>

namespace line_kernels {

struct Size {
    int32_t iWidth;
    int32_t iHeight;
};

// Downscale sources: tiny, odd, widths off the 32- and 64-column vector steps, one block short
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

// Sobel inputs: heights 1 and 2 (all zero), widths on and off the 16-column step.
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

}  // namespace line_kernels

#endif
