// Feeds arbitrary bytes to the XML reader: it must never crash, overrun, leak or recurse, and
// the tree it returns must answer its own queries consistently.
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <vector>

#include "config/xml_parser.h"

static void Check(bool bOk)
{
    if (!bOk) {
        __builtin_trap();
    }
}

// Visits every node with an explicit stack (a deep tree must not recurse here either).
static void WalkTree(XMLNode const &root)
{
    std::vector<XMLNode> stack(1, root);
    while (!stack.empty()) {
        XMLNode node = stack.back();
        stack.pop_back();
        for (int i = 0; i < node.nText(); i++) {
            Check(node.getText(i) != nullptr);
        }
        for (int i = 0; i < node.nClear(); i++) {
            XMLClear stClear = node.getClear(i);
            Check(stClear.pcValue != nullptr && stClear.pcOpenTag != nullptr &&
                  stClear.pcCloseTag != nullptr);
        }
        for (int i = 0; i < node.nAttribute(); i++) {
            Check(node.getAttribute(i).pcName != nullptr);
        }
        Check(node.getText(node.nText()) == nullptr);
        for (int i = 0; i < node.nChildNode(); i++) {
            XMLNode child = node.getChildNode(i);
            Check(child.getName() != nullptr);
            Check(!node.getChildNode(child.getName(), 0).isEmpty());   // any case finds it
            stack.push_back(child);
        }
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<char> text(size + 1, '\0');
    if (size > 0) {
        memcpy(text.data(), data, size);
    }
    // The first byte picks the encoding, so every lead-byte table is exercised.
    XMLCharEncoding eEncoding =
        size > 0 ? (XMLCharEncoding)(1 + data[0] % 6) : char_encoding_UTF8;
    XMLNode::setGlobalOptions(eEncoding);
    XMLNode::guessCharEncoding(text.data(), (int)(size > 4096 ? 4096 : size), 1);

    XMLResults res;
    XMLNode top = XMLNode::parseString(text.data(), nullptr, &res);
    Check(top.isEmpty() == (res.error >= eXMLErrorEmpty));
    WalkTree(top);
    XMLNode tagged = XMLNode::parseString(text.data(), "Config", &res);
    WalkTree(tagged);
    return 0;
}
