#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "platform/Log.h"
#include "platform/Process.h"
#include "tests/support/ChildProcess.h"

using platform::Error;

namespace {

TEST(Log, QueuedTextsComeOutWholeAndInTheirOrder) {
  std::string expected;
  for (int line = 0; line < 500; ++line) expected += "line " + std::to_string(line) + "\n";
  const ChildRun run = runInChild([] {
    for (int line = 0; line < 500; ++line) platform::queueLine("line {}\n", line);
    platform::logQueue().sync([] {});
  });
  EXPECT_EQ(expected, run.output);
}

TEST(Log, PrintAndWaitReturnsWhenItAndAllBeforeItIsOut) {
  const ChildRun run = runInChild([] {
    platform::queueText("queued, no newline; ");
    platform::printAndWait("failed: {}", -1);
    ::_exit(0);
  });
  EXPECT_EQ("queued, no newline; failed: -1", run.output);
}

TEST(Log, ATextIsPrintedAsItIsWhateverLooksLikeAFormat) {
  const ChildRun run = runInChild([] {
    platform::queueText("100% {} %s %n\n");
    platform::printTextAndWait("{0}%d\n");
  });
  EXPECT_EQ("100% {} %s %n\n{0}%d\n", run.output);
}

TEST(Log, ATextWithAZeroByteIsPrintedWhole) {
  const ChildRun run = runInChild([] { platform::printTextAndWait(std::string("a\0b\n", 4)); });
  EXPECT_EQ(std::string("a\0b\n", 4), run.output);
}

TEST(Log, TasksOnTheQueuePrintInTheirTurn) {
  const ChildRun run = runInChild([] {
    platform::queueText("before\n");
    platform::logQueue().async([] { platform::printOnLogQueue("task\n"); });
    platform::printTextAndWait("behind\n");
  });
  EXPECT_EQ("before\ntask\nbehind\n", run.output);
}

TEST(Log, TheSystemLogIsOneLineOnStandardErrorBehindWhatWasQueued) {
  const ChildRun run = runInChild([] {
    platform::queueText("queued\n");
    platform::systemLog("KDXReadFile buffer size 4");
    ::_exit(0);
  });
  EXPECT_EQ("queued\nkdxdispatchcopy: KDXReadFile buffer size 4\n", run.output);
}

TEST(Log, AFullStandardOutputIsPassedOver) {
  const ChildRun run = runInChild([] {
    const int full = ::open("/dev/full", O_WRONLY);
    ::dup2(full, STDOUT_FILENO);
    platform::queueText("lost\n");
    platform::printTextAndWait("lost too\n");
    platform::endProcess(0);
  });
  EXPECT_EQ(0, run.exitStatus);
  EXPECT_EQ("", run.output);
}

TEST(Log, AStandardOutputThatNobodyReadsIsPassedOver) {
  const ChildRun run = runInChild([] {
    platform::letWritesFailInsteadOfSignals();
    int ends[2] = {-1, -1};
    if (::pipe(ends) != 0) ::_exit(1);
    ::dup2(ends[1], STDOUT_FILENO);
    ::close(ends[0]);
    ::close(ends[1]);
    platform::printTextAndWait("lost\n");
    platform::endProcess(0);
  });
  EXPECT_EQ(0, run.exitStatus);
}

TEST(Log, AnErrorIsTheDomainTheCodeAndTheDescription) {
  EXPECT_EQ("KDXCopyErrorDomain 109: /a/clip.mov already exists",
            platform::description(Error{.domain = "KDXCopyErrorDomain",
                                        .code = 109,
                                        .description = "/a/clip.mov already exists",
                                        .path = "/a/clip.mov"}));
}

TEST(Log, AnErrorWithoutDescriptionIsToldByItsPath) {
  EXPECT_EQ(
      "KDXCopyErrorDomain 109: /a/clip.mov.kdxcopy",
      platform::description(Error{
          .domain = "KDXCopyErrorDomain", .code = 109, .description = std::nullopt, .path = "/a/clip.mov.kdxcopy"}));
}

TEST(Log, AnErrorWithNeitherSaysSo) {
  EXPECT_EQ("KDXCopyErrorDomain 109: (null)",
            platform::description(
                Error{.domain = "KDXCopyErrorDomain", .code = 109, .description = std::nullopt, .path = std::nullopt}));
}

TEST(Log, TheQueueIsOneForTheWholeProcess) {
  EXPECT_EQ(&platform::logQueue(), &platform::logQueue());
}

}  // namespace
