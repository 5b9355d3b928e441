// Sizing of the instance's working buffer (its layout: records/work_buffer.h).
#ifndef LDC_INTERFACE_LDC_LIFECYCLE_H
#define LDC_INTERFACE_LDC_LIFECYCLE_H

#include <stdint.h>

#include "records/work_buffer.h"

// Bytes of working buffer an instance of this size needs: the larger of the line check's part
// (LineDetectWorkSize) and one 4:2:0 frame plus LDC_WORKBUF_RESERVE.
int32_t GetWorkBufSize(int32_t iWidth, int32_t iHeight);

#endif
