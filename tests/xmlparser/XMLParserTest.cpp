#include <gtest/gtest.h>

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
      "<e>x%20y+z%4%g1</e><f><![CDATA[<raw>&amp;%20]]></f>\n"
      "<g>x<![CDATA[y%20]]>z</g><h><![CDATA[]]>1<![CDATA[<]]></h></a>\r\n",
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
  EXPECT_EQ((*a)["f"], "<raw>&amp; ");  // no entity decoding, but %-decoding
  EXPECT_EQ((*a)["g"], "xy z");            // a CDATA section joins the text around it
  EXPECT_EQ((*a)["h"], "1<");
  EXPECT_EQ(a->getValue(), "\n\n");  // text between children belongs to the parent
}

TEST(XMLParser, EveryMalformedDocumentIsAnError) {
  const struct { std::string text, error; } cases[] = {
      {"junk<a/>", "Looking for a < and found a non-whitespace character"},
      {"<a id=\"1></a>", "Encountered whitespace while trying to parse a tag name"},
      {"<a><b></a></b>", "Mismatch tags"},
      {"<a><b></b>", "Terminated with tags still hanging"},
      {"<root><a></a></root>x", "Found text after the root element"},
      {"<a/>\n<b/>", "Found a second root element"},
      {"<a><![CDATA[x</a>", "Terminated inside a CDATA section"},
      {" \t\r\n<a></a><b", "Terminated inside a tag"},
      {"<a><!--x--></a>", "Invalid tag name"},
      {"", "No root element"},
      {std::string("<a>x\0y</a>", 10), "Encountered a control character"},
  };
  for (const auto& c : cases) EXPECT_EQ(parseError(c.text), c.error) << c.text;
}

TEST(XMLParser, NestingIsBoundedSoTheTreeStaysShallow) {
  const auto nest = [](size_t depth, const std::string& inner) {
    std::string text;
    for (size_t i = 0; i < depth; ++i) text += "<a>";
    text += inner;
    for (size_t i = 0; i < depth; ++i) text += "</a>";
    return text;
  };
  EXPECT_EQ(parseError(nest(XMLParser::kMaxDepth, "x")), "(no exception)");
  EXPECT_EQ(parseError(nest(XMLParser::kMaxDepth, "<b/>")), "Tags nested too deeply");
  EXPECT_EQ(parseError(nest(100000, "")), "Tags nested too deeply");
}
