// XMLParser over arbitrary text. A document that parses is written back out
// (XMLTree::write) and must parse again. Writing re-escapes the values, so
// they are not meant to survive byte for byte, but the markup is: the second
// tree writes exactly the same tags in the same order as the first, and
// between tags a written document holds only escaped text.
#include <sstream>
#include <string>

#include "tests/fuzz/FuzzCheck.h"
#include "xmlparser/XMLParser.h"

namespace {

bool parses(const std::string& text, XMLTree& tree) {
  try {
    XMLParser::getInstance().parse(text, tree);
    return true;
  } catch (const XMLParser::XMLParserException&) {
    return false;
  }
}

std::string written(const XMLTree& tree) {
  std::ostringstream out;
  tree.write(out);
  return out.str();
}

// Splits a written document into its tags and checks the text between them.
std::string tagsOf(const std::string& doc) {
  std::string tags;
  bool inTag = false;
  for (char c : doc) {
    if (c == '<') inTag = true;
    if (inTag) {
      tags.push_back(c);
    } else {
      // Escaped text: letters, digits, %XX and the "%26#160%3B" of a
      // non-breaking space.
      const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') ||
                         (c >= 'A' && c <= 'Z') || c == '%' || c == '#';
      FUZZ_CHECK(plain);
    }
    if (c == '>') inTag = false;
  }
  return tags;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 64 * 1024) return 0;
  const std::string text(reinterpret_cast<const char*>(data), size);
  XMLTree first;
  if (!parses(text, first)) return 0;
  const std::string once = written(first);
  FUZZ_CHECK(!once.empty());  // a parsed document has its root element
  XMLTree second;
  FUZZ_CHECK(parses(once, second));
  const std::string twice = written(second);
  FUZZ_CHECK(tagsOf(once) == tagsOf(twice));
  return 0;
}
