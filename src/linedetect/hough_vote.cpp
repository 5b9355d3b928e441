// The plain voter: it defines the counts that CountLineProb_NEON must reproduce.
#include "linedetect/hough_vote.h"

int32_t CountLineProb(tagST_LINE_DETECT *pstLineDetect)
{
    const HoughS32 *piTrig = (const HoughS32 *)pstLineDetect->piTrig;
    const HoughU32 *puiPoints = (const HoughU32 *)pstLineDetect->puiPoints;
    const int32_t iVoters = HoughVotingPoints(pstLineDetect->iPointNum);
    tagST_HOUGH_PASS astPass[4];
    HoughVotePasses(pstLineDetect->iThetaNum, astPass);
    for (const tagST_HOUGH_PASS &stPass : astPass) {
        for (int32_t t = stPass.iFirst; t <= stPass.iLast; t++) {
            HoughS32 *piRho0 = HoughAccumRho0(pstLineDetect, t);
            for (int32_t i = 0; i < iVoters; i++) {
                piRho0[HoughRho(piTrig[2 * t], piTrig[2 * t + 1], puiPoints[i])]++;
            }
        }
    }
    return 0;
}
