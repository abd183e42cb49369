#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/file.h>
#include <unistd.h>

#include <csignal>

#include "platform/ChildProcess.h"
#include "tests/support/ScratchDirectory.h"

using platform::ChildProcess;

namespace {

std::optional<ChildProcess> shell(const std::string& command, const std::vector<int>& inherited = {}) {
  return ChildProcess::start("/bin/sh", {"sh", "-c", command}, inherited, nullptr);
}

void waitUntilReadable(const platform::FileDescriptor& descriptor) {
  pollfd end{.fd = descriptor.get(), .events = POLLIN, .revents = 0};
  ASSERT_EQ(1, ::poll(&end, 1, -1));
}

int statusOf(ChildProcess& child) {
  waitUntilReadable(child.ended);
  return child.exitStatus().value_or(-1);
}

}  // namespace

TEST(ChildProcess, WhatItPrintsAndItsStatusArrive) {
  auto child = shell("echo out; echo err >&2; exit 7");
  ASSERT_TRUE(child);
  EXPECT_EQ(7, statusOf(*child));
  EXPECT_EQ("out\n", platform::readSome(child->output.get()));
  EXPECT_EQ("err\n", platform::readSome(child->errors.get()));
  EXPECT_EQ(7, child->exitStatus());
}

TEST(ChildProcess, OrdersReachItAndResultsComeBack) {
  auto child = shell("cat <&3 >&4");
  ASSERT_TRUE(child);
  ASSERT_EQ(5, ::write(child->orders.get(), "order", 5));
  waitUntilReadable(child->results);
  EXPECT_EQ("order", platform::readSome(child->results.get()));
  child->orders.close();
  EXPECT_EQ(0, statusOf(*child));
}

TEST(ChildProcess, ASignalThatEndsItIsInItsStatus) {
  auto child = shell("cat <&3");
  ASSERT_TRUE(child);
  EXPECT_EQ(std::nullopt, child->exitStatus());
  child->terminate();
  EXPECT_EQ(128 + SIGTERM, statusOf(*child));
}

TEST(ChildProcess, AProgramThatIsNotThereEndsWithAFailure) {
  auto child = ChildProcess::start("/nonexistent", {"x"}, {}, nullptr);
  ASSERT_TRUE(child);
  EXPECT_EQ(1, statusOf(*child));
}

TEST(ChildProcess, ALockLastsAsLongAsTheChildThatInheritedIt) {
  const ScratchDirectory scratch;
  const auto open = [&] { return platform::FileDescriptor(::open(scratch.path().c_str(), O_RDONLY | O_CLOEXEC)); };
  platform::FileDescriptor mine = open();
  ASSERT_EQ(0, ::flock(mine.get(), LOCK_EX | LOCK_NB));
  auto child = shell("cat <&3", {mine.get()});
  ASSERT_TRUE(child);
  // It has the program's start behind it, and the descriptors with it, when it answers.
  mine.close();
  const platform::FileDescriptor other = open();
  EXPECT_NE(0, ::flock(other.get(), LOCK_EX | LOCK_NB));
  child->orders.close();
  EXPECT_EQ(0, statusOf(*child));
  EXPECT_EQ(0, ::flock(other.get(), LOCK_EX | LOCK_NB));
}

TEST(ChildProcess, ReadingAndWritingIsActivity) {
  auto child = shell("read a <&3; head -c 100000 /dev/zero > /dev/null; echo done; read b <&3");
  ASSERT_TRUE(child);
  const auto before = child->activity();
  if (!before) GTEST_SKIP() << "the system does not tell what a process reads and writes";
  ASSERT_EQ(1, ::write(child->orders.get(), "\n", 1));
  waitUntilReadable(child->output);
  EXPECT_GT(*child->activity(), *before);
}

TEST(ChildProcess, ItIsKilledWithTheObject) {
  const ScratchDirectory scratch;
  const platform::FileDescriptor lock(::open(scratch.path().c_str(), O_RDONLY | O_CLOEXEC));
  platform::FileDescriptor output;
  {
    auto child = shell("echo ready; exec cat <&3");
    ASSERT_TRUE(child);
    waitUntilReadable(child->output);
    EXPECT_EQ("ready\n", platform::readSome(child->output.get()));
    output = std::move(child->output);
  }
  // Its end of the pipe is closed with it.
  pollfd end{.fd = output.get(), .events = POLLIN, .revents = 0};
  ASSERT_EQ(1, ::poll(&end, 1, -1));
  EXPECT_EQ("", platform::readSome(output.get()));
}
