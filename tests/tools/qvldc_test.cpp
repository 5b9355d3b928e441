// The text and number handling of the qvldc tuning tool. Its module has no OpenCV and is compiled
// in here directly, so these checks run on every target.
#include <gtest/gtest.h>

#include <math.h>

#include "../../tools/qvldc/qvldc_parse.cpp"

namespace {

std::vector<int32_t> Face(const ST_FACE_RECT &s)
{
    return {s.iLeft, s.iTop, s.iRight, s.iBottom};
}

std::vector<std::vector<int32_t>> Faces(const std::vector<ST_FACE_RECT> &v)
{
    std::vector<std::vector<int32_t>> vv;
    for (const ST_FACE_RECT &s : v) {
        vv.push_back(Face(s));
    }
    return vv;
}

using FaceList = std::vector<std::vector<int32_t>>;

TEST(QvldcParse, FaceRectanglesSizesAndPictureTypes)
{
    ST_FACE_RECT stFace = {9, 9, 9, 9};
    // A one-pixel face is the library's to refuse (it logs it); the tool passes it on.
    for (const auto &c : {std::make_pair("300,1200,800,1800", std::vector<int32_t>{300, 1200, 800, 1800}),
                          std::make_pair(" -4 , 0,5 ,6 ", std::vector<int32_t>{-4, 0, 5, 6}),
                          std::make_pair("10,10,10,10", std::vector<int32_t>{10, 10, 10, 10})}) {
        EXPECT_TRUE(ParseFaceRect(c.first, &stFace)) << c.first;
        EXPECT_EQ(c.second, Face(stFace));
    }
    for (const char *pcBad : {"", "1,2,3", "1,2,3,4,5", "1,2,3,4x", "a,2,3,4", "1,,3,4", "5,2,3,4", "1,5,3,4",
                              "1,2,3,99999999999"}) {
        EXPECT_FALSE(ParseFaceRect(pcBad, &stFace)) << pcBad;
        EXPECT_EQ((std::vector<int32_t>{10, 10, 10, 10}), Face(stFace)) << pcBad;
    }
    std::vector<ST_FACE_RECT> vstFaces;
    int32_t iBadLine = 0;
    EXPECT_TRUE(ParseFacesText("# faces\n1,2,3,4\r\n\n  \n5,6,7,8", &vstFaces, &iBadLine));
    EXPECT_EQ((FaceList{{1, 2, 3, 4}, {5, 6, 7, 8}}), Faces(vstFaces));
    EXPECT_FALSE(ParseFacesText("1,2,3,4\n\n1 2 3 4\n", &vstFaces, &iBadLine));
    EXPECT_EQ(3, iBadLine);

    tagST_QV_SIZE stSize = {0, 0};
    for (const auto &c : {std::make_pair("4000x3000", std::vector<int32_t>{4000, 3000}),
                          std::make_pair("5000X1", std::vector<int32_t>{5000, 1}),
                          std::make_pair("640*480", std::vector<int32_t>{640, 480})}) {
        EXPECT_TRUE(ParseFrameSize(c.first, &stSize)) << c.first;
        EXPECT_EQ(c.second, (std::vector<int32_t>{stSize.iWidth, stSize.iHeight}));
    }
    for (const char *pcBad : {"5001x10", "0x10", "10x0", "10x", "x10", "10,10", "-2x4", "10x10x10"}) {
        EXPECT_FALSE(ParseFrameSize(pcBad, &stSize)) << pcBad;
    }
    EXPECT_EQ(640, stSize.iWidth);

    for (const auto &c : {std::make_pair("NV21", LDC_PIC_NV21), std::make_pair("nv12", LDC_PIC_NV12),
                          std::make_pair("I420", LDC_PIC_YUV420), std::make_pair("yuv420", LDC_PIC_YUV420)}) {
        int32_t eType = -1;
        EXPECT_TRUE(ParsePicType(c.first, &eType)) << c.first;
        EXPECT_EQ(c.second, eType);
    }
    int32_t eType = -1;
    EXPECT_FALSE(ParsePicType("yv12", &eType));
    EXPECT_EQ((std::vector<std::string>{"NV21", "I420"}),
              (std::vector<std::string>{PicTypeName(LDC_PIC_NV21), PicTypeName(LDC_PIC_YUV420)}));
}

TEST(QvldcParse, DumpNamesReadWhatTheLibraryWrites)
{
    // The library's own spelling: faces joined by a blank, none leaves "coord__ISO=".
    const struct {
        const char *pcName;
        FaceList vviFaces;
        int32_t iISO, bInput;
    } astGood[] = {
        {"/sdcard/qvldc/20261122_203847_coord_left=1_top=2_right=3_bottom=4_ISO=100_org.yuv", {{1, 2, 3, 4}}, 100, 1},
        {"20261122_203847_coord__ISO=3200_output.yuv", {}, 3200, 0},
        {"20261122_203847_coord_left=-5_top=2_right=30_bottom=40 left=100_top=200_right=300_bottom=400_ISO=50_org.yuv",
         {{-5, 2, 30, 40}, {100, 200, 300, 400}}, 50, 1},
    };
    tagST_QV_DUMP_NAME stName;
    for (const auto &c : astGood) {
        ASSERT_TRUE(ParseDumpName(c.pcName, &stName)) << c.pcName;
        EXPECT_EQ("20261122_203847", stName.strStamp);
        EXPECT_EQ(c.vviFaces, Faces(stName.vstFaces));
        EXPECT_EQ((std::vector<int32_t>{c.iISO, c.bInput}), (std::vector<int32_t>{stName.iISO, stName.bInput}));
    }
    // What the tool writes for the sample is what it reads back.
    const std::vector<ST_FACE_RECT> vstFaces = {{1, 2, 3, 4}, {10, 20, 30, 40}, {-1, -2, 5, 6}};
    const std::string strName = FormatDumpName("20261122_120000", vstFaces, 400, 1);
    EXPECT_EQ("20261122_120000_coord_left=1_top=2_right=3_bottom=4 left=10_top=20_right=30_bottom=40 "
              "left=-1_top=-2_right=5_bottom=6_ISO=400_org.yuv",
              strName);
    ASSERT_TRUE(ParseDumpName(strName, &stName));
    EXPECT_EQ(Faces(vstFaces), Faces(stName.vstFaces));
    EXPECT_EQ("20261122_120000_coord__ISO=0_output.yuv", FormatDumpName("20261122_120000", {}, 0, 0));
    for (const char *pcBad : {
             "frame.yuv", "20261122_203847_coord_left=1_top=2_right=3_bottom=4_ISO=100_org.nv21",
             "20261122_203847_coord_left=1_top=2_right=3_ISO=100_org.yuv",
             "20261122_203847_coord_left=1_top=2_right=3_bottom=4  left=5_top=6_right=7_bottom=8_ISO=1_org.yuv",
             "2026112_203847_coord__ISO=100_org.yuv", "20261122_203847_coord__ISO=100_org.yuv.png"}) {
        EXPECT_FALSE(ParseDumpName(pcBad, &stName)) << pcBad;
    }
}

TEST(QvldcParse, FrameSizeGuess)
{
    const std::vector<tagST_QV_SIZE> vstProfiles = {{0, 0}, {4000, 3000}, {1920, 1080}, {640, 480}};
    // A face below row 3000 only fits the portrait orientation.
    const struct {
        uint64_t ulBytes;
        std::vector<ST_FACE_RECT> vstFaces;
        std::vector<int32_t> viSize;   // empty: no guess
    } astCases[] = {{18000000, {}, {4000, 3000}},         {18000000, {{100, 3200, 400, 3600}}, {3000, 4000}},
                    {460800, {{0, 0, 639, 479}}, {640, 480}}, {460801, {}, {}},
                    {460800, {{0, 0, 640, 640}}, {}},       {0, {}, {}}};
    for (const auto &c : astCases) {
        tagST_QV_SIZE stSize = {1, 1};
        EXPECT_EQ(!c.viSize.empty(), GuessFrameSize(c.ulBytes, vstProfiles, c.vstFaces, &stSize)) << c.ulBytes;
        EXPECT_EQ(c.viSize.empty() ? std::vector<int32_t>({1, 1}) : c.viSize,
                  (std::vector<int32_t>{stSize.iWidth, stSize.iHeight}))
            << c.ulBytes;
    }
}

std::vector<int32_t> Summary(const tagST_QV_LOG_SUMMARY &s)
{
    return {s.bFaceFit, s.bFaceFitRefused, s.iFaceFovLost, s.iFaceFitRet, s.bFaceEdgeRefused,
            s.bBendingLine, s.bGlobal,     s.iGlobalFovLost, s.iTimeMs, s.iErrors};
}

TEST(QvldcParse, LibraryLogAndFramePath)
{
    // Only the library's own lines count.
    tagST_QV_LOG_SUMMARY stLog = ParseLibraryLog("I/ZB5QU_QVLDC: Enter IQV_LDC_Process.\n"
                                                 "unrelated line FOV is lost 99%\n"
                                                 "E/ZB5QU_QVLDC: FOV is lost 25%, more than 10%, ret of H is 0!\n"
                                                 "I/ZB5QU_QVLDC: FOV is lost 7%\n"
                                                 "I/ZB5QU_QVLDC: The time of IQV_LDC_Process is = 142 ms\n");
    EXPECT_EQ((std::vector<int32_t>{1, 1, 25, 0, 0, 0, 1, 7, 142, 1}), Summary(stLog));
    stLog = ParseLibraryLog("I/ZB5QU_QVLDC: FOV is lost 4%, ret of H is -3\n"
                            "E/ZB5QU_QVLDC: bFDCEffect = 0\n"
                            "I/ZB5QU_QVLDC: There are some lines becoming bended by using global FDC method! The "
                            "SvmPredict value is 0\n");
    EXPECT_EQ((std::vector<int32_t>{1, 0, 4, -3, 1, 1, 0, 0, -1, 1}), Summary(stLog));

    // The path a frame took, from the decision fields and the log.
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    const char *pcRefused = "E/ZB5QU_QVLDC: FOV is lost 30%, more than 10%, ret of H is 0!\n";
    const struct {
        int32_t iFDCMode, iLDCEnable;
        std::string strLog;
        const char *pcPath;
        int32_t iFov;
    } astPaths[] = {
        {1, 0, "I/ZB5QU_QVLDC: FOV is lost 4%\n",
         "global face correction: the line check found no bending line (global face model)", 4},
        // Mode 2 after a refused fit: the stretch is what counts, with the lens model while LDC is on.
        {2, 1, std::string(pcRefused) + "I/ZB5QU_QVLDC: FOV is lost 2%\n",
         "global correction as the fallback of a refused face correction (lens model over its valid area)", 2},
        {0, 1, "I/ZB5QU_QVLDC: FOV is lost 6%, ret of H is 0\n", "face homography on the lens-corrected frame", 6},
        {0, 1, "I/ZB5QU_QVLDC: FOV is lost 6%, ret of H is 0\nE/ZB5QU_QVLDC: bFDCEffect = 0\n",
         "copy: the face correction pushed a face's outer edge out", 0},
        {0, 1, pcRefused, "copy: the face correction cost too much field of view", 0},
        {0, 1, "I/ZB5QU_QVLDC: Exit IQV_LDC_Process.\n", "copy: no correction applies", 0},
    };
    for (const auto &c : astPaths) {
        stPara.iFDCMode = c.iFDCMode;
        stPara.iLDCEnable = c.iLDCEnable;
        int32_t iFov = -1;
        EXPECT_EQ(c.pcPath, DescribeFramePath(stPara, ParseLibraryLog(c.strLog), &iFov));
        EXPECT_EQ(c.iFov, iFov) << c.pcPath;
    }
}

TEST(QvldcParse, RepeatedLines)
{
    // Lines alike but for their numbers fold into one; numbers that changed show as '*'.
    std::vector<tagST_QV_REPEAT> vstRepeats;
    for (int32_t i = 0; i < 6; i++) {
        CountRepeatedLine("warning: setaffinity is failed.: mask=" + std::to_string(4 << (i & 1)) +
                              " err=22 tid = " + std::to_string(1600 + i) + " ",
                          &vstRepeats);
        CountRepeatedLine("same 7 every time", &vstRepeats);
    }
    CountRepeatedLine("once", &vstRepeats);
    CountRepeatedLine("", &vstRepeats);
    std::vector<std::string> vstrTexts;
    for (const tagST_QV_REPEAT &st : vstRepeats) {
        vstrTexts.push_back(RepeatedLineText(st));
    }
    EXPECT_EQ((std::vector<std::string>{"warning: setaffinity is failed.: mask=* err=22 tid = * (x 6)",
                                        "same 7 every time (x 6)", "once", ""}),
              vstrTexts);
    EXPECT_EQ("libpng error: Read Error; second", JoinLines("  libpng error: Read Error \n\n\tsecond\r\n"));
}

bool Options(std::vector<const char *> vpcArgs, tagST_QV_OPTIONS *pstOpt, std::string *pstrError)
{
    vpcArgs.insert(vpcArgs.begin(), "qvldc");
    return ParseOptions((int)vpcArgs.size(), vpcArgs.data(), pstOpt, pstrError);
}

TEST(QvldcParse, CommandLine)
{
    tagST_QV_OPTIONS stOpt;
    std::string strError;
    ASSERT_TRUE(Options({"--in", "f.yuv", "--config", "c.xml", "--size", "640x480", "--format", "i420", "--iso",
                         "800", "--face", "1,2,30,40", "--face", "50,60,70,80", "--overlay", "o.png", "--quiet"},
                        &stOpt, &strError))
        << strError;
    EXPECT_EQ((std::vector<int32_t>{QV_MODE_FRAME, LDC_PIC_YUV420, 800, 1}),
              (std::vector<int32_t>{stOpt.eMode, stOpt.ePicType, stOpt.iISO, stOpt.bQuiet}));
    EXPECT_EQ((FaceList{{1, 2, 30, 40}, {50, 60, 70, 80}}), Faces(stOpt.vstFaces));
    EXPECT_EQ("o.png", stOpt.strOverlayPng);
    ASSERT_TRUE(Options({"--batch", "dumps", "--config", "c.xml"}, &stOpt, &strError));
    EXPECT_EQ((std::vector<int32_t>{QV_MODE_BATCH, LDC_PIC_NV21, 100, 0}),
              (std::vector<int32_t>{stOpt.eMode, stOpt.ePicType, stOpt.iISO, stOpt.stSize.iWidth}));
    ASSERT_TRUE(Options({"--bogus", "--help"}, &stOpt, &strError));
    EXPECT_EQ(QV_MODE_HELP, stOpt.eMode);

    const std::pair<std::vector<const char *>, const char *> astBad[] = {
        {{}, "say what to do"},
        {{"--in", "f.yuv"}, "--config FILE is required"},
        {{"--in", "f.yuv", "--batch", "d", "--config", "c"}, "exclude each other"},
        {{"--in", "f.yuv", "--config"}, "--config needs a value"},
        {{"--in", "f.yuv", "--config", "c", "--face", "1,2,3"}, "--face wants"},
        {{"--in", "f.yuv", "--config", "c", "--format", "rgb"}, "--format wants"},
        {{"--in", "f.yuv", "--config", "c", "--size", "6000x10"}, "--size wants"},
        {{"--in", "f.yuv", "--config", "c", "--face", "1,2,3,4", "--detect-faces"}, "--detect-faces replaces"},
        {{"--batch", "d", "--config", "c", "--face", "1,2,3,4"}, "go with --in"},
        {{"--in", "f.yuv", "--config", "c", "stray"}, "unexpected argument stray"},
        {{"--in", "f.yuv", "--config", "c", "--colour", "red"}, "unknown option --colour"},
    };
    for (const auto &c : astBad) {
        strError.clear();
        EXPECT_FALSE(Options(c.first, &stOpt, &strError)) << c.second;
        EXPECT_NE(std::string::npos, strError.find(c.second)) << strError;
    }
    // The help names every option the parser takes.
    for (const char *pcOption : {"--in", "--batch", "--render-sample", "--config", "--size", "--format", "--iso",
                                 "--face", "--faces-file", "--detect-faces", "--cascade", "--out-yuv", "--out-png",
                                 "--before-png", "--overlay", "--out-dir", "--quiet"}) {
        EXPECT_NE(nullptr, strstr(UsageText(), pcOption)) << pcOption;
    }
}

TEST(QvldcParse, LensInverse)
{
    // The sample configuration's 4000 x 3000 lens: barrel, monotonic out to the corners, and the
    // corrected radius lies further out than the recorded one.
    const float fFx = 3349.47331f;
    const float fQ2 = 1.0f / (fFx * fFx);
    tagST_RADIAL_MODEL stModel = {2139.0f, 1473.0f, -0.26637261f * fQ2, -0.038588899f * fQ2 * fQ2,
                                  0.23839153f * fQ2 * fQ2 * fQ2};
    float fLast = 0.0f;
    for (float fRho = 0.0f; fRho <= 2700.0f; fRho += 37.5f) {
        const float fR = InvertRadialModel(&stModel, fRho, 20000.0f);
        ASSERT_GE(fR, fLast) << fRho;
        EXPECT_NEAR(fRho, fR * RadialFactorSerial(&stModel, fR * fR), 0.01f) << fRho;
        fLast = fR;
    }
    EXPECT_GT(InvertRadialModel(&stModel, 2600.0f, 20000.0f), 2700.0f);
    const tagST_RADIAL_MODEL stIdentity = {0, 0, 0, 0, 0};
    EXPECT_NEAR(123.25f, InvertRadialModel(&stIdentity, 123.25f, 1000.0f), 1e-3f);
    // A lens that folds back: r f(r) = r - r^3 / 3e6 peaks at 666.7 for r = 1000, so farther
    // recorded radii have no corrected point.
    const tagST_RADIAL_MODEL stFold = {0, 0, -1.0f / 3e6f, 0, 0};
    const float fR = InvertRadialModel(&stFold, 600.0f, 1000.0f);
    EXPECT_TRUE(fR > 600.0f && fR < 1000.0f) << fR;
    EXPECT_EQ(-1.0f, InvertRadialModel(&stFold, 700.0f, 1000.0f));
}

}  // namespace
