// NEON twin of CountLineProb: four points per vector, the counters raised lane by lane.
#include "linedetect/hough_vote.h"
#include "platform/neon.h"

int32_t CountLineProb_NEON(tagST_LINE_DETECT *pstLineDetect)
{
    const HoughS32 *piTrig = (const HoughS32 *)pstLineDetect->piTrig;
    // Loaded as bytes: the point list may sit at any address.
    const uint8_t *pucPoints = (const uint8_t *)pstLineDetect->puiPoints;
    const int32_t iVoters = HoughVotingPoints(pstLineDetect->iPointNum);
    const uint32x4_t vLow16 = vdupq_n_u32(0xFFFFu);
    tagST_HOUGH_PASS astPass[4];
    HoughVotePasses(pstLineDetect->iThetaNum, astPass);
    for (const tagST_HOUGH_PASS &stPass : astPass) {
        for (int32_t t = stPass.iFirst; t <= stPass.iLast; t++) {
            HoughS32 *piRho0 = HoughAccumRho0(pstLineDetect, t);
            const int32x4_t vCos = vdupq_n_s32(piTrig[2 * t]);
            const int32x4_t vSin = vdupq_n_s32(piTrig[2 * t + 1]);
            for (int32_t i = 0; i < iVoters; i += 4) {
                const uint32x4_t vPoint = vreinterpretq_u32_u8(vld1q_u8(pucPoints + 4 * i));
                const int32x4_t vY = vreinterpretq_s32_u32(vandq_u32(vPoint, vLow16));
                const int32x4_t vX = vreinterpretq_s32_u32(vshrq_n_u32(vPoint, 16));
                const int32x4_t vRho = vshrq_n_s32(vmlaq_s32(vmulq_s32(vSin, vY), vCos, vX), 15);
                piRho0[vgetq_lane_s32(vRho, 0)]++;
                piRho0[vgetq_lane_s32(vRho, 1)]++;
                piRho0[vgetq_lane_s32(vRho, 2)]++;
                piRho0[vgetq_lane_s32(vRho, 3)]++;
            }
        }
    }
    return 0;
}
