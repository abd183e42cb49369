#include <gtest/gtest.h>

#include <cerrno>
#include <optional>

#include "platform/Error.h"

using platform::Error;

namespace {

TEST(Error, OfASystemCallNamesTheCallThePathAndTheReason) {
  const Error error = platform::posixError("rename", "/a/clip.mov", ENOENT);
  EXPECT_EQ("POSIXErrorDomain", error.domain);
  EXPECT_EQ(2, error.code);
  EXPECT_EQ("rename /a/clip.mov: No such file or directory", error.description);
  EXPECT_EQ("/a/clip.mov", error.path);
}

TEST(Error, FailingPutsItIntoThePlaceAndReturnsFalse) {
  std::optional<Error> place;
  EXPECT_FALSE(platform::fail(
      &place, Error{.domain = "KDXCopyErrorDomain", .code = 109, .description = std::nullopt, .path = std::nullopt}));
  ASSERT_TRUE(place);
  EXPECT_EQ("KDXCopyErrorDomain", place->domain);
  EXPECT_EQ(109, place->code);
  EXPECT_EQ(std::nullopt, place->description);
}

TEST(Error, FailingReplacesWhatIsInThePlace) {
  std::optional<Error> place = Error{.domain = "old", .code = 1, .description = "old", .path = "/old"};
  EXPECT_FALSE(
      platform::fail(&place, Error{.domain = "new", .code = 2, .description = std::nullopt, .path = std::nullopt}));
  ASSERT_TRUE(place);
  EXPECT_EQ("new", place->domain);
  EXPECT_EQ(std::nullopt, place->path);
}

TEST(Error, FailingWithoutAPlaceOnlyReturnsFalse) {
  EXPECT_FALSE(platform::fail(
      nullptr, Error{.domain = "KDXCopyErrorDomain", .code = 109, .description = std::nullopt, .path = std::nullopt}));
}

}  // namespace
