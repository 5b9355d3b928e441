#include "qvldc_image.h"

#include <math.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <cmath>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>
#include <opencv2/objdetect.hpp>

#include "geometry/lens_model.h"
#include "linedetect/line_bend.h"
#include "qvldc_io.h"
#include "qvldc_view.h"

// 4:2:0 chroma needs even sides: a photo loses its last column or row when they are odd.
static bool PhotoSideFits(uint32_t uSide)
{
    return (uSide & ~1u) >= 2 && (uSide & ~1u) <= LDC_MAX_IMAGE_SIZE;
}

static bool LoadPhoto(const std::vector<uint8_t> &vucFile, int32_t ePicType, tagST_QV_FRAME *pstFrame,
                      std::string *pstrError)
{
    uint32_t uWidth = 0;
    uint32_t uHeight = 0;
    if (!PhotoHeaderSize(vucFile.data(), vucFile.size(), &uWidth, &uHeight, pstrError)) {
        return false;
    }
    // Refused before decoding: a decoder allocates what the header declares.
    if (!PhotoSideFits(uWidth) || !PhotoSideFits(uHeight)) {
        *pstrError = "the photo declares " + std::to_string(uWidth) + " x " + std::to_string(uHeight) +
                     " pixels; 2..5000 on each side are accepted";
        return false;
    }
    cv::Mat stBgr;
    const std::string strDecoder = CaptureOutput([&] {
        stBgr = cv::imdecode(cv::Mat(1, (int)vucFile.size(), CV_8UC1, (void *)vucFile.data()), cv::IMREAD_COLOR);
    });
    if (stBgr.empty()) {
        const std::string strWhy = JoinLines(strDecoder);
        *pstrError = "cannot decode the photo" + (strWhy.empty() ? std::string() : " (" + strWhy + ")");
        return false;
    }
    // What the decoder warned about a photo it still decoded (a cut JPEG scan, say) is for the tuner.
    fputs(strDecoder.c_str(), stderr);
    stBgr = stBgr(cv::Rect(0, 0, stBgr.cols & ~1, stBgr.rows & ~1)).clone();
    BgrToFrame(stBgr, ePicType, pstFrame);
    return true;
}

bool LoadFrame(const std::string &strPath, tagST_QV_SIZE stSize, const std::vector<tagST_QV_SIZE> &vstProfiles,
               const std::vector<ST_FACE_RECT> &vstFaces, int32_t ePicType, tagST_QV_FRAME *pstFrame,
               std::string *pstrError)
{
    const bool bPhoto = IsPhotoPath(strPath);
    if (!bPhoto && ((stSize.iWidth | stSize.iHeight) & 1)) {
        *pstrError = "4:2:0 frames have even sides";
        return false;
    }
    const uint64_t ulLargestFrame = (uint64_t)LDC_MAX_IMAGE_SIZE * LDC_MAX_IMAGE_SIZE * 3 / 2;
    std::vector<uint8_t> vucData;
    if (!ReadInputFile(strPath, bPhoto ? QV_MAX_PHOTO_FILE_BYTES : ulLargestFrame, &vucData, pstrError)) {
        return false;
    }
    if (bPhoto) {
        return LoadPhoto(vucData, ePicType, pstFrame, pstrError);
    }
    if (stSize.iWidth == 0 && !GuessFrameSize(vucData.size(), vstProfiles, vstFaces, &stSize)) {
        *pstrError = "no profile of the configuration has a frame of " + std::to_string(vucData.size()) +
                     " bytes; give --size WxH";
        return false;
    }
    const size_t uBytes = (size_t)stSize.iWidth * stSize.iHeight * 3 / 2;
    if (vucData.size() != uBytes) {
        char acMsg[160];
        snprintf(acMsg, sizeof(acMsg), "%zu bytes, but a %dx%d 4:2:0 frame has %zu", vucData.size(),
                 stSize.iWidth, stSize.iHeight, uBytes);
        *pstrError = acMsg;
        return false;
    }
    pstFrame->iWidth = stSize.iWidth;
    pstFrame->iHeight = stSize.iHeight;
    pstFrame->ePicType = ePicType;
    pstFrame->vucData.swap(vucData);
    return true;
}

bool SaveRaw(const std::string &strPath, const tagST_QV_FRAME &stFrame)
{
    FILE *pFile = fopen(strPath.c_str(), "wb");
    if (pFile == NULL) {
        return false;
    }
    const size_t uWritten = fwrite(stFrame.vucData.data(), 1, stFrame.vucData.size(), pFile);
    return fclose(pFile) == 0 && uWritten == stFrame.vucData.size();
}

cv::Mat FrameToBgr(const tagST_QV_FRAME &stFrame)
{
    cv::Mat stYuv(stFrame.iHeight * 3 / 2, stFrame.iWidth, CV_8UC1, (void *)stFrame.vucData.data());
    const int iCode = stFrame.ePicType == LDC_PIC_NV21 ? cv::COLOR_YUV2BGR_NV21
                    : stFrame.ePicType == LDC_PIC_NV12 ? cv::COLOR_YUV2BGR_NV12 : cv::COLOR_YUV2BGR_I420;
    cv::Mat stBgr;
    cv::cvtColor(stYuv, stBgr, iCode);
    return stBgr;
}

void BgrToFrame(const cv::Mat &stBgr, int32_t ePicType, tagST_QV_FRAME *pstFrame)
{
    cv::Mat stI420;
    cv::cvtColor(stBgr, stI420, cv::COLOR_BGR2YUV_I420);
    const size_t uS = (size_t)stBgr.cols * stBgr.rows;
    pstFrame->iWidth = stBgr.cols;
    pstFrame->iHeight = stBgr.rows;
    pstFrame->ePicType = ePicType;
    pstFrame->vucData.assign(stI420.data, stI420.data + uS * 3 / 2);
    if (ePicType != LDC_PIC_YUV420) {
        const uint8_t *pucU = stI420.data + uS;
        const uint8_t *pucV = pucU + uS / 4;
        uint8_t *pucDst = pstFrame->vucData.data() + uS;
        const int32_t bVFirst = ePicType == LDC_PIC_NV21;
        for (size_t i = 0; i < uS / 4; i++) {
            pucDst[2 * i] = bVFirst ? pucV[i] : pucU[i];
            pucDst[2 * i + 1] = bVFirst ? pucU[i] : pucV[i];
        }
    }
}

bool SavePng(const std::string &strPath, const cv::Mat &stBgr)
{
    try {
        return cv::imwrite(strPath, stBgr);
    } catch (const cv::Exception &) {
        return false;
    }
}

cv::Mat ScaledToWidth(const cv::Mat &stBgr, int32_t iWidth)
{
    if (iWidth <= 0 || iWidth >= stBgr.cols) {
        return stBgr;
    }
    cv::Mat stSmall;
    const double dScale = (double)iWidth / stBgr.cols;
    cv::resize(stBgr, stSmall, cv::Size(iWidth, std::max(1, (int32_t)lround(stBgr.rows * dScale))), 0, 0,
               cv::INTER_AREA);
    return stSmall;
}

std::vector<uint8_t> ThumbnailJpeg(const cv::Mat &stBgr)
{
    std::vector<uint8_t> vucJpeg;
    cv::imencode(".jpg", ScaledToWidth(stBgr, 320), vucJpeg, {cv::IMWRITE_JPEG_QUALITY, 80});
    return vucJpeg;
}

bool DetectFaces(const cv::Mat &stBgr, const std::string &strCascade, std::vector<ST_FACE_RECT> *pvstFaces,
                 std::string *pstrError)
{
    // Read like any other input (a FIFO or a directory would otherwise hang or throw), then parsed
    // from memory.
    std::vector<uint8_t> vucXml;
    if (!ReadInputFile(strCascade, QV_MAX_CASCADE_FILE_BYTES, &vucXml, pstrError)) {
        *pstrError += " (OpenCV's face cascades are in the Debian package opencv-data)";
        return false;
    }
    cv::CascadeClassifier cascade;
    std::string strWhy = "not a cascade OpenCV reads";
    try {
        const cv::FileStorage storage(std::string(vucXml.begin(), vucXml.end()),
                                      cv::FileStorage::READ | cv::FileStorage::MEMORY);
        if (storage.isOpened() && cascade.read(storage.getFirstTopLevelNode())) {
            strWhy.clear();
        }
    } catch (const cv::Exception &e) {
        strWhy += " (" + JoinLines(e.err) + ")";
    }
    if (!strWhy.empty()) {
        *pstrError = strWhy;
        return false;
    }
    // The cascade works on about 1000-pixel images; big frames are searched downscaled.
    const double dScale = std::min(1.0, 1000.0 / std::max(stBgr.cols, stBgr.rows));
    cv::Mat stGray;
    cv::cvtColor(stBgr, stGray, cv::COLOR_BGR2GRAY);
    cv::resize(stGray, stGray, cv::Size(), dScale, dScale, cv::INTER_AREA);
    cv::equalizeHist(stGray, stGray);
    std::vector<cv::Rect> vstRects;
    cascade.detectMultiScale(stGray, vstRects, 1.1, 4, 0, cv::Size(24, 24));
    std::sort(vstRects.begin(), vstRects.end(), [](const cv::Rect &a, const cv::Rect &b) { return a.x < b.x; });
    for (const cv::Rect &stRect : vstRects) {
        const int32_t iL = (int32_t)(stRect.x / dScale);
        const int32_t iT = (int32_t)(stRect.y / dScale);
        const int32_t iR = std::min(stBgr.cols - 1, (int32_t)((stRect.x + stRect.width) / dScale) - 1);
        const int32_t iB = std::min(stBgr.rows - 1, (int32_t)((stRect.y + stRect.height) / dScale) - 1);
        pvstFaces->push_back({iL, iT, iR, iB});
    }
    return true;
}

static void DrawRect(cv::Mat &stImage, int32_t iL, int32_t iT, int32_t iR, int32_t iB, const cv::Scalar &stColor,
                     int32_t iThick)
{
    cv::rectangle(stImage, cv::Point(iL, iT), cv::Point(iR, iB), stColor, iThick, cv::LINE_8);
}

// The mesh's grid lines where they sample the input: each vertex displaced by the mesh, then
// through the lens model, as the render maps an output position.
static void DrawMesh(cv::Mat &stOut, const tagST_LDC_PARA &stPara, const tagST_MESH_GRID &stGrid,
                     const std::vector<float> &vfMesh, const cv::Scalar &stColor, int32_t iThick)
{
    tagST_RADIAL_MODEL stLens;
    GetRadialModel(&stPara, 1, &stLens);
    auto source = [&](int32_t i, int32_t j) {
        const float *pf = &vfMesh[2 * ((size_t)j * stGrid.iCols + i)];
        const float fDx = ((float)i * stGrid.fStepX + pf[0]) - stLens.fCx;
        const float fDy = ((float)j * stGrid.fStepY + pf[1]) - stLens.fCy;
        const float fF = RadialFactorSerial(&stLens, fDx * fDx + fDy * fDy);
        return cv::Point(cvRound(stLens.fCx + fF * fDx), cvRound(stLens.fCy + fF * fDy));
    };
    // Every iStride-th grid line, about 16 along the longer side, each traced through all its vertices.
    const int32_t iStride = std::max(1, (std::max(stGrid.iCols, stGrid.iRows) - 1) / 16);
    for (int32_t j = 0; j < stGrid.iRows; j++) {
        for (int32_t i = 0; i < stGrid.iCols; i++) {
            if (j % iStride == 0 && i + 1 < stGrid.iCols) {
                cv::line(stOut, source(i, j), source(i + 1, j), stColor, iThick, cv::LINE_AA);
            }
            if (i % iStride == 0 && j + 1 < stGrid.iRows) {
                cv::line(stOut, source(i, j), source(i, j + 1), stColor, iThick, cv::LINE_AA);
            }
        }
    }
}

cv::Mat DrawOverlay(const cv::Mat &stBefore, const std::vector<ST_FACE_RECT> &vstFaces,
                    const tagST_LDC_PARA &stPara, const tagST_LDC_PLAN &stPlan, const std::vector<float> &vfMesh,
                    const tagST_QV_DECISION &stDecision)
{
    cv::Mat stOut = stBefore.clone();
    const int32_t iW = stOut.cols;
    const int32_t iH = stOut.rows;
    const int32_t iThick = std::max(1, iW / 640);
    const cv::Scalar stCyan(255, 255, 0), stMagenta(255, 0, 255), stYellow(0, 230, 255), stWhite(255, 255, 255);
    const cv::Scalar astLineColor[3] = {cv::Scalar(0, 220, 0), cv::Scalar(0, 0, 255), cv::Scalar(200, 200, 200)};

    // Lines first, so that the rectangles stay readable on top. DrawLine paints 255 into an
    // 8-bit plane of frame pixels; the plane is thickened to be visible on big frames.
    // Unjudged lines go first, thin and faint: after the first bending line they only show
    // what else the check found.
    if (PlanLineCount(stPlan) > 0) {
        const E_QV_LINE_STATE aeOrder[3] = {QV_LINE_UNJUDGED, QV_LINE_STRAIGHT, QV_LINE_BENDS};
        for (E_QV_LINE_STATE eState : aeOrder) {
            cv::Mat stMask = cv::Mat::zeros(iH, iW, CV_8UC1);
            for (int32_t i = 0; i < PlanLineCount(stPlan); i++) {
                if (PlanLineState(stPlan, i) == eState) {
                    DrawLine(stMask.data, &stPlan.astLines[i], iW);
                }
            }
            const int32_t iRadius = eState == QV_LINE_UNJUDGED ? iThick / 2 : (eState == QV_LINE_BENDS ? 2 * iThick : iThick);
            if (iRadius > 0) {
                cv::dilate(stMask, stMask,
                           cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(2 * iRadius + 1, 2 * iRadius + 1)));
            }
            if (eState == QV_LINE_UNJUDGED) {
                cv::Mat stBlend;
                cv::addWeighted(stOut, 0.5, cv::Mat(stOut.size(), stOut.type(), astLineColor[eState]), 0.5, 0, stBlend);
                stBlend.copyTo(stOut, stMask);
            } else {
                stOut.setTo(astLineColor[eState], stMask);
            }
        }
    }
    if (!vfMesh.empty() && vfMesh.size() >= 2 * (size_t)stPlan.stMeshGrid.iCols * stPlan.stMeshGrid.iRows) {
        DrawMesh(stOut, stPara, stPlan.stMeshGrid, vfMesh, cv::Scalar(0, 140, 255), std::max(1, iThick / 2));
    }
    DrawRect(stOut, stPara.aiLDCArea[0], stPara.aiLDCArea[1], stPara.aiLDCArea[2], stPara.aiLDCArea[3], stCyan, iThick);
    DrawRect(stOut, stPara.aiGlobalFDCArea[0], stPara.aiGlobalFDCArea[1], stPara.aiGlobalFDCArea[2],
             stPara.aiGlobalFDCArea[3], stMagenta, iThick);
    for (const ST_FACE_RECT &stFace : vstFaces) {
        DrawRect(stOut, stFace.iLeft, stFace.iTop, stFace.iRight, stFace.iBottom, stWhite, std::max(1, iThick / 2));
    }
    for (int32_t i = 0; i < stPlan.iFaceNum; i++) {
        const int32_t *piRect = stPlan.aiFaceRect[i];
        DrawRect(stOut, piRect[0], piRect[1], piRect[2], piRect[3], stYellow, 2 * iThick);
    }
    // What the output shows of the input: the output frame's border traced back (orange). Where
    // the warp ran out of source the trace leaves the frame: the output repeats the edge there.
    if (stPlan.ePath != LDC_PATH_COPY) {
        const int32_t iSteps = 64;
        std::vector<cv::Point> vstShown;
        for (int32_t k = 0; k < 4 * iSteps; k++) {
            const float fU = (float)(k % iSteps) / iSteps;
            const float afX[4] = {fU * (iW - 1), (float)(iW - 1), (1.0f - fU) * (iW - 1), 0.0f};
            const float afY[4] = {0.0f, fU * (iH - 1), (float)(iH - 1), (1.0f - fU) * (iH - 1)};
            float fX, fY;
            OutputToInput(stPlan, stPara, afX[k / iSteps], afY[k / iSteps], 0, &fX, &fY);
            if (!std::isfinite(fX) || !std::isfinite(fY)) {
                continue;   // behind the warp's horizon
            }
            // Far points are pulled in so that the 1/16-pixel coordinates stay within int.
            const float fReach = 4.0f * (float)std::max(iW, iH);
            fX = std::min(std::max(fX, -fReach), fReach);
            fY = std::min(std::max(fY, -fReach), fReach);
            vstShown.push_back(cv::Point((int32_t)lroundf(fX * 16.0f), (int32_t)lroundf(fY * 16.0f)));
        }
        cv::polylines(stOut, vstShown, true, cv::Scalar(0, 140, 255), iThick, cv::LINE_AA, 4);
    }

    // The text block in the top left corner on a darkened band.
    // The font grows with the frame but the longest line stays within three quarters of it.
    int32_t iBase = 0;
    int32_t iWidestAtOne = 1;
    for (const std::string &strLine : stDecision.vstrLines) {
        iWidestAtOne = std::max(iWidestAtOne, cv::getTextSize(strLine, cv::FONT_HERSHEY_SIMPLEX, 1.0, 1, &iBase).width);
    }
    const double dFont = std::max(0.3, std::min(iW / 1400.0, 0.75 * iW / iWidestAtOne));
    const int32_t iFontThick = std::max(1, (int32_t)(dFont * 1.5));
    const cv::Size stText = cv::getTextSize("Ag", cv::FONT_HERSHEY_SIMPLEX, dFont, iFontThick, &iBase);
    const int32_t iLineH = stText.height + iBase + iThick * 2;
    int32_t iBlockW = 0;
    for (const std::string &strLine : stDecision.vstrLines) {
        iBlockW = std::max(iBlockW, cv::getTextSize(strLine, cv::FONT_HERSHEY_SIMPLEX, dFont, iFontThick, &iBase).width);
    }
    const int32_t iBlockH = iLineH * (int32_t)stDecision.vstrLines.size() + iLineH / 2;
    const cv::Rect stBand(0, 0, std::min(iW, iBlockW + 2 * iLineH), std::min(iH, iBlockH));
    cv::Mat stBandRoi = stOut(stBand);
    stBandRoi *= 0.35;
    for (size_t i = 0; i < stDecision.vstrLines.size(); i++) {
        cv::putText(stOut, stDecision.vstrLines[i], cv::Point(iLineH, (int32_t)(i + 1) * iLineH),
                    cv::FONT_HERSHEY_SIMPLEX, dFont, stWhite, iFontThick, cv::LINE_AA);
    }
    return stOut;
}
