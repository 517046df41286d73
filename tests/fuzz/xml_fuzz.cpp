// XMLParser over arbitrary text. A document that parses is written back out
// (XMLTree::write) and must parse again. Writing re-escapes the values, so
// they are not meant to survive byte for byte, but the markup is: the second
// tree writes exactly the same tags in the same order as the first, and
// between tags a written document holds only escaped text.
#include <cctype>
#include <sstream>
#include <string>

#include "tests/fuzz/FuzzCheck.h"
#include "xmlparser/XMLParser.h"

namespace {

// Parses text and writes the tree to out; false when it does not parse.
bool rewrite(const std::string& text, std::string& out) {
  XMLTree tree;
  try {
    XMLParser::getInstance().parse(text, tree);
  } catch (const XMLParser::XMLParserException&) {
    return false;
  }
  std::ostringstream written;
  tree.write(written);
  out = written.str();
  return true;
}

// The tags of a written document. The text between them is escaped: letters,
// digits, %XX and the "%26#160%3B" of a non-breaking space.
std::string tagsOf(const std::string& doc) {
  std::string tags;
  bool inTag = false;
  for (char c : doc) {
    inTag = inTag || c == '<';
    if (inTag) {
      tags.push_back(c);
    } else {
      FUZZ_CHECK(std::isalnum(static_cast<unsigned char>(c)) || c == '%' || c == '#');
    }
    inTag = inTag && c != '>';
  }
  return tags;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  std::string once, twice;
  if (size > 64 * 1024 || !rewrite(std::string(reinterpret_cast<const char*>(data), size), once)) return 0;
  FUZZ_CHECK(!once.empty());  // a parsed document has its root element
  FUZZ_CHECK(rewrite(once, twice));
  FUZZ_CHECK(tagsOf(once) == tagsOf(twice));
  return 0;
}
