// Configuration store: one parsed document and typed getters over slash-separated paths.
#include "config/xml_config.h"

#include <string.h>

#include <sstream>
#include <string>

#include "boundscheck/bounds_check.h"

// A file that is missing or cannot be parsed is replaced by an empty <Config>, so every key
// then takes its default instead of the creation failing.
static const char g_acDefaultDocument[] =
    "<?xml version=\"1.0\" encoding=\"GB2312\"?><Config></Config>";

// Node paths are walked in a buffer one byte smaller than the accepted length, so paths of 255
// and 256 characters pass the length test but do not fit: they are treated as not found.
#define XML_SEARCH_BUF_LEN (XML_CONFIG_PATH_LEN - 1)

XmlConfig::XmlConfig() : xmlDocument(XMLNode::emptyXMLNode)
{
    memset_s(acLoadedPath, sizeof(acLoadedPath), 0, sizeof(acLoadedPath));
}

XmlConfig::~XmlConfig() {}

int XmlConfig::LoadConfig(char const *pcPath)
{
    return LoadConfig(pcPath, 0);
}

int XmlConfig::LoadConfig(char const *pcPath, XMLResults *pstFileResults)
{
    if (pstFileResults != 0) {
        pstFileResults->error = eXMLErrorNone;
        pstFileResults->nLine = 0;
        pstFileResults->nColumn = 0;
    }
    if (pcPath == 0 || strnlen(pcPath, XML_CONFIG_PATH_LEN) >= XML_CONFIG_PATH_LEN) {
        return 0;
    }
    // The same path is never read twice: the document in hand is kept even if the file changed.
    if (strcmp(pcPath, acLoadedPath) != 0) {
        xmlDocument = XMLNode::emptyXMLNode;   // release the old tree before building the new one
        xmlDocument = XMLNode::parseFile(pcPath, 0, pstFileResults);
        if (xmlDocument.isEmpty()) {
            xmlDocument = XMLNode::parseString(g_acDefaultDocument, 0, 0);
        }
        strcpy_s(acLoadedPath, sizeof(acLoadedPath), pcPath);
    }
    return xmlDocument.isEmpty() ? 0 : 1;
}

XMLNode XmlConfig::SearchNode(char const *pcPath) const
{
    if (pcPath == 0 || strnlen(pcPath, XML_CONFIG_PATH_LEN + 1) > XML_CONFIG_PATH_LEN ||
        pcPath[0] != '/') {
        return XMLNode::emptyXMLNode;
    }
    char acPath[XML_SEARCH_BUF_LEN];
    if (strcpy_s(acPath, sizeof(acPath), pcPath) != EOK) {
        return XMLNode::emptyXMLNode;
    }
    // The first segment is a child of the top node, so a path always names the root element.
    XMLNode xNode = xmlDocument;
    char *pcSegment = acPath + 1;
    for (;;) {
        if (xNode.isEmpty()) {
            return xNode;
        }
        char *pcSlash = strchr(pcSegment, '/');
        if (pcSlash == 0) {
            return xNode.getChildNode(pcSegment, 0);
        }
        *pcSlash = '\0';
        xNode = xNode.getChildNode(pcSegment, 0);
        pcSegment = pcSlash + 1;
    }
}

int XmlConfig::GetInteger(char const *pcPath, int iDefault) const
{
    XMLCSTR pcText = SearchNode(pcPath).getText(0);
    int iValue = 0;
    // A text that does not start with a number assigns nothing: keep the default then.
    if (pcText == 0 || sscanf_s(pcText, "%d", &iValue) != 1) {
        return iDefault;
    }
    return iValue;
}

float XmlConfig::GetFloat(char const *pcPath, float fDefault) const
{
    XMLCSTR pcText = SearchNode(pcPath).getText(0);
    float fValue = 0.0f;
    if (pcText == 0 || sscanf_s(pcText, "%f", &fValue) != 1) {
        return fDefault;
    }
    return fValue;
}

char const *XmlConfig::GetString(char const *pcPath, char const *pcDefault) const
{
    XMLCSTR pcText = SearchNode(pcPath).getText(0);
    return pcText == 0 ? pcDefault : pcText;
}

// Values are separated by white space only; once the stream fails (text exhausted or a
// character that is not part of a number) the remaining elements keep the caller's values.
template <typename T>
static bool ReadVector(XMLCSTR pcText, T *pOut, int iCount)
{
    if (pcText == 0) {
        return false;
    }
    try {
        std::istringstream stream{std::string(pcText)};
        for (int i = 0; i < iCount; i++) {
            stream >> pOut[i];
        }
    } catch (...) {
        // Only an allocation failure gets here; no exception leaves the library.
    }
    return true;
}

bool XmlConfig::GetVectorShort(char const *pcPath, short *psOut, int iCount) const
{
    return ReadVector(SearchNode(pcPath).getText(0), psOut, iCount);
}

bool XmlConfig::GetVectorInt(char const *pcPath, int *piOut, int iCount) const
{
    return ReadVector(SearchNode(pcPath).getText(0), piOut, iCount);
}

bool XmlConfig::GetVectorUnsignedInt(char const *pcPath, unsigned int *puiOut, int iCount) const
{
    return ReadVector(SearchNode(pcPath).getText(0), puiOut, iCount);
}

bool XmlConfig::GetVectorFloat(char const *pcPath, float *pfOut, int iCount) const
{
    return ReadVector(SearchNode(pcPath).getText(0), pfOut, iCount);
}
