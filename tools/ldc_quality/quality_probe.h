// The coordinate probe: which recorded position does each output pixel of a correction show?
// Luma frames that encode the recorded x (or y) go through the correction unchanged in every
// other respect; bilinear resampling reproduces a locally linear ramp exactly, so each output
// value is the ramp at the position that pixel sampled. Two sawtooth ramps of period 16 shifted
// by half a period give the fine position (16 levels per pixel; the one whose wrap is farther
// is read), two of period 256 the period, and one ramp across the frame the coarse position.
#ifndef LDC_QUALITY_PROBE_H
#define LDC_QUALITY_PROBE_H

#include <stdint.h>

#include <functional>
#include <vector>

// A correction of one NV21 frame of the probe's size into another.
typedef std::function<void(const uint8_t *pucIn, uint8_t *pucOut)> QualityRenderer;

// For every output pixel (row-major) the recorded position it shows.
typedef struct tagST_QP_MAP {
    int32_t iWidth;
    int32_t iHeight;
    std::vector<float> vfX;
    std::vector<float> vfY;
} tagST_QP_MAP;

void ProbeSourceMap(int32_t iW, int32_t iH, const QualityRenderer &fnRender, tagST_QP_MAP *pstMap);

#endif
