// qvldc's input reading: photo headers read before decoding, files read within a bound.
#include <gtest/gtest.h>

#include <stdio.h>

#include <utility>

#include "../../tools/qvldc/qvldc_io.cpp"

namespace {

std::vector<uint8_t> PngHeader(uint32_t uWidth, uint32_t uHeight)
{
    std::vector<uint8_t> vucData = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n', 0, 0, 0, 13, 'I', 'H', 'D', 'R'};
    for (uint32_t uValue : {uWidth, uHeight}) {
        for (int32_t iShift = 24; iShift >= 0; iShift -= 8) {
            vucData.push_back((uint8_t)(uValue >> iShift));
        }
    }
    return vucData;
}

// SOI, an APP0 segment, fill bytes, a DHT (whose code lies among the frame headers' codes) and
// the frame header with code ucSof.
std::vector<uint8_t> JpegHeader(uint8_t ucSof, uint16_t usWidth, uint16_t usHeight)
{
    return {0xFF, 0xD8, 0xFF, 0xE0, 0, 6, 'J', 'F', 'I', 'F', 0xFF, 0xFF, 0xFF, 0xC4, 0, 3, 0x10,
            0xFF, ucSof, 0, 11, 8, (uint8_t)(usHeight >> 8), (uint8_t)usHeight, (uint8_t)(usWidth >> 8),
            (uint8_t)usWidth, 1, 1, 0x11, 0};
}

// The declared size comes back as stored; every cut of the header short of it is refused.
void ExpectHeader(const std::vector<uint8_t> &vucHeader, uint32_t uWidth, uint32_t uHeight, size_t uNeeded)
{
    uint32_t uW = 0;
    uint32_t uH = 0;
    std::string strError;
    ASSERT_TRUE(PhotoHeaderSize(vucHeader.data(), vucHeader.size(), &uW, &uH, &strError)) << strError;
    EXPECT_EQ(uWidth, uW);
    EXPECT_EQ(uHeight, uH);
    for (size_t uCut = 0; uCut < uNeeded; uCut++) {
        EXPECT_FALSE(PhotoHeaderSize(vucHeader.data(), uCut, &uW, &uH, &strError)) << uCut;
    }
}

TEST(QvldcIo, PhotoHeaderSizes)
{
    typedef std::pair<uint32_t, uint32_t> Size;
    for (const Size &stSize : {Size(640, 480), Size(60000, 60000), Size(2147483647u, 1), Size(0, 0),
                               Size(0xFFFFFFFFu, 7)}) {
        ExpectHeader(PngHeader(stSize.first, stSize.second), stSize.first, stSize.second, 24);
    }
    for (uint8_t ucSof : {0xC0, 0xC2, 0xCF}) {
        for (const Size &stSize : {Size(640, 480), Size(65535, 1), Size(1, 65535), Size(60000, 0)}) {
            ExpectHeader(JpegHeader(ucSof, (uint16_t)stSize.first, (uint16_t)stSize.second), stSize.first,
                         stSize.second, 26);
        }
    }

    std::vector<uint8_t> vucNoIhdr = PngHeader(640, 480);
    vucNoIhdr[12] = 'g';
    std::vector<uint8_t> vucScanFirst = JpegHeader(0xC0, 640, 480);
    vucScanFirst[18] = 0xDA;
    std::vector<uint8_t> vucNoMarker = JpegHeader(0xC0, 640, 480);
    vucNoMarker[10] = 0x00;
    const std::string strText = "not a picture\n";
    for (const std::vector<uint8_t> &vucBad :
         {vucNoIhdr, vucScanFirst, vucNoMarker, std::vector<uint8_t>(strText.begin(), strText.end())}) {
        uint32_t uW = 0;
        uint32_t uH = 0;
        std::string strError;
        EXPECT_FALSE(PhotoHeaderSize(vucBad.data(), vucBad.size(), &uW, &uH, &strError));
        EXPECT_FALSE(strError.empty());
    }
}

TEST(QvldcIo, InputFileBound)
{
    char acPath[] = "/tmp/qvldc_io_XXXXXX";
    const int iFd = mkstemp(acPath);
    ASSERT_GE(iFd, 0);
    std::vector<uint8_t> vucWritten(100000);
    for (size_t i = 0; i < vucWritten.size(); i++) {
        vucWritten[i] = (uint8_t)(i * 7 + (i >> 8));
    }
    ASSERT_EQ((ssize_t)vucWritten.size(), write(iFd, vucWritten.data(), vucWritten.size()));
    close(iFd);
    std::vector<uint8_t> vucRead;
    std::string strError;
    EXPECT_TRUE(ReadInputFile(acPath, vucWritten.size(), &vucRead, &strError)) << strError;
    EXPECT_EQ(vucWritten, vucRead);
    EXPECT_FALSE(ReadInputFile(acPath, vucWritten.size() - 1, &vucRead, &strError));
    EXPECT_TRUE(vucRead.empty());
    unlink(acPath);
    // Paths that are not regular files: tests/tools/qvldc_hostile.sh, through the tool.
}

}  // namespace
