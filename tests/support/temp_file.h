// Files a test writes for the code under test to read.
#ifndef LDC_TESTS_SUPPORT_TEMP_FILE_H
#define LDC_TESTS_SUPPORT_TEMP_FILE_H

#include <gtest/gtest.h>

#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <string>

// A directory of this test process's own under the test's temporary directory, removed when the
// process ends: test runs of other builds and parallel ctest jobs write files of the same names
// at the same time.
inline const std::string &TestScratchDir()
{
    // Never destroyed: the removal at exit runs after static destructors.
    static const std::string *s_pstrDir = [] {
        const auto *pstrDir =
            new std::string(testing::TempDir() + "ldc_tests." + std::to_string(getpid()) + "/");
        mkdir(pstrDir->c_str(), 0700);
        atexit([] {
            nftw(TestScratchDir().c_str(),
                 [](const char *pcPath, const struct stat *, int, struct FTW *) { return remove(pcPath); }, 16,
                 FTW_DEPTH | FTW_PHYS);
        });
        return pstrDir;
    }();
    return *s_pstrDir;
}

// Writes the bytes to strName in TestScratchDir() (replacing what was there) and returns the path.
inline std::string WriteTempFile(const std::string &strName, const std::string &strBytes)
{
    const std::string strPath = TestScratchDir() + strName;
    std::ofstream(strPath, std::ios::binary | std::ios::trunc) << strBytes;
    return strPath;
}

#endif
