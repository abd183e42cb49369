#pragma once

#include <unistd.h>

#include <utility>

namespace faultyfs {

// Owns one file descriptor and closes it; -1 means "none".
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : _descriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    if (this != &other) {
      reset(other.release());
    }
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { reset(); }

  int get() const { return _descriptor; }
  bool valid() const { return _descriptor >= 0; }

  // Gives up the descriptor: from now on the caller must close it.
  int release() { return std::exchange(_descriptor, -1); }

  void reset(int descriptor = -1) {
    if (_descriptor >= 0) {
      ::close(_descriptor);
    }
    _descriptor = descriptor;
  }

 private:
  int _descriptor = -1;
};

}  // namespace faultyfs
