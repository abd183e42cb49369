#include <gtest/gtest.h>
#include <malloc.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "platform/Memory.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/ToolRun.h"

using platform::allocatePages;
using platform::PageAlignedMemory;

namespace {

TEST(Memory, APageIsThatOfTheSystem) {
  EXPECT_EQ(static_cast<std::size_t>(::sysconf(_SC_PAGESIZE)), platform::pageSize());
}

TEST(Memory, StartsOnAPageAndCanBeWrittenToItsEnd) {
  for (const std::size_t size :
       {std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{1'048'577}, std::size_t{5'242'880}}) {
    const PageAlignedMemory memory = allocatePages(size);
    EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(memory.get()) % platform::pageSize()) << size;
    std::fill_n(memory.get(), size, std::byte{7});
    EXPECT_EQ(static_cast<std::ptrdiff_t>(size), std::count(memory.get(), memory.get() + size, std::byte{7}));
  }
}

// A device takes a transfer in as many pieces as its memory has: huge pages make them few.
TEST(Memory, ThatFillsHugePagesStartsOnOne) {
  constexpr std::size_t hugePage = 2 << 20;
  const PageAlignedMemory memory = allocatePages(5 * hugePage);
  EXPECT_EQ(0U, reinterpret_cast<std::uintptr_t>(memory.get()) % hugePage);
}

TEST(Memory, LargePiecesStayApartFromTheHeapWhenTheyAreToBeGivenBack) {
  if (isSanitized()) GTEST_SKIP() << "the sanitizers have an allocator of their own";
  // How many of two pieces, the second of which is smaller and comes when the first was freed, are no part of the heap. They
  // are larger than what earlier tests may have left free there.
  const auto piecesApart = [](bool givesBack) {
    return runInChild([givesBack] {
             if (givesBack) platform::giveBackLargePieces();
             const auto apart = [](std::size_t size) {
               const std::size_t before = ::mallinfo2().hblks;
               const PageAlignedMemory piece = allocatePages(size);
               return static_cast<int>(::mallinfo2().hblks - before);
             };
             const int first = apart(24 << 20);
             ::_exit(first + apart(16 << 20));
           })
        .exitStatus;
  };
  EXPECT_EQ(2, piecesApart(true));
  EXPECT_GT(2, piecesApart(false));
}

TEST(MemoryDeathTest, MoreThanThereIsEndsTheProcessWithAMessage) {
  if (isSanitized()) GTEST_SKIP() << "the allocator of the sanitizers ends the process by itself";
  if (isEmulated()) GTEST_SKIP() << noSecondStart;
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  constexpr std::size_t tooMuch = std::numeric_limits<std::ptrdiff_t>::max() - 4096;
  EXPECT_EXIT(allocatePages(tooMuch), testing::ExitedWithCode(1),
              "kdxdispatchcopy: could not get 9223372036854771711 bytes of memory");
}

}  // namespace
