// Bend measure: a detected line is pushed through the radial mapping of the global face
// correction (p -> g(p) * p about the frame centre), and the distance of the mapped end points and
// of the mapped foot of the perpendicular from the unmapped line tells how much it would bend.
//
// Every step keeps the single/double precision mix of the tuned original: the profiles' BendValue
// thresholds were set against these exact roundings, and a line close to the tolerance can flip.
#include "linedetect/line_bend.h"

#include <math.h>
#include <stdlib.h>

#include "platform/neon.h"
#include "platform/platform.h"

// A point closer than this to the centre (on both axes) does not move under the mapping.
static const float kCentreEps = 0.001f;
// Ends whose columns differ by less than this form a vertical line.
static const float kVerticalEps = 0.0001f;

float BendRadialFactor(float fX, float fY, float fK)
{
    const float fR = (float)sqrt((double)(fX * fX + fY * fY));
    const float fU = fR * fK;
    const double dU = (double)fU;
    // atan is rounded to float before its cosine: the tuned thresholds depend on it.
    const float fAtan = (float)atan(dU);
    return (float)(log(dU + 1.0 / cos((double)fAtan)) / dU);
}

// Mapped column a and distance d of the mapped point from the line y = m x + b (q = sqrt(1 + m²)).
// Returns 0 for a point on the centre, which cannot be judged.
static int32_t MeasurePoint(float fX, float fY, float fM, float fB, float fQ, float fK, float *pfA,
                            float *pfD)
{
    if (fabsf(fX) < kCentreEps && fabsf(fY) < kCentreEps) {
        return 0;
    }
    const float fG = BendRadialFactor(fX, fY, fK);
    *pfA = fG * fX;
    *pfD = fabsf(fM * (fG * fX) - fG * fY + fB) / fQ;
    return 1;
}

int32_t LineBendValue(const stLine *pstLine, stPoint stCentre, float fK, int32_t *piBend)
{
    const float fX0 = (float)(pstLine->Pnt0.x - stCentre.x);
    const float fY0 = (float)(pstLine->Pnt0.y - stCentre.y);
    const float fX1 = (float)(pstLine->Pnt1.x - stCentre.x);
    const float fY1 = (float)(pstLine->Pnt1.y - stCentre.y);
    float fA0, fD0, fA1, fD1, fAF, fDF;

    if (fabsf(fX0 - fX1) < kVerticalEps) {
        // Vertical line: the mapping only moves its points along the columns.
        if (fabsf(fX0) < kCentreEps && fabsf(fY0) < kCentreEps) {
            return 0;
        }
        fA0 = BendRadialFactor(fX0, fY0, fK) * fX0;
        fD0 = 0.0f;
        if (fabsf(fX1) < kCentreEps && fabsf(fY1) < kCentreEps) {
            return 0;
        }
        fA1 = BendRadialFactor(fX1, fY1, fK) * fX1;
        fD1 = fabsf(fA1 - fA0);
        if (fabsf(fX0) < kCentreEps) {
            return 0;
        }
        fAF = BendRadialFactor(fX0, 0.0f, fK) * fX0;
        fDF = fabsf(fAF - fA0);
    } else {
        const float fM = (fY0 - fY1) / (fX0 - fX1);
        const float fB = (fX0 * fY1 - fY0 * fX1) / (fX0 - fX1);
        const float fQ = (float)sqrt((double)(1.0f + fM * fM));
        // Foot of the perpendicular from the centre. An exactly horizontal line (m = 0) gives
        // xF = -b / inf and yF = 0 / 0 = NaN: the foot's measures become NaN, the comparisons
        // below fail, and the bend truncates to 0 (ARM's NaN rule), so such a line passes.
        const float fXF = (0.0f - fB) / (fM + 1.0f / fM);
        const float fYF = -fXF / fM;
        if (!MeasurePoint(fX0, fY0, fM, fB, fQ, fK, &fA0, &fD0) ||
            !MeasurePoint(fX1, fY1, fM, fB, fQ, fK, &fA1, &fD1) ||
            !MeasurePoint(fXF, fYF, fM, fB, fQ, fK, &fAF, &fDF)) {
            return 0;
        }
    }

    if (fA0 > fAF && fAF > fA1) {
        // Only this orientation counts as "foot between the ends"; the half goes in before the
        // absolute value. Both asymmetries are part of the tuned measure.
        *piBend = TruncF32ToS32(fabsf(fD0 - fD1 + 0.5f));
    } else {
        *piBend = TruncF64ToS32((double)fabsf(fD0 - fDF) + (double)fabsf(fD1 - fDF) + 0.5);
    }
    return 1;
}

void LogBendingLine(const stLine *pstLine)
{
    LdcLog(LDC_LOG_INFO, "Rho=%d, Theta=%d, Pnt0=(%d, %d), Pnt1=(%d, %d)\n", pstLine->rho,
           pstLine->theta, pstLine->Pnt0.x, pstLine->Pnt0.y, pstLine->Pnt1.x, pstLine->Pnt1.y);
}

int32_t SortLineByBendValue(stLine *pstLine, stPoint stCentre, float fK, int32_t iTolerance)
{
    int32_t iBend = 0;
    if (!LineBendValue(pstLine, stCentre, fK, &iBend) || iBend <= iTolerance) {
        return 1;
    }
    LogBendingLine(pstLine);
    LdcLog(LDC_LOG_INFO,
           "There are some lines becoming bended by using global FDC method! The bend value is %d\n",
           iBend);
    return 0;
}

void DrawLine(uint8_t *pucImage, const stLine *pstLine, int32_t iStride)
{
    const int32_t iX0 = pstLine->Pnt0.x;
    const int32_t iY0 = pstLine->Pnt0.y;
    const int32_t iX1 = pstLine->Pnt1.x;
    const int32_t iY1 = pstLine->Pnt1.y;
    const int32_t iDx = iX1 - iX0;
    const int32_t iDy = iY1 - iY0;
    if (iDx == 0 && iDy == 0) {
        return;
    }
    // 16.16 positions start at the middle of the first pixel; the far end is not painted.
    if (abs(iDx) <= abs(iDy)) {
        const int32_t iStep = (int32_t)((uint32_t)iDx << 16) / abs(iDy);
        const int32_t iDir = iDy > 0 ? 1 : -1;
        int32_t iPos = (int32_t)(((uint32_t)iX0 << 16) | 0x8000u);
        for (int32_t iY = iY0; iY != iY1; iY += iDir) {
            pucImage[iY * iStride + (iPos >> 16)] = 255;
            iPos += iStep;
        }
    } else {
        const int32_t iStep = (int32_t)((uint32_t)iDy << 16) / abs(iDx);
        const int32_t iDir = iDx > 0 ? 1 : -1;
        int32_t iPos = (int32_t)(((uint32_t)iY0 << 16) | 0x8000u);
        for (int32_t iX = iX0; iX != iX1; iX += iDir) {
            pucImage[(iPos >> 16) * iStride + iX] = 255;
            iPos += iStep;
        }
    }
}
