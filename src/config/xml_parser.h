// A small non-validating XML reader: turns a configuration file (or a string) into a tree of
// reference-counted nodes. It only reads; nothing here writes XML back.
//
// Robustness matters more than speed here: the camera service must survive any file it is
// given, so the parser and the node destruction are iterative (no recursion over the depth of
// the document) and every allocation failure ends the parse with an error instead of a crash.
#ifndef LDC_CONFIG_XML_PARSER_H
#define LDC_CONFIG_XML_PARSER_H

#include "vkt_zb_ldc.h"   // LDC_EXPORT

typedef char XMLCHAR;
typedef char *XMLSTR;
typedef const char *XMLCSTR;

// Parse results. Codes below eXMLErrorEmpty keep the tree; eXMLErrorEmpty and above discard it
// and the parse returns the empty node.
enum XMLError {
    eXMLErrorNone = 0,
    eXMLErrorMissingEndTag = 1,       // the text ended with elements still open (tree kept)
    eXMLErrorNoXMLTagFound = 2,       // text without any element (the top node is returned)
    eXMLErrorEmpty = 3,               // nothing at all to parse
    eXMLErrorMissingTagName = 4,      // "<" not followed by a name
    eXMLErrorMissingEndTagName = 5,   // "</" not followed by a name
    eXMLErrorUnmatchedEndTag = 6,     // an end tag that closes no open element
    eXMLErrorUnmatchedEndClearTag = 7,// a CDATA, DOCTYPE, comment or PRE section never closed
    eXMLErrorUnexpectedToken = 8,     // malformed tag or attribute
    eXMLErrorFileNotFound = 9,        // the file cannot be opened, sought, read or is empty
    eXMLErrorFirstTagNotFound = 10,   // the requested tag is not a child of the top node
    eXMLErrorOutOfMemory = 11,        // an allocation failed while building the tree
    eXMLErrorFileNotRegular = 12,     // the path names a FIFO, device, directory or socket
    eXMLErrorFileTooLarge = 13        // the file has more than XML_FILE_MAX_BYTES bytes
};

// Largest file the reader reads; shipped configurations have some 20 KB.
#define XML_FILE_MAX_BYTES (1 << 20)

typedef struct XMLResults {
    enum XMLError error;
    int nLine;     // 1-based line of the first error
    int nColumn;   // 1-based column of the first error
} XMLResults;

// Character encodings; the values are those returned by XMLNode::guessCharEncoding
// (0 = no guess, the current encoding stays in force).
enum XMLCharEncoding {
    char_encoding_error = 0,
    char_encoding_UTF8 = 1,
    char_encoding_legacy = 2,   // single-byte
    char_encoding_ShiftJIS = 3,
    char_encoding_GB2312 = 4,
    char_encoding_Big5 = 5,
    char_encoding_GBK = 6
};

// Name and value of one attribute.
typedef struct XMLAttribute {
    XMLCSTR pcName;
    XMLCSTR pcValue;
} XMLAttribute;

// A section kept verbatim (CDATA, DOCTYPE, comment, PRE) with its opening and closing marks.
typedef struct XMLClear {
    XMLCSTR pcValue;
    XMLCSTR pcOpenTag;
    XMLCSTR pcCloseTag;
} XMLClear;

struct tagST_XML_CONTEXT;   // what one parse took of the global options (xml_parser.cpp)

class LDC_EXPORT XMLNode {
public:
    struct XMLNodeDataTag;   // shared, reference-counted node content (xml_parser.cpp)

    XMLNode();
    XMLNode(XMLNode const &other);
    XMLNode &operator=(XMLNode const &other);
    ~XMLNode();

    // Parses text held in memory. With no tag the top node (or, for a document whose only
    // content is one element, that element) is returned; with a tag, the first child of the top
    // node of that name. pResults may be null.
    static XMLNode parseString(XMLCSTR pcText, XMLCSTR pcTag = 0, XMLResults *pResults = 0);
    // Reads the whole file, guesses its encoding (which becomes the global one and this parse's
    // own), skips a UTF-8 byte-order mark and parses it. Only a regular file of at most
    // XML_FILE_MAX_BYTES is read; it is opened once and never waited for. Every parse reads the
    // global encoding and switches once, as it begins: parses on other threads cannot change them
    // halfway.
    static XMLNode parseFile(XMLCSTR pcPath, XMLCSTR pcTag = 0, XMLResults *pResults = 0);
    // parseFile without a results record.
    static XMLNode openFileHelper(XMLCSTR pcPath, XMLCSTR pcTag = 0);

    // 0 when no guess is possible (fewer than 25 bytes, or a wide-character file).
    static XMLCharEncoding guessCharEncoding(void *pBuffer, int iLength,
                                             char cUseEncodingAttribute = 1);
    // Sets the encoding with its lead-byte table and the three parsing switches (all on by
    // default). Returns 0, or 1 when the encoding is not one of the six known ones (nothing is
    // changed then).
    static int setGlobalOptions(XMLCharEncoding eEncoding = char_encoding_UTF8,
                                char bGuessWideCharChars = 1, char bDropWhiteSpace = 1,
                                char bRemoveCommentsInMiddleOfText = 1);
    // Text of an error code, never null.
    static XMLCSTR getError(XMLError eError);

    XMLCSTR getName() const;              // null for the top node of a document
    XMLNode getParentNode() const;        // the empty node for a top node
    char isDeclaration() const;           // the name began with "?"
    char isEmpty() const;                 // true exactly for a handle without data

    int nChildNode() const;
    int nText() const;
    int nClear() const;
    int nAttribute() const;

    XMLNode getChildNode(int i = 0) const;                // i-th child element or the empty node
    XMLNode getChildNode(XMLCSTR pcName, int i) const;    // i-th child of that name (any case)
    XMLCSTR getText(int i = 0) const;                     // i-th text or null
    XMLClear getClear(int i = 0) const;                   // i-th clear section (all null if none)
    XMLAttribute getAttribute(int i = 0) const;           // i-th attribute (all null if none)
    XMLCSTR getAttribute(XMLCSTR pcName, int i = 0) const; // value of the i-th of that name or null

    static XMLNode emptyXMLNode;                     // the shared "not found" node
    // Encoding in force for the next parse; the reader loads and stores it atomically (relaxed).
    static XMLCharEncoding characterEncoding;

private:
    explicit XMLNode(XMLNodeDataTag *pstData);   // takes a new reference on pstData
    // parseString with the encoding and switches that one parse took at its start.
    static XMLNode parseText(tagST_XML_CONTEXT const *pstContext, XMLCSTR pcText,
                             XMLCSTR pcTag, XMLResults *pResults);
    XMLNodeDataTag *d;
};

// Text-to-value helpers: the default is returned for a null text.
LDC_EXPORT int xmltoi(XMLCSTR pcText, int iDefault = 0);
LDC_EXPORT long xmltol(XMLCSTR pcText, long lDefault = 0);
LDC_EXPORT double xmltof(XMLCSTR pcText, double dDefault = 0.0);
// True for a text starting with 1, t, T, y or Y.
LDC_EXPORT char xmltob(XMLCSTR pcText, char bDefault = 0);
LDC_EXPORT XMLCSTR xmltoa(XMLCSTR pcText, XMLCSTR pcDefault = "");
// First character of the text.
LDC_EXPORT XMLCHAR xmltoc(XMLCSTR pcText, XMLCHAR cDefault = '\0');

#endif
