#include "platform/Disks.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>

#include "platform/FileDescriptor.h"

namespace platform {

namespace {

namespace fs = std::filesystem;

// Volumes may lie on volumes. More layers than this can only be a circle.
constexpr int mostLayers = 8;

fs::path folderOfDevice(uint64_t device) {
  std::error_code none;
  return fs::canonical(fmt::format("/sys/dev/block/{}:{}", ::major(device), ::minor(device)), none);
}

std::string lineOf(const fs::path& path) {
  std::ifstream file(path);
  std::string line;
  std::getline(file, line);
  return line;
}

std::optional<uint64_t> deviceIn(const fs::path& folder) {
  unsigned major = 0;
  unsigned minor = 0;
  char colon = 0;
  std::ifstream file(folder / "dev");
  if (!(file >> major >> colon >> minor)) return std::nullopt;
  return ::makedev(major, minor);
}

bool isThere(const fs::path& path) {
  std::error_code none;
  return fs::exists(path, none);
}

std::vector<fs::path> partsOf(const fs::path& folder) {
  std::vector<fs::path> parts;
  std::error_code none;
  for (const auto& part : fs::directory_iterator(folder / "slaves", none)) parts.push_back(part.path());
  return parts;
}

// A file system with a device number of its own (btrfs) names its block device as the source of the mount.
uint64_t blockDeviceOf(const Mount& mount) {
  struct stat facts = {};
  if (::major(mount.device) != 0 || ::stat(mount.source.c_str(), &facts) != 0) return mount.device;
  return S_ISBLK(facts.st_mode) ? facts.st_rdev : mount.device;
}

void collect(const Mount& mount, int layers, std::vector<uint64_t>& disks);

void collectOfFile(const std::string& path, int layers, std::vector<uint64_t>& disks) {
  const FileDescriptor file(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!file.isOpen()) return;
  const std::vector<Mount> all = mounts();
  if (const Mount* mount = mountWithNumber(all, mountNumberOf(file.get()))) collect(*mount, layers, disks);
}

void collectOfDevice(uint64_t device, int layers, std::vector<uint64_t>& disks) {
  const fs::path folder = folderOfDevice(device);
  if (folder.empty() || layers == 0) return;
  const std::vector<fs::path> parts = partsOf(folder);
  for (const fs::path& part : parts) {
    if (const auto number = deviceIn(part)) collectOfDevice(*number, layers - 1, disks);
  }
  if (!parts.empty()) return;
  if (isThere(folder / "partition")) {
    if (const auto whole = deviceIn(folder.parent_path())) collectOfDevice(*whole, layers - 1, disks);
    return;
  }
  const std::string image = lineOf(folder / "loop" / "backing_file");
  if (!image.empty()) return collectOfFile(image, layers - 1, disks);
  disks.push_back(device);
}

void collect(const Mount& mount, int layers, std::vector<uint64_t>& disks) {
  collectOfDevice(blockDeviceOf(mount), layers, disks);
}

}  // namespace

std::vector<uint64_t> disksOf(const Mount& mount) {
  std::vector<uint64_t> disks;
  collect(mount, mostLayers, disks);
  std::ranges::sort(disks);
  disks.erase(std::unique(disks.begin(), disks.end()), disks.end());
  return disks;
}

}  // namespace platform
