#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/SerialQueue.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::HasSubstr;

namespace {

using Names = std::vector<std::string>;

// A sanitizer that sees a leak or a race changes the status at the end, so the checks of a child are told by their own.
void endChild(bool asExpected) {
  ::_exit(asExpected ? 0 : 1);
}

std::string manyLines() {
  std::string lines;
  for (int line = 0; line < 300; ++line) lines += "line " + std::to_string(line) + "\n";
  return lines;
}

void queueManyLines() {
  for (int line = 0; line < 300; ++line) platform::queueLine("line {}\n", line);
}

// Ends of the process

TEST(Process, ItsEndWaitsUntilAllThatWasQueuedIsOut) {
  const ChildRun run = runInChild([] {
    queueManyLines();
    platform::endProcess(7);
  });
  EXPECT_EQ(7, run.exitStatus);
  EXPECT_EQ(manyLines(), run.output);
}

TEST(Process, ItsEndFromAnotherQueueWaitsToo) {
  const ChildRun run = runInChild([] {
    platform::SerialQueue queue("read");
    queue.sync([] {
      queueManyLines();
      platform::endProcess(111);
    });
  });
  EXPECT_EQ(111, run.exitStatus);
  EXPECT_EQ(manyLines(), run.output);
}

TEST(Process, ItsEndWithoutOutputNeedsNoThread) {
  const ChildRun run = runInChild([] { platform::endProcess(0); });
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.output);
}

TEST(Process, ItsEndRunsNoDestructors) {
  const ChildRun run = runInChild([] {
    static const std::unique_ptr<int, void (*)(int*)> object(new int(1), [](int* number) {
      delete number;
      ::_exit(cameBack);
    });
    platform::endProcess(5);
  });
  EXPECT_EQ(5, run.exitStatus);
}

TEST(Process, WhatCouldNotBeHadIsNamedBehindWhatWasQueued) {
  const ChildRun run = runInChild([] {
    queueManyLines();
    platform::logQueue().sync([] {});
    platform::endProcessForLackOf("12 bytes of memory");
  });
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_EQ(manyLines() + "kdxdispatchcopy: could not get 12 bytes of memory\n", run.output);
}

TEST(Process, LackOfAnythingLosesNoLineThatWasQueued) {
  const ChildRun run = runInChild([] {
    queueManyLines();
    platform::endProcessForLackOf("a thread");
  });
  EXPECT_EQ(1, run.exitStatus);
  EXPECT_THAT(run.output, HasSubstr("line 299\n"));
  EXPECT_THAT(run.output, HasSubstr("kdxdispatchcopy: could not get a thread\n"));
}

constexpr const char* emulatorTells = "an emulator tells of the end in a line of its own";

TEST(Process, AFailedAssertionIsToldBehindWhatWasQueuedAndAborts) {
  if (isEmulated()) GTEST_SKIP() << emulatorTells;
  const ChildRun run = runInChild([] {
    queueManyLines();
    platform::assertionFailed("fd > 0", "_openForRead");
  });
  EXPECT_EQ(128 + SIGABRT, run.exitStatus);
  EXPECT_EQ(manyLines() + "kdxdispatchcopy: assertion failed: fd > 0, in _openForRead\n", run.output);
}

TEST(Process, AnAssertionThatFailsOnTheLogQueueItselfAbortsToo) {
  if (isEmulated()) GTEST_SKIP() << emulatorTells;
  const ChildRun run =
      runInChild([] { platform::logQueue().sync([] { platform::assertionFailed("never", "task"); }); });
  EXPECT_EQ(128 + SIGABRT, run.exitStatus);
  EXPECT_EQ("kdxdispatchcopy: assertion failed: never, in task\n", run.output);
}

// Standard output

TEST(Process, UnbufferedOutputIsOutWithoutAFlush) {
  const ChildRun run = runInChild([] {
    platform::makeStandardOutputUnbuffered();
    std::fputs("no newline", stdout);
    ::_exit(0);
  });
  EXPECT_EQ("no newline", run.output);
}

// Where a descriptor leads, as the kernel tells it; empty when it is closed.
std::string targetOf(int descriptor) {
  std::string target(256, '\0');
  const std::string link = "/proc/self/fd/" + std::to_string(descriptor);
  const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
  target.resize(length < 0 ? 0 : static_cast<std::size_t>(length));
  return target;
}

struct ClosedRow : NamedRow {
  std::vector<int> closed;
};

class ClosedDescriptors : public testing::TestWithParam<ClosedRow> {};

TEST_P(ClosedDescriptors, AreOpenedOnDevNullAndTheOthersAreLeftAsTheyAre) {
  const std::vector<int>& closed = GetParam().closed;
  const ChildRun run = runInChild([&] {
    for (const int descriptor : closed) ::close(descriptor);
    const bool inputWasOpen = ::fcntl(STDIN_FILENO, F_GETFD) >= 0;
    const std::string outputBefore = targetOf(STDOUT_FILENO);
    const std::string errorsBefore = targetOf(STDERR_FILENO);
    platform::keepOutputOutOfFiles();
    const auto isRight = [](int descriptor, const std::string& before) {
      return targetOf(descriptor) == (before.empty() ? "/dev/null" : before);
    };
    endChild(isRight(STDOUT_FILENO, outputBefore) && isRight(STDERR_FILENO, errorsBefore) &&
             inputWasOpen == (::fcntl(STDIN_FILENO, F_GETFD) >= 0));
  });
  EXPECT_EQ(0, run.exitStatus);
}

TEST_P(ClosedDescriptors, TakeOutputWithoutAnErrorAfterwards) {
  const ChildRun run = runInChild([&] {
    for (const int descriptor : GetParam().closed) ::close(descriptor);
    platform::keepOutputOutOfFiles();
    endChild(::write(STDOUT_FILENO, "x", 1) == 1 && ::write(STDERR_FILENO, "x", 1) == 1);
  });
  EXPECT_EQ(0, run.exitStatus);
}

INSTANTIATE_TEST_SUITE_P(Process, ClosedDescriptors,
                         testing::Values(ClosedRow{"None", {}}, ClosedRow{"Output", {1}}, ClosedRow{"Errors", {2}},
                                         ClosedRow{"OutputAndErrors", {1, 2}}, ClosedRow{"InputAndOutput", {0, 1}},
                                         ClosedRow{"All", {0, 1, 2}}),
                         rowName);

class OffloadWithClosedOutput : public testing::TestWithParam<ClosedRow> {
 protected:
  // The setting is there because the reader then writes a line on standard error too.
  ToolRun offload(const std::vector<std::string>& arguments) const {
    writeFile(_settings.file("kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
    return runTool({.arguments = arguments,
                    .environment = {{"XDG_CONFIG_HOME", _settings.path().string()}},
                    .closedDescriptors = GetParam().closed});
  }

 private:
  ScratchDirectory _settings;
};

TEST_P(OffloadWithClosedOutput, PutsNoLineIntoADestination) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string bytes = mediaBytes(2 * MiB + 17);
  writeFile(source, bytes);

  const ToolRun run = offload({"-v", source, scratch.file("a/clip.mov"), scratch.file("b/clip.mov")});

  EXPECT_EQ(0, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ((Names{"a/clip.mov", "b/clip.mov", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_TRUE(bytes == readFile(source));
  EXPECT_TRUE(bytes == readFile(scratch.file("a/clip.mov")));
  EXPECT_TRUE(bytes == readFile(scratch.file("b/clip.mov")));
}

TEST_P(OffloadWithClosedOutput, ThatFailsPutsNoLineIntoAFileEither) {
  const ScratchDirectory scratch;
  const std::string source = scratch.file("card/clip.mov");
  const std::string bytes = mediaBytes(MiB + 17);
  writeFile(source, bytes);

  const ToolRun run = offload({"-e", "MD5:00000000000000000000000000000000", source, scratch.file("a/clip.mov")});

  EXPECT_EQ(103, run.exitStatus) << run.output << run.errors;
  EXPECT_EQ((Names{"a/clip.mov.kdxcopy", "card/clip.mov"}), namesBelow(scratch.path()));
  EXPECT_TRUE(bytes == readFile(source));
  EXPECT_TRUE(bytes == readFile(scratch.file("a/clip.mov.kdxcopy")));
}

INSTANTIATE_TEST_SUITE_P(Process, OffloadWithClosedOutput,
                         testing::Values(ClosedRow{"None", {}}, ClosedRow{"Output", {1}}, ClosedRow{"Errors", {2}},
                                         ClosedRow{"OutputAndErrors", {1, 2}}),
                         rowName);

// Disk priority, in the numbers of the system's interface: <linux/ioprio.h> is no C++ in some versions.

// Class 2 (best effort), level 0.
constexpr int64_t highestBestEffort = 2 << 13;

int64_t diskPriority() {
  constexpr int ofProcess = 1;
  constexpr int thisThread = 0;
  return ::syscall(SYS_ioprio_get, ofProcess, thisThread);
}

TEST(Process, TheDiskPriorityBecomesTheHighestOfTheBestEffortClass) {
  const ChildRun run = runInChild([] {
    if (diskPriority() < 0 || diskPriority() == highestBestEffort) ::_exit(cameBack);
    platform::raiseDiskPriority();
    endChild(diskPriority() == highestBestEffort);
  });
  if (run.exitStatus == cameBack) GTEST_SKIP() << "this process has the highest disk priority already, or none";
  EXPECT_EQ(0, run.exitStatus);
}

TEST(Process, ThreadsThatStartLaterInheritTheDiskPriority) {
  const ChildRun run = runInChild([] {
    platform::raiseDiskPriority();
    int64_t inherited = -1;
    platform::SerialQueue("read").sync([&] { inherited = diskPriority(); });
    endChild(inherited == highestBestEffort);
  });
  EXPECT_EQ(0, run.exitStatus);
}

TEST(Process, ARefusedDiskPriorityDoesNotStopTheOffload) {
  if (!canInjectFaults()) GTEST_SKIP() << cannotInject;
  const ScratchDirectory scratch;
  writeFile(scratch.file("clip.mov"), mediaBytes(1000));
  const ToolRun run = runTool({.arguments = {"-k", scratch.file("clip.mov"), scratch.file("a/clip.mov")},
                               .wrapper = injecting("ioprio_set:error=EPERM")});
  EXPECT_EQ(0, run.exitStatus) << run.errors;
  EXPECT_EQ(readFile(scratch.file("clip.mov")), readFile(scratch.file("a/clip.mov")));
}

// Processors

int processorsAllowed() {
  cpu_set_t allowed;
  return ::sched_getaffinity(0, sizeof allowed, &allowed) == 0 ? CPU_COUNT(&allowed) : -1;
}

TEST(Process, StaysOnItsProcessorWithTheThreadsThatStartLater) {
  if (processorsAllowed() < 2) GTEST_SKIP() << "needs two processors";
  const ChildRun run = runInChild([] {
    platform::stayOnThisProcessor();
    int inherited = 0;
    platform::SerialQueue("read").sync([&] { inherited = processorsAllowed(); });
    endChild(processorsAllowed() == 1 && inherited == 1);
  });
  EXPECT_EQ(0, run.exitStatus);
}

TEST(Process, ThatStaysOnItsProcessorIsNotInterruptedByThreadsItWakes) {
  const int policy = ::sched_getscheduler(0);
  if (policy != SCHED_OTHER && policy != SCHED_BATCH) GTEST_SKIP() << "needs to be run with the usual policy";
  const ChildRun run = runInChild([] {
    platform::stayOnThisProcessor();
    int inherited = -1;
    platform::SerialQueue("read").sync([&] { inherited = ::sched_getscheduler(0); });
    endChild(::sched_getscheduler(0) == SCHED_BATCH && inherited == SCHED_BATCH);
  });
  EXPECT_EQ(0, run.exitStatus);
}

TEST(Process, ThatStaysOnItsProcessorKeepsAPolicyThatWasChosenForIt) {
  const ChildRun run = runInChild([] {
    const sched_param withoutPriority{};
    const bool isChosen = ::sched_setscheduler(0, SCHED_IDLE, &withoutPriority) == 0;
    platform::stayOnThisProcessor();
    endChild(isChosen && ::sched_getscheduler(0) == SCHED_IDLE);
  });
  EXPECT_EQ(0, run.exitStatus);
}

}  // namespace
