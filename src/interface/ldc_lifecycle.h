// Sizing of the instance's working buffer, shared by the lifecycle and the frame driver.
#ifndef LDC_INTERFACE_LDC_LIFECYCLE_H
#define LDC_INTERFACE_LDC_LIFECYCLE_H

#include <stdint.h>

#define LDC_WORKBUF_ALIGN 16   // every stage's scratch starts on a NEON-friendly boundary

// Scratch behind the intermediate frame (which takes the first width x height x 3 / 2 bytes):
// the homography fit and the warp take their working areas from here.
#define LDC_WORKBUF_RESERVE 1760224

// Bytes of working buffer an instance of this size needs: the larger of the line check's need
// on the reduced frame and one full 4:2:0 frame plus LDC_WORKBUF_RESERVE.
int32_t GetWorkBufSize(int32_t iWidth, int32_t iHeight);

#endif
