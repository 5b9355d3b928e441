// IQV_LDC_Create, IQV_LDC_Reset and IQV_LDC_Delete: argument checks, messages in order, the
// working buffer, failed resets and the clean-up paths. Logs are compared whole.
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
#include "interface/ldc_workbuf.h"
#include "interface/ldc_mesh.h"
#include "records/ldc_para.h"
#include "support/harness.h"
#include "support/malloc_fault.h"
#include "vkt_zb_ldc.h"
#include "support/temp_file.h"

namespace {

std::string I(const std::string &strMessage)
{
    return "I/ZB5QU_QVLDC: " + strMessage + "\n";
}

std::string E(const std::string &strMessage)
{
    return "E/ZB5QU_QVLDC: " + strMessage + "\n";
}

// Every Create starts with its entry trace and the version line (build stamp shown as STAMP);
// a Create that fails after its parameter line cleans up through Delete.
const std::string kCreateHead = I("Enter IQV_LDC_Create.") + I("LDC Version : __QVLDC_V1.0.4<78069>__STAMP__gcc__ ");
const std::string kDeleteTrace = I("Enter IQV_LDC_Delete.") + I("Exit IQV_LDC_Delete.");

std::string Params(const std::string &strPath, int32_t iW, int32_t iH, int32_t iType = 0)
{
    return I("QVLDC params  in IQV_LDC_Create: iImgWidth = " + std::to_string(iW) + ", iImgHeight = " +
             std::to_string(iH) + ", pucCfgPath = " + strPath + ", ePicType = " + std::to_string(iType) + ".");
}

std::string Area(int32_t iL, int32_t iT, int32_t iR, int32_t iB)
{
    return I("The undistorted points is limited in [" + std::to_string(iL) + ", " + std::to_string(iT) + ", " +
             std::to_string(iR) + ", " + std::to_string(iB) + "]!");
}

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
    char acPath[320] = {0};
    ST_LDC_INPUT_PARA stInput;

    CreateArgs(const std::string &strPath, int32_t iWidth, int32_t iHeight, int32_t iType = 0)
    {
        strncpy(acPath, strPath.c_str(), sizeof(acPath) - 1);
        stInput = {iWidth, iHeight, acPath, iType};
    }
    CreateArgs(const CreateArgs &) = delete;
};

struct Call {
    int32_t iRet;
    std::string strLog;
};

template <typename Fn>
Call Logged(Fn fnCall)
{
    testing::internal::CaptureStderr();
    const int32_t iRet = fnCall();
    std::string strLog = testing::internal::GetCapturedStderr();
    const size_t uStamp = strLog.find("<78069>__"), uGcc = strLog.find("__gcc__");
    if (uStamp != std::string::npos && uGcc != std::string::npos && uGcc > uStamp) {
        strLog.replace(uStamp + 9, uGcc - uStamp - 9, "STAMP");
    }
    return {iRet, strLog};
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

void ExpectReadyInstance(const void *pHandle, int32_t iWidth, int32_t iHeight)
{
    const tagST_LDC_PARA *pstPara = static_cast<const tagST_LDC_PARA *>(pHandle);
    EXPECT_EQ((std::vector<int32_t>{iWidth, iHeight}), (std::vector<int32_t>{pstPara->iImgWidth, pstPara->iImgHeight}));
    ASSERT_NE(nullptr, pstPara->pucWorkBufRaw);
    const ptrdiff_t iOffset = pstPara->pucWorkBuf - pstPara->pucWorkBufRaw;
    EXPECT_TRUE(iOffset >= 1 && iOffset <= LDC_WORKBUF_ALIGN) << iOffset;
    EXPECT_EQ(0u, (uintptr_t)pstPara->pucWorkBuf % LDC_WORKBUF_ALIGN);
    // Zero-filled to its last byte (the sanitizer build also checks the extent).
    EXPECT_EQ(0, pstPara->pucWorkBuf[GetWorkBufSize(iWidth, iHeight) - 1]);
    EXPECT_EQ((std::vector<int32_t>{0, 1}), (std::vector<int32_t>{pstPara->aiLDCArea[0] & 1, pstPara->aiLDCArea[2] & 1}));
}

void *const kUntouched = reinterpret_cast<void *>(uintptr_t{0x5a5a});

TEST(Lifecycle, WorkBufSizeCoversAFrameAndTheReserve)
{
    // 75 luma and chroma bytes of a 5 x 5 frame, halved down.
    EXPECT_EQ((std::vector<int32_t>{19760224, 19760224, 2221024, 37 + 1760224}),
              (std::vector<int32_t>{GetWorkBufSize(4000, 3000), GetWorkBufSize(3000, 4000), GetWorkBufSize(640, 480),
                                    GetWorkBufSize(5, 5)}));
}

// Refusals of Create: the arguments in order (nothing logged after the head), then the camera
// matrix of the chosen profile (after the parameter line, cleaned up through Delete). Reset
// refuses the same sizes and types with the same messages before anything changes, even where
// the configuration holds a profile of that size.
TEST(Lifecycle, CreateAndResetRefusalsInOrder)
{
    const std::string strLimits = TestConfigPath("camera_matrix_limits.xml");
    CreateArgs stLive(TestConfigPath("oversized_profiles.xml"), 640, 480, LDC_PIC_YUV420);
    void *pLive = nullptr;
    ASSERT_EQ(LDC_OK, Create(&pLive, &stLive.stInput).iRet);
    std::vector<uint8_t> vucBefore(sizeof(tagST_LDC_PARA));
    memcpy(vucBefore.data(), pLive, vucBefore.size());
    const struct {
        bool bNullHandle, bNullInput, bNullPath;
        int32_t iWidth, iHeight, iType, iRet;
        const char *pcMessage;
    } astCases[] = {
        {true, true, true, 0, 0, 9, LDC_ERR_PARAM, "pHandle is NULL!"},
        {false, true, true, 0, 0, 9, LDC_ERR_PARAM, "InputPara is NULL!"},
        {false, false, true, 0, 0, 9, LDC_ERR_PARAM, "Config path is NULL!"},
        {false, false, false, 0, 0, 9, LDC_ERR_PARAM, "The width of image (0) should be in [0, 5000]!"},
        {false, false, false, 6000, 4000, 0, LDC_ERR_PARAM, "The width of image (6000) should be in [0, 5000]!"},
        {false, false, false, -640, 480, 0, LDC_ERR_PARAM, "The width of image (-640) should be in [0, 5000]!"},
        {false, false, false, 640, 0, 9, LDC_ERR_PARAM, "The height of image (0) should be in [0, 5000]!"},
        {false, false, false, 4000, 6000, 0, LDC_ERR_PARAM, "The height of image (6000) should be in [0, 5000]!"},
        {false, false, false, 640, 5001, 0, LDC_ERR_PARAM, "The height of image (5001) should be in [0, 5000]!"},
        {false, false, false, 640, 480, -1, LDC_ERR_PARAM, "The type of image (-1) should be 0, 1 or 2!"},
        {false, false, false, 640, 480, 3, LDC_ERR_PARAM, "The type of image (3) should be 0, 1 or 2!"},
        // u0 -0.5 is held as 0 after the move to odd pixels.
        {false, false, false, 640, 480, 0, LDC_ERR_CAMERA_MATRIX,
         "(U0, V0) in the camera matrix (0.000000, 235.000000) should be in the area of the image!"},
        {false, false, false, 1280, 720, 0, LDC_ERR_CAMERA_MATRIX,
         "(U0, V0) in the camera matrix (639.000000, 721.000000) should be in the area of the image!"},
        {false, false, false, 320, 240, 0, LDC_ERR_CAMERA_MATRIX,
         "Alpha in the camera matrix (0.000000) should be positive number!"},
        // fy is negative; the message quotes fx.
        {false, false, false, 352, 288, 0, LDC_ERR_CAMERA_MATRIX,
         "Alpha in the camera matrix (294.750000) should be positive number!"},
    };
    for (const auto &c : astCases) {
        const bool bMatrix = (c.iRet == LDC_ERR_CAMERA_MATRIX);
        CreateArgs stArgs(bMatrix ? strLimits : SamplePath(), c.iWidth, c.iHeight, c.iType);
        if (c.bNullPath) {
            stArgs.stInput.pucCfgPath = nullptr;
        }
        void *pHandle = kUntouched;
        const Call stCall = Create(c.bNullHandle ? nullptr : &pHandle, c.bNullInput ? nullptr : &stArgs.stInput);
        EXPECT_EQ(c.iRet, stCall.iRet) << c.pcMessage;
        EXPECT_EQ(kUntouched, pHandle) << c.pcMessage;
        EXPECT_EQ(bMatrix ? kCreateHead + Params(strLimits, c.iWidth, c.iHeight) + E(c.pcMessage) + kDeleteTrace
                          : kCreateHead + E(c.pcMessage),
                  stCall.strLog);
        if (!c.bNullPath && !bMatrix) {
            const Call stReset = Reset(pLive, &stArgs.stInput);
            EXPECT_EQ(c.iRet, stReset.iRet) << c.pcMessage;
            EXPECT_EQ(E(c.pcMessage), stReset.strLog);
            EXPECT_EQ(0, memcmp(vucBefore.data(), pLive, vucBefore.size())) << c.pcMessage;
        }
    }
    EXPECT_EQ(LDC_OK, Delete(pLive).iRet);
}

TEST(Lifecycle, CreateAndResetLogAndFillAReadyInstance)
{
    CreateArgs stArgs(SamplePath(), 640, 480, LDC_PIC_YUV420);
    void *pHandle = nullptr;
    const Call stCall = Create(&pHandle, &stArgs.stInput);
    ASSERT_EQ(LDC_OK, stCall.iRet);
    EXPECT_EQ(kCreateHead + Params(SamplePath(), 640, 480, 2) + Area(0, 0, 639, 479) + I("Exit IQV_LDC_Create."),
              stCall.strLog);
    const tagST_LDC_PARA *pstPara = static_cast<tagST_LDC_PARA *>(pHandle);
    ExpectReadyInstance(pHandle, 640, 480);
    EXPECT_EQ(LDC_PIC_YUV420, pstPara->ePicType);
    EXPECT_STREQ(SamplePath().c_str(), pstPara->acCfgPath);
    EXPECT_EQ(343.0f, pstPara->afCameraMatrix[2]);
    // Reset ignores the path argument and takes the type over; no traces, only the area line.
    ST_LDC_INPUT_PARA stNewSize = {1080, 1920, "/no/such/file.xml", LDC_PIC_NV12};
    const Call stReset = Reset(pHandle, &stNewSize);
    ASSERT_EQ(LDC_OK, stReset.iRet);
    EXPECT_EQ(Area(0, 0, 1919, 1079), stReset.strLog);
    ExpectReadyInstance(pHandle, 1920, 1080);
    EXPECT_EQ(LDC_PIC_NV12, pstPara->ePicType);
    EXPECT_STREQ(SamplePath().c_str(), pstPara->acCfgPath);
    EXPECT_EQ((std::vector<float>{1027.0f, 527.0f}), (std::vector<float>{pstPara->afCameraMatrix[2], pstPara->afCameraMatrix[5]}));
    const Call stDelete = Delete(pHandle);
    EXPECT_EQ(LDC_OK, stDelete.iRet);
    EXPECT_EQ(kDeleteTrace, stDelete.strLog);
}

// A configuration path that blocks Create or Reset must fail the run, not hang it.
void ConfigWatchdogExpired(int)
{
    const char acMessage[] = "watchdog: a configuration path blocked IQV_LDC_Create or IQV_LDC_Reset\n";
    (void)!write(1, acMessage, sizeof(acMessage) - 1);   // stderr may be captured at this moment
    _exit(1);
}

TEST(Lifecycle, UnusableAndHostileConfigPathsFailPromptly)
{
    const std::string strDir = TestScratchDir() + "ldc_hostile_" + std::to_string(getpid()) + "/";
    ASSERT_EQ(0, mkdir(strDir.c_str(), 0755));
    std::stringstream stSample;
    stSample << std::ifstream(SamplePath(), std::ios::binary).rdbuf();
    auto fnWrite = [&](const char *pcName, const std::string &strText) {
        std::ofstream(strDir + pcName, std::ios::binary) << strText;
        return strDir + pcName;
    };
    // The sample padded with blanks to the reader's limit is still read; one byte more is not. Its
    // path has 255 characters, the most a path may have.
    const std::string strPadded = stSample.str() + std::string(XML_FILE_MAX_BYTES - stSample.str().size(), ' ');
    const std::string strAtLimit = fnWrite(std::string(255 - strDir.size(), 'p').c_str(), strPadded);
    const std::string strOver = fnWrite("over.xml", strPadded + " ");
    const std::string strFifo = strDir + "fifo.xml";
    ASSERT_EQ(0, mkfifo(strFifo.c_str(), 0644));
    const std::string strSwapped = fnWrite("swapped.xml", stSample.str());

    // A file of random bytes and a cut-off one parse into the empty default document, which has
    // no profile.
    const std::vector<uint8_t> vucNoise = ldc_test::RandomBytes(4096, 12345);
    const std::string strNoise = fnWrite("noise.xml", std::string(vucNoise.begin(), vucNoise.end()));
    const std::string strNoProfile = E("Image size is not supportted!");
    signal(SIGALRM, ConfigWatchdogExpired);
    alarm(30);
    const std::pair<std::string, std::string> astCases[] = {
        {strFifo, E("The config file " + strFifo + " is not a regular file!") + E("Can't load xml file!")},
        {"/dev/zero", E("The config file /dev/zero is not a regular file!") + E("Can't load xml file!")},
        {strDir, E("The config file " + strDir + " is not a regular file!") + E("Can't load xml file!")},
        {strDir + "missing.xml",
         E("The config file " + strDir + "missing.xml can't be read or is empty!") + E("Can't load xml file!")},
        {TestConfigPath("empty.xml"),
         E("The config file " + TestConfigPath("empty.xml") + " can't be read or is empty!") + E("Can't load xml file!")},
        {strOver, E("The config file " + strOver + " is larger than 1048576 bytes!") + E("Can't load xml file!")},
        {strNoise, strNoProfile},
        {strAtLimit + "q", E("Can't load xml file!")},
        {TestConfigPath("truncated.xml"), strNoProfile}};
    for (const auto &c : astCases) {
        CreateArgs stArgs(c.first, 640, 480);
        void *pHandle = kUntouched;
        const auto tStart = std::chrono::steady_clock::now();
        const Call stCall = Create(&pHandle, &stArgs.stInput);
        const std::chrono::duration<double> tTaken = std::chrono::steady_clock::now() - tStart;
        EXPECT_EQ(LDC_ERR_CONFIG, stCall.iRet) << c.first;
        EXPECT_EQ(kUntouched, pHandle) << c.first;
        EXPECT_EQ(kCreateHead + Params(c.first, 640, 480) + c.second + E("Parse config file in IQV_LDC_Create is error!") +
                      kDeleteTrace,
                  stCall.strLog);
        EXPECT_LT(tTaken.count(), 0.25) << c.first;
    }
    // Reset reads the path again: a file that has become a FIFO since Create fails the same way.
    CreateArgs stArgs(strSwapped, 640, 480);
    void *pHandle = NULL;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    ASSERT_EQ(0, unlink(strSwapped.c_str()));
    ASSERT_EQ(0, mkfifo(strSwapped.c_str(), 0644));
    const Call stReset = Reset(pHandle, &stArgs.stInput);
    EXPECT_EQ(LDC_ERR_CONFIG, stReset.iRet);
    EXPECT_EQ(E("The config file " + strSwapped + " is not a regular file!") + E("Can't load xml file!") +
                  E("Parse config file in IQV_LDC_Reset is error!"),
              stReset.strLog);
    EXPECT_EQ(0, Delete(pHandle).iRet);

    CreateArgs stLimit(strAtLimit, 640, 480);
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stLimit.stInput).iRet);
    EXPECT_STREQ(strAtLimit.c_str(), static_cast<tagST_LDC_PARA *>(pHandle)->acCfgPath);
    ST_LDC_INPUT_PARA stNewSize = {1920, 1080, nullptr, 0};   // Reset reads the stored copy of the path
    EXPECT_EQ(LDC_OK, Reset(pHandle, &stNewSize).iRet);
    EXPECT_EQ(0, Delete(pHandle).iRet);
    alarm(0);
    signal(SIGALRM, SIG_DFL);
    for (const std::string &strPath : {strAtLimit, strOver, strFifo, strSwapped, strNoise}) {
        unlink(strPath.c_str());
    }
    rmdir(strDir.c_str());
}

// A failed Reset keeps the path and the instance's own picture type, not the requested one.
TEST(Lifecycle, FailedResetLeavesAHollowInstance)
{
    CreateArgs stArgs(TestConfigPath("camera_matrix_limits.xml"), 5000, 8, LDC_PIC_YUV420);
    void *pHandle = nullptr;
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stArgs.stInput).iRet);
    tagST_LDC_PARA stHollow;
    memset(&stHollow, 0, sizeof(stHollow));
    strcpy(stHollow.acCfgPath, stArgs.acPath);
    stHollow.ePicType = LDC_PIC_YUV420;
    const struct {
        int32_t iWidth, iHeight, iRet;
        std::string strLog;
    } astCases[] = {
        {800, 600, LDC_ERR_CONFIG,
         E("Image size is not supportted!") + E("Parse config file in IQV_LDC_Reset is error!")},
        // The Alpha message quotes the cleared instance: 0.000000 although fx is 294.75.
        {352, 288, LDC_ERR_CAMERA_MATRIX, E("Alpha in the camera matrix (0.000000) should be positive number!")},
        {1280, 720, LDC_ERR_CAMERA_MATRIX,
         E("(U0, V0) in the camera matrix (639.000000, 721.000000) should be in the area of the image!")},
    };
    for (const auto &c : astCases) {
        ST_LDC_INPUT_PARA stNewSize = {c.iWidth, c.iHeight, nullptr, 1};
        const Call stCall = Reset(pHandle, &stNewSize);
        EXPECT_EQ(c.iRet, stCall.iRet) << c.iWidth;
        EXPECT_EQ(c.strLog, stCall.strLog);
        EXPECT_EQ(0, memcmp(&stHollow, pHandle, sizeof(stHollow))) << c.iWidth;
    }
    // A hollow instance can be reset again, and deleted.
    ST_LDC_INPUT_PARA stGood = {8, 5000, nullptr, 0};
    ASSERT_EQ(LDC_OK, Reset(pHandle, &stGood).iRet);
    ExpectReadyInstance(pHandle, 5000, 8);
    ST_LDC_INPUT_PARA stUnknown = {800, 600, nullptr, 0};
    ASSERT_EQ(LDC_ERR_CONFIG, Reset(pHandle, &stUnknown).iRet);
    const Call stDelete = Delete(pHandle);
    EXPECT_EQ(LDC_OK, stDelete.iRet);
    EXPECT_EQ(kDeleteTrace, stDelete.strLog);
}

TEST(Lifecycle, NullArgumentsOfResetAndDelete)
{
    ST_LDC_INPUT_PARA stInput = {640, 480, nullptr, 0};
    int iDummy = 0;
    for (const auto &stArgs : {std::make_pair((void *)nullptr, &stInput),
                               std::make_pair((void *)&iDummy, (ST_LDC_INPUT_PARA *)nullptr)}) {
        const Call stCall = Reset(stArgs.first, stArgs.second);
        EXPECT_EQ(LDC_ERR_PARAM, stCall.iRet);
        EXPECT_EQ(E("The point of input param is NULL!"), stCall.strLog);
    }
    const Call stDelete = Delete(nullptr);
    EXPECT_EQ(LDC_ERR_PARAM, stDelete.iRet);
    EXPECT_EQ(I("Enter IQV_LDC_Delete.") + E("The point of input param is NULL!") + I("Exit IQV_LDC_Delete."),
              stDelete.strLog);
}

TEST(Lifecycle, AllocationFailures)
{
    // The sample corrects faces by the face mesh: the mesh part sits behind the frame's part.
    const size_t uWorkBufAlloc = (size_t)LdcMeshWorkOffset(640, 480) + LdcMeshWorkBytes(640, 480) + LDC_WORKBUF_ALIGN;
    CreateArgs stArgs(SamplePath(), 640, 480);
    // The record itself: the clean-up runs on the missing record before the message.
    void *pHandle = kUntouched;
    Call stCall;
    {
        ScopedMallocFailure stFail(sizeof(tagST_LDC_PARA));
        stCall = Create(&pHandle, &stArgs.stInput);
    }
    EXPECT_EQ(LDC_ERR_MEMORY, stCall.iRet);
    EXPECT_EQ(kUntouched, pHandle);
    EXPECT_EQ(kCreateHead + I("Enter IQV_LDC_Delete.") + E("The point of input param is NULL!") +
                  I("Exit IQV_LDC_Delete.") + E("malloc memory for pstLdcPara in IQV_LDC_Create is error!"),
              stCall.strLog);
    {
        ScopedMallocFailure stFail(uWorkBufAlloc);
        stCall = Create(&pHandle, &stArgs.stInput);
    }
    EXPECT_EQ(LDC_ERR_MEMORY, stCall.iRet);
    EXPECT_EQ(kUntouched, pHandle);
    EXPECT_EQ(kCreateHead + Params(SamplePath(), 640, 480) + Area(0, 0, 639, 479) +
                  E("malloc memory in IQV_LDC_Create is error!") + kDeleteTrace,
              stCall.strLog);

    // Reset fails silently after its area line and leaves the instance hollow.
    CreateArgs stLarge(SamplePath(), 4000, 3000);
    ASSERT_EQ(LDC_OK, Create(&pHandle, &stLarge.stInput).iRet);
    {
        ScopedMallocFailure stFail(uWorkBufAlloc);
        stCall = Reset(pHandle, &stArgs.stInput);
    }
    EXPECT_EQ(LDC_ERR_MEMORY, stCall.iRet);
    EXPECT_EQ(Area(0, 0, 639, 479), stCall.strLog);
    const tagST_LDC_PARA *pstPara = static_cast<tagST_LDC_PARA *>(pHandle);
    EXPECT_EQ(0, pstPara->iImgWidth);
    EXPECT_EQ(nullptr, pstPara->pucWorkBufRaw);
    EXPECT_STREQ(SamplePath().c_str(), pstPara->acCfgPath);
    EXPECT_EQ(LDC_OK, Delete(pHandle).iRet);
}

}  // namespace
