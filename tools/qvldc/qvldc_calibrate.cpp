#include "qvldc_calibrate.h"

#include <dirent.h>
#include <fcntl.h>
#include <math.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include <opencv2/calib3d.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "config/config_schema.h"
#include "geometry/lens_model.h"
#include "qvldc_io.h"

namespace {

const int32_t kMinViews = 3;              // fewer photos cannot pin down fx, k1..k3 and the poses
const double kOutlierFactor = 3.0;        // a photo this many times worse than the median is dropped ...
const double kOutlierFloorPx = 0.25;      // ... unless its error is small anyway
const int32_t kDetectSide = 1600;         // the board is searched on a copy no larger than this
const double kGoodReach = 0.8;            // boards seen this far out pin down k1..k3 over the frame
// Global face correction written by default: a factor of 1.05 at the frame corners (g0 r^2 = 0.04,
// g1 r^4 = 0.01 there), as the sample configuration's profiles.
const double kGlobalG0AtCorner = 0.04;
const double kGlobalG1AtCorner = 0.01;

std::string SizeText(int32_t iW, int32_t iH)
{
    return std::to_string(iW) + "x" + std::to_string(iH);
}

std::string FormatBlock(tagST_QV_SIZE stSize, const tagST_QV_LENS &stLens, const std::string &strNote)
{
    const int32_t iW = stSize.iWidth;
    const int32_t iH = stSize.iHeight;
    const double dCorner2 = (double)(iW >> 1) * (iW >> 1) + (double)(iH >> 1) * (iH >> 1);
    const int32_t iShort = std::min(iW, iH);
    const int32_t iBend = std::max(2, (int32_t)lround(iShort / 250.0));
    char acText[2048];
    // %.9g keeps every digit a float holds: the library reads exactly what was fitted.
    snprintf(acText, sizeof(acText),
             "  <DistortionCorrection1>\n"
             "    <ImageWidth>%d</ImageWidth>\n"
             "    <ImageHeight>%d</ImageHeight>\n"
             "    <CameraMatrix>\n"
             "      %.9g 0 %.9g\n"
             "      0 %.9g %.9g\n"
             "      0 0 1\n"
             "    </CameraMatrix>\n"
             "    <DistortionCoefficients>%.9g %.9g %.9g 0 0</DistortionCoefficients>\n"
             "    <GlobalFDCCoefficients>%.9g %.9g 0 %.9g</GlobalFDCCoefficients>\n"
             "    <BendValue>%d</BendValue>\n"
             "    <SvmFactor>%d</SvmFactor>\n"
             "  </DistortionCorrection1>\n",
             iW, iH, stLens.dFx, stLens.dU0, stLens.dFx, stLens.dV0, stLens.adK[0], stLens.adK[1], stLens.adK[2],
             kGlobalG0AtCorner / dCorner2, kGlobalG1AtCorner / (dCorner2 * dCorner2), 1.0 / stLens.dFx, iBend,
             iShort >> 1);
    return strNote + acText;
}

// The block as the library reads it: through its own configuration parser, which also moves the
// principal point to odd whole pixels and refuses what it would refuse on the phone.
bool ReadBackProfile(tagST_QV_SIZE stSize, const tagST_QV_LENS &stLens, tagST_LDC_PARA *pstPara,
                     std::string *pstrError)
{
    const char *pcTmp = getenv("TMPDIR");
    std::string strPath = std::string(pcTmp != NULL && *pcTmp ? pcTmp : "/tmp") + "/qvldc_profile_XXXXXX";
    const int iFd = mkstemp(&strPath[0]);
    if (iFd < 0) {
        *pstrError = "cannot create a scratch file in " + strPath.substr(0, strPath.rfind('/'));
        return false;
    }
    // Without a declaration beside it, the root element itself would become the document and
    // no "/Config/..." path would be found.
    const std::string strText =
        "<?xml version=\"1.0\"?>\n<Config>\n" + FormatBlock(stSize, stLens, "") + "</Config>\n";
    const bool bWritten = write(iFd, strText.data(), strText.size()) == (ssize_t)strText.size();
    close(iFd);
    memset(pstPara, 0, sizeof(*pstPara));
    pstPara->iImgWidth = stSize.iWidth;
    pstPara->iImgHeight = stSize.iHeight;
    const int32_t iRet = bWritten ? ParseConfigFile(strPath.c_str(), pstPara) : LDC_ERR_XML_LOAD;
    unlink(strPath.c_str());
    if (iRet != LDC_OK) {
        *pstrError = "the library refuses the fitted profile (" + std::to_string(iRet) + ")";
        return false;
    }
    return true;
}

// A photo read as the frame reader reads photos: opened once, regular files only, its size taken
// from its header and refused before decoding; in the sensor's own orientation (a rotation tag
// would turn the photo away from the frames the profile serves). Decoder complaints go into the
// reason.
cv::Mat ReadGrey(const std::string &strPath, std::string *pstrReason)
{
    std::vector<uint8_t> vucFile;
    uint32_t uWidth = 0;
    uint32_t uHeight = 0;
    if (!ReadInputFile(strPath, QV_MAX_PHOTO_FILE_BYTES, &vucFile, pstrReason) ||
        !PhotoHeaderSize(vucFile.data(), vucFile.size(), &uWidth, &uHeight, pstrReason)) {
        return cv::Mat();
    }
    if (uWidth > LDC_MAX_IMAGE_SIZE || uHeight > LDC_MAX_IMAGE_SIZE) {
        *pstrReason = "declares " + SizeText((int32_t)uWidth, (int32_t)uHeight) + ", more than a frame can be";
        return cv::Mat();
    }
    cv::Mat stGray;
    const std::string strDecoder = CaptureOutput([&] {
        stGray = cv::imdecode(cv::Mat(1, (int)vucFile.size(), CV_8UC1, (void *)vucFile.data()),
                              cv::IMREAD_GRAYSCALE | cv::IMREAD_IGNORE_ORIENTATION);
    });
    if (stGray.empty()) {
        *pstrReason = "cannot be decoded";
    }
    return stGray;
}

struct Fit {
    cv::Matx33d stK;
    cv::Mat stDist;   // OpenCV's order: k1 k2 p1 p2 k3
    double dRms;
    std::vector<double> vdViewRms;
    std::vector<cv::Mat> vstR;
    std::vector<cv::Mat> vstT;
};

// OpenCV's pinhole model with fx = fy and no tangential terms maps a corrected pixel p to
// c + f (p - c), f = 1 + k1 r^2 + k2 r^4 + k3 r^6 with r = |p - c| / fx: the library's lens model.
// With bFixCentre the fit starts from *pstFit and keeps its principal point.
bool FitViews(const std::vector<cv::Point3f> &vstBoard, const std::vector<std::vector<cv::Point2f>> &vvstCorners,
              tagST_QV_SIZE stSize, bool bFixCentre, Fit *pstFit)
{
    int iFlags = cv::CALIB_FIX_ASPECT_RATIO | cv::CALIB_ZERO_TANGENT_DIST;
    if (bFixCentre) {
        iFlags |= cv::CALIB_USE_INTRINSIC_GUESS | cv::CALIB_FIX_PRINCIPAL_POINT;
    } else {
        pstFit->stK = cv::Matx33d::eye();   // the aspect ratio fx / fy = 1 is all OpenCV takes from it
        pstFit->stDist = cv::Mat::zeros(5, 1, CV_64F);
    }
    pstFit->stDist = pstFit->stDist.clone();   // a copied Fit shares its coefficients with the original
    const std::vector<std::vector<cv::Point3f>> vvstBoard(vvstCorners.size(), vstBoard);
    cv::Mat stStdIn, stStdEx, stViewRms;
    try {
        pstFit->dRms = cv::calibrateCamera(vvstBoard, vvstCorners, cv::Size(stSize.iWidth, stSize.iHeight),
                                           pstFit->stK, pstFit->stDist, pstFit->vstR, pstFit->vstT, stStdIn,
                                           stStdEx, stViewRms, iFlags,
                                           cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 200,
                                                            1e-12));
    } catch (const cv::Exception &) {
        return false;
    }
    pstFit->vdViewRms.assign(stViewRms.begin<double>(), stViewRms.end<double>());
    return std::isfinite(pstFit->dRms) && pstFit->stK(0, 0) > 0;
}

tagST_QV_LENS LensOf(const Fit &stFit)
{
    const double *pdD = stFit.stDist.ptr<double>();
    return {stFit.stK(0, 0), stFit.stK(0, 2), stFit.stK(1, 2), {pdD[0], pdD[1], pdD[4]}};
}

std::vector<std::vector<cv::Point2f>> UsedCorners(const std::vector<tagST_QV_CALIB_VIEW> &vstViews,
                                                  std::vector<size_t> *pvuUsed)
{
    std::vector<std::vector<cv::Point2f>> vvstCorners;
    pvuUsed->clear();
    for (size_t i = 0; i < vstViews.size(); i++) {
        if (vstViews[i].bUsed) {
            pvuUsed->push_back(i);
            vvstCorners.push_back(vstViews[i].vstCorners);
        }
    }
    return vvstCorners;
}

// Fits the photos with a board, with the principal point free; sets aside once the photos far
// worse than the rest (a moved board, a misread corner, another camera) and fits again.
bool FitDroppingOutliers(const std::vector<cv::Point3f> &vstBoard, tagST_QV_SIZE stSize,
                         std::vector<tagST_QV_CALIB_VIEW> *pvstViews, Fit *pstFit, std::vector<size_t> *pvuUsed,
                         std::string *pstrError)
{
    for (int32_t iRound = 0; iRound < 2; iRound++) {
        const std::vector<std::vector<cv::Point2f>> vvstCorners = UsedCorners(*pvstViews, pvuUsed);
        if ((int32_t)pvuUsed->size() < kMinViews) {
            *pstrError = "only " + std::to_string(pvuUsed->size()) + " of " + std::to_string(pvstViews->size()) +
                         " photos show a usable board; at least 3 are needed";
            return false;
        }
        if (!FitViews(vstBoard, vvstCorners, stSize, false, pstFit)) {
            *pstrError = "the calibration did not converge";
            return false;
        }
        std::vector<double> vdSorted = pstFit->vdViewRms;
        std::nth_element(vdSorted.begin(), vdSorted.begin() + vdSorted.size() / 2, vdSorted.end());
        const double dMedian = vdSorted[vdSorted.size() / 2];
        const double dLimit = std::max(kOutlierFactor * dMedian, kOutlierFloorPx);
        bool bDropped = false;
        for (size_t k = 0; k < pvuUsed->size() && iRound == 0; k++) {
            if (pstFit->vdViewRms[k] > dLimit) {
                char acReason[160];
                snprintf(acReason, sizeof(acReason), "reprojection error %.2f px, over %.0fx the median %.3f px",
                         pstFit->vdViewRms[k], kOutlierFactor, dMedian);
                tagST_QV_CALIB_VIEW &stView = (*pvstViews)[(*pvuUsed)[k]];
                stView.bUsed = 0;
                stView.dRms = pstFit->vdViewRms[k];
                stView.strReason = acReason;
                bDropped = true;
            }
        }
        if (!bDropped) {
            break;
        }
    }
    return true;
}

// Every photo of the directory, by name, with its board corners or the reason it has none.
bool ReadViews(const std::string &strDir, tagST_QV_SIZE stSize, tagST_QV_SIZE stBoard,
               std::vector<tagST_QV_CALIB_VIEW> *pvstViews, std::string *pstrError)
{
    std::vector<std::string> vstrNames;
    DIR *pDir = opendir(strDir.c_str());
    if (pDir == NULL) {
        *pstrError = "cannot open the directory " + strDir;
        return false;
    }
    while (struct dirent *pstEntry = readdir(pDir)) {
        if (IsPhotoPath(pstEntry->d_name)) {
            vstrNames.push_back(pstEntry->d_name);
        }
    }
    closedir(pDir);
    std::sort(vstrNames.begin(), vstrNames.end());
    if (vstrNames.empty()) {
        *pstrError = "no photos (.png, .jpg, .jpeg) in " + strDir;
        return false;
    }
    for (const std::string &strName : vstrNames) {
        tagST_QV_CALIB_VIEW stView;
        stView.strName = strName;
        stView.bUsed = 0;
        stView.dRms = -1.0;
        stView.dDistance = 0.0;
        const cv::Mat stGray = ReadGrey(strDir + "/" + strName, &stView.strReason);
        if (stGray.empty()) {
            // The reader gave the reason.
        } else if (stGray.cols != stSize.iWidth || stGray.rows != stSize.iHeight) {
            stView.strReason = SizeText(stGray.cols, stGray.rows) + ", not " + SizeText(stSize.iWidth, stSize.iHeight);
        } else if (!FindBoardCorners(stGray, stBoard, &stView.vstCorners)) {
            stView.strReason = "no " + SizeText(stBoard.iWidth, stBoard.iHeight) + " board found";
        } else {
            stView.bUsed = 1;
        }
        pvstViews->push_back(stView);
    }
    return true;
}

}  // namespace

bool FindBoardCorners(const cv::Mat &stGray, tagST_QV_SIZE stBoard, std::vector<cv::Point2f> *pvstCorners)
{
    const cv::Size stPattern(stBoard.iWidth, stBoard.iHeight);
    const double dScale = std::min(1.0, (double)kDetectSide / std::max(stGray.cols, stGray.rows));
    cv::Mat stSmall = stGray;
    if (dScale < 1.0) {
        cv::resize(stGray, stSmall, cv::Size(), dScale, dScale, cv::INTER_AREA);
    }
    std::vector<cv::Point2f> vstCorners;
    bool bFound = cv::findChessboardCorners(stSmall, stPattern, vstCorners,
                                            cv::CALIB_CB_ADAPTIVE_THRESH | cv::CALIB_CB_NORMALIZE_IMAGE);
    if (!bFound) {
        // Slower, but copes with blur and uneven light where the classic search gives up.
        bFound = cv::findChessboardCornersSB(stSmall, stPattern, vstCorners, cv::CALIB_CB_NORMALIZE_IMAGE);
    }
    if (!bFound || vstCorners.size() != (size_t)stPattern.area()) {
        return false;
    }
    // Back to full-size pixels (pixel centres at whole numbers in both images).
    for (cv::Point2f &stP : vstCorners) {
        stP = (stP + cv::Point2f(0.5f, 0.5f)) * (float)(1.0 / dScale) - cv::Point2f(0.5f, 0.5f);
    }
    // The refinement window stays inside the squares around a corner, so that it never meets the
    // next corner.
    float fSpacing = 1e9f;
    for (int32_t y = 0; y < stPattern.height; y++) {
        for (int32_t x = 0; x < stPattern.width; x++) {
            const cv::Point2f &stP = vstCorners[y * stPattern.width + x];
            if (x + 1 < stPattern.width) {
                fSpacing = std::min(fSpacing, (float)cv::norm(vstCorners[y * stPattern.width + x + 1] - stP));
            }
            if (y + 1 < stPattern.height) {
                fSpacing = std::min(fSpacing, (float)cv::norm(vstCorners[(y + 1) * stPattern.width + x] - stP));
            }
        }
    }
    const int32_t iHalf = std::max(2, std::min(15, (int32_t)(fSpacing * 0.4f)));
    cv::cornerSubPix(stGray, vstCorners, cv::Size(iHalf, iHalf), cv::Size(-1, -1),
                     cv::TermCriteria(cv::TermCriteria::COUNT + cv::TermCriteria::EPS, 50, 1e-3));
    *pvstCorners = vstCorners;
    return true;
}

bool CalibrateDirectory(const std::string &strDir, tagST_QV_SIZE stSize, tagST_QV_SIZE stBoard, double dSquare,
                        tagST_QV_CALIBRATION *pstCalib, std::string *pstrError)
{
    tagST_QV_CALIBRATION &stCalib = *pstCalib;
    stCalib = tagST_QV_CALIBRATION();
    stCalib.stSize = stSize;
    stCalib.stBoard = stBoard;
    if (!ReadViews(strDir, stSize, stBoard, &stCalib.vstViews, pstrError)) {
        return false;
    }
    std::vector<cv::Point3f> vstBoard;
    for (int32_t y = 0; y < stBoard.iHeight; y++) {
        for (int32_t x = 0; x < stBoard.iWidth; x++) {
            vstBoard.push_back(cv::Point3f((float)(x * dSquare), (float)(y * dSquare), 0.0f));
        }
    }
    Fit stFree;
    std::vector<size_t> vuUsed;
    if (!FitDroppingOutliers(vstBoard, stSize, &stCalib.vstViews, &stFree, &vuUsed, pstrError)) {
        *pstrError += " (" + SizeText(stBoard.iWidth, stBoard.iHeight) + " board, " +
                      SizeText(stSize.iWidth, stSize.iHeight) + " photos)";
        return false;
    }

    // The library moves the principal point to odd whole pixels; the coefficients are fitted with
    // it held there, so that the profile corrects as well as the photos say it does.
    tagST_LDC_PARA stPara;
    if (!ReadBackProfile(stSize, LensOf(stFree), &stPara, pstrError)) {
        return false;
    }
    Fit stFixed = stFree;
    stFixed.stK(0, 2) = stPara.afCameraMatrix[2];
    stFixed.stK(1, 2) = stPara.afCameraMatrix[5];
    if (!FitViews(vstBoard, UsedCorners(stCalib.vstViews, &vuUsed), stSize, true, &stFixed)) {
        *pstrError = "the calibration did not converge with the principal point at the library's pixel";
        return false;
    }
    stCalib.stLens = LensOf(stFixed);
    if (!ReadBackProfile(stSize, stCalib.stLens, &stPara, pstrError)) {
        return false;
    }
    GetUndistortedArea(&stPara, LDC_AREA_LENS);
    memcpy(stCalib.aiLDCArea, stPara.aiLDCArea, sizeof(stCalib.aiLDCArea));
    stCalib.dRms = stFixed.dRms;
    stCalib.dFreeU0 = stFree.stK(0, 2);
    stCalib.dFreeV0 = stFree.stK(1, 2);
    stCalib.dFreeRms = stFree.dRms;

    // How far out the boards were seen: k2 and k3 are only known as far as the corners reach.
    const cv::Point2f stCentre((float)stCalib.stLens.dU0, (float)stCalib.stLens.dV0);
    double dFarthest = 0;
    for (int32_t k = 0; k < 4; k++) {
        const cv::Point2f stFrameCorner((k & 1) ? (float)(stSize.iWidth - 1) : 0.0f,
                                        (k & 2) ? (float)(stSize.iHeight - 1) : 0.0f);
        dFarthest = std::max(dFarthest, (double)cv::norm(stFrameCorner - stCentre));
    }
    const cv::Vec3d stMiddle((stBoard.iWidth - 1) * dSquare / 2, (stBoard.iHeight - 1) * dSquare / 2, 0);
    for (size_t k = 0; k < vuUsed.size(); k++) {
        tagST_QV_CALIB_VIEW &stView = stCalib.vstViews[vuUsed[k]];
        for (const cv::Point2f &stP : stView.vstCorners) {
            stCalib.dReach = std::max(stCalib.dReach, cv::norm(stP - stCentre) / dFarthest);
        }
        stView.dRms = stFixed.vdViewRms[k];
        cv::Matx33d stR;
        cv::Rodrigues(stFixed.vstR[k], stR);
        stView.dDistance = cv::norm(stR * stMiddle + cv::Vec3d(stFixed.vstT[k]));
    }
    return true;
}

std::string FormatProfileBlock(const tagST_QV_CALIBRATION &stCalib)
{
    int32_t iUsed = 0;
    for (const tagST_QV_CALIB_VIEW &stView : stCalib.vstViews) {
        iUsed += stView.bUsed;
    }
    char acNote[1536];
    snprintf(acNote, sizeof(acNote),
             "  <!-- %dx%d: lens calibrated by qvldc --calibrate from %d of %zu photos of a %dx%d board,\n"
             "       RMS reprojection error %.3f px. u0 and v0 are the odd whole pixels the library\n"
             "       uses (the photos put them at %.2f, %.2f); k1 k2 k3 were fitted with them held there.\n"
             "       Renumber the block to a free profile 1..7. Not from the calibration, to tune:\n"
             "       GlobalFDCCoefficients g0 g1 give the global face correction a factor of 1.05 at the\n"
             "       frame corners, g2 = 0, and the bend measure's strength is 1 / fx; BendValue grows\n"
             "       with the frame (shorter side / 250, at least 2); SvmFactor is half the shorter side.\n"
             "  -->\n",
             stCalib.stSize.iWidth, stCalib.stSize.iHeight, iUsed, stCalib.vstViews.size(), stCalib.stBoard.iWidth,
             stCalib.stBoard.iHeight, stCalib.dRms, stCalib.dFreeU0, stCalib.dFreeV0);
    return FormatBlock(stCalib.stSize, stCalib.stLens, acNote);
}

int RunCalibrate(const tagST_QV_OPTIONS &stOpt)
{
    tagST_QV_CALIBRATION stCalib;
    std::string strError;
    const bool bOk = CalibrateDirectory(stOpt.strIn, stOpt.stSize, stOpt.stBoard,
                                        stOpt.dSquare > 0 ? stOpt.dSquare : 1.0, &stCalib, &strError);
    const char *pcUnit = stOpt.dSquare > 0 ? "mm" : "squares";
    for (const tagST_QV_CALIB_VIEW &stView : stCalib.vstViews) {
        if (stView.bUsed && !bOk) {
            printf("found    %s: board found\n", stView.strName.c_str());
        } else if (stView.bUsed) {
            printf("used     %s: %.3f px, board %.1f %s away\n", stView.strName.c_str(), stView.dRms, stView.dDistance,
                   pcUnit);
        } else {
            printf("rejected %s: %s\n", stView.strName.c_str(), stView.strReason.c_str());
        }
    }
    if (!bOk) {
        fprintf(stderr, "qvldc: %s\n", strError.c_str());
        return 2;
    }
    const tagST_QV_LENS &stLens = stCalib.stLens;
    printf("camera matrix (principal point as the library stores it):\n"
           "  %.9g 0 %.9g\n  0 %.9g %.9g\n  0 0 1\n",
           stLens.dFx, stLens.dU0, stLens.dFx, stLens.dV0);
    printf("distortion coefficients k1 k2 k3 p1 p2: %.9g %.9g %.9g 0 0\n", stLens.adK[0], stLens.adK[1],
           stLens.adK[2]);
    printf("RMS reprojection error: %.3f px (%.3f px with the principal point free at %.2f, %.2f)\n", stCalib.dRms,
           stCalib.dFreeRms, stCalib.dFreeU0, stCalib.dFreeV0);
    printf("board corners seen out to %.0f%% of the way to the farthest frame corner%s\n", 100 * stCalib.dReach,
           stCalib.dReach < kGoodReach ? "; warning: k2 and k3 are guesses beyond, add photos with the board "
                                         "in the corners" : "");
    printf("lens area the library keeps: [%d, %d, %d, %d]\n", stCalib.aiLDCArea[0], stCalib.aiLDCArea[1],
           stCalib.aiLDCArea[2], stCalib.aiLDCArea[3]);
    const std::string strBlock = FormatProfileBlock(stCalib);
    if (stOpt.strProfileOut.empty()) {
        fputs(strBlock.c_str(), stdout);
        return 0;
    }
    std::ofstream stFile(stOpt.strProfileOut, std::ios::binary);
    stFile << strBlock;
    stFile.close();
    if (!stFile) {
        fprintf(stderr, "qvldc: cannot write %s\n", stOpt.strProfileOut.c_str());
        return 1;
    }
    printf("profile block written to %s\n", stOpt.strProfileOut.c_str());
    return 0;
}
