#include "qvldc_parse.h"

#include <ctype.h>
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <regex>
#include <sstream>

static bool ParseInt(const std::string &strText, int64_t lMin, int64_t lMax, int32_t *piValue)
{
    const char *pcStart = strText.c_str();
    while (isspace((unsigned char)*pcStart)) {
        pcStart++;
    }
    if (*pcStart == '\0') {
        return false;
    }
    char *pcEnd = NULL;
    errno = 0;
    const long long llValue = strtoll(pcStart, &pcEnd, 10);
    while (isspace((unsigned char)*pcEnd)) {
        pcEnd++;
    }
    if (errno != 0 || *pcEnd != '\0' || llValue < lMin || llValue > lMax) {
        return false;
    }
    *piValue = (int32_t)llValue;
    return true;
}

bool ParseFaceRect(const std::string &strText, ST_FACE_RECT *pstFace)
{
    int32_t aiValue[4];
    size_t uStart = 0;
    for (int32_t i = 0; i < 4; i++) {
        const size_t uComma = strText.find(',', uStart);
        if ((i < 3) != (uComma != std::string::npos)) {
            return false;
        }
        const std::string strPart = strText.substr(uStart, i < 3 ? uComma - uStart : std::string::npos);
        if (!ParseInt(strPart, INT32_MIN, INT32_MAX, &aiValue[i])) {
            return false;
        }
        uStart = uComma + 1;
    }
    // The library itself accepts any rectangle and logs the bad ones; the tool keeps them so
    // that a tuner sees that reaction, but refuses edges given in the wrong order.
    if (aiValue[2] < aiValue[0] || aiValue[3] < aiValue[1]) {
        return false;
    }
    *pstFace = {aiValue[0], aiValue[1], aiValue[2], aiValue[3]};
    return true;
}

bool ParseFacesText(const std::string &strText, std::vector<ST_FACE_RECT> *pvstFaces, int32_t *piBadLine)
{
    std::istringstream stream(strText);
    std::string strLine;
    int32_t iLine = 0;
    while (std::getline(stream, strLine)) {
        iLine++;
        const size_t uFirst = strLine.find_first_not_of(" \t\r");
        if (uFirst == std::string::npos || strLine[uFirst] == '#') {
            continue;
        }
        ST_FACE_RECT stFace;
        if (!ParseFaceRect(strLine, &stFace)) {
            *piBadLine = iLine;
            return false;
        }
        pvstFaces->push_back(stFace);
    }
    return true;
}

bool ParseFrameSize(const std::string &strText, tagST_QV_SIZE *pstSize)
{
    const size_t uSep = strText.find_first_of("xX*");
    if (uSep == std::string::npos) {
        return false;
    }
    tagST_QV_SIZE stSize;
    if (!ParseInt(strText.substr(0, uSep), 1, LDC_MAX_IMAGE_SIZE, &stSize.iWidth) ||
        !ParseInt(strText.substr(uSep + 1), 1, LDC_MAX_IMAGE_SIZE, &stSize.iHeight)) {
        return false;
    }
    *pstSize = stSize;
    return true;
}

bool ParsePicType(const std::string &strText, int32_t *pePicType)
{
    std::string strLower;
    for (char c : strText) {
        strLower += (char)tolower((unsigned char)c);
    }
    if (strLower == "nv21") {
        *pePicType = LDC_PIC_NV21;
    } else if (strLower == "nv12") {
        *pePicType = LDC_PIC_NV12;
    } else if (strLower == "i420" || strLower == "yuv420") {
        *pePicType = LDC_PIC_YUV420;
    } else {
        return false;
    }
    return true;
}

const char *PicTypeName(int32_t ePicType)
{
    switch (ePicType) {
    case LDC_PIC_NV21: return "NV21";
    case LDC_PIC_NV12: return "NV12";
    case LDC_PIC_YUV420: return "I420";
    default: return "?";
    }
}

bool ParseDumpName(const std::string &strPath, tagST_QV_DUMP_NAME *pstName)
{
    const size_t uSlash = strPath.find_last_of('/');
    const std::string strName = uSlash == std::string::npos ? strPath : strPath.substr(uSlash + 1);
    // No file system names a file longer than this, and std::regex recurses once per character:
    // a long enough name given on the command line would overflow the stack.
    if (strName.size() > QV_MAX_NAME_BYTES) {
        return false;
    }
    // The faces are joined by blanks; a frame without faces leaves "coord_" followed directly by
    // "_ISO=", hence the optional face group.
    static const std::regex s_name("^(\\d{8}_\\d{6})_coord_(.*)_ISO=(-?\\d+)_(org|output)\\.yuv$");
    static const std::regex s_face("^left=(-?\\d+)_top=(-?\\d+)_right=(-?\\d+)_bottom=(-?\\d+)$");
    std::smatch match;
    if (!std::regex_match(strName, match, s_name)) {
        return false;
    }
    tagST_QV_DUMP_NAME stName;
    stName.strStamp = match[1];
    if (!ParseInt(match[3], INT32_MIN, INT32_MAX, &stName.iISO)) {
        return false;
    }
    stName.bInput = match[4] == "org";
    const std::string strFaces = match[2];
    size_t uStart = 0;
    while (uStart < strFaces.size()) {
        size_t uEnd = strFaces.find(' ', uStart);
        if (uEnd == std::string::npos) {
            uEnd = strFaces.size();
        }
        const std::string strFace = strFaces.substr(uStart, uEnd - uStart);
        std::smatch faceMatch;
        int32_t aiValue[4];
        if (!std::regex_match(strFace, faceMatch, s_face)) {
            return false;
        }
        for (int32_t i = 0; i < 4; i++) {
            if (!ParseInt(faceMatch[i + 1], INT32_MIN, INT32_MAX, &aiValue[i])) {
                return false;
            }
        }
        stName.vstFaces.push_back({aiValue[0], aiValue[1], aiValue[2], aiValue[3]});
        uStart = uEnd + 1;
    }
    *pstName = stName;
    return true;
}

std::string FormatDumpName(const std::string &strStamp, const std::vector<ST_FACE_RECT> &vstFaces,
                           int32_t iISO, int32_t bInput)
{
    std::string strName = strStamp + "_coord_";
    char acFace[128];
    for (size_t i = 0; i < vstFaces.size(); i++) {
        snprintf(acFace, sizeof(acFace), "left=%d_top=%d_right=%d_bottom=%d%s", vstFaces[i].iLeft,
                 vstFaces[i].iTop, vstFaces[i].iRight, vstFaces[i].iBottom, i + 1 < vstFaces.size() ? " " : "");
        strName += acFace;
    }
    snprintf(acFace, sizeof(acFace), "_ISO=%d_%s.yuv", iISO, bInput ? "org" : "output");
    return strName + acFace;
}

static bool FacesFit(const tagST_QV_SIZE &stSize, const std::vector<ST_FACE_RECT> &vstFaces)
{
    for (const ST_FACE_RECT &stFace : vstFaces) {
        if (stFace.iLeft < 0 || stFace.iTop < 0 || stFace.iRight >= stSize.iWidth ||
            stFace.iBottom >= stSize.iHeight) {
            return false;
        }
    }
    return true;
}

bool GuessFrameSize(uint64_t ulBytes, const std::vector<tagST_QV_SIZE> &vstProfiles,
                    const std::vector<ST_FACE_RECT> &vstFaces, tagST_QV_SIZE *pstSize)
{
    for (int32_t bTransposed = 0; bTransposed < 2; bTransposed++) {
        for (const tagST_QV_SIZE &stProfile : vstProfiles) {
            const tagST_QV_SIZE stSize = bTransposed ? tagST_QV_SIZE{stProfile.iHeight, stProfile.iWidth} : stProfile;
            if (stSize.iWidth <= 0 || stSize.iHeight <= 0) {
                continue;
            }
            if ((uint64_t)stSize.iWidth * (uint64_t)stSize.iHeight * 3 / 2 == ulBytes && FacesFit(stSize, vstFaces)) {
                *pstSize = stSize;
                return true;
            }
        }
    }
    return false;
}

static const char s_acLogTag[] = "/ZB5QU_QVLDC: ";

bool IsLibraryLogLine(const std::string &strLine)
{
    return strLine.size() >= 2 && (strLine[0] == 'I' || strLine[0] == 'E') &&
           strLine.compare(1, sizeof(s_acLogTag) - 1, s_acLogTag) == 0;
}

int32_t LibraryTimeMs(const std::string &strLog)
{
    std::istringstream stream(strLog);
    std::string strLine;
    int32_t iTimeMs = -1;
    while (std::getline(stream, strLine)) {
        int32_t iMs = 0;
        if (IsLibraryLogLine(strLine) &&
            sscanf(strLine.c_str() + sizeof(s_acLogTag), "The time of IQV_LDC_Process is = %d ms", &iMs) == 1) {
            iTimeMs = iMs;
        }
    }
    return iTimeMs;
}

void CountRepeatedLine(const std::string &strLine, std::vector<tagST_QV_REPEAT> *pvstRepeats)
{
    tagST_QV_REPEAT stLine = {{std::string()}, {}, 1};
    const size_t uEnd = strLine.find_last_not_of(" \t\r") + 1;   // npos + 1 == 0 for a blank line
    for (size_t i = 0; i < uEnd; i++) {
        if (isdigit((unsigned char)strLine[i])) {
            if (i == 0 || !isdigit((unsigned char)strLine[i - 1])) {
                stLine.vstrNumbers.push_back(std::string());
                stLine.vstrText.push_back(std::string());
            }
            stLine.vstrNumbers.back() += strLine[i];
        } else {
            stLine.vstrText.back() += strLine[i];
        }
    }
    for (tagST_QV_REPEAT &stSeen : *pvstRepeats) {
        if (stSeen.vstrText == stLine.vstrText) {
            for (size_t i = 0; i < stSeen.vstrNumbers.size(); i++) {
                if (stSeen.vstrNumbers[i] != stLine.vstrNumbers[i]) {
                    stSeen.vstrNumbers[i] = "*";
                }
            }
            stSeen.iCount++;
            return;
        }
    }
    pvstRepeats->push_back(stLine);
}

std::string RepeatedLineText(const tagST_QV_REPEAT &stRepeat)
{
    std::string strText = stRepeat.vstrText[0];
    for (size_t i = 0; i < stRepeat.vstrNumbers.size(); i++) {
        strText += stRepeat.vstrNumbers[i] + stRepeat.vstrText[i + 1];
    }
    if (stRepeat.iCount > 1) {
        strText += " (x " + std::to_string(stRepeat.iCount) + ")";
    }
    return strText;
}

std::string JoinLines(const std::string &strText)
{
    std::istringstream stream(strText);
    std::string strLine;
    std::string strJoined;
    while (std::getline(stream, strLine)) {
        const size_t uFirst = strLine.find_first_not_of(" \t\r");
        if (uFirst != std::string::npos) {
            const size_t uEnd = strLine.find_last_not_of(" \t\r") + 1;
            strJoined += (strJoined.empty() ? "" : "; ") + strLine.substr(uFirst, uEnd - uFirst);
        }
    }
    return strJoined;
}

// Why the plan did without a face homography.
static std::string RefusalText(const tagST_LDC_PLAN &stPlan)
{
    switch (stPlan.eRefusal) {
    case LDC_REFUSAL_FLAG:
        return "face correction is off (FDCFlag)";
    case LDC_REFUSAL_BAD_FACE:
        return "a face rectangle is less than two pixels wide or high";
    case LDC_REFUSAL_NO_FACE:
        return "no valid face";
    case LDC_REFUSAL_MULTI_FACES:
        return "several faces and MultiFacesFDCFlag off";
    case LDC_REFUSAL_CENTRE:
        return "every face inside the restricted centre";
    case LDC_REFUSAL_FOV:
        return "the face correction cost too much field of view";
    case LDC_REFUSAL_FACE_EDGE:
        return "the face correction pushed the outer edge of face " + std::to_string(stPlan.iRefusedFace + 1) + " out";
    case LDC_REFUSAL_MESH:
        return "the face mesh solve failed (" + std::to_string(stPlan.iMeshStatus) + ")";
    default:
        return "no correction applies";
    }
}

std::string DescribePlanPath(const tagST_LDC_PLAN &stPlan, const tagST_LDC_PARA &stPara)
{
    const std::string strModel = stPara.iLDCEnable == 1 ? " (lens model over its valid area)" : " (global face model)";
    switch (stPlan.ePath) {
    case LDC_PATH_LENS:
        return stPlan.eRefusal == LDC_REFUSAL_MESH ? "lens remap alone: " + RefusalText(stPlan)
                                                   : "lens remap alone: a field-of-view budget of 100% makes no face fit";
    case LDC_PATH_MESH:
        return "face mesh with the lens remap in one pass (FDCMethod 1)";
    case LDC_PATH_FACE:
        return "face homography on the lens-corrected frame";
    case LDC_PATH_GLOBAL:
        return "global face correction: the line check found no bending line" + strModel;
    case LDC_PATH_FALLBACK:
        return "global correction as the fallback of a refused face correction: " + RefusalText(stPlan) + strModel;
    default:
        return "copy: " + (stPlan.bNotFinite ? std::string("the warp matrix is not finite") : RefusalText(stPlan));
    }
}

int32_t PlanLineCount(const tagST_LDC_PLAN &stPlan)
{
    return stPlan.stLineCheck.iKept < LDC_PLAN_MAX_LINES ? stPlan.stLineCheck.iKept : LDC_PLAN_MAX_LINES;
}

E_QV_LINE_STATE PlanLineState(const tagST_LDC_PLAN &stPlan, int32_t i)
{
    const tagST_LINE_CHECK &stCheck = stPlan.stLineCheck;
    if (i >= stCheck.iJudged) {
        return QV_LINE_UNJUDGED;
    }
    return stCheck.iVerdict == 0 && i == stCheck.iJudged - 1 ? QV_LINE_BENDS : QV_LINE_STRAIGHT;
}

const char *UsageText()
{
    return
"qvldc - run the lens and face distortion correction on dumped frames or photos, offline.\n"
"\n"
"One frame:\n"
"  qvldc --in FRAME --config FILE [options]\n"
"    FRAME is raw YUV 4:2:0 (any name but .png/.jpg/.jpeg; without --size the configuration's\n"
"    profiles decide the size from the file length) or a PNG/JPEG photo of up to 5000 x 5000\n"
"    (converted to --format).\n"
"    A dump name (see --batch) supplies the faces and the ISO.\n"
"  --size WxH            frame size of a raw frame, e.g. 4000x3000\n"
"  --format F            nv21 (default), nv12 or i420: layout of the raw frame and of --out-yuv\n"
"  --iso N               ISO of the frame (default 100; a dump name supplies its own)\n"
"  --face L,T,R,B        a face rectangle, inclusive edges; repeat for several faces\n"
"  --faces-file FILE     face rectangles, one L,T,R,B per line ('#' starts a comment)\n"
"  --detect-faces        find faces with OpenCV's Haar cascade instead\n"
"  --cascade FILE        cascade for --detect-faces\n"
"                        (default /usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml)\n"
"  --out-yuv FILE        corrected frame, raw, in --format\n"
"  --out-png FILE        corrected frame as PNG\n"
"  --before-png FILE     input frame as PNG\n"
"  --overlay FILE        input frame with the faces (thin: as given, thick: widened by the\n"
"                        library), the valid areas (cyan: lens, magenta: global face\n"
"                        correction), the lines the line check kept (green: judged straight\n"
"                        enough, red: the one that would bend, faint grey: not judged), on\n"
"                        the face mesh path the mesh's grid where the output samples the\n"
"                        input (orange), and the decision\n"
"  --png-width N         write --out-png, --before-png and --overlay N pixels wide\n"
"  --quiet               do not repeat the library's log, print only the decision\n"
"\n"
"A directory of frames dumped by the library (persist.camera.zb5qu.qvldc.yuv=1):\n"
"  qvldc --batch DIR --config FILE [--size WxH] [--format F] [--out-dir DIR] [--report FILE]\n"
"              [--stream]\n"
"    Processes every *_org.yuv; faces and ISO come from the file names, the size from --size\n"
"    or from the file length and the configuration's profiles. Writes <name>_after.png,\n"
"    <name>_overlay.png and summary.csv into --out-dir (default DIR/qvldc). Entries that are\n"
"    not a readable frame are reported and skipped; the exit status is then 1. On a terminal\n"
"    a progress bar shows the count, the rate and the time left; otherwise every frame gets\n"
"    a line with them.\n"
"  --report FILE         also an HTML page for a browser, no network needed: a summary (paths\n"
"                        taken, field of view lost, time per frame) and a row per frame with\n"
"                        before / after / overlay thumbnails (full size: <name>_before.png and\n"
"                        the others in --out-dir), the decision and why, the faces, the lines\n"
"                        the line check judged and the warnings; sortable by column, refused\n"
"                        corrections and losses near the budget marked\n"
"  --stream              the frames are one stream, in name order: one instance for all of them,\n"
"                        as in a preview (a size change re-reads the configuration; the face\n"
"                        mesh follows from frame to frame). Without it every frame is a capture\n"
"                        of its own, on a fresh instance\n"
"\n"
"The project's sample scene (two faces near the border, straight architecture, recorded\n"
"through the configured lens):\n"
"  qvldc --render-sample DIR --config FILE [--size WxH] [--iso N] [--frames N]\n"
"    Writes DIR/sample_WxH.png, DIR/sample_WxH_faces.txt and the same frame as a dump\n"
"    (DIR/dumps/<dump name>_org.yuv, NV21) for --batch. Default size 4000x3000.\n"
"  --frames N            instead N dumps of the scene with varied people (none to three,\n"
"                        large and small, centre to corners), the same on every run\n"
"\n"
"With --in, --batch and --render-sample:\n"
"  --set KEY=VALUE       run with a configuration value changed, without editing the file;\n"
"                        KEY is the element's path, e.g. FaceDistortionCorrection/FOVLost or\n"
"                        /Config/DistortionCorrection1/BendValue; repeat for several\n"
"\n"
"A size profile's lens from photos of a printed chessboard taken with the camera itself:\n"
"  qvldc --calibrate DIR --size WxH --board COLSxROWS [--square MM] [--profile-out FILE]\n"
"    Finds the board in every photo of DIR (.png .jpg .jpeg; WxH, the\n"
"    profile's frame size, in the sensor's orientation) and fits the library's lens model:\n"
"    one focal length for both axes, radial k1 k2 k3, no tangential terms, the principal\n"
"    point held on the odd whole pixels the library moves it to. Prints the photos it used\n"
"    and those it rejected with the reason (other size, no board, error over 3x the\n"
"    median), the camera matrix, the coefficients in the profile's order k1 k2 k3 p1 p2, the\n"
"    RMS reprojection error, how far towards the frame corners the boards were seen (below\n"
"    80 % k2 and k3 are guesses there) and the lens area the library keeps, then the profile\n"
"    block (DistortionCorrection1, to renumber) or writes it to --profile-out FILE.\n"
"  --board COLSxROWS     inner corners of the board (a board of 10 x 7 squares has 9x6)\n"
"  --square MM           side of a square; only the printed board distances use it\n"
"    The keys that are not the lens's get defaults to tune, noted in the block: a global\n"
"    face correction of 1.05 at the corners with a bend measure strength of 1 / fx,\n"
"    BendValue the shorter side / 250 (at least 2), SvmFactor half the shorter side.\n"
"\n"
"What is printed: the library's log lines (I/ZB5QU_QVLDC: ... / E/ZB5QU_QVLDC: ...) and the\n"
"plan the frame driver made: which path the frame took (face homography, lens remap alone,\n"
"global correction after the line check, global correction as fallback, or copy) and, when\n"
"face correction was refused, the check that refused it; the field of view lost and the face\n"
"fit's rounds; the line check's counts; then the LDC/FDC switches and the FDC mode the\n"
"instance holds; then what the output shows, measured from the plan: the warp's zoom at the\n"
"frame centre and how much of the input's width and height the output spans, the border where\n"
"the warp ran out of source and repeats the frame's edge (per side, in % of the width or\n"
"height), and whether a widened face leaves the frame (the overlay traces the output's frame\n"
"back onto the input in orange). Anything else the library prints (its worker-pinning\n"
"warnings on machines with fewer than four cores) comes once at the end of the run, with a\n"
"count; numbers that differed between the copies show as '*'.\n"
"\n"
"Examples:\n"
"  qvldc --in frame.nv21 --size 4000x3000 --config configs/qvldc_sample.xml \\\n"
"        --face 435,1060,784,1597 --face 3193,1106,3604,1718 --out-png after.png --overlay ov.png\n"
"  qvldc --in portrait.jpg --format nv12 --config my.xml --detect-faces --before-png b.png \\\n"
"        --out-png a.png --overlay ov.png\n"
"  adb pull /data/qvldc dumps && qvldc --batch dumps --config my.xml --out-dir tuned \\\n"
"        --report tuned/report.html\n"
"  qvldc --in frame.nv21 --size 640x480 --config my.xml --set FaceDistortionCorrection/FOVLost=100\n"
"  qvldc --render-sample out/sample --config configs/qvldc_sample.xml --size 640x480\n"
"  qvldc --calibrate shots --size 4000x3000 --board 9x6 --square 25 --profile-out lens.xml\n";
}

namespace {

// One element of an XML text: where its start tag begins, its content and where its end tag ends.
struct XmlSpan {
    size_t uOpen;
    size_t uContent;
    size_t uContentEnd;
    size_t uClose;
};

bool SameName(const std::string &strA, const std::string &strB)
{
    return strA.size() == strB.size() &&
           std::equal(strA.begin(), strA.end(), strB.begin(),
                      [](char a, char b) { return tolower((unsigned char)a) == tolower((unsigned char)b); });
}

// The first element named strName (any when empty) directly inside [uBegin, uEnd). Comments,
// processing instructions and declarations are stepped over.
bool FindChild(const std::string &strXml, size_t uBegin, size_t uEnd, const std::string &strName, XmlSpan *pstSpan)
{
    int32_t iDepth = 0;
    size_t uAt = uBegin;
    XmlSpan stSpan = {0, 0, 0, 0};
    bool bInside = false;
    while ((uAt = strXml.find('<', uAt)) != std::string::npos && uAt < uEnd) {
        if (strXml.compare(uAt, 4, "<!--") == 0 || strXml.compare(uAt, 2, "<?") == 0 ||
            strXml.compare(uAt, 2, "<!") == 0) {
            const char *pcClose = strXml.compare(uAt, 4, "<!--") == 0 ? "-->" : (strXml[uAt + 1] == '?' ? "?>" : ">");
            const size_t uStop = strXml.find(pcClose, uAt + 2);
            if (uStop == std::string::npos) {
                return false;
            }
            uAt = uStop + strlen(pcClose);
            continue;
        }
        const size_t uTagEnd = strXml.find('>', uAt);
        if (uTagEnd == std::string::npos) {
            return false;
        }
        const bool bEnd = strXml[uAt + 1] == '/';
        const bool bEmpty = strXml[uTagEnd - 1] == '/';
        const size_t uNameAt = uAt + (bEnd ? 2 : 1);
        const size_t uNameEnd = strXml.find_first_of(" \t\r\n/>", uNameAt);
        const std::string strTag = strXml.substr(uNameAt, uNameEnd - uNameAt);
        if (bEnd) {
            iDepth--;
            if (iDepth == 0 && bInside) {
                stSpan.uContentEnd = uAt;
                stSpan.uClose = uTagEnd + 1;
                *pstSpan = stSpan;
                return true;
            }
        } else if (iDepth == 0 && (strName.empty() || SameName(strTag, strName))) {
            stSpan = {uAt, uTagEnd + 1, uTagEnd + 1, uTagEnd + 1};
            if (bEmpty) {
                *pstSpan = stSpan;
                return true;
            }
            bInside = true;
            iDepth++;
        } else if (!bEmpty) {
            iDepth++;
        }
        uAt = uTagEnd + 1;
    }
    return false;
}

}  // namespace

bool SetConfigValue(const std::string &strXml, const std::string &strKey, const std::string &strValue,
                    std::string *pstrOut, bool *pbAdded, std::string *pstrError)
{
    *pbAdded = false;
    if (strValue.find_first_of("<&") != std::string::npos) {
        *pstrError = "a value may not hold '<' or '&'";
        return false;
    }
    std::vector<std::string> vstrPath;
    std::istringstream stream(strKey);
    std::string strPart;
    while (std::getline(stream, strPart, '/')) {
        if (!strPart.empty()) {
            vstrPath.push_back(strPart);
        }
    }
    XmlSpan stSpan;
    if (!FindChild(strXml, 0, strXml.size(), "", &stSpan)) {
        *pstrError = "the configuration has no root element";
        return false;
    }
    const size_t uRootEnd = strXml.find_first_of(" \t\r\n/>", stSpan.uOpen + 1);
    const std::string strRoot = strXml.substr(stSpan.uOpen + 1, uRootEnd - stSpan.uOpen - 1);
    if (!vstrPath.empty() && SameName(vstrPath[0], strRoot)) {
        vstrPath.erase(vstrPath.begin());
    }
    if (vstrPath.empty()) {
        *pstrError = "a key names an element, e.g. FaceDistortionCorrection/FOVLost";
        return false;
    }
    for (size_t i = 0; i < vstrPath.size(); i++) {
        XmlSpan stChild;
        if (FindChild(strXml, stSpan.uContent, stSpan.uContentEnd, vstrPath[i], &stChild)) {
            stSpan = stChild;
            continue;
        }
        if (i + 1 < vstrPath.size() || stSpan.uContent == stSpan.uContentEnd) {
            *pstrError = "the configuration has no element " + vstrPath[i] + " on that path";
            return false;
        }
        *pstrOut = strXml.substr(0, stSpan.uContentEnd) + "<" + vstrPath[i] + ">" + strValue + "</" + vstrPath[i] +
                   ">" + strXml.substr(stSpan.uContentEnd);
        *pbAdded = true;
        return true;
    }
    if (stSpan.uContent == stSpan.uClose) {
        *pstrError = "the element " + vstrPath.back() + " is written <.../>; give it a value in the file";
        return false;
    }
    XmlSpan stInner;
    if (FindChild(strXml, stSpan.uContent, stSpan.uContentEnd, "", &stInner)) {
        *pstrError = "the element " + vstrPath.back() + " holds elements, not a value";
        return false;
    }
    *pstrOut = strXml.substr(0, stSpan.uContent) + strValue + strXml.substr(stSpan.uContentEnd);
    return true;
}

bool ParseOptions(int iArgc, const char *const *ppcArgv, tagST_QV_OPTIONS *pstOptions, std::string *pstrError)
{
    tagST_QV_OPTIONS stOpt;
    stOpt.eMode = QV_MODE_FRAME;
    stOpt.stSize = {0, 0};
    stOpt.ePicType = LDC_PIC_NV21;
    stOpt.iISO = 100;
    stOpt.bDetectFaces = 0;
    stOpt.bQuiet = 0;
    stOpt.bStream = 0;
    stOpt.stBoard = {0, 0};
    stOpt.dSquare = 0.0;
    stOpt.iPngWidth = 0;
    stOpt.iSampleFrames = 0;
    stOpt.strCascade = "/usr/share/opencv4/haarcascades/haarcascade_frontalface_default.xml";
    int32_t iModes = 0;
    for (int i = 1; i < iArgc; i++) {
        const std::string strArg = ppcArgv[i];
        if (strArg == "--help" || strArg == "-h") {
            pstOptions->eMode = QV_MODE_HELP;
            return true;
        }
    }
    for (int i = 1; i < iArgc; i++) {
        const std::string strArg = ppcArgv[i];
        auto value = [&](std::string *pstrValue) {
            if (i + 1 >= iArgc) {
                *pstrError = strArg + " needs a value";
                return false;
            }
            *pstrValue = ppcArgv[++i];
            return true;
        };
        std::string strValue;
        if (strArg == "--detect-faces") {
            stOpt.bDetectFaces = 1;
            continue;
        }
        if (strArg == "--quiet") {
            stOpt.bQuiet = 1;
            continue;
        }
        if (strArg == "--stream") {
            stOpt.bStream = 1;
            continue;
        }
        if (strArg.compare(0, 2, "--") != 0) {
            *pstrError = "unexpected argument " + strArg;
            return false;
        }
        if (!value(&strValue)) {
            return false;
        }
        if (strArg == "--in" || strArg == "--batch" || strArg == "--render-sample" || strArg == "--calibrate") {
            stOpt.eMode = strArg == "--in" ? QV_MODE_FRAME : strArg == "--batch" ? QV_MODE_BATCH
                        : strArg == "--render-sample" ? QV_MODE_RENDER : QV_MODE_CALIBRATE;
            stOpt.strIn = strValue;
            iModes++;
        } else if (strArg == "--config") {
            stOpt.strConfig = strValue;
        } else if (strArg == "--size") {
            if (!ParseFrameSize(strValue, &stOpt.stSize)) {
                *pstrError = "--size wants WxH with both sides in 1..5000, not " + strValue;
                return false;
            }
        } else if (strArg == "--format") {
            if (!ParsePicType(strValue, &stOpt.ePicType)) {
                *pstrError = "--format wants nv21, nv12 or i420, not " + strValue;
                return false;
            }
        } else if (strArg == "--iso") {
            if (!ParseInt(strValue, INT32_MIN, INT32_MAX, &stOpt.iISO)) {
                *pstrError = "--iso wants an integer, not " + strValue;
                return false;
            }
        } else if (strArg == "--face") {
            ST_FACE_RECT stFace;
            if (!ParseFaceRect(strValue, &stFace)) {
                *pstrError = "--face wants L,T,R,B with L <= R and T <= B, not " + strValue;
                return false;
            }
            stOpt.vstFaces.push_back(stFace);
        } else if (strArg == "--faces-file") {
            stOpt.strFacesFile = strValue;
        } else if (strArg == "--cascade") {
            stOpt.strCascade = strValue;
        } else if (strArg == "--out-yuv") {
            stOpt.strOutYuv = strValue;
        } else if (strArg == "--out-png") {
            stOpt.strOutPng = strValue;
        } else if (strArg == "--before-png") {
            stOpt.strBeforePng = strValue;
        } else if (strArg == "--overlay") {
            stOpt.strOverlayPng = strValue;
        } else if (strArg == "--out-dir") {
            stOpt.strOutDir = strValue;
        } else if (strArg == "--board") {
            // OpenCV's board search needs at least 3 inner corners each way.
            if (!ParseFrameSize(strValue, &stOpt.stBoard) || stOpt.stBoard.iWidth < 3 || stOpt.stBoard.iHeight < 3) {
                *pstrError = "--board wants COLSxROWS inner corners, each at least 3, not " + strValue;
                return false;
            }
        } else if (strArg == "--square") {
            char *pcEnd = NULL;
            stOpt.dSquare = strtod(strValue.c_str(), &pcEnd);
            if (pcEnd == strValue.c_str() || *pcEnd != '\0' || !(stOpt.dSquare > 0.0 && stOpt.dSquare < 1e6)) {
                *pstrError = "--square wants the side of a square in millimetres, not " + strValue;
                return false;
            }
        } else if (strArg == "--profile-out") {
            stOpt.strProfileOut = strValue;
        } else if (strArg == "--set") {
            const size_t uEq = strValue.find('=');
            if (uEq == std::string::npos || uEq == 0) {
                *pstrError = "--set wants KEY=VALUE, e.g. FaceDistortionCorrection/FOVLost=100, not " + strValue;
                return false;
            }
            stOpt.vstSets.push_back({strValue.substr(0, uEq), strValue.substr(uEq + 1)});
        } else if (strArg == "--report") {
            stOpt.strReport = strValue;
        } else if (strArg == "--png-width") {
            if (!ParseInt(strValue, 16, LDC_MAX_IMAGE_SIZE, &stOpt.iPngWidth)) {
                *pstrError = "--png-width wants a width in pixels, 16..5000, not " + strValue;
                return false;
            }
        } else if (strArg == "--frames") {
            if (!ParseInt(strValue, 1, 1000, &stOpt.iSampleFrames)) {
                *pstrError = "--frames wants a count, 1..1000, not " + strValue;
                return false;
            }
        } else {
            *pstrError = "unknown option " + strArg + " (see --help)";
            return false;
        }
    }
    if (iModes != 1) {
        *pstrError = iModes == 0
                         ? "say what to do: --in FRAME, --batch DIR, --render-sample DIR or --calibrate DIR (see --help)"
                         : "--in, --batch, --render-sample and --calibrate exclude each other";
        return false;
    }
    if (stOpt.eMode == QV_MODE_CALIBRATE && (stOpt.stSize.iWidth == 0 || stOpt.stBoard.iWidth == 0)) {
        *pstrError = "--calibrate needs --size WxH (the frames the profile serves) and --board COLSxROWS";
        return false;
    }
    if (stOpt.strConfig.empty() && stOpt.eMode != QV_MODE_CALIBRATE) {
        *pstrError = "--config FILE is required";
        return false;
    }
    if (stOpt.strConfig.empty() && !stOpt.vstSets.empty()) {
        *pstrError = "--set changes a configuration: give it with --config FILE";
        return false;
    }
    const bool bFaceSources = !stOpt.vstFaces.empty() || !stOpt.strFacesFile.empty();
    if (stOpt.bDetectFaces && bFaceSources) {
        *pstrError = "--detect-faces replaces --face and --faces-file; give one or the other";
        return false;
    }
    if (stOpt.eMode != QV_MODE_FRAME && (bFaceSources || stOpt.bDetectFaces)) {
        *pstrError = "faces are given per frame: --face, --faces-file and --detect-faces go with --in";
        return false;
    }
    if (!stOpt.strReport.empty() && stOpt.eMode != QV_MODE_BATCH) {
        *pstrError = "--report goes with --batch";
        return false;
    }
    if (stOpt.bStream && stOpt.eMode != QV_MODE_BATCH) {
        *pstrError = "--stream goes with --batch";
        return false;
    }
    if (stOpt.iSampleFrames > 0 && stOpt.eMode != QV_MODE_RENDER) {
        *pstrError = "--frames goes with --render-sample";
        return false;
    }
    *pstOptions = stOpt;
    return true;
}

float InvertRadialModel(const tagST_RADIAL_MODEL *pstModel, float fRho, float fRMax)
{
    if (fRho <= 0.0f) {
        return 0.0f;
    }
    float fLo = 0.0f;
    float fHi = fRho;
    // Barrel lenses record a corrected radius further in: grow the bracket until it holds fRho.
    while (fHi * RadialFactorSerial(pstModel, fHi * fHi) < fRho) {
        if (fHi >= fRMax) {
            return -1.0f;
        }
        fLo = fHi;
        fHi = fHi * 2.0f < fRMax ? fHi * 2.0f : fRMax;
    }
    for (int32_t i = 0; i < 40 && fHi - fLo > 1e-4f; i++) {
        const float fMid = 0.5f * (fLo + fHi);
        if (fMid * RadialFactorSerial(pstModel, fMid * fMid) < fRho) {
            fLo = fMid;
        } else {
            fHi = fMid;
        }
    }
    return 0.5f * (fLo + fHi);
}
