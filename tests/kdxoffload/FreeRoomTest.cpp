#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/FreeRoom.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::FreeRoom;

TEST(FreeRoomTest, TheRoomOfEachDestinationIsKnownFromTheStart) {
  const ScratchDirectory scratch;
  const FreeRoom room({scratch.path(), scratch.path() / "missing"});
  ASSERT_EQ(2U, room.bytes().size());
  EXPECT_NE(0U, room.bytes()[0]);
  EXPECT_EQ(0U, room.bytes()[1]);
}
