#include "interface/diagnostics.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace {

const char kPropertyEnv[] = "persist_camera_zb5qu_qvldc_yuv";   // the host's stand-in for the property

std::string SaveLine(const char *pcLengthAndValue)
{
    return std::string("I/ZB5QU_QVLDC: save org image: length = ") + pcLengthAndValue + "\n";
}

TEST(Diagnostics, VersionLineAndClock)
{
    testing::internal::CaptureStderr();
    LogVersion();
    const std::string line = testing::internal::GetCapturedStderr();
    // Build date as "Nov  3 2014" (blank-padded day), build time as "19:22:43".
    const std::regex re(R"(I/ZB5QU_QVLDC: LDC Version : __QVLDC_V1\.0\.4<78069>__[A-Z][a-z]{2} [ 1-3][0-9] [0-9]{4}__)"
                        R"([0-9]{2}:[0-9]{2}:[0-9]{2}__gcc__ \n)");
    EXPECT_TRUE(std::regex_match(line, re)) << line;
    // GetTime counts wall-clock microseconds.
    const int64_t iWall = (int64_t)time(NULL) * 1000000;
    const int64_t iT0 = GetTime();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const int64_t iT1 = GetTime();
    EXPECT_LT(std::llabs(iT0 - iWall), 2000000LL);
    EXPECT_TRUE(iT1 - iT0 >= 5000 && iT1 - iT0 < 5000000) << iT1 - iT0;
}

// Dumps go to a fresh directory (QVLDC_DUMP_DIR on the host); the frame is 8 x 4 unless a test
// says otherwise.
class FrameDump : public testing::Test {
protected:
    static constexpr int kBytes = 8 * 4 * 3 / 2;

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
        m_info = {8, 4, 100, 0, NULL};
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
        std::stringstream s;
        s << std::ifstream(m_dir + "/" + name, std::ios::binary).rdbuf();
        return s.str();
    }
    std::string Request(const uint8_t *pucIn = nullptr, const uint8_t *pucOut = nullptr)
    {
        testing::internal::CaptureStderr();
        DumpFramesIfRequested(&m_info, pucIn ? pucIn : m_in, pucOut ? pucOut : m_out);
        return testing::internal::GetCapturedStderr();
    }

    std::string m_dir;
    uint8_t m_in[kBytes];
    uint8_t m_out[kBytes];
    ST_LDC_FRAME_INFO m_info;
};

TEST_F(FrameDump, OnlyAValueStartingWithOneDumps)
{
    // The empty character ends the log text, as in the Android log.
    EXPECT_EQ(SaveLine("0, persist.camera.zb5qu.qvldc.yuv = "), Request());
    for (const auto &c : {std::make_pair("0", "1, persist.camera.zb5qu.qvldc.yuv = 0."),
                          std::make_pair("21", "2, persist.camera.zb5qu.qvldc.yuv = 2.")}) {
        setenv(kPropertyEnv, c.first, 1);
        EXPECT_EQ(SaveLine(c.second), Request());
    }
    EXPECT_TRUE(Files().empty());

    const ST_FACE_RECT astFaces[2] = {{1, 2, 3, 4}, {-5, 6, 70, 800}};
    m_info.iFaceNum = 2;
    m_info.pstFaces = astFaces;
    setenv(kPropertyEnv, "1xyz", 1);
    EXPECT_EQ(SaveLine("4, persist.camera.zb5qu.qvldc.yuv = 1."), Request());
    const std::vector<std::string> files = Files();
    ASSERT_EQ(2u, files.size());
    const std::regex re("([0-9]{8}_[0-9]{6})_coord_left=1_top=2_right=3_bottom=4 left=-5_top=6_right=70_bottom=800"
                        "_ISO=100_(org|output)\\.yuv");
    std::smatch m0, m1;
    ASSERT_TRUE(std::regex_match(files[0], m0, re)) << files[0];
    ASSERT_TRUE(std::regex_match(files[1], m1, re)) << files[1];
    EXPECT_EQ(m0[1], m1[1]);   // one time stamp for the pair
    EXPECT_EQ((std::vector<std::string>{"org", "output"}), (std::vector<std::string>{m0[2], m1[2]}));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(m_in), kBytes), Contents(files[0]));
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(m_out), kBytes), Contents(files[1]));
    // Without faces the coordinate text is bare.
    m_info = {8, 4, 3200, 0, NULL};
    Request();
    const std::vector<std::string> all = Files();
    EXPECT_EQ(4u, all.size());
    EXPECT_EQ(2, std::count_if(all.begin(), all.end(), [](const std::string &s) {
                  return std::regex_match(s, std::regex("[0-9]{8}_[0-9]{6}_coord__ISO=3200_(org|output)\\.yuv"));
              }));
}

TEST_F(FrameDump, FailuresAreLogged)
{
    setenv(kPropertyEnv, "1", 1);
    // A missing directory: both opens fail.
    setenv("QVLDC_DUMP_DIR", (m_dir + "/missing").c_str(), 1);
    EXPECT_EQ(SaveLine("1, persist.camera.zb5qu.qvldc.yuv = 1.") + "E/ZB5QU_QVLDC: Open YUV file error!\n" +
                  "E/ZB5QU_QVLDC: Open YUV file error!\n",
              Request());
    EXPECT_TRUE(Files().empty());
    // The dump names of this second and the next two lead to /dev/full, where every write fails.
    // The frame is larger than the stdio buffer, so that the write happens inside fwrite.
    setenv("QVLDC_DUMP_DIR", m_dir.c_str(), 1);
    const time_t tNow = time(NULL);
    for (time_t t = tNow; t < tNow + 3; t++) {
        struct tm stLocal;
        char acTime[64];
        localtime_r(&t, &stLocal);
        strftime(acTime, sizeof(acTime), "%Y%m%d_%H%M%S", &stLocal);
        for (const char *pcKind : {"org", "output"}) {
            ASSERT_EQ(0, symlink("/dev/full", (m_dir + "/" + acTime + "_coord__ISO=100_" + pcKind + ".yuv").c_str()));
        }
    }
    std::vector<uint8_t> big(64 * 1024, 7);
    m_info.iImgWidth = 256;
    m_info.iImgHeight = 128;
    EXPECT_EQ(SaveLine("1, persist.camera.zb5qu.qvldc.yuv = 1.") + "E/ZB5QU_QVLDC: Write Org_YUV file error!\n" +
                  "E/ZB5QU_QVLDC: Write Dst_YUV file error!\n",
              Request(big.data(), big.data()));
}

}  // namespace
