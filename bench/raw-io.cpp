// How fast this machine reads and writes: raw-io direct|cached STREAM...
//
// Runs all streams at once, each on a thread of its own, and returns when the last has ended. A stream is
//   read:PATH           reads the file, or every file of the folder in the order of the names
//   write:PATH:LIKE     writes a file of LIKE's size, or into the folder PATH files of the names and sizes of those in LIKE
// "direct" goes past the file cache (sizes must then be multiples of 4096), "cached" copies from and to memory. Nothing is
// digested and nothing flushed: no program that moves the same bytes in the same number of streams should be faster.

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <memory>
#include <new>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr std::size_t bufferSize = std::size_t{10} << 20;
constexpr std::size_t hugePageSize = std::size_t{2} << 20;

[[noreturn]] void fail(const std::string& what) {
  std::cerr << "raw-io: " + what + ": " + std::strerror(errno) + "\n";
  std::_Exit(1);
}

struct FreePages {
  void operator()(std::byte* pages) const { ::operator delete[](pages, std::align_val_t(hugePageSize)); }
};

std::unique_ptr<std::byte, FreePages> allocateBuffer() {
  auto* const pages = static_cast<std::byte*>(::operator new[](bufferSize, std::align_val_t(hugePageSize)));
  // As the tool does: a device takes a transfer from many small pages in many pieces.
  std::ignore = ::madvise(pages, bufferSize, MADV_HUGEPAGE);
  // No page of the buffer is touched for the first time while the clock of a read runs.
  std::memset(pages, 0x5a, bufferSize);
  return std::unique_ptr<std::byte, FreePages>(pages);
}

int openOrFail(const fs::path& path, int flags) {
  const int descriptor = ::open(path.c_str(), flags | O_CLOEXEC, 0666);
  if (descriptor < 0) fail(path);
  return descriptor;
}

void readFile(const fs::path& path, int extraFlags, std::byte* buffer) {
  const int descriptor = openOrFail(path, O_RDONLY | extraFlags);
  ssize_t length = 0;
  while ((length = ::read(descriptor, buffer, bufferSize)) > 0) {
  }
  if (length < 0) fail(path);
  ::close(descriptor);
}

void writeFile(const fs::path& path, std::uintmax_t size, int extraFlags, const std::byte* buffer) {
  const int descriptor = openOrFail(path, O_WRONLY | O_CREAT | O_TRUNC | extraFlags);
  while (size > 0) {
    const auto length = static_cast<std::size_t>(std::min<std::uintmax_t>(size, bufferSize));
    const ssize_t written = ::write(descriptor, buffer, length);
    if (written <= 0) fail(path);
    size -= static_cast<std::uintmax_t>(written);
  }
  if (::close(descriptor) != 0) fail(path);
}

// The file itself, or the files of the folder.
std::vector<fs::path> filesAt(const fs::path& path) {
  if (!fs::is_directory(path)) return {path};
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(path)) files.push_back(entry.path());
  std::sort(files.begin(), files.end());
  return files;
}

void runStream(const std::string& stream, int extraFlags) {
  const auto buffer = allocateBuffer();
  const std::size_t pathStart = stream.find(':') + 1;
  if (stream.starts_with("read:")) {
    for (const fs::path& file : filesAt(stream.substr(pathStart))) readFile(file, extraFlags, buffer.get());
    return;
  }
  const std::size_t likeStart = stream.find(':', pathStart) + 1;
  const fs::path path = stream.substr(pathStart, likeStart - 1 - pathStart);
  const fs::path like = stream.substr(likeStart);
  for (const fs::path& model : filesAt(like)) {
    writeFile(fs::is_directory(like) ? path / model.filename() : path, fs::file_size(model), extraFlags, buffer.get());
  }
}

bool isStream(const std::string& text) {
  return text.starts_with("read:") || (text.starts_with("write:") && std::count(text.begin(), text.end(), ':') == 2);
}

}  // namespace

int main(int argc, char* argv[]) {
  const std::vector<std::string> arguments(argv + 1, argv + argc);
  if (arguments.size() < 2 || (arguments[0] != "direct" && arguments[0] != "cached") ||
      !std::all_of(arguments.begin() + 1, arguments.end(), isStream)) {
    std::cerr << "usage: raw-io direct|cached STREAM...\n";
    return 2;
  }
  const int extraFlags = arguments[0] == "direct" ? O_DIRECT : 0;
  std::vector<std::jthread> threads;
  for (std::size_t index = 1; index < arguments.size(); ++index) {
    threads.emplace_back(runStream, arguments[index], extraFlags);
  }
}
