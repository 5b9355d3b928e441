// Pieces of the frame driver that tools and tests reuse.
#ifndef LDC_INTERFACE_LDC_PROCESS_H
#define LDC_INTERFACE_LDC_PROCESS_H

#include <stdint.h>

#include "records/ldc_para.h"

// Plane pointers of a width x height frame at pucBase in the picture type's layout. For the
// semi-planar types pU is the start of the interleaved plane whichever byte of a pair is U.
void BuildPicture(tagST_PIC *pstPic, uint8_t *pucBase, int32_t iWidth, int32_t iHeight, int32_t ePicType);

#endif
