// Whole runs to and from kinds of file system that not every system can mount: each is a file system of the tests' own that
// lacks what that kind lacks.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/FileSystemProfiles.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace fs = std::filesystem;

namespace {

using Names = std::vector<std::string>;
using Options = std::vector<std::string>;
using testing::AnyOf;

const std::vector<Options> allOptions{{}, {"-k"}, {"-n"}, {"-f"}, {"-nf"}};
constexpr const char* olderTake = "an older take";

// What one run offloads.
struct Media {
  Options options;          // that say what it is
  std::string source;       // below the folder of the card
  std::string destination;  // below that of the destination
  std::map<std::string, std::string> files;
};

Media clip(const std::string& name = "clip.mov", std::size_t size = MiB + 4096 + 17) {
  return {.options = {}, .source = name, .destination = name, .files = {{name, mediaBytes(size)}}};
}

Media sequence() {
  return {.options = {"-s"},
          .source = "f_1-3.#.dpx",
          .destination = "frames",
          .files = {{"f_1.dpx", mediaBytes(70'001, 1)}, {"f_2.dpx", ""}, {"f_3.dpx", mediaBytes(4096, 3)}}};
}

void writeInto(const fs::path& folder, const Media& media) {
  fs::create_directories(folder);
  for (const auto& [name, bytes] : media.files) writeFile(folder / name, bytes);
}

void writeOlderTakes(const fs::path& folder, const Media& media) {
  fs::create_directories(folder);
  for (const auto& [name, bytes] : media.files) writeFile(folder / name, olderTake);
}

// All of it is there, and nothing else.
void expectIn(const fs::path& folder, const Media& media) {
  std::map<std::string, std::string> found;
  for (const std::string& name : namesBelow(folder)) found[name] = readFile(folder / name);
  EXPECT_TRUE(found == media.files) << folder << " holds " << testing::PrintToString(namesBelow(folder));
}

void expectOlderTakesIn(const fs::path& folder, const Media& media) {
  for (const auto& [name, bytes] : media.files) EXPECT_EQ(olderTake, readFile(folder / name));
}

class FileSystemProfiles : public testing::TestWithParam<FileSystemProfile> {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
    server = std::make_unique<FaultyFileSystem>(scratch.path());
    behaveAs(GetParam(), *server);
    writeFile(scratch.file("settings/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
  }

  [[nodiscard]] ToolRun offload(const Media& media, const fs::path& card, const std::vector<fs::path>& folders,
                                Options arguments) const {
    arguments.insert(arguments.end(), media.options.begin(), media.options.end());
    arguments.push_back(card / media.source);
    for (const fs::path& folder : folders) {
      fs::create_directories(folder);
      arguments.push_back(folder / media.destination);
    }
    return runTool({.arguments = std::move(arguments), .environment = {{"XDG_CONFIG_HOME", scratch.file("settings")}}});
  }

  // The job of one run of the tool up to its proof.
  [[nodiscard]] static std::shared_ptr<KDXDispatchCopy> provedJob(const std::string& source,
                                                                  const std::string& destination) {
    const auto job = KDXDispatchCopy::initWithSourceURL(platform::FileURL(source));
    job->addDestinationURL(platform::FileURL(destination));
    job->setDigestAlgorithm(KDXDigestAlgorithmMD5);
    job->setVerificationOptions(14);
    EXPECT_TRUE(job->performCopy(nullptr) && job->startVerification(nullptr) && job->finishVerification(nullptr));
    return job;
  }

  [[nodiscard]] fs::path here(const std::string& name) const { return scratch.file(name); }
  [[nodiscard]] fs::path there(const std::string& name) const { return server->path(name); }

  // Offloads everything with all options from the card to folders of which each run gets new ones.
  void expectOffloaded(const fs::path& card, const std::vector<fs::path>& volumes) const {
    int number = 0;
    for (const Media& media : {clip(), clip("nothing.mov", 0), sequence()}) {
      writeInto(card / media.destination, media);
      for (const Options& options : allOptions) {
        SCOPED_TRACE(media.destination + testing::PrintToString(options));
        std::vector<fs::path> folders;
        for (const fs::path& volume : volumes) folders.push_back(volume / std::to_string(++number));
        if (options == Options{"-f"}) writeOlderTakes(folders.front(), media);
        const ToolRun run = offload(media, card / media.destination, folders, options);
        EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
        for (const fs::path& folder : folders) expectIn(folder, media);
        expectIn(card / media.destination, media);
      }
    }
  }

  ScratchDirectory scratch;
  std::unique_ptr<FaultyFileSystem> server;
};

TEST_P(FileSystemProfiles, IsOffloadedToBesideAnother) {
  expectOffloaded(here("card"), {there("backup"), here("backup")});
}

TEST_P(FileSystemProfiles, IsOffloadedFrom) {
  expectOffloaded(there("card"), {here("backup")});
}

TEST_P(FileSystemProfiles, IsOffloadedFromToItself) {
  expectOffloaded(there("card"), {there("backup")});
}

TEST_P(FileSystemProfiles, KeepsWhatStandsAtATakenName) {
  for (const Media& media : {clip(), sequence()}) {
    SCOPED_TRACE(media.destination);
    writeInto(here("card"), media);
    writeOlderTakes(there(media.destination), media);

    const ToolRun run = offload(media, here("card"), {here(media.destination), there(media.destination)}, {});

    EXPECT_EQ(109, run.exitStatus) << run.output;
    expectOlderTakesIn(there(media.destination), media);
  }
}

TEST_P(FileSystemProfiles, KeepsWhatAppearsAtTheFinalNameBeforeTheMove) {
  const Media media = clip();
  writeInto(here("card"), media);
  const auto job = provedJob(here("card/clip.mov"), there("clip.mov"));
  writeFile(there("clip.mov"), olderTake);

  std::optional<platform::Error> error;
  EXPECT_FALSE(job->moveFilesInPlace(&error));

  ASSERT_TRUE(error);
  EXPECT_EQ(static_cast<int>(ExitStatus::finalNameTaken), error->code);
  EXPECT_EQ(olderTake, readFile(there("clip.mov")));
  EXPECT_EQ(media.files.at("clip.mov"), readFile(there("clip.mov.kdxcopy")));
}

TEST_P(FileSystemProfiles, GivesNoFinalNameOnAFullDevice) {
  server->whenWriting("backup/*").runOutOfSpaceAfter(64 * KiB);
  for (const Media& media : {clip(), sequence()}) {
    writeInto(here("card") / media.destination, media);
    for (const Options& options : {Options{}, Options{"-k", "-nf"}}) {
      SCOPED_TRACE(media.destination + testing::PrintToString(options));
      fs::remove_all(there("backup"));

      const ToolRun run = offload(media, here("card") / media.destination, {there("backup")}, options);

      // What was taken in part is found by the check of sizes or when it is read back.
      EXPECT_THAT(run.exitStatus, AnyOf(104, 105, 110)) << run.output;
      for (const auto& [name, bytes] : media.files) EXPECT_FALSE(fs::exists(there("backup") / name)) << name;
    }
  }
}

// The temporary name is eight bytes longer, and no name has more than 255.
TEST_P(FileSystemProfiles, TakesNamesUpTo247Bytes) {
  const std::string longest = "Übung in Köln " + std::string(227, 'k') + ".mov";
  ASSERT_EQ(247U, longest.size());
  const Media media = clip(longest, 17);
  writeInto(here("card"), media);

  const ToolRun run = offload(media, here("card"), {there("backup"), here("backup")}, {});

  EXPECT_EQ(0, run.exitStatus) << run.output;
  expectIn(there("backup"), media);
}

TEST_P(FileSystemProfiles, RefusesNamesOf248Bytes) {
  const Media media = clip(std::string(244, 'k') + ".mov", 17);
  writeInto(here("card"), media);

  const ToolRun run = offload(media, here("card"), {there("backup")}, {});

  EXPECT_EQ(107, run.exitStatus) << run.output;
  EXPECT_EQ(Names(), namesBelow(there("backup")));
}

INSTANTIATE_TEST_SUITE_P(Kinds, FileSystemProfiles, testing::ValuesIn(fileSystemProfiles()), rowName);

// --- Two runs ---

class ProfilesThatKeepTheNumbersOfOpenFiles : public FileSystemProfiles {};

TEST_P(ProfilesThatKeepTheNumbersOfOpenFiles, ShowThatASecondRunReplacedTheTemporaryFileBeforeTheMove) {
  writeInto(here("card"), clip());
  writeFile(here("card/other.mov"), mediaBytes(MiB, 2));
  const auto first = provedJob(here("card/clip.mov"), there("clip.mov"));
  const auto second = provedJob(here("card/other.mov"), there("clip.mov"));

  EXPECT_FALSE(first->moveFilesInPlace(nullptr));
  EXPECT_FALSE(fs::exists(there("clip.mov")));

  EXPECT_TRUE(second->moveFilesInPlace(nullptr));
  EXPECT_EQ(readFile(here("card/other.mov")), readFile(there("clip.mov")));
}

INSTANTIATE_TEST_SUITE_P(Kinds, ProfilesThatKeepTheNumbersOfOpenFiles,
                         testing::ValuesIn(profilesWith([](const FileSystemProfile& profile) {
                           return profile.numbers != FileSystemProfile::Numbers::untilRenamed;
                         })),
                         rowName);

// --- Errors of writes that come late ---

// How a server tells late that it did not take what was written.
constexpr std::array lateErrors{EIO, ENOSPC, EDQUOT, ESTALE};

class ProfilesThatTellOfWritesLate : public FileSystemProfiles {
 protected:
  // Offloads a clip and a sequence with each of the options. Each run gets the next of the errors, told once, as systems
  // do, of the file that is written last.
  template <class Fault>
  void expectFailures(int status, const std::vector<Options>& optionsOfRuns, Fault fault) {
    std::size_t number = 0;
    for (const Media& media : {clip(), sequence()}) {
      writeInto(here("card") / media.destination, media);
      for (const Options& options : optionsOfRuns) {
        const int error = lateErrors.at(number++ % lateErrors.size());
        SCOPED_TRACE(media.destination + testing::PrintToString(options) + ::strerrorname_np(error));
        expectFailure(status, media, options, [&](const std::string& file) { return fault(file, error); });
      }
    }
  }

 private:
  template <class Fault>
  void expectFailure(int status, const Media& media, const Options& options, Fault fault) {
    const fs::path folder = there("backup");
    fs::remove_all(folder);
    fs::create_directory(folder);
    const bool replaces = options == Options{"-f"};
    if (replaces) writeOlderTakes(folder, media);
    const auto number = fault("backup/" + media.files.rbegin()->first + ".kdxcopy");

    const ToolRun run = offload(media, here("card") / media.destination, {folder}, options);

    EXPECT_EQ(status, run.exitStatus) << run.output;
    EXPECT_EQ(1U, server->timesFired(number));
    server->remove(number);
    for (const auto& [name, bytes] : media.files) EXPECT_EQ(replaces, fs::exists(folder / name)) << name;
    if (replaces) expectOlderTakesIn(folder, media);
    expectIn(here("card") / media.destination, media);
  }
};

TEST_P(ProfilesThatTellOfWritesLate, AnErrorOfTheSyncBeforeTheMoveGivesNoFinalName) {
  expectFailures(106, {{}, {"-k"}, {"-n"}, {"-f"}},
                 [&](const std::string& file, int error) { return server->whenSyncing(file).times(1).fail(error); });
}

TEST_P(ProfilesThatTellOfWritesLate, AnErrorOfTheSyncOfWhatWentThroughTheCacheGivesNoFinalName) {
  server->whenWriting("*").refuseDirect();
  expectFailures(110, allOptions,
                 [&](const std::string& file, int error) { return server->whenSyncing(file).times(1).fail(error); });
}

TEST_P(ProfilesThatTellOfWritesLate, AnErrorOfTheCloseGivesNoFinalName) {
  expectFailures(110, allOptions,
                 [&](const std::string& file, int error) { return server->whenClosing(file).times(1).fail(error); });
}

INSTANTIATE_TEST_SUITE_P(Kinds, ProfilesThatTellOfWritesLate,
                         testing::ValuesIn(profilesWith([](const FileSystemProfile& profile) {
                           return profile.tellsOfWritesLate;
                         })),
                         rowName);

// --- Names that differ in case alone ---

class ProfilesThatIgnoreCase : public FileSystemProfiles {
 protected:
  // Success with everything in place, or a failure that lost nothing.
  void expectSafe(const ToolRun& run, const Media& media, const fs::path& folder, bool hadOlderTakes) const {
    for (const auto& [name, bytes] : media.files) {
      const fs::path file = folder / name;
      const bool isThere = fs::exists(file);
      EXPECT_TRUE(isThere || !hadOlderTakes) << name << " is gone";
      if (isThere) {
        const std::string found = readFile(file);
        EXPECT_TRUE(found == bytes || (hadOlderTakes && run.exitStatus != 0 && found == olderTake)) << name;
      }
      EXPECT_TRUE(isThere || run.exitStatus != 0) << name << " is missing\n" << run.output;
    }
    expectIn(here("card"), media);
  }
};

TEST_P(ProfilesThatIgnoreCase, TwoDestinationsThatAreOneFileLoseNothing) {
  for (const bool hadOlderTakes : {false, true}) {
    for (const Options& options : allOptions) {
      SCOPED_TRACE(testing::PrintToString(options) + (hadOlderTakes ? " over an older take" : ""));
      const Media media = clip();
      writeInto(here("card"), media);
      fs::remove_all(there("backup"));
      fs::create_directory(there("backup"));
      if (hadOlderTakes) writeOlderTakes(there("backup"), media);
      Options arguments = options;
      arguments.insert(arguments.end(), {here("card/clip.mov"), there("backup/Clip.mov"), there("backup/clip.MOV")});

      const ToolRun run = runTool(arguments);

      expectSafe(run, media, there("backup"), hadOlderTakes);
    }
  }
}

TEST_P(ProfilesThatIgnoreCase, TwoFoldersOfFramesThatAreOneLoseNothing) {
  const Media media = sequence();
  writeInto(here("card"), media);
  for (const bool hadOlderTakes : {false, true}) {
    for (const Options& options : allOptions) {
      SCOPED_TRACE(testing::PrintToString(options) + (hadOlderTakes ? " over older takes" : ""));
      fs::remove_all(there("backup"));
      fs::create_directory(there("backup"));
      if (hadOlderTakes) writeOlderTakes(there("backup"), media);

      const ToolRun run = offload(media, here("card"), {there("backup"), there("Backup")}, options);

      expectSafe(run, media, there("backup"), hadOlderTakes);
    }
  }
}

TEST_P(ProfilesThatIgnoreCase, ASourceThatHasTheTemporaryNameInOtherLettersIsKept) {
  for (const Options& options : allOptions) {
    SCOPED_TRACE(testing::PrintToString(options));
    const std::string bytes = mediaBytes(70'001);
    writeFile(there("clip.mov.KDXCOPY"), bytes);
    Options arguments = options;
    arguments.insert(arguments.end(), {there("clip.mov.KDXCOPY"), there("clip.mov")});

    const ToolRun run = runTool(arguments);

    EXPECT_EQ(107, run.exitStatus) << run.output;
    ASSERT_TRUE(fs::exists(there("clip.mov.KDXCOPY")));
    EXPECT_TRUE(bytes == readFile(there("clip.mov.KDXCOPY")));
  }
}

TEST_P(ProfilesThatIgnoreCase, ASourceThatIsTheDestinationInOtherLettersIsKept) {
  for (const Options& options : allOptions) {
    SCOPED_TRACE(testing::PrintToString(options));
    const std::string bytes = mediaBytes(70'001);
    writeFile(there("clip.mov"), bytes);
    Options arguments = options;
    arguments.insert(arguments.end(), {there("clip.mov"), there("CLIP.mov")});

    const ToolRun run = runTool(arguments);

    const bool isRefused = run.exitStatus == 109 || run.exitStatus == EBUSY;
    // Where its numbers do not tell, the file may be replaced by its own proved copy.
    const bool isReplaced = run.exitStatus == 0 && GetParam().numbers == FileSystemProfile::Numbers::untilRenamed;
    EXPECT_TRUE(isRefused || isReplaced) << run.exitStatus << " " << run.output;
    ASSERT_TRUE(fs::exists(there("clip.mov")));
    EXPECT_TRUE(bytes == readFile(there("clip.mov")));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ProfilesThatIgnoreCase,
    testing::ValuesIn(profilesWith([](const FileSystemProfile& profile) { return profile.ignoresCase; })), rowName);

}  // namespace
