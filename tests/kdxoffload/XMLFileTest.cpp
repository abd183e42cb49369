#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/XMLFile.h"

using kdxoffload::XMLFile;
using testing::HasSubstr;

namespace {

std::string problemOf(const std::string& bytes) {
  std::optional<platform::Error> error;
  if (XMLFile::parse(bytes, &error)) return "";
  EXPECT_TRUE(error);
  EXPECT_EQ(kdxoffload::listErrorDomain, error->domain);
  return error->description.value_or("");
}

std::string textOf(const std::string& bytes) {
  const auto file = XMLFile::parse(bytes, nullptr);
  return file ? XMLFile::textIn(file->root()).value_or("(no text)") : "(none)";
}

std::string repeated(const std::string& text, std::size_t times) {
  std::string all;
  for (std::size_t time = 0; time < times; ++time) all += text;
  return all;
}

}  // namespace

TEST(XMLFile, TheTextOfAnElementIsWhole) {
  EXPECT_EQ("a<b>&\"\n", textOf("<path>a&lt;b&gt;&amp;&quot;&#10;</path>"));
  EXPECT_EQ("abcd", textOf("<path>a<!-- not -->b<![CDATA[c]]>d</path>"));
  EXPECT_EQ(" ", textOf("<path> </path>"));
  EXPECT_EQ("", textOf("<path/>"));
  EXPECT_EQ("\xc3\xa4", textOf("\xef\xbb\xbf<?xml version='1.0'?><path>&#xe4;</path>"));
}

TEST(XMLFile, ATextWithElementsInItIsNone) {
  EXPECT_EQ("(no text)", textOf("<path>a<b/>c</path>"));
}

TEST(XMLFile, ATextWithWhatXMLCannotHoldIsNone) {
  EXPECT_EQ("(no text)", textOf("<path>a\x01</path>"));
  EXPECT_EQ("(no text)", textOf("<path>a&#27;[0m</path>"));
  EXPECT_EQ("(no text)", textOf("<path>a&#xffff;</path>"));
}

TEST(XMLFile, WhatIsNoDocumentIsRefused) {
  for (const char* bytes : {"", "clip.mov", "<a>", "<a></b>", "<a", "</a>", "<a b=c/>", "<a><![CDATA[</a>", "<!-- "}) {
    EXPECT_THAT(problemOf(bytes), HasSubstr("well-formed")) << bytes;
  }
}

TEST(XMLFile, TwoElementsAtTheTopAreRefused) {
  EXPECT_THAT(problemOf("<a/><b/>"), HasSubstr("more than one"));
}

TEST(XMLFile, BytesThatAreNotUTF8AreRefused) {
  EXPECT_THAT(problemOf("<a>\xff</a>"), HasSubstr("UTF-8"));
  EXPECT_THAT(problemOf(std::string("<a/>\0<b/>", 9)), HasSubstr("UTF-8"));
  EXPECT_THAT(problemOf(std::string("\xff\xfe<\0a\0/\0>\0", 10)), HasSubstr("UTF-8"));
}

TEST(XMLFile, EntitiesAreNeverExpanded) {
  const std::string bomb =
      "<!DOCTYPE a [<!ENTITY b \"bbbbbbbb\"><!ENTITY c \"&b;&b;&b;\">"
      "<!ENTITY d SYSTEM \"file:///etc/passwd\">]><a>&c;&d;</a>";
  EXPECT_EQ("&c;&d;", textOf(bomb));
}

TEST(XMLFile, ADocumentOfNothingButElementsIsRefused) {
  EXPECT_THAT(problemOf("<a>" + repeated("<a/>", 100'000) + "</a>"), HasSubstr("more elements"));
  EXPECT_THAT(problemOf("<a " + repeated("b=\"\" ", 100'000) + "/>"), HasSubstr("more elements"));
  EXPECT_THAT(problemOf("<a " + repeated("b='' ", 100'000) + "/>"), HasSubstr("more elements"));
}

TEST(XMLFile, ElementsAMillionDeepAreRefused) {
  const std::string name = "deeper-and-deeper";
  const auto nested = [&name](std::size_t depth) {
    return repeated("<" + name + ">", depth) + repeated("</" + name + ">", depth);
  };
  EXPECT_EQ("", problemOf(nested(40)));
  EXPECT_THAT(problemOf(nested(60)), HasSubstr("too deep"));
  EXPECT_THAT(problemOf(nested(1'000'000)), HasSubstr("too deep"));
}

TEST(XMLFile, AFileThatIsTooLargeIsRefused) {
  EXPECT_THAT(problemOf("<a>" + std::string(XMLFile::largest, ' ') + "</a>"), HasSubstr("larger than 256 MiB"));
}
