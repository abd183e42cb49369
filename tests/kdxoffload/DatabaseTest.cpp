#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/kdxoffload/DatabaseAt.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::Database;
using kdxoffload::Statement;
using testing::HasSubstr;

namespace {

class DatabaseTest : public testing::Test {
 protected:
  [[nodiscard]] Database opened() const { return databaseAt(path); }

  const ScratchDirectory scratch;
  const std::string path = scratch.file("database");
};

}  // namespace

TEST_F(DatabaseTest, GivesValuesBackAsTheyWerePut) {
  Database database = opened();
  database.execute("CREATE TABLE t (a, b, c, d)");
  const std::string bytes("\0\xff'\n", 4);
  database.prepare("INSERT INTO t VALUES (?1, ?2, ?3, ?4)")
      .with(INT64_MIN)
      .with(bytes)
      .with(std::nullopt)
      .with(std::string_view())
      .run();
  Statement found = database.prepare("SELECT a, b, c, d FROM t");
  ASSERT_TRUE(found.step()) << database.failure();
  EXPECT_EQ(INT64_MIN, found.integer(0));
  EXPECT_EQ(bytes, found.bytes(1));
  EXPECT_TRUE(found.isNull(2));
  EXPECT_EQ("", found.bytes(3));
  EXPECT_FALSE(found.step());
  EXPECT_FALSE(database.hasFailed());
}

TEST_F(DatabaseTest, GivesNoValueOfAnotherType) {
  Database database = opened();
  Statement found = database.prepare("SELECT 'text', 1.5, NULL, x'00', 7");
  ASSERT_TRUE(found.step());
  for (const int column : {0, 1, 2, 3}) EXPECT_FALSE(found.integer(column)) << column;
  for (const int column : {0, 1, 2, 4}) EXPECT_FALSE(found.bytes(column)) << column;
}

TEST_F(DatabaseTest, DoesNothingAnyMoreAfterAFailure) {
  Database database = opened();
  database.execute("CREATE TABLE t (a)");
  database.execute("INSERT INTO missing VALUES (1)");
  EXPECT_TRUE(database.hasFailed());
  database.execute("INSERT INTO t VALUES (1)");
  EXPECT_FALSE(database.integer("SELECT 1"));
  Database again = opened();
  EXPECT_EQ(0, again.integer("SELECT count(*) FROM t"));
}

TEST_F(DatabaseTest, KeepsTheFirstFailure) {
  Database database = opened();
  database.fail("it is too old");
  database.fail("it is too new");
  database.execute("nonsense");
  EXPECT_EQ("it is too old", database.failure());
}

TEST_F(DatabaseTest, GoesOnAfterAnAttemptThatFails) {
  Database database = opened();
  database.attempt("INSERT INTO missing VALUES (1)");
  EXPECT_FALSE(database.hasFailed());
  EXPECT_EQ(1, database.integer("SELECT 1"));
}

TEST_F(DatabaseTest, UndoesAnOpenTransactionWhenItIsClosed) {
  {
    Database database = opened();
    database.execute("CREATE TABLE t (a)");
    database.execute("BEGIN");
    database.execute("INSERT INTO t VALUES (1)");
  }
  Database again = opened();
  EXPECT_EQ(0, again.integer("SELECT count(*) FROM t"));
  EXPECT_FALSE(again.hasFailed());
}

TEST_F(DatabaseTest, TakesNoPathForAnythingButAFile) {
  Database database = databaseAt(scratch.file("file:x?mode=memory"));
  database.execute("CREATE TABLE t (a)");
  EXPECT_FALSE(database.hasFailed());
  EXPECT_EQ(std::vector<std::string>{"file:x?mode=memory"}, namesBelow(scratch.path()));
}

TEST_F(DatabaseTest, OpenedToLookChangesNothing) {
  opened().execute("CREATE TABLE t (a)");
  Database database = Database::open(path, Database::Access::look, std::chrono::milliseconds(0));
  EXPECT_EQ(0, database.integer("SELECT count(*) FROM t"));
  database.execute("INSERT INTO t VALUES (1)");
  EXPECT_TRUE(database.hasFailed());
  Database missing = Database::open(scratch.file("missing"), Database::Access::look, std::chrono::milliseconds(0));
  EXPECT_TRUE(missing.hasFailed());
}

TEST_F(DatabaseTest, SaysThatAnotherHoldsTheLock) {
  Database holder = opened();
  holder.execute("BEGIN EXCLUSIVE");
  Database other = opened();
  other.execute("CREATE TABLE t (a)");
  EXPECT_EQ("it is locked by another program", other.failure());
}

TEST_F(DatabaseTest, RunsNoCodeThatIsInTheFile) {
  {
    Database author = opened();
    author.execute("CREATE TABLE t (a)");
    author.execute("CREATE TABLE victim (a)");
    author.execute("CREATE TRIGGER x AFTER INSERT ON t BEGIN INSERT INTO victim VALUES (666); END");
    author.execute("CREATE VIEW v AS SELECT 1");
    ASSERT_FALSE(author.hasFailed()) << author.failure();
  }
  Database database = opened();
  database.execute("INSERT INTO t VALUES (1)");
  EXPECT_EQ(0, database.integer("SELECT count(*) FROM victim"));
  database.execute("SELECT * FROM v");
  EXPECT_TRUE(database.hasFailed());
}

TEST_F(DatabaseTest, RefusesAValueLongerThanAnyPath) {
  Database database = opened();
  database.execute("SELECT zeroblob(100000000)");
  EXPECT_TRUE(database.hasFailed());
}
