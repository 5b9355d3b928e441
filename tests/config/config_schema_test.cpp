// The configuration schema: defaults, normalisation, profile choice, principal point, classifier
// keys and every refusal with its message.
#include <gtest/gtest.h>

#include <math.h>
#include <string.h>

#include <fstream>
#include <string>
#include <vector>

#include "config/config_schema.h"
#include "support/temp_file.h"

namespace {

std::string TestConfigPath(const char *pcName)
{
    return std::string(LDC_TEST_CONFIG_DIR) + "/" + pcName;
}

// A 640 x 480 profile that parses, behind the sections a test varies.
const char kProfile640[] =
    "<DistortionCorrection1><ImageWidth>640</ImageWidth><ImageHeight>480</ImageHeight>"
    "<CameraMatrix>535.91573 0 342.28315 0 535.91573 235.57083 0 0 1</CameraMatrix>"
    "<DistortionCoefficients>-0.26637261 -0.038588899 0.23839153 0.0017831947 -0.000281221"
    "</DistortionCoefficients>"
    "<GlobalFDCCoefficients>2.5e-7 3.90625e-13 0 0.00186597</GlobalFDCCoefficients>"
    "</DistortionCorrection1>";

// Writes a configuration made of the given sections (and, unless told otherwise, the 640 x 480
// profile) to its own file; each test names its file so that the store never reuses one.
std::string WriteConfig(const std::string &strName, const std::string &strSections, bool bWithProfile = true)
{
    const std::string strPath = TestScratchDir() + "ldc_schema_" + strName + ".xml";
    std::ofstream(strPath, std::ios::binary | std::ios::trunc)
        << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<Config>\n"
        << strSections << (bWithProfile ? kProfile640 : "") << "\n</Config>\n";
    return strPath;
}

struct ParseOutcome {
    int32_t iRet;
    tagST_LDC_PARA stPara;
    std::string strLog;
};

ParseOutcome Parse(const std::string &strPath, int32_t iWidth, int32_t iHeight)
{
    ParseOutcome stOut;
    memset(&stOut.stPara, 0, sizeof(stOut.stPara));
    stOut.stPara.iImgWidth = iWidth;
    stOut.stPara.iImgHeight = iHeight;
    testing::internal::CaptureStderr();
    stOut.iRet = ParseConfigFile(strPath.c_str(), &stOut.stPara);
    stOut.strLog = testing::internal::GetCapturedStderr();
    return stOut;
}

// A refusal: the code and its one error line.
std::pair<int32_t, std::string> Refused(const char *pcMessage, int32_t iRet = LDC_ERR_PARAM)
{
    return {iRet, std::string("E/ZB5QU_QVLDC: ") + pcMessage + "\n"};
}

std::pair<int32_t, std::string> Result(const ParseOutcome &stOut)
{
    return {stOut.iRet, stOut.strLog};
}

// The global, face-correction and line-detection fields in the order of their keys.
std::vector<float> SectionFields(const tagST_LDC_PARA &p)
{
    return {(float)p.iLDCFlag, (float)p.iFDCFlag, (float)p.iYUVFlag, (float)p.iMultiFacesLDCFlag,
            (float)p.iMultiFacesFDCFlag, (float)p.iGolbalFDCFlag, (float)p.iLDCAreaRestrictedFlag,
            (float)p.iFDCAreaRestrictedFlag, p.fRestrictedAreaRatio, p.fCorrectionDegree,
            (float)p.iFOVLost, (float)p.iBendDecideMode, (float)p.iBinarizationThresh,
            p.fConnectLineRatio, p.fLineLengthRatio, (float)p.iFDCMethod};
}

TEST(ConfigSchema, MissingKeysTakeTheirDefaults)
{
    const ParseOutcome stOut = Parse(TestConfigPath("no_globals.xml"), 640, 480);
    ASSERT_EQ(Result(stOut), std::make_pair(0, std::string()));
    const tagST_LDC_PARA &p = stOut.stPara;
    EXPECT_EQ((std::vector<float>{1, 1, 0, 1, 1, 1, 0, 0, 1.0f, 0.0f, 10, 0, 100, 0.5f, 0.5f, 0}), SectionFields(p));
    // SvmFactor is half of the shorter side.
    EXPECT_EQ((std::vector<int32_t>{0, 240, 0, 0}),
              (std::vector<int32_t>{p.iBendValue, p.iSvmFactor, p.stSvmModel.aiNSv[0], p.stSvmModel.aiNSv[1]}));
    EXPECT_EQ((std::vector<float>{343.0f, -0.000281221f, 0.00186597f}),
              (std::vector<float>{p.afCameraMatrix[2], p.afDistortionCoefficients[4], p.afGlobalFDCCoefficients[3]}));
}

TEST(ConfigSchema, FlagsAndRangesAreNormalised)
{
    const std::string strHigh = WriteConfig(
        "clamp_high",
        "<Global><LDCFlag>5</LDCFlag><FDCFlag>-1</FDCFlag><YUVFlag>3</YUVFlag>"
        "<MultiFacesLDCFlag>0</MultiFacesLDCFlag><MultiFacesFDCFlag>2</MultiFacesFDCFlag>"
        "<GolbalFDCFlag>7</GolbalFDCFlag><LDCAreaRestrictedFlag>9</LDCAreaRestrictedFlag>"
        "<FDCAreaRestrictedFlag>-4</FDCAreaRestrictedFlag>"
        "<RestrictedAreaRatio>1.5</RestrictedAreaRatio></Global>"
        "<FaceDistortionCorrection><CorrectionDegree>2</CorrectionDegree>"
        "<FOVLost>250</FOVLost><FDCMethod>5</FDCMethod></FaceDistortionCorrection>"
        // Mode 2 clamps to 1 but loads no classifier: there is none in this file.
        "<LineDetection><BendDecideMode>2</BendDecideMode>"
        "<BinarizationThresh>300</BinarizationThresh><ConnectLineRatio>7</ConnectLineRatio>"
        "<LineLengthRatio>1.0001</LineLengthRatio></LineDetection>");
    const ParseOutcome stHigh = Parse(strHigh, 640, 480);
    ASSERT_EQ(0, stHigh.iRet) << stHigh.strLog;
    EXPECT_EQ((std::vector<float>{1, 1, 1, 0, 1, 2, 1, 1, 1.0f, 1.0f, 100, 1, 255, 1.0f, 1.0f, 1}),
              SectionFields(stHigh.stPara));
    EXPECT_EQ(0, stHigh.stPara.stSvmModel.aiNSv[0] | stHigh.stPara.stSvmModel.aiNSv[1]);

    const std::string strLow = WriteConfig(
        "clamp_low",
        "<Global><GolbalFDCFlag>-3</GolbalFDCFlag><RestrictedAreaRatio>-0.25</RestrictedAreaRatio>"
        "</Global><FaceDistortionCorrection><CorrectionDegree>nan</CorrectionDegree>"
        "<FOVLost>-5</FOVLost><FDCMethod>-1</FDCMethod></FaceDistortionCorrection>"
        "<LineDetection><BendDecideMode>-2</BendDecideMode>"
        "<BinarizationThresh>-1</BinarizationThresh><ConnectLineRatio>0.25</ConnectLineRatio>"
        "</LineDetection>");
    const ParseOutcome stLow = Parse(strLow, 640, 480);
    ASSERT_EQ(0, stLow.iRet) << stLow.strLog;
    // Keys left out keep their defaults; NaN is taken as 0; 0.25 lies inside its range.
    EXPECT_EQ((std::vector<float>{1, 1, 0, 1, 1, 0, 0, 0, 0.0f, 0.0f, 0, 0, 0, 0.25f, 0.5f, 0}),
              SectionFields(stLow.stPara));
}

TEST(ConfigSchema, ProfileChoiceOrientationAndPrincipalPoint)
{
    // A portrait profile serves both orientations and keeps its own.
    for (const auto &stSize : {std::make_pair(4000, 3000), std::make_pair(3000, 4000)}) {
        const ParseOutcome stOut = Parse(TestConfigPath("transposed_profile.xml"), stSize.first, stSize.second);
        ASSERT_EQ(0, stOut.iRet) << stOut.strLog;
        EXPECT_EQ((std::vector<int32_t>{3000, 4000, 1500}),
                  (std::vector<int32_t>{stOut.stPara.iImgWidth, stOut.stPara.iImgHeight, stOut.stPara.iSvmFactor}));
    }
    // The principal point moves to odd pixels: truncated, or an even one up by one.
    const struct {
        int32_t iHeight;
        std::vector<float> vfMatrix;
    } astPoints[] = {{3000, {3349.47f, 2001.0f, 3349.47f, 1499.0f}}, {3002, {3349.47f, 1999.0f, 3349.47f, 1501.0f}}};
    for (const auto &c : astPoints) {
        const ParseOutcome stOut = Parse(TestConfigPath("principal_point.xml"), 4000, c.iHeight);
        ASSERT_EQ(0, stOut.iRet) << stOut.strLog;
        const float *pf = stOut.stPara.afCameraMatrix;
        EXPECT_EQ(c.vfMatrix, (std::vector<float>{pf[0], pf[2], pf[4], pf[5]}));
    }
    // The first matching profile wins (profile 2 holds the same size and must not be reached);
    // missing vector elements stay 0, then v0 0 moves to 1.
    std::string strSecond = kProfile640;
    for (size_t uPos; (uPos = strSecond.find("DistortionCorrection1")) != std::string::npos;) {
        strSecond.replace(uPos, strlen("DistortionCorrection1"), "DistortionCorrection2");
    }
    const std::string strPath = WriteConfig(
        "first_match",
        "<DistortionCorrection1><ImageWidth>480</ImageWidth><ImageHeight>640</ImageHeight>"
        "<CameraMatrix>500 0 241 0 500</CameraMatrix><DistortionCoefficients>0.5</DistortionCoefficients>"
        "<GlobalFDCCoefficients>1 2 3 4</GlobalFDCCoefficients>"
        "<BendValue>7</BendValue><SvmFactor>99</SvmFactor></DistortionCorrection1>" + strSecond,
        false);
    const ParseOutcome stOut = Parse(strPath, 640, 480);
    ASSERT_EQ(0, stOut.iRet) << stOut.strLog;
    const tagST_LDC_PARA &p = stOut.stPara;
    EXPECT_EQ((std::vector<int32_t>{480, 640, 7, 99}),
              (std::vector<int32_t>{p.iImgWidth, p.iImgHeight, p.iBendValue, p.iSvmFactor}));
    std::vector<float> vfRead(p.afCameraMatrix, p.afCameraMatrix + 9);
    vfRead.insert(vfRead.end(), p.afDistortionCoefficients, p.afDistortionCoefficients + 5);
    EXPECT_EQ((std::vector<float>{500, 0, 241, 0, 500, 1, 0, 0, 0, 0.5f, 0, 0, 0, 0}), vfRead);
}

TEST(ConfigSchema, ClassifierKeysFillTheModel)
{
    // The fourth global coefficient is 0, which the classifier mode accepts. The configured Gamma
    // and Rho are read; the element after the last value read stays 0.
    const ParseOutcome stOut = Parse(TestConfigPath("svm_model.xml"), 640, 480);
    ASSERT_EQ(0, stOut.iRet) << stOut.strLog;
    const tagST_SVM_MODEL &m = stOut.stPara.stSvmModel;
    EXPECT_EQ((std::vector<float>{1, 2.0f, 5.0f, 2, 1}),
              (std::vector<float>{(float)stOut.stPara.iBendDecideMode, m.fGamma, m.fRho, (float)m.aiNSv[0],
                                  (float)m.aiNSv[1]}));
    EXPECT_EQ((std::vector<float>{6.0f, -3.5f, 0.25f, 0}), std::vector<float>(m.afSvCoef, m.afSvCoef + 4));
    EXPECT_EQ((std::vector<float>{0.1f, 0.2f, 0.3f, 0.4f, -0.5f, -0.6f, -0.7f, -0.8f, 0.9f, -1.0f, 0.5f, -0.25f, 0}),
              std::vector<float>(m.afSv, m.afSv + 13));

    // 200 vectors fit; short vectors leave the rest of the model at 0. Only the 32-bit sum of the
    // counts is checked: a sum that wraps negative reads no values.
    const struct {
        const char *pcName, *pcCounts;
        std::vector<float> vfExpected;
    } astCounts[] = {{"svm_200", "150 50", {1.5f, 0, 1, 2, 0}}, {"svm_wrapped", "2147483647 1", {0, 0, 0, 0, 0}}};
    for (const auto &c : astCounts) {
        const ParseOutcome stCounts = Parse(
            WriteConfig(c.pcName, std::string("<LineDetection><BendDecideMode>1</BendDecideMode><SVM><SvNumber>") +
                                      c.pcCounts + "</SvNumber><SvCoeff>1.5</SvCoeff><SvValue>1 2</SvValue></SVM>"
                                      "</LineDetection>"),
            640, 480);
        ASSERT_EQ(0, stCounts.iRet) << stCounts.strLog;
        const tagST_SVM_MODEL &n = stCounts.stPara.stSvmModel;
        EXPECT_EQ(c.vfExpected, (std::vector<float>{n.afSvCoef[0], n.afSvCoef[199], n.afSv[0], n.afSv[1], n.afSv[2]}))
            << c.pcName;
    }
}

TEST(ConfigSchema, Refusals)
{
    EXPECT_EQ(Refused("The number of Sv is 201, can't be more than 200!"),
              Result(Parse(TestConfigPath("svm_count_201.xml"), 640, 480)));
    const struct {
        const char *pcName, *pcSvm, *pcMessage;
    } astSvm[] = {
        {"svm_no_number", "<SvCoeff>1</SvCoeff><SvValue>1 2 3 4</SvValue>", "Can't get the svm param: SvNumber!"},
        {"svm_empty_number", "<SvNumber></SvNumber><SvCoeff>1</SvCoeff>", "Can't get the svm param: SvNumber!"},
        {"svm_no_coeff", "<SvNumber>1 0</SvNumber><SvValue>1 2 3 4</SvValue>", "Can't get the svm param: SvCoeff!"},
        {"svm_no_value", "<SvNumber>1 0</SvNumber><SvCoeff>1</SvCoeff>", "Can't get the svm param: SvValue!"},
    };
    for (const auto &c : astSvm) {
        const std::string strPath = WriteConfig(
            c.pcName, std::string("<LineDetection><BendDecideMode>1</BendDecideMode><SVM>") + c.pcSvm +
                          "</SVM></LineDetection>");
        EXPECT_EQ(Refused(c.pcMessage), Result(Parse(strPath, 640, 480))) << c.pcName;
    }
    const struct {
        int32_t iWidth, iHeight;
        const char *pcMessage;
    } astProfiles[] = {
        {640, 480, "Can't get the camera matrix!"},
        {1280, 720, "Can't get the distortion coefficients!"},
        {320, 240, "Can't get the global FDC coefficients!"},
        {352, 288, "Error GolbalFDCCoeff!"},
        {800, 600, "Image size is not supportted!"},
    };
    for (const auto &c : astProfiles) {
        EXPECT_EQ(Refused(c.pcMessage), Result(Parse(TestConfigPath("missing_vectors.xml"), c.iWidth, c.iHeight)))
            << c.iWidth << "x" << c.iHeight;
    }
    // The seventh profile is served, the eighth never, though it is matched and read first.
    const ParseOutcome stSeventh = Parse(TestConfigPath("profile8_only.xml"), 720, 1280);
    ASSERT_EQ(0, stSeventh.iRet) << stSeventh.strLog;
    EXPECT_EQ(639.0f, stSeventh.stPara.afCameraMatrix[2]);
    const ParseOutcome stEighth = Parse(TestConfigPath("profile8_only.xml"), 640, 480);
    EXPECT_EQ(Refused("Image size is not supportted!"), Result(stEighth));
    EXPECT_EQ(343.0f, stEighth.stPara.afCameraMatrix[2]);
}

}  // namespace
