// Devices that are nearly full: what just fits is offloaded, and what does not, by however little, gets no final name.

#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/MountedFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

namespace fs = std::filesystem;

namespace {

constexpr std::size_t block = 4096;
constexpr std::size_t buffer = MiB;
// What is left on the device: more than one buffer, and not a whole number of them.
constexpr std::size_t room = 2 * MiB + 300 * KiB;

struct Row : NamedRow {
  const char* type;
  std::size_t size;
  bool isSequence;
};

uint64_t freeBytes(const fs::path& folder) {
  struct statvfs facts = {};
  EXPECT_EQ(0, ::statvfs(folder.c_str(), &facts));
  return facts.f_bfree * facts.f_frsize;
}

// An offload to a device with much room and, behind it, one that is nearly full.
class ToolOutOfSpace : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    std::string whyNot;
    _memory = MountedFileSystem::mount("tmpfs", 512 * MiB, whyNot);
    if (!_memory) GTEST_SKIP() << whyNot;
    mountSmallDevice(whyNot);
    if (!_device) GTEST_SKIP() << whyNot;
    fillUp();
    fs::create_directories(device() / "small");
    writeFile(file("settings/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
    if (!GetParam().isSequence) return;
    writeFile(file("card/p.0001.dpx"), _bytes.substr(1, 70'001));
    writeFile(file("card/p.0003.dpx"), _bytes.substr(3, 1));
  }

  // Offloads a clip of that size, or a sequence of which one frame has it, and finds it in place or nothing in place.
  bool fits(std::size_t size) {
    SCOPED_TRACE(fmt::format("{} bytes", size));
    for (const fs::path& folder : {roomy(), device() / "small"}) {
      fs::remove_all(folder);
      fs::create_directories(folder);
    }
    const std::string bytes = _bytes.substr(0, size);
    writeFile(file(GetParam().isSequence ? "card/p.0002.dpx" : "card/clip.mov"), bytes);
    const ToolRun run = offload();
    EXPECT_EQ(bytes, readFile(file(GetParam().isSequence ? "card/p.0002.dpx" : "card/clip.mov")));
    if (run.exitStatus == 0) {
      expectAllInPlace(roomy());
      expectAllInPlace(device() / "small");
    } else {
      EXPECT_TRUE(isOutOfSpace(run)) << run.exitStatus << run.output;
      expectNothingInPlace(roomy());
      expectNothingInPlace(device() / "small");
    }
    ++_runs;
    return run.exitStatus == 0;
  }

  void recordRuns() { RecordProperty("runs", _runs); }

 private:
  [[nodiscard]] std::string file(const std::string& name) const { return _scratch.file(name); }
  [[nodiscard]] fs::path roomy() const { return _scratch.path() / "roomy"; }
  [[nodiscard]] fs::path device() const { return _device->path(); }

  // On an image in memory, whose syncs need not wait for a real device.
  void mountSmallDevice(std::string& whyNot) {
    const Row& row = GetParam();
    const std::string image = _memory->file("image");
    if (row.type == std::string("tmpfs")) {
      _device = MountedFileSystem::mount(row.type, row.size, whyNot);
    } else if (MountedFileSystem::makeImage(row.type, row.size, image, whyNot)) {
      _device = MountedFileSystem::mountImage(row.type, image, whyNot);
    }
  }

  void fillUp() {
    const int filler = ::open((device() / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    EXPECT_EQ(0, ::fallocate(filler, 0, 0, static_cast<off_t>(freeBytes(device()) - room)));
    EXPECT_EQ(0, ::fsync(filler));
    ::close(filler);
  }

  [[nodiscard]] ToolRun offload() const {
    std::vector<std::string> arguments = {file("card/clip.mov"), roomy() / "clip.mov", device() / "small/clip.mov"};
    if (GetParam().isSequence) {
      arguments = {"-s", file("card/p.1-3.####.dpx"), roomy() / "frames", device() / "small/frames"};
    }
    return runTool({.arguments = arguments, .environment = {{"XDG_CONFIG_HOME", file("settings")}}});
  }

  // A last write of which the device takes a part is no failed one: the read-back finds what is missing.
  [[nodiscard]] bool isOutOfSpace(const ToolRun& run) const {
    if (run.exitStatus == 105) return isSomethingShort();
    return run.exitStatus == 110 || run.exitStatus == 107;
  }

  [[nodiscard]] bool isSomethingShort() const {
    for (const std::string& name : namesBelow(file("card"))) {
      const fs::path temporary = device() / "small" / (name + ".kdxcopy");
      if (fs::exists(temporary) && fs::file_size(temporary) < fs::file_size(file("card/" + name))) return true;
    }
    return false;
  }

  void expectAllInPlace(const fs::path& folder) const {
    EXPECT_EQ(namesBelow(file("card")), namesBelow(folder));
    for (const std::string& name : namesBelow(file("card"))) {
      EXPECT_TRUE(readFile(file("card/" + name)) == readFile(folder / name)) << folder / name;
    }
  }

  static void expectNothingInPlace(const fs::path& folder) {
    for (const std::string& name : namesBelow(folder)) EXPECT_THAT(name, testing::EndsWith(".kdxcopy"));
  }

  const std::string _bytes = mediaBytes(room + 2 * buffer);
  ScratchDirectory _scratch;
  std::unique_ptr<MountedFileSystem> _memory;
  std::unique_ptr<MountedFileSystem> _device;
  int _runs = 0;
};

TEST_P(ToolOutOfSpace, OffloadsWhatJustFitsAndGivesNoFinalNameToWhatIsAByteABlockOrABufferTooMuch) {
  std::size_t fitting = block;
  std::size_t tooMuch = room + block;
  ASSERT_TRUE(fits(fitting));
  ASSERT_FALSE(fits(tooMuch));
  // What a file needs beside its bytes is the file system's affair: the edge has to be looked for.
  while (tooMuch - fitting > block) {
    const std::size_t middle = (fitting + tooMuch) / 2 / block * block;
    (fits(middle) ? fitting : tooMuch) = middle;
  }

  // Some file systems give the space of removed files back when they like to, so the edge moves by a few blocks: whatever
  // the outcome there, it is a whole one.
  for (const std::size_t more : {std::size_t{0}, std::size_t{1}, block, block + 1}) {
    std::ignore = fits(fitting + more);
    std::ignore = fits(fitting - more);
  }
  EXPECT_TRUE(fits(fitting - buffer));
  EXPECT_FALSE(fits(fitting + buffer - 1));
  EXPECT_FALSE(fits(fitting + buffer));
  EXPECT_FALSE(fits(fitting + buffer + 1));
  recordRuns();
}

INSTANTIATE_TEST_SUITE_P(
    Devices, ToolOutOfSpace,
    testing::Values(Row{"ClipOnTmpfs", "tmpfs", 4 * MiB, false}, Row{"SequenceOnTmpfs", "tmpfs", 4 * MiB, true},
                    Row{"ClipOnExt4", "ext4", 16 * MiB, false}, Row{"SequenceOnExt4", "ext4", 16 * MiB, true},
                    Row{"ClipOnXfs", "xfs", 300 * MiB, false}, Row{"SequenceOnXfs", "xfs", 300 * MiB, true}),
    [](const auto& row) { return std::string(row.param.name); });

}  // namespace
