// A sample of what scripts/sweep runs in full: the tool with one system call failing, or killed before one.

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"
#include "tests/sweep/Offload.h"
#include "tests/sweep/Promise.h"
#include "tests/sweep/Scenario.h"
#include "tests/sweep/SupervisedRun.h"
#include "tests/sweep/Sweep.h"

void PrintTo(const Scenario& scenario, std::ostream* stream) {
  *stream << scenario.name;
}

namespace {

std::vector<Scenario> allScenarios() {
  std::vector<Scenario> scenarios = plainScenarios();
  const std::vector<Scenario> lacking = lackingScenarios();
  scenarios.insert(scenarios.end(), lacking.begin(), lacking.end());
  return scenarios;
}

std::string nameOfTest(const testing::TestParamInfo<Scenario>& row) {
  std::string name;
  for (const char character : row.param.name) name += std::isalnum(character) != 0 ? character : '_';
  return name;
}

class SystemCallSweep : public testing::TestWithParam<Scenario> {
 protected:
  void SetUp() override {
    std::string whyNot;
    if (!canSupervise(whyNot)) GTEST_SKIP() << whyNot;
  }

  // Runs `count` of the faults, spread evenly.
  void expectPromiseKept(const std::vector<Fault>& faults, std::size_t count) const {
    ASSERT_GE(faults.size(), count);
    std::size_t cameToPass = 0;
    for (std::size_t index = 0; index < count; ++index) {
      const Fault& fault = faults[index * faults.size() / count];
      const FaultRun run = runWith(_offload, fault);
      if (run.cameToPass) ++cameToPass;
      EXPECT_EQ(Complaints(), run.complaints) << nameOf(_offload.scenario(), fault);
    }
    // A few calls depend on the pace of threads.
    EXPECT_GT(cameToPass, count / 2);
  }

  const Offload _offload{GetParam()};
};

TEST_P(SystemCallSweep, AFailedCallNeverBreaksThePromise) {
  expectPromiseKept(errorsOf(_offload), 12);
}

TEST_P(SystemCallSweep, ARefusedCallThatOnlyHelpsFailsNothing) {
  expectPromiseKept(refusalsOf(_offload), 10);
}

TEST_P(SystemCallSweep, AKilledRunNeverBreaksThePromiseAndTheNextOneSucceeds) {
  expectPromiseKept(killsOf(_offload), 5);
}

INSTANTIATE_TEST_SUITE_P(Scenarios, SystemCallSweep, testing::ValuesIn(allScenarios()), nameOfTest);

// What a sweep that finds nothing is worth: each thing that can be broken is told.
class WhatTheSweepTells : public testing::Test {
 protected:
  void SetUp() override {
    std::string whyNot;
    if (!canSupervise(whyNot)) GTEST_SKIP() << whyNot;
    _offload.prepare();
    _run = _offload.run([](const SystemCall&) { return Verdict{}; });
    ASSERT_EQ(Complaints(), brokenByRun(_offload, _run));
  }

  // As if these calls had not been made.
  void forget(const std::string& name, const std::string& where) {
    const auto forgotten =
        std::erase_if(_run.calls, [&](const SystemCall& call) { return call.name == name && call.where == where; });
    ASSERT_GT(forgotten, 0U) << name << " " << where;
  }

  [[nodiscard]] std::string path(const std::string& name) const { return _offload.path(name); }
  [[nodiscard]] Complaints told() const { return brokenByRun(_offload, _run); }

  const Offload _offload{{.name = "clip -k", .options = {"-k"}}};
  SupervisedRun _run;
};

TEST_F(WhatTheSweepTells, AFinalNameWithWrongContent) {
  damageFile(path("b/clip.mov"), 1000);
  EXPECT_EQ((Complaints{"b/clip.mov has wrong content", "success without b/clip.mov"}), told());
}

TEST_F(WhatTheSweepTells, AMissingFinalName) {
  std::filesystem::remove(path("a/clip.mov"));
  EXPECT_EQ((Complaints{"success without a/clip.mov"}), told());
}

TEST_F(WhatTheSweepTells, ATemporaryFileThatIsLeft) {
  writeFile(path("a/clip.mov.kdxcopy"), "");
  EXPECT_EQ((Complaints{"success with a/clip.mov.kdxcopy"}), told());
}

TEST_F(WhatTheSweepTells, AChangedSourceAndChangedFilesBesideTheCopies) {
  damageFile(path("card/clip.mov"), 0);
  std::filesystem::remove(path("a/older.mov"));
  EXPECT_EQ((Complaints{"a/older.mov is not as it was", "card/clip.mov is not as it was"}), told());
}

TEST_F(WhatTheSweepTells, AFileThatNobodyAskedFor) {
  writeFile(path("b/core"), "");
  EXPECT_EQ((Complaints{"b/core appeared"}), told());
}

TEST_F(WhatTheSweepTells, DataThatWasNamedBeforeItWasPermanent) {
  forget("fdatasync", "a/clip.mov.kdxcopy");
  EXPECT_EQ((Complaints{"the data of a/clip.mov was not permanent when it got its name"}), told());
}

TEST_F(WhatTheSweepTells, ANameThatWasNotMadePermanent) {
  forget("fsync", "b");
  EXPECT_EQ((Complaints{"the name b/clip.mov was not made permanent"}), told());
}

TEST_F(WhatTheSweepTells, AStatusThatTheFinalNamesBelie) {
  _run.run.exitStatus = 110;
  EXPECT_EQ((Complaints{"status 110 with 2 final names"}), told());
  std::filesystem::remove(path("a/clip.mov"));
  _run.run.exitStatus = 106;
  EXPECT_EQ((Complaints{"status 106 with 1 final names"}), told());
  _run.run.exitStatus = 109;
  EXPECT_EQ((Complaints{"status 109 with 1 final names"}), told());
}

TEST_F(WhatTheSweepTells, AnEndByASignalOrWithAStatusWithoutACause) {
  _run.run.exitStatus = 139;
  EXPECT_EQ((Complaints{"ended by signal 11"}), told());
  _run.run.exitStatus = 134;
  EXPECT_EQ((Complaints{"ended by signal 6"}), told());
  _run.run.exitStatus = 5;
  EXPECT_EQ((Complaints{"ended with status 5, which nothing explains"}), told());
}

TEST_F(WhatTheSweepTells, AFailureForWantOfACallThatOnlyHelps) {
  const FaultRun run = runWith(_offload, {.event = Event::refused, .call = "openat", .where = "a", .error = EPERM});
  EXPECT_TRUE(run.cameToPass);
  EXPECT_EQ((Complaints{"status 107 because of a call that only helps"}), run.complaints);
}

TEST(WhatTheSweepTellsOfReplacedFiles, OneThatIsGoneBeforeItsReplacementIsComplete) {
  const Offload offload({.name = "clip -f", .options = {"-f"}, .replacesFiles = true});
  offload.prepare();
  EXPECT_EQ(Complaints(), brokenByFiles(offload));
  std::filesystem::remove(offload.path("a/clip.mov"));
  EXPECT_EQ((Complaints{"a/clip.mov is gone, with nothing to take its place"}), brokenByFiles(offload));
  writeFile(offload.path("a/clip.mov.kdxcopy"), offload.copies().front().bytes);
  EXPECT_EQ(Complaints(), brokenByFiles(offload));
}

// Found by the sweep: the frames of a destination whose file system could not be told were named without a sync.
TEST(ASequenceWhoseFirstFrameCanNotBeLookedAt, IsPermanentBeforeItIsNamedAllTheSame) {
  std::string whyNot;
  if (!canSupervise(whyNot)) GTEST_SKIP() << whyNot;
  const Offload offload({.name = "sequence -k", .isSequence = true, .options = {"-k"}});
  offload.prepare();
  // Three when it is created, and one at its size.
  constexpr std::size_t looksBeforeMoving = 4;
  std::size_t failed = 0;
  const SupervisedRun run = offload.run([&](const SystemCall& call) {
    const bool isFirstFrame = call.name == "newfstatat" && call.where.ends_with("f_1.dpx.kdxcopy");
    if (!isFirstFrame || call.occurrence <= looksBeforeMoving) return Verdict{};
    ++failed;
    return Verdict{.error = EIO};
  });
  EXPECT_EQ(2U, failed) << "the faults did not come to pass";
  EXPECT_EQ(0, run.run.exitStatus) << run.run.output;
  EXPECT_EQ(Complaints(), brokenByRun(offload, run));
}

}  // namespace
