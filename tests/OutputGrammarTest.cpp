// What real runs print has the forms that docs/output.md promises to the applications that read it, and no others.

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>

#include "tests/support/ClipOffload.h"
#include "tests/support/ExpectedText.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/OutputGrammar.h"
#include "tests/support/OutputLines.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"
#include "tests/support/TracedTool.h"

using testing::HasSubstr;

namespace {

namespace fs = std::filesystem;

using Arguments = std::vector<std::string>;

constexpr std::size_t clipSize = 3 * MiB + 4096 + 17;
constexpr std::size_t frameCount = 3;

const OutputGrammar& grammar() {
  static const OutputGrammar ofThePage = OutputGrammar::ofDocument();
  return ofThePage;
}

std::string frameName(std::size_t number) {
  return fmt::format("p.{:04}.dpx", number);
}

// A card with a clip and a sequence, and two folders, a and b. The folder that holds them may be on any file system.
class Card {
 public:
  explicit Card(fs::path root) : _root(std::move(root)) {
    for (const char* folder : {"card", "a", "b"}) fs::create_directory(_root / folder);
    writeFile(path("card/clip.mov"), mediaBytes(clipSize));
    for (std::size_t number = 1; number <= frameCount; ++number) {
      writeFile(path("card/" + frameName(number)), mediaBytes(MiB + 17, static_cast<uint32_t>(number)));
    }
  }

  [[nodiscard]] std::string path(const std::string& name) const { return _root / name; }

 private:
  fs::path _root;
};

// A command line, and what the forms of its output depend on.
struct Offload {
  RunKind kind;
  ToolStart start;
};

// The words behind the options are paths below the card's folder; "*" stands for the frames of its sequence.
Offload offloadOf(const Card& card, const Arguments& options, const Arguments& paths) {
  Offload offload;
  offload.start.arguments = options;
  for (const std::string& option : options) offload.kind.options.insert(option);
  offload.kind.frames = offload.kind.options.contains("-s") ? frameCount : 0;
  for (const std::string& name : paths) {
    offload.start.arguments.push_back(name == "*" ? card.path("card/p.1-3.####.dpx") : card.path(name));
  }
  offload.kind.destinations = paths.empty() ? 0 : paths.size() - 1;
  return offload;
}

Offload clipTo(const Card& card, const Arguments& destinations, const Arguments& options = {}) {
  Arguments paths{"card/clip.mov"};
  for (const std::string& folder : destinations) paths.push_back(folder + "/clip.mov");
  return offloadOf(card, options, paths);
}

Offload framesTo(const Card& card, const Arguments& destinations, const Arguments& options = {}) {
  Arguments all = options;
  all.emplace_back("-s");
  Arguments paths{"*"};
  for (const std::string& folder : destinations) paths.push_back(folder + "/frames");
  return offloadOf(card, all, paths);
}

// Small buffers: a file is several of them.
ToolRun run(Offload offload) {
  const ScratchDirectory settings;
  writeFile(settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
  offload.start.environment["XDG_CONFIG_HOME"] = settings.path();
  return runTool(offload.start);
}

void expectOfTheForm(int exitStatus, const Offload& offload, const ToolRun& run) {
  EXPECT_EQ(exitStatus, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ("", grammar().faultOfOutput(run.output, run.exitStatus, offload.kind));
  EXPECT_EQ("", grammar().faultOf(run.errors, "errors", offload.kind));
}

void expectEnd(int exitStatus, const Offload& offload) {
  expectOfTheForm(exitStatus, offload, run(offload));
}

class OutputGrammarTest : public testing::Test {
 protected:
  ScratchDirectory scratch;
  Card card{scratch.path()};
};

// --- The page itself ---

TEST(OutputGrammarPage, NamesNoRuleThatIsMissing) {
  const RunKind kinds[] = {{.options = {}, .destinations = 2, .frames = 3},
                           {.options = {"-v", "-k", "-n", "-ns", "-nf", "-nfs"}, .destinations = 2, .frames = 3}};
  for (const auto& [name, forms] : grammar().rules()) {
    for (const RunKind& kind : kinds) {
      EXPECT_NE("", grammar().faultOf("no run prints this\n", name, kind)) << name;
    }
  }
}

TEST(OutputGrammarPage, HasAFormForEveryStatusThatIsListed) {
  for (const int status : {0, 1, 103, 104, 105, 106, 107, 108, 109, 110, 111, 121, 134}) {
    EXPECT_TRUE(grammar().hasRule("exit-" + std::to_string(status))) << status;
  }
}

// --- Runs that come to their end ---

struct Success : NamedRow {
  const char* options[5];  // up to the first null
  std::size_t destinations = 2;
};

Arguments optionsOf(const Success& row) {
  return {row.options, std::ranges::find(row.options, nullptr)};
}

Arguments destinationsOf(const Success& row) {
  const Arguments all{"a", "b"};
  return {all.begin(), all.begin() + static_cast<std::ptrdiff_t>(row.destinations)};
}

// The run of the row, of a clip or of frames.
Offload offloadOf(const Card& card, const Success& row, bool ofFrames) {
  const auto make = ofFrames ? framesTo : clipTo;
  return make(card, destinationsOf(row), optionsOf(row));
}

class OutputOfSuccess : public testing::TestWithParam<std::tuple<Success, bool>> {};

TEST_P(OutputOfSuccess, HasTheForm) {
  const auto& [row, ofFrames] = GetParam();
  const ScratchDirectory scratch;
  expectEnd(0, offloadOf(Card(scratch.path()), row, ofFrames));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, OutputOfSuccess,
    testing::Combine(testing::Values(Success{"Plain", {}}, Success{"OneDestination", {}, 1},
                                     Success{"WithoutDestination", {"-j"}, 0},
                                     Success{"WithoutDestinationVerbose", {"-j", "-v"}, 0},
                                     Success{"WithoutDestinationAndReadBack", {"-j", "-k"}, 0},
                                     Success{"Verbose", {"-v"}}, Success{"NoReadBack", {"-k"}},
                                     Success{"NoReadBackVerbose", {"-k", "-v"}}, Success{"NoDigest", {"-n"}},
                                     Success{"NoDigestVerbose", {"-n", "-v"}}, Success{"SourceNotReadBack", {"-ns"}},
                                     Success{"SourceNotReadBackVerbose", {"-ns", "-v"}}, Success{"NoFlush", {"-nf"}},
                                     Success{"NoSizes", {"-nfs"}}, Success{"SHA1", {"-t", "sha1"}},
                                     Success{"XXHash64BE", {"-t", "xxhash64be"}}),
                     testing::Bool()),
    [](const auto& row) {
      return std::string(std::get<0>(row.param).name) + (std::get<1>(row.param) ? "OfFrames" : "OfAClip");
    });

TEST_F(OutputGrammarTest, OfAGivenSizeThatIsNotComparedOnDisk) {
  Offload offload = clipTo(card, {"a", "b"}, {"-k", "-nfs"});
  offload.start.arguments.insert(offload.start.arguments.begin(), {"-a", std::to_string(clipSize)});
  expectEnd(0, offload);
}

TEST_F(OutputGrammarTest, OfAnExternalHashThatAgrees) {
  Offload offload = clipTo(card, {"a"}, {"-k"});
  offload.start.arguments.insert(offload.start.arguments.begin(),
                                 {"-e", "SHA1:" + digestByProgram("sha1sum", card.path("card/clip.mov"))});
  expectEnd(0, offload);
}

TEST_F(OutputGrammarTest, OfProgress) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  FaultyFileSystem slow(scratch.path());
  const Card slowCard(slow.root());
  slow.slowDown("*", std::chrono::milliseconds(150));
  const Offload offload = clipTo(slowCard, {"a", "b"}, {"-v"});

  const ToolRun ended = run(offload);

  expectOfTheForm(0, offload, ended);
  EXPECT_THAT(ended.output, HasSubstr("INFO: copied ")) << "no line of progress was printed";
  EXPECT_THAT(ended.output, HasSubstr("INFO: verified ")) << "no line of progress was printed";
}

TEST_F(OutputGrammarTest, OfProgressOfFrames) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  FaultyFileSystem slow(scratch.path());
  const Card slowCard(slow.root());
  slow.slowDown("*", std::chrono::milliseconds(150));
  const Offload offload = framesTo(slowCard, {"a", "b"}, {"-v"});

  const ToolRun ended = run(offload);

  expectOfTheForm(0, offload, ended);
  EXPECT_THAT(ended.output, HasSubstr("INFO: copied ")) << "no line of progress was printed";
  EXPECT_THAT(ended.output, HasSubstr("INFO: verified ")) << "no line of progress was printed";
}

// --- Command lines that are refused, and other ends with status 1 ---

struct Refusal : NamedRow {
  const char* words[5];  // up to the first null
};

class OutputOfRefusal : public testing::TestWithParam<Refusal> {};

TEST_P(OutputOfRefusal, HasTheForm) {
  const Refusal& row = GetParam();
  Offload offload;
  offload.start.arguments = {row.words, std::ranges::find(row.words, nullptr)};
  expectEnd(1, offload);
}

INSTANTIATE_TEST_SUITE_P(Kinds, OutputOfRefusal,
                         testing::Values(Refusal{"NothingGiven", {}}, Refusal{"NoDestination", {"/x/clip.mov"}},
                                         Refusal{"NoSource", {"-j"}}, Refusal{"NotUTF8", {"\xff", "/x/clip.mov"}},
                                         Refusal{"NoHashes", {"-s", "/x/clip.mov", "/y/clip.mov"}},
                                         Refusal{"NoHashesNoDestination", {"-s", "/x/clip.mov"}},
                                         Refusal{"SequenceBehind", {"/x/p.1-3.#.dpx", "/y/z", "-s"}},
                                         Refusal{"Algorithm", {"-t", "crc32", "/x/clip.mov", "/y/clip.mov"}}),
                         rowName);

TEST_F(OutputGrammarTest, OfAnExternalHashThatIsNotUnderstood) {
  for (const char* hash : {"MD5", "a:b:c", "md5:abc"}) {
    for (const auto make : {clipTo, framesTo}) {
      Offload offload = make(card, {"a"}, {});
      offload.start.arguments.insert(offload.start.arguments.begin(), {"-e", hash});
      expectEnd(1, offload);
    }
  }
}

TEST_F(OutputGrammarTest, OfFramesThatHaveNoPath) {
  for (const char* identifier : {"card/p.3-1.####.dpx", "card/%s/p.1-3.####.dpx"}) {
    Offload offload = offloadOf(card, {"-s"}, {identifier, "a/frames"});
    expectEnd(1, offload);
  }
}

TEST_F(OutputGrammarTest, OfARangeWithoutFrames) {
  Offload offload = offloadOf(card, {"-s", "-nf"}, {"card/p.2-1.####.dpx", "a/frames"});
  offload.kind.frames = 0;
  expectEnd(0, offload);
  std::erase(offload.start.arguments, "-nf");
  offload.kind.options.erase("-nf");
  expectEnd(106, offload);
}

TEST_F(OutputGrammarTest, OfTheSameDestinationTwice) {
  expectEnd(1, clipTo(card, {"a", "a"}));
}

// --- Checks that fail, names that are taken, files that are not there ---

TEST_F(OutputGrammarTest, OfAnExternalHashThatDiffers) {
  for (const auto make : {clipTo, framesTo}) {
    for (const Arguments& options : {Arguments{}, Arguments{"-k"}, Arguments{"-n"}}) {
      Offload offload = make(card, {"a", "b"}, options);
      offload.start.arguments.insert(offload.start.arguments.begin(), {"-e", "XXHash64:0123456789abcdef"});
      expectEnd(103, offload);
    }
  }
}

TEST_F(OutputGrammarTest, OfASizeThatDiffers) {
  for (const auto make : {clipTo, framesTo}) {
    Offload offload = make(card, {"a"}, {"-k", "-v"});
    offload.start.arguments.insert(offload.start.arguments.begin(), {"-f_size", "5"});
    expectEnd(104, offload);
  }
}

TEST_F(OutputGrammarTest, OfASourceThatIsMissing) {
  fs::remove(card.path("card/clip.mov"));
  fs::remove(card.path("card/" + frameName(2)));
  expectEnd(108, clipTo(card, {"a"}));
  expectEnd(108, framesTo(card, {"a"}));
  expectEnd(108, framesTo(card, {}, {"-j", "-v"}));
}

TEST_F(OutputGrammarTest, OfAFolderThatIsMissing) {
  expectEnd(107, clipTo(card, {"a", "missing"}));
  expectEnd(107, framesTo(card, {"a", "missing"}));
}

TEST_F(OutputGrammarTest, OfATemporaryNameThatIsTakenInTheMidstOfASequence) {
  fs::create_directory(card.path("b/" + frameName(2) + ".kdxcopy"));
  expectEnd(107, framesTo(card, {"a", "b"}, {"-v"}));
}

TEST_F(OutputGrammarTest, OfAFinalNameThatIsTaken) {
  writeFile(card.path("b/clip.mov"), "an older take");
  writeFile(card.path("b/" + frameName(2)), "an older take");
  expectEnd(109, clipTo(card, {"a", "b"}));
  expectEnd(109, framesTo(card, {"a", "b"}, {"-v"}));
}

TEST_F(OutputGrammarTest, OfAFolderInTheWay) {
  fs::create_directory(card.path("b/clip.mov"));
  fs::create_directory(card.path("b/" + frameName(2)));
  expectEnd(EISDIR, clipTo(card, {"a", "b"}, {"-f"}));
  expectEnd(EISDIR, framesTo(card, {"a", "b"}, {"-f", "-k"}));
}

TEST_F(OutputGrammarTest, OfAClosedStandardInput) {
  for (const auto make : {clipTo, framesTo}) {
    Offload offload = make(card, {}, {"-j"});
    offload.start.closedDescriptors = {STDIN_FILENO};
    expectEnd(134, offload);
    // The number is taken while copying, and free when files are read back.
    offload = make(card, {"a", "b"}, {"-v"});
    offload.start.closedDescriptors = {STDIN_FILENO};
    expectEnd(134, offload);
  }
}

TEST_F(OutputGrammarTest, OfABufferThatCanNotBeHad) {
  const ScratchDirectory settings;
  writeFile(settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 9223372036854775807\n");
  Offload offload = clipTo(card, {"a"});
  offload.start.environment["XDG_CONFIG_HOME"] = settings.path();

  const ToolRun ended = runTool(offload.start);

  EXPECT_EQ(1, ended.exitStatus);
  EXPECT_EQ("", grammar().faultOfBeginning(ended.output, "exit-0", offload.kind));
  EXPECT_EQ("", grammar().faultOf(ended.errors, "errors", offload.kind));
}

TEST_F(OutputGrammarTest, OfAFullDevice) {
  for (const auto make : {clipTo, framesTo}) {
    std::string whyNot;
    const auto device = MountedFileSystem::mount("tmpfs", MiB + 64 * KiB, whyNot);
    if (!device) GTEST_SKIP() << whyNot;
    fs::create_directory_symlink(device->path(), card.path("full"));
    expectEnd(110, make(card, {"a", "full"}, {"-v"}));
    fs::remove(card.path("full"));
  }
}

TEST_F(OutputGrammarTest, OfARunThatIsKilledIsAGoodBeginning) {
  if (!canStopTheTool()) GTEST_SKIP() << cannotStop;
  for (const long call : {SYS_fdatasync, SYS_renameat2, SYS_fsync}) {
    const Offload offload = clipTo(card, {"a", "b"}, {"-v", "-f"});

    const ToolRun killed = runTool(offload.start, {call},
                                   [](const StoppedCall& stopped) { return stopped.occurrence == 2 ? SIGKILL : 0; });

    EXPECT_EQ(128 + SIGKILL, killed.exitStatus);
    EXPECT_EQ("", grammar().faultOfBeginning(killed.output, "exit-0", offload.kind));
    EXPECT_NE("", grammar().faultOf(killed.output, "exit-0", offload.kind));
  }
}

// --- Devices that fail ---

using SetFault = void (*)(FaultyFileSystem& server);

struct Fault : NamedRow {
  bool ofFrames;
  const char* options[4];  // up to the first null
  int exitStatus;
  SetFault set;
};

constexpr const char* secondFrame = "b/p.0002.dpx";
constexpr const char* secondTemporary = "b/p.0002.dpx.kdxcopy";

class OutputOfFault : public testing::TestWithParam<Fault> {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  }
};

TEST_P(OutputOfFault, HasTheForm) {
  const Fault& row = GetParam();
  const ScratchDirectory scratch;
  FaultyFileSystem server(scratch.path());
  const Card card(server.root());
  const Arguments options(row.options, std::ranges::find(row.options, nullptr));
  const Offload offload = (row.ofFrames ? framesTo : clipTo)(card, {"a", "b"}, options);
  row.set(server);

  const ToolRun ended = run(offload);

  // A frame that fails so soon that not all read-backs have begun ends the run at once, without a number of its own.
  const bool failedSoon = row.ofFrames && row.exitStatus == 105 && ended.exitStatus == 1;
  expectOfTheForm(failedSoon ? 1 : row.exitStatus, offload, ended);
}

INSTANTIATE_TEST_SUITE_P(
    OfAClip, OutputOfFault,
    testing::Values(
        Fault{"DestinationDiffers", false, {"-v"}, 105, [](auto& fs) { fs.whenReading("b/*.kdxcopy").flipBitAt(17); }},
        Fault{"DestinationDiffersAndTheSourceIsNotReadBack",
              false,
              {"-ns"},
              105,
              [](auto& fs) { fs.whenReading("b/*.kdxcopy").flipBitAt(17); }},
        Fault{"BothDestinationsDiffer", false, {}, 105, [](auto& fs) { fs.whenWriting("*").flipBitAt(17); }},
        Fault{"SourceDiffers", false, {}, 121, [](auto& fs) { fs.whenReading("card/*").fromPass(2).flipBitAt(17); }},
        Fault{"SourceDiffersOfTheEndVerbose",
              false,
              {"-v"},
              121,
              [](auto& fs) { fs.whenReading("card/*").fromPass(2).flipBitAt(clipSize - 1); }},
        Fault{"DestinationCanNotBeRead", false, {}, 105, [](auto& fs) { fs.whenReading("a/*").failAt(MiB, EIO); }},
        Fault{"SourceCanNotBeRead", false, {"-v"}, 111, [](auto& fs) { fs.whenReading("card/*").failAt(MiB, EIO); }},
        Fault{"DestinationCanNotBeWritten", false, {}, 110, [](auto& fs) { fs.whenWriting("b/*").failAt(MiB, EIO); }},
        Fault{"NoDestinationCanBeWritten", false, {"-v"}, 110, [](auto& fs) { fs.whenWriting("*").failAt(MiB, EIO); }},
        Fault{"DestinationCanNotBeClosed", false, {"-v"}, 110, [](auto& fs) { fs.whenClosing("b/*").fail(EDQUOT); }},
        Fault{"DestinationHasAnotherSize",
              false,
              {"-k"},
              104,
              [](auto& fs) { fs.whenReportingAttributes("b/*").lieAboutSizeBy(-5); }},
        Fault{"DestinationCanNotBeOpenedAgain",
              false,
              {},
              108,
              [](auto& fs) { fs.whenOpening("b/*.kdxcopy").fromRequest(2).fail(EACCES); }},
        Fault{"DataCanNotBeSynced", false, {}, 106, [](auto& fs) { fs.whenSyncing("b/*.kdxcopy").fail(EIO); }},
        Fault{"NameCanNotBeSynced", false, {"-k"}, 106, [](auto& fs) { fs.whenSyncing("a").fail(EIO); }},
        Fault{"CanNotBeMoved", false, {"-v"}, 1, [](auto& fs) { fs.whenRenaming("b/*").fail(EACCES); }}),
    rowName);

INSTANTIATE_TEST_SUITE_P(
    OfFrames, OutputOfFault,
    testing::Values(
        Fault{"DestinationDiffers", true, {}, 105, [](auto& fs) { fs.whenReading(secondTemporary).flipBitAt(17); }},
        Fault{"DestinationDiffersVerbose", true, {"-v"}, 105, [](auto& fs) { fs.whenWriting("b/*").flipBitAt(17); }},
        Fault{"SourceDiffers", true, {}, 121, [](auto& fs) { fs.whenReading("card/*").fromPass(2).flipBitAt(17); }},
        Fault{"SourceDiffersVerbose",
              true,
              {"-v"},
              121,
              [](auto& fs) { fs.whenReading("card/p.0002.dpx").fromPass(2).flipBitAt(17); }},
        Fault{"SourceCanNotBeRead", true, {}, 110, [](auto& fs) { fs.whenReading("card/*2.dpx").failAt(17, EIO); }},
        Fault{"CanNotBeWritten", true, {"-v"}, 110, [](auto& fs) { fs.whenWriting(secondTemporary).failAt(17, EIO); }},
        Fault{"NoneCanBeWritten", true, {}, 110, [](auto& fs) { fs.whenWriting("*").failAt(17, EIO); }},
        Fault{"CanNotBeClosed", true, {}, 110, [](auto& fs) { fs.whenClosing(secondTemporary).fail(EDQUOT); }},
        Fault{"HasAnotherSize",
              true,
              {"-k"},
              104,
              [](auto& fs) { fs.whenReportingAttributes(secondTemporary).lieAboutSizeBy(-5); }},
        Fault{"CanNotBeOpenedAgain",
              true,
              {"-v"},
              108,
              [](auto& fs) { fs.whenOpening(secondTemporary).fromRequest(2).fail(EACCES); }},
        Fault{"NameCanNotBeSynced", true, {}, 106, [](auto& fs) { fs.whenSyncing("a").fail(EIO); }},
        Fault{"CanNotBeMoved", true, {"-k"}, 1, [](auto& fs) { fs.whenRenaming(secondFrame).fail(EACCES); }}),
    rowName);

// --- Output that no run prints ---

struct Printed {
  std::string output;
  int exitStatus;
  RunKind kind;
};

// Runs that differ in all that they print: every mutation of their output is to be found.
std::vector<Printed> printedByRuns(const Card& card) {
  std::vector<Offload> offloads{clipTo(card, {"a", "b"}, {"-v"}),
                                clipTo(card, {"a", "b"}, {"-k", "-f"}),
                                clipTo(card, {}, {"-j"}),
                                framesTo(card, {"a", "b"}, {"-v"}),
                                framesTo(card, {"a", "b"}, {"-n", "-f"}),
                                clipTo(card, {"a", "b"})};  // whose names are taken by now
  std::vector<Printed> printed;
  for (const Offload& offload : offloads) {
    const ToolRun ended = run(offload);
    printed.push_back({ended.output, ended.exitStatus, offload.kind});
  }
  return printed;
}

std::string faultOf(const Printed& printed, const std::vector<std::string>& lines) {
  return grammar().faultOfOutput(asText(lines), printed.exitStatus, printed.kind);
}

// Lines of progress come or don't.
bool isProgress(const std::string& line) {
  return line.starts_with("INFO: copied ") || line.starts_with("INFO: verified ");
}

TEST_F(OutputGrammarTest, AcceptsNoOutputThatLacksALine) {
  for (const Printed& printed : printedByRuns(card)) {
    const std::vector<std::string> lines = linesOf(printed.output);
    ASSERT_EQ("", faultOf(printed, lines));
    for (std::size_t index = 0; index < lines.size(); ++index) {
      if (isProgress(lines[index])) continue;
      std::vector<std::string> fewer = lines;
      fewer.erase(fewer.begin() + static_cast<std::ptrdiff_t>(index));
      EXPECT_NE("", faultOf(printed, fewer)) << lines[index] << " is missing from\n" << printed.output;
    }
  }
}

TEST_F(OutputGrammarTest, AcceptsNoOutputWithALineThatIsUnknownOrStandsThereTwice) {
  for (const Printed& printed : printedByRuns(card)) {
    const std::vector<std::string> lines = linesOf(printed.output);
    for (std::size_t index = 0; index <= lines.size(); ++index) {
      const auto at = static_cast<std::ptrdiff_t>(index);
      std::vector<std::string> more = lines;
      more.insert(more.begin() + at, "INFO: copying is fun");
      EXPECT_NE("", faultOf(printed, more)) << index;
      if (index == lines.size() || isProgress(lines[index])) continue;
      more[index] = lines[index];
      EXPECT_NE("", faultOf(printed, more)) << lines[index] << " stands twice in\n" << printed.output;
    }
  }
}

TEST_F(OutputGrammarTest, AcceptsNoOutputWhoseLastNewlineIsMissing) {
  for (Printed printed : printedByRuns(card)) {
    printed.output.pop_back();
    EXPECT_NE("", grammar().faultOfOutput(printed.output, printed.exitStatus, printed.kind)) << printed.output;
  }
}

TEST_F(OutputGrammarTest, AcceptsNoLineOfAnotherPhaseInItsPlace) {
  const Printed printed = printedByRuns(card).front();
  const std::vector<std::string> lines = linesOf(printed.output);
  // Read-backs are under way at the same time; what stands before and behind them does not change places with them.
  const char* fixed[] = {"INFO: copying ", "hash ",           "INFO: copy speed ", "INFO: verification speed ",
                         "INFO: moving ",  "INFO: flushing ", "INFO: done."};
  for (std::size_t index = 0; index + 1 < lines.size(); ++index) {
    const bool mustStay = std::ranges::any_of(fixed, [&](const char* text) { return lines[index].starts_with(text); });
    if (!mustStay || isProgress(lines[index + 1])) continue;
    std::vector<std::string> swapped = lines;
    std::swap(swapped[index], swapped[index + 1]);
    EXPECT_NE("", faultOf(printed, swapped)) << lines[index] << " comes too late in\n" << asText(swapped);
  }
}

TEST_F(OutputGrammarTest, AcceptsReadBacksInEveryOrderInWhichEachBeginsBeforeItEnds) {
  const RunKind kind{.options = {}, .destinations = 2, .frames = 0};
  std::vector<std::string> lines{"INFO: verifying /a\n",
                                 "INFO: verifying /b\n",
                                 "INFO: verifying /card\n",
                                 "verify of destination file #1 (/a/clip.mov) ok.\n",
                                 "verify of destination file #2 (/b/clip.mov) ok.\n",
                                 "verify of source file #3 (/card/clip.mov) ok.\n"};
  std::size_t accepted = 0;
  std::size_t rejected = 0;
  std::ranges::sort(lines);
  do {
    std::string output;
    int begun = 0;
    bool isInOrder = true;
    for (const std::string& line : lines) {
      output += line;
      begun += line.starts_with("INFO") ? 1 : -1;
      isInOrder &= begun >= 0;
    }
    EXPECT_EQ(isInOrder, grammar().faultOf(output, "file-proved", kind).empty()) << output;
    ++(isInOrder ? accepted : rejected);
  } while (std::ranges::next_permutation(lines).found);
  EXPECT_EQ(720, accepted + rejected);
  EXPECT_EQ(180, accepted);
}

TEST_F(OutputGrammarTest, AcceptsNoOutputForAnotherStatusOrOtherOptions) {
  const std::vector<Printed> all = printedByRuns(card);
  for (const Printed& printed : all) {
    for (const int status : {0, 103, 104, 105, 106, 107, 108, 109, 110, 111, 121}) {
      const bool isIts = status == printed.exitStatus;
      EXPECT_EQ(isIts, grammar().faultOfOutput(printed.output, status, printed.kind).empty()) << status;
    }
  }
  RunKind quiet = all.front().kind;
  quiet.options.erase("-v");
  EXPECT_NE("", grammar().faultOfOutput(all.front().output, 0, quiet));
  RunKind more = all.front().kind;
  ++more.destinations;
  EXPECT_NE("", grammar().faultOfOutput(all.front().output, 0, more));
}

}  // namespace
