// The parts of qvldc that only read text and numbers: command line, face rectangles, frame sizes
// and picture types, the debug dump's file names, frame-size guessing, the library's log, and the
// inverse of the lens model for rendering recorded frames. No OpenCV here, so the unit tests
// compile this file on every target.
#ifndef QVLDC_PARSE_H
#define QVLDC_PARSE_H

#include <stdint.h>

#include <string>
#include <utility>
#include <vector>

#include "geometry/lens_model.h"
#include "interface/ldc_plan.h"
#include "vkt_zb_ldc.h"

typedef struct tagST_QV_SIZE {
    int32_t iWidth;
    int32_t iHeight;
} tagST_QV_SIZE;

// What the library's debug dump encodes in a file name:
// "<%Y%m%d_%H%M%S>_coord_left=%d_top=%d_right=%d_bottom=%d[ left=..]_ISO=%d_org.yuv".
typedef struct tagST_QV_DUMP_NAME {
    std::string strStamp;
    std::vector<ST_FACE_RECT> vstFaces;
    int32_t iISO;
    int32_t bInput;   // 1 for "_org.yuv" (an input frame), 0 for "_output.yuv"
} tagST_QV_DUMP_NAME;

typedef enum tagE_QV_MODE {
    QV_MODE_FRAME = 0,   // one frame (--in)
    QV_MODE_BATCH,       // a directory of dumped frames (--batch)
    QV_MODE_RENDER,      // the sample scene (--render-sample)
    QV_MODE_CALIBRATE,   // a lens profile from chessboard photos (--calibrate)
    QV_MODE_HELP
} E_QV_MODE;

typedef struct tagST_QV_OPTIONS {
    E_QV_MODE eMode;
    std::string strIn;            // frame file, or the directory of --batch / --render-sample
    std::string strConfig;
    tagST_QV_SIZE stSize;         // 0 x 0 when not given
    int32_t ePicType;             // LDC_PIC_NV21 unless --format says otherwise
    int32_t iISO;
    std::vector<ST_FACE_RECT> vstFaces;
    std::string strFacesFile;
    int32_t bDetectFaces;
    std::string strCascade;
    std::string strOutYuv;
    std::string strOutPng;
    std::string strBeforePng;
    std::string strOverlayPng;
    std::string strOutDir;        // batch and render outputs
    int32_t bQuiet;               // keep the library's log to the summary
    int32_t bStream;              // --batch: one instance for every frame, as a preview stream
    tagST_QV_SIZE stBoard;        // --calibrate: inner corners of the chessboard, columns x rows
    double dSquare;               // --calibrate: side of a square (0: not given)
    std::string strProfileOut;    // --calibrate: where the profile block goes
    std::vector<std::pair<std::string, std::string>> vstSets;   // --set KEY=VALUE, in order
    std::string strReport;        // --batch: the HTML report
    int32_t iPngWidth;            // --png-width: written pictures scaled to this width (0: as is)
    int32_t iSampleFrames;        // --render-sample --frames N: N dumps with varied people (0: the sample)
} tagST_QV_OPTIONS;

// "L,T,R,B": four integers, blanks allowed around the commas.
bool ParseFaceRect(const std::string &strText, ST_FACE_RECT *pstFace);
// One "L,T,R,B" per line; blank lines and lines starting with '#' are skipped. On a bad line
// returns false with its 1-based number in *piBadLine.
bool ParseFacesText(const std::string &strText, std::vector<ST_FACE_RECT> *pvstFaces, int32_t *piBadLine);
// "WxH" (or "W*H"), both in 1..LDC_MAX_IMAGE_SIZE.
bool ParseFrameSize(const std::string &strText, tagST_QV_SIZE *pstSize);
// "nv21", "nv12" or "i420" (also "yuv420"), any case.
bool ParsePicType(const std::string &strText, int32_t *pePicType);
const char *PicTypeName(int32_t ePicType);

#define QV_MAX_NAME_BYTES 255   // longest file name the file systems allow

// Accepts a bare name or a path; false when the name is not a dump name (or longer than any).
bool ParseDumpName(const std::string &strPath, tagST_QV_DUMP_NAME *pstName);
// The name the library's dump gives a frame (without directory).
std::string FormatDumpName(const std::string &strStamp, const std::vector<ST_FACE_RECT> &vstFaces,
                           int32_t iISO, int32_t bInput);

// The frame size of a raw 4:2:0 file of ulBytes bytes, from the configuration's profile sizes:
// each profile as declared, then transposed (the library serves both orientations), the first
// whose frame has ulBytes bytes and holds every face. False when none fits.
bool GuessFrameSize(uint64_t ulBytes, const std::vector<tagST_QV_SIZE> &vstProfiles,
                    const std::vector<ST_FACE_RECT> &vstFaces, tagST_QV_SIZE *pstSize);

// Whether strLine is one of the library's host log lines ("I/ZB5QU_QVLDC: ..." / "E/ZB5QU_QVLDC: ...").
bool IsLibraryLogLine(const std::string &strLine);
// The time the library logged for its frame ("The time of IQV_LDC_Process is = %d ms"); -1 when
// it logged none.
int32_t LibraryTimeMs(const std::string &strLog);

// Lines that differ only in their numbers, counted as one line: a worker's CPU mask and thread
// id change from stage to stage, the warning does not.
typedef struct tagST_QV_REPEAT {
    std::vector<std::string> vstrText;      // the text around the numbers (one more than numbers)
    std::vector<std::string> vstrNumbers;   // the first line's numbers, "*" where a later one differs
    int32_t iCount;
} tagST_QV_REPEAT;
void CountRepeatedLine(const std::string &strLine, std::vector<tagST_QV_REPEAT> *pvstRepeats);
// The line once, with " (x N)" when it came N > 1 times.
std::string RepeatedLineText(const tagST_QV_REPEAT &stRepeat);
// Several lines of text as one, joined by "; ", for an error line.
std::string JoinLines(const std::string &strText);

// Which way the frame driver took the frame and why, in words, from its plan and the instance's
// decision fields after the frame.
std::string DescribePlanPath(const tagST_LDC_PLAN &stPlan, const tagST_LDC_PARA &stPara);

// How the line check treated the plan's line i: judged straight, the one that bent, or kept but
// never judged (an earlier line bent).
typedef enum tagE_QV_LINE_STATE {
    QV_LINE_STRAIGHT = 0,
    QV_LINE_BENDS,
    QV_LINE_UNJUDGED
} E_QV_LINE_STATE;
E_QV_LINE_STATE PlanLineState(const tagST_LDC_PLAN &stPlan, int32_t i);
// How many of the kept lines the plan holds.
int32_t PlanLineCount(const tagST_LDC_PLAN &stPlan);

// The configuration text with the element at strKey set to strValue. strKey is the path the
// library reads ("/Config/FaceDistortionCorrection/FOVLost", the root optional), matched as the
// library matches it: names without regard to case, the first of repeated elements. A missing
// last element is added to its parent (*pbAdded). False with the reason when a parent is missing
// or the value would change the document's structure.
bool SetConfigValue(const std::string &strXml, const std::string &strKey, const std::string &strValue,
                    std::string *pstrOut, bool *pbAdded, std::string *pstrError);

// Parses argv; on false *pstrError says why. --help wins over everything else.
bool ParseOptions(int iArgc, const char *const *ppcArgv, tagST_QV_OPTIONS *pstOptions, std::string *pstrError);
const char *UsageText();

// Inverse of the radial model on the radius: the corrected radius r whose recorded radius
// r f(r) is fRho, found by bisection (the model is monotonic over a lens's useful range). -1
// when no r up to fRMax reaches fRho, i.e. the pixel lies beyond what the model can correct.
float InvertRadialModel(const tagST_RADIAL_MODEL *pstModel, float fRho, float fRMax);

#endif
