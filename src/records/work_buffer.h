// The instance's working buffer: one zero-filled block of GetWorkBufSize bytes, aligned to
// LDC_WORKBUF_ALIGN, that Create and Reset allocate and every stage of a frame takes its scratch
// from, at the fixed places below. Two uses follow each other within a frame; the second
// overwrites what the first left.
//
// 1. The line check, from the start (w x h is the frame reduced by LineDetectFactor):
//      0                                   LDC_HOUGH_MAX_LINES stLine records: the Hough output,
//                                          compacted in place to the kept lines
//      LDC_WORK_LINE_IMAGE_OFFSET          the reduced luma, later its edge map (w * h bytes)
//      LDC_WORK_LINE_SCRATCH_OFFSET(w, h)  the Sobel output, then the Hough scratch
//                                          (HoughScratchSize); after detection its first bytes
//                                          are the lines' alive flags
//    LineDetectWorkSize is the end of this part.
// 2. The remap and the warp:
//      0                                   the intermediate image: one frame, in the picture
//                                          type's layout
//      LDC_WORK_SCRATCH_OFFSET(W, H)       LDC_WORKBUF_RESERVE bytes of scratch, taken in turn by
//                                          the remap's column table, the homography fit and the
//                                          warp's column table
// 3. With FDCMethod 1 only, behind both parts (LdcMeshWorkOffset, interface/ldc_workbuf.h), kept
//    from frame to frame:
//      +0                                  tagST_MESH_STATE: the frame size the rest belongs to
//                                          and the face track
//      + LDC_MESH_STATE_BYTES              the face mesh last solved, the next solve's warm start
//                                          (two floats per vertex, both orientations' room)
//      + LDC_MESH_STATE_BYTES + mesh       the face mesh last shown, which follows the solved one
//      + LDC_MESH_STATE_BYTES + 2 mesh     scratch: the solve's work area, then the render's row
//                                          table
//    A zero-filled part is an empty track and no mesh; a frame of another size or orientation
//    drops them.
//
// GetWorkBufSize (Create and Reset) is the larger of the first two parts; an instance with
// FDCMethod 1 allocates the third behind it.
#ifndef LDC_RECORDS_WORK_BUFFER_H
#define LDC_RECORDS_WORK_BUFFER_H

#include <stddef.h>

#include "records/ldc_para.h"
#include "records/lines.h"

#define LDC_WORKBUF_ALIGN 16   // every stage's scratch starts on a NEON-friendly boundary

// Scratch behind the intermediate image: a fixed reserve, well above what the column tables and
// the homography fit take.
#define LDC_WORKBUF_RESERVE 1760224

#define LDC_WORK_SCRATCH_OFFSET(iWidth, iHeight) LdcFrameBytes(iWidth, iHeight)

#define LDC_WORK_LINE_IMAGE_OFFSET (LDC_HOUGH_MAX_LINES * sizeof(stLine))   // 24000
#define LDC_WORK_LINE_SCRATCH_OFFSET(iW, iH) (LDC_WORK_LINE_IMAGE_OFFSET + (size_t)(iW) * (size_t)(iH))

#endif
