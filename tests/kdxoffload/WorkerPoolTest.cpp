#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <asio.hpp>
#include <filesystem>
#include <map>

#include "KDXFileTools/kdxoffload/WorkerPool.h"
#include "digest/KDXDigestContext.h"
#include "platform/FileManager.h"
#include "platform/Process.h"
#include "tests/support/ChildProcess.h"
#include "tests/support/FaultyFileSystem.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using namespace kdxoffload;
namespace fs = std::filesystem;

namespace {

class WorkerPoolTest : public testing::Test {
 protected:
  WorkerPoolTest() {
    platform::letWritesFailInsteadOfSignals();
    for (const char* folder : {"card", "a"}) fs::create_directories(scratch.path() / folder);
  }

  [[nodiscard]] WorkerPool::Settings settings() const {
    return {.setup = {.card = scratch.path() / "card",
                      .destinations = {scratch.path() / "a"},
                      .algorithm = KDXDigestAlgorithmMD5,
                      .privateFolder = ".work"},
            .program = offloadToolPath()};
  }

  // An order to copy a new file of the card.
  JobOrder copyOf(const std::string& name, const std::string& bytes) {
    const std::string path = scratch.path() / "card" / name;
    writeFile(path, bytes);
    return copyIn(path);
  }
  JobOrder copyIn(const fs::path& path) {
    const std::string name = path.filename();
    const auto facts = platform::Folder::open(path.parent_path(), nullptr)->factsOf(name, nullptr).value();
    return {.number = ++number,
            .task = Task::copy,
            .destinations = DestinationSet::only(0),
            .items = {{.name = name, .size = facts.size, .modified = facts.modified, .mode = 0644}}};
  }

  // Gives all orders at once and waits for the last report.
  std::map<uint64_t, JobReport> perform(const WorkerPool::Settings& itsSettings, const std::vector<JobOrder>& orders,
                                        const std::function<void(WorkerPool&)>& meanwhile = {}) {
    asio::io_context context;
    std::map<uint64_t, JobReport> reports;
    WorkerPool pool(context, itsSettings, [this](uint64_t, const WorkerOutput&) { ++moves; });
    for (const JobOrder& order : orders) {
      pool.give(order, [&reports, &pool, &orders](const JobReport& report) {
        EXPECT_TRUE(reports.emplace(report.result.number, report).second);
        if (reports.size() == orders.size()) pool.close();
      });
    }
    if (meanwhile) meanwhile(pool);
    context.run();
    return reports;
  }

  const ScratchDirectory scratch;
  uint64_t number = 0;
  int moves = 0;
};

}  // namespace

TEST_F(WorkerPoolTest, AnOrderIsDoneAndItsOutputIsRead) {
  const auto reports = perform(settings(), {copyOf("clip.mov", mediaBytes(MiB))});
  const JobReport& report = reports.at(1);
  EXPECT_EQ(0, report.result.status) << report.result.reason << report.errors;
  EXPECT_FALSE(report.endedItsProcess);
  ASSERT_EQ(1U, report.output.digests().size());
  EXPECT_EQ("MD5:" + digestByProgram("md5sum", scratch.path() / "a/clip.mov"), report.output.digests()[0].text());
  EXPECT_GT(moves, 0);
}

TEST_F(WorkerPoolTest, OneBadFileTakesNothingWithIt) {
  writeFile(scratch.file("a/bad.mov"), "taken");
  const auto reports = perform(settings(), {copyOf("first.mov", "1"), copyOf("bad.mov", "2"), copyOf("last.mov", "3")});
  EXPECT_EQ(0, reports.at(1).result.status);
  EXPECT_EQ(109, reports.at(2).result.status);
  EXPECT_TRUE(reports.at(2).endedItsProcess);
  EXPECT_THAT(reports.at(2).errors, testing::HasSubstr("already exists"));
  EXPECT_EQ(0, reports.at(3).result.status);
}

TEST_F(WorkerPoolTest, AWorkerIsReplacedAfterItsShareOfOrders) {
  WorkerPool::Settings few = settings();
  few.ordersOfAWorker = 2;
  asio::io_context context;
  WorkerPool pool(context, few, [](uint64_t, const WorkerOutput&) {});
  int done = 0;
  std::function<void()> next = [&] {
    if (done == 5) {
      pool.close();
      return;
    }
    pool.give(copyOf(std::to_string(done), "bytes"), [&](const JobReport& report) {
      EXPECT_EQ(0, report.result.status);
      ++done;
      next();
    });
  };
  next();
  context.run();
  EXPECT_EQ(5, done);
}

TEST_F(WorkerPoolTest, AWorkerThatIsKilledGivesItsSignalAsStatus) {
  const JobOrder order = copyOf("clip.mov", mediaBytes(64 * MiB));
  const auto reports = perform(settings(), {order}, [](WorkerPool& pool) { pool.stop(); });
  EXPECT_EQ(128 + SIGTERM, reports.at(1).result.status);
  EXPECT_TRUE(reports.at(1).endedItsProcess);
  EXPECT_FALSE(fs::exists(scratch.path() / "a/clip.mov"));
}

TEST_F(WorkerPoolTest, AWorkerThatNeitherReadsNorWritesIsEnded) {
  const JobOrder order = copyOf("clip.mov", "bytes");
  WorkerPool::Settings impatient = settings();
  impatient.stallSeconds = 0.5;
  impatient.program = scratch.file("stopped");
  writeFile(impatient.program, "#!/bin/sh\nkill -STOP $$\n");
  fs::permissions(impatient.program, fs::perms::owner_all);
  const auto reports = perform(impatient, {order});
  EXPECT_EQ(WorkStatus::stalled, reports.at(1).result.status);
}

TEST_F(WorkerPoolTest, AnIdleWorkerThatDoesNotGoIsKilled) {
  WorkerPool::Settings impatient = settings();
  impatient.secondsUntilGivenUp = 0.1;
  asio::io_context context;
  WorkerPool pool(context, impatient, [](uint64_t, const WorkerOutput&) {});
  pool.give(copyOf("clip.mov", "bytes"), [&](const JobReport& report) {
    EXPECT_EQ(0, report.result.status);
    for (const pid_t worker : childrenOf(::getpid())) ::kill(worker, SIGSTOP);
    pool.close();
  });
  context.run();
}

TEST_F(WorkerPoolTest, AfterAJobThatCannotBeEndedTheNextOnesGoOn) {
  if (!FaultyFileSystem::availability().usable) GTEST_SKIP() << FaultyFileSystem::availability().reason;
  FaultyFileSystem server(scratch.path());
  fs::create_directory(server.stored("card"));
  for (const char* name : {"hangs", "1", "2"}) writeFile(server.stored("card") / name, "bytes");
  // A request that its server keeps: no signal ends it.
  server.whenReading("card/hangs").delayBy(std::chrono::hours(1));
  WorkerPool::Settings impatient = settings();
  impatient.setup.card = server.path("card");
  impatient.stallSeconds = impatient.secondsUntilGivenUp = 0.5;
  asio::io_context context;
  WorkerPool pool(context, impatient, [](uint64_t, const WorkerOutput&) {});
  std::vector<int> statuses;
  std::vector<std::string> names{"1", "hangs", "2"};
  std::function<void()> next = [&] {
    if (statuses.size() == 3) {
      server.clear();
      pool.close();
      return;
    }
    pool.give(copyIn(server.path("card") / names[statuses.size()]), [&](const JobReport& report) {
      statuses.push_back(report.result.status);
      next();
    });
  };
  next();
  context.run();
  EXPECT_EQ((std::vector<int>{0, WorkStatus::stalled, 0}), statuses);
}

TEST_F(WorkerPoolTest, AProcessThatEndsWellWithoutAnAnswerProvesNothing) {
  WorkerPool::Settings silent = settings();
  silent.program = "/bin/true";
  const auto reports = perform(silent, {copyOf("clip.mov", "bytes")});
  EXPECT_NE(0, reports.at(1).result.status);
}
