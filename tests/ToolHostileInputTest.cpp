// Whole runs of the built program with what cards, drives and people can put in its way: odd names, names that are
// something else than they look, files that are the same file.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <ostream>

#include "tests/support/ClipOffload.h"
#include "tests/support/ExpectedText.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace {

namespace fs = std::filesystem;

using Names = std::vector<std::string>;
using Arguments = std::vector<std::string>;

// The offload of a small clip, whose name may be odd.
class Offload : public ClipOffload {
 public:
  explicit Offload(const std::string& clipName = "clip.mov") : ClipOffload(64 * KiB + 17, clipName), name(clipName) {}

  [[nodiscard]] std::string temporary() const { return destination + ".kdxcopy"; }
  [[nodiscard]] bool sourceIsIntact() const { return bytes == readFile(source); }
  [[nodiscard]] bool isCopy(const std::string& path) const { return bytes == readFile(path); }

  const std::string name;
};

// Row of a table whose rows are names of clips.
struct ClipName : NamedRow {
  std::string clip;
};

// The system log has a line for each message, whatever is in a path.
std::string shownOnOneLine(std::string path) {
  std::ranges::replace_if(
      path, [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
  return path;
}

class ToolClipNames : public testing::TestWithParam<ClipName> {};

TEST_P(ToolClipNames, AreTakenAsTheyAre) {
  const Offload offload(GetParam().clip);
  const ToolRun run = runTool({"-k", offload.source, offload.destination});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked, movedAndFlushed})), run.output);
  EXPECT_EQ("", run.errors);
  EXPECT_EQ((Names{"backup/" + offload.name, "card/" + offload.name}), offload.names());
  EXPECT_TRUE(offload.isCopy(offload.destination));
  EXPECT_TRUE(offload.sourceIsIntact());
}

TEST_P(ToolClipNames, AreShownAsTheyAreWhenTheyAreTaken) {
  const Offload offload(GetParam().clip);
  writeFile(offload.destination, "an earlier take");
  const ToolRun run = runTool({offload.source, offload.destination});
  EXPECT_EQ(109, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, "failed to perform copy\n"})), run.output);
  EXPECT_THAT(run.errors, EndsWith(shownOnOneLine(offload.destination) + " already exists\n"));
  EXPECT_EQ(1, std::ranges::count(run.errors, '\n'));
  EXPECT_EQ("an earlier take", readFile(offload.destination));
  EXPECT_EQ((Names{"backup/" + offload.name, "card/" + offload.name}), offload.names());
}

INSTANTIATE_TEST_SUITE_P(
    Odd, ToolClipNames,
    testing::Values(ClipName{"Spaces", " A001 C002 .mov "}, ClipName{"Quotes", "it's \"the\" `clip`.mov"},
                    ClipName{"Newline", "one\ntwo.mov"}, ClipName{"PercentSigns", "%n%s%d%99999999d%%.mov"},
                    ClipName{"Braces", "{}{0}{:d}}.mov"}, ClipName{"LeadingDash", "-k"}, ClipName{"TwoDashes", "--"},
                    ClipName{"Backslashes", "a\\b\\n\\.mov"},
                    ClipName{"ControlCharacters", "\x01\x07\b\t\r\x1b[31m\x7f.mov"},
                    ClipName{"Wildcards", "*?[a-z]~$HOME;&|<>.mov"}, ClipName{"Hidden", ".hidden"},
                    ClipName{"NoExtension", "clip"}, ClipName{"DotAtTheEnd", "clip."}, ClipName{"DotsAlone", "..."},
                    ClipName{"ManyExtensions", "a.b.c.d.mov"}, ClipName{"TheTemporaryExtension", "clip.mov.kdxcopy"},
                    ClipName{"OnlyTheTemporaryExtension", ".kdxcopy"},
                    ClipName{"Umlauts", "\u00dcbung \u00e9\u0301 \u6620\u753b \U0001f3ac.mov"},
                    ClipName{"Colon", "A:B:C.mov"}, ClipName{"FrameNumbers", "clip.[0001-0100].dpx"}),
    rowName);

TEST(ToolHostileInput, ANameThatLooksLikeAnOptionIsAPathBehindItsFolder) {
  const Offload offload("-k");
  const ToolRun run =
      runTool(ToolStart{.arguments = {"./-k", "./-f"}, .workingDirectory = offload.scratch.path() / "card"});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_EQ((Names{"card/-f", "card/-k"}), offload.names());
  EXPECT_TRUE(offload.isCopy(offload.scratch.path() / "card/-f"));
  // It was no option: the files were read back.
  EXPECT_THAT(run.output, HasSubstr("/card/./-f) ok.\n"));
}

// Row of a table whose rows are lengths.
struct Length {
  std::size_t bytes;
  int status;
};

void PrintTo(const Length& row, std::ostream* stream) {
  *stream << row.bytes;
}

class ToolNameLengths : public testing::TestWithParam<Length> {};

// A file system takes names of 255 bytes, of which the temporary extension needs eight.
TEST_P(ToolNameLengths, NeedRoomForTheTemporaryExtension) {
  const auto [length, status] = GetParam();
  const Offload offload;
  const std::string destination = offload.scratch.file("backup/" + std::string(length, 'n'));
  const ToolRun run = runTool({"-k", offload.source, destination});
  EXPECT_EQ(status, run.exitStatus);
  EXPECT_TRUE(offload.sourceIsIntact());
  if (status == 0) {
    EXPECT_EQ((Names{"backup/" + std::string(length, 'n'), "card/clip.mov"}), offload.names());
    EXPECT_TRUE(offload.isCopy(destination));
  } else {
    EXPECT_EQ(offload.filled(started), run.output);
    EXPECT_EQ(Names{"card/clip.mov"}, offload.names());
  }
}

INSTANTIATE_TEST_SUITE_P(AroundTheLimit, ToolNameLengths,
                         testing::Values(Length{246, 0}, Length{247, 0}, Length{248, 107}, Length{251, 107},
                                         Length{255, 107}, Length{256, 107}, Length{5000, 107}),
                         testing::PrintToStringParamName());

TEST(ToolHostileInput, ASourceNameOfTheFullLengthIsOffloadedToAShorterOne) {
  const Offload offload(std::string(255, 's'));
  const std::string destination = offload.scratch.file("backup/short");
  const ToolRun run = runTool({offload.source, destination});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_TRUE(offload.isCopy(destination));
}

class ToolPathLengths : public testing::TestWithParam<Length> {};

// The system takes paths of 4095 bytes.
TEST_P(ToolPathLengths, NeedRoomForTheTemporaryExtension) {
  const auto [length, status] = GetParam();
  const Offload offload;
  std::string destination = offload.scratch.file("backup/");
  while (destination.size() + 202 < length) destination += std::string(200, 'd') + "/";
  fs::create_directories(destination);
  destination += std::string(length - destination.size(), 'n');

  const ToolRun run = runTool({offload.source, destination});

  EXPECT_EQ(status, run.exitStatus);
  EXPECT_TRUE(offload.sourceIsIntact());
  EXPECT_EQ(status == 0 ? 2U : 1U, offload.names().size());
  if (status == 0) {
    EXPECT_TRUE(offload.isCopy(destination));
  } else {
    EXPECT_EQ(offload.filled(started), run.output);
  }
}

INSTANTIATE_TEST_SUITE_P(AroundTheLimit, ToolPathLengths,
                         testing::Values(Length{4086, 0}, Length{4087, 0}, Length{4088, 107}, Length{4095, 107}),
                         testing::PrintToStringParamName());

TEST(ToolHostileInput, ASourcePathThatIsTooLongForTheSystemIsNotReadable) {
  const Offload offload;
  std::string source = "/";
  while (source.size() < 5000) source += "folder/";
  source += "clip.mov";
  const ToolRun run = runTool({source, offload.destination});
  EXPECT_EQ(108, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("ERROR: could not open file at path: " + source + "\n"));
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "card/clip.mov"}), offload.names());
}

// What a temporary name can turn out to be.
struct Planted : NamedRow {
  void (*plant)(const Offload&);
};

std::string valuables(const Offload& offload) {
  return offload.scratch.file("valuables");
}

void plantSocket(const Offload& offload) {
  const int socket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  ASSERT_LT(offload.temporary().size(), sizeof address.sun_path);
  std::strcpy(address.sun_path, offload.temporary().c_str());
  EXPECT_EQ(0, ::bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address));
  ::close(socket);
}

class ToolPlantedTemporaryNames : public testing::TestWithParam<Planted> {};

TEST_P(ToolPlantedTemporaryNames, AreRefusedAndLeftAsTheyAre) {
  const Offload offload;
  writeFile(valuables(offload), "not to be lost");
  GetParam().plant(offload);
  if (!fs::exists(fs::symlink_status(offload.temporary()))) GTEST_SKIP() << "it can't be made here";
  struct stat before = {};
  ASSERT_EQ(0, ::lstat(offload.temporary().c_str(), &before));
  const Names names = offload.names();

  const ToolRun run = runTool({"-f", offload.source, offload.destination});

  EXPECT_EQ(107, run.exitStatus);
  EXPECT_EQ(offload.filled(started), run.output);
  struct stat after = {};
  ASSERT_EQ(0, ::lstat(offload.temporary().c_str(), &after));
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_mode, after.st_mode);
  EXPECT_EQ(names, offload.names());
  EXPECT_EQ("not to be lost", readFile(valuables(offload)));
  EXPECT_TRUE(offload.sourceIsIntact());
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ToolPlantedTemporaryNames,
    testing::Values(
        Planted{"LinkToAFile", [](const Offload& o) { fs::create_symlink(valuables(o), o.temporary()); }},
        Planted{"LinkToNothing", [](const Offload& o) { fs::create_symlink("none", o.temporary()); }},
        Planted{"LinkToTheSource", [](const Offload& o) { fs::create_symlink(o.source, o.temporary()); }},
        Planted{"SecondNameOfTheSource", [](const Offload& o) { fs::create_hard_link(o.source, o.temporary()); }},
        Planted{"Pipe", [](const Offload& o) { EXPECT_EQ(0, ::mkfifo(o.temporary().c_str(), 0600)); }},
        Planted{"Folder", [](const Offload& o) { fs::create_directory(o.temporary()); }},
        Planted{"FolderWithFiles",
                [](const Offload& o) { writeFile(o.scratch.file("backup/clip.mov.kdxcopy/take1"), "take 1"); }},
        Planted{"Socket", plantSocket},
        Planted{"Device",
                [](const Offload& o) { std::ignore = ::mknod(o.temporary().c_str(), S_IFCHR | 0600, makedev(1, 3)); }}),
    rowName);

TEST(ToolHostileInput, APipeWithAReaderAtTheTemporaryNameIsRefusedToo) {
  const Offload offload;
  ASSERT_EQ(0, ::mkfifo(offload.temporary().c_str(), 0600));
  const int reader = ::open(offload.temporary().c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  ASSERT_GE(reader, 0);
  const ToolRun run = runTool({offload.source, offload.destination});
  EXPECT_EQ(107, run.exitStatus);
  char byte = 0;
  EXPECT_EQ(0, ::read(reader, &byte, 1)) << "nothing was written into the pipe";
  ::close(reader);
}

TEST(ToolHostileInput, ASecondNameOfAnOldTemporaryFileKeepsItsContent) {
  const Offload offload;
  writeFile(valuables(offload), "not to be lost");
  fs::create_hard_link(valuables(offload), offload.temporary());
  const ToolRun run = runTool({"-k", offload.source, offload.destination});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked, movedAndFlushed})), run.output);
  EXPECT_EQ("not to be lost", readFile(valuables(offload)));
  EXPECT_TRUE(offload.isCopy(offload.destination));
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov", "valuables"}), offload.names());
}

TEST(ToolHostileInput, AFolderAtTheFinalNameIsRefused) {
  const Offload offload;
  writeFile(offload.scratch.file("backup/clip.mov/take1"), "take 1");
  const ToolRun run = runTool({offload.source, offload.destination});
  EXPECT_EQ(109, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, "failed to perform copy\n"})), run.output);
  EXPECT_EQ((Names{"backup/clip.mov/take1", "card/clip.mov"}), offload.names());
}

TEST(ToolHostileInput, AFolderAtTheFinalNameIsNotRemovedEvenWhenFilesMayBeReplaced) {
  const Offload offload;
  writeFile(offload.scratch.file("backup/clip.mov/take1"), "take 1");
  const ToolRun run = runTool({"-k", "-f", offload.source, offload.destination});
  EXPECT_EQ(21, run.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked, moving,
                                 "failed to remove {destination} before movingfailed to move {destination}.kdxcopy\n"
                                 "failed to move files in place\n"})),
            run.output);
  EXPECT_THAT(run.errors, HasSubstr(offload.destination));
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "backup/clip.mov/take1", "card/clip.mov"}), offload.names());
  EXPECT_EQ("take 1", readFile(offload.scratch.file("backup/clip.mov/take1")));
  EXPECT_TRUE(offload.isCopy(offload.temporary()));
}

TEST(ToolHostileInput, AnEmptyFolderAtTheFinalNameIsNotRemovedEither) {
  const Offload offload;
  fs::create_directory(offload.destination);
  EXPECT_EQ(21, runTool({"-f", offload.source, offload.destination}).exitStatus);
  EXPECT_TRUE(fs::is_directory(offload.destination));
}

// A destination that turns out to be the source, by whatever path.
using NamedPath = std::pair<std::string, std::string>;

class ToolSourceAsDestination : public testing::TestWithParam<NamedPath> {
 protected:
  ToolSourceAsDestination() {
    fs::create_directory_symlink(_offload.scratch.path() / "card", _offload.scratch.path() / "link");
    fs::create_hard_link(_offload.source, _offload.scratch.file("backup/second.mov"));
    _path = _offload.scratch.path().string() + GetParam().second;
  }

  Offload _offload;
  std::string _path;
};

TEST_P(ToolSourceAsDestination, IsTaken) {
  const Names before = _offload.names();
  const ToolRun run = runTool({_offload.source, _path});
  EXPECT_EQ(109, run.exitStatus);
  EXPECT_EQ(_offload.filled(text({started, "failed to perform copy\n"})), run.output);
  EXPECT_EQ(before, _offload.names());
  EXPECT_TRUE(_offload.sourceIsIntact());
}

TEST_P(ToolSourceAsDestination, IsNotRemovedEvenWhenFilesMayBeReplaced) {
  struct stat before = {};
  ASSERT_EQ(0, ::stat(_offload.source.c_str(), &before));
  const ToolRun run = runTool({"-f", _offload.source, _path});
  EXPECT_EQ(16, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("failed to remove " + _path + " before movingfailed to move " + _path +
                                   ".kdxcopy\nfailed to move files in place\n"));
  struct stat after = {};
  ASSERT_EQ(0, ::stat(_offload.source.c_str(), &after));
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(before.st_nlink, after.st_nlink);
  EXPECT_TRUE(_offload.sourceIsIntact());
}

INSTANTIATE_TEST_SUITE_P(Paths, ToolSourceAsDestination,
                         testing::Values(NamedPath{"TheSamePath", "/card/clip.mov"},
                                         NamedPath{"WithDots", "/backup/../card/./clip.mov"},
                                         NamedPath{"ThroughALinkedFolder", "/link/clip.mov"},
                                         NamedPath{"ASecondName", "/backup/second.mov"}),
                         [](const auto& row) { return row.param.first; });

TEST(ToolHostileInput, TheSourceAmongOtherDestinationsStaysAndTheOthersAreNotHarmed) {
  const Offload offload;
  const ToolRun run = runTool({"-k", "-f", offload.source, offload.destination, offload.source});
  EXPECT_EQ(16, run.exitStatus);
  EXPECT_TRUE(offload.sourceIsIntact());
  EXPECT_TRUE(offload.isCopy(offload.destination));
}

class ToolReplacing : public testing::TestWithParam<bool> {
 protected:
  // The arguments with "-f" in front when files may be replaced.
  static ToolRun run(Arguments arguments) {
    if (GetParam()) arguments.insert(arguments.begin(), "-f");
    return runTool(std::move(arguments));
  }
};

INSTANTIATE_TEST_SUITE_P(Files, ToolReplacing, testing::Bool(),
                         [](const auto& row) { return std::string(row.param ? "Replaced" : "NotReplaced"); });

TEST_P(ToolReplacing, ASourceThatIsItsOwnTemporaryNameIsNotEmptied) {
  const Offload offload("clip.mov.kdxcopy");
  const ToolRun done = run({offload.source, offload.scratch.path() / "card/clip.mov"});
  EXPECT_EQ(107, done.exitStatus);
  EXPECT_EQ(offload.filled(started), done.output);
  EXPECT_EQ(Names{"card/clip.mov.kdxcopy"}, offload.names());
  EXPECT_TRUE(offload.sourceIsIntact());
}

TEST_P(ToolReplacing, ASourceReachedThroughALinkIsNotEmptiedUnderItsTemporaryName) {
  const Offload offload("clip.mov.kdxcopy");
  const std::string link = offload.scratch.file("elsewhere/clip");
  fs::create_symlink(offload.source, link);
  const ToolRun done = run({link, offload.scratch.path() / "card/clip.mov"});
  EXPECT_EQ(107, done.exitStatus);
  EXPECT_EQ((Names{"card/clip.mov.kdxcopy", "elsewhere/clip"}), offload.names());
  EXPECT_TRUE(offload.sourceIsIntact());
}

TEST_P(ToolReplacing, ASourceReachedByASecondNameIsNotEmptiedUnderItsTemporaryName) {
  const Offload offload("clip.mov.kdxcopy");
  const std::string second = offload.scratch.file("elsewhere/clip");
  fs::create_hard_link(offload.source, second);
  const ToolRun done = run({second, offload.scratch.path() / "card/clip.mov"});
  EXPECT_EQ(107, done.exitStatus);
  EXPECT_EQ((Names{"card/clip.mov.kdxcopy", "elsewhere/clip"}), offload.names());
  EXPECT_TRUE(offload.sourceIsIntact());
  EXPECT_TRUE(offload.isCopy(second));
}

TEST_P(ToolReplacing, ADestinationGivenTwiceKeepsItsFirstCopyAndTheSecondFails) {
  const Offload offload;
  const ToolRun done = run({"-k", offload.source, offload.destination, offload.destination});
  EXPECT_EQ(1, done.exitStatus);
  EXPECT_EQ(offload.filled(text({started, hashed, sizeChecked, sizeChecked, moving,
                                 "failed to move {destination}.kdxcopy\n"
                                 "failed to move files in place\n"})),
            done.output);
  EXPECT_EQ("", done.errors);
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov"}), offload.names());
  EXPECT_TRUE(offload.isCopy(offload.destination));
}

TEST_P(ToolReplacing, ADestinationGivenTwiceIsReadBackTwiceAndKeepsItsFirstCopy) {
  const Offload offload;
  const ToolRun done =
      run({offload.source, offload.destination, offload.scratch.path().string() + "//backup/clip.mov"});
  EXPECT_EQ(1, done.exitStatus);
  EXPECT_THAT(done.output, HasSubstr("verify of destination file #1 (" + offload.destination + ") ok.\n"));
  EXPECT_THAT(done.output, HasSubstr("verify of destination file #2 ("));
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov"}), offload.names());
  EXPECT_TRUE(offload.isCopy(offload.destination));
}

TEST_P(ToolReplacing, ADestinationThatIsTheTemporaryNameOfTheOneBeforeItIsFreeWhenItsTurnComes) {
  const Offload offload;
  const ToolRun done = run({"-k", offload.source, offload.destination, offload.temporary()});
  EXPECT_EQ(0, done.exitStatus) << done.output;
  EXPECT_EQ((Names{"backup/clip.mov", "backup/clip.mov.kdxcopy", "card/clip.mov"}), offload.names());
  EXPECT_TRUE(offload.isCopy(offload.destination));
  EXPECT_TRUE(offload.isCopy(offload.temporary()));
}

TEST_P(ToolReplacing, ADestinationThatIsTheTemporaryNameOfTheOneBehindItIsNotMovedOverIt) {
  const Offload offload;
  const ToolRun done = run({"-k", offload.source, offload.temporary(), offload.destination});
  EXPECT_EQ(GetParam() ? 16 : 109, done.exitStatus);
  EXPECT_THAT(done.output, EndsWith("failed to move " + offload.temporary() +
                                    ".kdxcopy\n"
                                    "failed to move files in place\n"));
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "backup/clip.mov.kdxcopy.kdxcopy", "card/clip.mov"}), offload.names());
  EXPECT_TRUE(offload.isCopy(offload.temporary()));
  EXPECT_TRUE(offload.isCopy(offload.temporary() + ".kdxcopy"));
}

TEST(ToolHostileInput, ALinkToTheSourceAtTheFinalNameIsTaken) {
  const Offload offload;
  fs::create_symlink(offload.source, offload.destination);
  EXPECT_EQ(109, runTool({offload.source, offload.destination}).exitStatus);
  EXPECT_TRUE(fs::is_symlink(offload.destination));
  EXPECT_TRUE(offload.sourceIsIntact());
}

TEST(ToolHostileInput, ALinkToTheSourceAtTheFinalNameIsReplacedAndTheSourceStays) {
  const Offload offload;
  fs::create_symlink(offload.source, offload.destination);
  const ToolRun run = runTool({"-k", "-f", offload.source, offload.destination});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_FALSE(fs::is_symlink(offload.destination));
  EXPECT_TRUE(offload.isCopy(offload.destination));
  EXPECT_TRUE(offload.sourceIsIntact());
}

TEST(ToolHostileInput, ALinkToNothingAtTheFinalNameIsTakenAndReplacedOnlyWhenThatIsAskedFor) {
  const Offload offload;
  fs::create_symlink("none", offload.destination);
  EXPECT_EQ(109, runTool({offload.source, offload.destination}).exitStatus);
  EXPECT_TRUE(fs::is_symlink(offload.destination));
  EXPECT_EQ(0, runTool({"-f", offload.source, offload.destination}).exitStatus);
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov"}), offload.names());
  EXPECT_TRUE(offload.isCopy(offload.destination));
}

TEST(ToolHostileInput, ASourceThatIsALinkIsCopiedAsTheFileItLeadsTo) {
  const Offload offload;
  const std::string link = offload.scratch.file("elsewhere/clip.mov");
  fs::create_symlink(offload.source, link);
  const ToolRun run = runTool({link, offload.destination});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_FALSE(fs::is_symlink(offload.destination));
  EXPECT_TRUE(offload.isCopy(offload.destination));
}

TEST(ToolHostileInput, AReadOnlyVolumeTakesNoTemporaryFileAndKeepsWhatItHas) {
  std::string whyNot;
  const auto volume = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!volume) GTEST_SKIP() << whyNot;
  const Offload offload;
  const std::string second = volume->file("clip.mov");
  writeFile(second, "an earlier take");
  ASSERT_EQ(0, ::mount(nullptr, volume->path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));

  const ToolRun run = runTool({"-f", offload.source, offload.destination, second});

  EXPECT_EQ(107, run.exitStatus);
  EXPECT_EQ(offload.filled(started), run.output);
  EXPECT_EQ("an earlier take", readFile(second));
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "card/clip.mov"}), offload.names());
}

TEST(ToolHostileInput, ASourceOnAReadOnlyVolumeIsOffloaded) {
  std::string whyNot;
  const auto card = MountedFileSystem::mount("tmpfs", MiB, whyNot);
  if (!card) GTEST_SKIP() << whyNot;
  const Offload offload;
  const std::string source = card->file("clip.mov");
  writeFile(source, offload.bytes);
  ASSERT_EQ(0, ::mount(nullptr, card->path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr));
  const ToolRun run = runTool({source, offload.destination});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  EXPECT_TRUE(offload.isCopy(offload.destination));
}

// A pipe that nobody reads any more, as descriptor 9.
class PipeWithoutReader {
 public:
  PipeWithoutReader() {
    int ends[2] = {-1, -1};
    EXPECT_EQ(0, ::pipe(ends));
    EXPECT_EQ(9, ::dup2(ends[1], 9));
    ::close(ends[0]);
    ::close(ends[1]);
  }
  ~PipeWithoutReader() { ::close(9); }
  PipeWithoutReader(const PipeWithoutReader&) = delete;
  PipeWithoutReader& operator=(const PipeWithoutReader&) = delete;
};

TEST(ToolHostileInput, AnOffloadWhoseReaderIsGoneIsBroughtToItsEnd) {
  const Offload offload;
  const PipeWithoutReader pipe;
  ::signal(SIGPIPE, SIG_DFL);  // whatever the one who runs the tests has made of it
  const ToolRun run = runTool(
      ToolStart{.arguments = {offload.source, offload.destination}, .wrapper = {"sh", "-c", "exec \"$0\" \"$@\" >&9"}});
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.errors);
  EXPECT_TRUE(offload.isCopy(offload.destination));
  EXPECT_EQ((Names{"backup/clip.mov", "card/clip.mov"}), offload.names());
}

TEST(ToolHostileInput, AFailedOffloadWhoseReadersAreGoneStillTellsItsStatus) {
  const Offload offload;
  const PipeWithoutReader pipe;
  ::signal(SIGPIPE, SIG_DFL);
  const ToolRun run = runTool(ToolStart{.arguments = {"-e", "MD5:abc", offload.source, offload.destination},
                                        .wrapper = {"sh", "-c", "exec \"$0\" \"$@\" >&9 2>&9"}});
  EXPECT_EQ(103, run.exitStatus);
  EXPECT_EQ((Names{"backup/clip.mov.kdxcopy", "card/clip.mov"}), offload.names());
}

// The limit is that of a caller who is short of space: 2048 blocks of 512 bytes, which the second buffer is beyond.
TEST(ToolHostileInput, AFileThatMayNotGrowFurtherIsAFailedWrite) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("clip.mov");
  writeFile(source, mediaBytes(2 * MiB));
  writeFile(scratch.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
  ToolStart start{.arguments = {"-n", source, scratch.file("backup/clip.mov")},
                  .wrapper = {"sh", "-c", "ulimit -f 2048; exec \"$0\" \"$@\""},
                  .environment = {{"XDG_CONFIG_HOME", scratch.path()}}};
  const ToolRun run = runTool(start);
  EXPECT_EQ(110, run.exitStatus);
  EXPECT_THAT(run.output, EndsWith("write failed: -1"));
  EXPECT_FALSE(fs::exists(scratch.path() / "backup/clip.mov"));
  start.wrapper.clear();
  EXPECT_EQ(0, runTool(start).exitStatus);
}

class ToolModes : public testing::TestWithParam<std::pair<std::string, mode_t>> {};

TEST_P(ToolModes, AreThoseThatTheCallersMaskLeaves) {
  const Offload offload;
  ASSERT_EQ(0, ::chmod(offload.source.c_str(), 0755));
  const ToolRun run = runTool(ToolStart{.arguments = {offload.source, offload.destination},
                                        .wrapper = {"sh", "-c", "umask " + GetParam().first + "; exec \"$0\" \"$@\""}});
  EXPECT_EQ(0, run.exitStatus) << run.output;
  struct stat facts = {};
  ASSERT_EQ(0, ::stat(offload.destination.c_str(), &facts));
  EXPECT_EQ(GetParam().second, facts.st_mode & 07777);
  EXPECT_TRUE(offload.isCopy(offload.destination));
}

INSTANTIATE_TEST_SUITE_P(Masks, ToolModes,
                         testing::Values(std::pair<std::string, mode_t>{"000", 0666},
                                         std::pair<std::string, mode_t>{"022", 0644},
                                         std::pair<std::string, mode_t>{"077", 0600}),
                         [](const auto& row) { return row.param.first; });

// Even a file that its owner may not open again once it is closed is flushed or reported, never passed over.
TEST(ToolHostileInput, AFinalFileThatCanNotBeOpenedAgainIsAFailedFlush) {
  if (!haveProgram("setpriv") || ::geteuid() != 0) GTEST_SKIP() << "giving up root's rights needs root and setpriv";
  const Offload offload;
  for (const char* folder : {".", "card", "backup"}) fs::permissions(offload.scratch.path() / folder, fs::perms::all);
  // A copy of the tool: others may not be let into the folder that it was built in.
  const std::string tool = offload.scratch.file("tool");
  fs::copy_file(toolPath(), tool);
  ToolStart start{.arguments = {"-n", offload.source, offload.destination},
                  .wrapper = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "sh", "-c",
                              "umask 0377; exec " + tool + " \"$@\""}};
  const ToolRun run = runTool(start);
  EXPECT_EQ(106, run.exitStatus);
  EXPECT_THAT(run.output,
              EndsWith("Error: couldn't sync the file system of file " + offload.destination + " (error code -1)\n"));
  fs::remove(offload.destination);
  start.wrapper.back() = "umask 022; exec " + tool + " \"$@\"";
  EXPECT_EQ(0, runTool(start).exitStatus);
}

class ToolHugeBuffers : public testing::TestWithParam<const char*> {};

TEST_P(ToolHugeBuffers, EndTheRunWithAMessageAndGiveNoFinalName) {
  const Offload offload;
  const ScratchDirectory settings;
  writeFile(settings.file("kdxdispatchcopy/defaults.ini"), std::string("readBufferSizeMB = ") + GetParam() + "\n");
  const ToolRun run = runTool(ToolStart{.arguments = {offload.source, offload.destination},
                                        .environment = {{"XDG_CONFIG_HOME", settings.path()},
                                                        {"ASAN_OPTIONS", "allocator_may_return_null=1"},
                                                        {"TSAN_OPTIONS", "allocator_may_return_null=1"}}});
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_EQ(offload.filled(started), run.output);
  EXPECT_THAT(run.errors, StartsWith(std::string("kdxdispatchcopy: KDXReadFile buffer size ")));
  EXPECT_THAT(run.errors, HasSubstr("kdxdispatchcopy: could not get "));
  EXPECT_EQ(0, std::ranges::count(offload.names(), "backup/clip.mov"));
  EXPECT_TRUE(offload.sourceIsIntact());
}

INSTANTIATE_TEST_SUITE_P(Mebibytes, ToolHugeBuffers,
                         testing::Values("1000000000000", "8796093022207", "8796093022208", "9223372036854775807",
                                         "99999999999999999999999"));

}  // namespace
