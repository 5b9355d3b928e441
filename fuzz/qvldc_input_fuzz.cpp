// Feeds arbitrary bytes to the readers of what qvldc finds in a tuner's dump folder: the faces
// file, a dumped frame's name and the frame-size word. None may crash, and what they accept must
// hold together: faces with their edges in order, sizes inside the library's limits, and a dump
// name that reads back the same after the library's naming wrote it again.
#include <limits.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "qvldc_parse.h"

static void Check(bool bOk)
{
    if (!bOk) {
        __builtin_trap();
    }
}

static bool SameFaces(const std::vector<ST_FACE_RECT> &vA, const std::vector<ST_FACE_RECT> &vB)
{
    return vA.size() == vB.size() &&
           (vA.empty() || memcmp(vA.data(), vB.data(), vA.size() * sizeof(ST_FACE_RECT)) == 0);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *pucData, size_t uSize)
{
    const std::string sText((const char *)pucData, uSize);

    std::vector<ST_FACE_RECT> vFaces;
    int32_t iBadLine = 0;
    if (ParseFacesText(sText, &vFaces, &iBadLine)) {
        for (const ST_FACE_RECT &stFace : vFaces) {
            Check(stFace.iLeft <= stFace.iRight && stFace.iTop <= stFace.iBottom);
        }
    } else {
        Check(iBadLine >= 1);
    }

    tagST_QV_SIZE stSize;
    if (ParseFrameSize(sText, &stSize)) {
        Check(stSize.iWidth >= 1 && stSize.iWidth <= LDC_MAX_IMAGE_SIZE && stSize.iHeight >= 1 &&
              stSize.iHeight <= LDC_MAX_IMAGE_SIZE);
    }

    // Names come from directory entries, so the last component holds at most NAME_MAX bytes
    // (the name pattern's matcher recurses per byte and would overflow the stack on far longer
    // ones).
    const size_t uSlash = sText.find_last_of('/');
    const size_t uNameLen = uSlash == std::string::npos ? uSize : uSize - uSlash - 1;
    tagST_QV_DUMP_NAME stName;
    if (uNameLen <= NAME_MAX && ParseDumpName(sText, &stName)) {
        tagST_QV_DUMP_NAME stAgain;
        Check(ParseDumpName(FormatDumpName(stName.strStamp, stName.vstFaces, stName.iISO, stName.bInput), &stAgain));
        Check(stAgain.strStamp == stName.strStamp && SameFaces(stAgain.vstFaces, stName.vstFaces) &&
              stAgain.iISO == stName.iISO && stAgain.bInput == stName.bInput);
    }
    return 0;
}
