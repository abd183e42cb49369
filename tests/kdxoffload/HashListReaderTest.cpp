#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "KDXFileTools/kdxoffload/HashListReader.h"
#include "KDXFileTools/kdxoffload/HashListWriter.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "digest/C4Digest.h"

using kdxoffload::HashFormat;
using kdxoffload::HashList;
using testing::HasSubstr;
using Action = HashList::Action;

namespace {

constexpr int64_t moment = 1'700'000'000'000'000'000;
const std::string xxh64 = "0ea03b369a463d9d";

// As another tool writes it, with things that this program has no use for.
const std::string foreign = R"(<?xml version="1.0" encoding="UTF-8"?>
<!-- by hand -->
<hashlist version="2.0" xmlns="urn:ASC:MHL:v2.0">
  <creatorinfo>
    <creationdate>2020-01-16T15:00:00+00:00</creationdate>
    <hostname>cart</hostname>
    <tool version="0.1">another</tool>
    <author><name>A. N.</name></author>
    <location>on set</location>
    <comment>day 1</comment>
  </creatorinfo>
  <processinfo>
    <process>in-place</process>
    <roothash>
      <content><xxh64 hashdate="2020-01-16T15:00:00+00:00">8d02114c32e28cbe</xxh64></content>
      <structure><xxh64 hashdate="2020-01-16T15:00:00+00:00">f557f8ca8e5a88ef</xxh64></structure>
    </roothash>
    <ignore><pattern>.DS_Store</pattern><pattern>ascmhl</pattern></ignore>
  </processinfo>
  <hashes>
    <hash>
      <path size="5" lastmodificationdate="2020-01-15T13:00:00+01:00">Clips/A002C006_141024_R2EC.mov</path>
      <xxh64 action="original" hashdate="2020-01-16T15:00:00+00:00">0EA03B369A463D9D</xxh64>
      <metadata><anything/></metadata>
    </hash>
    <directoryhash>
      <path lastmodificationdate="2020-01-15T13:00:00+00:00">Clips</path>
      <content><xxh64>4c226b42e27d7af3</xxh64></content>
      <structure><xxh64>906faa843d591a9f</xxh64></structure>
    </directoryhash>
  </hashes>
  <metadata/>
</hashlist>
)";

std::string textOf(const HashList& list) {
  std::string text;
  kdxoffload::writeHashList(list, [&text](std::string_view bytes) { text += bytes; });
  return text;
}

std::string problemOf(const std::string& bytes) {
  std::optional<platform::Error> error;
  if (kdxoffload::readHashList(bytes, &error)) return "";
  EXPECT_EQ(kdxoffload::listErrorDomain, error.value().domain);
  return error->description.value_or("");
}

// With one part of the list as it is not allowed to be.
std::string problemWith(const std::string& part, const std::string& instead) {
  std::string text = foreign;
  const std::size_t position = text.find(part);
  EXPECT_NE(std::string::npos, position) << part;
  return problemOf(text.replace(position, part.size(), instead));
}

}  // namespace

TEST(HashListReader, AListOfAnotherToolIsRead) {
  const auto list = kdxoffload::readHashList(foreign, nullptr);
  ASSERT_TRUE(list);
  EXPECT_EQ("another", list->creator.tool);
  EXPECT_EQ("0.1", list->creator.toolVersion);
  EXPECT_EQ(HashList::Process::inPlace, list->process);
  EXPECT_EQ("8d02114c32e28cbe", list->root.value().content.at(0).value);
  EXPECT_EQ((std::vector<std::string>{".DS_Store", "ascmhl"}), list->ignored);
  ASSERT_EQ(1U, list->files.size());
  const HashList::File& file = list->files.front();
  EXPECT_EQ("Clips/A002C006_141024_R2EC.mov", file.path);
  EXPECT_EQ(5U, file.size);
  EXPECT_EQ(1'579'089'600'000'000'000, file.modified);  // `date -d '2020-01-15 12:00 UTC' +%s`
  ASSERT_EQ(1U, file.hashes.size());
  EXPECT_EQ(xxh64, file.hashes.front().value);
  EXPECT_EQ(Action::original, file.hashes.front().action);
  EXPECT_EQ("906faa843d591a9f", list->folders.at(0).hashes.structure.at(0).value);
}

TEST(HashListReader, WhatWasWrittenComesBackAsItWas) {
  HashList list;
  list.creator = {.created = moment, .host = "cart", .tool = "kdxoffload", .toolVersion = "1.0.0"};
  list.ignored = {".DS_Store", "ascmhl", "ascmhl/", " odd\n<&>"};
  list.root = {.content = {{.value = xxh64, .hashed = moment}}, .structure = {{.value = xxh64, .hashed = moment}}};
  for (const char* path : {"a", " ", "\n", "a\tb\r\nc/ d ", "<&>\"'", "-", "\xc3\xa4/%",
                           "a\xe2\x80\xae"
                           "b"}) {
    list.files.push_back(
        {.path = path,
         .size = 0,
         .created = moment,
         .modified = moment + 1000,
         .hashes = {{.format = HashFormat::c4, .value = C4Digest::of(path), .action = Action::verified},
                    {.value = xxh64, .action = Action::failed, .hashed = moment}}});
    list.folders.push_back({.path = path, .modified = moment, .hashes = *list.root});
  }
  list.references.push_back({.path = "Nested/ascmhl/0001_Nested.mhl", .c4 = C4Digest::of("")});
  EXPECT_EQ(list, kdxoffload::readHashList(textOf(list), nullptr));
}

TEST(HashListReader, AnotherDocumentIsRefused) {
  EXPECT_THAT(problemOf("<a/>"), HasSubstr("no media hash list 2.0"));
  EXPECT_THAT(problemWith("version=\"2.0\"", "version=\"1.1\""), HasSubstr("no media hash list 2.0"));
  EXPECT_THAT(problemWith("urn:ASC:MHL:v2.0", "urn:else"), HasSubstr("no media hash list 2.0"));
  EXPECT_THAT(problemOf(foreign.substr(0, foreign.size() / 2)), HasSubstr("well-formed"));
  EXPECT_THAT(problemOf("<hashlist version=\"2.0\" xmlns=\"urn:ASC:MHL:v2.0\"/>"), HasSubstr("where it is from"));
}

TEST(HashListReader, APathThatLeadsElsewhereIsRefused) {
  for (const char* path : {"", "/etc/passwd", "../secret", "Clips/../../secret", "Clips//a", "Clips/"}) {
    EXPECT_THAT(problemWith("Clips/A002C006_141024_R2EC.mov", path), HasSubstr("does not lead")) << path;
  }
}

TEST(HashListReader, ADigestWithOtherDigitsIsRefused) {
  EXPECT_THAT(problemWith("0EA03B369A463D9D", "0EA03B369A463D9"), HasSubstr("is no xxh64 digest"));
  EXPECT_THAT(problemWith("0EA03B369A463D9D", "\xe2\x80\xaenonsense"),
              HasSubstr("\"\\xe2\\x80\\xaenonsense\" is no xxh64 digest"));
  EXPECT_THAT(problemWith("4c226b42e27d7af3", ""), HasSubstr("is no xxh64 digest"));
}

TEST(HashListReader, AnActionThatThereIsNotIsRefused) {
  EXPECT_THAT(problemWith("original", "guessed"), HasSubstr("no action \"guessed\""));
}

TEST(HashListReader, AFileWithoutADigestIsRefused) {
  EXPECT_THAT(
      problemWith("<xxh64 action=\"original\" hashdate=\"2020-01-16T15:00:00+00:00\">0EA03B369A463D9D</xxh64>", ""),
      HasSubstr("has no digest"));
}

TEST(HashListReader, ASizeThatIsNoNumberIsRefused) {
  for (const char* size : {"-1", "five", "5 ", "99999999999999999999999"}) {
    EXPECT_THAT(problemWith("size=\"5\"", std::string("size=\"") + size + "\""), HasSubstr("is no size")) << size;
  }
}

TEST(HashListReader, AProcessThatThereIsNotIsRefused) {
  EXPECT_THAT(problemWith("in-place", "hope"), HasSubstr("no process \"hope\""));
}

TEST(HashListReader, TimesThatMakeNoSenseAreNone) {
  std::string text = foreign;
  const std::string time = "2020-01-15T13:00:00+01:00";
  const auto list = kdxoffload::readHashList(text.replace(text.find(time), time.size(), "yesterday"), nullptr);
  ASSERT_TRUE(list);
  EXPECT_EQ(std::nullopt, list->files.at(0).modified);
}
