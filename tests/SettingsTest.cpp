#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <limits>
#include <optional>
#include <string>

#include "platform/Settings.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

using platform::integerForKey;

namespace {

// Sets an environment variable, or takes it away, and puts back what was there.
class EnvironmentVariable {
 public:
  EnvironmentVariable(std::string name, const std::optional<std::string>& value) : _name(std::move(name)) {
    if (const char* before = std::getenv(_name.c_str()); before != nullptr) _before = before;
    set(value);
  }
  ~EnvironmentVariable() { set(_before); }
  EnvironmentVariable(const EnvironmentVariable&) = delete;
  EnvironmentVariable& operator=(const EnvironmentVariable&) = delete;

 private:
  void set(const std::optional<std::string>& value) const {
    if (value) {
      ::setenv(_name.c_str(), value->c_str(), 1);
    } else {
      ::unsetenv(_name.c_str());
    }
  }

  std::string _name;
  std::optional<std::string> _before;
};

struct FileRow : NamedRow {
  std::string text;
  int64_t expected;
};

class SettingsFile : public testing::TestWithParam<FileRow> {};

TEST_P(SettingsFile, GivesTheIntegerOfTheKey) {
  const ScratchDirectory scratch;
  const EnvironmentVariable directory("XDG_CONFIG_HOME", scratch.path().string());
  writeFile(scratch.file("kdxdispatchcopy/defaults.ini"), GetParam().text);
  EXPECT_EQ(GetParam().expected, integerForKey("readBufferSizeMB"));
}

INSTANTIATE_TEST_SUITE_P(
    Settings, SettingsFile,
    testing::Values(
        FileRow{"Plain", "readBufferSizeMB = 4\n", 4}, FileRow{"WithoutSpaces", "readBufferSizeMB=4\n", 4},
        FileRow{"WithoutNewline", "readBufferSizeMB = 4", 4},
        FileRow{"WithWindowsNewline", "readBufferSizeMB = 4\r\n", 4},
        FileRow{"Indented", "  readBufferSizeMB = 4\n", 4}, FileRow{"Empty", "", 0},
        FileRow{"OtherKey", "other = 4\n", 0}, FileRow{"OtherCase", "readbuffersizemb = 4\n", 0},
        FileRow{"Zero", "readBufferSizeMB = 0\n", 0}, FileRow{"Negative", "readBufferSizeMB = -3\n", -3},
        FileRow{"NoValue", "readBufferSizeMB =\n", 0}, FileRow{"NoNumber", "readBufferSizeMB = four\n", 0},
        FileRow{"TextBehindTheNumber", "readBufferSizeMB = 12 MiB\n", 12},
        FileRow{"TextRightBehindTheNumber", "readBufferSizeMB = 12MiB\n", 12},
        FileRow{"Fraction", "readBufferSizeMB = 2.9\n", 2}, FileRow{"LeadingZero", "readBufferSizeMB = 010\n", 10},
        FileRow{"LargestOfTheType", "readBufferSizeMB = 9223372036854775807\n", std::numeric_limits<int64_t>::max()},
        FileRow{"BeyondTheType", "readBufferSizeMB = 99999999999999999999\n", std::numeric_limits<int64_t>::max()},
        FileRow{"BelowTheType", "readBufferSizeMB = -99999999999999999999\n", std::numeric_limits<int64_t>::min()},
        FileRow{"Comment", "; readBufferSizeMB = 5\n# readBufferSizeMB = 6\n", 0},
        FileRow{"GarbageLinesAround", "garbage\n= 5\n\x01\x02\xff\n[unclosed\nreadBufferSizeMB = 4\n]]\n====\nmore\n",
                4},
        FileRow{"IndentedLineBehind", "readBufferSizeMB = 4\n  other = 9\n", 4},
        FileRow{"FormFeedInFrontOfTheLineBehind", "readBufferSizeMB = 4\n\f9\n", 4},
        FileRow{"VerticalTabInFrontOfTheLineBehind", "readBufferSizeMB = 4\n\v9\n", 4},
        FileRow{"CarriageReturnInFrontOfTheLineBehind", "readBufferSizeMB = 4\n\r9\n", 4},
        FileRow{"LongLineBefore", std::string(5000, 'x') + "\nreadBufferSizeMB = 4\n", 4},
        FileRow{"LongestLine", "readBufferSizeMB = 4 " + std::string(177, 'x') + "\n", 4},
        FileRow{"LongestLineWithoutNewline", "readBufferSizeMB = 4 " + std::string(177, 'x'), 4},
        FileRow{"LineTooLong", "readBufferSizeMB = 4 " + std::string(178, 'x') + "\n", 0},
        FileRow{"LineTooLongWithoutNewline", "readBufferSizeMB = 4 " + std::string(178, 'x'), 0},
        FileRow{"InsideALongComment", "; " + std::string(197, 'x') + "readBufferSizeMB = 7\n", 0}),
    rowName);

TEST(Settings, AreFoundBelowTheHomeFolderWhereNoOtherPlaceIsSet) {
  const ScratchDirectory scratch;
  const EnvironmentVariable directory("XDG_CONFIG_HOME", std::nullopt);
  const EnvironmentVariable home("HOME", scratch.path().string());
  writeFile(scratch.file(".config/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 3\n");
  EXPECT_EQ(3, integerForKey("readBufferSizeMB"));
}

TEST(Settings, AreFoundBelowTheHomeFolderWhereTheOtherPlaceIsEmpty) {
  const ScratchDirectory scratch;
  const EnvironmentVariable directory("XDG_CONFIG_HOME", "");
  const EnvironmentVariable home("HOME", scratch.path().string());
  writeFile(scratch.file(".config/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 3\n");
  EXPECT_EQ(3, integerForKey("readBufferSizeMB"));
}

TEST(Settings, TheSetPlaceGoesBeforeTheHomeFolder) {
  const ScratchDirectory scratch;
  const EnvironmentVariable directory("XDG_CONFIG_HOME", scratch.file("set"));
  const EnvironmentVariable home("HOME", scratch.path().string());
  writeFile(scratch.file("set/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 5\n");
  writeFile(scratch.file(".config/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 3\n");
  EXPECT_EQ(5, integerForKey("readBufferSizeMB"));
}

TEST(Settings, ARelativePlaceIsPassedOver) {
  const ScratchDirectory scratch;
  const std::filesystem::path before = std::filesystem::current_path();
  std::filesystem::current_path(scratch.path());
  const EnvironmentVariable directory("XDG_CONFIG_HOME", "set");
  const EnvironmentVariable home("HOME", scratch.path().string());
  writeFile(scratch.file("set/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 5\n");
  writeFile(scratch.file(".config/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 3\n");
  EXPECT_EQ(3, integerForKey("readBufferSizeMB"));
  std::filesystem::current_path(before);
}

TEST(Settings, AreTheDefaultWithoutAnyPlace) {
  const EnvironmentVariable directory("XDG_CONFIG_HOME", std::nullopt);
  const EnvironmentVariable home("HOME", std::nullopt);
  EXPECT_EQ(0, integerForKey("readBufferSizeMB"));
}

TEST(Settings, AMissingFileIsTheDefault) {
  const ScratchDirectory scratch;
  const EnvironmentVariable directory("XDG_CONFIG_HOME", scratch.path().string());
  EXPECT_EQ(0, integerForKey("readBufferSizeMB"));
}

TEST(Settings, AFolderInPlaceOfTheFileIsTheDefault) {
  const ScratchDirectory scratch;
  const EnvironmentVariable directory("XDG_CONFIG_HOME", scratch.path().string());
  std::filesystem::create_directories(scratch.path() / "kdxdispatchcopy/defaults.ini");
  EXPECT_EQ(0, integerForKey("readBufferSizeMB"));
}

TEST(Settings, TheFileIsReadAtEveryCall) {
  const ScratchDirectory scratch;
  const EnvironmentVariable directory("XDG_CONFIG_HOME", scratch.path().string());
  writeFile(scratch.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 4\n");
  EXPECT_EQ(4, integerForKey("readBufferSizeMB"));
  writeFile(scratch.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 6\n");
  EXPECT_EQ(6, integerForKey("readBufferSizeMB"));
}

}  // namespace
