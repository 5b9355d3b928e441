// Line records of the line check: the Hough transform writes them, the joining step merges them,
// the bend measure and the classifier judge them, and the frame plan reports them.
#ifndef LDC_RECORDS_LINES_H
#define LDC_RECORDS_LINES_H

#include <stdint.h>

#define LDC_HOUGH_MAX_LINES 1000   // room for line records: the most one Hough transform returns

typedef struct stPoint {
    int32_t x;   // column
    int32_t y;   // row
} stPoint;

typedef struct stLine {
    int32_t rho;     // floor(x cos(theta) + y sin(theta)) in Q15 arithmetic; may be negative
    int32_t theta;   // degrees, 0..179
    stPoint Pnt0;    // where the run began
    stPoint Pnt1;    // first empty pixel after the run
} stLine;

#endif
