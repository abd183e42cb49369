// Whole runs to devices that lie: they acknowledge what they did not store, return other bytes than they were given, or
// forget a sync that failed. The source is elsewhere.

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "tests/support/FaultyFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"
#include "tests/support/TwoFolderOffload.h"

namespace fs = std::filesystem;

namespace {

struct Row : NamedRow {
  TwoFolderOffload (*offload)();
  bool direct;  // past the cache
};

class ToolOnLyingDevices : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
    server = std::make_unique<FaultyFileSystem>(_scratch.path());
  }

  void startAfresh() {
    server->clear();
    for (const char* folder : {"first", "second"}) fs::remove_all(server->stored(folder));
    offload.makeFolders(server->backing());
    if (GetParam().direct) return;
    server->whenReading("*").refuseDirect();
    server->whenWriting("*").refuseDirect();
  }

  [[nodiscard]] ToolRun run(std::vector<std::string> options = {}) const {
    return runTool(offload.to(server->root(), std::move(options)));
  }

  // Tells the lie at the ends of the file, of its blocks and of the buffers, of each file of one destination, and finds that
  // every one of them is noticed.
  void expectFoundEverywhere(const std::function<faultyfs::FaultNumber(const std::string&, uint64_t)>& lieAt) {
    int lies = 0;
    for (const auto& [name, bytes] : offload.contents()) {
      if (!name.starts_with("second/")) continue;
      const std::size_t tail = bytes.size() / 4096 * 4096;
      for (const std::size_t place :
           std::set<std::size_t>{0, 4095, 4096, MiB - 1, MiB, tail - 1, tail, bytes.size() - 1}) {
        // What is not stored reads as zeros.
        if (place >= bytes.size() || bytes[place] == '\0') continue;
        SCOPED_TRACE(fmt::format("{} at {}", name, place));
        startAfresh();
        const faultyfs::FaultNumber lie = lieAt(name + ".kdxcopy", place);
        EXPECT_EQ(105, run().exitStatus);
        EXPECT_LE(1U, server->timesFired(lie));
        for (const auto& [final, other] : offload.contents()) EXPECT_FALSE(fs::exists(server->stored(final))) << final;
        ++lies;
      }
    }
    EXPECT_LE(6, lies);
    RecordProperty("lies", lies);
  }

  const TwoFolderOffload offload = GetParam().offload();
  std::unique_ptr<FaultyFileSystem> server;

 private:
  ScratchDirectory _scratch;
};

INSTANTIATE_TEST_SUITE_P(Offloads, ToolOnLyingDevices,
                         testing::Values(Row{"Clip", TwoFolderOffload::ofAClip, true},
                                         Row{"ClipThroughTheCache", TwoFolderOffload::ofAClip, false},
                                         Row{"Sequence", TwoFolderOffload::ofASequence, true},
                                         Row{"SequenceThroughTheCache", TwoFolderOffload::ofASequence, false}),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(ToolOnLyingDevices, AnOffloadToAnHonestOneSucceeds) {
  startAfresh();
  EXPECT_EQ(0, run().exitStatus);
  offload.expectAllInPlace(server->backing());
}

TEST_P(ToolOnLyingDevices, AByteThatWasAcknowledgedAndDroppedIsFound) {
  expectFoundEverywhere(
      [&](const std::string& file, uint64_t place) { return server->whenWriting(file).dropRange(place, 1); });
}

TEST_P(ToolOnLyingDevices, AFileThatWasAcknowledgedAndDroppedAsAWholeIsFound) {
  expectFoundEverywhere(
      [&](const std::string& file, uint64_t) { return server->whenWriting(file).dropRange(0, 4 * MiB); });
}

TEST_P(ToolOnLyingDevices, AWriteThatWasAcknowledgedAndTornIsFound) {
  expectFoundEverywhere(
      [&](const std::string& file, uint64_t place) { return server->whenWriting(file).tearAt(place, 5); });
}

TEST_P(ToolOnLyingDevices, AByteThatIsAnotherOneLaterIsFound) {
  expectFoundEverywhere(
      [&](const std::string& file, uint64_t place) { return server->whenReading(file).flipBitAt(place, 7); });
}

TEST_P(ToolOnLyingDevices, ABitThatWasStoredWrongIsFound) {
  expectFoundEverywhere(
      [&](const std::string& file, uint64_t place) { return server->whenWriting(file).flipBitAt(place, 3); });
}

// Whoever tried again would be told that all is well: what the device could not take is forgotten by then.
TEST_P(ToolOnLyingDevices, EachSyncThatFailsOnceAndWouldThenSucceedFailsTheRun) {
  for (uint64_t number = 1;; ++number) {
    SCOPED_TRACE(fmt::format("sync {}", number));
    startAfresh();
    const faultyfs::FaultNumber failure = server->whenSyncing("*").fromRequest(number).times(1).fail(EIO);
    const ToolRun failed = run();
    if (server->timesFired(failure) == 0) {
      EXPECT_EQ(0, failed.exitStatus);
      // One of each file before the moves and, of what is flushed behind them, one of the file and one of its folder.
      EXPECT_LE(offload.contents().size() + 4, number - 1);
      RecordProperty("syncs", static_cast<int>(number - 1));
      return;
    }
    // Through the cache a file is synced when it is closed, which is a failed write, and before it is read back.
    const std::set<int> statuses = GetParam().direct ? std::set{106} : std::set{106, 110, 105};
    EXPECT_TRUE(statuses.contains(failed.exitStatus)) << failed.exitStatus << failed.output;
    offload.expectNothingLost(server->backing(), {});
    offload.expectSourceUntouched();
    EXPECT_EQ(0, run({"-f"}).exitStatus);
    offload.expectAllInPlace(server->backing());
  }
}

}  // namespace
