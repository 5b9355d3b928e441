// Configuration store: loading and its cache, path walking and its limits, typed getters.
#include <gtest/gtest.h>

#include <stdio.h>

#include <string>
#include <vector>

#include "config/xml_config.h"
#include "support/temp_file.h"

namespace {

const std::string kDecl = "<?xml version=\"1.0\" encoding=\"GB2312\"?>\n";

std::string Write(const std::string &strName, const std::string &strText)
{
    return WriteTempFile("xml_config_test_" + strName, strText);
}

TEST(XmlConfig, MissingOrBrokenFileGivesDefaults)
{
    XmlConfig empty;   // never loaded: every getter falls back
    EXPECT_TRUE(empty.SearchNode("/Config").isEmpty());
    EXPECT_EQ(empty.GetInteger("/Config/Global/LDCFlag", 7), 7);
    for (const std::string &p : {TestScratchDir() + "xml_config_test_missing.xml",
                                 Write("broken.xml", "<Config></Other>"), Write("zero.xml", "")}) {
        XmlConfig cfg;
        EXPECT_EQ(cfg.LoadConfig(p.c_str()), 1) << p;
        EXPECT_FALSE(cfg.SearchNode("/Config").isEmpty()) << p;   // the built-in <Config>
        EXPECT_EQ(cfg.GetInteger("/Config/Global/LDCFlag", 7), 7) << p;
        EXPECT_FLOAT_EQ(cfg.GetFloat("/Config/Global/Strength", 0.5f), 0.5f) << p;
        EXPECT_STREQ(cfg.GetString("/Config/Name", "def"), "def") << p;
        int v[2] = {4, 5};
        EXPECT_FALSE(cfg.GetVectorInt("/Config/V", v, 2)) << p;
        EXPECT_EQ((std::vector<int>{4, 5}), std::vector<int>(v, v + 2));
    }
    XmlConfig cfg;
    EXPECT_EQ(cfg.LoadConfig(nullptr), 0);
}

TEST(XmlConfig, ScalarGettersReadTheFirstText)
{
    XmlConfig cfg;
    ASSERT_EQ(cfg.LoadConfig(Write("scalars.xml", kDecl + "<Config>\n  <Global>\n"
                                                          "    <LDCFlag>\n   3  \n</LDCFlag>\n"
                                                          "    <Strength> 0.75 </Strength>\n"
                                                          "    <Mixed>12abc</Mixed><Three>-4 5 6</Three>\n"
                                                          "    <Word>abc</Word><Nothing></Nothing>\n"
                                                          "    <Dup>1</Dup><Dup>2</Dup>\n"
                                                          "    <Commented><!-- note -->5</Commented>\n"
                                                          "  </Global>\n</Config>\n")
                                 .c_str()),
              1);
    // The first occurrence wins; a text without a number at its start keeps the default rather
    // than an unset value.
    const std::vector<std::pair<const char *, int>> astIntegers = {
        {"LDCFlag", 3}, {"Mixed", 12}, {"Three", -4}, {"Dup", 1}, {"Commented", 5}, {"Word", 7}, {"Nothing", 7}};
    for (const auto &c : astIntegers) {
        EXPECT_EQ(c.second, cfg.GetInteger((std::string("/Config/Global/") + c.first).c_str(), 7)) << c.first;
    }
    EXPECT_EQ((std::vector<float>{0.75f, 3.0f, 2.5f}),
              (std::vector<float>{cfg.GetFloat("/Config/Global/Strength", 1.0f), cfg.GetFloat("/Config/Global/LDCFlag", 1.0f),
                                  cfg.GetFloat("/Config/Global/Word", 2.5f)}));
    EXPECT_STREQ(cfg.GetString("/Config/Global/Nothing", "d"), "d");

    // Strings point into the document; names match in any case.
    const char *s = cfg.GetString("/Config/Global/Mixed", "d");
    EXPECT_STREQ(s, "12abc");
    EXPECT_EQ(s, cfg.GetString("/config/global/mixed", "d"));

    // Path syntax: absolute, no empty segments.
    for (const char *p : {"Config/Global/LDCFlag", "/Config//Global/LDCFlag", "/Config/Global/LDCFlag/", "/", "",
                          "/Global/LDCFlag", "/Config/Global/LDCFlag/More"}) {
        EXPECT_EQ(cfg.GetInteger(p, 7), 7) << p;
        EXPECT_TRUE(cfg.SearchNode(p).isEmpty()) << p;
    }
    EXPECT_EQ(cfg.GetInteger(nullptr, 7), 7);
    EXPECT_STREQ(cfg.SearchNode("/Config/Global").getName(), "Global");
}

TEST(XmlConfig, VectorsKeepPresetsBeyondTheValuesRead)
{
    XmlConfig cfg;
    ASSERT_EQ(cfg.LoadConfig(Write("vectors.xml", kDecl + "<Config><Two>1 2</Two>"
                                                          "<Lines>\n 10\t-20\r\n 30 \n</Lines>"
                                                          "<Commas>1.5,2.5</Commas><Many>9 8 7 6 5</Many>"
                                                          "<Unsigned>4000000000 7</Unsigned><Empty/></Config>")
                                 .c_str()),
              1);
    int ai[4] = {-1, -1, -1, -1};
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Two", ai, 4));
    EXPECT_EQ((std::vector<int>{1, 2, -1, -1}), std::vector<int>(ai, ai + 4));
    short as[4] = {0, 0, 0, 99};
    EXPECT_TRUE(cfg.GetVectorShort("/Config/Lines", as, 4));
    EXPECT_EQ((std::vector<short>{10, -20, 30, 99}), std::vector<short>(as, as + 4));
    // Commas are not separators: the first value is read, the later elements are not filled.
    float af[3] = {-1.0f, -1.0f, -1.0f};
    EXPECT_TRUE(cfg.GetVectorFloat("/Config/Commas", af, 3));
    EXPECT_FLOAT_EQ(af[0], 1.5f);
    EXPECT_NE(af[1], 2.5f);
    EXPECT_FLOAT_EQ(af[2], -1.0f);
    int many[2] = {0, 0};
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Many", many, 2));
    EXPECT_EQ((std::vector<int>{9, 8}), std::vector<int>(many, many + 2));
    unsigned int au[2] = {0, 0};
    EXPECT_TRUE(cfg.GetVectorUnsignedInt("/Config/Unsigned", au, 2));
    EXPECT_EQ((std::vector<unsigned int>{4000000000u, 7u}), std::vector<unsigned int>(au, au + 2));

    // A count of zero or less reads nothing but still reports a text; no node or no text gives
    // false and nothing touched.
    int keep[1] = {42};
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Two", keep, 0));
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Two", keep, -3));
    EXPECT_FALSE(cfg.GetVectorInt("/Config/Empty", keep, 1));
    EXPECT_FALSE(cfg.GetVectorFloat("/Config/None", af, 1));
    EXPECT_FALSE(cfg.GetVectorShort("Config/Two", as, 1));
    EXPECT_FALSE(cfg.GetVectorUnsignedInt("/Config/Empty", au, 1));
    EXPECT_EQ((std::vector<int>{42, 10}), (std::vector<int>{keep[0], as[0]}));
}

TEST(XmlConfig, SamePathIsNotReadTwice)
{
    const std::string a = Write("a.xml", kDecl + "<Config><V>1</V></Config>");
    const std::string b = Write("b.xml", kDecl + "<Config><V>2</V></Config>");
    XmlConfig cfg;
    auto fnLoad = [&](const std::string &strPath) {
        EXPECT_EQ(1, cfg.LoadConfig(strPath.c_str()));
        return cfg.GetInteger("/Config/V", 0);
    };
    EXPECT_EQ(1, fnLoad(a));
    Write("a.xml", kDecl + "<Config><V>3</V></Config>");
    EXPECT_EQ(1, fnLoad(a));   // cached document, file not re-read
    EXPECT_EQ(2, fnLoad(b));   // another path replaces the document
    EXPECT_EQ(3, fnLoad(a));
    // A path that fell back to the default is not retried either.
    const std::string late = TestScratchDir() + "xml_config_test_late.xml";
    remove(late.c_str());
    EXPECT_EQ(0, fnLoad(late));
    Write("late.xml", kDecl + "<Config><V>4</V></Config>");
    EXPECT_EQ(0, fnLoad(late));
}

TEST(XmlConfig, RootWithoutDeclarationIsNotFoundByConfigPaths)
{
    const std::string body = "<Config><Global><LDCFlag>1</LDCFlag></Global></Config>";
    XmlConfig bare, declared;
    ASSERT_EQ(bare.LoadConfig(Write("bare.xml", body).c_str()), 1);
    EXPECT_EQ(bare.GetInteger("/Config/Global/LDCFlag", 7), 7);
    EXPECT_EQ(bare.GetInteger("/Global/LDCFlag", 7), 1);   // the document is the root itself
    ASSERT_EQ(declared.LoadConfig(Write("declared.xml", kDecl + body).c_str()), 1);
    EXPECT_EQ(declared.GetInteger("/Config/Global/LDCFlag", 7), 1);
}

TEST(XmlConfig, PathLengthLimits)
{
    // Node paths: up to 254 characters are walked; 255 and 256 do not fit the walk buffer.
    const std::string prefix = "/Config/";
    auto nodePath = [&](size_t len) { return prefix + std::string(len - prefix.size(), 'N'); };
    std::string doc = kDecl + "<Config>";
    for (size_t len : {254u, 255u, 256u, 257u}) {
        const std::string name = nodePath(len).substr(prefix.size());
        doc += "<" + name + ">" + std::to_string(len) + "</" + name + ">";
    }
    const std::string file = Write("long.xml", doc + "</Config>");
    XmlConfig cfg;
    ASSERT_EQ(cfg.LoadConfig(file.c_str()), 1);
    EXPECT_EQ(cfg.GetInteger(nodePath(254).c_str(), 0), 254);
    for (size_t len : {255u, 256u, 257u}) {
        int v = 0;
        EXPECT_EQ(cfg.GetInteger(nodePath(len).c_str(), 0), 0) << len;
        EXPECT_FALSE(cfg.GetVectorInt(nodePath(len).c_str(), &v, 1)) << len;
    }
    // File paths: 255 characters are accepted, longer ones refused with the document kept.
    const std::string dir = TestScratchDir();
    EXPECT_EQ(cfg.LoadConfig((dir + std::string(255 - dir.size(), 'p')).c_str()), 1);
    EXPECT_EQ(cfg.GetInteger(nodePath(254).c_str(), 0), 0);   // missing: default document
    ASSERT_EQ(cfg.LoadConfig(file.c_str()), 1);
    EXPECT_EQ(cfg.LoadConfig((dir + std::string(256 - dir.size(), 'p')).c_str()), 0);
    EXPECT_EQ(cfg.GetInteger(nodePath(254).c_str(), 0), 254);
}

}  // namespace
