// Runs that a signal ends, at any step on the way: nothing is lost, and the same command again succeeds.
//
// A sample of the steps, spread over the run. All of them, which takes some minutes:
//   KDX_ALL_STEPS=1 ctest --test-dir build/release --parallel 2 --tests-regex ToolSignals

#include <fmt/format.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <vector>

#include "tests/support/MountedFileSystem.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/TracedTool.h"
#include "tests/support/TwoFolderOffload.h"

namespace fs = std::filesystem;

namespace {

// Every call that changes what is on disk or makes it permanent. Reads are as good a moment as any other.
const std::set<long> steps{SYS_openat, SYS_read,   SYS_write,       SYS_sync_file_range, SYS_close,     SYS_fdatasync,
                           SYS_fsync,  SYS_syncfs, callThatRemoves, SYS_renameat2,       SYS_exit_group};
// Those at which runs differ most in what they leave.
const std::set<long> turningPoints{SYS_fdatasync,   SYS_fsync,     SYS_syncfs,
                                   callThatRemoves, SYS_renameat2, SYS_exit_group};

struct Row : NamedRow {
  int signal;
  const std::set<long>* moments;
  TwoFolderOffload (*offload)();
  bool replacing;
};

class ToolSignals : public testing::TestWithParam<Row> {
 protected:
  void SetUp() override {
    if (!canStopTheTool()) GTEST_SKIP() << cannotStop;
    std::string whyNot;
    _memory = MountedFileSystem::mount("tmpfs", 64 * MiB, whyNot);
  }

  // In memory where that can be had: what is tested here does not depend on the device, and takes many syncs.
  [[nodiscard]] fs::path root() const { return _memory ? _memory->path() : _scratch.path(); }

  void startAfresh() {
    for (const char* folder : {"first", "second"}) fs::remove_all(root() / folder);
    offload.makeFolders(root());
    old = GetParam().replacing ? offload.writeOldFiles(root()) : Contents();
    writeFile(root() / "first/other.mov", "another clip");
  }

  [[nodiscard]] std::vector<std::string> options() const {
    return GetParam().replacing ? std::vector<std::string>{"-f"} : std::vector<std::string>();
  }

  // How many moments lie between those that are tried.
  [[nodiscard]] static std::size_t strideFor(std::size_t moments) {
    constexpr std::size_t sampleSize = 12;
    return std::getenv("KDX_ALL_STEPS") != nullptr ? 1 : std::max<std::size_t>(1, moments / sampleSize);
  }

  // All moments of a run that nothing disturbs. Threads share the work, so the n-th moment of another run may be another
  // step; every run has about as many.
  std::size_t countMoments() {
    startAfresh();
    std::size_t count = 0;
    const ToolRun run = runTool(offload.to(root(), options()), *GetParam().moments, [&](const StoppedCall&) {
      ++count;
      return 0;
    });
    EXPECT_EQ(0, run.exitStatus) << run.output;
    offload.expectAllInPlace(root());
    return count;
  }

  ToolRun runUntil(std::size_t moment) {
    std::size_t met = 0;
    return runTool(offload.to(root(), options()), *GetParam().moments,
                   [&](const StoppedCall&) { return ++met == moment ? GetParam().signal : 0; });
  }

  void expectNothingLost(const ToolRun& run) const {
    if (run.exitStatus == 0) {
      offload.expectAllInPlace(root());
    } else {
      EXPECT_EQ(128 + GetParam().signal, run.exitStatus) << run.output;
    }
    offload.expectNothingLost(root(), old);
    offload.expectSourceUntouched();
    EXPECT_EQ("another clip", readFile(root() / "first/other.mov"));
  }

  // The same command, with -f where a final name is given out already.
  void expectAnotherRunSucceeds() const {
    const bool isTaken =
        std::ranges::any_of(offload.contents(), [&](const auto& file) { return fs::exists(root() / file.first); });
    const ToolRun again = runTool(offload.to(root(), isTaken ? std::vector<std::string>{"-f"} : options()));
    EXPECT_EQ(0, again.exitStatus) << again.output << again.errors;
    offload.expectAllInPlace(root());
    // Nothing is left of the run before: the files, and the other clip.
    EXPECT_EQ(offload.contents().size() + 1, namesBelow(root()).size());
  }

  const TwoFolderOffload offload = GetParam().offload();
  Contents old;

 private:
  ScratchDirectory _scratch;
  std::unique_ptr<MountedFileSystem> _memory;
};

TEST_P(ToolSignals, AtAnyStepLoseNothingAndTheSameCommandAgainSucceeds) {
  const std::size_t moments = countMoments();
  ASSERT_LT(10, moments);
  const std::size_t stride = strideFor(moments);
  int tried = 0;
  // Each signal has its own moments.
  for (std::size_t moment = 1 + static_cast<std::size_t>(GetParam().signal) % stride; moment <= moments;
       moment += stride) {
    SCOPED_TRACE(fmt::format("moment {} of {}", moment, moments));
    startAfresh();
    expectNothingLost(runUntil(moment));
    expectAnotherRunSucceeds();
    ++tried;
  }
  RecordProperty("moments", tried);
}

const auto clip = TwoFolderOffload::ofAClip;
const auto sequence = TwoFolderOffload::ofASequence;

INSTANTIATE_TEST_SUITE_P(Signals, ToolSignals,
                         testing::Values(Row{"KillDuringAClip", SIGKILL, &steps, clip, false},
                                         Row{"KillDuringASequence", SIGKILL, &steps, sequence, false},
                                         Row{"KillDuringAReplacedClip", SIGKILL, &turningPoints, clip, true},
                                         Row{"KillDuringAReplacedSequence", SIGKILL, &turningPoints, sequence, true},
                                         Row{"InterruptDuringAClip", SIGINT, &steps, clip, false},
                                         Row{"InterruptDuringASequence", SIGINT, &steps, sequence, false},
                                         Row{"TerminateDuringAClip", SIGTERM, &steps, clip, false},
                                         Row{"TerminateDuringASequence", SIGTERM, &steps, sequence, false},
                                         Row{"HangupDuringAClip", SIGHUP, &steps, clip, false},
                                         Row{"HangupDuringASequence", SIGHUP, &steps, sequence, false},
                                         Row{"BrokenPipeDuringAClip", SIGPIPE, &steps, clip, false},
                                         Row{"BrokenPipeDuringASequence", SIGPIPE, &steps, sequence, false}),
                         [](const auto& row) { return std::string(row.param.name); });

}  // namespace
