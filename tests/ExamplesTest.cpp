// The scripts that offload many files: every file arrives whatever its name is, and none is called proved that is not.

#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include "tests/support/ChildProcess.h"
#include "tests/support/OutputLines.h"
#include "tests/support/ProjectFile.h"
#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace {

namespace fs = std::filesystem;

using Arguments = std::vector<std::string>;

// Names that shells and programs stumble over.
const std::vector<std::string> names{"clip.mov",
                                     " spaces at both ends ",
                                     "-v",
                                     "--",
                                     "-rf",
                                     "'single' \"double\" `back`",
                                     "$(touch done) $HOME ${x}",
                                     "{} {.} {#} * ? [a] \\ ; & | # !",
                                     "two\nlines",
                                     "ends with a newline\n",
                                     "tab\there",
                                     "\xc3\xbcml\xc3\xa4ut",
                                     "folder/clip.mov",
                                     "-folder\n/{}/clip"};

constexpr const char* hostileFolder = "-lo {} $(x) 'q'\n";

// Becomes the program in a child process.
[[noreturn]] void become(const Arguments& words) {
  std::vector<char*> argv;
  for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);
  ::execvp(argv[0], argv.data());
  ::_exit(127);
}

class Examples : public testing::Test {
 protected:
  void SetUp() override {
    for (const std::string& name : names) writeFile(scratch.file("card/" + name), mediaBytes(70'001 + name.size()));
    writeFile(scratch.file("card/left.mov.kdxcopy"), "of an offload that failed");
    fs::create_symlink("clip.mov", scratch.path() / "card/link.mov");
  }

  // Runs a script in the scratch folder; with another program in place of the tool where one is named.
  [[nodiscard]] ChildRun run(const std::string& script, const Arguments& arguments,
                             const std::string& program = toolPath()) const {
    return runInChild([&] {
      fs::current_path(scratch.path());
      ::setenv("KDXDISPATCHCOPY", program.c_str(), 1);
      for (const auto& [name, value] : environment) ::setenv(name.c_str(), value.c_str(), 1);
      Arguments words{projectFile("examples/" + script)};
      words.insert(words.end(), arguments.begin(), arguments.end());
      become(words);
    });
  }

  // A program that is no offload: a shell script of this line.
  [[nodiscard]] std::string programOf(const std::string& line) const {
    const std::string path = scratch.file("program");
    writeFile(path, "#!/bin/sh\n" + line + "\n");
    fs::permissions(path, fs::perms::owner_all);
    return path;
  }

  void expectOffloadedTo(const std::string& folder) const {
    std::vector<std::string> expected = names;
    std::ranges::sort(expected);
    EXPECT_EQ(expected, namesBelow(scratch.path() / folder));
    for (const std::string& name : names) {
      EXPECT_TRUE(readFile(scratch.file("card/" + name)) == readFile(scratch.path() / folder / name)) << name;
    }
  }

  static std::string summary(std::size_t proved) {
    return std::to_string(proved) + " of " + std::to_string(names.size()) + " files proved\n";
  }

  ScratchDirectory scratch;
  std::map<std::string, std::string> environment;
};

TEST_F(Examples, GiveAdviceForEveryStatus) {
  for (const char* status : {"0", "1", "103", "104", "105", "106", "107", "108", "109", "110", "111", "121", "127",
                             "21", "134", "137", "not-ended"}) {
    const ChildRun advice = run("offload-advice", {status});
    EXPECT_EQ(0, advice.exitStatus);
    EXPECT_THAT(advice.output, EndsWith("\n"));
    EXPECT_EQ(std::string(status) == "0", advice.output == "proved\n") << status;
  }
}

// --- On one machine ---

class OffloadDirectory : public Examples {
 protected:
  void SetUp() override {
    if (!haveProgram("parallel")) GTEST_SKIP() << "offload-directory needs GNU parallel";
    Examples::SetUp();
  }
};

TEST_F(OffloadDirectory, ProvesEveryFileWhateverItsName) {
  const ChildRun offload = run("offload-directory", {hostileFolder, "card", "a", hostileFolder + std::string("b")});

  EXPECT_EQ(0, offload.exitStatus);
  EXPECT_THAT(offload.output, EndsWith(summary(names.size())));
  EXPECT_THAT(offload.output, Not(HasSubstr("NOT PROVED")));
  expectOffloadedTo("a");
  expectOffloadedTo(hostileFolder + std::string("b"));
  EXPECT_FALSE(fs::exists(scratch.path() / "done"));
}

TEST_F(OffloadDirectory, TellsWhichFilesAreNotProvedAndGoesOnWithThemWhenItIsCalledAgain) {
  writeFile(scratch.file("a/-v"), "an older take");
  fs::create_directories(scratch.path() / "a/two\nlines.kdxcopy");

  const ChildRun first = run("offload-directory", {"-j", "3", "logs", "card", "a"});

  EXPECT_EQ(1, first.exitStatus);
  EXPECT_THAT(first.output, EndsWith(summary(names.size() - 2)));
  EXPECT_THAT(first.output, HasSubstr("NOT PROVED  -v: status 109, "));
  EXPECT_THAT(first.output, HasSubstr("NOT PROVED  $'two\\nlines': status 107, "));
  EXPECT_EQ("an older take", readFile(scratch.file("a/-v")));

  fs::remove(scratch.path() / "a/-v");
  fs::remove(scratch.path() / "a/two\nlines.kdxcopy");
  const ChildRun second = run("offload-directory", {"logs", "card", "a"});

  EXPECT_EQ(0, second.exitStatus) << second.output;
  EXPECT_THAT(second.output, EndsWith(summary(names.size())));
  expectOffloadedTo("a");
  // One line for each run, and one that names the columns.
  EXPECT_EQ(1 + names.size() + 2, linesOf(readFile(scratch.file("logs/joblog"))).size());
}

TEST_F(OffloadDirectory, CallsNoFileProvedWhoseRunWasKilled) {
  const ChildRun killed = run("offload-directory", {"logs", "card", "a"}, programOf("kill -KILL $$"));

  EXPECT_EQ(1, killed.exitStatus);
  EXPECT_THAT(killed.output, EndsWith(summary(0)));
  EXPECT_THAT(killed.output, HasSubstr("status 137"));

  EXPECT_EQ(0, run("offload-directory", {"logs", "card", "a"}).exitStatus);
  expectOffloadedTo("a");
}

TEST_F(OffloadDirectory, CallsNoFileProvedWhenTheProgramIsMissing) {
  const ChildRun missing = run("offload-directory", {"logs", "card", "a"}, scratch.path() / "missing");

  EXPECT_EQ(1, missing.exitStatus);
  EXPECT_THAT(missing.output, EndsWith(summary(0)));
}

TEST_F(OffloadDirectory, RefusesTheLogsOfAnOffloadToOtherFolders) {
  ASSERT_EQ(0, run("offload-directory", {"logs", "card", "a"}).exitStatus);

  EXPECT_EQ(2, run("offload-directory", {"logs", "card", "b"}).exitStatus);
  EXPECT_EQ(2, run("offload-directory", {"logs", "card", "a", "b"}).exitStatus);
  EXPECT_EQ(0, run("offload-directory", {"logs", "card", "a"}).exitStatus);
}

TEST_F(OffloadDirectory, FailsForAFolderThatIsEmptyOrMissing) {
  fs::create_directory(scratch.path() / "empty");

  EXPECT_EQ(1, run("offload-directory", {"logs1", "empty", "a"}).exitStatus);
  EXPECT_NE(0, run("offload-directory", {"logs2", "missing", "a"}).exitStatus);
  EXPECT_FALSE(fs::exists(scratch.path() / "logs2/files"));
}

// --- On a cluster ---

// A cluster of its own: one controller and one node, which does one task at a time, both on this machine.
class Cluster {
 public:
  explicit Cluster(const std::string& folder) : _folder(folder) {
    // The socket of the authentication has to lie where every user gets to it.
    for (const fs::path& above : {fs::path(folder), fs::path(folder).parent_path()}) {
      fs::permissions(above, fs::perms::owner_all | fs::perms::group_exec | fs::perms::others_exec);
    }
    for (const char* name : {"state", "spool"}) fs::create_directory(fs::path(folder) / name);
    writeFile(folder + "/key", mediaBytes(1024, static_cast<uint32_t>(::getpid())));
    fs::permissions(folder + "/key", fs::perms::owner_read);
    writeFile(configuration(), settings());
    start({"munged", "--foreground", "--socket=" + folder + "/munge", "--key-file=" + folder + "/key",
           "--pid-file=" + folder + "/munged.pid", "--seed-file=" + folder + "/seed"},
          "munged");
    within(std::chrono::seconds(30), [&] { return fs::exists(folder + "/munge"); });
    start({"slurmctld", "-D", "-f", configuration()}, "slurmctld");
    start({"slurmd", "-D", "-N", "ingest1", "-f", configuration()}, "slurmd");
  }

  ~Cluster() {
    // The node first, the authentication last.
    std::ranges::reverse(_processes);
    for (const pid_t process : _processes) {
      ::kill(process, SIGTERM);
      ::waitpid(process, nullptr, 0);
    }
  }

  Cluster(const Cluster&) = delete;
  Cluster& operator=(const Cluster&) = delete;

  [[nodiscard]] std::string configuration() const { return _folder + "/slurm.conf"; }

  [[nodiscard]] bool isReady() const {
    return within(std::chrono::seconds(60), [&] { return isIdleNode(ask({"sinfo", "-h", "-o", "%T"})); });
  }

  [[nodiscard]] bool isIdle() const {
    return within(std::chrono::minutes(3), [&] { return ask({"squeue", "-h"}).empty(); });
  }

  [[nodiscard]] std::string log() const {
    return readFile(_folder + "/munged.log") + readFile(_folder + "/slurmctld.log") + readFile(_folder + "/slurmd.log");
  }

 private:
  static bool isIdleNode(const std::string& text) { return text.find("idle") != std::string::npos; }

  static bool within(std::chrono::seconds patience, const std::function<bool()>& isTrue) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < end) {
      if (isTrue()) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    return false;
  }

  [[nodiscard]] std::string ask(const Arguments& words) const {
    return runInChild([&] {
             ::setenv("SLURM_CONF", configuration().c_str(), 1);
             become(words);
           })
        .output;
  }

  static std::string freePort() {
    const int file = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{.sin_family = AF_INET, .sin_port = 0, .sin_addr = {htonl(INADDR_LOOPBACK)}, .sin_zero = {}};
    socklen_t length = sizeof(address);
    auto* const plain = reinterpret_cast<sockaddr*>(&address);
    EXPECT_EQ(0, ::bind(file, plain, length));
    EXPECT_EQ(0, ::getsockname(file, plain, &length));
    ::close(file);
    return std::to_string(ntohs(address.sin_port));
  }

  [[nodiscard]] std::string settings() const {
    char host[256] = {};
    EXPECT_EQ(0, ::gethostname(host, sizeof(host) - 1));
    const std::string name = std::string(host).substr(0, std::string(host).find('.'));
    return "ClusterName=trial\nSlurmctldHost=" + name + "(127.0.0.1)\nSlurmUser=root\nSlurmdUser=root\n" +
           "AuthType=auth/munge\nAuthInfo=socket=" + _folder + "/munge\nSlurmctldPort=" + freePort() +
           "\nSlurmdPort=" + freePort() + "\nStateSaveLocation=" + _folder + "/state\nSlurmdSpoolDir=" + _folder +
           "/spool\nSlurmctldPidFile=" + _folder + "/slurmctld.pid\nSlurmdPidFile=" + _folder +
           "/slurmd.pid\nProctrackType=proctrack/linuxproc\nTaskPlugin=task/none\nMpiDefault=none\n" +
           "JobAcctGatherType=jobacct_gather/none\nAccountingStorageType=accounting_storage/none\n" +
           "SelectType=select/cons_tres\nSelectTypeParameters=CR_CPU\nSlurmdParameters=config_overrides\n" +
           "SchedulerParameters=bf_interval=1,sched_min_interval=1,sched_interval=1\n" +
           "NodeName=ingest1 NodeHostname=" + name + " NodeAddr=127.0.0.1 CPUs=1 State=UNKNOWN\n" +
           "PartitionName=ingest Nodes=ingest1 Default=YES State=UP\n";
  }

  void start(const Arguments& words, const std::string& log) {
    const std::string path = _folder + "/" + log + ".log";
    writeFile(path, "");
    const pid_t process = ::fork();
    if (process == 0) {
      // A test that is killed leaves no cluster behind.
      ::prctl(PR_SET_PDEATHSIG, SIGKILL);
      ::setenv("SLURM_CONF", configuration().c_str(), 1);
      if (std::freopen(path.c_str(), "a", stdout) == nullptr || ::dup2(1, 2) < 0) ::_exit(126);
      become(words);
    }
    _processes.push_back(process);
  }

  std::string _folder;
  std::vector<pid_t> _processes;
};

class OffloadArray : public Examples {
 protected:
  void SetUp() override {
    for (const char* program : {"munged", "slurmctld", "slurmd", "sbatch"}) {
      if (!haveProgram(program)) GTEST_SKIP() << "a Slurm cluster of the test's own needs " << program;
    }
    if (::geteuid() != 0) GTEST_SKIP() << "a Slurm cluster of the test's own needs root";
    Examples::SetUp();
    fs::create_directory(scratch.path() / "cluster");
    cluster = std::make_unique<Cluster>(scratch.path() / "cluster");
    if (!cluster->isReady()) GTEST_SKIP() << "no Slurm cluster could be started here: " << cluster->log();
    environment["SLURM_CONF"] = cluster->configuration();
  }

  std::unique_ptr<Cluster> cluster;
};

TEST_F(OffloadArray, ProvesEveryFileButThoseThatItNames) {
  writeFile(scratch.file("a/-v"), "an older take");

  const ChildRun submitted = run("offload-array.sbatch", {hostileFolder, "card", "a"});
  EXPECT_EQ(0, submitted.exitStatus) << submitted.output;
  ASSERT_TRUE(cluster->isIdle()) << cluster->log();
  const ChildRun report = run("offload-array.sbatch", {hostileFolder});

  EXPECT_EQ(1, report.exitStatus);
  EXPECT_THAT(report.output, EndsWith(summary(names.size() - 1))) << cluster->log();
  EXPECT_THAT(report.output, HasSubstr("NOT PROVED  -v: status 109, "));
  EXPECT_EQ("an older take", readFile(scratch.file("a/-v")));
  writeFile(scratch.file("a/-v"), readFile(scratch.file("card/-v")));
  expectOffloadedTo("a");
}

TEST_F(OffloadArray, CallsNoFileProvedWhoseTaskDidNotComeToItsEnd) {
  // The program takes its task with it.
  const ChildRun submitted = run("offload-array.sbatch", {"logs", "card", "a"}, programOf("kill -KILL $PPID; sleep 1"));
  EXPECT_EQ(0, submitted.exitStatus) << submitted.output;
  ASSERT_TRUE(cluster->isIdle()) << cluster->log();
  const ChildRun report = run("offload-array.sbatch", {"logs"});

  EXPECT_EQ(1, report.exitStatus);
  EXPECT_THAT(report.output, EndsWith(summary(0)));
  EXPECT_THAT(report.output, HasSubstr("status not-ended"));
}

}  // namespace
