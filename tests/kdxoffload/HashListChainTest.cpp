#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/HashListChain.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "digest/C4Digest.h"

using kdxoffload::HashListChain;
using testing::HasSubstr;

namespace {

const std::string c4 = C4Digest::of("");
const std::string chainOfOne =
    "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<ascmhldirectory xmlns=\"urn:ASC:MHL:DIRECTORY:v2.0\">\n"
    "  <hashlist sequencenr=\"1\">\n"
    "    <path>0001_card_2026-11-23_002618Z.mhl</path>\n"
    "    <c4>" +
    c4 +
    "</c4>\n"
    "  </hashlist>\n"
    "</ascmhldirectory>\n";

std::string problemOf(const std::string& bytes) {
  std::optional<platform::Error> error;
  if (HashListChain::fromText(bytes, &error)) return "";
  EXPECT_EQ(kdxoffload::listErrorDomain, error.value().domain);
  return error->description.value_or("");
}

// With one part of the chain's text as it is not allowed to be.
std::string problemWith(const std::string& part, const std::string& instead) {
  std::string text = chainOfOne;
  const std::size_t position = text.find(part);
  EXPECT_NE(std::string::npos, position) << part;
  return problemOf(text.replace(position, part.size(), instead));
}

}  // namespace

TEST(HashListChain, IsWrittenWithItsNumbers) {
  HashListChain chain;
  chain.links.push_back({.fileName = "0001_card_2026-11-23_002618Z.mhl", .c4 = c4});
  EXPECT_EQ(chainOfOne, chain.text());
}

TEST(HashListChain, ComesBackAsItWas) {
  HashListChain chain;
  for (const char* name : {"0001_a.mhl", "0002_<&>\".mhl", "0003 .mhl"}) {
    chain.links.push_back({.fileName = name, .c4 = C4Digest::of(name)});
  }
  EXPECT_EQ(chain, HashListChain::fromText(chain.text(), nullptr));
  EXPECT_EQ(HashListChain{}, HashListChain::fromText(HashListChain{}.text(), nullptr));
}

TEST(HashListChain, AGapIsRefused) {
  EXPECT_THAT(problemWith("sequencenr=\"1\"", "sequencenr=\"2\""), HasSubstr("no list 1"));
  EXPECT_THAT(problemWith("sequencenr=\"1\"", "sequencenr=\"01\""), HasSubstr("no list 1"));
  EXPECT_THAT(problemWith("sequencenr=\"1\"", "number=\"1\""), HasSubstr("no list 1"));
}

TEST(HashListChain, ANameThatLeadsElsewhereIsRefused) {
  for (const char* name : {"", "..", "../0001.mhl", "/etc/passwd", "a/b"}) {
    EXPECT_THAT(problemWith("0001_card_2026-11-23_002618Z.mhl", name), HasSubstr("no list 1")) << name;
  }
}

TEST(HashListChain, AListWithoutADigestIsRefused) {
  EXPECT_THAT(problemWith(c4, ""), HasSubstr("no list 1"));
  EXPECT_THAT(problemWith(c4, c4.substr(1)), HasSubstr("no list 1"));
}

TEST(HashListChain, AnotherDocumentIsRefused) {
  EXPECT_THAT(problemOf("<hashlist/>"), HasSubstr("no chain"));
  EXPECT_THAT(problemWith("urn:ASC:MHL:DIRECTORY:v2.0", "urn:else"), HasSubstr("no chain"));
  EXPECT_THAT(problemOf(chainOfOne.substr(0, chainOfOne.size() - 5)), HasSubstr("well-formed"));
  EXPECT_NE("", problemOf(""));
}
