#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

inline constexpr std::size_t KiB = 1024;
inline constexpr std::size_t MiB = 1024 * KiB;

// A folder for one test, removed with everything in it when the test ends.
class ScratchDirectory {
 public:
  // Below the system's temporary directory, or below `parent`.
  ScratchDirectory();
  explicit ScratchDirectory(const std::filesystem::path& parent);
  ~ScratchDirectory();
  ScratchDirectory(const ScratchDirectory&) = delete;
  ScratchDirectory& operator=(const ScratchDirectory&) = delete;

  [[nodiscard]] const std::filesystem::path& path() const { return _path; }

  // The absolute path of a name in the folder. Makes the folders above the name.
  [[nodiscard]] std::string file(std::string_view name) const;

 private:
  std::filesystem::path _path;
};

// A folder where making thousands of files is fast: one in memory, or else the system's temporary directory.
std::filesystem::path quickFolder();

// `size` bytes that look random and are the same for the same seed.
std::string mediaBytes(std::size_t size, uint32_t seed = 1);

void writeFile(const std::string& path, std::string_view bytes);
// The whole file; fails the test when it can't be read.
std::string readFile(const std::string& path);
// Flips one bit of the byte at the offset, and makes sure that the change is on the device, not only in the cache.
void damageFile(const std::string& path, int64_t offset);

// The names below the folder (files and links, relative paths, sorted; folders are not listed).
std::vector<std::string> namesBelow(const std::filesystem::path& directory);

// What a digest program of the system ("md5sum", "sha1sum", "xxh64sum") prints for the file: hex digits only.
std::string digestByProgram(const std::string& program, const std::string& path);
