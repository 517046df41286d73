// Parser for the cluster manager's XML dialect: elements, text, the five
// predefined entities, CDATA sections and a skipped XML declaration.
// Attributes, comments and document types are deliberately not accepted.
#ifndef HIVE_XMLPARSER_XMLPARSER_H
#define HIVE_XMLPARSER_XMLPARSER_H

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

  // The parser holds no state, so one instance serves every thread.
  static const XMLParser& getInstance();

  XMLParser(const XMLParser&) = delete;
  XMLParser& operator=(const XMLParser&) = delete;

  // Clears |tree| (children and text) and fills it with the elements of
  // |text|. Text between elements, white space included, belongs to the
  // enclosing element. Throws XMLParserException on malformed input; |tree|
  // then holds what was built so far.
  void parse(const std::string& text, XMLTree& tree) const;

  // Blank, tab, line feed and carriage return.
  static bool isWhitespace(char c);

 private:
  XMLParser() = default;
};

#endif  // HIVE_XMLPARSER_XMLPARSER_H
