#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <string>

#include "KDXFileTools/kdxoffload/ChecksumList.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "digest/KDXDigestContext.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using kdxoffload::FileDigest;
using kdxoffload::ListedFiles;
using testing::HasSubstr;
namespace ChecksumList = kdxoffload::ChecksumList;

namespace {

const std::string md5 = "d41d8cd98f00b204e9800998ecf8427e";
const std::string sha1 = "da39a3ee5e6b4b0d3255bfef95601890afd80709";
const std::string xxh64 = "ef46db3751d8e999";
const FileDigest emptyMD5 = FileDigest::fromText("MD5:" + md5).value();
const FileDigest emptySHA1 = FileDigest::fromText("SHA1:" + sha1).value();
const FileDigest emptyXXH64 = FileDigest::fromText("XXHash64BE:" + xxh64).value();

// A digest, and the program that checks lists of it.
struct Kind {
  const char* name;
  const char* program;
  uint32_t algorithm;
};
constexpr std::array kinds{Kind{"MD5", "md5sum", KDXDigestAlgorithmMD5},
                           Kind{"SHA1", "sha1sum", KDXDigestAlgorithmSHA1},
                           Kind{"XXH64", "xxhsum", KDXDigestAlgorithmXXHash64BE}};

const std::vector<std::string> oddNames{"-",     "clip.mov",    " lead",    "end ",   "two  blanks", "*star",
                                        "#hash", "back\\slash", "\\",       "cr\r",   "a\rb",        "tab\t",
                                        "\\n",   "MD5 (a) = b", "\xc3\xa4", "a\xff",  "a\x1b[2J",    "--check",
                                        "sub/-", "sub/a b",     "100%",     "'\"`$x", "(",           "a) = b"};

FileDigest digestOf(uint32_t algorithm, const std::string& bytes) {
  const auto context = KDXDigestContext::contextWithAlgorithm(algorithm);
  context->update(bytes.data(), bytes.size());
  context->finalize();
  return FileDigest::fromText(context->digestString()).value();
}

std::optional<ListedFiles> filesFrom(const std::string& text) {
  return ChecksumList::filesFrom(text, nullptr);
}

std::string problemOf(const std::string& text) {
  std::optional<platform::Error> error;
  if (ChecksumList::filesFrom(text, &error)) return "";
  EXPECT_EQ(kdxoffload::listErrorDomain, error.value().domain);
  return error->description.value_or("");
}

std::string pathIn(const std::string& line) {
  const auto files = filesFrom(line + "\n");
  return files && files->size() == 1 ? files->front().path : "(none)";
}

class ChecksumListOf : public testing::TestWithParam<Kind> {
 protected:
  // A list of files with these names, each with its name as its content.
  std::string listOf(const std::vector<std::string>& names) const {
    std::string list;
    for (const std::string& name : names) {
      writeFile(scratch.file(name), name);
      list += ChecksumList::lineFor(name, digestOf(GetParam().algorithm, name)).value();
    }
    return list;
  }
  // Runs the program on the list, in the folder.
  [[nodiscard]] ToolRun check(const std::string& list) const {
    writeFile(listFile.file("list"), list);
    return runTool({.arguments = {"-c", listFile.file("list")},
                    .program = GetParam().program,
                    .workingDirectory = scratch.path()});
  }

  ScratchDirectory scratch;
  ScratchDirectory listFile;
};

}  // namespace

TEST_P(ChecksumListOf, TheSystemsProgramAcceptsOddNames) {
  if (!haveProgram(GetParam().program)) GTEST_SKIP() << GetParam().program << " is missing";
  std::vector<std::string> names = oddNames;
  if (GetParam().algorithm != KDXDigestAlgorithmXXHash64BE) names.insert(names.end(), {"a\nb", "\n", "a\\\nb\r"});
  const std::string list = listOf(names);
  const ToolRun whole = check(list);
  EXPECT_EQ(0, whole.exitStatus) << whole.output << whole.errors;
  EXPECT_EQ("", whole.errors);
  EXPECT_EQ(names.size(), whole.lines().size()) << whole.output;
  // The same with one file changed: that it is looked at is known then.
  for (const std::string& name : names) {
    writeFile(scratch.file(name), name + "changed");
    EXPECT_EQ(1, check(list).exitStatus) << name;
    writeFile(scratch.file(name), name);
  }
}

TEST_P(ChecksumListOf, WhatTheSystemsProgramWritesIsRead) {
  if (!haveProgram(GetParam().program)) GTEST_SKIP() << GetParam().program << " is missing";
  for (const std::string& name : oddNames) {
    writeFile(scratch.file(name), name);
    const ToolRun run =
        runTool({.arguments = {"--", name}, .program = GetParam().program, .workingDirectory = scratch.path()});
    if (name == "-") continue;  // it reads standard input
    const auto files = filesFrom(run.output);
    ASSERT_TRUE(files) << run.output;
    // What the one program does not escape looks like the ends of lines of another system.
    const bool isCut = name == "cr\r" && GetParam().algorithm == KDXDigestAlgorithmXXHash64BE;
    EXPECT_EQ(isCut ? "cr" : name, files->at(0).path);
    EXPECT_EQ(digestOf(GetParam().algorithm, name), files->at(0).digest);
  }
}

TEST_P(ChecksumListOf, WhatWasWrittenIsReadAgain) {
  std::string list = listOf(oddNames);
  const auto files = filesFrom(list);
  ASSERT_TRUE(files);
  ASSERT_EQ(oddNames.size(), files->size());
  for (std::size_t index = 0; index < oddNames.size(); ++index) {
    EXPECT_EQ(oddNames[index], files->at(index).path);
    EXPECT_EQ(digestOf(GetParam().algorithm, oddNames[index]), files->at(index).digest);
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ChecksumListOf, testing::ValuesIn(kinds),
                         [](const auto& row) { return std::string(row.param.name); });

TEST(ChecksumList, ALineIsAsTheProgramsWriteIt) {
  EXPECT_EQ(md5 + "  a/clip.mov\n", ChecksumList::lineFor("a/clip.mov", emptyMD5));
  EXPECT_EQ(sha1 + "  clip.mov\n", ChecksumList::lineFor("clip.mov", emptySHA1));
  EXPECT_EQ(xxh64 + "  back\\slash\n", ChecksumList::lineFor("back\\slash", emptyXXH64));
  EXPECT_EQ("\\" + md5 + "  back\\\\slash\\n\n", ChecksumList::lineFor("back\\slash\n", emptyMD5));
  EXPECT_EQ(md5 + "  ./-\n", ChecksumList::lineFor("-", emptyMD5));
}

TEST(ChecksumList, OfXXH64ANewlineInANameCannotBeWritten) {
  EXPECT_EQ(std::nullopt, ChecksumList::lineFor("a\nb", emptyXXH64));
}

TEST(ChecksumList, LinesOfAllKindsAreRead) {
  EXPECT_EQ("a b", pathIn(md5 + "  a b"));
  EXPECT_EQ("a b", pathIn(sha1 + " *a b"));
  EXPECT_EQ("a b", pathIn("MD5 (a b) = " + md5));
  EXPECT_EQ("a) = (b", pathIn("XXH64 (a) = (b) = " + xxh64));
  EXPECT_EQ("a\n\\", pathIn("\\" + md5 + "  a\\n\\\\"));
  EXPECT_EQ("a/b", pathIn(md5 + "  ././a/b"));
  EXPECT_EQ("a", pathIn("D41D8CD98F00B204E9800998ECF8427E  a"));
}

TEST(ChecksumList, CommentsAndEmptyLinesArePassedOver) {
  EXPECT_EQ(2U, filesFrom("# made by hand\n\n" + md5 + "  a\n\n" + xxh64 + "  b")->size());
}

TEST(ChecksumList, TheEndsOfLinesOfAnotherSystemAreDropped) {
  const auto files = filesFrom(md5 + "  a\r\n\r\n" + md5 + "  b\r\n");
  ASSERT_TRUE(files);
  EXPECT_EQ("a", files->at(0).path);
  EXPECT_EQ("b", files->at(1).path);
}

TEST(ChecksumList, ALineThatIsSomethingElseIsRefused) {
  const std::vector<std::string> lines{"clip.mov",          md5,
                                       md5 + " ",           md5 + " a",
                                       md5 + "\ta",         md5.substr(1) + "  a",
                                       md5 + "0  a",        "g" + md5.substr(1) + "  a",
                                       "SHA1 (a) = " + md5, "MD5 (a) = ",
                                       "MD5 (a = " + md5,   " " + md5 + "  a",
                                       "d41d8cd9  a",       "MD5 () = x"};
  for (const std::string& line : lines) {
    EXPECT_THAT(problemOf(md5 + "  first\n" + line + "\n"), HasSubstr("line 2: it has no MD5")) << line;
  }
}

TEST(ChecksumList, APathThatLeadsElsewhereIsRefused) {
  for (const char* path : {"", "/etc/passwd", "../a", "a/../../b", "a//b", "./"}) {
    EXPECT_THAT(problemOf(md5 + "  " + path), HasSubstr("line 1: the path")) << path;
  }
  EXPECT_THAT(problemOf(md5 + "  a" + std::string(1, '\0')), HasSubstr("line 1: the path"));
  EXPECT_THAT(problemOf("\\" + md5 + "  a\\t"), HasSubstr("line 1: the path"));
  EXPECT_THAT(problemOf("\\" + md5 + "  a\\"), HasSubstr("line 1: the path"));
}

TEST(ChecksumList, AListWithoutFilesIsRefused) {
  EXPECT_EQ("there is no file in it", problemOf(""));
  EXPECT_EQ("there is no file in it", problemOf("# nothing\n\n"));
}
