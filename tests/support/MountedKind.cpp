#include "tests/support/MountedKind.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <fstream>
#include <sstream>
#include <vector>

#include "platform/FileDescriptor.h"
#include "tests/support/OutputLines.h"
#include "tests/support/ProjectFile.h"

namespace fs = std::filesystem;

namespace {

using Clock = std::chrono::steady_clock;
using platform::FileDescriptor;

// One kind spends 10 s of processor time, on purpose, to make a key from a password.
constexpr std::chrono::seconds mountDeadline{120};
constexpr std::chrono::seconds endDeadline{20};
constexpr const char* mountTable = "/proc/self/mountinfo";

int millisecondsUntil(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

FileDescriptor descriptorOf(pid_t process) {
  return FileDescriptor(static_cast<int>(::syscall(SYS_pidfd_open, process, 0)));
}

struct Mount {
  fs::path mountPoint;
  fs::path source;
};

// The mounts below the folder, oldest first.
std::vector<Mount> mountsBelow(const fs::path& folder) {
  std::vector<Mount> mounts;
  std::ifstream table(mountTable);
  for (std::string line; std::getline(table, line);) {
    std::istringstream words(line);
    std::string word, mountPoint, source;
    for (int number = 0; number < 4; ++number) words >> word;
    words >> mountPoint;
    // Any number of optional words, a dash, and the type.
    while (words >> word && word != "-") continue;
    words >> word >> source;
    if (mountPoint.starts_with(folder.string() + "/")) mounts.push_back({mountPoint, source});
  }
  return mounts;
}

void unmount(const Mount& mount) {
  if (::umount2(mount.mountPoint.c_str(), 0) != 0) ::umount2(mount.mountPoint.c_str(), MNT_DETACH);
}

// In the child process: becomes the program that mounts. Its output goes to a file.
[[noreturn]] void becomeMount(const std::string& kind, const fs::path& folder, pid_t parent) {
  ::setpgid(0, 0);
  // If the test dies, the program gets a signal and unmounts.
  ::prctl(PR_SET_PDEATHSIG, SIGTERM);
  if (::getppid() != parent || ::chdir(folder.c_str()) != 0) ::_exit(1);
  const int log = ::open("words", O_WRONLY | O_CREAT | O_TRUNC | O_APPEND, 0600);
  const int nothing = ::open("/dev/null", O_RDONLY);
  ::dup2(nothing, STDIN_FILENO);
  ::dup2(log, STDOUT_FILENO);
  ::dup2(log, STDERR_FILENO);
  // The program may outlive the test, so it must not hold the test's files open.
  ::close_range(STDERR_FILENO + 1, ~0U, 0);
  const std::string script = projectFile("tests/kinds/mount");
  ::execl(script.c_str(), script.c_str(), kind.c_str(), nullptr);
  ::_exit(1);
}

}  // namespace

MountedKind::MountedKind() : _mountPoint(_scratch.path() / "mounted") {}

std::unique_ptr<MountedKind> MountedKind::mount(const std::string& kind, std::string& whyNot) {
  if (::geteuid() != 0) {
    whyNot = "mounting " + kind + " needs root";
    return nullptr;
  }
  std::unique_ptr<MountedKind> system(new MountedKind);
  system->start(kind);
  if (system->isMountedInTime()) return system;
  whyNot = "mounting " + kind + ": " + system->lastWords();
  return nullptr;
}

void MountedKind::start(const std::string& kind) {
  const pid_t parent = ::getpid();
  _server = ::fork();
  if (_server == 0) becomeMount(kind, _scratch.path(), parent);
  ::setpgid(_server, _server);
}

bool MountedKind::isMountedInTime() {
  const FileDescriptor table(::open(mountTable, O_RDONLY | O_CLOEXEC));
  const FileDescriptor server = descriptorOf(_server);
  const Clock::time_point deadline = Clock::now() + mountDeadline;
  while (!isMounted()) {
    // A change of the table is reported once. The end of a process is reported from then on.
    std::array<struct pollfd, 2> events{
        {{.fd = table.get(), .events = POLLPRI, .revents = 0}, {.fd = server.get(), .events = POLLIN, .revents = 0}}};
    if (::poll(events.data(), events.size(), millisecondsUntil(deadline)) == 0) return false;
    if (events[1].revents != 0) return isMounted();
  }
  return true;
}

bool MountedKind::isMounted() const {
  const std::vector<Mount> mounts = mountsBelow(_scratch.path());
  return !mounts.empty() && mounts.back().mountPoint == _mountPoint;
}

std::string MountedKind::lastWords() const {
  const std::vector<std::string> lines = linesOf(readFile(_scratch.path() / "words"));
  return lines.empty() ? "not within two minutes" : lines.back();
}

std::string MountedKind::file(const std::string& name) const {
  const fs::path path = _mountPoint / name;
  fs::create_directories(path.parent_path());
  return path.string();
}

fs::path MountedKind::store() const {
  const fs::path disk = _scratch.path() / "disk";
  return fs::exists(disk) ? disk : _mountPoint;
}

uint64_t MountedKind::bytesReadFromDevice() const {
  const std::vector<Mount> mounts = mountsBelow(_scratch.path());
  const auto mount = std::ranges::find(mounts, store(), &Mount::mountPoint);
  if (mount == mounts.end()) return 0;
  // Reads completed, reads merged, sectors of 512 bytes read, ...
  std::ifstream statistics("/sys/block/" + mount->source.filename().string() + "/stat");
  uint64_t reads = 0;
  uint64_t merged = 0;
  uint64_t sectors = 0;
  statistics >> reads >> merged >> sectors;
  return sectors * 512;
}

MountedKind::~MountedKind() {
  const bool wasMounted = isMounted();
  if (wasMounted) unmount(mountsBelow(_scratch.path()).back());
  endServer(wasMounted);
  const std::vector<Mount> mounts = mountsBelow(_scratch.path());
  std::for_each(mounts.rbegin(), mounts.rend(), unmount);
}

void MountedKind::endServer(bool endsByItself) {
  const FileDescriptor server = descriptorOf(_server);
  const auto endsInTime = [&server] {
    struct pollfd end = {.fd = server.get(), .events = POLLIN, .revents = 0};
    return ::poll(&end, 1, millisecondsUntil(Clock::now() + endDeadline)) == 1;
  };
  if (endsByItself) endsInTime();
  // Its end has not been waited for, so the number still belongs to the group that was started here.
  ::kill(-_server, SIGTERM);
  if (!endsInTime()) ::kill(-_server, SIGKILL);
  ::waitpid(_server, nullptr, 0);
}
