// XML reader: tree shape, texts and clear sections, error codes, encodings, files, handle
// lifetime and hostile input.
#include <gtest/gtest.h>

#include <string.h>

#include <string>
#include <vector>

#include "config/xml_parser.h"
#include "support/temp_file.h"

namespace {

// Each test starts and ends with the default encoding, whatever it sets.
class XmlParserTest : public ::testing::Test {
protected:
    void SetUp() override { XMLNode::setGlobalOptions(char_encoding_UTF8); }
    void TearDown() override { XMLNode::setGlobalOptions(char_encoding_UTF8); }

    static std::string WriteFile(const std::string &name, const std::string &bytes)
    {
        return WriteTempFile("xml_parser_test_" + name, bytes);
    }
    static XMLNode Parse(const char *text, XMLResults *res) { return XMLNode::parseString(text, nullptr, res); }
};

// The texts and the clear-section values of a node, in order.
std::vector<std::string> Texts(const XMLNode &n)
{
    std::vector<std::string> v;
    for (int i = 0; i < n.nText(); i++) {
        v.push_back(n.getText(i));
    }
    return v;
}

std::vector<std::string> Clears(const XMLNode &n)
{
    std::vector<std::string> v;
    for (int i = 0; i < n.nClear(); i++) {
        v.push_back(n.getClear(i).pcValue);
    }
    return v;
}

using Strings = std::vector<std::string>;

// What the configuration store relies on: the top node, case-insensitive lookup by name and
// index, the first text, and the empty node for everything that is not there.
TEST_F(XmlParserTest, TreeShapeAndCaseInsensitiveLookup)
{
    XMLResults res;
    XMLNode top = Parse("<?xml version=\"1.0\" encoding='UTF-8'?>\n<Config>\n  <Item id=\"1\">first</Item>\n"
                        "  <Other/>\n  <ITEM>second</ITEM>\n</Config>\n",
                        &res);
    EXPECT_EQ(res.error, eXMLErrorNone);
    // The unnamed top node holds declaration and root; names are stored as written.
    EXPECT_EQ(top.getName(), nullptr);
    ASSERT_EQ(top.nChildNode(), 2);
    EXPECT_TRUE(top.getChildNode(0).isDeclaration());
    XMLNode config = top.getChildNode("config", 0);
    EXPECT_STREQ(config.getName(), "Config");
    EXPECT_EQ((std::vector<int>{3, 0}), (std::vector<int>{config.nChildNode(), config.nText()}));
    // Index counts only the children of the matching name, in document order.
    EXPECT_EQ((Strings{"first", "second"}),
              (Strings{config.getChildNode("item", 0).getText(), config.getChildNode("Item", 1).getText()}));
    for (const XMLNode &n : {config.getChildNode("Item", 2), config.getChildNode("Item", -1),
                             config.getChildNode(nullptr, 0), config.getChildNode(7), XMLNode::emptyXMLNode,
                             XMLNode::emptyXMLNode.getChildNode("a", 0)}) {
        EXPECT_TRUE(n.isEmpty());
        EXPECT_EQ(nullptr, n.getText(0));
    }
    EXPECT_EQ(nullptr, config.getChildNode("Item", 0).getText(1));
}

TEST_F(XmlParserTest, SingleRootElementIsReturnedItself)
{
    // Nothing beside the root: the parse yields the root, so its children are one level up.
    XMLNode root = Parse("<Config><A>1</A></Config>", nullptr);
    EXPECT_STREQ(root.getName(), "Config");
    EXPECT_TRUE(root.getChildNode("Config", 0).isEmpty());
    EXPECT_TRUE(root.getParentNode().isEmpty());
    // A declaration or a comment beside the root keeps the top node.
    EXPECT_EQ(Parse("<?xml version=\"1.0\"?><Config/>", nullptr).getName(), nullptr);
    XMLNode withComment = Parse("<!-- c --><Config/>", nullptr);
    EXPECT_EQ(withComment.getName(), nullptr);
    EXPECT_EQ(Strings{" c "}, Clears(withComment));
    // With a tag, the named child of the top node is returned.
    XMLResults res;
    EXPECT_STREQ(XMLNode::parseString("<?xml?><A/><B>x</B>", "b", &res).getText(), "x");
    EXPECT_TRUE(XMLNode::parseString("<A/>", "C", &res).isEmpty());
    EXPECT_EQ(res.error, eXMLErrorFirstTagNotFound);
}

TEST_F(XmlParserTest, TextsTrimEntitiesAndCommentRules)
{
    const struct {
        const char *pcXml;
        Strings vstrTexts, vstrClears;
    } astCases[] = {
        {"<a>  \r\n\t3 \n</a>", {"3"}, {}},
        {"<a>&lt;&amp;&gt;&quot;&apos; &unknown; &amp</a>", {"<&>\"' &unknown; &amp"}, {}},
        // A comment first, then a text: the comment stays and the text is the only one.
        {"<a><!-- five -->5</a>", {"5"}, {" five "}},
        // A comment between two texts disappears and the texts join without a separator.
        {"<a>1 <!-- x --> 2<!--y-->3</a>", {"123"}, {}},
        // A child element between texts keeps them apart, and white-space-only texts vanish.
        {"<a> x <b/> \n <c/>y</a>", {"x", "y"}, {}},
        // Clear sections are kept verbatim, without entity decoding.
        {"<a><![CDATA[<b>&amp;]]><PRE> <i>&lt; </PRE></a>", {}, {"<b>&amp;", " <i>&lt; "}},
    };
    for (const auto &c : astCases) {
        const XMLNode n = Parse(c.pcXml, nullptr);
        EXPECT_EQ(c.vstrTexts, Texts(n)) << c.pcXml;
        EXPECT_EQ(c.vstrClears, Clears(n)) << c.pcXml;
    }
    XMLNode top = Parse("<?xml?><!DOCTYPE cfg><a><![CDATA[x]]></a>", nullptr);
    EXPECT_EQ((Strings{"<!DOCTYPE", " cfg", ">"}),
              (Strings{top.getClear().pcOpenTag, top.getClear().pcValue, top.getClear().pcCloseTag}));
    EXPECT_STREQ(top.getChildNode("a", 0).getClear().pcCloseTag, "]]>");
}

TEST_F(XmlParserTest, ErrorsBelowThreeKeepTheTreeOthersDiscardIt)
{
    XMLResults res;
    XMLNode n = Parse("<Config><A>7</A>", &res);   // truncated file
    EXPECT_EQ(res.error, eXMLErrorMissingEndTag);
    EXPECT_STREQ(n.getChildNode("A", 0).getText(), "7");
    n = Parse("  just text  ", &res);
    EXPECT_EQ(res.error, eXMLErrorNoXMLTagFound);
    EXPECT_EQ(Strings{"just text"}, Texts(n));
    // An end tag may close elements left open inside it.
    n = Parse("<a><b><c></a>", &res);
    EXPECT_EQ(res.error, eXMLErrorNone);
    EXPECT_FALSE(n.getChildNode("b", 0).getChildNode("c", 0).isEmpty());

    const std::pair<const char *, XMLError> astBad[] = {
        {"", eXMLErrorEmpty},
        {"   \n ", eXMLErrorEmpty},
        {"<a>< b></a>", eXMLErrorMissingTagName},
        {"<a></ ></a>", eXMLErrorMissingEndTagName},
        {"<a></b>", eXMLErrorUnmatchedEndTag},
        {"<a></a></a>", eXMLErrorUnmatchedEndTag},
        {"<a><![CDATA[never closed</a>", eXMLErrorUnmatchedEndClearTag},
        {"<a><!-- never closed </a>", eXMLErrorUnmatchedEndClearTag},
        {"<a v=\"open></a>", eXMLErrorUnexpectedToken},
        {"<a v=></a>", eXMLErrorUnexpectedToken},
        {"<a =\"1\"></a>", eXMLErrorUnexpectedToken},
        {"<a", eXMLErrorUnexpectedToken},
        {"<a></a x>", eXMLErrorUnexpectedToken},
    };
    for (const auto &b : astBad) {
        EXPECT_TRUE(Parse(b.first, &res).isEmpty()) << b.first;
        EXPECT_EQ(res.error, b.second) << b.first;
        EXPECT_GE(res.error, eXMLErrorEmpty) << b.first;
    }
    EXPECT_TRUE(XMLNode::parseString(nullptr).isEmpty());
    // The position of the first error is 1-based.
    Parse("<a>\n  <b>\n  </c>", &res);
    EXPECT_EQ((std::vector<int>{eXMLErrorUnmatchedEndTag, 3, 3}), (std::vector<int>{res.error, res.nLine, res.nColumn}));
}

TEST_F(XmlParserTest, GuessCharEncoding)
{
    auto guess = [](const std::string &s, char attr = 1) {
        std::string copy = s;
        return XMLNode::guessCharEncoding(&copy[0], (int)copy.size(), attr);
    };
    const std::string pad(40, 'x');
    EXPECT_EQ(guess("<a>short, 24 bytes.</a>_"), char_encoding_error);
    EXPECT_EQ(guess(pad), char_encoding_UTF8);
    EXPECT_EQ(guess("\xEF\xBB\xBF" + pad), char_encoding_UTF8);
    EXPECT_EQ(guess(pad + "\xC3\xA9" + pad), char_encoding_UTF8);
    EXPECT_EQ(guess(pad + "\xC3(" + pad), char_encoding_legacy);
    EXPECT_EQ(guess(pad + "\xE4\xB8" + pad), char_encoding_legacy);
    EXPECT_EQ(guess(pad + "\xE4\xB8"), char_encoding_UTF8);   // cut by the end: no evidence
    // Wide-character files: a 16-bit mark, or mostly small 32-bit words.
    EXPECT_EQ(guess("\xFF\xFE" + pad), char_encoding_error);
    EXPECT_EQ(guess("\xFE\xFF" + pad), char_encoding_error);
    std::string wide;
    for (char c : pad) {
        wide += std::string(1, c) + std::string(3, '\0');
    }
    EXPECT_EQ(guess(wide), char_encoding_error);
    EXPECT_EQ(guess(pad + "\xFF\xFE", 1), char_encoding_UTF8);
    EXPECT_EQ(guess(pad + std::string(4, '\0') + "xxxx"), char_encoding_error);   // a zero word

    // The encoding attribute decides once it is complete; case and blanks do not matter.
    const std::string decl = "<?xml version=\"1.0\" encoding";
    EXPECT_EQ(guess(decl + " = \" gb2312\"?>" + pad), char_encoding_GB2312);
    EXPECT_EQ(guess(decl + "='Shift-JIS'?>" + pad), char_encoding_ShiftJIS);
    EXPECT_EQ(guess(decl + "='SJIS'?>" + pad), char_encoding_ShiftJIS);
    EXPECT_EQ(guess(decl + "='shiftjis'?>" + pad), char_encoding_ShiftJIS);
    EXPECT_EQ(guess(decl + "='big5'?>" + pad), char_encoding_Big5);
    EXPECT_EQ(guess(decl + "='GBK'?>" + pad), char_encoding_GBK);
    EXPECT_EQ(guess(decl + "='ISO-8859-1'?>" + pad), char_encoding_legacy);
    EXPECT_EQ(guess(decl + "='utf8'?>" + pad), char_encoding_UTF8);
    EXPECT_EQ(guess(decl + "='UTF-8'?>" + pad + "\xC3("), char_encoding_error);
    EXPECT_EQ(guess(decl + "='GBK'?>" + pad, 0), char_encoding_UTF8);
    EXPECT_EQ(guess(decl + "=GBK?>" + pad + "\xC3("), char_encoding_legacy);   // no quote
    EXPECT_EQ(guess(decl + " 'GBK'?>" + pad), char_encoding_UTF8);              // no "="
    // Only the first 200 bytes are searched for the attribute.
    EXPECT_EQ(guess(std::string(200, ' ') + decl + "='GBK'?>"), char_encoding_UTF8);
}

TEST_F(XmlParserTest, LeadBytesKeepMultiByteCharactersWhole)
{
    // 0xB0 starts a GB2312 character, so the "<" after it is its second byte, not markup.
    const char *text = "<a>x\xB0<y</a>";
    XMLResults res;
    EXPECT_TRUE(Parse(text, &res).isEmpty());   // as UTF-8 the "<" opens a tag
    XMLNode::setGlobalOptions(char_encoding_GB2312);
    EXPECT_EQ(Strings{"x\xB0<y"}, Texts(Parse(text, &res)));
    EXPECT_EQ(res.error, eXMLErrorNone);

    XMLNode::setGlobalOptions(char_encoding_ShiftJIS);
    EXPECT_STREQ(Parse("<a>\xE0<</a>", nullptr).getText(), "\xE0<");
    EXPECT_TRUE(Parse("<a>\xA1<</a>", nullptr).isEmpty());   // not a lead byte in Shift-JIS
    XMLNode::setGlobalOptions(char_encoding_Big5);
    EXPECT_STREQ(Parse("<a>\x81<</a>", nullptr).getText(), "\x81<");
    XMLNode::setGlobalOptions(char_encoding_legacy);
    EXPECT_TRUE(Parse("<a>\xB0<</a>", nullptr).isEmpty());
    EXPECT_EQ(XMLNode::setGlobalOptions(char_encoding_error), 1);
    EXPECT_EQ(XMLNode::characterEncoding, char_encoding_legacy);

    // A lead byte right before the end never steps over the terminating zero.
    XMLNode::setGlobalOptions(char_encoding_GB2312);
    for (const char *t : {"<a>\xB0", "<a b='\xB0", "<\xB0", "<a><!--\xB0", "\xB0"}) {
        Parse(t, &res);
        EXPECT_NE(res.error, eXMLErrorNone) << t;
    }
}

TEST_F(XmlParserTest, FilesEncodingAndByteOrderMark)
{
    const std::string body = "<?xml version=\"1.0\" encoding=\"GB2312\"?>\n"
                             "<Config><Name>\xB0<\xB1\xB2</Name></Config>\n";
    XMLNode top = XMLNode::openFileHelper(WriteFile("gb.xml", body).c_str());
    EXPECT_EQ(XMLNode::characterEncoding, char_encoding_GB2312);
    EXPECT_STREQ(top.getChildNode("Config", 0).getChildNode("Name", 0).getText(), "\xB0<\xB1\xB2");

    // A file shorter than 25 bytes is read with the encoding already in force.
    XMLResults res;
    XMLNode small = XMLNode::parseFile(WriteFile("small.xml", "<a>\xB0<</a>").c_str(), nullptr, &res);
    EXPECT_EQ(XMLNode::characterEncoding, char_encoding_GB2312);
    EXPECT_STREQ(small.getText(), "\xB0<");

    // The UTF-8 byte-order mark is skipped and sets UTF-8.
    const std::string plain = "<?xml version=\"1.0\"?><Config><V>5</V></Config>";
    top = XMLNode::parseFile(WriteFile("bom.xml", "\xEF\xBB\xBF" + plain).c_str(), nullptr, &res);
    EXPECT_EQ((std::vector<int>{eXMLErrorNone, char_encoding_UTF8, 2}),
              (std::vector<int>{res.error, XMLNode::characterEncoding, top.nChildNode()}));
    EXPECT_STREQ(top.getChildNode("Config", 0).getChildNode("V", 0).getText(), "5");

    // Missing and empty files give the empty node and "file not found"; what is not a regular
    // file is not read at all.
    const std::pair<std::string, XMLError> paths[] = {
        {TestScratchDir() + "xml_parser_test_missing.xml", eXMLErrorFileNotFound},
        {WriteFile("empty.xml", ""), eXMLErrorFileNotFound},
        {TestScratchDir(), eXMLErrorFileNotRegular}};
    for (const auto &p : paths) {
        EXPECT_TRUE(XMLNode::parseFile(p.first.c_str(), nullptr, &res).isEmpty()) << p.first;
        EXPECT_EQ(res.error, p.second) << p.first;
    }
    EXPECT_TRUE(XMLNode::openFileHelper(nullptr).isEmpty());
    // A file parses as its text would: a syntax error still discards the tree.
    EXPECT_TRUE(XMLNode::parseFile(WriteFile("bad.xml", "<a></b>").c_str(), nullptr, &res).isEmpty());
    EXPECT_EQ(res.error, eXMLErrorUnmatchedEndTag);
}

TEST_F(XmlParserTest, HandlesShareDataAndOutliveTheirDocument)
{
    XMLNode item;
    {
        XMLNode top = Parse("<?xml?><Config><Item>v</Item><B/></Config>", nullptr);
        XMLNode copy(top);
        XMLNode &alias = copy;
        copy = alias;   // self-assignment keeps the data
        item = copy.getChildNode("Config", 0).getChildNode("Item", 0);
        EXPECT_STREQ(item.getParentNode().getName(), "Config");
    }
    // The document is gone: the child survives as a top node of its own.
    EXPECT_STREQ(item.getName(), "Item");
    EXPECT_STREQ(item.getText(), "v");
    EXPECT_TRUE(item.getParentNode().isEmpty());
    item = XMLNode::emptyXMLNode;
    EXPECT_TRUE(item.isEmpty());
}

TEST_F(XmlParserTest, HostileShapesNeitherRecurseNorGoQuadratic)
{
    const int depth = 100000;
    std::string text;
    for (int i = 0; i < depth; i++) {
        text += "<a>";
    }
    text += "x";
    XMLResults res;
    {
        // Unclosed: a warning, the whole chain kept.
        XMLNode n = Parse(text.c_str(), &res);
        EXPECT_EQ(res.error, eXMLErrorMissingEndTag);
        int levels = 1;
        for (XMLNode c = n.getChildNode(0); !c.isEmpty(); c = c.getChildNode(0)) {
            levels++;
            if (c.nChildNode() == 0) {
                EXPECT_STREQ(c.getText(), "x");
            }
        }
        EXPECT_EQ(levels, depth);
    }
    for (int i = 0; i < depth; i++) {
        text += "</a>";
    }
    XMLNode n = Parse(text.c_str(), &res);
    EXPECT_EQ(res.error, eXMLErrorNone);
    EXPECT_STREQ(n.getName(), "a");
    // A single end tag far down closes the whole chain at once.
    n = Parse(("<z>" + text.substr(0, 3 * depth) + "</z>").c_str(), &res);
    EXPECT_EQ(res.error, eXMLErrorNone);

    // A long run of texts joined across comments grows one text, not a copy per piece.
    std::string joins = "<a>";
    for (int i = 0; i < depth; i++) {
        joins += "xy<!---->";
    }
    n = Parse((joins + "</a>").c_str(), &res);
    EXPECT_EQ(res.error, eXMLErrorNone);
    EXPECT_EQ(strlen(n.getText()), 2u * depth);
    EXPECT_EQ(n.nClear(), 1);   // the last comment has no text after it
}

}  // namespace
