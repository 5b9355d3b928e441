#include "interface/diagnostics.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <string>
#include <thread>
#include <vector>

namespace {

const char kPropertyEnv[] = "persist_camera_zb5qu_qvldc_yuv";   // the host's stand-in for the property
const char kSaveLine[] = "I/ZB5QU_QVLDC: save org image: length = ";

TEST(Diagnostics, VersionLine)
{
    testing::internal::CaptureStderr();
    LogVersion();
    const std::string line = testing::internal::GetCapturedStderr();
    // Build date as "Nov  3 2014" (blank-padded day), build time as "19:22:43".
    const std::regex re(
        R"(I/ZB5QU_QVLDC: LDC Version : __QVLDC_V1\.0\.4<78069>__[A-Z][a-z]{2} [ 1-3][0-9] [0-9]{4}__[0-9]{2}:[0-9]{2}:[0-9]{2}__gcc__ \n)");
    EXPECT_TRUE(std::regex_match(line, re)) << line;
}

TEST(Diagnostics, GetTimeCountsWallClockMicroseconds)
{
    const int64_t iWall = (int64_t)time(NULL) * 1000000;
    const int64_t iT0 = GetTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const int64_t iT1 = GetTime();
    EXPECT_LT(std::llabs(iT0 - iWall), 2000000LL);
    EXPECT_GE(iT1 - iT0, 5000);
    EXPECT_LT(iT1 - iT0, 5000000);
}

class FrameDump : public testing::Test {
protected:
    static constexpr int kW = 8;
    static constexpr int kH = 4;
    static constexpr int kBytes = kW * kH * 3 / 2;

    void SetUp() override
    {
        char acTemplate[] = "/tmp/ldc_dump_XXXXXX";
        ASSERT_NE(nullptr, mkdtemp(acTemplate));
        m_dir = acTemplate;
        setenv("QVLDC_DUMP_DIR", m_dir.c_str(), 1);
        for (int i = 0; i < kBytes; i++) {
            m_in[i] = (uint8_t)i;
            m_out[i] = (uint8_t)(255 - i);
        }
        m_info = {kW, kH, 100, 0, NULL};
    }
    void TearDown() override
    {
        for (const std::string &name : Files()) {
            unlink((m_dir + "/" + name).c_str());
        }
        rmdir(m_dir.c_str());
        unsetenv("QVLDC_DUMP_DIR");
        unsetenv(kPropertyEnv);
    }
    std::vector<std::string> Files() const
    {
        std::vector<std::string> names;
        // readdir64: 32-bit readdir fails on file systems with 64-bit inode numbers.
        if (DIR *pDir = opendir(m_dir.c_str())) {
            while (const dirent64 *pEnt = readdir64(pDir)) {
                if (pEnt->d_name[0] != '.') {
                    names.push_back(pEnt->d_name);
                }
            }
            closedir(pDir);
        }
        std::sort(names.begin(), names.end());
        return names;
    }
    std::string Contents(const std::string &name) const
    {
        std::string s;
        if (FILE *pFile = fopen((m_dir + "/" + name).c_str(), "rb")) {
            char ac[256];
            size_t n;
            while ((n = fread(ac, 1, sizeof(ac), pFile)) > 0) {
                s.append(ac, n);
            }
            fclose(pFile);
        }
        return s;
    }
    std::string RequestWith(const uint8_t *pucIn, const uint8_t *pucOut)
    {
        testing::internal::CaptureStderr();
        DumpFramesIfRequested(&m_info, pucIn, pucOut);
        return testing::internal::GetCapturedStderr();
    }
    std::string Request() { return RequestWith(m_in, m_out); }

    std::string m_dir;
    uint8_t m_in[kBytes];
    uint8_t m_out[kBytes];
    ST_LDC_FRAME_INFO m_info;
};

TEST_F(FrameDump, UnsetOrOtherValuesDoNotDump)
{
    unsetenv(kPropertyEnv);
    // The empty character ends the log text, as in the Android log.
    EXPECT_EQ(std::string(kSaveLine) + "0, persist.camera.zb5qu.qvldc.yuv = \n", Request());
    setenv(kPropertyEnv, "0", 1);
    EXPECT_EQ(std::string(kSaveLine) + "1, persist.camera.zb5qu.qvldc.yuv = 0.\n", Request());
    setenv(kPropertyEnv, "21", 1);
    EXPECT_EQ(std::string(kSaveLine) + "2, persist.camera.zb5qu.qvldc.yuv = 2.\n", Request());
    EXPECT_TRUE(Files().empty());
}

TEST_F(FrameDump, ValueStartingWithOneWritesBothFrames)
{
    const ST_FACE_RECT astFaces[2] = {{1, 2, 3, 4}, {-5, 6, 70, 800}};
    m_info.iFaceNum = 2;
    m_info.pstFaces = astFaces;
    setenv(kPropertyEnv, "1xyz", 1);
    EXPECT_EQ(std::string(kSaveLine) + "4, persist.camera.zb5qu.qvldc.yuv = 1.\n", Request());
    const std::vector<std::string> files = Files();
    ASSERT_EQ(2u, files.size());
    const std::string faces = "coord_left=1_top=2_right=3_bottom=4 left=-5_top=6_right=70_bottom=800";
    const std::regex re("([0-9]{8}_[0-9]{6})_" + faces + "_ISO=100_(org|output)\\.yuv");
    std::smatch m0;
    std::smatch m1;
    ASSERT_TRUE(std::regex_match(files[0], m0, re)) << files[0];
    ASSERT_TRUE(std::regex_match(files[1], m1, re)) << files[1];
    EXPECT_EQ(m0[1], m1[1]);   // one time stamp for the pair
    EXPECT_EQ("org", m0[2]);
    EXPECT_EQ("output", m1[2]);
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(m_in), kBytes), Contents(files[0]));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(m_out), kBytes), Contents(files[1]));
}

TEST_F(FrameDump, FrameWithoutFacesHasBareCoordText)
{
    m_info.iISO = 3200;
    setenv(kPropertyEnv, "1", 1);
    Request();
    const std::vector<std::string> files = Files();
    ASSERT_EQ(2u, files.size());
    EXPECT_TRUE(std::regex_match(files[0], std::regex("[0-9]{8}_[0-9]{6}_coord__ISO=3200_org\\.yuv"))) << files[0];
    EXPECT_TRUE(std::regex_match(files[1], std::regex("[0-9]{8}_[0-9]{6}_coord__ISO=3200_output\\.yuv")))
        << files[1];
}

TEST_F(FrameDump, MissingDirectoryIsLoggedTwice)
{
    setenv("QVLDC_DUMP_DIR", (m_dir + "/missing").c_str(), 1);
    setenv(kPropertyEnv, "1", 1);
    EXPECT_EQ(std::string(kSaveLine) + "1, persist.camera.zb5qu.qvldc.yuv = 1.\n" +
                  "E/ZB5QU_QVLDC: Open YUV file error!\nE/ZB5QU_QVLDC: Open YUV file error!\n",
              Request());
    EXPECT_TRUE(Files().empty());
}

TEST_F(FrameDump, ShortWritesAreLogged)
{
    // The dump names of this second and the next two lead to /dev/full, where every write fails.
    // The frame is larger than the stdio buffer, so that the write happens inside fwrite.
    std::vector<std::string> links;
    const time_t tNow = time(NULL);
    for (time_t t = tNow; t < tNow + 3; t++) {
        struct tm stLocal;
        char acTime[64];
        localtime_r(&t, &stLocal);
        strftime(acTime, sizeof(acTime), "%Y%m%d_%H%M%S", &stLocal);
        for (const char *pcKind : {"org", "output"}) {
            links.push_back(m_dir + "/" + acTime + "_coord__ISO=100_" + pcKind + ".yuv");
            ASSERT_EQ(0, symlink("/dev/full", links.back().c_str()));
        }
    }
    std::vector<uint8_t> big(64 * 1024, 7);
    m_info.iImgWidth = 256;
    m_info.iImgHeight = 128;
    setenv(kPropertyEnv, "1", 1);
    EXPECT_EQ(std::string(kSaveLine) + "1, persist.camera.zb5qu.qvldc.yuv = 1.\n" +
                  "E/ZB5QU_QVLDC: Write Org_YUV file error!\nE/ZB5QU_QVLDC: Write Dst_YUV file error!\n",
              RequestWith(big.data(), big.data()));
}

}  // namespace
