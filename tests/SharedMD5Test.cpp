#include <gtest/gtest.h>
#include <pthread.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <latch>
#include <random>
#include <span>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "digest/DigestStrings.h"
#include "digest/MD5EightStreams.h"
#include "digest/SharedMD5.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

namespace {

std::string hexDigest(MD5_CTX& digest) {
  std::array<uint8_t, MD5_DIGEST_LENGTH> bytes{};
  MD5_Final(bytes.data(), &digest);
  return hexstringWithBytes(bytes);
}

std::string digestOfTheLibrary(const std::string& bytes) {
  MD5_CTX digest;
  MD5_Init(&digest);
  MD5_Update(&digest, bytes.data(), bytes.size());
  return hexDigest(digest);
}

void expectDigestsOfTheLibrary(const std::vector<std::string>& streams, const std::vector<std::string>& digests) {
  for (std::size_t number = 0; number < streams.size(); ++number) {
    EXPECT_EQ(digestOfTheLibrary(streams[number]), digests[number]) << "stream " << number;
  }
}

// Digests the streams side by side, each in one piece, all from the same moment on.
std::vector<std::string> digestsOf(
    const std::vector<std::string>& streams, SharedMD5& md5, const std::function<void()>& beforeTheyStart = [] {}) {
  std::vector<std::string> digests(streams.size());
  std::vector<std::thread> threads;
  std::latch start(static_cast<std::ptrdiff_t>(streams.size()) + 1);
  for (std::size_t number = 0; number < streams.size(); ++number) {
    threads.emplace_back([&, number] {
      MD5_CTX digest;
      MD5_Init(&digest);
      start.arrive_and_wait();
      md5.update(digest, streams[number].data(), streams[number].size());
      digests[number] = hexDigest(digest);
    });
  }
  beforeTheyStart();
  start.arrive_and_wait();
  for (std::thread& thread : threads) thread.join();
  return digests;
}

// Padding for a message of `text`, which fits into one block: RFC 1321, 3.1 and 3.2.
std::array<std::byte, 64> paddedBlock(const std::string& text) {
  std::array<std::byte, 64> block{};
  std::ranges::transform(text, block.begin(), [](char c) { return static_cast<std::byte>(c); });
  block.at(text.size()) = std::byte{0x80};
  block.at(56) = static_cast<std::byte>(text.size() * 8 % 256);
  block.at(57) = static_cast<std::byte>(text.size() * 8 / 256);
  return block;
}

struct Vector {
  const char* text;
  const char* digest;
};

// RFC 1321, A.5, as far as a text fits into one block.
constexpr std::array<Vector, 5> published{
    Vector{"", "d41d8cd98f00b204e9800998ecf8427e"}, Vector{"a", "0cc175b9c0f1b6a831c399e269772661"},
    Vector{"abc", "900150983cd24fb0d6963f7d28e17f72"}, Vector{"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
    Vector{"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"}};

struct Instructions : NamedRow {
  MD5EightStreams* MD5EightStreamsOfThisProcessor::*digest;
};

class MD5EightStreamsWith : public testing::TestWithParam<Instructions> {};

TEST_P(MD5EightStreamsWith, GivesThePublishedDigestsInEveryLane) {
  MD5EightStreams* const digestBlocks = md5EightStreamsOfThisProcessor().*GetParam().digest;
  if (digestBlocks == nullptr) GTEST_SKIP() << "this processor lacks the vector instructions";
  for (std::size_t shift = 0; shift < streamsOfMD5EightStreams; ++shift) {
    MD5EightStates states{};
    std::array<std::array<std::byte, 64>, streamsOfMD5EightStreams> blocks{};
    const std::byte* data[streamsOfMD5EightStreams];
    for (std::size_t lane = 0; lane < streamsOfMD5EightStreams; ++lane) {
      MD5_CTX start;
      MD5_Init(&start);
      states[0][lane] = start.A;
      states[1][lane] = start.B;
      states[2][lane] = start.C;
      states[3][lane] = start.D;
      blocks.at(lane) = paddedBlock(published.at((lane + shift) % published.size()).text);
      data[lane] = blocks.at(lane).data();
    }
    digestBlocks(states, data, 1);
    for (std::size_t lane = 0; lane < streamsOfMD5EightStreams; ++lane) {
      std::array<uint8_t, 16> digest{};
      for (std::size_t byte = 0; byte < digest.size(); ++byte) {
        digest.at(byte) = static_cast<uint8_t>(states[byte / 4][lane] >> (8 * (byte % 4)));
      }
      EXPECT_EQ(published.at((lane + shift) % published.size()).digest, hexstringWithBytes(digest)) << "lane " << lane;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(SharedMD5, MD5EightStreamsWith,
                         testing::Values(Instructions{"AVX2", &MD5EightStreamsOfThisProcessor::avx2},
                                         Instructions{"AVX512", &MD5EightStreamsOfThisProcessor::avx512}),
                         rowName);

struct Row : NamedRow {
  std::size_t cores;
  std::size_t streams;
};

class SharedMD5Digests : public testing::TestWithParam<Row> {};

// Every stream is cut into other pieces, small and large and of no whole number of blocks.
TEST_P(SharedMD5Digests, AreThoseOfTheLibraryForStreamsOfEveryLengthInPiecesOfEverySize) {
  SharedMD5 md5(GetParam().cores);
  std::vector<std::string> streams;
  for (std::size_t number = 0; number < GetParam().streams; ++number) {
    streams.push_back(mediaBytes(3 * MiB + number * (MiB / 2 + 12'347), static_cast<uint32_t>(number)));
  }
  std::vector<std::string> digests(streams.size());
  std::vector<std::thread> threads;
  for (std::size_t number = 0; number < streams.size(); ++number) {
    threads.emplace_back([&, number] {
      std::mt19937_64 random(number);
      MD5_CTX digest;
      MD5_Init(&digest);
      std::span<const char> left(streams[number]);
      while (!left.empty()) {
        const std::size_t length = std::min<std::size_t>(left.size(), random() % (MiB + MiB / 2));
        md5.update(digest, left.data(), length);
        left = left.subspan(length);
      }
      digests[number] = hexDigest(digest);
    });
  }
  for (std::thread& thread : threads) thread.join();
  expectDigestsOfTheLibrary(streams, digests);
}

TEST(SharedMD5, CountsMoreThanFourGigabitsOfAStreamAsTheLibraryDoes) {
  const std::string bytes = mediaBytes(64 * MiB);
  SharedMD5 md5(1);
  std::array<MD5_CTX, 2> digests;
  std::vector<std::thread> threads;
  threads.reserve(digests.size());
  for (MD5_CTX& digest : digests) {
    threads.emplace_back([&] {
      MD5_Init(&digest);
      for (int piece = 0; piece < 9; ++piece) md5.update(digest, bytes.data(), bytes.size());
    });
  }
  for (std::thread& thread : threads) thread.join();
  MD5_CTX expected;
  MD5_Init(&expected);
  for (int piece = 0; piece < 9; ++piece) MD5_Update(&expected, bytes.data(), bytes.size());
  const std::string digest = hexDigest(expected);
  EXPECT_EQ(digest, hexDigest(digests[0]));
  EXPECT_EQ(digest, hexDigest(digests[1]));
}

// More streams than cores, some of them ending early: the others are then digested alone again.
TEST_P(SharedMD5Digests, AreThoseOfTheLibraryForStreamsThatAreNotSharedAnyMore) {
  SharedMD5 md5(GetParam().cores);
  std::vector<std::string> streams;
  for (std::size_t number = 0; number < GetParam().streams; ++number) {
    const bool endsEarly = number >= GetParam().cores - GetParam().cores / 4;
    streams.push_back(mediaBytes(endsEarly ? MiB : 20 * MiB, static_cast<uint32_t>(number)));
  }
  expectDigestsOfTheLibrary(streams, digestsOf(streams, md5));
}

INSTANTIATE_TEST_SUITE_P(SharedMD5, SharedMD5Digests,
                         testing::Values(Row{"OneStream", 1, 1}, Row{"TwoStreamsOnOneCore", 1, 2},
                                         Row{"TwoStreamsOnTwoCores", 2, 2}, Row{"FourStreamsOnTwoCores", 2, 4},
                                         Row{"EightStreamsOnOneCore", 1, 8}, Row{"SeventeenStreamsOnTwoCores", 2, 17},
                                         Row{"SeventeenStreamsOnSixteenCores", 16, 17},
                                         Row{"TwentyStreamsOnSixteenCores", 16, 20}),
                         rowName);

TEST(SharedMD5, DigestsEveryStreamAloneWhereNoThreadCanBeHad) {
  constexpr std::size_t count = 4;
  SharedMD5 md5(1);
  std::vector<std::string> streams;
  for (std::size_t number = 0; number < count; ++number) {
    streams.push_back(mediaBytes(20 * MiB, static_cast<uint32_t>(number)));
  }
  const auto leaveNoThreads = [] {
    // More than there are addresses.
    pthread_attr_t attributes;
    ASSERT_EQ(0, pthread_attr_init(&attributes));
    EXPECT_EQ(0, pthread_attr_setstacksize(&attributes, std::size_t{1} << 62));
    EXPECT_EQ(0, pthread_setattr_default_np(&attributes));
    EXPECT_THROW(std::thread([] {}).join(), std::system_error);
  };
  expectDigestsOfTheLibrary(streams, digestsOf(streams, md5, leaveNoThreads));
}

}  // namespace
