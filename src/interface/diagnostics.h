// Version line, microsecond clock and the property-gated debug dump of a frame.
#ifndef LDC_INTERFACE_DIAGNOSTICS_H
#define LDC_INTERFACE_DIAGNOSTICS_H

#include <stdint.h>

#include "vkt_zb_ldc.h"

#define LDC_VERSION_TEXT "QVLDC_V1.0.4<78069>"
#define LDC_DUMP_PROPERTY "persist.camera.zb5qu.qvldc.yuv"

#ifdef __cplusplus
extern "C" {
#endif

// Logs "LDC Version : __<version>__<build date>__<build time>__gcc__ " at info priority.
LDC_EXPORT void LogVersion(void);

// Wall-clock time in microseconds.
LDC_EXPORT int64_t GetTime(void);

#ifdef __cplusplus
}
#endif

// Writes the input and output frames of a call to two files in the dump directory.
void DumpFrames(const ST_LDC_FRAME_INFO *pstFrameInfo, const uint8_t *pucIn, const uint8_t *pucOut);

// Reads the debug property, logs what it found and dumps the frames when its value starts with '1'.
void DumpFramesIfRequested(const ST_LDC_FRAME_INFO *pstFrameInfo, const uint8_t *pucIn,
                           const uint8_t *pucOut);

#endif
