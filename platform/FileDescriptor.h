#pragma once

#include <string>
#include <utility>

namespace platform {

// Owns one open descriptor and closes it. Move only.
class FileDescriptor {
 public:
  FileDescriptor() = default;
  explicit FileDescriptor(int descriptor) : _descriptor(descriptor) {}
  FileDescriptor(FileDescriptor&& other) noexcept : _descriptor(std::exchange(other._descriptor, -1)) {}
  FileDescriptor& operator=(FileDescriptor&& other) noexcept {
    std::swap(_descriptor, other._descriptor);
    return *this;
  }
  FileDescriptor(const FileDescriptor&) = delete;
  FileDescriptor& operator=(const FileDescriptor&) = delete;
  ~FileDescriptor() { close(); }

  [[nodiscard]] bool isOpen() const { return _descriptor >= 0; }
  [[nodiscard]] int get() const { return _descriptor; }

  // Hands the open descriptor over: closing it is the caller's from now on.
  int release() { return std::exchange(_descriptor, -1); }

  // Closes now, for callers to whom the result matters: 0, or the errno value of the close. Nothing open is 0.
  int close();

 private:
  int _descriptor = -1;
};

// Opens the file at the path itself: no link is followed, which could lead out of the folder, and a pipe that was planted
// there is not waited for. Not open when that fails; errno then tells why.
FileDescriptor openUnlessPipe(const std::string& path, int flags);

// What a pipe has at the moment, up to 64 KiB. One that has nothing is waited for, unless it was opened not to block. Empty
// at its end, when it has nothing and does not block (errno is EAGAIN then and only then), and when it can't be read.
std::string readSome(int descriptor);

}  // namespace platform
