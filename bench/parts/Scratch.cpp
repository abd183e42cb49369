#include "bench/parts/Scratch.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <system_error>
#include <vector>

namespace {

std::filesystem::path fromEnvironment(const char* variable, const std::filesystem::path& otherwise) {
  const char* const value = std::getenv(variable);
  return value == nullptr ? otherwise : std::filesystem::path(value);
}

[[noreturn]] void fail(const std::string& what) {
  throw std::system_error(errno, std::generic_category(), what);
}

}  // namespace

Scratch::Scratch(const std::filesystem::path& parent) {
  std::string name = parent / "kdxbench-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) fail(name);
  _path = name;
}

Scratch::~Scratch() {
  std::error_code ignored;
  std::filesystem::remove_all(_path, ignored);
}

std::filesystem::path Scratch::makeFile(std::string_view name, std::size_t size) const {
  const std::filesystem::path path = _path / name;
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (descriptor < 0) fail(path);
  const std::vector<char> bytes(std::min(size, std::size_t{1} << 20), 'k');
  while (size > 0) {
    const ssize_t written = ::write(descriptor, bytes.data(), std::min(size, bytes.size()));
    if (written <= 0) fail(path);
    size -= static_cast<std::size_t>(written);
  }
  if (::fsync(descriptor) != 0) fail(path);
  ::close(descriptor);
  return path;
}

std::filesystem::path diskDirectory() {
  return fromEnvironment("KDX_BENCH_DISK", std::filesystem::current_path());
}

std::filesystem::path memoryDirectory() {
  return fromEnvironment("KDX_BENCH_TMPFS", "/dev/shm");
}
