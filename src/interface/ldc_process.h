// The frame driver's entry with its plan: what tools and tests use to see why a frame went the
// way it did.
#ifndef LDC_INTERFACE_LDC_PROCESS_H
#define LDC_INTERFACE_LDC_PROCESS_H

#include <stdint.h>

#include "interface/ldc_plan.h"
#include "vkt_zb_ldc.h"

// IQV_LDC_Process, handing the frame's plan back in *pstPlan when it is not NULL (an empty plan,
// the copy path, when the call returns before planning). Same logs, bytes and return codes.
int32_t LdcProcessFrame(void *pHandle, const ST_LDC_FRAME_INFO *pstFrameInfo, uint8_t *pucIn, uint8_t *pucOut,
                        tagST_LDC_PLAN *pstPlan);

#endif
