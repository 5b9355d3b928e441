#include "qvldc_io.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

static const char *FileKind(mode_t uMode)
{
    return S_ISDIR(uMode) ? "a directory" : S_ISFIFO(uMode) ? "a FIFO" : S_ISCHR(uMode) ? "a character device"
         : S_ISBLK(uMode) ? "a block device" : S_ISSOCK(uMode) ? "a socket" : "not a plain file";
}

static std::string TooBig(uint64_t ulBytes, uint64_t ulMaxBytes)
{
    char acMsg[96];
    snprintf(acMsg, sizeof(acMsg), "%llu bytes, more than the %llu accepted", (unsigned long long)ulBytes,
             (unsigned long long)ulMaxBytes);
    return acMsg;
}

bool ReadInputFile(const std::string &strPath, uint64_t ulMaxBytes, std::vector<uint8_t> *pvucData,
                   std::string *pstrError)
{
    pvucData->clear();
    // Without O_NONBLOCK opening a FIFO waits for a writer; fstat then refuses it.
    const int iFd = open(strPath.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (iFd < 0) {
        *pstrError = std::string("cannot open it (") + strerror(errno) + ")";
        return false;
    }
    struct stat stInfo;
    bool bOk = false;
    if (fstat(iFd, &stInfo) != 0) {
        *pstrError = std::string("cannot examine it (") + strerror(errno) + ")";
    } else if (!S_ISREG(stInfo.st_mode)) {
        *pstrError = std::string("not a regular file but ") + FileKind(stInfo.st_mode);
    } else if ((uint64_t)stInfo.st_size > ulMaxBytes) {
        *pstrError = TooBig((uint64_t)stInfo.st_size, ulMaxBytes);
    } else {
        // The length may change while we read: the bound holds for what is read, not what fstat said.
        pvucData->reserve((size_t)stInfo.st_size);
        uint8_t aucBuf[1 << 16];
        bOk = true;
        for (;;) {
            const ssize_t lRead = read(iFd, aucBuf, sizeof(aucBuf));
            if (lRead < 0 && errno == EINTR) {
                continue;
            }
            if (lRead < 0) {
                *pstrError = std::string("cannot read it (") + strerror(errno) + ")";
                bOk = false;
                break;
            }
            if (lRead == 0) {
                break;
            }
            if (pvucData->size() + (uint64_t)lRead > ulMaxBytes) {
                *pstrError = TooBig(pvucData->size() + (uint64_t)lRead, ulMaxBytes);
                bOk = false;
                break;
            }
            pvucData->insert(pvucData->end(), aucBuf, aucBuf + lRead);
        }
    }
    close(iFd);
    if (!bOk) {
        pvucData->clear();
    }
    return bOk;
}

static uint32_t BigEndian(const uint8_t *pucData, int32_t iBytes)
{
    uint32_t uValue = 0;
    for (int32_t i = 0; i < iBytes; i++) {
        uValue = (uValue << 8) | pucData[i];
    }
    return uValue;
}

static bool PngHeaderSize(const uint8_t *pucData, size_t uBytes, uint32_t *puWidth, uint32_t *puHeight,
                          std::string *pstrError)
{
    // Signature (8), then IHDR first: length 13, type, width, height.
    if (uBytes < 24) {
        *pstrError = "the PNG header is cut short";
        return false;
    }
    if (BigEndian(pucData + 8, 4) != 13 || memcmp(pucData + 12, "IHDR", 4) != 0) {
        *pstrError = "the PNG header is damaged (no IHDR chunk first)";
        return false;
    }
    *puWidth = BigEndian(pucData + 16, 4);
    *puHeight = BigEndian(pucData + 20, 4);
    return true;
}

static bool JpegHeaderSize(const uint8_t *pucData, size_t uBytes, uint32_t *puWidth, uint32_t *puHeight,
                           std::string *pstrError)
{
    // Markers after SOI, each but the standalone ones with a length that counts itself; the
    // decoder sizes the picture from the first frame header (SOF0..SOF15 but DHT, JPG and DAC).
    size_t uPos = 2;
    for (;;) {
        const size_t uMarker = uPos;
        while (uPos < uBytes && pucData[uPos] == 0xFF) {
            uPos++;   // fill bytes before a marker code
        }
        if (uPos >= uBytes) {
            break;
        }
        if (uPos == uMarker) {
            *pstrError = "the JPEG header is damaged (no marker where one belongs)";
            return false;
        }
        const uint8_t ucCode = pucData[uPos++];
        if (ucCode == 0x01 || (ucCode >= 0xD0 && ucCode <= 0xD7)) {
            continue;   // TEM and RSTn stand alone
        }
        if (ucCode == 0xDA || ucCode == 0xD9) {
            *pstrError = "the JPEG has no frame header before its image data";
            return false;
        }
        if (uPos + 2 > uBytes) {
            break;
        }
        const size_t uLength = BigEndian(pucData + uPos, 2);
        if (uLength < 2) {
            *pstrError = "the JPEG header is damaged (a segment shorter than its length field)";
            return false;
        }
        if (ucCode >= 0xC0 && ucCode <= 0xCF && ucCode != 0xC4 && ucCode != 0xC8 && ucCode != 0xCC) {
            // Length, precision, height, width.
            if (uPos + 7 > uBytes) {
                break;
            }
            *puHeight = BigEndian(pucData + uPos + 3, 2);
            *puWidth = BigEndian(pucData + uPos + 5, 2);
            return true;
        }
        uPos += uLength;
    }
    *pstrError = "the JPEG header is cut short";
    return false;
}

bool PhotoHeaderSize(const uint8_t *pucData, size_t uBytes, uint32_t *puWidth, uint32_t *puHeight,
                     std::string *pstrError)
{
    static const uint8_t s_aucPng[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    if (uBytes >= sizeof(s_aucPng) && memcmp(pucData, s_aucPng, sizeof(s_aucPng)) == 0) {
        return PngHeaderSize(pucData, uBytes, puWidth, puHeight, pstrError);
    }
    if (uBytes >= 2 && pucData[0] == 0xFF && pucData[1] == 0xD8) {
        return JpegHeaderSize(pucData, uBytes, puWidth, puHeight, pstrError);
    }
    *pstrError = "not a PNG or JPEG file";
    return false;
}

std::string CaptureOutput(const std::function<void()> &fnCall)
{
    fflush(stdout);
    fflush(stderr);
    FILE *pTmp = tmpfile();
    const int iSavedOut = dup(1);
    const int iSavedErr = dup(2);
    if (pTmp == NULL || iSavedOut < 0 || iSavedErr < 0) {
        if (pTmp != NULL) {
            fclose(pTmp);
        }
        for (int iFd : {iSavedOut, iSavedErr}) {
            if (iFd >= 0) {
                close(iFd);
            }
        }
        fnCall();
        return std::string();
    }
    dup2(fileno(pTmp), 1);
    dup2(fileno(pTmp), 2);
    auto restore = [&] {
        fflush(stdout);
        fflush(stderr);
        dup2(iSavedOut, 1);
        dup2(iSavedErr, 2);
        close(iSavedOut);
        close(iSavedErr);
    };
    try {
        fnCall();
    } catch (...) {
        restore();
        fclose(pTmp);
        throw;
    }
    restore();
    std::string strText;
    rewind(pTmp);
    char acBuf[4096];
    size_t uRead;
    while ((uRead = fread(acBuf, 1, sizeof(acBuf), pTmp)) > 0) {
        strText.append(acBuf, uRead);
    }
    fclose(pTmp);
    return strText;
}

bool IsPhotoPath(const std::string &strPath)
{
    const size_t uDot = strPath.find_last_of('.');
    if (uDot == std::string::npos) {
        return false;
    }
    std::string strExt = strPath.substr(uDot + 1);
    std::transform(strExt.begin(), strExt.end(), strExt.begin(), ::tolower);
    return strExt == "png" || strExt == "jpg" || strExt == "jpeg";
}
