#include <fcntl.h>
#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include "KDXFileTools/kdxoffload/OutputStream.h"
#include "platform/Process.h"
#include "tests/support/OutputLines.h"

using kdxoffload::OutputStream;

namespace {

constexpr double longEnough = 60;  // seconds; never waited for where all goes well

// A pipe whose reader is the test. The writing end stays open, as a process's own descriptors do: a thread of a stream may
// still be at it when the test is over.
class Reader {
 public:
  Reader() {
    platform::letWritesFailInsteadOfSignals();  // as the program does
    std::array<int, 2> ends{};
    EXPECT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC));
    _reading = ends[0];
    _writing = ends[1];
  }
  ~Reader() { goAway(); }
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  [[nodiscard]] int descriptor() const { return _writing; }

  // Waits until so many bytes are there.
  std::string read(std::size_t length) const {
    std::string bytes(length, '\0');
    std::size_t got = 0;
    while (got < length) {
      const ssize_t count = ::read(_reading, bytes.data() + got, length - got);
      if (count <= 0) break;
      got += static_cast<std::size_t>(count);
    }
    bytes.resize(got);
    return bytes;
  }

  void goAway() {
    if (_reading >= 0) ::close(_reading);
    _reading = -1;
  }

 private:
  int _reading = -1;
  int _writing = -1;
};

// More than any pipe holds.
std::string longText(char letter) {
  return std::string((std::size_t{1} << 20) - 1, letter) + "\n";
}

TEST(OutputStream, TextsComeOutInTheirOrder) {
  const Reader reader;
  OutputStream stream(reader.descriptor());
  std::string expected;
  for (int number = 0; number < 1000; ++number) {
    const std::string line = fmt::format("line {}\n", number);
    expected += line;
    EXPECT_TRUE(stream.write(line));
  }
  EXPECT_EQ(expected, reader.read(expected.size()));
  EXPECT_TRUE(stream.finish(longEnough));
  EXPECT_EQ(0U, stream.dropped());
}

TEST(OutputStream, NothingToWriteIsFinishedAtOnce) {
  const Reader reader;
  OutputStream stream(reader.descriptor());
  EXPECT_TRUE(stream.finish(0));
}

TEST(OutputStream, TextsOfSeveralThreadsAreNotMixed) {
  const Reader reader;
  OutputStream stream(reader.descriptor());
  std::vector<std::thread> threads;
  for (const char letter : {'a', 'b', 'c', 'd'}) {
    threads.emplace_back([&stream, letter] { stream.write(longText(letter)); });
  }
  const std::string all = reader.read(4 * longText('a').size());
  for (std::thread& thread : threads) thread.join();
  std::vector<std::string> lines = linesOf(all);
  std::ranges::sort(lines);
  for (std::string& line : lines) line += '\n';
  EXPECT_EQ(lines, (std::vector{longText('a'), longText('b'), longText('c'), longText('d')}));
}

TEST(OutputStream, AReaderThatNeverReadsHoldsNobodyUp) {
  const Reader reader;
  const auto start = std::chrono::steady_clock::now();
  {
    OutputStream stream(reader.descriptor());
    EXPECT_TRUE(stream.write(longText('a')));
    EXPECT_TRUE(stream.write(longText('b')));
    EXPECT_FALSE(stream.finish(0.01));
  }
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(OutputStream, WhatAReaderDoesNotReadTakesBoundedMemory) {
  const Reader reader;
  const std::size_t atMost = 3 * longText('a').size();
  OutputStream stream(reader.descriptor(), atMost);
  for (int text = 0; text < 3; ++text) EXPECT_TRUE(stream.write(longText('a')));
  for (int text = 0; text < 5; ++text) EXPECT_FALSE(stream.write(longText('b')));
  EXPECT_EQ(5U, stream.dropped());
}

TEST(OutputStream, TheTextAtTheEndIsKeptWhenOthersWereDropped) {
  const Reader reader;
  OutputStream stream(reader.descriptor(), 2 * longText('a').size());
  EXPECT_TRUE(stream.write(longText('a')));
  EXPECT_TRUE(stream.write(longText('a')));
  EXPECT_FALSE(stream.write("dropped\n"));
  stream.writeAlways("the verdict\n");

  const std::string expected = longText('a') + longText('a') + "the verdict\n";
  EXPECT_EQ(expected, reader.read(expected.size()));
  EXPECT_TRUE(stream.finish(longEnough));
}

TEST(OutputStream, AReaderThatComesBackGetsWhatIsWrittenFromThenOn) {
  const Reader reader;
  OutputStream stream(reader.descriptor(), longText('a').size());
  EXPECT_TRUE(stream.write(longText('a')));
  EXPECT_FALSE(stream.write("dropped\n"));
  EXPECT_EQ(longText('a'), reader.read(longText('a').size()));
  ASSERT_TRUE(stream.finish(longEnough));

  EXPECT_TRUE(stream.write("next\n"));
  EXPECT_EQ("next\n", reader.read(5));
  EXPECT_EQ(1U, stream.dropped());
}

TEST(OutputStream, ATextThatTheNextMakesObsoleteIsLeftOutWhileOthersWait) {
  const Reader reader;
  OutputStream stream(reader.descriptor());
  EXPECT_TRUE(stream.writeUnlessWaiting("first\n"));
  EXPECT_TRUE(stream.write(longText('a')));
  EXPECT_FALSE(stream.writeUnlessWaiting("left out\n"));
  const std::string expected = "first\n" + longText('a');
  EXPECT_EQ(expected, reader.read(expected.size()));
  ASSERT_TRUE(stream.finish(longEnough));

  EXPECT_TRUE(stream.writeUnlessWaiting("second\n"));
  EXPECT_EQ("second\n", reader.read(7));
  EXPECT_EQ(0U, stream.dropped());
}

TEST(OutputStream, AReaderThatGoesAwayIsNoFailure) {
  Reader reader;
  OutputStream stream(reader.descriptor());
  EXPECT_TRUE(stream.write(longText('a')));
  reader.goAway();
  EXPECT_TRUE(stream.write("more\n"));
  EXPECT_TRUE(stream.finish(longEnough));
}

TEST(OutputStream, ATextComesAfterAllThatWasQueuedInTheOtherStream) {
  // Both go to the same place, as with `2>&1`.
  const Reader reader;
  OutputStream messages(reader.descriptor());
  OutputStream results(reader.descriptor());
  const std::string expected = longText('m') + "last message\n" + "verdict\n";
  messages.write(longText('m'));
  messages.write("last message\n");
  results.writeAlwaysAfter(messages, "verdict\n");
  EXPECT_EQ(expected, reader.read(expected.size()));
  EXPECT_TRUE(results.finish(longEnough));
}

}  // namespace
