// XML reader: encoding guess, file loading and an iterative parser building reference-counted
// nodes. Nothing here recurses over the depth of a document, so that hostile nesting cannot
// exhaust the caller's stack.
#include "config/xml_parser.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <initializer_list>

#include "boundscheck/bounds_check.h"

// Kinds of entries in a node's order list: (index << ORDER_SHIFT) | kind.
#define ORDER_CHILD 0
#define ORDER_TEXT 1
#define ORDER_CLEAR 2
#define ORDER_SHIFT 2
#define ORDER_MAX_INDEX (INT_MAX >> ORDER_SHIFT)

#define XML_GUESS_HEAD 200      // bytes of a file looked at to guess its encoding
#define XML_GUESS_MIN_LEN 25    // shorter buffers give no guess
#define XML_GUESS_MAX_WORDS 256 // 32-bit words looked at by the wide-character test
#define XML_FILE_PAD 4          // zero bytes after a loaded file

struct XMLNode::XMLNodeDataTag {
    XMLSTR pcName;                 // null for the top node of a document
    char bIsDeclaration;
    XMLNodeDataTag *pstParent;     // not counted: a parent outlives its children's link to it
    int nChild, nText, nAttribute, nClear, nOrder;
    int iChildCap, iTextCap, iAttributeCap, iClearCap, iOrderCap;
    XMLNodeDataTag **ppstChild;    // each child holds one reference of its parent's
    XMLSTR *ppcText;
    XMLAttribute *pstAttribute;    // name and value owned
    XMLClear *pstClear;            // pcValue owned; the marks point at static strings
    int *piOrder;                  // children, texts and clear sections in source order
    int iRefCount;
};

typedef XMLNode::XMLNodeDataTag XMLNodeData;

/* ---------------------------------------------------------------------------------------------
 * Encodings and lead-byte tables
 * ------------------------------------------------------------------------------------------- */

// Bytes a character occupies, by its first byte; 0 for the zero byte.
typedef struct tagST_LEAD_TABLE {
    unsigned char aucLen[256];
} tagST_LEAD_TABLE;

// Lead bytes iFirst..iLast start characters of ucLen bytes.
typedef struct tagST_LEAD_RANGE {
    int iFirst;
    int iLast;
    unsigned char ucLen;
} tagST_LEAD_RANGE;

static constexpr tagST_LEAD_RANGE LEAD_NONE = {1, 0, 1};

static constexpr tagST_LEAD_TABLE MakeLeadTable(tagST_LEAD_RANGE stA, tagST_LEAD_RANGE stB = LEAD_NONE,
                                                tagST_LEAD_RANGE stC = LEAD_NONE)
{
    tagST_LEAD_TABLE stTable = {};
    for (int i = 1; i < 256; i++) {
        stTable.aucLen[i] = 1;
        for (const tagST_LEAD_RANGE &stRange : {stA, stB, stC}) {
            if (i >= stRange.iFirst && i <= stRange.iLast) {
                stTable.aucLen[i] = stRange.ucLen;
            }
        }
    }
    return stTable;
}

static constexpr tagST_LEAD_TABLE g_stLeadUTF8 =
    MakeLeadTable({0xC2, 0xDF, 2}, {0xE0, 0xEF, 3}, {0xF0, 0xF4, 4});
static constexpr tagST_LEAD_TABLE g_stLeadSingle = MakeLeadTable(LEAD_NONE);
static constexpr tagST_LEAD_TABLE g_stLeadShiftJIS = MakeLeadTable({0x81, 0x9F, 2}, {0xE0, 0xEF, 2});
static constexpr tagST_LEAD_TABLE g_stLeadGB2312 = MakeLeadTable({0xA1, 0xF7, 2});
static constexpr tagST_LEAD_TABLE g_stLeadGBK = MakeLeadTable({0x81, 0xFE, 2});   // Big5 and GBK

// The encoding in force (its lead-byte table follows from it) and the three parsing switches are
// process-wide, and every file parse may change the encoding. Cameras on their own threads parse
// at the same time, so these are only touched atomically, and a parse reads them once, at its
// start, into its own context: no other thread can change its reading halfway.
XMLCharEncoding XMLNode::characterEncoding = char_encoding_UTF8;
XMLNode XMLNode::emptyXMLNode;

#define XML_OPT_GUESS_WIDE 1u         // guess wide-character files, skip a UTF-8 byte-order mark
#define XML_OPT_DROP_WHITE_SPACE 2u   // trim texts and drop white-space-only ones
#define XML_OPT_REMOVE_COMMENTS 4u    // a comment between two texts goes and the texts join
static std::atomic<unsigned> g_uOptions{XML_OPT_GUESS_WIDE | XML_OPT_DROP_WHITE_SPACE |
                                        XML_OPT_REMOVE_COMMENTS};

typedef struct tagST_XML_CONTEXT {
    XMLCharEncoding eEncoding;
    unsigned uOptions;
} tagST_XML_CONTEXT;

static const tagST_LEAD_TABLE *LeadTableOf(XMLCharEncoding eEncoding)
{
    switch (eEncoding) {
    case char_encoding_UTF8:
        return &g_stLeadUTF8;
    case char_encoding_legacy:
        return &g_stLeadSingle;
    case char_encoding_ShiftJIS:
        return &g_stLeadShiftJIS;
    case char_encoding_GB2312:
        return &g_stLeadGB2312;
    case char_encoding_Big5:
    case char_encoding_GBK:
        return &g_stLeadGBK;
    default:
        return 0;
    }
}

static tagST_XML_CONTEXT TakeContext(void)
{
    tagST_XML_CONTEXT stContext;
    stContext.eEncoding = __atomic_load_n(&XMLNode::characterEncoding, __ATOMIC_RELAXED);
    stContext.uOptions = g_uOptions.load(std::memory_order_relaxed);
    return stContext;
}

static const unsigned char *LeadBytesOf(const tagST_XML_CONTEXT *pstContext)
{
    // The encoding is a public static: a value stored there by hand that names no encoding
    // reads as UTF-8, the initial one.
    const tagST_LEAD_TABLE *pstTable = LeadTableOf(pstContext->eEncoding);
    return (pstTable != 0 ? pstTable : &g_stLeadUTF8)->aucLen;
}

int XMLNode::setGlobalOptions(XMLCharEncoding eEncoding, char bGuessWideCharChars,
                              char bDropWhiteSpace, char bRemoveCommentsInMiddleOfText)
{
    if (LeadTableOf(eEncoding) == 0) {
        return 1;
    }
    __atomic_store_n(&characterEncoding, eEncoding, __ATOMIC_RELAXED);
    g_uOptions.store((bGuessWideCharChars ? XML_OPT_GUESS_WIDE : 0u) |
                         (bDropWhiteSpace ? XML_OPT_DROP_WHITE_SPACE : 0u) |
                         (bRemoveCommentsInMiddleOfText ? XML_OPT_REMOVE_COMMENTS : 0u),
                     std::memory_order_relaxed);
    return 0;
}

static int IsBlank(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

static int LowerAscii(unsigned char c)
{
    return (c >= 'A' && c <= 'Z') ? c + ('a' - 'A') : c;
}

// Case-insensitive (ASCII) comparison of a NUL-terminated text with a prefix.
static int StartsWithNoCase(const char *pcText, const char *pcPrefix)
{
    for (; *pcPrefix != '\0'; pcText++, pcPrefix++) {
        if (LowerAscii((unsigned char)*pcText) != LowerAscii((unsigned char)*pcPrefix)) {
            return 0;
        }
    }
    return 1;
}

static int EqualNoCase(const char *pcA, const char *pcB)
{
    for (; *pcA != '\0' && *pcB != '\0'; pcA++, pcB++) {
        if (LowerAscii((unsigned char)*pcA) != LowerAscii((unsigned char)*pcB)) {
            return 0;
        }
    }
    return *pcA == *pcB;
}

static XMLCharEncoding GuessEncoding(const unsigned char *pucBuf, int iLength,
                                     char cUseEncodingAttribute, bool bGuessWide)
{
    if (pucBuf == 0 || iLength < XML_GUESS_MIN_LEN) {
        return char_encoding_error;
    }
    if (bGuessWide && (iLength & 1) == 0) {
        if ((pucBuf[0] == 0xFF && pucBuf[1] == 0xFE) || (pucBuf[0] == 0xFE && pucBuf[1] == 0xFF)) {
            return char_encoding_error;
        }
        // A file of 32-bit wide characters has mostly small code points and no zero word.
        int iWords = iLength / 4;
        if (iWords > XML_GUESS_MAX_WORDS) {
            iWords = XML_GUESS_MAX_WORDS;
        }
        int iSmall = 0;
        for (int i = 0; i < iWords; i++) {
            uint32_t uWord = 0;
            memcpy_s(&uWord, sizeof(uWord), pucBuf + 4 * i, sizeof(uWord));
            if (uWord == 0) {
                return char_encoding_error;
            }
            iSmall += uWord < 256;
        }
        if (iSmall > iWords / 2) {
            return char_encoding_error;
        }
    }
    if (pucBuf[0] == 0xEF && pucBuf[1] == 0xBB && pucBuf[2] == 0xBF) {
        return char_encoding_UTF8;
    }

    XMLCharEncoding eWalk = char_encoding_UTF8;
    for (int i = 0; i < iLength && eWalk == char_encoding_UTF8;) {
        int iLen = g_stLeadUTF8.aucLen[pucBuf[i]];
        if (iLen == 0) {
            break;
        }
        // A character cut by the end of the buffer says nothing against UTF-8.
        for (int j = 1; j < iLen && i + j < iLength; j++) {
            if ((pucBuf[i + j] & 0xC0) != 0x80) {
                eWalk = char_encoding_legacy;
                break;
            }
        }
        i += iLen;
    }
    if (!cUseEncodingAttribute) {
        return eWalk;
    }

    char acHead[XML_GUESS_HEAD + 1];
    int iHead = iLength < XML_GUESS_HEAD ? iLength : XML_GUESS_HEAD;
    memcpy_s(acHead, sizeof(acHead), pucBuf, (size_t)iHead);
    acHead[iHead] = '\0';
    const char *pc = strstr(acHead, "encoding");
    if (pc == 0) {
        return eWalk;
    }
    pc += strlen("encoding");
    while (IsBlank((unsigned char)*pc)) {
        pc++;
    }
    if (*pc != '=') {
        return eWalk;
    }
    pc++;
    while (IsBlank((unsigned char)*pc)) {
        pc++;
    }
    if (*pc != '"' && *pc != '\'') {
        return eWalk;
    }
    pc++;
    while (IsBlank((unsigned char)*pc)) {
        pc++;
    }
    if (StartsWithNoCase(pc, "utf-8") || StartsWithNoCase(pc, "utf8")) {
        return eWalk == char_encoding_UTF8 ? char_encoding_UTF8 : char_encoding_error;
    }
    if (StartsWithNoCase(pc, "shiftjis") || StartsWithNoCase(pc, "shift-jis") ||
        StartsWithNoCase(pc, "sjis")) {
        return char_encoding_ShiftJIS;
    }
    if (StartsWithNoCase(pc, "GB2312")) {
        return char_encoding_GB2312;
    }
    if (StartsWithNoCase(pc, "Big5")) {
        return char_encoding_Big5;
    }
    if (StartsWithNoCase(pc, "GBK")) {
        return char_encoding_GBK;
    }
    return char_encoding_legacy;
}

XMLCharEncoding XMLNode::guessCharEncoding(void *pBuffer, int iLength, char cUseEncodingAttribute)
{
    const tagST_XML_CONTEXT stContext = TakeContext();
    return GuessEncoding((const unsigned char *)pBuffer, iLength, cUseEncodingAttribute,
                         (stContext.uOptions & XML_OPT_GUESS_WIDE) != 0);
}

/* ---------------------------------------------------------------------------------------------
 * Node data: creation, growth and iterative release
 * ------------------------------------------------------------------------------------------- */

static XMLNodeData *NewNodeData(void)
{
    XMLNodeData *pstData = (XMLNodeData *)malloc(sizeof(XMLNodeData));
    if (pstData != 0) {
        memset_s(pstData, sizeof(XMLNodeData), 0, sizeof(XMLNodeData));
        pstData->iRefCount = 1;
    }
    return pstData;
}

static void FreeNodeContent(XMLNodeData *pstData)
{
    free(pstData->pcName);
    for (int i = 0; i < pstData->nText; i++) {
        free(pstData->ppcText[i]);
    }
    for (int i = 0; i < pstData->nClear; i++) {
        free((void *)pstData->pstClear[i].pcValue);
    }
    for (int i = 0; i < pstData->nAttribute; i++) {
        free((void *)pstData->pstAttribute[i].pcName);
        free((void *)pstData->pstAttribute[i].pcValue);
    }
    free(pstData->ppstChild);
    free(pstData->ppcText);
    free(pstData->pstClear);
    free(pstData->pstAttribute);
    free(pstData->piOrder);
    free(pstData);
}

// Drops one reference. Freed nodes queue their dying children on a list threaded through the
// (no longer needed) parent links, so a deep tree is freed in a loop rather than by recursion.
static void ReleaseNodeData(XMLNodeData *pstData)
{
    if (pstData == 0 || --pstData->iRefCount > 0) {
        return;
    }
    pstData->pstParent = 0;
    XMLNodeData *pstDying = pstData;
    while (pstDying != 0) {
        XMLNodeData *pstCur = pstDying;
        pstDying = pstCur->pstParent;
        for (int i = 0; i < pstCur->nChild; i++) {
            XMLNodeData *pstChild = pstCur->ppstChild[i];
            if (--pstChild->iRefCount > 0) {
                pstChild->pstParent = 0;   // still held elsewhere: it becomes a top node
            } else {
                pstChild->pstParent = pstDying;
                pstDying = pstChild;
            }
        }
        FreeNodeContent(pstCur);
    }
}

// Makes room for one more element in an array of iCount used of *piCap.
static bool Reserve(void **ppArray, int *piCap, int iCount, size_t uElemSize)
{
    if (iCount < *piCap) {
        return true;
    }
    if (*piCap > ORDER_MAX_INDEX / 2) {
        return false;
    }
    int iNewCap = *piCap == 0 ? 4 : *piCap * 2;
    if ((size_t)iNewCap > SIZE_MAX / uElemSize) {
        return false;
    }
    void *pNew = realloc(*ppArray, (size_t)iNewCap * uElemSize);
    if (pNew == 0) {
        return false;
    }
    *ppArray = pNew;
    *piCap = iNewCap;
    return true;
}

static bool AddOrder(XMLNodeData *pstNode, int iIndex, int iKind)
{
    if (!Reserve((void **)&pstNode->piOrder, &pstNode->iOrderCap, pstNode->nOrder, sizeof(int))) {
        return false;
    }
    pstNode->piOrder[pstNode->nOrder++] = (iIndex << ORDER_SHIFT) | iKind;
    return true;
}

static bool AddChild(XMLNodeData *pstNode, XMLNodeData *pstChild)
{
    if (!Reserve((void **)&pstNode->ppstChild, &pstNode->iChildCap, pstNode->nChild,
                 sizeof(XMLNodeData *)) ||
        !AddOrder(pstNode, pstNode->nChild, ORDER_CHILD)) {
        return false;
    }
    pstNode->ppstChild[pstNode->nChild++] = pstChild;
    pstChild->pstParent = pstNode;
    return true;
}

// Takes ownership of pcText (freed on failure).
static bool AddText(XMLNodeData *pstNode, XMLSTR pcText)
{
    if (!Reserve((void **)&pstNode->ppcText, &pstNode->iTextCap, pstNode->nText, sizeof(XMLSTR)) ||
        !AddOrder(pstNode, pstNode->nText, ORDER_TEXT)) {
        free(pcText);
        return false;
    }
    pstNode->ppcText[pstNode->nText++] = pcText;
    return true;
}

static bool AddClear(XMLNodeData *pstNode, XMLSTR pcValue, XMLCSTR pcOpen, XMLCSTR pcClose)
{
    if (!Reserve((void **)&pstNode->pstClear, &pstNode->iClearCap, pstNode->nClear,
                 sizeof(XMLClear)) ||
        !AddOrder(pstNode, pstNode->nClear, ORDER_CLEAR)) {
        free(pcValue);
        return false;
    }
    XMLClear *pstClear = &pstNode->pstClear[pstNode->nClear++];
    pstClear->pcValue = pcValue;
    pstClear->pcOpenTag = pcOpen;
    pstClear->pcCloseTag = pcClose;
    return true;
}

static bool AddAttribute(XMLNodeData *pstNode, XMLSTR pcName, XMLSTR pcValue)
{
    if (!Reserve((void **)&pstNode->pstAttribute, &pstNode->iAttributeCap, pstNode->nAttribute,
                 sizeof(XMLAttribute))) {
        free(pcName);
        free(pcValue);
        return false;
    }
    pstNode->pstAttribute[pstNode->nAttribute].pcName = pcName;
    pstNode->pstAttribute[pstNode->nAttribute].pcValue = pcValue;
    pstNode->nAttribute++;
    return true;
}

/* ---------------------------------------------------------------------------------------------
 * Parser
 * ------------------------------------------------------------------------------------------- */

typedef struct tagST_CLEAR_MARK {
    XMLCSTR pcOpen;
    XMLCSTR pcClose;
} tagST_CLEAR_MARK;

static const tagST_CLEAR_MARK g_astClearMarks[] = {
    {"<![CDATA[", "]]>"}, {"<!DOCTYPE", ">"}, {"<!--", "-->"}, {"<PRE>", "</PRE>"}};
#define CLEAR_MARK_COMMENT 2

typedef struct tagST_ENTITY {
    XMLCSTR pcName;   // with the leading "&" and the trailing ";"
    size_t uLen;
    char cValue;
} tagST_ENTITY;

static const tagST_ENTITY g_astEntities[] = {
    {"&amp;", 5, '&'}, {"&lt;", 4, '<'}, {"&gt;", 4, '>'}, {"&quot;", 6, '"'}, {"&apos;", 6, '\''}};

typedef struct tagST_PARSER {
    const char *pcText;
    size_t uPos;
    const unsigned char *pucLead;   // lead-byte table of the encoding in force
    unsigned uOptions;              // XML_OPT_... switches in force
    XMLError eError;
    size_t uErrorPos;
    // The text last grown by joining across comments, so that a long run of joins grows it
    // geometrically instead of copying it again for every piece.
    XMLSTR pcJoined;
    size_t uJoinedLen;
    size_t uJoinedCap;
} tagST_PARSER;

static void SetError(tagST_PARSER *pstParser, XMLError eError, size_t uPos)
{
    if (pstParser->eError == eXMLErrorNone) {
        pstParser->eError = eError;
        pstParser->uErrorPos = uPos;
    }
}

// Length of the character at pc: multi-byte characters are stepped over as a whole, so that a
// trailing byte is never taken for markup, but never past the terminating zero.
static size_t CharLen(const unsigned char *pucLead, const char *pc)
{
    size_t uLen = pucLead[(unsigned char)pc[0]];
    if (uLen == 0) {
        return 0;
    }
    for (size_t i = 1; i < uLen; i++) {
        if (pc[i] == '\0') {
            return i;
        }
    }
    return uLen;
}

// Copies [pcSrc, pcSrc + uLen) into a new string, decoding the five entities if asked.
static XMLSTR CopyText(const unsigned char *pucLead, const char *pcSrc, size_t uLen, bool bDecode)
{
    XMLSTR pcDst = (XMLSTR)malloc(uLen + 1);
    if (pcDst == 0) {
        return 0;
    }
    if (!bDecode) {
        if (uLen > 0) {
            memcpy_s(pcDst, uLen + 1, pcSrc, uLen);
        }
        pcDst[uLen] = '\0';
        return pcDst;
    }
    size_t uOut = 0;
    size_t uRun = 0;   // start of the pending run of plain characters
    size_t i = 0;
    while (i < uLen) {
        if (pcSrc[i] == '&') {
            const tagST_ENTITY *pstHit = 0;
            for (const tagST_ENTITY &stEntity : g_astEntities) {
                if (uLen - i >= stEntity.uLen && strncmp(pcSrc + i, stEntity.pcName, stEntity.uLen) == 0) {
                    pstHit = &stEntity;
                    break;
                }
            }
            if (pstHit != 0) {
                if (i > uRun) {
                    memcpy_s(pcDst + uOut, uLen + 1 - uOut, pcSrc + uRun, i - uRun);
                    uOut += i - uRun;
                }
                pcDst[uOut++] = pstHit->cValue;
                i += pstHit->uLen;
                uRun = i;
                continue;
            }
        }
        size_t uStep = CharLen(pucLead, pcSrc + i);
        i += uStep == 0 ? 1 : uStep;
    }
    if (uLen > uRun) {
        memcpy_s(pcDst + uOut, uLen + 1 - uOut, pcSrc + uRun, uLen - uRun);
        uOut += uLen - uRun;
    }
    pcDst[uOut] = '\0';
    return pcDst;
}

static void SkipBlanks(tagST_PARSER *pstParser)
{
    while (IsBlank((unsigned char)pstParser->pcText[pstParser->uPos])) {
        pstParser->uPos++;
    }
}

// Characters that end an element or attribute name.
static bool EndsName(const char *pc)
{
    char c = *pc;
    return c == '\0' || IsBlank((unsigned char)c) || c == '/' || c == '>' || c == '<' || c == '=' ||
           (c == '?' && pc[1] == '>');
}

// Length of the name starting at the parser's position (multi-byte characters kept whole).
static size_t NameLen(const tagST_PARSER *pstParser, size_t uFrom)
{
    size_t uEnd = uFrom;
    while (!EndsName(pstParser->pcText + uEnd)) {
        uEnd += CharLen(pstParser->pucLead, pstParser->pcText + uEnd);
    }
    return uEnd - uFrom;
}

// Adds the text [uStart, uEnd) to the node, trimmed, with white-space-only texts dropped and a
// comment between two texts removed (the texts then join).
static bool FlushText(tagST_PARSER *pstParser, XMLNodeData *pstNode, size_t uStart, size_t uEnd)
{
    const char *pcText = pstParser->pcText;
    if (pstParser->uOptions & XML_OPT_DROP_WHITE_SPACE) {
        while (uStart < uEnd && IsBlank((unsigned char)pcText[uStart])) {
            uStart++;
        }
        while (uEnd > uStart && IsBlank((unsigned char)pcText[uEnd - 1])) {
            uEnd--;
        }
        if (uStart == uEnd) {
            return true;
        }
    } else if (uStart == uEnd) {
        return true;
    }
    XMLSTR pcNew = CopyText(pstParser->pucLead, pcText + uStart, uEnd - uStart, true);
    if (pcNew == 0) {
        return false;
    }
    int n = pstNode->nOrder;
    if ((pstParser->uOptions & XML_OPT_REMOVE_COMMENTS) && n >= 2 &&
        (pstNode->piOrder[n - 1] & ((1 << ORDER_SHIFT) - 1)) == ORDER_CLEAR &&
        (pstNode->piOrder[n - 2] & ((1 << ORDER_SHIFT) - 1)) == ORDER_TEXT &&
        pstNode->pstClear[pstNode->nClear - 1].pcOpenTag ==
            g_astClearMarks[CLEAR_MARK_COMMENT].pcOpen) {
        // The comment is the last clear section and the text before it the last text.
        free((void *)pstNode->pstClear[--pstNode->nClear].pcValue);
        pstNode->nOrder--;
        XMLSTR pcOld = pstNode->ppcText[pstNode->nText - 1];
        bool bGrown = pcOld == pstParser->pcJoined;
        size_t uOld = bGrown ? pstParser->uJoinedLen : strlen(pcOld);
        size_t uCap = bGrown ? pstParser->uJoinedCap : uOld + 1;
        size_t uAdd = strlen(pcNew);
        XMLSTR pcJoined = pcOld;
        if (uOld + uAdd + 1 > uCap) {
            uCap = uOld + uAdd + 1 > 2 * uCap ? uOld + uAdd + 1 : 2 * uCap;
            pcJoined = (XMLSTR)realloc(pcOld, uCap);
        }
        if (pcJoined == 0) {
            free(pcNew);
            return false;
        }
        memcpy_s(pcJoined + uOld, uCap - uOld, pcNew, uAdd + 1);
        pstNode->ppcText[pstNode->nText - 1] = pcJoined;
        pstParser->pcJoined = pcJoined;
        pstParser->uJoinedLen = uOld + uAdd;
        pstParser->uJoinedCap = uCap;
        free(pcNew);
        return true;
    }
    return AddText(pstNode, pcNew);
}

// At "<": a clear section, if one opens here. Returns true if one was handled (or failed).
static bool ParseClear(tagST_PARSER *pstParser, XMLNodeData *pstNode, bool *pbOk)
{
    const char *pcText = pstParser->pcText;
    for (const tagST_CLEAR_MARK &stMark : g_astClearMarks) {
        if (!StartsWithNoCase(pcText + pstParser->uPos, stMark.pcOpen)) {
            continue;
        }
        size_t uStart = pstParser->uPos + strlen(stMark.pcOpen);
        size_t uEnd = uStart;
        while (pcText[uEnd] != '\0' && !StartsWithNoCase(pcText + uEnd, stMark.pcClose)) {
            uEnd += CharLen(pstParser->pucLead, pcText + uEnd);
        }
        if (pcText[uEnd] == '\0') {
            SetError(pstParser, eXMLErrorUnmatchedEndClearTag, pstParser->uPos);
            *pbOk = false;
            return true;
        }
        XMLSTR pcValue = CopyText(pstParser->pucLead, pcText + uStart, uEnd - uStart, false);
        if (pcValue == 0 || !AddClear(pstNode, pcValue, stMark.pcOpen, stMark.pcClose)) {
            SetError(pstParser, eXMLErrorOutOfMemory, pstParser->uPos);
            *pbOk = false;
            return true;
        }
        pstParser->uPos = uEnd + strlen(stMark.pcClose);
        *pbOk = true;
        return true;
    }
    return false;
}

// At "</": closes the innermost open element of that name and everything opened inside it.
static bool ParseEndTag(tagST_PARSER *pstParser, XMLNodeData **ppstCur)
{
    size_t uTag = pstParser->uPos;
    size_t uName = uTag + 2;
    size_t uLen = NameLen(pstParser, uName);
    if (uLen == 0) {
        SetError(pstParser, eXMLErrorMissingEndTagName, uTag);
        return false;
    }
    pstParser->uPos = uName + uLen;
    SkipBlanks(pstParser);
    if (pstParser->pcText[pstParser->uPos] != '>') {
        SetError(pstParser, eXMLErrorUnexpectedToken, pstParser->uPos);
        return false;
    }
    pstParser->uPos++;
    for (XMLNodeData *pstOpen = *ppstCur; pstOpen != 0 && pstOpen->pcName != 0;
         pstOpen = pstOpen->pstParent) {
        if (strlen(pstOpen->pcName) == uLen) {
            bool bSame = true;
            for (size_t i = 0; i < uLen && bSame; i++) {
                bSame = LowerAscii((unsigned char)pstOpen->pcName[i]) ==
                        LowerAscii((unsigned char)pstParser->pcText[uName + i]);
            }
            if (bSame) {
                *ppstCur = pstOpen->pstParent;
                return true;
            }
        }
    }
    SetError(pstParser, eXMLErrorUnmatchedEndTag, uTag);
    return false;
}

// Reads the attributes of a start tag up to its end; *pbOpen tells whether the element stays
// open for content (">") or is already closed ("/>", "?>", or a declaration).
static bool ParseAttributes(tagST_PARSER *pstParser, XMLNodeData *pstNode, bool *pbOpen)
{
    const char *pcText = pstParser->pcText;
    for (;;) {
        SkipBlanks(pstParser);
        size_t uPos = pstParser->uPos;
        char c = pcText[uPos];
        if (c == '>') {
            pstParser->uPos++;
            *pbOpen = !pstNode->bIsDeclaration;
            return true;
        }
        if ((c == '/' || c == '?') && pcText[uPos + 1] == '>') {
            pstParser->uPos += 2;
            *pbOpen = false;
            return true;
        }
        size_t uNameLen = NameLen(pstParser, uPos);
        if (uNameLen == 0) {
            SetError(pstParser, eXMLErrorUnexpectedToken, uPos);
            return false;
        }
        pstParser->uPos = uPos + uNameLen;
        SkipBlanks(pstParser);
        const char *pcValue = 0;
        size_t uValueLen = 0;
        if (pcText[pstParser->uPos] == '=') {
            pstParser->uPos++;
            SkipBlanks(pstParser);
            size_t uValue = pstParser->uPos;
            char cQuote = pcText[uValue];
            if (cQuote == '"' || cQuote == '\'') {
                size_t uEnd = uValue + 1;
                while (pcText[uEnd] != '\0' && pcText[uEnd] != cQuote) {
                    uEnd += CharLen(pstParser->pucLead, pcText + uEnd);
                }
                if (pcText[uEnd] == '\0') {
                    SetError(pstParser, eXMLErrorUnexpectedToken, uValue);
                    return false;
                }
                pcValue = pcText + uValue + 1;
                uValueLen = uEnd - uValue - 1;
                pstParser->uPos = uEnd + 1;
            } else {
                uValueLen = NameLen(pstParser, uValue);   // unquoted value
                if (uValueLen == 0) {
                    SetError(pstParser, eXMLErrorUnexpectedToken, uValue);
                    return false;
                }
                pcValue = pcText + uValue;
                pstParser->uPos = uValue + uValueLen;
            }
        }
        XMLSTR pcNameCopy = CopyText(pstParser->pucLead, pcText + uPos, uNameLen, false);
        XMLSTR pcValueCopy = pcValue == 0 ? 0 : CopyText(pstParser->pucLead, pcValue, uValueLen, true);
        if (pcNameCopy == 0 || (pcValue != 0 && pcValueCopy == 0)) {
            free(pcNameCopy);
            free(pcValueCopy);
            SetError(pstParser, eXMLErrorOutOfMemory, uPos);
            return false;
        }
        if (!AddAttribute(pstNode, pcNameCopy, pcValueCopy)) {
            SetError(pstParser, eXMLErrorOutOfMemory, uPos);
            return false;
        }
    }
}

// At "<" followed by a name: a start tag, empty-element tag or declaration.
static bool ParseStartTag(tagST_PARSER *pstParser, XMLNodeData **ppstCur)
{
    size_t uTag = pstParser->uPos;
    size_t uName = uTag + 1;
    size_t uLen = NameLen(pstParser, uName);
    if (uLen == 0) {
        SetError(pstParser, eXMLErrorMissingTagName, uTag);
        return false;
    }
    XMLNodeData *pstNode = NewNodeData();
    XMLSTR pcName = CopyText(pstParser->pucLead, pstParser->pcText + uName, uLen, false);
    if (pstNode == 0 || pcName == 0) {
        free(pstNode);
        free(pcName);
        SetError(pstParser, eXMLErrorOutOfMemory, uTag);
        return false;
    }
    pstNode->pcName = pcName;
    pstNode->bIsDeclaration = pcName[0] == '?';
    if (!AddChild(*ppstCur, pstNode)) {
        FreeNodeContent(pstNode);
        SetError(pstParser, eXMLErrorOutOfMemory, uTag);
        return false;
    }
    pstParser->uPos = uName + uLen;
    bool bOpen = false;
    if (!ParseAttributes(pstParser, pstNode, &bOpen)) {
        return false;
    }
    if (bOpen) {
        *ppstCur = pstNode;
    }
    return true;
}

static void ErrorPosition(const char *pcText, size_t uPos, int *piLine, int *piColumn)
{
    int iLine = 1;
    size_t uLineStart = 0;
    for (size_t i = 0; i < uPos; i++) {
        if (pcText[i] == '\n') {
            iLine++;
            uLineStart = i + 1;
        }
    }
    *piLine = iLine;
    *piColumn = (int)((uPos - uLineStart) > (size_t)INT_MAX - 1 ? INT_MAX : uPos - uLineStart + 1);
}

// Parses the whole text into pstTop; the error code says how far it got.
static void ParseDocument(tagST_PARSER *pstParser, XMLNodeData *pstTop)
{
    const char *pcText = pstParser->pcText;
    XMLNodeData *pstCur = pstTop;
    for (;;) {
        size_t uStart = pstParser->uPos;
        size_t uPos = uStart;
        while (pcText[uPos] != '\0' && pcText[uPos] != '<') {
            uPos += CharLen(pstParser->pucLead, pcText + uPos);
        }
        if (!FlushText(pstParser, pstCur, uStart, uPos)) {
            SetError(pstParser, eXMLErrorOutOfMemory, uStart);
            return;
        }
        pstParser->uPos = uPos;
        if (pcText[uPos] == '\0') {
            break;
        }
        bool bOk = true;
        if (ParseClear(pstParser, pstCur, &bOk)) {
            if (!bOk) {
                return;
            }
        } else if (pcText[uPos + 1] == '/') {
            if (!ParseEndTag(pstParser, &pstCur)) {
                return;
            }
        } else if (!ParseStartTag(pstParser, &pstCur)) {
            return;
        }
    }
    if (pstCur != pstTop) {
        SetError(pstParser, eXMLErrorMissingEndTag, pstParser->uPos);
    } else if (pstTop->nChild == 0) {
        SetError(pstParser, pstTop->nText == 0 && pstTop->nClear == 0 ? eXMLErrorEmpty
                                                                      : eXMLErrorNoXMLTagFound,
                 0);
    }
}

XMLNode XMLNode::parseText(const tagST_XML_CONTEXT *pstContext, XMLCSTR pcText, XMLCSTR pcTag,
                           XMLResults *pResults)
{
    if (pResults != 0) {
        pResults->error = eXMLErrorNone;
        pResults->nLine = 0;
        pResults->nColumn = 0;
    }
    if (pcText == 0 || pcText[0] == '\0') {
        if (pResults != 0) {
            pResults->error = eXMLErrorEmpty;
        }
        return emptyXMLNode;
    }
    tagST_PARSER stParser = {};
    stParser.pcText = pcText;
    stParser.pucLead = LeadBytesOf(pstContext);
    stParser.uOptions = pstContext->uOptions;
    XMLNodeData *pstTop = NewNodeData();
    if (pstTop == 0) {
        stParser.eError = eXMLErrorOutOfMemory;
    } else {
        ParseDocument(&stParser, pstTop);
    }
    XMLNode xTop(pstTop);      // takes its own reference
    ReleaseNodeData(pstTop);   // drop the construction reference
    XMLNode xResult;
    if (stParser.eError < eXMLErrorEmpty) {
        if (pcTag != 0) {
            xResult = xTop.getChildNode(pcTag, 0);
            if (xResult.isEmpty()) {
                stParser.eError = eXMLErrorFirstTagNotFound;
            }
        } else if (pstTop->nChild == 1 && pstTop->nText == 0 && pstTop->nClear == 0) {
            // A document that is nothing but one element is that element.
            xResult = xTop.getChildNode(0);
        } else {
            xResult = xTop;
        }
    }
    if (pResults != 0) {
        pResults->error = stParser.eError;
        if (stParser.eError != eXMLErrorNone) {
            ErrorPosition(pcText, stParser.uErrorPos, &pResults->nLine, &pResults->nColumn);
        }
    }
    return xResult;
}

XMLNode XMLNode::parseString(XMLCSTR pcText, XMLCSTR pcTag, XMLResults *pResults)
{
    const tagST_XML_CONTEXT stContext = TakeContext();
    return parseText(&stContext, pcText, pcTag, pResults);
}

// Reads the file at pcPath whole into a new buffer with XML_FILE_PAD zero bytes after its
// *puSize bytes; 0 (and the reason in *peError) when there is nothing to parse.
// The path is opened once, without blocking, and only a regular file of at most
// XML_FILE_MAX_BYTES is read: a camera service must not hang on a FIFO (each open of one waits for
// a writer), read a device that never ends, or spend seconds and gigabytes of a 32-bit address
// space on a huge file.
static unsigned char *ReadWholeFile(const char *pcPath, size_t *puSize, XMLError *peError)
{
    *peError = eXMLErrorFileNotFound;
    const int iFd = open(pcPath, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    struct stat stInfo;
    if (iFd < 0 || fstat(iFd, &stInfo) != 0) {
        // Without large-file offsets a 32-bit build cannot even open a file past 2 GiB.
        if (errno == EOVERFLOW) {
            *peError = eXMLErrorFileTooLarge;
        }
        if (iFd >= 0) {
            close(iFd);
        }
        return 0;
    }
    unsigned char *pucBuf = 0;
    size_t uRead = 0;
    if (!S_ISREG(stInfo.st_mode)) {
        *peError = eXMLErrorFileNotRegular;
    } else if (stInfo.st_size > (off_t)XML_FILE_MAX_BYTES) {
        *peError = eXMLErrorFileTooLarge;
    } else if (stInfo.st_size > 0 &&
               (pucBuf = (unsigned char *)malloc((size_t)stInfo.st_size + XML_FILE_PAD)) != 0) {
        // A file that grows meanwhile is read up to the size it had.
        const size_t uSize = (size_t)stInfo.st_size;
        while (uRead < uSize) {
            const ssize_t iGot = read(iFd, pucBuf + uRead, uSize - uRead);
            if (iGot > 0) {
                uRead += (size_t)iGot;
            } else if (iGot == 0 || errno != EINTR) {
                break;
            }
        }
        if (uRead == 0) {
            free(pucBuf);
            pucBuf = 0;
        } else {
            memset_s(pucBuf + uRead, uSize + XML_FILE_PAD - uRead, 0, XML_FILE_PAD);
        }
    }
    close(iFd);
    *puSize = uRead;
    return pucBuf;
}

XMLNode XMLNode::parseFile(XMLCSTR pcPath, XMLCSTR pcTag, XMLResults *pResults)
{
    if (pResults != 0) {
        pResults->error = eXMLErrorFileNotFound;
        pResults->nLine = 0;
        pResults->nColumn = 0;
    }
    if (pcPath == 0) {
        return emptyXMLNode;
    }
    // A file shorter than the guess needs keeps the encoding in force when the parse began.
    tagST_XML_CONTEXT stContext = TakeContext();
    const bool bGuessWide = (stContext.uOptions & XML_OPT_GUESS_WIDE) != 0;
    size_t uSize = 0;
    XMLError eFileError = eXMLErrorFileNotFound;
    unsigned char *pucBuf = ReadWholeFile(pcPath, &uSize, &eFileError);
    if (pucBuf == 0) {
        if (pResults != 0) {
            pResults->error = eFileError;
        }
        return emptyXMLNode;
    }
    const XMLCharEncoding eGuess =
        GuessEncoding(pucBuf, uSize < XML_GUESS_HEAD ? (int)uSize : XML_GUESS_HEAD, 1, bGuessWide);
    if (eGuess != char_encoding_error) {
        // The guess becomes the encoding in force for later parses, and this parse's own.
        stContext.eEncoding = eGuess;
        __atomic_store_n(&characterEncoding, eGuess, __ATOMIC_RELAXED);
    }
    size_t uSkip = 0;
    if (bGuessWide && uSize >= 3 && pucBuf[0] == 0xEF && pucBuf[1] == 0xBB && pucBuf[2] == 0xBF) {
        uSkip = 3;
    }
    XMLNode xResult = parseText(&stContext, (XMLCSTR)pucBuf + uSkip, pcTag, pResults);
    free(pucBuf);
    return xResult;
}

XMLNode XMLNode::openFileHelper(XMLCSTR pcPath, XMLCSTR pcTag)
{
    return parseFile(pcPath, pcTag, 0);
}

XMLCSTR XMLNode::getError(XMLError eError)
{
    switch (eError) {
    case eXMLErrorNone:
        return "No error";
    case eXMLErrorMissingEndTag:
        return "Warning: Unmatched end tag";
    case eXMLErrorNoXMLTagFound:
        return "Warning: No XML tag found";
    case eXMLErrorEmpty:
        return "Error: No XML data";
    case eXMLErrorMissingTagName:
        return "Error: Missing start tag name";
    case eXMLErrorMissingEndTagName:
        return "Error: Missing end tag name";
    case eXMLErrorUnmatchedEndTag:
        return "Error: Unmatched end tag";
    case eXMLErrorUnmatchedEndClearTag:
        return "Error: Unmatched clear tag end";
    case eXMLErrorUnexpectedToken:
        return "Error: Unexpected token found";
    case eXMLErrorFileNotFound:
        return "Error: File not found";
    case eXMLErrorFirstTagNotFound:
        return "Error: First Tag not found";
    case eXMLErrorOutOfMemory:
        return "Error: Out of memory";
    case eXMLErrorFileNotRegular:
        return "Error: Not a regular file";
    case eXMLErrorFileTooLarge:
        return "Error: File too large";
    }
    return "Unknown";
}

/* ---------------------------------------------------------------------------------------------
 * Handles
 * ------------------------------------------------------------------------------------------- */

XMLNode::XMLNode() : d(0) {}

XMLNode::XMLNode(XMLNodeDataTag *pstData) : d(pstData)
{
    if (d != 0) {
        d->iRefCount++;
    }
}

XMLNode::XMLNode(XMLNode const &other) : d(other.d)
{
    if (d != 0) {
        d->iRefCount++;
    }
}

XMLNode &XMLNode::operator=(XMLNode const &other)
{
    if (other.d != 0) {
        other.d->iRefCount++;   // first, so that self-assignment keeps the data alive
    }
    ReleaseNodeData(d);
    d = other.d;
    return *this;
}

XMLNode::~XMLNode()
{
    ReleaseNodeData(d);
}

XMLCSTR XMLNode::getName() const
{
    return d == 0 ? 0 : d->pcName;
}

XMLNode XMLNode::getParentNode() const
{
    return XMLNode(d == 0 ? 0 : d->pstParent);
}

char XMLNode::isDeclaration() const
{
    return d != 0 && d->bIsDeclaration;
}

char XMLNode::isEmpty() const
{
    return d == 0;
}

int XMLNode::nChildNode() const
{
    return d == 0 ? 0 : d->nChild;
}

int XMLNode::nText() const
{
    return d == 0 ? 0 : d->nText;
}

int XMLNode::nClear() const
{
    return d == 0 ? 0 : d->nClear;
}

int XMLNode::nAttribute() const
{
    return d == 0 ? 0 : d->nAttribute;
}

XMLNode XMLNode::getChildNode(int i) const
{
    if (d == 0 || i < 0 || i >= d->nChild) {
        return emptyXMLNode;
    }
    return XMLNode(d->ppstChild[i]);
}

XMLNode XMLNode::getChildNode(XMLCSTR pcName, int i) const
{
    if (d == 0 || pcName == 0 || i < 0) {
        return emptyXMLNode;
    }
    for (int j = 0; j < d->nChild; j++) {
        if (EqualNoCase(d->ppstChild[j]->pcName, pcName) && i-- == 0) {
            return XMLNode(d->ppstChild[j]);
        }
    }
    return emptyXMLNode;
}

XMLCSTR XMLNode::getText(int i) const
{
    if (d == 0 || i < 0 || i >= d->nText) {
        return 0;
    }
    return d->ppcText[i];
}

XMLClear XMLNode::getClear(int i) const
{
    if (d == 0 || i < 0 || i >= d->nClear) {
        XMLClear stNone = {0, 0, 0};
        return stNone;
    }
    return d->pstClear[i];
}

XMLAttribute XMLNode::getAttribute(int i) const
{
    if (d == 0 || i < 0 || i >= d->nAttribute) {
        XMLAttribute stNone = {0, 0};
        return stNone;
    }
    return d->pstAttribute[i];
}

XMLCSTR XMLNode::getAttribute(XMLCSTR pcName, int i) const
{
    if (d == 0 || pcName == 0 || i < 0) {
        return 0;
    }
    for (int j = 0; j < d->nAttribute; j++) {
        if (EqualNoCase(d->pstAttribute[j].pcName, pcName) && i-- == 0) {
            return d->pstAttribute[j].pcValue;
        }
    }
    return 0;
}

/* ---------------------------------------------------------------------------------------------
 * Text-to-value helpers
 * ------------------------------------------------------------------------------------------- */

int xmltoi(XMLCSTR pcText, int iDefault)
{
    return pcText == 0 ? iDefault : (int)strtol(pcText, 0, 10);
}

long xmltol(XMLCSTR pcText, long lDefault)
{
    return pcText == 0 ? lDefault : strtol(pcText, 0, 10);
}

double xmltof(XMLCSTR pcText, double dDefault)
{
    return pcText == 0 ? dDefault : strtod(pcText, 0);
}

char xmltob(XMLCSTR pcText, char bDefault)
{
    if (pcText == 0) {
        return bDefault;
    }
    char c = pcText[0];
    return c == '1' || c == 't' || c == 'T' || c == 'y' || c == 'Y';
}

XMLCSTR xmltoa(XMLCSTR pcText, XMLCSTR pcDefault)
{
    return pcText == 0 ? pcDefault : pcText;
}

XMLCHAR xmltoc(XMLCSTR pcText, XMLCHAR cDefault)
{
    return pcText == 0 ? cDefault : pcText[0];
}
