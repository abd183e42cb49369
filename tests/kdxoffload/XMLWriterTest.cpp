#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/XMLFile.h"
#include "KDXFileTools/kdxoffload/XMLWriter.h"

using kdxoffload::XMLFile;
using kdxoffload::XMLWriter;

namespace {

const std::string declaration = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";

XMLWriter::Sink addingTo(std::string& text) {
  return [&text](std::string_view bytes) { text += bytes; };
}

std::string documentWith(const std::string& text, const std::string& attribute = "") {
  std::string document;
  XMLWriter xml(addingTo(document));
  xml.element("path", text, {{.name = "is", .value = attribute}});
  xml.finish();
  return document;
}

}  // namespace

TEST(XMLWriter, ElementsStandInOneAnother) {
  std::string text;
  XMLWriter xml(addingTo(text));
  xml.open("a", {{.name = "b", .value = "1"}, {.name = "c", .value = "2"}});
  xml.open("d");
  xml.element("e", "f");
  xml.close();
  xml.element("g", "");
  xml.finish();
  EXPECT_EQ(declaration + "<a b=\"1\" c=\"2\">\n  <d>\n    <e>f</e>\n  </d>\n  <g></g>\n</a>\n", text);
}

TEST(XMLWriter, MarksAreEscaped) {
  EXPECT_EQ(declaration + "<path is=\"&lt;&quot;&gt;\">&lt;a&gt;&amp;]]&gt;'&quot;</path>\n",
            documentWith("<a>&]]>'\"", "<\">"));
}

TEST(XMLWriter, TabNewlineAndReturnAreReferences) {
  EXPECT_EQ(declaration + "<path is=\"&#10;\">a&#9;b&#10;c&#13;d</path>\n", documentWith("a\tb\nc\rd", "\n"));
}

TEST(XMLWriter, WhatXMLCannotHoldIsReplaced) {
  EXPECT_EQ(declaration +
                "<path is=\"\">a\xef\xbf\xbd"
                "b</path>\n",
            documentWith("a\x01"
                         "b"));
  EXPECT_EQ(declaration +
                "<path is=\"\">a\xef\xbf\xbd"
                "b</path>\n",
            documentWith("a\xff"
                         "b"));
}

TEST(XMLWriter, NamesThatXMLCanHoldAreKnown) {
  for (const char* name :
       {"", "clip.mov", "a\tb\nc\r", "<&>\"'", "\xc3\xa4", "\xf0\x9f\x8e\xac", "\x7f", "\xc2\x85", "%00"}) {
    EXPECT_TRUE(XMLWriter::canHold(name)) << name;
  }
}

TEST(XMLWriter, NamesThatXMLCannotHoldAreKnown) {
  for (const char* name :
       {"\x01", "a\x1b[0m", "\x1f", "\xff", "\xc3", "\xed\xa0\x80", "\xef\xbf\xbe", "a\xef\xbf\xbf"}) {
    EXPECT_FALSE(XMLWriter::canHold(name)) << name;
  }
  EXPECT_FALSE(XMLWriter::canHold(std::string("a\0b", 3)));
}

TEST(XMLWriter, EveryNameThatCanBeHeldIsReadAgain) {
  for (const char* name : {" ", "  two", "end ", "\n", "\r\n", "\t", "a\r\nb", "&amp;", "&#10;", "<a/>", "]]>",
                           "\xe2\x80\xa8", "\xc2\x85", "\x7f", "-",
                           "\xef\xbb\xbf"
                           "bom"}) {
    const std::optional<XMLFile> file = XMLFile::parse(documentWith(name, name), nullptr);
    ASSERT_TRUE(file) << name;
    EXPECT_EQ(name, XMLFile::textIn(file->root()));
    EXPECT_STREQ(name, file->root().attribute("is").value());
  }
}

TEST(XMLWriter, LongDocumentsAreHandedOverPieceByPiece) {
  std::size_t pieces = 0;
  std::size_t longest = 0;
  XMLWriter xml([&](std::string_view bytes) {
    ++pieces;
    longest = std::max(longest, bytes.size());
  });
  xml.open("hashes");
  for (int index = 0; index < 100'000; ++index) xml.element("path", "A001C003_141024_R2EC.mov");
  xml.finish();
  EXPECT_GT(pieces, 10U);
  EXPECT_LT(longest, 100'000U);
}
