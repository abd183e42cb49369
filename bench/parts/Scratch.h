#pragma once

#include <cstddef>
#include <filesystem>
#include <string_view>

// A folder for the files of one benchmark, removed with all that is in it.
class Scratch {
 public:
  // Below `parent`, which must exist.
  explicit Scratch(const std::filesystem::path& parent);
  ~Scratch();
  Scratch(const Scratch&) = delete;
  Scratch& operator=(const Scratch&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return _path; }

  // A file of `size` bytes that are on the device when the call returns.
  [[nodiscard]] std::filesystem::path makeFile(std::string_view name, std::size_t size) const;

 private:
  std::filesystem::path _path;
};

// A folder on a disk: KDX_BENCH_DISK, the working directory without it.
std::filesystem::path diskDirectory();
// A folder in memory: KDX_BENCH_TMPFS, /dev/shm without it.
std::filesystem::path memoryDirectory();
