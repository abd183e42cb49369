#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "KDXFileTools/kdxoffload/Database.h"
#include "tests/support/ScratchDirectory.h"

using kdxoffload::Database;
using kdxoffload::Statement;
using testing::HasSubstr;

namespace {

constexpr std::chrono::milliseconds noPatience{0};

Database openedAt(const std::string& path) {
  return Database::open(path, Database::Access::makeAndChange, noPatience);
}

}  // namespace

TEST(Database, GivesValuesBackAsTheyWerePut) {
  const ScratchDirectory scratch;
  Database database = openedAt(scratch.file("values"));
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

TEST(Database, GivesNoValueOfAnotherType) {
  const ScratchDirectory scratch;
  Database database = openedAt(scratch.file("types"));
  Statement found = database.prepare("SELECT 'text', 1.5, NULL, x'00', 7");
  ASSERT_TRUE(found.step());
  for (const int column : {0, 1, 2, 3}) EXPECT_FALSE(found.integer(column)) << column;
  for (const int column : {0, 1, 2, 4}) EXPECT_FALSE(found.bytes(column)) << column;
}

TEST(Database, DoesNothingAnyMoreAfterAFailure) {
  const ScratchDirectory scratch;
  Database database = openedAt(scratch.file("failed"));
  database.execute("CREATE TABLE t (a)");
  database.execute("INSERT INTO missing VALUES (1)");
  EXPECT_TRUE(database.hasFailed());
  database.execute("INSERT INTO t VALUES (1)");
  EXPECT_FALSE(database.integer("SELECT 1"));
  Database again = openedAt(scratch.file("failed"));
  EXPECT_EQ(0, again.integer("SELECT count(*) FROM t"));
}

TEST(Database, KeepsTheFirstFailure) {
  const ScratchDirectory scratch;
  Database database = openedAt(scratch.file("first"));
  database.fail("it is too old");
  database.fail("it is too new");
  database.execute("nonsense");
  EXPECT_EQ("it is too old", database.failure());
}

TEST(Database, GoesOnAfterAnAttemptThatFails) {
  const ScratchDirectory scratch;
  Database database = openedAt(scratch.file("attempt"));
  database.attempt("INSERT INTO missing VALUES (1)");
  EXPECT_FALSE(database.hasFailed());
  EXPECT_EQ(1, database.integer("SELECT 1"));
}

TEST(Database, UndoesAnOpenTransactionWhenItIsClosed) {
  const ScratchDirectory scratch;
  {
    Database database = openedAt(scratch.file("undone"));
    database.execute("CREATE TABLE t (a)");
    database.execute("BEGIN");
    database.execute("INSERT INTO t VALUES (1)");
  }
  Database again = openedAt(scratch.file("undone"));
  EXPECT_EQ(0, again.integer("SELECT count(*) FROM t"));
  EXPECT_FALSE(again.hasFailed());
}

TEST(Database, TakesNoPathForAnythingButAFile) {
  const ScratchDirectory scratch;
  Database database = openedAt(scratch.file("file:x?mode=memory"));
  database.execute("CREATE TABLE t (a)");
  EXPECT_FALSE(database.hasFailed());
  EXPECT_EQ(std::vector<std::string>{"file:x?mode=memory"}, namesBelow(scratch.path()));
}

TEST(Database, OpenedToLookChangesNothing) {
  const ScratchDirectory scratch;
  openedAt(scratch.file("looked")).execute("CREATE TABLE t (a)");
  Database database = Database::open(scratch.file("looked"), Database::Access::look, noPatience);
  EXPECT_EQ(0, database.integer("SELECT count(*) FROM t"));
  database.execute("INSERT INTO t VALUES (1)");
  EXPECT_TRUE(database.hasFailed());
  Database missing = Database::open(scratch.file("missing"), Database::Access::look, noPatience);
  EXPECT_TRUE(missing.hasFailed());
}

TEST(Database, SaysThatAnotherHoldsTheLock) {
  const ScratchDirectory scratch;
  Database holder = openedAt(scratch.file("locked"));
  holder.execute("BEGIN EXCLUSIVE");
  Database other = openedAt(scratch.file("locked"));
  other.execute("CREATE TABLE t (a)");
  EXPECT_EQ("it is locked by another program", other.failure());
}

TEST(Database, RunsNoCodeThatIsInTheFile) {
  const ScratchDirectory scratch;
  {
    Database author = openedAt(scratch.file("hostile"));
    author.execute("CREATE TABLE t (a)");
    author.execute("CREATE TABLE victim (a)");
    author.execute("CREATE TRIGGER x AFTER INSERT ON t BEGIN INSERT INTO victim VALUES (666); END");
    author.execute("CREATE VIEW v AS SELECT 1");
    ASSERT_FALSE(author.hasFailed()) << author.failure();
  }
  Database database = openedAt(scratch.file("hostile"));
  database.execute("INSERT INTO t VALUES (1)");
  EXPECT_EQ(0, database.integer("SELECT count(*) FROM victim"));
  database.execute("SELECT * FROM v");
  EXPECT_TRUE(database.hasFailed());
}

TEST(Database, RefusesAValueLongerThanAnyPath) {
  const ScratchDirectory scratch;
  Database database = openedAt(scratch.file("long"));
  database.execute("SELECT zeroblob(100000000)");
  EXPECT_TRUE(database.hasFailed());
}
