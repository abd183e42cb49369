#include "tests/support/OpenDescriptors.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <system_error>

namespace fs = std::filesystem;

std::optional<int> descriptorOf(const std::string& path) {
  for (const fs::directory_entry& entry : fs::directory_iterator("/proc/self/fd")) {
    std::error_code none;
    if (fs::read_symlink(entry.path(), none) == path) return std::stoi(entry.path().filename().string());
  }
  return std::nullopt;
}

std::size_t openDescriptors() {
  const fs::directory_iterator entries("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(entries), end(entries)));
}

int64_t positionOf(int descriptor) {
  std::ifstream facts("/proc/self/fdinfo/" + std::to_string(descriptor));
  std::string word;
  int64_t offset = -1;
  facts >> word >> offset;
  return offset;
}

void makeReadsFail(const std::string& path) {
  const std::optional<int> descriptor = descriptorOf(path);
  ASSERT_TRUE(descriptor.has_value()) << path;
  const int directory = ::open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  // A plain system call: the thread sanitizer would take the library's dup3 for a close that races with the reader.
  ASSERT_EQ(*descriptor, ::syscall(SYS_dup3, directory, *descriptor, O_CLOEXEC));
  ::close(directory);
}
