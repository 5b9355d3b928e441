// qvldc --set: a changed configuration value is the one the library then reads. (SetConfigValue
// comes from qvldc_parse.cpp, which qvldc_test.cpp compiles into this binary.)
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>

#include "../../tools/qvldc/qvldc_parse.h"
#include "config/xml_config.h"

namespace {

// The library's own reader on the text: the value at strPath, or fDefault.
float ReadBack(const std::string &strXml, const char *pcPath, float fDefault)
{
    static int s_iFile = 0;
    // A new path each time: the reader keeps the document of a path it has loaded.
    const std::string strPath = testing::TempDir() + "qvldc_set_" + std::to_string(s_iFile++) + ".xml";
    FILE *pFile = fopen(strPath.c_str(), "wb");
    fwrite(strXml.data(), 1, strXml.size(), pFile);
    fclose(pFile);
    XmlConfig config;
    config.LoadConfig(strPath.c_str());
    const float fValue = config.GetFloat(pcPath, fDefault);
    remove(strPath.c_str());
    return fValue;
}

TEST(QvldcSetConfig, TheLibraryReadsTheValueSet)
{
    // Tags inside comments, names in another case and a repeated element: the library reads
    // the first <Global> (whatever its case), so that is the one changed.
    const std::string strXml =
        "<?xml version=\"1.0\"?>\n<!-- <Config><Global><LDCFlag>9</LDCFlag></Global> -->\n<Config>\n"
        "  <global><LDCFlag>1</LDCFlag><!-- <LDCFlag>7</LDCFlag> --></global>\n"
        "  <Global><LDCFlag>5</LDCFlag></Global>\n"
        "  <FaceDistortionCorrection><FOVLost>10</FOVLost></FaceDistortionCorrection>\n</Config>\n";
    std::string strOut, strError;
    bool bAdded = true;
    ASSERT_TRUE(SetConfigValue(strXml, "/Config/Global/LDCFlag", "0", &strOut, &bAdded, &strError)) << strError;
    EXPECT_FALSE(bAdded);
    EXPECT_EQ(0.0f, ReadBack(strOut, "/Config/Global/LDCFlag", -1));
    EXPECT_NE(std::string::npos, strOut.find("<LDCFlag>5</LDCFlag>"));
    ASSERT_TRUE(SetConfigValue(strXml, "facedistortioncorrection/fovlost", "100", &strOut, &bAdded, &strError));
    EXPECT_EQ(100.0f, ReadBack(strOut, "/Config/FaceDistortionCorrection/FOVLost", -1));
    // A key the file leaves to its default is added where the library looks for it.
    ASSERT_TRUE(SetConfigValue(strXml, "FaceDistortionCorrection/CorrectionDegree", "0.25", &strOut, &bAdded,
                               &strError));
    EXPECT_TRUE(bAdded);
    EXPECT_EQ(0.25f, ReadBack(strOut, "/Config/FaceDistortionCorrection/CorrectionDegree", -1));
    EXPECT_EQ(10.0f, ReadBack(strOut, "/Config/FaceDistortionCorrection/FOVLost", -1));

    // Refused, with a reason: a missing parent, an element that holds elements, markup in a value.
    for (const auto &stBad : {std::make_pair("Nope/FOVLost", "1"), std::make_pair("Global", "1"),
                              std::make_pair("FaceDistortionCorrection/FOVLost", "<b>1</b>")}) {
        strError.clear();
        EXPECT_FALSE(SetConfigValue(strXml, stBad.first, stBad.second, &strOut, &bAdded, &strError)) << stBad.first;
        EXPECT_FALSE(strError.empty());
    }
}

}  // namespace
