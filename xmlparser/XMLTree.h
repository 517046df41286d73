// Element tree of the cluster manager's XML dialect (named elements with
// text, no attributes), for parsed replies and request bodies. Text travels
// percent-encoded and is decoded on first read. Children with equal names
// keep insertion order; distinct names are in byte-wise order.
#ifndef HIVE_XMLPARSER_XMLTREE_H_
#define HIVE_XMLPARSER_XMLTREE_H_

#include <map>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

class XMLTree {
 public:
  XMLTree() = default;
  XMLTree(const XMLTree&) = delete;
  XMLTree& operator=(const XMLTree&) = delete;

  // Stores |value| as raw (still encoded) text. With |isCDATA| the node also
  // becomes a CDATA node whose read-back form is "<![CDATA[" value "]]>".
  void setValue(const std::string& value, bool isCDATA = false);
  // Empties the node's text.
  void clearValue() { mNodeValue.clear(); }
  // Removes every child and the node's text; the node is no longer CDATA.
  void clear();
  // Appends one raw byte to the node's text.
  void appendCharacter(char c);
  bool isCDATA() const { return mIsCDATA; }

  // Replaces the text by its percent-decoded form.
  void unEscape() const;
  // The CDATA form for a CDATA node; otherwise the decoded text.
  const std::string& getValue() const;
  // The text in request-body form: XML entity escaping, itself percent-encoded.
  const std::string& getEscapedValue() const;

  // getValue() of the first child called |name|, or the empty string.
  const std::string& getSingleSubTreeValue(const std::string& name) const;
  const std::string& operator[](const std::string& name) const {
    return getSingleSubTreeValue(name);
  }
  // The |index|-th (from 0) child called |name|, or null when there are fewer.
  XMLTree* getSubTree(const std::string& name, int index = 0);
  const XMLTree* getSubTree(const std::string& name, int index = 0) const;
  // Every child called |name|, in insertion (document) order.
  std::vector<XMLTree*> getSubTrees(const std::string& name);

  // Create a child holding |value| (raw, not CDATA); the tree owns it.
  XMLTree* addSubTree(const std::string& name, const std::string& value);
  XMLTree* addSubTree(const std::string& name, unsigned long number);
  XMLTree* addCDATA(const std::string& name, const std::string& value);

  // Writes the children (not the node's own text) as "<name>" value
  // children "</name>", in map order, without white space.
  void write(std::ostream& out) const;

 private:
  using Children = std::multimap<std::string, std::unique_ptr<XMLTree>>;

  Children mChildren;
  // The text is decoded on first read, hence mutable.
  mutable std::string mNodeValue;
  mutable std::string mEscapedNodeValue;
  mutable bool mDirty = false;
  std::string mCDATA;
  bool mIsCDATA = false;
};

std::ostream& operator<<(std::ostream& out, const XMLTree* tree);

#endif  // HIVE_XMLPARSER_XMLTREE_H_
