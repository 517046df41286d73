// Parser for the cluster manager's XML dialect: elements, text, the five
// predefined entities, CDATA sections (their bytes join the element's text)
// and a skipped declaration; no attributes, comments or document types. A
// document is one root element with only white space around it; anything
// else is reported by an exception.
#ifndef HIVE_XMLPARSER_XMLPARSER_H_
#define HIVE_XMLPARSER_XMLPARSER_H_

#include <stdexcept>
#include <string>

#include "xmlparser/XMLTree.h"

class XMLParser {
 public:
  // Thrown for malformed input; what() is the reason.
  class XMLParserException : public std::logic_error {
   public:
    using std::logic_error::logic_error;
  };

  // Deepest nesting accepted (the root is 1): XMLTree recurses over its
  // children, so a hostile reply must not exhaust the stack.
  static constexpr size_t kMaxDepth = 256;

  // Stateless: one instance serves every thread.
  static const XMLParser& getInstance();

  XMLParser(const XMLParser&) = delete;
  XMLParser& operator=(const XMLParser&) = delete;

  // Clears |tree| and adds the root element of |text| as its child; text
  // inside an element, white space included, belongs to it. Throws
  // XMLParserException on malformed input (also control characters, tag names
  // that are not XML names, nesting beyond kMaxDepth); |tree| then holds what
  // was built so far.
  void parse(const std::string& text, XMLTree& tree) const;

  // Blank, tab, line feed and carriage return.
  static bool isWhitespace(char c);

 private:
  XMLParser() = default;
};

#endif  // HIVE_XMLPARSER_XMLPARSER_H_
