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

  // Gives up the open descriptor: from now on the caller must close it.
  int release() { return std::exchange(_descriptor, -1); }

  // Closes now, for callers that need the result: 0, or the errno value of close. 0 when nothing is open.
  int close();

 private:
  int _descriptor = -1;
};

// Opens the file at the path itself. Does not follow a link, which could lead out of the folder, and does not wait for a
// pipe that was planted there. Not open when that fails; errno then has the reason.
FileDescriptor openUnlessPipe(const std::string& path, int flags);

// Reads what a pipe holds at the moment, up to 64 KiB. Waits for an empty pipe, unless it is not blocking. Returns nothing
// at the end of the pipe, when it can't be read, and when it is empty and not blocking; only then is errno EAGAIN.
std::string readSome(int descriptor);

}  // namespace platform
