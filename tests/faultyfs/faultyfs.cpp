// A file system for tests: it shows a backing folder at a mount point and, on demand, fails as media do.
//
//   faultyfs <backing folder> <mount point> <descriptor of the control socket>
//
// The control socket (SOCK_SEQPACKET) carries the commands of the test program. The first packet sent is "mounted". Every
// command is answered when it is in force. When the other end of the socket is closed, the file system unmounts and ends, so
// that no mount outlives its test.
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "FaultBook.h"
#include "FileDescriptor.h"
#include "PassThrough.h"
#include "TrafficLog.h"
#include "WriteCaches.h"

namespace faultyfs {

namespace {

// Enough threads for other requests while some answers are slow.
constexpr int workerCount = 16;
constexpr std::size_t largestMessage = 65536;

// The connection to the kernel, mounted as long as this object exists.
class Mount {
 public:
  // Throws std::runtime_error if it can't be mounted here.
  Mount(PassThrough& files, const std::string& mountPoint) {
    std::string name = "faultyfs";
    std::string option = "-ofsname=faultyfs,subtype=faultyfs";
    std::vector<char*> words = {name.data(), option.data()};
    fuse_args arguments = FUSE_ARGS_INIT(static_cast<int>(words.size()), words.data());
    _connection.reset(fuse_session_new(&arguments, &PassThrough::operations(), sizeof(fuse_lowlevel_ops), &files));
    fuse_opt_free_args(&arguments);
    if (!_connection || fuse_session_mount(_connection.get(), mountPoint.c_str()) != 0) {
      throw std::runtime_error("cannot mount at " + mountPoint);
    }
    _mounted.reset(_connection.get());
    makeNonBlocking();
  }

  // Answers requests in the calling thread until stop() or until the mount is gone.
  void serve() {
    fuse_buf buffer{};
    while (receive(buffer)) {
      fuse_session_process_buf(_connection.get(), &buffer);
    }
    std::free(buffer.mem);
  }

  void stop() {
    fuse_session_exit(_connection.get());
    const std::uint64_t one = 1;
    if (::write(_stopEvent.get(), &one, sizeof one) != sizeof one) {
      std::perror("faultyfs: stop");
    }
  }

 private:
  struct Destroy {
    void operator()(fuse_session* connection) const { fuse_session_destroy(connection); }
  };
  struct Unmount {
    void operator()(fuse_session* connection) const { fuse_session_unmount(connection); }
  };

  void makeNonBlocking() {
    const int descriptor = fuse_session_fd(_connection.get());
    if (::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK) != 0) {
      throw std::system_error(errno, std::generic_category(), "fuse device");
    }
  }

  // Gets the next request. One thread at a time waits for it; the others work or wait for their turn.
  bool receive(fuse_buf& buffer) {
    const std::lock_guard turn(_turn);
    while (fuse_session_exited(_connection.get()) == 0) {
      pollfd sources[] = {{fuse_session_fd(_connection.get()), POLLIN, 0}, {_stopEvent.get(), POLLIN, 0}};
      ::poll(sources, std::size(sources), -1);
      const int size = fuse_session_receive_buf(_connection.get(), &buffer);
      if (size > 0) {
        return true;
      }
      if (size != -EINTR && size != -EAGAIN) {
        return false;
      }
    }
    return false;
  }

  FileDescriptor _stopEvent{::eventfd(0, EFD_CLOEXEC)};
  std::mutex _turn;
  std::unique_ptr<fuse_session, Destroy> _connection;
  std::unique_ptr<fuse_session, Unmount> _mounted;
};

// Executes the commands of the test program.
class Control {
 public:
  Control(FileDescriptor socket, FaultBook& faults, TrafficLog& traffic, WriteCaches& caches)
      : _socket(std::move(socket)), _faults(faults), _traffic(traffic), _caches(caches) {}

  void send(const Fields& fields) {
    const std::string message = join(fields);
    if (::send(_socket.get(), message.data(), message.size(), MSG_NOSIGNAL) < 0) {
      std::perror("faultyfs: control");
    }
  }

  // Returns when the other end is closed.
  void serve() {
    std::vector<char> buffer(largestMessage);
    for (;;) {
      const ssize_t size = ::recv(_socket.get(), buffer.data(), buffer.size(), 0);
      if (size < 0 && errno == EINTR) {
        continue;
      }
      if (size <= 0) {
        return;
      }
      send(answerTo(split({buffer.data(), static_cast<std::size_t>(size)})));
    }
  }

 private:
  Fields answerTo(const Fields& command) {
    try {
      Fields answer = execute(command);
      answer.insert(answer.begin(), "ok");
      return answer;
    } catch (const std::exception& failure) {
      return {"error", failure.what()};
    }
  }

  Fields execute(const Fields& command) {
    const std::string& verb = command.at(0);
    if (verb == "add") {
      return {std::to_string(_faults.add(faultFrom(std::span(command).subspan(1))))};
    }
    if (verb == "remove") {
      _faults.remove(std::stoull(command.at(1)));
      return {};
    }
    if (verb == "clear") {
      _faults.clear();
      return {};
    }
    if (verb == "cache-writes") {
      _caches.add(command.at(1), command.at(2));
      return {};
    }
    if (verb == "lose-power") {
      _caches.copyAfterPowerLoss(command.at(1), command.at(2), std::stoull(command.at(3)));
      return {};
    }
    return query(verb, command);
  }

  Fields query(const std::string& verb, const Fields& command) {
    if (verb == "fired") {
      return {std::to_string(_faults.timesFired(std::stoull(command.at(1))))};
    }
    if (verb == "await") {
      const std::chrono::milliseconds patience(std::stoll(command.at(3)));
      const bool fired = _faults.waitUntilFired(std::stoull(command.at(1)), std::stoull(command.at(2)), patience);
      return {fired ? "1" : "0"};
    }
    if (verb == "counters") {
      return toFields(_traffic.of(command.at(1)));
    }
    if (verb == "counters-matching") {
      return toFields(_traffic.ofMatching(command.at(1)));
    }
    if (verb == "reset-counters") {
      _traffic.reset();
      return {};
    }
    throw std::invalid_argument("unknown command " + verb);
  }

  FileDescriptor _socket;
  FaultBook& _faults;
  TrafficLog& _traffic;
  WriteCaches& _caches;
};

void serve(const std::string& backing, const std::string& mountPoint, FaultBook& faults, TrafficLog& traffic,
           WriteCaches& caches, Control& control) {
  FileDescriptor folder(::open(backing.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder.valid()) {
    throw std::system_error(errno, std::generic_category(), backing);
  }
  PassThrough files(std::move(folder), faults, traffic, caches, [&control] { control.send({"mounted"}); });
  Mount mount(files, mountPoint);
  std::vector<std::jthread> workers;
  workers.reserve(workerCount);
  for (int i = 0; i < workerCount; ++i) {
    workers.emplace_back([&mount] { mount.serve(); });
  }
  control.serve();
  mount.stop();
  faults.shutDown();
  workers.clear();  // joins them; nobody may use the connection when it is unmounted
}

int run(const std::string& backing, const std::string& mountPoint, int controlDescriptor) {
  ::umask(0);  // the kernel has applied the mask of the caller already
  // A signal that ends the tests also closes the control socket. Ending here at once would leave a dead mount.
  for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
    ::signal(signal, SIG_IGN);
  }
  FaultBook faults;
  TrafficLog traffic;
  WriteCaches caches;
  ::fcntl(controlDescriptor, F_SETFD, FD_CLOEXEC);
  Control control(FileDescriptor(controlDescriptor), faults, traffic, caches);
  try {
    serve(backing, mountPoint, faults, traffic, caches, control);
    return 0;
  } catch (const std::exception& failure) {
    control.send({"error", failure.what()});
    return 1;
  }
}

}  // namespace

}  // namespace faultyfs

int main(int argc, char** argv) {
  if (argc != 4) {
    std::fprintf(stderr, "usage: faultyfs <backing folder> <mount point> <control descriptor>\n");
    return 2;
  }
  return faultyfs::run(argv[1], argv[2], std::atoi(argv[3]));
}
