// Configuration store: loading and its cache, path walking and its limits, typed getters.
#include <gtest/gtest.h>

#include <stdio.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "config/xml_config.h"

namespace {

const char kDecl[] = "<?xml version=\"1.0\" encoding=\"GB2312\"?>\n";

class XmlConfigTest : public ::testing::Test {
protected:
    void SetUp() override { XMLNode::setGlobalOptions(char_encoding_UTF8); }
    void TearDown() override
    {
        XMLNode::setGlobalOptions(char_encoding_UTF8);
        for (const std::string &path : files) {
            unlink(path.c_str());
        }
    }

    std::string Path(const std::string &name)
    {
        std::string path = ::testing::TempDir() + "xml_config_test_" + name;
        files.push_back(path);
        return path;
    }

    std::string Write(const std::string &name, const std::string &text)
    {
        std::string path = Path(name);
        FILE *f = fopen(path.c_str(), "wb");
        EXPECT_NE(f, nullptr);
        if (f != nullptr) {
            fwrite(text.data(), 1, text.size(), f);
            fclose(f);
        }
        return path;
    }

    std::vector<std::string> files;
};

TEST_F(XmlConfigTest, MissingOrBrokenFileGivesDefaults)
{
    XmlConfig empty;   // never loaded: every getter falls back
    EXPECT_TRUE(empty.SearchNode("/Config").isEmpty());
    EXPECT_EQ(empty.GetInteger("/Config/Global/LDCFlag", 7), 7);

    const std::string paths[] = {Path("missing.xml"), Write("broken.xml", "<Config></Other>"),
                                 Write("zero.xml", "")};
    for (const std::string &p : paths) {
        XmlConfig cfg;
        EXPECT_EQ(cfg.LoadConfig(p.c_str()), 1) << p;
        EXPECT_FALSE(cfg.SearchNode("/Config").isEmpty()) << p;   // the built-in <Config>
        EXPECT_EQ(cfg.GetInteger("/Config/Global/LDCFlag", 7), 7) << p;
        EXPECT_FLOAT_EQ(cfg.GetFloat("/Config/Global/Strength", 0.5f), 0.5f) << p;
        EXPECT_STREQ(cfg.GetString("/Config/Name", "def"), "def") << p;
        int v[2] = {4, 5};
        EXPECT_FALSE(cfg.GetVectorInt("/Config/V", v, 2)) << p;
        EXPECT_EQ(v[0], 4);
        EXPECT_EQ(v[1], 5);
    }
    XmlConfig cfg;
    EXPECT_EQ(cfg.LoadConfig(nullptr), 0);
}

TEST_F(XmlConfigTest, ScalarGettersReadTheFirstText)
{
    XmlConfig cfg;
    ASSERT_EQ(cfg.LoadConfig(Write("scalars.xml", std::string(kDecl) +
                                                      "<Config>\n"
                                                      "  <Global>\n"
                                                      "    <LDCFlag>\n   3  \n</LDCFlag>\n"
                                                      "    <Strength> 0.75 </Strength>\n"
                                                      "    <Mixed>12abc</Mixed>\n"
                                                      "    <Three>-4 5 6</Three>\n"
                                                      "    <Word>abc</Word>\n"
                                                      "    <Nothing></Nothing>\n"
                                                      "    <Dup>1</Dup><Dup>2</Dup>\n"
                                                      "    <Commented><!-- note -->5</Commented>\n"
                                                      "  </Global>\n"
                                                      "</Config>\n")
                                   .c_str()),
              1);
    EXPECT_EQ(cfg.GetInteger("/Config/Global/LDCFlag", 7), 3);
    EXPECT_FLOAT_EQ(cfg.GetFloat("/Config/Global/Strength", 1.0f), 0.75f);
    EXPECT_FLOAT_EQ(cfg.GetFloat("/Config/Global/LDCFlag", 1.0f), 3.0f);
    EXPECT_EQ(cfg.GetInteger("/Config/Global/Mixed", 7), 12);
    EXPECT_EQ(cfg.GetInteger("/Config/Global/Three", 7), -4);
    EXPECT_EQ(cfg.GetInteger("/Config/Global/Dup", 7), 1);   // first occurrence wins
    EXPECT_EQ(cfg.GetInteger("/Config/Global/Commented", 7), 5);
    // A text without a number at its start keeps the default rather than an unset value.
    EXPECT_EQ(cfg.GetInteger("/Config/Global/Word", 7), 7);
    EXPECT_FLOAT_EQ(cfg.GetFloat("/Config/Global/Word", 2.5f), 2.5f);
    EXPECT_EQ(cfg.GetInteger("/Config/Global/Nothing", 7), 7);
    EXPECT_STREQ(cfg.GetString("/Config/Global/Nothing", "d"), "d");

    // Strings point into the document.
    const char *s = cfg.GetString("/Config/Global/Mixed", "d");
    EXPECT_STREQ(s, "12abc");
    EXPECT_EQ(s, cfg.GetString("/config/global/mixed", "d"));   // names match in any case

    // Path syntax: absolute, no empty segments.
    const char *const misses[] = {"Config/Global/LDCFlag", "/Config//Global/LDCFlag",
                                  "/Config/Global/LDCFlag/", "/", "", "/Global/LDCFlag",
                                  "/Config/Global/LDCFlag/More"};
    for (const char *p : misses) {
        EXPECT_EQ(cfg.GetInteger(p, 7), 7) << p;
        EXPECT_TRUE(cfg.SearchNode(p).isEmpty()) << p;
    }
    EXPECT_EQ(cfg.GetInteger(nullptr, 7), 7);
    EXPECT_STREQ(cfg.SearchNode("/Config/Global").getName(), "Global");
}

TEST_F(XmlConfigTest, VectorsKeepPresetsBeyondTheValuesRead)
{
    XmlConfig cfg;
    ASSERT_EQ(cfg.LoadConfig(Write("vectors.xml", std::string(kDecl) +
                                                      "<Config>"
                                                      "<Two>1 2</Two>"
                                                      "<Lines>\n 10\t-20\r\n 30 \n</Lines>"
                                                      "<Commas>1.5,2.5</Commas>"
                                                      "<Many>9 8 7 6 5</Many>"
                                                      "<Unsigned>4000000000 7</Unsigned>"
                                                      "<Empty/>"
                                                      "</Config>")
                                   .c_str()),
              1);
    int ai[4] = {-1, -1, -1, -1};
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Two", ai, 4));
    EXPECT_EQ(ai[0], 1);
    EXPECT_EQ(ai[1], 2);
    EXPECT_EQ(ai[2], -1);
    EXPECT_EQ(ai[3], -1);

    short as[4] = {0, 0, 0, 99};
    EXPECT_TRUE(cfg.GetVectorShort("/Config/Lines", as, 4));
    EXPECT_EQ(as[0], 10);
    EXPECT_EQ(as[1], -20);
    EXPECT_EQ(as[2], 30);
    EXPECT_EQ(as[3], 99);

    // Commas are not separators: the first value is read, the later elements are not filled.
    float af[3] = {-1.0f, -1.0f, -1.0f};
    EXPECT_TRUE(cfg.GetVectorFloat("/Config/Commas", af, 3));
    EXPECT_FLOAT_EQ(af[0], 1.5f);
    EXPECT_NE(af[1], 2.5f);
    EXPECT_FLOAT_EQ(af[2], -1.0f);

    int many[2] = {0, 0};
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Many", many, 2));
    EXPECT_EQ(many[0], 9);
    EXPECT_EQ(many[1], 8);

    unsigned int au[2] = {0, 0};
    EXPECT_TRUE(cfg.GetVectorUnsignedInt("/Config/Unsigned", au, 2));
    EXPECT_EQ(au[0], 4000000000u);
    EXPECT_EQ(au[1], 7u);

    // A count of zero or less reads nothing but still reports a text.
    int keep[1] = {42};
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Two", keep, 0));
    EXPECT_TRUE(cfg.GetVectorInt("/Config/Two", keep, -3));
    EXPECT_EQ(keep[0], 42);
    // No node or no text: false and nothing touched.
    EXPECT_FALSE(cfg.GetVectorInt("/Config/Empty", keep, 1));
    EXPECT_FALSE(cfg.GetVectorFloat("/Config/None", af, 1));
    EXPECT_FALSE(cfg.GetVectorShort("Config/Two", as, 1));
    EXPECT_FALSE(cfg.GetVectorUnsignedInt("/Config/Empty", au, 1));
    EXPECT_EQ(keep[0], 42);
    EXPECT_EQ(as[0], 10);
}

TEST_F(XmlConfigTest, SamePathIsNotReadTwice)
{
    const std::string a = Write("a.xml", std::string(kDecl) + "<Config><V>1</V></Config>");
    const std::string b = Write("b.xml", std::string(kDecl) + "<Config><V>2</V></Config>");
    XmlConfig cfg;
    ASSERT_EQ(cfg.LoadConfig(a.c_str()), 1);
    EXPECT_EQ(cfg.GetInteger("/Config/V", 0), 1);

    Write("a.xml", std::string(kDecl) + "<Config><V>3</V></Config>");
    EXPECT_EQ(cfg.LoadConfig(a.c_str()), 1);
    EXPECT_EQ(cfg.GetInteger("/Config/V", 0), 1);   // cached document, file not re-read

    EXPECT_EQ(cfg.LoadConfig(b.c_str()), 1);   // another path replaces the document
    EXPECT_EQ(cfg.GetInteger("/Config/V", 0), 2);
    EXPECT_EQ(cfg.LoadConfig(a.c_str()), 1);
    EXPECT_EQ(cfg.GetInteger("/Config/V", 0), 3);

    // A path that fell back to the default is not retried either.
    const std::string late = Path("late.xml");
    EXPECT_EQ(cfg.LoadConfig(late.c_str()), 1);
    Write("late.xml", std::string(kDecl) + "<Config><V>4</V></Config>");
    EXPECT_EQ(cfg.LoadConfig(late.c_str()), 1);
    EXPECT_EQ(cfg.GetInteger("/Config/V", 0), 0);
}

TEST_F(XmlConfigTest, RootWithoutDeclarationIsNotFoundByConfigPaths)
{
    const std::string body = "<Config><Global><LDCFlag>1</LDCFlag></Global></Config>";
    XmlConfig bare;
    ASSERT_EQ(bare.LoadConfig(Write("bare.xml", body).c_str()), 1);
    EXPECT_EQ(bare.GetInteger("/Config/Global/LDCFlag", 7), 7);
    EXPECT_EQ(bare.GetInteger("/Global/LDCFlag", 7), 1);   // the document is the root itself

    XmlConfig declared;
    ASSERT_EQ(declared.LoadConfig(Write("declared.xml", kDecl + body).c_str()), 1);
    EXPECT_EQ(declared.GetInteger("/Config/Global/LDCFlag", 7), 1);
}

TEST_F(XmlConfigTest, PathLengthLimits)
{
    // Node paths: up to 254 characters are walked; 255 and 256 do not fit the walk buffer.
    const std::string prefix = "/Config/";
    auto nodePath = [&](size_t len) { return prefix + std::string(len - prefix.size(), 'N'); };
    std::string doc = std::string(kDecl) + "<Config>";
    for (size_t len : {254u, 255u, 256u, 257u}) {
        const std::string name = nodePath(len).substr(prefix.size());
        doc += "<" + name + ">" + std::to_string(len) + "</" + name + ">";
    }
    doc += "</Config>";
    const std::string file = Write("long.xml", doc);

    XmlConfig cfg;
    ASSERT_EQ(cfg.LoadConfig(file.c_str()), 1);
    EXPECT_EQ(cfg.GetInteger(nodePath(254).c_str(), 0), 254);
    for (size_t len : {255u, 256u, 257u}) {
        EXPECT_EQ(cfg.GetInteger(nodePath(len).c_str(), 0), 0) << len;
        int v = 0;
        EXPECT_FALSE(cfg.GetVectorInt(nodePath(len).c_str(), &v, 1)) << len;
    }

    // File paths: 255 characters are accepted, longer ones refused with the document kept.
    std::string dir = ::testing::TempDir();
    EXPECT_EQ(cfg.LoadConfig((dir + std::string(255 - dir.size(), 'p')).c_str()), 1);
    EXPECT_EQ(cfg.GetInteger(nodePath(254).c_str(), 0), 0);   // missing: default document
    ASSERT_EQ(cfg.LoadConfig(file.c_str()), 1);
    EXPECT_EQ(cfg.LoadConfig((dir + std::string(256 - dir.size(), 'p')).c_str()), 0);
    EXPECT_EQ(cfg.GetInteger(nodePath(254).c_str(), 0), 254);
}

}  // namespace
