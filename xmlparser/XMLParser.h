// Parser for the cluster manager's XML dialect: elements, text, the five
// predefined entities, CDATA sections and a skipped XML declaration.
// Attributes, comments and document types are deliberately not accepted.
// A CDATA section's bytes join the surrounding text of its element as they
// are; the text is then read back like any other (percent-decoded).
//
// A document is an optional declaration, then exactly one root element, with
// nothing but white space around them. Anything else is malformed and is
// reported by an exception; the parser never trusts the input's shape.
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

  // Deepest element nesting accepted, the root counting as 1. XMLTree frees
  // and writes its children recursively, so the limit keeps a hostile reply
  // from exhausting the stack; real replies nest a handful of levels.
  static constexpr size_t kMaxDepth = 256;

  // The parser holds no state, so one instance serves every thread.
  static const XMLParser& getInstance();

  XMLParser(const XMLParser&) = delete;
  XMLParser& operator=(const XMLParser&) = delete;

  // Clears |tree| (children and text) and adds the root element of |text| as
  // its child. Text inside an element, white space included, belongs to that
  // element; white space outside the root is dropped. Throws
  // XMLParserException on malformed input (see above; also control
  // characters other than white space, tag names that are not XML names, and
  // nesting beyond kMaxDepth); |tree| then holds what was built so far.
  void parse(const std::string& text, XMLTree& tree) const;

  // Blank, tab, line feed and carriage return.
  static bool isWhitespace(char c);

 private:
  XMLParser() = default;
};

#endif  // HIVE_XMLPARSER_XMLPARSER_H_
