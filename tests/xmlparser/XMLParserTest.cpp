#include <gtest/gtest.h>

#include <sstream>

#include "support/Thrown.h"
#include "xmlparser/XMLParser.h"

namespace {

std::string parseError(const std::string& text) {
  XMLTree tree;
  return thrownMessage<XMLParser::XMLParserException>([&] { XMLParser::getInstance().parse(text, tree); });
}

}  // namespace

TEST(XMLParser, ReadsElementsEntitiesAndCDATA) {
  XMLTree tree;
  tree.addSubTree("stale", "left from before");
  XMLParser::getInstance().parse(
      "<?xml version=\"1.0\"?>\n<a>\n<b>x</b><c/><b>y</b><d>1 &amp; 2 &foo; &lt;&quot;&apos;&gt; & </d>"
      "<e>x%20y+z%4%g1</e><f><![CDATA[<raw>&amp;%20]]></f>\n</a>",
      tree);
  EXPECT_EQ(tree.getSubTree("stale"), nullptr);
  XMLTree* a = tree.getSubTree("a");
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->getSubTree("b", 0)->getValue(), "x");
  EXPECT_EQ(a->getSubTree("b", 1)->getValue(), "y");
  EXPECT_EQ(a->getSubTree("b", 2), nullptr);
  ASSERT_NE(a->getSubTree("c"), nullptr);
  EXPECT_EQ((*a)["c"], "");
  EXPECT_EQ((*a)["d"], "1 & 2 &foo; <\"'> & ");
  EXPECT_EQ((*a)["e"], "x y+z%4%g1");
  EXPECT_TRUE(a->getSubTree("f")->isCDATA());
  EXPECT_EQ((*a)["f"], "<![CDATA[<raw>&amp;%20]]>");
  EXPECT_EQ((*a)["missing"], "");
  EXPECT_EQ(a->getValue(), "\n\n");  // text between children belongs to the parent
}

TEST(XMLParser, MalformedInputGivesItsReason) {
  EXPECT_EQ(parseError("junk<a/>"), "Looking for a < and found a non-whitespace character");
  EXPECT_EQ(parseError("<a id=\"1\"></a>"), "Encountered whitespace while trying to parse a tag name");
  EXPECT_EQ(parseError("<a><b></a></b>"), "Mismatch tags");
  EXPECT_EQ(parseError("<a></a></a>"), "Mismatch tags");
  EXPECT_EQ(parseError("<a><b></b>"), "Terminated with tags still hanging");
  EXPECT_EQ(parseError(" \t\r\n<a></a><b"), "(no exception)");  // ends inside a top-level tag name
}

TEST(XMLTree, WritesChildrenInNameOrderWithEscapedValues) {
  XMLTree body;
  body.addSubTree("z", 42ul);
  body.addSubTree("a", "a b\n\"'<>&lt;&x ,\xC3\xA9");
  XMLTree* second = body.addSubTree("a", "x%2Fy");
  second->addCDATA("inner", "<kept & raw>");
  std::ostringstream out;
  out << &body;
  EXPECT_EQ(out.str(),
            "<a>a%20b%26lt%3Bbr%26gt%3B%26quot%3B%26apos%3B%26lt%3B%26gt%3B%26lt%3B%26amp%3Bx"
            "%26#160%3B%2C%C3%A9</a><a>x%2Fy<inner><![CDATA[<kept & raw>]]></inner></a>"
            "<z>42</z>");
  EXPECT_EQ(second->getValue(), "x/y");
}
