// IQV_LDC_Create, IQV_LDC_Reset and IQV_LDC_Delete: argument checks, messages in order, the
// working buffer, failed resets and the clean-up paths.
#include <gtest/gtest.h>

#include <signal.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "config/xml_parser.h"
#include "interface/ldc_lifecycle.h"
#include "records/ldc_para.h"
#include "support/malloc_fault.h"
#include "vkt_zb_ldc.h"

namespace {

const char kInfo[] = "I/ZB5QU_QVLDC: ";
const char kError[] = "E/ZB5QU_QVLDC: ";

std::string SamplePath()
{
    return std::string(LDC_CONFIG_DIR) + "/qvldc_sample.xml";
}

std::string TestConfigPath(const char *pcName)
{
    return std::string(LDC_TEST_CONFIG_DIR) + "/" + pcName;
}

// Creation arguments; the path lives in storage of at least 256 bytes, as callers must keep it.
struct CreateArgs {
    char acPath[320];
    ST_LDC_INPUT_PARA stInput;

    CreateArgs(const std::string &strPath, int32_t iWidth, int32_t iHeight, int32_t iType = 0)
    {
        memset(acPath, 0, sizeof(acPath));
        strncpy(acPath, strPath.c_str(), sizeof(acPath) - 1);
        stInput = {iWidth, iHeight, acPath, iType};
    }
    CreateArgs(const CreateArgs &) = delete;
};

std::vector<std::string> SplitLines(const std::string &strLog)
{
    std::vector<std::string> astrLines;
    size_t uStart = 0;
    for (size_t uEnd; (uEnd = strLog.find('\n', uStart)) != std::string::npos; uStart = uEnd + 1) {
        astrLines.push_back(strLog.substr(uStart, uEnd - uStart));
    }
    return astrLines;
}

struct Call {
    int32_t iRet;
    std::vector<std::string> astrLog;
};

template <typename Fn>
Call Logged(Fn fnCall)
{
    testing::internal::CaptureStderr();
    const int32_t iRet = fnCall();
    return {iRet, SplitLines(testing::internal::GetCapturedStderr())};
}

Call Create(void **pHandle, ST_LDC_INPUT_PARA *pstInput)
{
    return Logged([&] { return IQV_LDC_Create(pHandle, pstInput); });
}

Call Reset(void *pHandle, ST_LDC_INPUT_PARA *pstInput)
{
    return Logged([&] { return IQV_LDC_Reset(pHandle, pstInput); });
}

Call Delete(void *pHandle)
{
    return Logged([&] { return IQV_LDC_Delete(pHandle); });
}

std::string Info(const std::string &strMessage)
{
    return kInfo + strMessage;
}

std::string Error(const std::string &strMessage)
{
    return kError + strMessage;
}

// Every Create starts with its entry trace and the version line.
void ExpectCreatePreamble(const std::vector<std::string> &astrLog)
{
    ASSERT_GE(astrLog.size(), 2u);
    EXPECT_EQ(Info("Enter IQV_LDC_Create."), astrLog[0]);
    EXPECT_EQ(0u, astrLog[1].find(Info("LDC Version : __QVLDC_V1.0.4<78069>__"))) << astrLog[1];
    EXPECT_EQ("__gcc__ ", astrLog[1].substr(astrLog[1].size() - 8)) << astrLog[1];
}

// The log of a Create that got past its argument checks and failed in parsing or checking.
std::vector<std::string> FailedCreateTail(const std::vector<std::string> &astrMessages)
{
    std::vector<std::string> astrTail;
    for (const std::string &strMessage : astrMessages) {
        astrTail.push_back(Error(strMessage));
    }
    astrTail.push_back(Info("Enter IQV_LDC_Delete."));
    astrTail.push_back(Info("Exit IQV_LDC_Delete."));
    return astrTail;
}

std::vector<std::string> LogAfterParams(const std::vector<std::string> &astrLog)
{
    // Enter, version, parameter dump.
    return astrLog.size() > 3 ? std::vector<std::string>(astrLog.begin() + 3, astrLog.end())
                              : std::vector<std::string>();
}

bool IsAreaLine(const std::string &strLine)
{
    return strLine.find(Info("The undistorted points is limited in [")) == 0;
}

void ExpectReadyInstance(const tagST_LDC_PARA *pstPara, int32_t iWidth, int32_t iHeight)
{
    EXPECT_EQ(iWidth, pstPara->iImgWidth);
    EXPECT_EQ(iHeight, pstPara->iImgHeight);
    ASSERT_NE(nullptr, pstPara->pucWorkBufRaw);
    const ptrdiff_t iOffset = pstPara->pucWorkBuf - pstPara->pucWorkBufRaw;
    EXPECT_GE(iOffset, 1);
    EXPECT_LE(iOffset, LDC_WORKBUF_ALIGN);
    EXPECT_EQ(0u, (uintptr_t)pstPara->pucWorkBuf % LDC_WORKBUF_ALIGN);
    // Zero-filled to its last byte (the sanitizer build also checks the extent).
    EXPECT_EQ(0, pstPara->pucWorkBuf[GetWorkBufSize(iWidth, iHeight) - 1]);
    EXPECT_EQ(0, pstPara->aiLDCArea[0] & 1);
    EXPECT_EQ(1, pstPara->aiLDCArea[2] & 1);
}

void *const kUntouched = reinterpret_cast<void *>(uintptr_t{0x5a5a});

TEST(Lifecycle, WorkBufSizeCoversAFrameAndTheReserve)
{
    EXPECT_EQ(19760224, GetWorkBufSize(4000, 3000));
    EXPECT_EQ(19760224, GetWorkBufSize(3000, 4000));
    EXPECT_EQ(2221024, GetWorkBufSize(640, 480));
    EXPECT_EQ(37 + 1760224, GetWorkBufSize(5, 5));   // 75 luma and chroma bytes, halved down
}

TEST(Lifecycle, CreateArgumentChecksInOrder)
{
    const std::string strPath = SamplePath();
    const struct {
        bool bNullHandle;
        bool bNullInput;
        bool bNullPath;
        int32_t iWidth;
        int32_t iHeight;
        int32_t iType;
        const char *pcMessage;
    } astCases[] = {
        {true, true, true, 0, 0, 9, "pHandle is NULL!"},
        {false, true, true, 0, 0, 9, "InputPara is NULL!"},
        {false, false, true, 0, 0, 9, "Config path is NULL!"},
        {false, false, false, 0, 0, 9, "The width of image (0) should be in [0, 5000]!"},
        {false, false, false, 5001, 480, 0, "The width of image (5001) should be in [0, 5000]!"},
        {false, false, false, -640, 480, 0, "The width of image (-640) should be in [0, 5000]!"},
        {false, false, false, 640, 0, 9, "The height of image (0) should be in [0, 5000]!"},
        {false, false, false, 640, 5001, 0, "The height of image (5001) should be in [0, 5000]!"},
        {false, false, false, 640, 480, -1, "The type of image (-1) should be 0, 1 or 2!"},
        {false, false, false, 640, 480, 3, "The type of image (3) should be 0, 1 or 2!"},
    };
    for (const auto &stCase : astCases) {
        CreateArgs stArgs(strPath, stCase.iWidth, stCase.iHeight, stCase.iType);
        if (stCase.bNullPath) {
            stArgs.stInput.pucCfgPath = nullptr;
        }
        void *pHandle = kUntouched;
        const Call stCall = Create(stCase.bNullHandle ? nullptr : &pHandle,
                                   stCase.bNullInput ? nullptr : &stArgs.stInput);
        EXPECT_EQ(LDC_ERR_PARAM, stCall.iRet) << stCase.pcMessage;
        EXPECT_EQ(kUntouched, pHandle) << stCase.pcMessage;
        ExpectCreatePreamble(stCall.astrLog);
        EXPECT_EQ(std::vector<std::string>{Error(stCase.pcMessage)},
                  std::vector<std::string>(stCall.astrLog.begin() + 2, stCall.astrLog.end()));
    }
}

TEST(Lifecycle, CreateLogsAndFillsAReadyInstance)
{
    CreateArgs stArgs(SamplePath(), 640, 480, LDC_PIC_YUV420);
    void *pHandle = nullptr;
    const Call stCall = Create(&pHandle, &stArgs.stInput);
    ASSERT_EQ(LDC_OK, stCall.iRet);
    ExpectCreatePreamble(stCall.astrLog);
    ASSERT_EQ(5u, stCall.astrLog.size());
    EXPECT_EQ(Info("QVLDC params  in IQV_LDC_Create: iImgWidth = 640, iImgHeight = 480, pucCfgPath = " +
                   SamplePath() + ", ePicType = 2."),
              stCall.astrLog[2]);
    EXPECT_TRUE(IsAreaLine(stCall.astrLog[3])) << stCall.astrLog[3];
    EXPECT_EQ(Info("Exit IQV_LDC_Create."), stCall.astrLog[4]);

    const tagST_LDC_PARA *pstPara = static_cast<tagST_LDC_PARA *>(pHandle);
    ExpectReadyInstance(pstPara, 640, 480);
    EXPECT_EQ(LDC_PIC_YUV420, pstPara->ePicType);
    EXPECT_STREQ(SamplePath().c_str(), pstPara->acCfgPath);
    EXPECT_EQ(343.0f, pstPara->afCameraMatrix[2]);

    const Call stDelete = Delete(pHandle);
    EXPECT_EQ(LDC_OK, stDelete.iRet);
    EXPECT_EQ((std::vector<std::string>{Info("Enter IQV_LDC_Delete."), Info("Exit IQV_LDC_Delete.")}),
              stDelete.astrLog);
}

TEST(Lifecycle, CreateAcceptsTheLargestSizesAndEitherOrientation)
{
    // 5000 x 8 is a profile; 8 x 5000 is served by it in its orientation.
    for (const bool bTransposed : {false, true}) {
        CreateArgs stArgs(TestConfigPath("camera_matrix_limits.xml"), bTransposed ? 8 : 5000,
                          bTransposed ? 5000 : 8);
        void *pHandle = nullptr;
        ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
        ExpectReadyInstance(static_cast<tagST_LDC_PARA *>(pHandle), 5000, 8);
        EXPECT_EQ(LDC_OK, Delete(pHandle).iRet);
    }
    // A portrait request on the landscape 4000 x 3000 profile of the sample.
    CreateArgs stArgs(SamplePath(), 3000, 4000);
    void *pHandle = nullptr;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    ExpectReadyInstance(static_cast<tagST_LDC_PARA *>(pHandle), 4000, 3000);
    EXPECT_EQ(LDC_OK, Delete(pHandle).iRet);
}

TEST(Lifecycle, CreateRefusesUnusableConfigurations)
{
    const std::string strBinary = testing::TempDir() + "ldc_lifecycle_binary.xml";
    {
        std::ofstream stOut(strBinary, std::ios::binary | std::ios::trunc);
        uint32_t uState = 12345;
        for (int i = 0; i < 4096; i++) {
            uState = uState * 1103515245u + 12345u;
            stOut.put(static_cast<char>(uState >> 24));
        }
    }
    const std::vector<std::string> astrPaths = {TestConfigPath("truncated.xml"), strBinary};
    for (const std::string &strPath : astrPaths) {
        CreateArgs stArgs(strPath, 640, 480);
        void *pHandle = kUntouched;
        const Call stCall = Create(&pHandle, &stArgs.stInput);
        EXPECT_EQ(LDC_ERR_CONFIG, stCall.iRet) << strPath;
        EXPECT_EQ(kUntouched, pHandle) << strPath;
        ExpectCreatePreamble(stCall.astrLog);
        EXPECT_EQ(FailedCreateTail({"Image size is not supportted!",
                                    "Parse config file in IQV_LDC_Create is error!"}),
                  LogAfterParams(stCall.astrLog))
            << strPath;
    }
}

// A configuration path that blocks Create or Reset must fail the run, not hang it.
void ConfigWatchdogExpired(int)
{
    const char acMessage[] = "watchdog: a configuration path blocked IQV_LDC_Create or IQV_LDC_Reset\n";
    (void)!write(1, acMessage, sizeof(acMessage) - 1);   // stderr may be captured at this moment
    _exit(1);
}

TEST(Lifecycle, HostileConfigPathsFailPromptly)
{
    const std::string strDir = testing::TempDir() + "ldc_hostile_" + std::to_string(getpid()) + "/";
    ASSERT_EQ(0, mkdir(strDir.c_str(), 0755));
    std::stringstream stSample;
    stSample << std::ifstream(SamplePath(), std::ios::binary).rdbuf();
    auto fnWrite = [&](const char *pcName, const std::string &strText) {
        std::ofstream(strDir + pcName, std::ios::binary) << strText;
        return strDir + pcName;
    };
    // The sample padded with blanks to the reader's limit is still read; one byte more is not.
    const std::string strPadded = stSample.str() + std::string(XML_FILE_MAX_BYTES - stSample.str().size(), ' ');
    const std::string strAtLimit = fnWrite("limit.xml", strPadded);
    const std::string strOver = fnWrite("over.xml", strPadded + " ");
    const std::string strFifo = strDir + "fifo.xml";
    ASSERT_EQ(0, mkfifo(strFifo.c_str(), 0644));
    const std::string strSwapped = fnWrite("swapped.xml", stSample.str());

    signal(SIGALRM, ConfigWatchdogExpired);
    alarm(30);
    const struct {
        std::string strPath;
        const char *pcReason;
    } astCases[] = {{strFifo, "is not a regular file!"},
                    {"/dev/zero", "is not a regular file!"},
                    {strDir, "is not a regular file!"},
                    {strDir + "missing.xml", "can't be read or is empty!"},
                    {TestConfigPath("empty.xml"), "can't be read or is empty!"},
                    {strOver, "is larger than 1048576 bytes!"}};
    for (const auto &stCase : astCases) {
        CreateArgs stArgs(stCase.strPath, 640, 480);
        void *pHandle = kUntouched;
        const auto tStart = std::chrono::steady_clock::now();
        const Call stCall = Create(&pHandle, &stArgs.stInput);
        const std::chrono::duration<double> tTaken = std::chrono::steady_clock::now() - tStart;
        EXPECT_EQ(LDC_ERR_CONFIG, stCall.iRet) << stCase.strPath;
        EXPECT_EQ(kUntouched, pHandle) << stCase.strPath;
        EXPECT_EQ(FailedCreateTail({"The config file " + stCase.strPath + " " + stCase.pcReason,
                                    "Can't load xml file!", "Parse config file in IQV_LDC_Create is error!"}),
                  LogAfterParams(stCall.astrLog));
        EXPECT_LT(tTaken.count(), 0.25) << stCase.strPath;
    }
    // Reset reads the path again: a file that has become a FIFO since Create fails the same way.
    CreateArgs stArgs(strSwapped, 640, 480);
    void *pHandle = NULL;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    ASSERT_EQ(0, unlink(strSwapped.c_str()));
    ASSERT_EQ(0, mkfifo(strSwapped.c_str(), 0644));
    const Call stReset = Reset(pHandle, &stArgs.stInput);
    EXPECT_EQ(LDC_ERR_CONFIG, stReset.iRet);
    EXPECT_EQ(std::vector<std::string>({Error("The config file " + strSwapped + " is not a regular file!"),
                                        Error("Can't load xml file!"),
                                        Error("Parse config file in IQV_LDC_Reset is error!")}),
              stReset.astrLog);
    EXPECT_EQ(0, Delete(pHandle).iRet);

    CreateArgs stLimit(strAtLimit, 640, 480);
    EXPECT_EQ(LDC_OK, Create(&pHandle, &stLimit.stInput).iRet);
    EXPECT_EQ(0, Delete(pHandle).iRet);
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    for (const std::string &strPath : {strAtLimit, strOver, strFifo, strSwapped}) {
        unlink(strPath.c_str());
    }
    rmdir(strDir.c_str());
}

TEST(Lifecycle, ConfigPathOfAtMost255Characters)
{
    const std::string strDir = testing::TempDir() + "ldc_lifecycle_long/";
    mkdir(strDir.c_str(), 0755);
    const std::string strPath255 = strDir + std::string(255 - strDir.size(), 'p');
    {
        std::ifstream stIn(SamplePath(), std::ios::binary);
        std::ofstream stOut(strPath255, std::ios::binary | std::ios::trunc);
        stOut << stIn.rdbuf();
    }
    CreateArgs stArgs(strPath255, 640, 480);
    void *pHandle = nullptr;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    EXPECT_STREQ(strPath255.c_str(), static_cast<tagST_LDC_PARA *>(pHandle)->acCfgPath);
    // Reset reads the stored copy of the path.
    ST_LDC_INPUT_PARA stNewSize = {1920, 1080, nullptr, 0};
    EXPECT_EQ(LDC_OK, Reset(pHandle, &stNewSize).iRet);
    EXPECT_EQ(LDC_OK, Delete(pHandle).iRet);

    for (const size_t uLength : {256u, 300u}) {
        CreateArgs stLong(strPath255 + std::string(uLength - 255, 'q'), 640, 480);
        void *pLong = kUntouched;
        const Call stCall = Create(&pLong, &stLong.stInput);
        EXPECT_EQ(LDC_ERR_CONFIG, stCall.iRet) << uLength;
        EXPECT_EQ(kUntouched, pLong);
        EXPECT_EQ(FailedCreateTail({"Can't load xml file!", "Parse config file in IQV_LDC_Create is error!"}),
                  LogAfterParams(stCall.astrLog))
            << uLength;
    }
}

TEST(Lifecycle, CameraMatrixChecks)
{
    const struct {
        int32_t iWidth;
        int32_t iHeight;
        const char *pcMessage;
    } astCases[] = {
        // u0 -0.5 is held as 0 after the move to odd pixels.
        {640, 480, "(U0, V0) in the camera matrix (0.000000, 235.000000) should be in the area of the image!"},
        {1280, 720, "(U0, V0) in the camera matrix (639.000000, 721.000000) should be in the area of the image!"},
        {320, 240, "Alpha in the camera matrix (0.000000) should be positive number!"},
        // fy is negative; the message quotes fx.
        {352, 288, "Alpha in the camera matrix (294.750000) should be positive number!"},
    };
    for (const auto &stCase : astCases) {
        CreateArgs stArgs(TestConfigPath("camera_matrix_limits.xml"), stCase.iWidth, stCase.iHeight);
        void *pHandle = kUntouched;
        const Call stCall = Create(&pHandle, &stArgs.stInput);
        EXPECT_EQ(LDC_ERR_CAMERA_MATRIX, stCall.iRet) << stCase.pcMessage;
        EXPECT_EQ(kUntouched, pHandle);
        EXPECT_EQ(FailedCreateTail({stCase.pcMessage}), LogAfterParams(stCall.astrLog));
    }
}

TEST(Lifecycle, ResetRebuildsTheInstanceForANewSize)
{
    CreateArgs stArgs(SamplePath(), 640, 480);
    void *pHandle = nullptr;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    tagST_LDC_PARA *pstPara = static_cast<tagST_LDC_PARA *>(pHandle);

    // The path argument is ignored; the type is taken over; no traces, only the area line.
    ST_LDC_INPUT_PARA stNewSize = {1080, 1920, "/no/such/file.xml", LDC_PIC_NV12};
    const Call stCall = Reset(pHandle, &stNewSize);
    ASSERT_EQ(LDC_OK, stCall.iRet);
    ASSERT_EQ(1u, stCall.astrLog.size());
    EXPECT_TRUE(IsAreaLine(stCall.astrLog[0])) << stCall.astrLog[0];
    ExpectReadyInstance(pstPara, 1920, 1080);
    EXPECT_EQ(LDC_PIC_NV12, pstPara->ePicType);
    EXPECT_STREQ(SamplePath().c_str(), pstPara->acCfgPath);
    EXPECT_EQ(1027.0f, pstPara->afCameraMatrix[2]);
    EXPECT_EQ(527.0f, pstPara->afCameraMatrix[5]);
    EXPECT_EQ(LDC_OK, Delete(pHandle).iRet);
}

// Reset refuses what Create refuses, with its messages, and before anything changes, even when
// the configuration holds a profile of that size.
TEST(Lifecycle, ResetRefusesWhatCreateRefusesAndKeepsTheInstance)
{
    CreateArgs stArgs(TestConfigPath("oversized_profiles.xml"), 640, 480, LDC_PIC_YUV420);
    void *pHandle = nullptr;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    std::vector<uint8_t> vucBefore(sizeof(tagST_LDC_PARA));
    memcpy(vucBefore.data(), pHandle, vucBefore.size());
    const struct {
        ST_LDC_INPUT_PARA stInput;
        const char *pcMessage;
    } astCases[] = {
        {{50000, 50000, nullptr, 0}, "The width of image (50000) should be in [0, 5000]!"},
        {{6000, 4000, nullptr, 1}, "The width of image (6000) should be in [0, 5000]!"},
        {{4000, 6000, nullptr, 1}, "The height of image (6000) should be in [0, 5000]!"},
        {{640, 480, nullptr, 3}, "The type of image (3) should be 0, 1 or 2!"},
    };
    for (auto stCase : astCases) {
        const Call stCall = Reset(pHandle, &stCase.stInput);
        EXPECT_EQ(LDC_ERR_PARAM, stCall.iRet) << stCase.pcMessage;
        EXPECT_EQ(std::vector<std::string>{Error(stCase.pcMessage)}, stCall.astrLog);
        EXPECT_EQ(0, memcmp(vucBefore.data(), pHandle, vucBefore.size())) << stCase.pcMessage;
    }
    EXPECT_EQ(LDC_OK, Delete(pHandle).iRet);
}

// A failed Reset keeps the path and the instance's own picture type, not the requested one.
TEST(Lifecycle, FailedResetLeavesAHollowInstance)
{
    CreateArgs stArgs(TestConfigPath("camera_matrix_limits.xml"), 5000, 8, LDC_PIC_YUV420);
    void *pHandle = nullptr;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    tagST_LDC_PARA *pstPara = static_cast<tagST_LDC_PARA *>(pHandle);
    tagST_LDC_PARA stHollow;
    memset(&stHollow, 0, sizeof(stHollow));
    strcpy(stHollow.acCfgPath, stArgs.acPath);
    stHollow.ePicType = LDC_PIC_YUV420;

    const struct {
        int32_t iWidth;
        int32_t iHeight;
        int32_t iRet;
        std::vector<std::string> astrLog;
    } astCases[] = {
        {800, 600, LDC_ERR_CONFIG,
         {Error("Image size is not supportted!"), Error("Parse config file in IQV_LDC_Reset is error!")}},
        // The Alpha message quotes the cleared instance: 0.000000 although fx is 294.75.
        {352, 288, LDC_ERR_CAMERA_MATRIX, {Error("Alpha in the camera matrix (0.000000) should be positive number!")}},
        {1280, 720, LDC_ERR_CAMERA_MATRIX,
         {Error("(U0, V0) in the camera matrix (639.000000, 721.000000) should be in the area of the image!")}},
    };
    for (const auto &stCase : astCases) {
        ST_LDC_INPUT_PARA stNewSize = {stCase.iWidth, stCase.iHeight, nullptr, 1};
        const Call stCall = Reset(pHandle, &stNewSize);
        EXPECT_EQ(stCase.iRet, stCall.iRet) << stCase.iWidth;
        EXPECT_EQ(stCase.astrLog, stCall.astrLog);
        EXPECT_EQ(0, memcmp(&stHollow, pstPara, sizeof(stHollow))) << stCase.iWidth;
    }
    // A hollow instance can be reset again, and deleted.
    ST_LDC_INPUT_PARA stGood = {8, 5000, nullptr, 0};
    ASSERT_EQ(LDC_OK, Reset(pHandle, &stGood).iRet);
    ExpectReadyInstance(pstPara, 5000, 8);
    ST_LDC_INPUT_PARA stUnknown = {800, 600, nullptr, 0};
    ASSERT_EQ(LDC_ERR_CONFIG, Reset(pHandle, &stUnknown).iRet);
    const Call stDelete = Delete(pHandle);
    EXPECT_EQ(LDC_OK, stDelete.iRet);
    EXPECT_EQ((std::vector<std::string>{Info("Enter IQV_LDC_Delete."), Info("Exit IQV_LDC_Delete.")}),
              stDelete.astrLog);
}

TEST(Lifecycle, NullArgumentsOfResetAndDelete)
{
    ST_LDC_INPUT_PARA stInput = {640, 480, nullptr, 0};
    int iDummy = 0;
    for (const auto &stArgs : {std::make_pair((void *)nullptr, &stInput),
                               std::make_pair((void *)&iDummy, (ST_LDC_INPUT_PARA *)nullptr)}) {
        const Call stCall = Reset(stArgs.first, stArgs.second);
        EXPECT_EQ(LDC_ERR_PARAM, stCall.iRet);
        EXPECT_EQ(std::vector<std::string>{Error("The point of input param is NULL!")}, stCall.astrLog);
    }
    const Call stDelete = Delete(nullptr);
    EXPECT_EQ(LDC_ERR_PARAM, stDelete.iRet);
    EXPECT_EQ((std::vector<std::string>{Info("Enter IQV_LDC_Delete."), Error("The point of input param is NULL!"),
                                        Info("Exit IQV_LDC_Delete.")}),
              stDelete.astrLog);
}

TEST(Lifecycle, AllocationFailures)
{
    const size_t uWorkBufAlloc = (size_t)GetWorkBufSize(640, 480) + LDC_WORKBUF_ALIGN;
    {
        // The record itself: the clean-up runs on the missing record before the message.
        CreateArgs stArgs(SamplePath(), 640, 480);
        void *pHandle = kUntouched;
        ScopedMallocFailure stFail(sizeof(tagST_LDC_PARA));
        const Call stCall = Create(&pHandle, &stArgs.stInput);
        EXPECT_EQ(LDC_ERR_MEMORY, stCall.iRet);
        EXPECT_EQ(kUntouched, pHandle);
        ExpectCreatePreamble(stCall.astrLog);
        EXPECT_EQ((std::vector<std::string>{Info("Enter IQV_LDC_Delete."),
                                            Error("The point of input param is NULL!"),
                                            Info("Exit IQV_LDC_Delete."),
                                            Error("malloc memory for pstLdcPara in IQV_LDC_Create is error!")}),
                  std::vector<std::string>(stCall.astrLog.begin() + 2, stCall.astrLog.end()));
    }
    {
        CreateArgs stArgs(SamplePath(), 640, 480);
        void *pHandle = kUntouched;
        ScopedMallocFailure stFail(uWorkBufAlloc);
        const Call stCall = Create(&pHandle, &stArgs.stInput);
        EXPECT_EQ(LDC_ERR_MEMORY, stCall.iRet);
        EXPECT_EQ(kUntouched, pHandle);
        const std::vector<std::string> astrTail = LogAfterParams(stCall.astrLog);
        ASSERT_EQ(4u, astrTail.size());
        EXPECT_TRUE(IsAreaLine(astrTail[0]));
        EXPECT_EQ(FailedCreateTail({"malloc memory in IQV_LDC_Create is error!"}),
                  std::vector<std::string>(astrTail.begin() + 1, astrTail.end()));
    }
    {
        // Reset fails silently after its area line and leaves the instance hollow.
        CreateArgs stArgs(SamplePath(), 4000, 3000);
        void *pHandle = nullptr;
        ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
        ST_LDC_INPUT_PARA stNewSize = {640, 480, nullptr, 0};
        Call stCall;
        {
            ScopedMallocFailure stFail(uWorkBufAlloc);
            stCall = Reset(pHandle, &stNewSize);
        }
        EXPECT_EQ(LDC_ERR_MEMORY, stCall.iRet);
        ASSERT_EQ(1u, stCall.astrLog.size());
        EXPECT_TRUE(IsAreaLine(stCall.astrLog[0]));
        const tagST_LDC_PARA *pstPara = static_cast<tagST_LDC_PARA *>(pHandle);
        EXPECT_EQ(0, pstPara->iImgWidth);
        EXPECT_EQ(nullptr, pstPara->pucWorkBufRaw);
        EXPECT_STREQ(SamplePath().c_str(), pstPara->acCfgPath);
        EXPECT_EQ(LDC_OK, Delete(pHandle).iRet);
    }
}

}  // namespace
