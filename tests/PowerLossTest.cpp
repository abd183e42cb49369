// What is on a device when the power fails: at the end of a run, and at every sync and rename on the way.

#include <fcntl.h>
#include <fmt/format.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <memory>
#include <set>

#include "tests/support/FaultyFileSystem.h"
#include "tests/support/MountedFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/TracedTool.h"
#include "tests/support/TwoFolderOffload.h"

namespace fs = std::filesystem;

namespace {

// Every call after which something else is permanent, or has another name.
const std::set<long> syncsAndRenames{SYS_fsync,     SYS_fdatasync, SYS_syncfs,     callThatRenames,
                                     SYS_renameat2, callThatLinks, callThatRemoves};

struct Row : NamedRow {
  const char* type;
  std::size_t size;
  TwoFolderOffload (*offload)();
};

const auto rows = testing::Values(Row{"ClipOnExt4", "ext4", 32 * MiB, TwoFolderOffload::ofAClip},
                                  Row{"SequenceOnExt4", "ext4", 32 * MiB, TwoFolderOffload::ofASequence},
                                  Row{"ClipWithoutAJournal", "ext2", 32 * MiB, TwoFolderOffload::ofAClip},
                                  Row{"SequenceWithoutAJournal", "ext2", 32 * MiB, TwoFolderOffload::ofASequence},
                                  Row{"ClipOnXfs", "xfs", 300 * MiB, TwoFolderOffload::ofAClip},
                                  Row{"SequenceOnXfs", "xfs", 300 * MiB, TwoFolderOffload::ofASequence});

// A device whose write cache is volatile. What a file system writes to it is lost with the power until the file system has
// flushed the device.
class PowerLoss : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
    std::string whyNot;
    _memory = MountedFileSystem::mount("tmpfs", 1024 * MiB, whyNot);
    if (!_memory) GTEST_SKIP() << whyNot;
    _server = std::make_unique<FaultyFileSystem>(_memory->path());
    if (!MountedFileSystem::makeImage(GetParam().type, GetParam().size, _server->stored(device), whyNot)) {
      GTEST_SKIP() << whyNot;
    }
    _server->cacheWrites(device);
    _volume = MountedFileSystem::mountImage(GetParam().type, _server->path(device), whyNot);
    if (!_volume) GTEST_SKIP() << whyNot;
    offload.makeFolders(root());
    makePermanent();
  }

  [[nodiscard]] const fs::path& root() const { return _volume->path(); }

  void writeOldFiles() {
    old = offload.writeOldFiles(root());
    makePermanent();
  }

  // Has the device lose its power now, and looks at what is on it when it is used again.
  void lookAfterPowerLoss(uint64_t seed, const std::function<void(const fs::path&)>& look) {
    SCOPED_TRACE(fmt::format("power loss {}, seed {}", ++_losses, seed));
    const std::string copy = _memory->file("after-power-loss");
    _server->copyAfterPowerLoss(device, copy, seed);
    std::string whyNot;
    const auto after = MountedFileSystem::mountImage(GetParam().type, copy, whyNot);
    ASSERT_TRUE(after) << whyNot;
    look(after->path());
  }

  void lookAfterEachPowerLoss(const std::function<void(const fs::path&)>& look) {
    for (const uint64_t seed : {faultyfs::losingAll, faultyfs::losingNothing, uint64_t{1} + _losses}) {
      lookAfterPowerLoss(seed, look);
    }
  }

  // Runs the tool and loses the power before the first of its syncs and renames and behind each of them.
  ToolRun runLosingPowerAllTheTime(const std::vector<std::string>& options) {
    return runTool(offload.to(root(), options), syncsAndRenames, [&](const StoppedCall& call) {
      if (_losses != 0 && !call.isOver) return 0;
      SCOPED_TRACE(
          fmt::format("{} call {} number {}", call.isOver ? "behind" : "before", call.number, call.occurrence));
      const auto look = [&](const fs::path& after) { offload.expectNothingLost(after, old); };
      lookAfterPowerLoss(faultyfs::losingAll, look);
      lookAfterPowerLoss(_losses % 4 == 1 ? faultyfs::losingNothing : _losses, look);
      return 0;
    });
  }

  static constexpr const char* device = "device";

  const TwoFolderOffload offload = GetParam().offload();
  Contents old;

 private:
  void makePermanent() const {
    const int folder = ::open(root().c_str(), O_RDONLY | O_CLOEXEC);
    EXPECT_EQ(0, ::syncfs(folder));
    ::close(folder);
  }

  // For the device and its copies: their syncs need not wait for a real one.
  std::unique_ptr<MountedFileSystem> _memory;
  std::unique_ptr<FaultyFileSystem> _server;
  std::unique_ptr<MountedFileSystem> _volume;
  uint64_t _losses = 0;
};

INSTANTIATE_TEST_SUITE_P(Devices, PowerLoss, rows, [](const auto& row) { return std::string(row.param.name); });

// Without this the others prove nothing.
TEST_P(PowerLoss, TakesWhatWasNotSynced) {
  const std::string name = offload.contents().begin()->first;
  writeFile(root() / name, offload.contents().begin()->second);

  lookAfterPowerLoss(faultyfs::losingAll, [&](const fs::path& after) { EXPECT_FALSE(fs::exists(after / name)); });
}

TEST_P(PowerLoss, RightAfterExitStatusZeroFindsEveryDestinationCompleteUnderItsFinalName) {
  const ToolRun run = runTool(offload.to(root()));

  ASSERT_EQ(0, run.exitStatus) << run.output;
  lookAfterEachPowerLoss([&](const fs::path& after) { offload.expectAllInPlace(after); });
}

TEST_P(PowerLoss, RightAfterExitStatusZeroFindsEveryReplacedDestinationComplete) {
  writeOldFiles();

  const ToolRun run = runTool(offload.to(root(), {"-f", "-k"}));

  ASSERT_EQ(0, run.exitStatus) << run.output;
  lookAfterEachPowerLoss([&](const fs::path& after) { offload.expectAllInPlace(after); });
}

TEST_P(PowerLoss, AtAnySyncOrRenameFindsNoFinalNameThatIsNotComplete) {
  if (!canStopTheTool()) GTEST_SKIP() << cannotStop;
  EXPECT_EQ(0, runLosingPowerAllTheTime({}).exitStatus);
}

TEST_P(PowerLoss, AtAnySyncOrRenameTakesNoReplacedFileWithoutItsReplacement) {
  if (!canStopTheTool()) GTEST_SKIP() << cannotStop;
  writeOldFiles();
  EXPECT_EQ(0, runLosingPowerAllTheTime({"-f", "-k"}).exitStatus);
}

// A journal may flush the device before it takes a new name, and so cover for a missing sync; not every file system has one.
TEST_P(PowerLoss, BeforeTheFirstRenameFindsEveryCopyCompleteUnderItsTemporaryName) {
  if (!canStopTheTool()) GTEST_SKIP() << cannotStop;
  uint64_t renames = 0;
  const ToolRun run = runTool(offload.to(root()), {SYS_renameat2}, [&](const StoppedCall& call) {
    ++renames;
    if (call.occurrence == 1 && !call.isOver) {
      lookAfterEachPowerLoss([&](const fs::path& after) { offload.expectAllUnderTheirTemporaryNames(after); });
    }
    return 0;
  });
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ(2 * offload.contents().size(), renames);
}

// A device without a cache, and nothing but a loop device between it and the file system.
class PlainDevice : public testing::TestWithParam<Row> {};

INSTANTIATE_TEST_SUITE_P(Devices, PlainDevice, rows, [](const auto& row) { return std::string(row.param.name); });

TEST_P(PlainDevice, ThatIsCopiedTheMomentTheToolHasEndedHoldsEveryDestination) {
  const ScratchDirectory scratch;
  const std::string image = scratch.file("image");
  const std::string copy = scratch.file("copy");
  std::string whyNot;
  if (!MountedFileSystem::makeImage(GetParam().type, GetParam().size, image, whyNot)) GTEST_SKIP() << whyNot;
  const auto volume = MountedFileSystem::mountImage(GetParam().type, image, whyNot);
  if (!volume) GTEST_SKIP() << whyNot;
  const TwoFolderOffload offload = GetParam().offload();
  offload.makeFolders(volume->path());

  const ToolRun run = runTool(offload.to(volume->path()));
  ASSERT_EQ(0, std::system(("cp --sparse=always " + image + " " + copy).c_str()));

  ASSERT_EQ(0, run.exitStatus) << run.output;
  const auto after = MountedFileSystem::mountImage(GetParam().type, copy, whyNot);
  ASSERT_TRUE(after) << whyNot;
  offload.expectAllInPlace(after->path());
}

}  // namespace
