// Carrying out a frame's plan: the lens remap from the input into the intermediate image at the
// start of the working buffer, then the warp of that image through the plan's matrix into the
// output; or, on the copy path, a byte copy of the input. When the warp would only reproduce the
// intermediate image (the identity matrix on an even frame), the remap writes the output
// directly, with the same bytes.
#ifndef LDC_INTERFACE_LDC_RENDER_H
#define LDC_INTERFACE_LDC_RENDER_H

#include <stdint.h>

#include "interface/ldc_plan.h"
#include "records/ldc_para.h"

// pucIn and pucOut are frames of the instance's size and picture type.
void RenderFrame(tagST_LDC_PARA *pstPara, const tagST_LDC_PLAN *pstPlan, uint8_t *pucIn, uint8_t *pucOut);

#endif
