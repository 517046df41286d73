#include "xmlparser/XMLTree.h"

#include <cstdio>
#include <iterator>

#include "util/URL.h"

namespace {

const std::string kEmptyString;

bool isAsciiAlnum(unsigned char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

// Whether the '&' at |pos| starts a predefined entity (not escaped again).
bool startsEntityReference(const std::string& text, size_t pos) {
  static const char* const kNames[] = {"lt;", "gt;", "amp;", "quot;", "apos;"};
  for (const char* name : kNames) {
    if (text.compare(pos + 1, std::char_traits<char>::length(name), name) == 0) return true;
  }
  return false;
}

// A blank before these is non-breaking, so a line break cannot part them.
bool bindsToPrecedingBlank(char c) {
  return c == ',' || c == '.' || c == '/' || c == ':' || c == ';';
}

void appendPercent(unsigned char c, std::string& out) {
  char buf[4];
  std::snprintf(buf, sizeof buf, "%%%02X", c);
  out += buf;
}

void appendEscaped(const std::string& text, std::string& out) {
  const size_t n = text.size();
  for (size_t i = 0; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    if (isAsciiAlnum(c)) {
      out.push_back(static_cast<char>(c));
      continue;
    }
    switch (c) {
      case '\n': out += "%26lt%3Bbr%26gt%3B"; break;
      case '"': out += "%26quot%3B"; break;
      case '\'': out += "%26apos%3B"; break;
      case '<': out += "%26lt%3B"; break;
      case '>': out += "%26gt%3B"; break;
      case '&': out += startsEntityReference(text, i) ? "%26" : "%26amp%3B"; break;
      case ' ':
        if (i + 1 < n && bindsToPrecedingBlank(text[i + 1])) {
          out += "%26#160%3B";
        } else {
          appendPercent(c, out);
        }
        break;
      default: appendPercent(c, out); break;
    }
  }
}

}  // namespace

void XMLTree::setValue(const std::string& value, bool isCDATA) {
  mNodeValue = value;
  mDirty = true;
  if (isCDATA) {
    mIsCDATA = true;
    mCDATA = "<![CDATA[" + value + "]]>";
  }
}

void XMLTree::clear() {
  mChildren.clear();
  mNodeValue.clear();
  mDirty = false;
  mCDATA.clear();
  mIsCDATA = false;
}

void XMLTree::appendCharacter(char c) {
  mNodeValue.push_back(c);
  mDirty = true;
}

void XMLTree::unEscape() const {
  std::string decoded;
  URL::decode(mNodeValue, decoded);
  mNodeValue.swap(decoded);
  mDirty = false;
}

const std::string& XMLTree::getValue() const {
  if (mIsCDATA) return mCDATA;
  if (mDirty) unEscape();
  return mNodeValue;
}

const std::string& XMLTree::getEscapedValue() const {
  if (mDirty) unEscape();
  mEscapedNodeValue.clear();
  appendEscaped(mNodeValue, mEscapedNodeValue);
  return mEscapedNodeValue;
}

const std::string& XMLTree::getSingleSubTreeValue(const std::string& name) const {
  const XMLTree* child = getSubTree(name, 0);
  return child ? child->getValue() : kEmptyString;
}

const XMLTree* XMLTree::getSubTree(const std::string& name, int index) const {
  if (index < 0 || static_cast<size_t>(index) >= mChildren.count(name)) return nullptr;
  return std::next(mChildren.lower_bound(name), index)->second.get();
}

XMLTree* XMLTree::getSubTree(const std::string& name, int index) {
  return const_cast<XMLTree*>(static_cast<const XMLTree*>(this)->getSubTree(name, index));
}

std::vector<XMLTree*> XMLTree::getSubTrees(const std::string& name) {
  std::vector<XMLTree*> found;
  auto range = mChildren.equal_range(name);
  for (auto it = range.first; it != range.second; ++it) found.push_back(it->second.get());
  return found;
}

XMLTree* XMLTree::addSubTree(const std::string& name, const std::string& value) {
  // multimap::emplace keeps equal names in insertion order.
  XMLTree* child = mChildren.emplace(name, std::make_unique<XMLTree>())->second.get();
  child->setValue(value);
  return child;
}

XMLTree* XMLTree::addSubTree(const std::string& name, unsigned long number) {
  return addSubTree(name, std::to_string(number));
}

XMLTree* XMLTree::addCDATA(const std::string& name, const std::string& value) {
  XMLTree* child = addSubTree(name, value);
  child->setValue(value, true);
  return child;
}

void XMLTree::write(std::ostream& out) const {
  for (const auto& [name, child] : mChildren) {
    out << '<' << name << '>';
    out << (child->mIsCDATA ? child->mCDATA : child->getEscapedValue());
    child->write(out);
    out << "</" << name << '>';
  }
}

std::ostream& operator<<(std::ostream& out, const XMLTree* tree) {
  if (tree) tree->write(out);
  return out;
}
