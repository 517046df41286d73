#include "xmlparser/XMLParser.h"

#include <vector>

namespace {

[[noreturn]] void parserError(const std::string& message) {
  throw XMLParser::XMLParserException(message);
}

// One pass over the text with a stack of open elements; the bottom entry is
// the target tree under the name "root".
class Parse {
 public:
  Parse(const std::string& text, XMLTree& root) : mText(text) {
    mTrees.push_back(&root);
    mNames.push_back("root");
  }

  void run() {
    skipLeadingWhitespace();
    while (mPos < mText.size()) {
      const char c = mText[mPos];
      if (c == '<') {
        ++mPos;
        markup();
      } else if (c == '&') {
        entity();
      } else {
        mTrees.back()->appendCharacter(c);
        ++mPos;
      }
    }
    if (mNames.size() > 1) parserError("Terminated with tags still hanging");
  }

 private:
  void skipLeadingWhitespace() {
    while (mPos < mText.size() && XMLParser::isWhitespace(mText[mPos])) ++mPos;
    if (mPos < mText.size() && mText[mPos] != '<') {
      parserError("Looking for a < and found a non-whitespace character");
    }
  }

  // Called just after a '<'.
  void markup() {
    if (mPos >= mText.size()) return;
    const char c = mText[mPos];
    if (c == '?') {
      skipPast('>');
    } else if (c == '/') {
      ++mPos;
      std::string name;
      if (readTagName(name)) closeElement(name);
    } else if (mText.compare(mPos, 8, "![CDATA[") == 0) {
      mPos += 8;
      cdata();
    } else {
      std::string name;
      if (readTagName(name)) openElement(name);
    }
  }

  void skipPast(char c) {
    const size_t at = mText.find(c, mPos);
    mPos = at == std::string::npos ? mText.size() : at + 1;
  }

  // Reads up to and past the closing '>'. False when the text ends first.
  bool readTagName(std::string& name) {
    for (; mPos < mText.size(); ++mPos) {
      const char c = mText[mPos];
      if (c == '>') {
        ++mPos;
        return true;
      }
      if (XMLParser::isWhitespace(c)) {
        parserError("Encountered whitespace while trying to parse a tag name");
      }
      name.push_back(c);
    }
    return false;
  }

  void openElement(std::string name) {
    const bool empty = !name.empty() && name.back() == '/';
    if (empty) name.pop_back();
    XMLTree* child = mTrees.back()->addSubTree(name, std::string());
    if (!empty) {
      mTrees.push_back(child);
      mNames.push_back(name);
    }
  }

  void closeElement(const std::string& name) {
    // The bottom "root" entry is never closed by the document.
    if (mNames.size() == 1 || name != mNames.back()) parserError("Mismatch tags");
    mTrees.pop_back();
    mNames.pop_back();
  }

  void cdata() {
    const size_t end = mText.find("]]>", mPos);
    const size_t stop = end == std::string::npos ? mText.size() : end;
    mTrees.back()->appendCDATA(mText.substr(mPos, stop - mPos));
    mPos = end == std::string::npos ? mText.size() : end + 3;
  }

  // Called at a '&'. A reference runs to the next ';'; an '&' with no ';'
  // before the next markup is an ordinary character.
  void entity() {
    const size_t semi = mText.find(';', mPos + 1);
    const size_t lt = mText.find('<', mPos + 1);
    if (semi == std::string::npos || (lt != std::string::npos && lt < semi)) {
      mTrees.back()->appendCharacter('&');
      ++mPos;
      return;
    }
    const std::string name = mText.substr(mPos + 1, semi - mPos - 1);
    const char replacement = predefined(name);
    if (replacement != '\0') {
      mTrees.back()->appendCharacter(replacement);
    } else {
      for (size_t i = mPos; i <= semi; ++i) mTrees.back()->appendCharacter(mText[i]);
    }
    mPos = semi + 1;
  }

  static char predefined(const std::string& name) {
    if (name == "lt") return '<';
    if (name == "amp") return '&';
    if (name == "gt") return '>';
    if (name == "apos") return '\'';
    if (name == "quot") return '"';
    return '\0';
  }

  const std::string& mText;
  size_t mPos = 0;
  std::vector<XMLTree*> mTrees;
  std::vector<std::string> mNames;
};

}  // namespace

const XMLParser& XMLParser::getInstance() {
  static const XMLParser instance;
  return instance;
}

bool XMLParser::isWhitespace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r';
}

void XMLParser::parse(const std::string& text, XMLTree& tree) const {
  tree.clear();
  Parse(text, tree).run();
}
