/*
 * libvkt_zb_ldc: lens and face distortion correction of wide-angle YUV 4:2:0 frames.
 *
 * A camera HAL creates one instance per stream from an XML configuration, hands it every frame
 * with the face rectangles of its detector, and receives a corrected frame of the same size and
 * layout in a second buffer. Every entry point returns one of the LDC_* codes below, never throws
 * and logs through the Android log under the tag "ZB5QU_QVLDC".
 */
#ifndef VKT_ZB_LDC_H
#define VKT_ZB_LDC_H

#include <stdint.h>

#if defined(__GNUC__)
#define LDC_EXPORT __attribute__((visibility("default")))
#else
#define LDC_EXPORT
#endif

/* Return codes. */
#define LDC_OK 0
#define LDC_ERR_XML_LOAD (-995)      /* the configuration file could not be loaded as XML */
#define LDC_ERR_CAMERA_MATRIX (-996) /* fx or fy not positive, or (u0, v0) outside the frame */
#define LDC_ERR_CONFIG (-997)        /* the configuration could not be parsed */
#define LDC_ERR_PARAM (-998)         /* bad argument, or a content error of the configuration */
#define LDC_ERR_MEMORY (-1000)       /* memory could not be allocated */

#define LDC_MAX_IMAGE_SIZE 5000 /* largest width and height, inclusive */
#define LDC_MAX_FACES 10        /* faces beyond the first ten are ignored */
#define LDC_MAX_LOGGED_FACES 64 /* face rectangles logged per frame; a larger count gets one line */

/*
 * Picture types. A frame is width x height luma bytes followed by width x height / 2 chroma
 * bytes. Types 0 and 1 interleave the chroma pairs (V first, U first), type 2 holds a U plane
 * and then a V plane, each of width x height / 4 bytes.
 */
typedef enum tagE_LDC_PIC_TYPE {
    LDC_PIC_NV21 = 0,
    LDC_PIC_NV12 = 1,
    LDC_PIC_YUV420 = 2
} E_LDC_PIC_TYPE;

/* Creation parameters, read by IQV_LDC_Create and IQV_LDC_Reset. */
typedef struct tagST_LDC_INPUT_PARA {
    int32_t iImgWidth;             /* 1..5000 */
    int32_t iImgHeight;            /* 1..5000 */
    const char *pucCfgPath;        /* XML configuration; storage of at least 256 bytes; Reset ignores it */
    int32_t ePicType;              /* E_LDC_PIC_TYPE */
} ST_LDC_INPUT_PARA;

/* One face rectangle; all four edges are inclusive. */
typedef struct tagST_FACE_RECT {
    int32_t iLeft;
    int32_t iTop;
    int32_t iRight;
    int32_t iBottom;
} ST_FACE_RECT;

/* Per-frame description, read only. */
typedef struct tagST_LDC_FRAME_INFO {
    int32_t iImgWidth;
    int32_t iImgHeight;
    int32_t iISO;              /* only used in the names of debug dumps */
    int32_t iFaceNum;          /* values above 10 are cut to 10 */
    /* iFaceNum rectangles, or at least LDC_MAX_LOGGED_FACES (64) when more are claimed: the
     * frame's log quotes up to 64 of them and the correction uses the first 10. NULL: no faces. */
    const ST_FACE_RECT *pstFaces;
} ST_LDC_FRAME_INFO;

#ifdef __cplusplus
extern "C" {
#endif

/* Creates an instance; on LDC_OK *pHandle holds it, on failure *pHandle is left untouched. */
LDC_EXPORT int32_t IQV_LDC_Create(void **pHandle, ST_LDC_INPUT_PARA *pstInputPara);

/*
 * Corrects one frame from pucIn into pucOut (each width x height x 3 / 2 bytes).
 *
 * Reads stay inside the frames: no stage reads before pucIn or past its last byte, and every
 * output byte derives from the current input frame. A face correction's homography is exact
 * near the faces but can map far parts of the output outside the frame (and a lens profile that
 * is not monotonic over the frame can do the same in the lens remap); such source positions are
 * clamped, in the remap and the warp alike, per 2 x 2 block and axis: below 0 to 0, at or past
 * the last column (row) to the column (row) before it. Out-of-frame output therefore repeats the
 * frame's first or last two columns (rows), and its chroma the nearest edge sample. Source
 * positions inside the frame give exactly the bytes of the unclamped resampling. The part of
 * the intermediate image outside the lens area is taken from the input at the same positions,
 * and a frame of odd width or height gets its last column or row from the input.
 */
LDC_EXPORT int32_t IQV_LDC_Process(void *pHandle, const ST_LDC_FRAME_INFO *pstFrameInfo,
                                   uint8_t *pucIn, uint8_t *pucOut);

/* Frees the instance and its working buffer. */
LDC_EXPORT int32_t IQV_LDC_Delete(void *pHandle);

#ifdef __cplusplus
}

/*
 * Re-reads the configuration for a new frame size and picture type; exported under its C++ name.
 * A size outside 1..5000 or a type other than 0, 1 or 2 is refused as by IQV_LDC_Create (same
 * code and message) before anything changes: the instance stays as it was. Any later failure
 * leaves the instance hollow: no working buffer, nothing kept but its configuration path and its
 * own picture type (not the requested one). The next frame resets a hollow instance again with
 * that type; IQV_LDC_Reset and IQV_LDC_Delete accept it too.
 */
LDC_EXPORT int32_t IQV_LDC_Reset(void *pHandle, ST_LDC_INPUT_PARA *pstInputPara);
#endif

#endif /* VKT_ZB_LDC_H */
