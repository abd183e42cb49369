// Whole runs of the built program over random sizes, settings and options, against what other programs tell of the same
// bytes. Each test prints its seed. KDX_RANDOM_SEED sets it, KDX_RANDOM_CASES the number of cases of each test; a failure
// tells with which values it is repeated alone. Many cases:
//
//   KDX_RANDOM_CASES=250 ctest --test-dir build/release --verbose --tests-regex RandomOffload

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/Algorithms.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/OutputLines.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace {

namespace fs = std::filesystem;

using Lines = std::vector<std::string>;

constexpr std::size_t block = 4096;
constexpr const char* earlierTake = "an earlier take";

// Where the files of a case are.
enum class Place { tmpfs, scratch, withoutDirectTransfers, withShortReads };

struct Row : NamedRow {
  Place place;
  bool isSequence;
};

class Random {
 public:
  explicit Random(uint64_t seed) : _engine(seed) {}

  std::size_t upTo(std::size_t largest) { return std::uniform_int_distribution<std::size_t>(0, largest)(_engine); }
  std::size_t between(std::size_t smallest, std::size_t largest) { return smallest + upTo(largest - smallest); }
  bool oneIn(std::size_t times) { return upTo(times - 1) == 0; }
  template <typename Choices>
  auto oneOf(const Choices& choices) {
    return *(std::begin(choices) + static_cast<std::ptrdiff_t>(upTo(std::size(choices) - 1)));
  }

 private:
  std::mt19937_64 _engine;
};

// What is done about the proof of the copy.
enum class Proof { readBack, destinationsReadBack, sizes, sizesWithoutDigest };

constexpr const char* optionOf(Proof proof) {
  switch (proof) {
    case Proof::destinationsReadBack:
      return "-ns";
    case Proof::sizes:
      return "-k";
    case Proof::sizesWithoutDigest:
      return "-n";
    case Proof::readBack:
      break;
  }
  return "";
}

enum class External { none, right, wrong };

// One run, as far as it does not depend on where it is.
struct Plan {
  std::optional<std::size_t> bufferMiB;
  std::vector<std::size_t> sizes;  // of the file, or of each frame
  std::size_t firstFrame;
  std::size_t destinationCount;
  const Algorithm* algorithm;
  Proof proof;
  External external;
  const Algorithm* externalAlgorithm;
  std::vector<bool> isTaken;  // final names of which destinations
  bool isVerbose;
  bool skipsFlush;
  bool tellsSize;
};

const Algorithm* algorithmCalled(std::string_view name) {
  return std::ranges::find(algorithms, name, &Algorithm::name);
}

// What the tool's option -t calls it.
std::string wordOf(const Algorithm& algorithm) {
  std::string word = algorithm.name;
  std::ranges::transform(word, word.begin(), [](char c) { return static_cast<char>(std::tolower(c)); });
  return word;
}

// The sizes at which the last read, write or block is another one, and some between.
std::size_t randomSize(Random& random, std::size_t buffer) {
  const std::size_t edge = random.upTo(2);  // one less, none, one more
  switch (random.upTo(7)) {
    case 0:
      return random.upTo(1);
    case 1:
      return block - 1 + edge;
    case 2:
      return buffer - 1 + edge;
    case 3:
      return 2 * buffer - 1 + edge;
    case 4:
      return random.between(1, 2 * buffer / block) * block - 1 + edge;
    case 5:
      return random.oneOf(std::array{buffer, 2 * buffer}) - block + random.upTo(2 * block);
    case 6:
      return random.upTo(2 * block);
    default:
      return random.upTo(2 * buffer + block);
  }
}

Plan randomPlan(Random& random, bool isSequence) {
  constexpr std::size_t bufferWithoutSetting = 10;
  constexpr std::array<std::size_t, 8> buffers{1, 1, 1, 1, 2, 3, 10, 0};  // the large ones take their time; 0: none
  Plan plan{};
  const std::size_t setting = random.oneOf(buffers);
  if (setting != 0) plan.bufferMiB = setting;
  // The frames of a sequence are read with buffers after the first frame's size, whatever is set: 1 MiB for small ones.
  const std::size_t buffer = isSequence ? MiB : plan.bufferMiB.value_or(bufferWithoutSetting) * MiB;
  const std::size_t files = isSequence ? random.between(1, 5) : 1;
  for (std::size_t file = 0; file < files; ++file) plan.sizes.push_back(randomSize(random, buffer));
  plan.firstFrame = random.oneOf(std::array<std::size_t, 5>{0, 1, 98, 9'998, 12'345});
  plan.destinationCount = random.oneOf(std::array<std::size_t, 5>{0, 1, 2, 3, 5});
  plan.algorithm = algorithmCalled(random.oneOf(std::array{"MD5", "SHA1", "XXHash64BE"}));
  plan.proof = random.oneOf(std::array{Proof::readBack, Proof::readBack, Proof::destinationsReadBack, Proof::sizes,
                                       Proof::sizesWithoutDigest});
  plan.external = random.oneOf(std::array{External::none, External::none, External::right, External::wrong});
  if (plan.proof == Proof::sizesWithoutDigest) plan.external = External::none;
  plan.externalAlgorithm = &*(algorithms.begin() + random.upTo(algorithms.size() - 1));
  const bool replaces = random.oneIn(3);
  for (std::size_t d = 0; d < plan.destinationCount; ++d) plan.isTaken.push_back(replaces && random.oneIn(2));
  plan.isVerbose = random.oneIn(3);
  plan.skipsFlush = random.oneIn(6);
  plan.tellsSize = !isSequence && random.oneIn(4);
  return plan;
}

// Bytes for every case: slices of these.
const std::string& pool() {
  static const std::string bytes = mediaBytes(24 * MiB);
  return bytes;
}

// A source, where it goes to, and what other programs tell of it.
class Offload {
 public:
  Offload(const Plan& plan, bool isSequence, Random& random, const fs::path& parent)
      : _plan(plan), _isSequence(isSequence), _scratch(parent) {
    for (std::size_t index = 0; index < plan.sizes.size(); ++index) {
      const std::size_t offset = random.upTo(pool().size() - plan.sizes[index]);
      _bytes.push_back(std::string_view(pool()).substr(offset, plan.sizes[index]));
      _names.push_back(isSequence ? fmt::format("p.{:04}.dpx", plan.firstFrame + index) : "clip.mov");
      writeFile(source(index), _bytes.back());
    }
    for (std::size_t d = 0; d < plan.destinationCount; ++d) {
      _folders.push_back(fmt::format("d{}", d + 1));
      for (const std::string& name : _names) {
        const std::string path = _scratch.file(_folders[d] + "/" + name);
        if (plan.isTaken[d]) writeFile(path, earlierTake);
      }
    }
  }

  [[nodiscard]] std::vector<std::string> arguments() const {
    std::vector<std::string> words{"-t", wordOf(*_plan.algorithm)};
    if (_plan.proof != Proof::readBack) words.emplace_back(optionOf(_plan.proof));
    if (_plan.isVerbose) words.emplace_back("-v");
    if (_plan.skipsFlush) words.emplace_back("-nf");
    if (_plan.tellsSize) words.insert(words.end(), {"-a", std::to_string(_plan.sizes[0])});
    if (_plan.external != External::none) words.insert(words.end(), {"-e", externalHash()});
    if (_folders.empty()) words.emplace_back("-j");
    if (std::ranges::count(_plan.isTaken, true) != 0) words.emplace_back("-f");
    if (_isSequence) words.emplace_back("-s");
    words.push_back(_isSequence ? (_scratch.path() / "card" / identifier()).string() : source(0));
    for (const std::string& folder : _folders) words.push_back(copy(folder, _isSequence ? "any name" : _names[0]));
    return words;
  }

  // All lines that do not begin with "INFO:", sorted.
  [[nodiscard]] Lines expectedLines() const {
    Lines lines;
    if (_plan.proof != Proof::sizesWithoutDigest) {
      for (std::size_t index = 0; index < _names.size(); ++index) {
        lines.push_back("hash " + hashOf(*_plan.algorithm, expectedHex(*_plan.algorithm, source(index))));
      }
    }
    if (_isSequence) lines.push_back("sequence-hash " + sequenceHash());
    addProofLines(lines);
    lines.emplace_back();  // behind the line of the end, or of the failure
    std::ranges::sort(lines);
    return lines;
  }

  // Every copy is the source, under its final name; there is nothing else.
  void expectInPlace() const {
    Lines names = sourceNames();
    for (const std::string& folder : _folders) {
      for (std::size_t index = 0; index < _names.size(); ++index) {
        names.push_back(folder + "/" + _names[index]);
        expectBytes(_bytes[index], copy(folder, _names[index]));
      }
    }
    std::ranges::sort(names);
    EXPECT_EQ(names, namesBelow(_scratch.path()));
    expectSourceIsIntact();
  }

  // There is no final name but those of earlier takes, which are as they were.
  void expectNotInPlace() const {
    Lines names = sourceNames();
    for (std::size_t d = 0; d < _folders.size(); ++d) {
      for (const std::string& name : _names) {
        names.push_back(_folders[d] + "/" + name + ".kdxcopy");
        if (!_plan.isTaken[d]) continue;
        names.push_back(_folders[d] + "/" + name);
        expectBytes(earlierTake, copy(_folders[d], name));
      }
    }
    std::ranges::sort(names);
    EXPECT_EQ(names, namesBelow(_scratch.path()));
    expectSourceIsIntact();
  }

 private:
  [[nodiscard]] std::string source(std::size_t index) const { return _scratch.file("card/" + _names[index]); }
  [[nodiscard]] std::string copy(const std::string& folder, const std::string& name) const {
    return _scratch.path() / folder / name;
  }
  [[nodiscard]] std::string identifier() const {
    return fmt::format("p.{}-{}.####.dpx", _plan.firstFrame, _plan.firstFrame + _names.size() - 1);
  }
  [[nodiscard]] Lines sourceNames() const {
    Lines names;
    for (const std::string& name : _names) names.push_back("card/" + name);
    return names;
  }

  static std::string hashOf(const Algorithm& algorithm, const std::string& digits) {
    return std::string(algorithm.methodName) + ":" + digits;
  }

  // That of the frames' digits in their order.
  [[nodiscard]] std::string sequenceHash(const Algorithm& algorithm) const {
    const ScratchDirectory folder;
    std::string digits;
    for (std::size_t index = 0; index < _names.size(); ++index) digits += expectedHex(algorithm, source(index));
    writeFile(folder.file("digits"), digits);
    return hashOf(algorithm, expectedHex(algorithm, folder.file("digits")));
  }
  [[nodiscard]] std::string sequenceHash() const {
    return _plan.proof == Proof::sizesWithoutDigest ? "(null)" : sequenceHash(*_plan.algorithm);
  }

  [[nodiscard]] std::string externalHash() const {
    const Algorithm& algorithm = *_plan.externalAlgorithm;
    std::string hash = _isSequence ? sequenceHash(algorithm) : hashOf(algorithm, expectedHex(algorithm, source(0)));
    if (_plan.external == External::wrong) hash.back() = hash.back() == '0' ? '1' : '0';
    return hash;
  }

  void addProofLines(Lines& lines) const {
    const bool isReadBack = _plan.proof == Proof::readBack || _plan.proof == Proof::destinationsReadBack;
    if (!isReadBack) {
      for (const std::string& folder : _folders) addSizeLines(lines, folder);
    } else if (_plan.external == External::wrong) {
      return;  // found before anything is read back
    } else if (_isSequence) {
      if (_plan.isVerbose && _plan.proof == Proof::readBack) addFrameLines(lines);
    } else {
      addFileLines(lines);
    }
  }
  void addSizeLines(Lines& lines, const std::string& folder) const {
    for (const std::string& name : _names) {
      lines.push_back(fmt::format("Copy completed successfully for destination file with file size check ({})",
                                  copy(folder, name)));
    }
  }
  void addFileLines(Lines& lines) const {
    for (std::size_t d = 0; d < _folders.size(); ++d) {
      lines.push_back(fmt::format("verify of destination file #{} ({}) ok.", d + 1, copy(_folders[d], _names[0])));
    }
    if (_plan.proof != Proof::readBack) return;
    lines.push_back(fmt::format("verify of source file #{} ({}) ok.", _folders.size() + 1, source(0)));
  }
  void addFrameLines(Lines& lines) const {
    const auto add = [&](const char* kind, std::size_t index, std::size_t number, const std::string& path) {
      lines.push_back(fmt::format("verify of {} file {} of {} of sequence #{} ({}) ok.", kind, index + 1, _names.size(),
                                  number, path));
    };
    for (std::size_t index = 0; index < _names.size(); ++index) {
      for (std::size_t d = 0; d < _folders.size(); ++d) {
        add("destination", index, d + 1, copy(_folders[d], _names[index]));
      }
      add("source", index, _folders.size() + 1, source(index));
    }
  }

  static void expectBytes(std::string_view expected, const std::string& path) {
    const std::string bytes = readFile(path);
    if (bytes == expected) return;
    const auto differing = std::mismatch(bytes.begin(), bytes.end(), expected.begin(), expected.end()).first;
    ADD_FAILURE() << path << " has " << bytes.size() << " bytes and differs at byte " << differing - bytes.begin();
  }
  void expectSourceIsIntact() const {
    for (std::size_t index = 0; index < _names.size(); ++index) expectBytes(_bytes[index], source(index));
  }

  const Plan& _plan;
  const bool _isSequence;
  ScratchDirectory _scratch;
  std::vector<std::string_view> _bytes;
  std::vector<std::string> _names;
  std::vector<std::string> _folders;
};

std::optional<uint64_t> numberFromEnvironment(const char* name) {
  const char* const text = std::getenv(name);
  return text == nullptr ? std::nullopt : std::optional<uint64_t>(std::strtoull(text, nullptr, 10));
}

class RandomOffload : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    const Place place = GetParam().place;
    if (place == Place::tmpfs) {
      std::string whyNot;
      _memory = MountedFileSystem::mount("tmpfs", 512 * MiB, whyNot);
      if (!_memory) GTEST_SKIP() << whyNot;
    } else if (place != Place::scratch) {
      if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
      _faulty = std::make_unique<FaultyFileSystem>(_scratch.path());
    }
  }

  [[nodiscard]] fs::path place() const {
    if (_memory) return _memory->path();
    return _faulty ? _faulty->root() : _scratch.path();
  }

  // For the file system of the tests: what it refuses, and how short its reads are.
  void setFaults(Random& random, const Plan& plan) {
    constexpr std::size_t readsPerFile = 300;
    if (!_faulty) return;
    _faulty->clear();
    if (GetParam().place == Place::withShortReads) {
      const std::size_t least = std::ranges::max(plan.sizes) / readsPerFile + 1;
      const std::size_t longest = random.between(least, least + 100'000);
      _faulty->whenOpening("*").bypassCache();
      _faulty->whenReading("*").limitTo(longest);
    } else if (random.oneIn(2)) {
      _faulty->whenOpening("*").refuseDirect();
    } else {
      _faulty->whenReading("*").refuseDirect();
      _faulty->whenWriting("*").refuseDirect();
    }
  }

  void runCase(uint64_t seed) {
    Random random(seed);
    const bool isSequence = GetParam().isSequence;
    const Plan plan = randomPlan(random, isSequence);
    if (_faulty) _faulty->clear();
    const Offload offload(plan, isSequence, random, place());
    const std::vector<std::string> arguments = offload.arguments();
    const Lines expected = offload.expectedLines();
    SCOPED_TRACE(fmt::format("sizes {}, buffer of {} MiB (0: as without a setting), {}", fmt::join(plan.sizes, " "),
                             plan.bufferMiB.value_or(0), fmt::join(arguments, " ")));
    const ScratchDirectory settings;
    const std::string setting =
        plan.bufferMiB ? fmt::format("readBufferSizeMB = {}\n", *plan.bufferMiB) : std::string("# none\n");
    writeFile(settings.file("kdxdispatchcopy/defaults.ini"), setting);
    setFaults(random, plan);

    const ToolRun run = runTool({.arguments = arguments, .environment = {{"XDG_CONFIG_HOME", settings.path()}}});

    if (_faulty) _faulty->clear();
    EXPECT_EQ(plan.external == External::wrong ? 103 : 0, run.exitStatus) << run.output << run.errors;
    Lines lines = run.lines();
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("INFO:"); });
    if (plan.external == External::wrong) lines.emplace_back();
    std::ranges::sort(lines);
    EXPECT_EQ(expected, lines) << run.output;
    if (plan.external == External::wrong) {
      offload.expectNotInPlace();
    } else {
      offload.expectInPlace();
      const std::string told = plan.bufferMiB && !isSequence
                                   ? fmt::format("kdxdispatchcopy: KDXReadFile buffer size {}\n", *plan.bufferMiB)
                                   : "";
      EXPECT_EQ(told, run.errors);
    }
  }

 private:
  ScratchDirectory _scratch;
  std::unique_ptr<MountedFileSystem> _memory;
  std::unique_ptr<FaultyFileSystem> _faulty;
};

TEST_P(RandomOffload, GivesWhatOtherProgramsTellOfTheSameBytes) {
  const uint64_t cases = numberFromEnvironment("KDX_RANDOM_CASES").value_or(isSanitized() ? 2 : 8);
  const uint64_t first = numberFromEnvironment("KDX_RANDOM_SEED").value_or(std::random_device()());
  std::cout << fmt::format("KDX_RANDOM_SEED={} KDX_RANDOM_CASES={}\n", first, cases);
  for (uint64_t seed = first; seed < first + cases; ++seed) {
    runCase(seed);
    ASSERT_FALSE(HasFailure()) << fmt::format("case {} of {}; alone with KDX_RANDOM_SEED={} KDX_RANDOM_CASES=1",
                                              seed - first + 1, cases, seed);
  }
}

INSTANTIATE_TEST_SUITE_P(Everywhere, RandomOffload,
                         testing::Values(Row{"FileOnTmpfs", Place::tmpfs, false},
                                         Row{"SequenceOnTmpfs", Place::tmpfs, true},
                                         Row{"FileInTheScratchFolder", Place::scratch, false},
                                         Row{"SequenceInTheScratchFolder", Place::scratch, true},
                                         Row{"FileWithoutDirectTransfers", Place::withoutDirectTransfers, false},
                                         Row{"SequenceWithoutDirectTransfers", Place::withoutDirectTransfers, true},
                                         Row{"FileWithShortReads", Place::withShortReads, false},
                                         Row{"SequenceWithShortReads", Place::withShortReads, true}),
                         rowName);

}  // namespace
