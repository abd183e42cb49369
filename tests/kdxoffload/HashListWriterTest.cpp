#include <gtest/gtest.h>

#include <chrono>
#include <pugixml.hpp>
#include <string>

#include "KDXFileTools/kdxoffload/HashListWriter.h"
#include "digest/C4Digest.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using kdxoffload::HashFormat;
using kdxoffload::HashList;
using Action = HashList::Action;

namespace {

constexpr int64_t moment = 1'700'000'000'000'000'000;  // 2023-11-14T22:13:20 UTC
const std::string xxh64 = "0ea03b369a463d9d";
const std::string md5 = "d41d8cd98f00b204e9800998ecf8427e";

std::string textOf(const HashList& list) {
  std::string text;
  kdxoffload::writeHashList(list, [&text](std::string_view bytes) { text += bytes; });
  return text;
}

HashList::Hash hashOf(HashFormat format, const std::string& value, Action action = Action::none) {
  return {.format = format, .value = value, .action = action, .hashed = moment};
}

HashList smallest() {
  HashList list;
  list.creator = {.created = moment, .host = "cart", .tool = "kdxoffload", .toolVersion = "1.0.0"};
  return list;
}

// With everything that a list can have.
HashList full() {
  HashList list = smallest();
  list.process = HashList::Process::inPlace;
  list.root = {.content = {hashOf(HashFormat::xxh64, xxh64)}, .structure = {hashOf(HashFormat::xxh64, xxh64)}};
  list.ignored = {".DS_Store", "ascmhl", "ascmhl/"};
  list.files.push_back(
      {.path = "Clips/A <&> B\n.mov",
       .size = 5,
       .created = moment,
       .modified = moment + 1000,
       .hashes = {hashOf(HashFormat::xxh64, xxh64, Action::original), hashOf(HashFormat::md5, md5, Action::verified)}});
  list.files.push_back({.path = "Sidecar.txt", .hashes = {hashOf(HashFormat::xxh64, xxh64, Action::failed)}});
  list.folders.push_back({.path = "Clips", .modified = moment, .hashes = *list.root});
  list.references.push_back({.path = "Nested/ascmhl/0001_Nested.mhl", .c4 = C4Digest::of("")});
  return list;
}

// Names of the elements and attributes in the element, as they follow one another.
std::string orderIn(const pugi::xml_node& element) {
  std::string order;
  for (const auto attribute : element.attributes()) order += std::string("@") + attribute.name() + " ";
  for (const auto child : element.children()) {
    if (child.type() == pugi::node_element) order += std::string(child.name()) + " ";
  }
  return order;
}

pugi::xml_document parsed(const std::string& text) {
  pugi::xml_document document;
  EXPECT_TRUE(document.load_string(text.c_str()));
  return document;
}

}  // namespace

TEST(HashListWriter, TheSmallestListIsWrittenWhole) {
  EXPECT_EQ(
      "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
      "<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\">\n"
      "  <creatorinfo>\n"
      "    <creationdate>2023-11-14T22:13:20+00:00</creationdate>\n"
      "    <hostname>cart</hostname>\n"
      "    <tool version=\"1.0.0\">kdxoffload</tool>\n"
      "  </creatorinfo>\n"
      "  <processinfo>\n"
      "    <process>transfer</process>\n"
      "  </processinfo>\n"
      "</hashlist>\n",
      textOf(smallest()));
}

TEST(HashListWriter, ElementsStandInTheOrderOfTheStandard) {
  const pugi::xml_document document = parsed(textOf(full()));
  const pugi::xml_node list = document.child("hashlist");
  EXPECT_EQ("@version @xmlns creatorinfo processinfo hashes references ", orderIn(list));
  EXPECT_EQ("creationdate hostname tool ", orderIn(list.child("creatorinfo")));
  EXPECT_EQ("process roothash ignore ", orderIn(list.child("processinfo")));
  EXPECT_EQ("content structure ", orderIn(list.child("processinfo").child("roothash")));
  EXPECT_EQ("pattern pattern pattern ", orderIn(list.child("processinfo").child("ignore")));
  EXPECT_EQ("hash hash directoryhash ", orderIn(list.child("hashes")));
  const pugi::xml_node file = list.child("hashes").child("hash");
  EXPECT_EQ("path md5 xxh64 ", orderIn(file));
  EXPECT_EQ("@size @creationdate @lastmodificationdate ", orderIn(file.child("path")));
  EXPECT_EQ("@action @hashdate ", orderIn(file.child("md5")));
  const pugi::xml_node folder = list.child("hashes").child("directoryhash");
  EXPECT_EQ("path content structure ", orderIn(folder));
  EXPECT_EQ("@lastmodificationdate ", orderIn(folder.child("path")));
  EXPECT_EQ("@hashdate ", orderIn(folder.child("content").child("xxh64")));
  EXPECT_EQ("hashlistreference ", orderIn(list.child("references")));
  EXPECT_EQ("path c4 ", orderIn(list.child("references").child("hashlistreference")));
}

TEST(HashListWriter, AFileHasItsPathSizeTimesAndDigests) {
  const pugi::xml_document document = parsed(textOf(full()));
  const pugi::xml_node file = document.child("hashlist").child("hashes").child("hash");
  EXPECT_STREQ("Clips/A <&> B\n.mov", file.child("path").text().get());
  EXPECT_STREQ("5", file.child("path").attribute("size").value());
  EXPECT_STREQ("2023-11-14T22:13:20.000001+00:00", file.child("path").attribute("lastmodificationdate").value());
  EXPECT_STREQ(xxh64.c_str(), file.child("xxh64").text().get());
  EXPECT_STREQ("original", file.child("xxh64").attribute("action").value());
  EXPECT_STREQ("verified", file.child("md5").attribute("action").value());
  EXPECT_STREQ("failed", file.next_sibling("hash").child("xxh64").attribute("action").value());
}

TEST(HashListWriter, DocumentsAreWellFormed) {
  if (!haveProgram("xmllint")) GTEST_SKIP() << "xmllint is missing";
  const ScratchDirectory scratch;
  for (const HashList& list : {smallest(), full()}) {
    writeFile(scratch.file("list.mhl"), textOf(list));
    const ToolRun run = runTool({.arguments = {"--noout", scratch.file("list.mhl")}, .program = "xmllint"});
    EXPECT_EQ(0, run.exitStatus) << run.errors;
    EXPECT_EQ("", run.errors);
  }
}

TEST(HashListWriter, AHundredThousandFilesTakeLessThanThreeSeconds) {
  if (isSanitized()) GTEST_SKIP() << "times are those of the program alone";
  HashList list = smallest();
  for (int index = 0; index < 100'000; ++index) {
    list.files.push_back({.path = "Clips/A002C006_141024_R2EC." + std::to_string(index) + ".dpx",
                          .size = 5,
                          .modified = moment,
                          .hashes = {hashOf(HashFormat::xxh64, xxh64, Action::original)}});
  }
  const auto start = std::chrono::steady_clock::now();
  const std::string text = textOf(list);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
  EXPECT_GT(text.size(), 20'000'000U);
}
