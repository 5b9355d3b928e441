// Files a test writes for the code under test to read.
#ifndef LDC_TESTS_SUPPORT_TEMP_FILE_H
#define LDC_TESTS_SUPPORT_TEMP_FILE_H

#include <gtest/gtest.h>

#include <fstream>
#include <string>

// Writes the bytes to strName in the test's temporary directory (replacing what was there) and
// returns the path.
inline std::string WriteTempFile(const std::string &strName, const std::string &strBytes)
{
    const std::string strPath = testing::TempDir() + strName;
    std::ofstream(strPath, std::ios::binary | std::ios::trunc) << strBytes;
    return strPath;
}

#endif
