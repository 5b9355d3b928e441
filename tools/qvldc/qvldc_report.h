// The tuner's report of a batch: one HTML page that needs no network (thumbnails inlined, the
// full-size pictures beside it), and the batch's progress on the terminal. No OpenCV here, so
// the unit tests compile this file on every target.
#ifndef QVLDC_REPORT_H
#define QVLDC_REPORT_H

#include <stdint.h>

#include <string>
#include <vector>

#include "interface/ldc_plan.h"
#include "qvldc_view.h"

// The short name of a path, as summary.csv and the report count them.
const char *PathKey(int32_t ePath);

// One picture of a frame: the full-size file (relative to the report, as a link) and its
// thumbnail (a data URI).
typedef struct tagST_QV_PICTURE {
    std::string strLabel;
    std::string strHref;
    std::string strThumb;
} tagST_QV_PICTURE;

// One processed frame as the report shows it; everything comes from the run, nothing is
// worked out again here.
typedef struct tagST_QV_REPORT_ROW {
    std::string strName;
    int32_t iWidth;
    int32_t iHeight;
    int32_t iISO;
    int32_t iFacesGiven;
    int32_t iRet;                   // IQV_LDC_Process's return code
    int32_t iTimeMs;                // as the library logged it, -1 when it did not
    int32_t iFovBudget;             // FOVLost of the frame's configuration
    int32_t iFDCMode;
    tagST_LDC_PLAN stPlan;
    std::string strPath;            // the path in words (DescribePlanPath)
    std::string strBendText;        // the library's words on the bending line, when one bent
    tagST_QV_VIEW stView;
    std::vector<std::string> vstrLibrary;    // the library's error lines and other output, folded
    std::vector<tagST_QV_PICTURE> vstPictures;   // before, after, overlay (a further method adds one)
} tagST_QV_REPORT_ROW;

// Whether the row stands out: the correction was refused (or the call failed), or the field of
// view it cost is near the budget (at least 80 % of FOVLost on the face path).
bool RowRefused(const tagST_QV_REPORT_ROW &stRow);
bool RowNearBudget(const tagST_QV_REPORT_ROW &stRow);

// The page. strTitle names the batch; vstrSkipped lists the entries that were not frames, with why.
std::string ReportHtml(const std::string &strTitle, const std::vector<tagST_QV_REPORT_ROW> &vstRows,
                       const std::vector<std::string> &vstrSkipped);

// strPath (a file) as a link relative to the directory strFromDir; both absolute. Characters
// that end or escape a URL are percent-encoded.
std::string RelativeLink(const std::string &strFromDir, const std::string &strPath);
// "data:<mime>;base64,..." of the bytes.
std::string DataUri(const std::string &strMime, const std::vector<uint8_t> &vucBytes);

// Median of the values (the mean of the middle two for an even count); 0 for none.
double Median(std::vector<double> vdValues);

// Progress of a batch after iDone of iTotal frames in dSeconds: "12/50, 1.3 frames/s, 29 s left".
std::string ProgressText(int32_t iDone, int32_t iTotal, double dSeconds);
// The same as a bar for a terminal iColumns wide, the current frame's name cut to fit.
std::string ProgressBar(int32_t iDone, int32_t iTotal, double dSeconds, const std::string &strName,
                        int32_t iColumns);

#endif
