#include "tests/support/ScratchDirectory.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <memory>
#include <random>
#include <sstream>

namespace fs = std::filesystem;

ScratchDirectory::ScratchDirectory() : ScratchDirectory(fs::temp_directory_path()) {}

ScratchDirectory::ScratchDirectory(const fs::path& parent) {
  std::string name = (parent / "kdxtest-XXXXXX").string();
  if (::mkdtemp(name.data()) == nullptr)
    throw fs::filesystem_error("mkdtemp", name, std::error_code(errno, std::generic_category()));
  _path = name;
}

ScratchDirectory::~ScratchDirectory() {
  std::error_code ignored;
  fs::remove_all(_path, ignored);
}

std::string ScratchDirectory::file(std::string_view name) const {
  const fs::path path = _path / name;
  fs::create_directories(path.parent_path());
  return path.string();
}

std::filesystem::path quickFolder() {
  return std::filesystem::is_directory("/dev/shm") ? "/dev/shm" : std::filesystem::temp_directory_path();
}

std::string mediaBytes(std::size_t size, uint32_t seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  std::size_t offset = 0;
  for (; offset + sizeof(uint32_t) <= size; offset += sizeof(uint32_t)) {
    const auto word = static_cast<uint32_t>(random());
    std::copy_n(reinterpret_cast<const char*>(&word), sizeof word, bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  }
  for (; offset < size; ++offset) bytes[offset] = static_cast<char>(random());
  return bytes;
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  file.close();
  ASSERT_FALSE(file.fail()) << path;
}

std::string readFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  EXPECT_TRUE(file.is_open()) << path;
  std::ostringstream bytes;
  bytes << file.rdbuf();
  return bytes.str();
}

void damageFile(const std::string& path, int64_t offset) {
  const int file = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_GE(file, 0) << path;
  char byte = 0;
  EXPECT_EQ(1, ::pread(file, &byte, 1, offset));
  byte = static_cast<char>(byte ^ 1);
  EXPECT_EQ(1, ::pwrite(file, &byte, 1, offset));
  EXPECT_EQ(0, ::fsync(file));
  EXPECT_EQ(0, ::posix_fadvise(file, 0, 0, POSIX_FADV_DONTNEED));
  ::close(file);
}

std::vector<std::string> namesBelow(const fs::path& directory) {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(directory)) {
    if (entry.is_symlink() || !entry.is_directory())
      names.push_back(entry.path().lexically_relative(directory).string());
  }
  std::ranges::sort(names);
  return names;
}

std::string digestByProgram(const std::string& program, const std::string& path) {
  const std::string command = program + " < '" + path + "'";
  const std::unique_ptr<FILE, int (*)(FILE*)> output(::popen(command.c_str(), "r"), ::pclose);
  std::string digits;
  for (int c = 0; output && (c = std::fgetc(output.get())) != EOF && std::isxdigit(c) != 0;)
    digits += static_cast<char>(c);
  EXPECT_FALSE(digits.empty()) << command;
  return digits;
}
