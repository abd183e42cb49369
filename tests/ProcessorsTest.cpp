// How many threads can run at the same time.

#include <gtest/gtest.h>
#include <sched.h>

#include <string>
#include <utility>
#include <vector>

#include "platform/Processors.h"
#include "tests/support/RowName.h"
#include "tests/support/ScratchDirectory.h"

namespace {

std::size_t processorsOfThisThread() {
  cpu_set_t all;
  EXPECT_EQ(0, ::sched_getaffinity(0, sizeof all, &all));
  return static_cast<std::size_t>(CPU_COUNT(&all));
}

// A system without control groups.
std::size_t withoutGroups() {
  const ScratchDirectory empty;
  return platform::usableProcessors(empty.path());
}

TEST(Processors, AreThoseThatTheProcessMayUse) {
  EXPECT_EQ(processorsOfThisThread(), withoutGroups());
  cpu_set_t only;
  CPU_ZERO(&only);
  CPU_SET(static_cast<std::size_t>(::sched_getcpu()), &only);
  ASSERT_EQ(0, ::sched_setaffinity(0, sizeof only, &only));
  EXPECT_EQ(1U, withoutGroups());
  EXPECT_EQ(1U, platform::usableProcessors());
}

struct GroupRow : NamedRow {
  std::string groups;  // the process's
  std::vector<std::pair<std::string, std::string>> files;
  std::size_t processors;
};

class ControlGroups : public testing::TestWithParam<GroupRow> {};

TEST_P(ControlGroups, LeaveTheProcessSoManyProcessors) {
  if (processorsOfThisThread() < 2) GTEST_SKIP() << "needs two processors";
  const ScratchDirectory root;
  writeFile(root.file("proc/self/cgroup"), GetParam().groups);
  for (const auto& [path, text] : GetParam().files) writeFile(root.file("sys/fs/cgroup/" + path), text);
  const std::size_t expected = GetParam().processors == 0 ? processorsOfThisThread() : GetParam().processors;
  EXPECT_EQ(expected, platform::usableProcessors(root.path()));
}

constexpr std::size_t all = 0;
const std::string ofJob = "0::/system.slice/job\n";
const std::string ofOldJob = "5:memory:/elsewhere\n4:cpu,cpuacct:/slurm/job\n0::/system.slice\n";

INSTANTIATE_TEST_SUITE_P(
    Processors, ControlGroups,
    testing::Values(
        GroupRow{"WithoutQuota", ofJob, {{"system.slice/job/cpu.max", "max 100000\n"}}, all},
        GroupRow{"WithAQuota", ofJob, {{"system.slice/job/cpu.max", "100000 100000\n"}}, 1},
        GroupRow{"WithPartOfAProcessor", ofJob, {{"system.slice/job/cpu.max", "20000 100000\n"}}, 1},
        GroupRow{"WithMoreThanOne", ofJob, {{"system.slice/job/cpu.max", "110000 100000\n"}}, 2},
        GroupRow{"WithMoreThanThereAre", ofJob, {{"system.slice/job/cpu.max", "99900000 100000\n"}}, all},
        GroupRow{"WithAQuotaAbove", ofJob, {{"system.slice/cpu.max", "50000 50000\n"}}, 1},
        GroupRow{"WithAQuotaAtTheTop", ofJob, {{"cpu.max", "50000 50000\n"}}, 1},
        GroupRow{"AtTheTop", "0::/\n", {{"cpu.max", "50000 50000\n"}}, 1},
        GroupRow{"WithAQuotaOfAnotherGroup", ofJob, {{"system.slice/other/cpu.max", "50000 50000\n"}}, all},
        GroupRow{"OfTheFirstVersion",
                 ofOldJob,
                 {{"cpu/slurm/job/cpu.cfs_quota_us", "100000\n"}, {"cpu/slurm/job/cpu.cfs_period_us", "100000\n"}},
                 1},
        GroupRow{"OfTheFirstVersionWithoutQuota",
                 ofOldJob,
                 {{"cpu/slurm/job/cpu.cfs_quota_us", "-1\n"}, {"cpu/slurm/job/cpu.cfs_period_us", "100000\n"}},
                 all},
        GroupRow{"ThatMakeNoSense", "nonsense\n::\n0::\n0::relative\n", {{"cpu.max", "0 0\n"}}, all}),
    rowName);

}  // namespace
