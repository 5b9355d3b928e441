// ldc_quality: how round do faces come out, how straight do lines stay, how much of the field of
// view is kept? Renders synthetic wide-angle scenes of known geometry, corrects them the ways the
// library can (each row a configuration that makes IQV_LDC_Process take one path), measures every
// output through the coordinate probe and prints a table (also written as CSV) and side-by-side
// pictures.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "records/ldc_para.h"
#include "quality_mesh.h"
#include "quality_metrics.h"
#include "quality_probe.h"
#include "quality_scene.h"
#include "vkt_zb_ldc.h"

namespace {

// A way of correcting the frame: the configuration that makes the library take one path.
typedef struct tagST_QQ_ROW {
    const char *pcName;
    int32_t iLDCFlag;
    int32_t iGolbalFDCFlag;
    int32_t iFOVLost;
    float fCorrectionDegree;
    int32_t iBendValue;
    int32_t iFDCMethod;
} tagST_QQ_ROW;

const tagST_QQ_ROW kRows[] = {
    // A budget of 100 accepts the identity without a fit: the lens remap alone.
    {"lens", 1, 0, 100, 0.3f, 0, LDC_FDC_HOMOGRAPHY},
    // Today's face homography with the sample configuration's strength and budget.
    {"homography", 1, 0, 10, 0.3f, 0, LDC_FDC_HOMOGRAPHY},
    // Several faces and a line check that tolerates any bend: the global correction.
    {"global", 1, 1, 10, 0.3f, 1000000, LDC_FDC_HOMOGRAPHY},
    // The face mesh inside the library (FDCMethod 1) at the mesh rows' default strength: its
    // solve with the line finder's segments (MeshLines), its track's first frame and its
    // one-pass render on the resampling core.
    {"library", 1, 0, 10, 1.0f, 0, LDC_FDC_MESH},
};

typedef struct tagST_QQ_OPTIONS {
    std::string strOut = "ldc_quality_out";
    std::string strSampleConfig = LDC_SAMPLE_CONFIG;
    std::vector<std::pair<int32_t, int32_t>> vstSizes = {{640, 480}, {4000, 3000}};
    std::vector<int32_t> viFovs = {60, 70, 80, 90, 100, 110, 120};
    bool bPictures = true;
    std::vector<tagE_QME_LINES> veMeshLines = {E_QME_LINES_NONE, E_QME_LINES_DETECTED, E_QME_LINES_SCENE};
    float fMeshStrength = 1.0f;
    int32_t iMeshCells = 0;
    bool bLineDetail = false;
    bool bMeshOnly = false;
} tagST_QQ_OPTIONS;

typedef struct tagST_QQ_OUTCOME {
    std::string strScene;
    std::string strRow;
    std::string strPath;
    double dMs;
    std::string strNote;
    tagST_QM_RESULT stResult;
} tagST_QQ_OUTCOME;

void Usage()
{
    fprintf(stderr,
            "usage: ldc_quality [--out DIR] [--sizes WxH,...] [--fovs DEG,...] [--sample-config XML] [--no-pictures]\n"
            "                   [--mesh-strength S] [--mesh-lines none,found,scene] [--mesh-cells N] [--line-detail]\n"
            "                   [--mesh-only]\n"
            "  Field of view 60 uses the sample configuration's lens; the others a synthetic 10 %% barrel.\n"
            "  Each mesh row solves the face mesh at strength S (default 1) on N cells along the longer side\n"
            "  (default: the library's) and renders it in float; its line term gets no segments (mesh), the\n"
            "  segments the library's line finder finds on the recorded frame (mesh+found) or the scene's own\n"
            "  lines (mesh+scene). --line-detail lists the most bent lines of each mesh row; --mesh-only leaves\n"
            "  out the library's rows (lens, homography, global, and library: FDCMethod 1 at strength 1 with\n"
            "  MeshLines).\n");
}

bool ParseOptions(int argc, char **argv, tagST_QQ_OPTIONS *pstOpt)
{
    for (int i = 1; i < argc; i++) {
        const std::string strArg = argv[i];
        const bool bHasValue = i + 1 < argc;
        if (strArg == "--out" && bHasValue) {
            pstOpt->strOut = argv[++i];
        } else if (strArg == "--sample-config" && bHasValue) {
            pstOpt->strSampleConfig = argv[++i];
        } else if (strArg == "--sizes" && bHasValue) {
            pstOpt->vstSizes.clear();
            std::stringstream stIn(argv[++i]);
            std::string strItem;
            while (std::getline(stIn, strItem, ',')) {
                int32_t iW = 0, iH = 0;
                if (sscanf(strItem.c_str(), "%dx%d", &iW, &iH) != 2 || iW < 16 || iH < 16 || (iW | iH) & 1) {
                    return false;
                }
                pstOpt->vstSizes.push_back({iW, iH});
            }
        } else if (strArg == "--fovs" && bHasValue) {
            pstOpt->viFovs.clear();
            std::stringstream stIn(argv[++i]);
            std::string strItem;
            while (std::getline(stIn, strItem, ',')) {
                pstOpt->viFovs.push_back(atoi(strItem.c_str()));
                if (pstOpt->viFovs.back() < 20 || pstOpt->viFovs.back() > 150) {
                    return false;
                }
            }
        } else if (strArg == "--no-pictures") {
            pstOpt->bPictures = false;
        } else if (strArg == "--mesh-lines" && bHasValue) {
            pstOpt->veMeshLines.clear();
            std::stringstream stIn(argv[++i]);
            std::string strItem;
            while (std::getline(stIn, strItem, ',')) {
                if (strItem == "none" || strItem == "found" || strItem == "scene") {
                    pstOpt->veMeshLines.push_back(strItem == "none"    ? E_QME_LINES_NONE
                                                  : strItem == "found" ? E_QME_LINES_DETECTED
                                                                       : E_QME_LINES_SCENE);
                } else {
                    return false;
                }
            }
        } else if (strArg == "--mesh-cells" && bHasValue) {
            pstOpt->iMeshCells = atoi(argv[++i]);
        } else if (strArg == "--line-detail") {
            pstOpt->bLineDetail = true;
        } else if (strArg == "--mesh-only") {
            pstOpt->bMeshOnly = true;
        } else if (strArg == "--mesh-strength" && bHasValue) {
            pstOpt->fMeshStrength = (float)atof(argv[++i]);
        } else {
            return false;
        }
    }
    return !pstOpt->vstSizes.empty() && !pstOpt->viFovs.empty();
}

void BgrToNv21(const cv::Mat &stBgr, std::vector<uint8_t> *pvucFrame)
{
    const int32_t iW = stBgr.cols, iH = stBgr.rows;
    cv::Mat stI420;
    cv::cvtColor(stBgr, stI420, cv::COLOR_BGR2YUV_I420);
    pvucFrame->resize((size_t)iW * iH * 3 / 2);
    const uint8_t *pucSrc = stI420.ptr<uint8_t>(0);
    memcpy(pvucFrame->data(), pucSrc, (size_t)iW * iH);
    const uint8_t *pucU = pucSrc + (size_t)iW * iH;
    const uint8_t *pucV = pucU + (size_t)iW * iH / 4;
    uint8_t *pucVu = pvucFrame->data() + (size_t)iW * iH;
    for (size_t i = 0; i < (size_t)iW * iH / 4; i++) {
        pucVu[2 * i] = pucV[i];
        pucVu[2 * i + 1] = pucU[i];
    }
}

cv::Mat Nv21ToBgr(const std::vector<uint8_t> &vucFrame, int32_t iW, int32_t iH)
{
    cv::Mat stYuv(iH * 3 / 2, iW, CV_8UC1, (void *)vucFrame.data());
    cv::Mat stBgr;
    cv::cvtColor(stYuv, stBgr, cv::COLOR_YUV2BGR_NV21);
    return stBgr;
}

std::string WriteConfig(const std::string &strPath, const tagST_QS_LENS &stLens, const tagST_QQ_ROW &stRow)
{
    FILE *pstFile = fopen(strPath.c_str(), "w");
    if (pstFile == NULL) {
        return "";
    }
    fprintf(pstFile,
            "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Config>\n"
            "  <Global><LDCFlag>%d</LDCFlag><FDCFlag>1</FDCFlag><MultiFacesLDCFlag>1</MultiFacesLDCFlag>"
            "<MultiFacesFDCFlag>1</MultiFacesFDCFlag><GolbalFDCFlag>%d</GolbalFDCFlag>"
            "<LDCAreaRestrictedFlag>0</LDCAreaRestrictedFlag><FDCAreaRestrictedFlag>0</FDCAreaRestrictedFlag></Global>\n"
            "  <FaceDistortionCorrection><CorrectionDegree>%.9g</CorrectionDegree><FOVLost>%d</FOVLost>"
            "<FDCMethod>%d</FDCMethod><MeshLines>%d</MeshLines></FaceDistortionCorrection>\n"
            "  <LineDetection><BendDecideMode>0</BendDecideMode></LineDetection>\n"
            "  <DistortionCorrection1><ImageWidth>%d</ImageWidth><ImageHeight>%d</ImageHeight>\n"
            "    <CameraMatrix>%.9g 0 %.9g 0 %.9g %.9g 0 0 1</CameraMatrix>\n"
            "    <DistortionCoefficients>%.9g %.9g %.9g 0 0</DistortionCoefficients>\n"
            "    <GlobalFDCCoefficients>%.9g %.9g %.9g %.9g</GlobalFDCCoefficients>\n"
            "    <BendValue>%d</BendValue></DistortionCorrection1>\n"
            "</Config>\n",
            stRow.iLDCFlag, stRow.iGolbalFDCFlag, stRow.fCorrectionDegree, stRow.iFOVLost, stRow.iFDCMethod,
            stRow.iFDCMethod == LDC_FDC_MESH, stLens.iWidth,
            stLens.iHeight, stLens.dFx, stLens.dU0, stLens.dFx, stLens.dV0, stLens.adK[0], stLens.adK[1],
            stLens.adK[2], stLens.adGlobal[0], stLens.adGlobal[1], stLens.adGlobal[2], stLens.adGlobal[3],
            stRow.iBendValue);
    fclose(pstFile);
    return strPath;
}

// The path the frame took, from the decisions the library left in the instance.
std::string PathOf(const tagST_LDC_PARA *pstPara, const tagST_QQ_ROW &stRow)
{
    if (pstPara->iFDCMode == 1 && pstPara->iLDCEnable == 0) {
        return "global";
    }
    if (pstPara->iLDCEnable == 1 && stRow.iFDCMethod == LDC_FDC_MESH) {
        return "mesh";   // or the lens alone after a failed solve, which the library logs
    }
    if (pstPara->iLDCEnable == 1) {
        return stRow.iFOVLost > 99 ? "lens" : "lens+H";
    }
    return "copy";
}

// Runs one row on the scene: the picture, its time and path, and the probe's source map.
bool RunLibraryRow(const tagST_QQ_OPTIONS &stOpt, const tagST_QS_SCENE &stScene, const tagST_QQ_ROW &stRow,
                   const std::vector<uint8_t> &vucFrame, cv::Mat *pstPicture, tagST_QQ_OUTCOME *pstOutcome,
                   tagST_QP_MAP *pstSource)
{
    const tagST_QS_LENS &stLens = stScene.stLens;
    char acPath[256];
    snprintf(acPath, sizeof(acPath), "%s/configs/%dx%d_fov%d_%s.xml", stOpt.strOut.c_str(), stLens.iWidth,
             stLens.iHeight, (int)(stScene.dHfov + 0.5), stRow.pcName);
    if (WriteConfig(acPath, stLens, stRow).empty()) {
        return false;
    }
    ST_LDC_INPUT_PARA stInput = {stLens.iWidth, stLens.iHeight, acPath, LDC_PIC_NV21};
    void *pHandle = NULL;
    if (IQV_LDC_Create(&pHandle, &stInput) != LDC_OK) {
        return false;
    }
    const ST_LDC_FRAME_INFO stInfo = {stLens.iWidth, stLens.iHeight, 100, (int32_t)stScene.vstFaces.size(),
                                      stScene.vstFaces.data()};
    std::vector<uint8_t> vucIn = vucFrame, vucOut(vucFrame.size());
    const auto tStart = std::chrono::steady_clock::now();
    IQV_LDC_Process(pHandle, &stInfo, vucIn.data(), vucOut.data());
    pstOutcome->dMs = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - tStart).count();
    pstOutcome->strPath = PathOf((const tagST_LDC_PARA *)pHandle, stRow);
    *pstPicture = Nv21ToBgr(vucOut, stLens.iWidth, stLens.iHeight);
    ProbeSourceMap(stLens.iWidth, stLens.iHeight,
                   [&](const uint8_t *pucIn, uint8_t *pucOut) {
                       IQV_LDC_Process(pHandle, &stInfo, (uint8_t *)pucIn, pucOut);
                   },
                   pstSource);
    IQV_LDC_Delete(pHandle);
    return true;
}

cv::Mat Panel(const cv::Mat &stImage, const std::string &strTop, const std::string &strBottom)
{
    const int32_t iPanelW = std::min(stImage.cols, 800);
    cv::Mat stPanel;
    cv::resize(stImage, stPanel, cv::Size(iPanelW, stImage.rows * iPanelW / stImage.cols), 0, 0, cv::INTER_AREA);
    for (int32_t k = 0; k < 2; k++) {
        const std::string &strText = k ? strBottom : strTop;
        const cv::Point stAt(8, k ? stPanel.rows - 10 : 22);
        cv::putText(stPanel, strText, stAt, cv::FONT_HERSHEY_SIMPLEX, 0.55, cv::Scalar(0, 0, 0), 3, cv::LINE_AA);
        cv::putText(stPanel, strText, stAt, cv::FONT_HERSHEY_SIMPLEX, 0.55, cv::Scalar(255, 255, 255), 1, cv::LINE_AA);
    }
    return stPanel;
}

std::string Fixed(double d, int32_t iDecimals)
{
    char ac[32];
    snprintf(ac, sizeof(ac), "%.*f", iDecimals, d);
    return ac;
}

std::string PanelNumbers(const tagST_QM_RESULT &stR)
{
    return "border " + Fixed(stR.dWorstBorderRatio, 2) + "  lines " + Fixed(stR.dLinesRms, 1) + "  fov " +
           Fixed(stR.dFovKept, 3);
}

const char *MeshRowName(tagE_QME_LINES eLines)
{
    return eLines == E_QME_LINES_NONE ? "mesh" : (eLines == E_QME_LINES_DETECTED ? "mesh+found" : "mesh+scene");
}

tagST_QME_SETUP MeshSetup(const tagST_QQ_OPTIONS &stOpt, tagE_QME_LINES eLines, const std::vector<uint8_t> &vucFrame)
{
    tagST_QME_SETUP stSetup;
    stSetup.fStrength = stOpt.fMeshStrength;
    stSetup.eLines = eLines;
    stSetup.iCells = stOpt.iMeshCells;
    stSetup.pucRecorded = vucFrame.data();
    return stSetup;
}

// A mesh row: solved for the scene's faces, rendered by the float reference renderer, measured
// through the same probe as the library's rows.
void RunMeshRow(const tagST_QQ_OPTIONS &stOpt, const tagST_QS_SCENE &stScene, const std::vector<uint8_t> &vucFrame,
                tagE_QME_LINES eLines, cv::Mat *pstPicture, tagST_QQ_OUTCOME *pstOutcome)
{
    const int32_t iW = stScene.stLens.iWidth, iH = stScene.stLens.iHeight;
    pstOutcome->strScene = stScene.strName;
    pstOutcome->strRow = MeshRowName(eLines);
    tagST_QME_MESH stMesh;
    SolveSceneMesh(stScene, MeshSetup(stOpt, eLines, vucFrame), &stMesh);
    pstOutcome->strPath = stMesh.iStatus == LDC_MESH_OK ? "mesh" : "refused";
    pstOutcome->dMs = stMesh.dColdMs;
    pstOutcome->strNote = std::to_string(stMesh.stGrid.iCols - 1) + " cells; " + std::to_string(stMesh.iLines) +
                          " segments; cold " + std::to_string(stMesh.stColdStats.iIterations) + " it; strength " +
                          Fixed(stMesh.stColdStats.fStrength, 2) + "; warm " +
                          std::to_string(stMesh.stWarmStats.iIterations) + " it " + Fixed(stMesh.dWarmMs, 2) + " ms";
    const QualityRenderer fnRender = MeshRenderer(stMesh, iW, iH);
    std::vector<uint8_t> vucOut(vucFrame.size());
    fnRender(vucFrame.data(), vucOut.data());
    *pstPicture = Nv21ToBgr(vucOut, iW, iH);
    tagST_QP_MAP stSource, stCorrected;
    ProbeSourceMap(iW, iH, fnRender, &stSource);
    CorrectedMap(stScene.stLens, stSource, &stCorrected);
    MeasureCorrectedMap(stScene, stCorrected, &pstOutcome->stResult);
}

// The lines that bend most (and every far line that bends), with their share of the squared sum.
void PrintLineDetail(std::ostream &stOut, const tagST_QS_SCENE &stScene, const tagST_QQ_OUTCOME &stOutcome)
{
    const std::vector<tagST_QM_LINE> &vstLines = stOutcome.stResult.vstLines;
    double dTotal = 0;
    std::vector<size_t> vuOrder;
    for (size_t i = 0; i < vstLines.size(); i++) {
        dTotal += vstLines[i].dRms * vstLines[i].dRms * vstLines[i].iPoints;
        vuOrder.push_back(i);
    }
    std::stable_sort(vuOrder.begin(), vuOrder.end(), [&](size_t a, size_t b) {
        return vstLines[a].dRms * vstLines[a].dRms * vstLines[a].iPoints >
               vstLines[b].dRms * vstLines[b].dRms * vstLines[b].iPoints;
    });
    stOut << stOutcome.strScene << " " << stOutcome.strRow << ": most bent lines (corrected ends)\n";
    for (size_t k = 0; k < vuOrder.size(); k++) {
        const tagST_QM_LINE &stL = vstLines[vuOrder[k]];
        if (k >= 8 && !(stL.bFar && stL.dRms >= 0.25)) {
            continue;
        }
        const tagST_QS_LINE &stSceneLine = stScene.vstLines[(size_t)stL.iIndex];
        double dX0, dY0, dX1, dY1;
        CorrectedOfRay(stScene.stLens, stSceneLine.adP0, &dX0, &dY0);
        CorrectedOfRay(stScene.stLens, stSceneLine.adP1, &dX1, &dY1);
        char acLine[200];
        snprintf(acLine, sizeof(acLine), "  line %3d %s rms %6.2f points %5d share %5.3f  (%.0f, %.0f) - (%.0f, %.0f)\n",
                 stL.iIndex, stL.bFar ? "far " : "near", stL.dRms, stL.iPoints,
                 dTotal > 0 ? stL.dRms * stL.dRms * stL.iPoints / dTotal : 0.0, dX0, dY0, dX1, dY1);
        stOut << acLine;
    }
}

void PrintTable(std::ostream &stOut, const std::vector<tagST_QQ_OUTCOME> &vstOutcomes)
{
    char acLine[256];
    snprintf(acLine, sizeof(acLine), "%-20s %-11s %-7s %7s %7s %7s %7s %7s %6s %6s %6s %4s %8s  %s\n", "scene",
             "row", "path", "border", "centre", "lines", "far", "worst", "n/far", "fov", "magn", "cut", "ms", "note");
    stOut << acLine;
    for (const tagST_QQ_OUTCOME &stO : vstOutcomes) {
        const tagST_QM_RESULT &stR = stO.stResult;
        const std::string strCount = std::to_string(stR.iLines) + "/" + std::to_string(stR.iFarLines);
        snprintf(acLine, sizeof(acLine),
                 "%-20s %-11s %-7s %7.3f %7.3f %7.2f %7.2f %7.2f %6s %6.3f %6.2f %4d %8.1f  %s\n", stO.strScene.c_str(), stO.strRow.c_str(), stO.strPath.c_str(), stR.dWorstBorderRatio, stR.dCentreRatio,
                 stR.dLinesRms, stR.dFarLinesRms, stR.dWorstLineRms, strCount.c_str(), stR.dFovKept, stR.dMagnification,
                 stR.iCut, stO.dMs, stO.strNote.c_str());
        stOut << acLine;
    }
    stOut << "border/centre: axis ratio of the imaged sphere (worst face away from the centre; 1 = round). "
             "lines/far/worst: RMS distance from straight in px per 1000 px of width (all lines, lines beyond two "
             "face radii, worst line). fov: scene width/height kept relative to lens only. magn: largest local "
             "magnification of the scene against lens only. cut: faces touching the border. ms: the library's "
             "frame (one run), the mesh's solve from zero.\n";
}

typedef struct tagST_QQ_STEADY {
    std::string strScene;
    tagST_QME_TEMPORAL stTemporal;
} tagST_QQ_STEADY;

void PrintTemporal(std::ostream &stOut, const std::vector<tagST_QQ_STEADY> &vstSteady)
{
    char acLine[256];
    snprintf(acLine, sizeof(acLine), "%-20s %10s %10s %10s %7s %10s %7s %10s %8s\n", "scene", "jitter raw", "tracked",
             "cut in", "frames", "cut out", "frames", "walking", "bound");
    stOut << acLine;
    for (const tagST_QQ_STEADY &stS : vstSteady) {
        const tagST_QME_TEMPORAL &stT = stS.stTemporal;
        snprintf(acLine, sizeof(acLine), "%-20s %10.2f %10.2f %10.2f %7d %10.2f %7d %10.2f %8.1f\n",
                 stS.strScene.c_str(), stT.dJitterRaw, stT.dJitterTracked, stT.dCutInStep, stT.iCutInFrames,
                 stT.dCutOutStep, stT.iCutOutFrames, stT.dMovingStep, stT.dBound);
        stOut << acLine;
    }
    stOut << "Largest frame-to-frame step of any output pixel of the mesh, in pixels: faces jittering by +-3 "
             "pixels fed straight in (solved every frame) and through the face track and the step bound (the "
             "mesh shown moves at most 'bound' pixels a frame); faces appearing and vanishing at a cut (frames "
             "until every step is below 0.05 pixels); the border face walking 10 pixels a frame.\n";
}

void WriteCsv(const std::string &strPath, const std::vector<tagST_QQ_OUTCOME> &vstOutcomes)
{
    std::ofstream stCsv(strPath);
    stCsv << "scene,row,path,worst_border_ratio,centre_ratio,lines_rms_per_1000,far_lines_rms_per_1000,"
             "worst_line_rms_per_1000,lines,far_lines,fov_kept,magnification,faces_cut,ms,note,face_ratios\n";
    for (const tagST_QQ_OUTCOME &stO : vstOutcomes) {
        const tagST_QM_RESULT &stR = stO.stResult;
        stCsv << stO.strScene << "," << stO.strRow << "," << stO.strPath << "," << Fixed(stR.dWorstBorderRatio, 4)
              << "," << Fixed(stR.dCentreRatio, 4) << "," << Fixed(stR.dLinesRms, 3) << "," << Fixed(stR.dFarLinesRms, 3)
              << "," << Fixed(stR.dWorstLineRms, 3) << "," << stR.iLines << "," << stR.iFarLines << ","
              << Fixed(stR.dFovKept, 4) << "," << Fixed(stR.dMagnification, 3) << "," << stR.iCut << ","
              << Fixed(stO.dMs, 1) << "," << stO.strNote << ",";
        for (size_t i = 0; i < stR.vstFaces.size(); i++) {
            stCsv << (i ? " " : "") << Fixed(stR.vstFaces[i].dAxisRatio, 4);
        }
        stCsv << "\n";
    }
}

// The library logs every step on stderr, and the worker threads warn on stdout on machines with
// fewer than four cores: the report goes to a copy of the original stdout.
std::ofstream OpenReportStream()
{
    fflush(stdout);
    const int iFd = dup(1);
    std::ofstream stOut("/proc/self/fd/" + std::to_string(iFd));
    if (freopen("/dev/null", "w", stdout) == NULL || freopen("/dev/null", "w", stderr) == NULL) {
        perror("freopen");
    }
    return stOut;
}

}  // namespace

int main(int argc, char **argv)
{
    tagST_QQ_OPTIONS stOpt;
    if (!ParseOptions(argc, argv, &stOpt)) {
        Usage();
        return 2;
    }
    mkdir(stOpt.strOut.c_str(), 0755);
    mkdir((stOpt.strOut + "/configs").c_str(), 0755);
    std::ofstream stReport = OpenReportStream();
    std::vector<tagST_QQ_OUTCOME> vstOutcomes;
    std::vector<tagST_QQ_STEADY> vstSteady;
    for (const auto &stSize : stOpt.vstSizes) {
        for (int32_t iFov : stOpt.viFovs) {
            tagST_QS_LENS stLens;
            std::string strError;
            const bool bSample = (iFov == 60);
            if (!MakeLens(stSize.first, stSize.second, iFov, bSample, stOpt.strSampleConfig, &stLens, &strError)) {
                stReport << "ldc_quality: " << strError << "\n";
                return 1;
            }
            const double dHfov = 2.0 * atan(0.5 * stLens.iWidth / stLens.dFx) * 180.0 / M_PI;
            tagST_QS_SCENE stScene;
            BuildScene(stLens, dHfov, &stScene);
            stScene.strName = std::to_string(stSize.first) + "x" + std::to_string(stSize.second) + " fov" +
                              std::to_string((int)(dHfov + 0.5)) + (bSample ? "s" : "");
            const cv::Mat stRecorded = RenderScene(stScene, stSize.first * stSize.second <= 1000000 ? 3 : 1);
            std::vector<uint8_t> vucFrame;
            BgrToNv21(stRecorded, &vucFrame);
            std::vector<cv::Mat> vstPanels = {Panel(stRecorded, stScene.strName + " recorded", "")};
            for (const tagST_QQ_ROW &stRow : kRows) {
                if (stOpt.bMeshOnly) {
                    break;
                }
                tagST_QQ_OUTCOME stOutcome;
                stOutcome.strScene = stScene.strName;
                stOutcome.strRow = stRow.pcName;
                cv::Mat stPicture;
                tagST_QP_MAP stSource, stCorrected;
                if (!RunLibraryRow(stOpt, stScene, stRow, vucFrame, &stPicture, &stOutcome, &stSource)) {
                    stReport << "ldc_quality: the library refused the " << stRow.pcName << " configuration of "
                             << stScene.strName << "\n";
                    return 1;
                }
                CorrectedMap(stLens, stSource, &stCorrected);
                MeasureCorrectedMap(stScene, stCorrected, &stOutcome.stResult);
                vstOutcomes.push_back(stOutcome);
                vstPanels.push_back(Panel(stPicture, std::string(stRow.pcName) + " (" + stOutcome.strPath + ")",
                                          PanelNumbers(stOutcome.stResult)));
            }
            for (tagE_QME_LINES eLines : stOpt.veMeshLines) {
                tagST_QQ_OUTCOME stOutcome;
                cv::Mat stPicture;
                RunMeshRow(stOpt, stScene, vucFrame, eLines, &stPicture, &stOutcome);
                vstOutcomes.push_back(stOutcome);
                vstPanels.push_back(Panel(stPicture, stOutcome.strRow, PanelNumbers(stOutcome.stResult)));
                if (stOpt.bLineDetail) {
                    PrintLineDetail(stReport, stScene, stOutcome);
                }
            }
            {
                // Steadiness with the segments a finder gives when that row runs, else the first.
                tagE_QME_LINES eLines = stOpt.veMeshLines.empty() ? E_QME_LINES_NONE : stOpt.veMeshLines[0];
                for (tagE_QME_LINES e : stOpt.veMeshLines) {
                    eLines = e == E_QME_LINES_DETECTED ? e : eLines;
                }
                tagST_QQ_STEADY stSteady;
                stSteady.strScene = stScene.strName;
                MeasureTemporal(stScene, MeshSetup(stOpt, eLines, vucFrame), &stSteady.stTemporal);
                vstSteady.push_back(stSteady);
            }
            if (stOpt.bPictures) {
                cv::Mat stSideBySide;
                cv::hconcat(vstPanels, stSideBySide);
                cv::imwrite(stOpt.strOut + "/" + std::to_string(stSize.first) + "x" + std::to_string(stSize.second) +
                                "_fov" + std::to_string(iFov) + ".png",
                            stSideBySide);
            }
            stReport << stScene.strName << " done\n" << std::flush;
        }
    }
    PrintTable(stReport, vstOutcomes);
    stReport << "\n";
    PrintTemporal(stReport, vstSteady);
    WriteCsv(stOpt.strOut + "/quality.csv", vstOutcomes);
    return 0;
}
