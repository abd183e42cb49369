#include "tests/support/FaultyFileSystem.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <system_error>
#include <vector>

using faultyfs::Fault;
using faultyfs::FaultNumber;
using faultyfs::Fields;
using faultyfs::FileDescriptor;
using faultyfs::Operation;

namespace {

constexpr std::size_t largestMessage = 65536;
constexpr int childControlDescriptor = 3;

std::system_error systemError(const std::string& what) {
  return std::system_error(errno, std::generic_category(), what);
}

// Starts a program with one inherited descriptor (or none, if -1) besides the standard ones. Returns 0 or an errno.
int spawn(std::vector<std::string> words, int inherited, pid_t& process) {
  std::vector<char*> arguments;
  arguments.reserve(words.size() + 1);
  for (std::string& word : words) {
    arguments.push_back(word.data());
  }
  arguments.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  ::posix_spawn_file_actions_init(&actions);
  if (inherited >= 0) {
    ::posix_spawn_file_actions_adddup2(&actions, inherited, childControlDescriptor);
  }
  // Apart from the process group of the tests, so that what ends them does not end it before it has cleaned up.
  posix_spawnattr_t attributes;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSID);
  const int error = ::posix_spawnp(&process, arguments[0], &actions, &attributes, arguments.data(), environ);
  ::posix_spawnattr_destroy(&attributes);
  ::posix_spawn_file_actions_destroy(&actions);
  return error;
}

std::filesystem::path makeFolderIn(const std::filesystem::path& scratch) {
  std::string name = scratch / "faultyfs-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) {
    throw systemError(name);
  }
  return name;
}

// A mount shows as another device than the folder above, and a dead one cannot even be looked at.
bool isMounted(const std::filesystem::path& folder) {
  struct stat here {};
  struct stat above {};
  if (::stat(folder.c_str(), &here) != 0) {
    return errno != ENOENT;
  }
  return ::stat(folder.parent_path().c_str(), &above) == 0 && here.st_dev != above.st_dev;
}

bool becomesReadable(int descriptor, std::chrono::milliseconds patience) {
  pollfd source{descriptor, POLLIN, 0};
  int result = 0;
  do {
    result = ::poll(&source, 1, static_cast<int>(patience.count()));
  } while (result < 0 && errno == EINTR);
  return result > 0;
}

FaultyFileSystem::Availability tryOut() {
  if (const FileDescriptor device(::open("/dev/fuse", O_RDWR | O_CLOEXEC)); !device.valid()) {
    return {false, "cannot open /dev/fuse: " + std::generic_category().message(errno)};
  }
  try {
    const FaultyFileSystem trial(std::filesystem::temp_directory_path());
    return {true, {}};
  } catch (const std::exception& failure) {
    return {false, std::string("cannot mount a FUSE file system: ") + failure.what()};
  }
}

}  // namespace

const FaultyFileSystem::Availability& FaultyFileSystem::availability() {
  static const Availability result = tryOut();
  return result;
}

FaultyFileSystem::FaultyFileSystem(const std::filesystem::path& scratch)
    : _folder(makeFolderIn(std::filesystem::absolute(scratch))),
      _root(_folder / "mount"),
      _backing(_folder / "backing") {
  try {
    std::filesystem::create_directory(_root);
    std::filesystem::create_directory(_backing);
    start();
    awaitMount();
  } catch (...) {
    stop();
    throw;
  }
}

FaultyFileSystem::~FaultyFileSystem() {
  stop();
}

void FaultyFileSystem::start() {
  std::array<int, 2> ends{};
  if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends.data()) != 0) {
    throw systemError("socketpair");
  }
  _control.reset(ends[0]);
  const FileDescriptor childEnd(ends[1]);
  const int error =
      spawn({FAULTYFS_BINARY, _backing, _root, std::to_string(childControlDescriptor)}, childEnd.get(), _process);
  if (error != 0) {
    _process = -1;
    throw std::system_error(error, std::generic_category(), FAULTYFS_BINARY);
  }
}

void FaultyFileSystem::awaitMount() {
  const Fields greeting = receive(answerTime);
  if (greeting.empty() || greeting.front() != "mounted") {
    throw std::runtime_error(greeting.size() > 1 ? greeting[1] : "the faulty file system did not start");
  }
}

bool FaultyFileSystem::exitsWithin(std::chrono::milliseconds patience) noexcept {
  const FileDescriptor exit(static_cast<int>(::syscall(SYS_pidfd_open, _process, 0)));
  return exit.valid() && becomesReadable(exit.get(), patience);
}

void FaultyFileSystem::unmountByForce() noexcept {
  if (::umount2(_root.c_str(), MNT_DETACH) == 0) {
    return;
  }
  pid_t helper = -1;
  if (spawn({"fusermount3", "-u", "-z", _root}, -1, helper) == 0) {
    ::waitpid(helper, nullptr, 0);
  }
}

void FaultyFileSystem::vanish() {
  if (_process > 0) {
    ::kill(_process, SIGKILL);
    ::waitpid(_process, nullptr, 0);
    _process = -1;
  }
}

void FaultyFileSystem::stop() noexcept {
  _control.reset();  // makes the file system unmount itself and exit
  if (_process > 0) {
    if (!exitsWithin(std::chrono::seconds(10))) {
      unmountByForce();
      vanish();
    } else {
      ::waitpid(_process, nullptr, 0);
      _process = -1;
    }
  }
  if (isMounted(_root)) {
    unmountByForce();
  }
  std::error_code ignored;
  if (!isMounted(_root)) {
    std::filesystem::remove_all(_folder, ignored);
  }
}

Fields FaultyFileSystem::receive(std::chrono::milliseconds patience) {
  if (!becomesReadable(_control.get(), patience)) {
    throw std::runtime_error("the faulty file system does not answer");
  }
  std::vector<char> buffer(largestMessage);
  const ssize_t size = ::recv(_control.get(), buffer.data(), buffer.size(), 0);
  if (size <= 0) {
    throw std::runtime_error("the faulty file system is gone");
  }
  return faultyfs::split({buffer.data(), static_cast<std::size_t>(size)});
}

Fields FaultyFileSystem::ask(const Fields& command, std::chrono::milliseconds patience) {
  const std::lock_guard lock(_mutex);
  const std::string message = faultyfs::join(command);
  if (::send(_control.get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) {
    throw systemError("the faulty file system is gone");
  }
  Fields answer = receive(patience);
  if (answer.empty() || answer.front() != "ok") {
    throw std::runtime_error(answer.size() > 1 ? answer[1] : "the faulty file system refuses");
  }
  answer.erase(answer.begin());
  return answer;
}

faultyfs::SetFault FaultyFileSystem::setter() {
  return [this](const Fault& fault) {
    Fields command = faultyfs::toFields(fault);
    command.insert(command.begin(), "add");
    return FaultNumber{std::stoull(ask(command).at(0))};
  };
}

faultyfs::ReadFault FaultyFileSystem::whenReading(const std::string& pattern) {
  return {setter(), Operation::Read, pattern};
}

faultyfs::WriteFault FaultyFileSystem::whenWriting(const std::string& pattern) {
  return {setter(), Operation::Write, pattern};
}

faultyfs::SyncFault FaultyFileSystem::whenSyncing(const std::string& pattern) {
  return {setter(), Operation::Sync, pattern};
}

faultyfs::OpenFault FaultyFileSystem::whenOpening(const std::string& pattern) {
  return {setter(), Operation::Open, pattern};
}

faultyfs::PlainFault FaultyFileSystem::whenCreating(const std::string& pattern) {
  return {setter(), Operation::Create, pattern};
}

faultyfs::PlainFault FaultyFileSystem::whenClosing(const std::string& pattern) {
  return {setter(), Operation::Close, pattern};
}

faultyfs::RenameFault FaultyFileSystem::whenRenaming(const std::string& pattern) {
  return {setter(), Operation::Rename, pattern};
}

faultyfs::PlainFault FaultyFileSystem::whenLinking(const std::string& pattern) {
  return {setter(), Operation::Link, pattern};
}

faultyfs::PlainFault FaultyFileSystem::whenUnlinking(const std::string& pattern) {
  return {setter(), Operation::Unlink, pattern};
}

faultyfs::PlainFault FaultyFileSystem::whenMakingFolders(const std::string& pattern) {
  return {setter(), Operation::MakeFolder, pattern};
}

faultyfs::AttributeFault FaultyFileSystem::whenReportingAttributes(const std::string& pattern) {
  return {setter(), Operation::ReportAttributes, pattern};
}

faultyfs::LookUpFault FaultyFileSystem::whenLookingUp(const std::string& pattern) {
  return {setter(), Operation::LookUp, pattern};
}

void FaultyFileSystem::slowDown(const std::string& pattern, std::chrono::milliseconds delay) {
  whenReading(pattern).delayBy(delay);
  whenWriting(pattern).delayBy(delay);
  whenSyncing(pattern).delayBy(delay);
}

void FaultyFileSystem::cacheWrites(const std::string& relative) {
  ask({"cache-writes", stored(relative), stored(relative).string() + ".permanent"});
}

void FaultyFileSystem::copyAfterPowerLoss(const std::string& relative, const std::filesystem::path& target,
                                          std::uint64_t seed) {
  ask({"lose-power", stored(relative), target, std::to_string(seed)});
}

void FaultyFileSystem::clear() {
  ask({"clear"});
}

void FaultyFileSystem::remove(FaultNumber fault) {
  ask({"remove", std::to_string(fault)});
}

std::uint64_t FaultyFileSystem::timesFired(FaultNumber fault) {
  return std::stoull(ask({"fired", std::to_string(fault)}).at(0));
}

bool FaultyFileSystem::waitUntilFired(FaultNumber fault, std::uint64_t count, std::chrono::milliseconds patience) {
  const Fields command = {"await", std::to_string(fault), std::to_string(count), std::to_string(patience.count())};
  return ask(command, patience + answerTime).at(0) == "1";
}

faultyfs::Counters FaultyFileSystem::counters(const std::string& path) {
  return faultyfs::countersFrom(ask({"counters", path}));
}

faultyfs::Counters FaultyFileSystem::countersMatching(const std::string& pattern) {
  return faultyfs::countersFrom(ask({"counters-matching", pattern}));
}

void FaultyFileSystem::resetCounters() {
  ask({"reset-counters"});
}
