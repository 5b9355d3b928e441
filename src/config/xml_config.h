// Typed access to a configuration file: values are found by slash-separated paths such as
// "/Config/Global/LDCFlag", and a missing key gives the caller's default.
#ifndef LDC_CONFIG_XML_CONFIG_H
#define LDC_CONFIG_XML_CONFIG_H

#include "config/xml_parser.h"
#include "vkt_zb_ldc.h"   // LDC_EXPORT

#define XML_CONFIG_PATH_LEN 256   // capacity of the loaded path and of a node path, NUL included

class LDC_EXPORT XmlConfig {
public:
    XmlConfig();
    ~XmlConfig();

    // Loads the file once: the same path again reuses the document without reading the file.
    // A missing or unparsable file is replaced by an empty <Config> document. Returns 1 if a
    // document is held afterwards, 0 for a path longer than 255 characters.
    int LoadConfig(char const *pcPath);
    // The same, reporting in *pstFileResults how the reader fared with the file (a missing,
    // refused or unparsable file still leaves the empty <Config>); eXMLErrorNone when nothing
    // was read because the document of that path is in hand.
    int LoadConfig(char const *pcPath, XMLResults *pstFileResults);

    // The node named by an absolute path ("/Config/..."), or the empty node.
    XMLNode SearchNode(char const *pcPath) const;

    // The node's first text read as "%d" / "%f", or iDefault / fDefault when the node or its
    // text is missing or the text does not start with a number.
    int GetInteger(char const *pcPath, int iDefault) const;
    float GetFloat(char const *pcPath, float fDefault) const;
    // The node's first text (valid until the next reload or destruction), or pcDefault.
    char const *GetString(char const *pcPath, char const *pcDefault) const;

    // Read up to iCount white-space-separated numbers of the node's first text into the array;
    // elements without a value keep what the caller put there. False (array untouched) when
    // the node or its text is missing.
    bool GetVectorShort(char const *pcPath, short *psOut, int iCount) const;
    bool GetVectorInt(char const *pcPath, int *piOut, int iCount) const;
    bool GetVectorUnsignedInt(char const *pcPath, unsigned int *puiOut, int iCount) const;
    bool GetVectorFloat(char const *pcPath, float *pfOut, int iCount) const;

private:
    XmlConfig(XmlConfig const &) = delete;
    XmlConfig &operator=(XmlConfig const &) = delete;

    XMLNode xmlDocument;                          // empty until a document is loaded
    char acLoadedPath[XML_CONFIG_PATH_LEN];       // path of the last load; all zero at first
};

#endif
