#include <fmt/format.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/CatalogueRow.h"
#include "tests/kdxoffload/DatabaseAt.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::Database;
using kdxoffload::FileDigest;
using kdxoffload::FileRecord;
using kdxoffload::Statement;
namespace CatalogueRow = kdxoffload::CatalogueRow;

namespace {

const FileRecord proved{.state = FileRecord::State::proved,
                        .digest = FileDigest::fromText("MD5:d41d8cd98f00b204e9800998ecf8427e").value(),
                        .size = 5'000'000'000,
                        .modified = -7,
                        .destinationSize = 5'000'000'000,
                        .destinationModified = 1'700'000'000'123'456'789};

// A table of rows as the catalogue has them.
class CatalogueRowTest : public testing::Test {
 protected:
  CatalogueRowTest() {
    database.execute("PRAGMA journal_mode = MEMORY");
    database.execute(fmt::format("CREATE TABLE files ({})", CatalogueRow::columns));
  }

  void put(const FileRecord& record) {
    const std::string digestText = record.digest.text();
    Statement statement = database.prepare("INSERT INTO files VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)");
    CatalogueRow::put(statement, "/mnt/raid", "a/clip.mov", record, digestText);
    statement.run();
    ASSERT_FALSE(database.hasFailed()) << database.failure();
  }
  std::optional<FileRecord> taken(const std::string& destination = "/mnt/raid",
                                  const std::string& path = "a/clip.mov") {
    Statement row = database.prepare("SELECT * FROM files");
    return row.step() ? CatalogueRow::take(row, destination, path) : std::nullopt;
  }

  ScratchDirectory scratch;
  Database database = databaseAt(scratch.file("rows"));
};

}  // namespace

TEST_F(CatalogueRowTest, GivesARecordBackAsItWas) {
  for (const auto state : {FileRecord::State::proved, FileRecord::State::adopted, FileRecord::State::copied}) {
    FileRecord record = proved;
    record.state = state;
    put(record);
    EXPECT_EQ(record, taken());
    database.execute("DELETE FROM files");
  }
  const FileRecord begun{.state = FileRecord::State::begun, .size = 3, .modified = 4};
  put(begun);
  EXPECT_EQ(begun, taken());
}

TEST_F(CatalogueRowTest, BelongsToOneFileAtOneDestination) {
  put(proved);
  EXPECT_FALSE(taken("/mnt/other"));
  EXPECT_FALSE(taken("/mnt/raid", "b/clip.mov"));
  // The same bytes, divided otherwise.
  EXPECT_FALSE(taken("/mnt/raida", "/clip.mov"));
}

TEST_F(CatalogueRowTest, WithAnyOtherValueIsNoRecord) {
  for (const std::string change : {"state = 1",
                                   "state = 3",
                                   "state = 0",
                                   "state = 5",
                                   "state = 'proved'",
                                   "state = NULL",
                                   "state = 2.0",
                                   "size = 5000000001",
                                   "size = -1",
                                   "size = x'00'",
                                   "modified = 0",
                                   "destinationSize = 1",
                                   "destinationModified = 0",
                                   "digest = x''",
                                   "digest = 'MD5:d41d8cd98f00b204e9800998ecf8427e'",
                                   "digest = CAST('MD5:zz' AS BLOB)",
                                   "digest = CAST('MD5:d41d8cd98f00b204e9800998ecf8427f' AS BLOB)",
                                   "digest = NULL",
                                   "checkValue = 0",
                                   "checkValue = NULL",
                                   "checkValue = -checkValue"}) {
    put(proved);
    ASSERT_TRUE(taken());
    database.execute("UPDATE files SET " + change);
    ASSERT_FALSE(database.hasFailed()) << change;
    EXPECT_FALSE(taken()) << change;
    database.execute("DELETE FROM files");
  }
}

TEST_F(CatalogueRowTest, ThatProvesAnotherSizeIsNoRecord) {
  FileRecord record = proved;
  record.destinationSize = record.size - 1;
  put(record);
  EXPECT_FALSE(taken());
}

TEST_F(CatalogueRowTest, ThatWasOnlyBegunHasNothingToShow) {
  FileRecord record = proved;
  record.state = FileRecord::State::begun;
  put(record);
  EXPECT_FALSE(taken());
}

TEST_F(CatalogueRowTest, OfAnImpossibleSizeIsNoRecord) {
  FileRecord record = proved;
  record.size = record.destinationSize = UINT64_MAX;
  put(record);
  EXPECT_FALSE(taken());
}
