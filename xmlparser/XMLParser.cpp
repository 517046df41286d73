#include "xmlparser/XMLParser.h"

#include <algorithm>
#include <vector>

namespace {

[[noreturn]] void parserError(const std::string& message) {
  throw XMLParser::XMLParserException(message);
}

// XML forbids every control character but white space, NUL included.
bool isForbiddenControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 && !XMLParser::isWhitespace(c);
}

bool isNameStart(char c) {
  const unsigned char u = static_cast<unsigned char>(c);
  return (u >= 'a' && u <= 'z') || (u >= 'A' && u <= 'Z') || u == '_' || u == ':' || u >= 0x80;
}

bool isNameCharacter(char c) {
  return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.';
}

// Rejects "<!--", "<!DOCTYPE", "<>" and what a garbled tag leaves behind.
bool isName(const std::string& name) {
  if (name.empty() || !isNameStart(name[0])) return false;
  return std::all_of(name.begin(), name.end(), isNameCharacter);
}

// One pass with a stack of open elements over the target tree (the document).
class Parse {
 public:
  Parse(const std::string& text, XMLTree& document) : mText(text) {
    mOpen.push_back({&document, std::string()});
  }

  void run() {
    if (std::any_of(mText.begin(), mText.end(), isForbiddenControl)) {
      parserError("Encountered a control character");
    }
    while (mPos < mText.size()) {
      const char c = mText[mPos];
      if (c == '<') {
        ++mPos;
        markup();
      } else if (outsideRoot()) {
        if (!XMLParser::isWhitespace(c)) {
          parserError(mRootSeen ? "Found text after the root element"
                                : "Looking for a < and found a non-whitespace character");
        }
        ++mPos;
      } else if (c == '&') {
        entity();
      } else {
        mOpen.back().tree->appendCharacter(c);
        ++mPos;
      }
    }
    if (!outsideRoot()) parserError("Terminated with tags still hanging");
    if (!mRootSeen) parserError("No root element");
  }

 private:
  struct Open {
    XMLTree* tree;
    std::string name;
  };

  bool outsideRoot() const { return mOpen.size() == 1; }

  // Called just after a '<'.
  void markup() {
    if (mText.compare(mPos, 1, "?") == 0) {
      declaration();
    } else if (mText.compare(mPos, 8, "![CDATA[") == 0) {
      mPos += 8;
      cdata();
    } else if (mText.compare(mPos, 1, "/") == 0) {
      ++mPos;
      closeElement(readTagName());
    } else {
      openElement(readTagName());
    }
  }

  // Only the prolog may hold one; it is skipped whole.
  void declaration() {
    if (mRootSeen) parserError("Found a declaration after the root element started");
    const size_t end = mText.find("?>", mPos);
    if (end == std::string::npos) parserError("Terminated inside a declaration");
    mPos = end + 2;
  }

  // Reads up to and past the closing '>'.
  std::string readTagName() {
    std::string name;
    for (; mPos < mText.size(); ++mPos) {
      const char c = mText[mPos];
      if (c == '>') {
        ++mPos;
        return name;
      }
      if (XMLParser::isWhitespace(c)) {
        parserError("Encountered whitespace while trying to parse a tag name");
      }
      name.push_back(c);
    }
    parserError("Terminated inside a tag");
  }

  void openElement(std::string name) {
    const bool empty = !name.empty() && name.back() == '/';
    if (empty) name.pop_back();
    if (!isName(name)) parserError("Invalid tag name");
    if (outsideRoot()) {
      if (mRootSeen) parserError("Found a second root element");
      mRootSeen = true;
    }
    // mOpen holds the document too, so its size is the new element's depth.
    if (mOpen.size() > XMLParser::kMaxDepth) parserError("Tags nested too deeply");
    XMLTree* child = mOpen.back().tree->addSubTree(name, std::string());
    if (!empty) mOpen.push_back({child, std::move(name)});
  }

  void closeElement(const std::string& name) {
    if (outsideRoot() || name != mOpen.back().name) parserError("Mismatch tags");
    mOpen.pop_back();
  }

  void cdata() {
    if (outsideRoot()) parserError("Found a CDATA section outside the root element");
    const size_t end = mText.find("]]>", mPos);
    if (end == std::string::npos) parserError("Terminated inside a CDATA section");
    // The bytes join the text as they are, decoded later like the rest.
    XMLTree* tree = mOpen.back().tree;
    for (size_t i = mPos; i < end; ++i) tree->appendCharacter(mText[i]);
    mPos = end + 3;
  }

  // At a '&': a reference runs to the next ';', unless markup comes first.
  void entity() {
    const size_t semi = nextAfter(';', mNextSemi);
    const size_t lt = nextAfter('<', mNextLt);
    XMLTree* tree = mOpen.back().tree;
    if (semi == std::string::npos || (lt != std::string::npos && lt < semi)) {
      tree->appendCharacter('&');
      ++mPos;
      return;
    }
    const std::string name = mText.substr(mPos + 1, semi - mPos - 1);
    const char replacement = predefined(name);
    if (replacement != '\0') {
      tree->appendCharacter(replacement);
    } else {
      for (size_t i = mPos; i <= semi; ++i) tree->appendCharacter(mText[i]);
    }
    mPos = semi + 1;
  }

  // The first |c| after mPos; |cache| saves rescanning for every '&'.
  size_t nextAfter(char c, size_t& cache) const {
    if (cache != std::string::npos && cache <= mPos) cache = mText.find(c, mPos + 1);
    return cache;
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
  std::vector<Open> mOpen;
  bool mRootSeen = false;
  size_t mNextSemi = 0;
  size_t mNextLt = 0;
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
