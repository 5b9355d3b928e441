// The instance's working buffer: its bytes for a configuration and where its parts are (the
// layout: records/work_buffer.h). Create and Reset size it; the frame driver and the face-mesh
// step find their parts in it.
#ifndef LDC_INTERFACE_LDC_WORKBUF_H
#define LDC_INTERFACE_LDC_WORKBUF_H

#include <stdint.h>

#include "mesh/face_track.h"
#include "records/ldc_para.h"
#include "records/work_buffer.h"

// Bytes of working buffer an instance of this size needs: the larger of the line check's part
// (LineDetectWorkSize) and one 4:2:0 frame plus LDC_WORKBUF_RESERVE.
int32_t GetWorkBufSize(int32_t iWidth, int32_t iHeight);

typedef struct tagST_MESH_STATE {
    int32_t iWidth;      // frame size the track and the mesh belong to; 0 x 0 before the first frame
    int32_t iHeight;
    int32_t bWarm;       // the solved mesh is a solution with faces: the next solve starts from it
    int32_t bShown;      // a mesh was shown since the state was cleared: the next one follows it
    tagST_FACE_TRACK stTrack;
} tagST_MESH_STATE;

#define LDC_MESH_STATE_BYTES ((sizeof(tagST_MESH_STATE) + 15) & ~(size_t)15)

// Where the mesh part starts (behind the larger of the other two parts in either orientation, so
// that a transposed instance finds it in the same place) and its bytes.
uint32_t LdcMeshWorkOffset(int32_t iWidth, int32_t iHeight);
uint32_t LdcMeshWorkBytes(int32_t iWidth, int32_t iHeight);
// Bytes of one mesh in that part, the larger of either orientation's.
uint32_t LdcMeshBytes(int32_t iWidth, int32_t iHeight);
// Bytes of the scratch behind the two meshes: room for the solve and for the render's row table.
uint32_t LdcMeshScratchBytes(int32_t iWidth, int32_t iHeight);

// Bytes of the working buffer an instance allocates: the mesh part only with FDCMethod 1.
uint32_t LdcWorkBufBytes(const tagST_LDC_PARA *pstPara);

// The instance's mesh part: the state, the mesh solved, the mesh shown and the scratch (solve,
// then row table).
tagST_MESH_STATE *LdcMeshState(const tagST_LDC_PARA *pstPara);
float *LdcMeshSolved(const tagST_LDC_PARA *pstPara);
float *LdcMeshShown(const tagST_LDC_PARA *pstPara);
uint8_t *LdcMeshScratch(const tagST_LDC_PARA *pstPara);

#endif
