// Scratch files of the fuzz targets. They go to a tmpfs (/dev/shm) when there is one: on a disk
// file system, closing a file that replaced its old contents flushes it, and that flush cost
// more than the rest of an input. TMPDIR, then /tmp, otherwise.
#ifndef LDC_FUZZ_SCRATCH_H
#define LDC_FUZZ_SCRATCH_H

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include <string>
#include <vector>

static inline std::vector<std::string> &ScratchFiles()
{
    static std::vector<std::string> s_vFiles;
    return s_vFiles;
}

static inline void RemoveScratchFiles()
{
    for (const std::string &sPath : ScratchFiles()) {
        unlink(sPath.c_str());
    }
}

// "<dir>/ldc_<pcName>_<pid>_<iSlot>.<pcExt>": one name per process and slot, so that parallel
// fuzzers never share a file.
static inline std::string ScratchPath(const char *pcName, int iSlot, const char *pcExt)
{
    const char *pcDir = "/dev/shm";
    if (access(pcDir, W_OK) != 0) {
        pcDir = getenv("TMPDIR");
        if (pcDir == NULL || pcDir[0] == '\0') {
            pcDir = "/tmp";
        }
    }
    char acPath[512];
    snprintf(acPath, sizeof(acPath), "%s/ldc_%s_%d_%d.%s", pcDir, pcName, (int)getpid(), iSlot, pcExt);
    if (ScratchFiles().empty()) {
        atexit(RemoveScratchFiles);
    }
    ScratchFiles().push_back(acPath);
    return acPath;
}

// Replaces the file's contents; false when it could not be written whole.
static inline bool WriteScratch(const std::string &sPath, const void *pData, size_t uSize)
{
    FILE *pFile = fopen(sPath.c_str(), "wb");
    if (pFile == NULL) {
        return false;
    }
    const bool bWhole = fwrite(pData, 1, uSize, pFile) == uSize;
    return fclose(pFile) == 0 && bWhole;
}

#endif
