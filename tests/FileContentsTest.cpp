#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>

#include "platform/FileContents.h"
#include "tests/support/ScratchDirectory.h"

namespace {

class FileContents : public testing::Test {
 protected:
  std::optional<std::string> contents(std::size_t largest = MiB) {
    const platform::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    return platform::contentsOf(file, largest, &error);
  }

  ScratchDirectory scratch;
  std::string path = scratch.file("list");
  std::optional<platform::Error> error;
};

}  // namespace

TEST_F(FileContents, AFileIsReadWhole) {
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097}, MiB}) {
    writeFile(path, mediaBytes(size));
    EXPECT_EQ(mediaBytes(size), contents()) << size;
    EXPECT_FALSE(error);
  }
}

TEST_F(FileContents, AFileThatIsTooLongIsRefused) {
  writeFile(path, "12345");
  EXPECT_TRUE(contents(5));
  EXPECT_FALSE(contents(4));
  EXPECT_EQ(EFBIG, error.value().code);
}

// The system says of such a file that it has no bytes.
TEST_F(FileContents, AFileWithoutASizeIsReadToItsEnd) {
  path = "/proc/self/status";
  EXPECT_GT(contents().value_or("").size(), 100U);
  EXPECT_FALSE(contents(10));
  EXPECT_EQ(EFBIG, error.value().code);
}

TEST_F(FileContents, WhatCannotBeReadIsAnError) {
  path = scratch.path();
  EXPECT_FALSE(contents());
  EXPECT_EQ(EISDIR, error.value().code);
}
