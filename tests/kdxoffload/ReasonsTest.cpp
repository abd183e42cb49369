#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <set>

#include "KDXFileTools/kdxoffload/JobOrder.h"
#include "KDXFileTools/kdxoffload/Reasons.h"

using kdxoffload::adviceForObstacle;
using kdxoffload::adviceForStatus;
using kdxoffload::Obstacle;
using kdxoffload::reasonForObstacle;
using kdxoffload::reasonForStatus;
using testing::HasSubstr;
using testing::Not;
namespace WorkStatus = kdxoffload::WorkStatus;

namespace {

constexpr std::array known{1,
                           103,
                           104,
                           105,
                           106,
                           107,
                           108,
                           109,
                           110,
                           111,
                           121,
                           134,
                           WorkStatus::differs,
                           WorkStatus::inTheWay,
                           WorkStatus::notKept,
                           WorkStatus::notReachable,
                           WorkStatus::systemError,
                           WorkStatus::stalled,
                           WorkStatus::sourceChanged,
                           WorkStatus::cardsOwnFile};

constexpr std::array obstacles{Obstacle::changedSinceProved, Obstacle::folderInTheWay, Obstacle::linkInTheWay,
                               Obstacle::otherInTheWay,      Obstacle::fileInTheWay,   Obstacle::differentLink,
                               Obstacle::cardsOwnFile,       Obstacle::sameNameTwice,  Obstacle::notWritable,
                               Obstacle::insideObstacle};

// A reason follows the name of a file, an advice stands by itself.
void expectGoodTexts(const std::string& reason, const std::string& advice) {
  ASSERT_FALSE(reason.empty());
  EXPECT_NE('.', reason.back()) << reason;
  EXPECT_THAT(reason, Not(HasSubstr("unknown")));
  ASSERT_FALSE(advice.empty());
  EXPECT_TRUE(advice.front() >= 'A' && advice.front() <= 'Z') << advice;
  EXPECT_EQ('.', advice.back()) << advice;
}

}  // namespace

TEST(Reasons, EveryStatusHasAReasonOfItsOwnAndAnAdvice) {
  std::set<std::string> reasons;
  for (const int status : known) {
    expectGoodTexts(reasonForStatus(status), adviceForStatus(status));
    EXPECT_TRUE(reasons.insert(reasonForStatus(status)).second) << status;
  }
}

TEST(Reasons, EveryObstacleHasAReasonOfItsOwnAndAnAdvice) {
  std::set<std::string> reasons;
  for (const Obstacle obstacle : obstacles) {
    expectGoodTexts(reasonForObstacle(obstacle), adviceForObstacle(obstacle));
    EXPECT_TRUE(reasons.insert(reasonForObstacle(obstacle)).second);
  }
}

TEST(Reasons, AStatusOfTheSystemIsTheReasonInItsWords) {
  EXPECT_THAT(reasonForStatus(21), HasSubstr("Is a directory"));
  EXPECT_THAT(reasonForStatus(30), HasSubstr("Read-only file system"));
  EXPECT_FALSE(adviceForStatus(30).empty());
}

TEST(Reasons, ASignalIsNamedByItsNumber) {
  EXPECT_THAT(reasonForStatus(137), HasSubstr("signal 9"));
  EXPECT_FALSE(adviceForStatus(137).empty());
}

TEST(Reasons, AStatusThatThereIsNotIsNamedByItsNumber) {
  EXPECT_THAT(reasonForStatus(250), HasSubstr("250"));
  EXPECT_FALSE(adviceForStatus(250).empty());
}
