// Bend measure of one detected line under the global face-correction mapping, and a debugging
// painter for segments.
#ifndef LDC_LINEDETECT_LINE_BEND_H
#define LDC_LINEDETECT_LINE_BEND_H

#include <stdint.h>

#include "records/lines.h"

// Radial factor of the global face mapping for the point (fX, fY) relative to the centre:
// ln(u + 1 / cos(atan(u))) / u with u = |p| * fK, rounded to float (asinh(u) / u, evaluated in
// these steps because the roundings decide lines close to the tolerance).
float BendRadialFactor(float fX, float fY, float fK);

// Bend in whole pixels of the line (full-frame coordinates) mapped about stCentre with the
// coefficient fK, into *piBend. Returns 0 (and leaves *piBend alone) when the line cannot be
// judged: an end or the foot of the perpendicular sits on the centre.
int32_t LineBendValue(const stLine *pstLine, stPoint stCentre, float fK, int32_t *piBend);

// 1 when the line stays within iTolerance pixels (or cannot be judged), 0 when it bends more;
// on 0 the line and its bend are logged.
int32_t SortLineByBendValue(stLine *pstLine, stPoint stCentre, float fK, int32_t iTolerance);

// Logs the first of the two lines that report a bending line: its rho, theta and ends.
void LogBendingLine(const stLine *pstLine);

// Paints Pnt0 .. Pnt1 (the end itself excluded) with 255 into an 8-bit image, 16.16 walk.
void DrawLine(uint8_t *pucImage, const stLine *pstLine, int32_t iStride);

#endif
