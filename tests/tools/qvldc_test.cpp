// The text and number handling of the qvldc tuning tool. Its module has no OpenCV and is compiled
// in here directly, so these checks run on every target.
#include <gtest/gtest.h>

#include <math.h>

#include <set>

#include "../../tools/qvldc/qvldc_parse.cpp"

namespace {

bool SameFace(const ST_FACE_RECT &a, const ST_FACE_RECT &b)
{
    return a.iLeft == b.iLeft && a.iTop == b.iTop && a.iRight == b.iRight && a.iBottom == b.iBottom;
}

TEST(QvldcParse, FaceRectangles)
{
    ST_FACE_RECT stFace = {9, 9, 9, 9};
    EXPECT_TRUE(ParseFaceRect("300,1200,800,1800", &stFace));
    EXPECT_TRUE(SameFace(stFace, {300, 1200, 800, 1800}));
    EXPECT_TRUE(ParseFaceRect(" -4 , 0,5 ,6 ", &stFace));
    EXPECT_TRUE(SameFace(stFace, {-4, 0, 5, 6}));
    // A one-pixel face is the library's to refuse (it logs it); the tool passes it on.
    EXPECT_TRUE(ParseFaceRect("10,10,10,10", &stFace));
    const char *apcBad[] = {"", "1,2,3", "1,2,3,4,5", "1,2,3,4x", "a,2,3,4", "1,,3,4", "5,2,3,4", "1,5,3,4",
                            "1,2,3,99999999999"};
    for (const char *pcBad : apcBad) {
        stFace = {7, 7, 7, 7};
        EXPECT_FALSE(ParseFaceRect(pcBad, &stFace)) << pcBad;
        EXPECT_TRUE(SameFace(stFace, {7, 7, 7, 7})) << pcBad;
    }

    std::vector<ST_FACE_RECT> vstFaces;
    int32_t iBadLine = 0;
    EXPECT_TRUE(ParseFacesText("# faces\n1,2,3,4\r\n\n  \n5,6,7,8", &vstFaces, &iBadLine));
    ASSERT_EQ(2u, vstFaces.size());
    EXPECT_TRUE(SameFace(vstFaces[1], {5, 6, 7, 8}));
    vstFaces.clear();
    EXPECT_FALSE(ParseFacesText("1,2,3,4\n\n1 2 3 4\n", &vstFaces, &iBadLine));
    EXPECT_EQ(3, iBadLine);
}

TEST(QvldcParse, SizesAndPictureTypes)
{
    tagST_QV_SIZE stSize = {0, 0};
    EXPECT_TRUE(ParseFrameSize("5000X1", &stSize));
    EXPECT_TRUE(ParseFrameSize("4000x3000", &stSize) && stSize.iWidth == 4000 && stSize.iHeight == 3000);
    EXPECT_TRUE(ParseFrameSize("640*480", &stSize) && stSize.iWidth == 640);
    for (const char *pcBad : {"5001x10", "0x10", "10x0", "10x", "x10", "10,10", "-2x4", "10x10x10"}) {
        EXPECT_FALSE(ParseFrameSize(pcBad, &stSize)) << pcBad;
    }
    EXPECT_EQ(640, stSize.iWidth);

    for (const auto &c : {std::make_pair("NV21", LDC_PIC_NV21), std::make_pair("nv12", LDC_PIC_NV12),
                          std::make_pair("I420", LDC_PIC_YUV420), std::make_pair("yuv420", LDC_PIC_YUV420)}) {
        int32_t eType = -1;
        EXPECT_TRUE(ParsePicType(c.first, &eType) && eType == c.second) << c.first;
    }
    int32_t eType = -1;
    EXPECT_FALSE(ParsePicType("yv12", &eType));
    EXPECT_STREQ("NV21", PicTypeName(LDC_PIC_NV21));
    EXPECT_STREQ("I420", PicTypeName(LDC_PIC_YUV420));
}

TEST(QvldcParse, DumpNames)
{
    tagST_QV_DUMP_NAME stName;
    // The library's own spelling: faces joined by a blank, none leaves "coord__ISO=".
    ASSERT_TRUE(ParseDumpName("/sdcard/qvldc/20261122_203847_coord_left=1_top=2_right=3_bottom=4_ISO=100_org.yuv",
                              &stName));
    EXPECT_EQ("20261122_203847", stName.strStamp);
    ASSERT_EQ(1u, stName.vstFaces.size());
    EXPECT_TRUE(SameFace(stName.vstFaces[0], {1, 2, 3, 4}));
    EXPECT_EQ(100, stName.iISO);
    EXPECT_EQ(1, stName.bInput);

    ASSERT_TRUE(ParseDumpName("20261122_203847_coord__ISO=3200_output.yuv", &stName));
    EXPECT_TRUE(stName.vstFaces.empty());
    EXPECT_EQ(3200, stName.iISO);
    EXPECT_EQ(0, stName.bInput);

    // What the tool writes for the sample (several faces, negative coordinates) is what it reads back.
    const std::vector<ST_FACE_RECT> vstFaces = {{1, 2, 3, 4}, {10, 20, 30, 40}, {-1, -2, 5, 6}};
    const std::string strName = FormatDumpName("20261122_120000", vstFaces, 400, 1);
    EXPECT_EQ("20261122_120000_coord_left=1_top=2_right=3_bottom=4 left=10_top=20_right=30_bottom=40 "
              "left=-1_top=-2_right=5_bottom=6_ISO=400_org.yuv", strName);
    ASSERT_TRUE(ParseDumpName(strName, &stName));
    ASSERT_EQ(3u, stName.vstFaces.size());
    for (size_t i = 0; i < 3; i++) {
        EXPECT_TRUE(SameFace(stName.vstFaces[i], vstFaces[i])) << i;
    }
    EXPECT_EQ("20261122_120000_coord__ISO=0_output.yuv", FormatDumpName("20261122_120000", {}, 0, 0));

    const char *apcBad[] = {
        "frame.yuv",
        "20261122_203847_coord_left=1_top=2_right=3_bottom=4_ISO=100_org.nv21",
        "20261122_203847_coord_left=1_top=2_right=3_ISO=100_org.yuv",
        "20261122_203847_coord_left=1_top=2_right=3_bottom=4  left=5_top=6_right=7_bottom=8_ISO=1_org.yuv",
        "2026112_203847_coord__ISO=100_org.yuv",
        "20261122_203847_coord__ISO=100_org.yuv.png",
    };
    for (const char *pcBad : apcBad) {
        EXPECT_FALSE(ParseDumpName(pcBad, &stName)) << pcBad;
    }
    // A name longer than any file system allows is refused before matching (the matcher recurses
    // per character and overflowed the stack on a 30000-character command-line name).
    EXPECT_FALSE(ParseDumpName("20261122_203847_coord_" + std::string(40000, 'x') + "_ISO=1_org.yuv", &stName));
}

TEST(QvldcParse, FrameSizeGuess)
{
    const std::vector<tagST_QV_SIZE> vstProfiles = {{0, 0}, {4000, 3000}, {1920, 1080}, {640, 480}};
    tagST_QV_SIZE stSize = {0, 0};
    EXPECT_TRUE(GuessFrameSize(18000000, vstProfiles, {}, &stSize));
    EXPECT_EQ(4000, stSize.iWidth);
    EXPECT_EQ(3000, stSize.iHeight);
    // A face below row 3000 only fits the portrait orientation.
    EXPECT_TRUE(GuessFrameSize(18000000, vstProfiles, {{100, 3200, 400, 3600}}, &stSize));
    EXPECT_EQ(3000, stSize.iWidth);
    EXPECT_EQ(4000, stSize.iHeight);
    EXPECT_TRUE(GuessFrameSize(460800, vstProfiles, {{0, 0, 639, 479}}, &stSize));
    EXPECT_EQ(640, stSize.iWidth);
    stSize = {1, 1};
    EXPECT_FALSE(GuessFrameSize(460801, vstProfiles, {}, &stSize));
    EXPECT_FALSE(GuessFrameSize(460800, vstProfiles, {{0, 0, 640, 640}}, &stSize));
    EXPECT_FALSE(GuessFrameSize(0, vstProfiles, {}, &stSize));
    EXPECT_EQ(1, stSize.iWidth);
}

TEST(QvldcParse, LibraryTime)
{
    EXPECT_EQ(142, LibraryTimeMs("I/ZB5QU_QVLDC: Enter IQV_LDC_Process.\n"
                                 "The time of IQV_LDC_Process is = 9 ms\n"   // not the library's line
                                 "I/ZB5QU_QVLDC: The time of IQV_LDC_Process is = 142 ms\n"));
    EXPECT_EQ(-1, LibraryTimeMs("I/ZB5QU_QVLDC: Exit IQV_LDC_Process.\n"));
}

// Every path and every refusal has words of its own, and a plan's line states read as judged
// straight lines, at most one bending line, then the lines never judged.
TEST(QvldcParse, PlanInWords)
{
    tagST_LDC_PARA stPara;
    memset(&stPara, 0, sizeof(stPara));
    std::set<std::string> setTexts;
    tagST_LDC_PLAN stPlan;
    InitFramePlan(&stPlan);
    for (int32_t ePath = LDC_PATH_COPY; ePath <= LDC_PATH_MESH; ePath++) {
        for (int32_t eWhy = LDC_REFUSAL_NONE; eWhy <= LDC_REFUSAL_MESH; eWhy++) {
            stPlan.ePath = ePath;
            stPlan.eRefusal = eWhy;
            setTexts.insert(DescribePlanPath(stPlan, stPara));
        }
    }
    // Copy and fallback name each of the nine reasons; the lens path names a failed mesh or the
    // full budget, the face, global and mesh paths give one each.
    EXPECT_EQ(setTexts.size(), 9u + 9u + 2u + 3u);
    stPlan.ePath = LDC_PATH_COPY;
    stPlan.bNotFinite = 1;
    EXPECT_EQ(0u, setTexts.count(DescribePlanPath(stPlan, stPara)));

    stPlan.stLineCheck = {0, 4, 5, 3};   // verdict 0: the third of five kept lines bent
    const E_QV_LINE_STATE aeExpected[5] = {QV_LINE_STRAIGHT, QV_LINE_STRAIGHT, QV_LINE_BENDS, QV_LINE_UNJUDGED,
                                           QV_LINE_UNJUDGED};
    for (int32_t i = 0; i < 5; i++) {
        EXPECT_EQ(aeExpected[i], PlanLineState(stPlan, i)) << i;
    }
    stPlan.stLineCheck = {1, 4, 2, 2};
    EXPECT_EQ(QV_LINE_STRAIGHT, PlanLineState(stPlan, 1));
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
    ASSERT_EQ(4u, vstRepeats.size());
    EXPECT_EQ("warning: setaffinity is failed.: mask=* err=22 tid = * (x 6)", RepeatedLineText(vstRepeats[0]));
    EXPECT_EQ("same 7 every time (x 6)", RepeatedLineText(vstRepeats[1]));
    EXPECT_EQ("once", RepeatedLineText(vstRepeats[2]));
    EXPECT_EQ("", RepeatedLineText(vstRepeats[3]));
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
                        &stOpt, &strError)) << strError;
    EXPECT_EQ(QV_MODE_FRAME, stOpt.eMode);
    EXPECT_EQ(LDC_PIC_YUV420, stOpt.ePicType);
    EXPECT_EQ(800, stOpt.iISO);
    ASSERT_EQ(2u, stOpt.vstFaces.size());
    EXPECT_TRUE(SameFace(stOpt.vstFaces[1], {50, 60, 70, 80}));
    EXPECT_EQ("o.png", stOpt.strOverlayPng);
    EXPECT_EQ(1, stOpt.bQuiet);

    ASSERT_TRUE(Options({"--batch", "dumps", "--config", "c.xml"}, &stOpt, &strError));
    EXPECT_EQ(QV_MODE_BATCH, stOpt.eMode);
    EXPECT_EQ(LDC_PIC_NV21, stOpt.ePicType);
    EXPECT_EQ(100, stOpt.iISO);
    EXPECT_EQ(0, stOpt.stSize.iWidth);
    ASSERT_TRUE(Options({"--bogus", "--help"}, &stOpt, &strError));
    EXPECT_EQ(QV_MODE_HELP, stOpt.eMode);

    struct {
        std::vector<const char *> vpcArgs;
        const char *pcError;
    } astBad[] = {
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
        {{"--calibrate", "d", "--size", "640x480", "--board", "9x6", "--set", "K=1"}, "--set changes a configuration"},
    };
    for (const auto &stCase : astBad) {
        strError.clear();
        EXPECT_FALSE(Options(stCase.vpcArgs, &stOpt, &strError)) << stCase.pcError;
        EXPECT_NE(std::string::npos, strError.find(stCase.pcError)) << strError;
    }
}

TEST(QvldcParse, LensInverse)
{
    // The sample configuration's 4000 x 3000 lens: barrel, monotonic out to the corners.
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
    // Barrel: the corrected radius lies further out than the recorded one.
    EXPECT_GT(InvertRadialModel(&stModel, 2600.0f, 20000.0f), 2700.0f);

    const tagST_RADIAL_MODEL stIdentity = {0, 0, 0, 0, 0};
    EXPECT_NEAR(123.25f, InvertRadialModel(&stIdentity, 123.25f, 1000.0f), 1e-3f);
    // A lens that folds back: r f(r) = r - r^3 / 3e6 peaks at 666.7 for r = 1000, so farther
    // recorded radii have no corrected point.
    const tagST_RADIAL_MODEL stFold = {0, 0, -1.0f / 3e6f, 0, 0};
    const float fR = InvertRadialModel(&stFold, 600.0f, 1000.0f);
    EXPECT_GT(fR, 600.0f);
    EXPECT_LT(fR, 1000.0f);
    EXPECT_EQ(-1.0f, InvertRadialModel(&stFold, 700.0f, 1000.0f));
}

}  // namespace
