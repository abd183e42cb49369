#include "tests/support/MountedFileSystem.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <vector>

#include "tests/support/ToolRun.h"

namespace fs = std::filesystem;

namespace {

bool run(const std::string& command) {
  return std::system((command + " > /dev/null 2>&1").c_str()) == 0;
}

std::string firstLineOf(const fs::path& file) {
  std::string line;
  std::ifstream stream(file);
  std::getline(stream, line);
  return line;
}

}  // namespace

std::unique_ptr<MountedFileSystem> MountedFileSystem::makeMountPoint() {
  std::unique_ptr<MountedFileSystem> system(new MountedFileSystem);
  system->_mountPoint = system->_scratch.path() / "mounted";
  fs::create_directory(system->_mountPoint);
  return system;
}

std::unique_ptr<MountedFileSystem> MountedFileSystem::mount(const std::string& type, std::size_t size,
                                                            std::string& whyNot, const std::string& deviceOptions) {
  if (isEmulated()) {
    whyNot = "an emulated program can't be told which of the kernel's pages are cached";
    return nullptr;
  }
  if (::geteuid() != 0) {
    whyNot = "mounting " + type + " needs root";
    return nullptr;
  }
  auto system = makeMountPoint();
  if (type == "tmpfs" || type == "ramfs") {
    const std::string options = type == "tmpfs" ? "size=" + std::to_string(size) : "";
    if (::mount(type.c_str(), system->_mountPoint.c_str(), type.c_str(), 0, options.c_str()) == 0) return system;
    whyNot = "mounting " + type + ": " + std::strerror(errno);
    system->_mountPoint.clear();
    return nullptr;
  }
  const std::string image = system->_scratch.file("image");
  const bool isMounted =
      makeImage(type, size, image, whyNot) && system->mountOnLoopDevice(type, image, deviceOptions, whyNot);
  if (!isMounted) system->_mountPoint.clear();
  return isMounted ? std::move(system) : nullptr;
}

bool MountedFileSystem::makeImage(const std::string& type, std::size_t size, const std::string& image,
                                  std::string& whyNot) {
  std::ofstream(image).close();
  fs::resize_file(image, size);
  const std::string force = type.starts_with("ext") ? " -F -E lazy_itable_init=0 " : " ";
  if (run("mkfs." + type + " -q" + force + image)) {
    // xfs writes its whole log, which would be most of the bytes in copies of the image.
    run("fallocate --dig-holes " + image);
    return true;
  }
  whyNot = "mkfs." + type + " does not make a file system here";
  return false;
}

std::unique_ptr<MountedFileSystem> MountedFileSystem::mountImage(const std::string& type, const std::string& image,
                                                                 std::string& whyNot, const std::string& options) {
  if (::geteuid() != 0) {
    whyNot = "mounting " + type + " needs root";
    return nullptr;
  }
  // There is no journal to replay, so check it first, as systems do when they start.
  if (type == "ext2") run("e2fsck -f -y " + image);
  auto system = makeMountPoint();
  // A copy has the identity of its original, which is still mounted.
  const bool isMounted = system->mountOnLoopDevice(type, image, type == "xfs" ? options + ",nouuid" : options, whyNot);
  if (!isMounted) system->_mountPoint.clear();
  return isMounted ? std::move(system) : nullptr;
}

bool MountedFileSystem::mountOnLoopDevice(const std::string& type, const std::string& image, const std::string& options,
                                          std::string& whyNot) {
  const std::string loopName = _scratch.file("loop");
  if (std::system(("losetup --find --show " + image + " > " + loopName + " 2>/dev/null").c_str()) != 0) {
    whyNot = "no loop device can be had here";
    return false;
  }
  _loopDevice = fs::path(firstLineOf(loopName)).filename().string();
  if (run("mount -o " + options + " -t " + type + " /dev/" + _loopDevice + " " + _mountPoint.string())) return true;
  whyNot = "mounting " + type + " on a loop device fails here";
  run("losetup --detach /dev/" + _loopDevice);
  return false;
}

MountedFileSystem::~MountedFileSystem() {
  if (_mountPoint.empty()) return;
  if (::umount2(_mountPoint.c_str(), 0) != 0) ::umount2(_mountPoint.c_str(), MNT_DETACH);
  if (!_loopDevice.empty()) run("losetup --detach /dev/" + _loopDevice);
}

std::string MountedFileSystem::file(const std::string& name) const {
  const fs::path path = _mountPoint / name;
  fs::create_directories(path.parent_path());
  return path.string();
}

uint64_t MountedFileSystem::bytesReadFromDevice() const {
  if (_loopDevice.empty()) return 0;
  // Reads completed, reads merged, sectors of 512 bytes read, ...
  std::ifstream statistics("/sys/block/" + _loopDevice + "/stat");
  uint64_t reads = 0;
  uint64_t merged = 0;
  uint64_t sectors = 0;
  statistics >> reads >> merged >> sectors;
  return sectors * 512;
}

uint64_t MountedFileSystem::bytesInCache(const std::string& path) {
  const int file = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  EXPECT_GE(file, 0) << path;
  struct stat facts = {};
  ::fstat(file, &facts);
  const auto size = static_cast<std::size_t>(facts.st_size);
  const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  if (size == 0) {
    ::close(file);
    return 0;
  }
  void* const mapping = ::mmap(nullptr, size, PROT_READ, MAP_SHARED, file, 0);
  EXPECT_NE(MAP_FAILED, mapping);
  std::vector<unsigned char> pages((size + page - 1) / page);
  EXPECT_EQ(0, ::mincore(mapping, size, pages.data()));
  ::munmap(mapping, size);
  ::close(file);
  return page * static_cast<uint64_t>(std::ranges::count_if(pages, [](unsigned char p) { return (p & 1) != 0; }));
}

void MountedFileSystem::fillCache(const std::string& path) {
  constexpr int attempts = 100;
  for (int attempt = 0; attempt < attempts; ++attempt) {
    const std::size_t size = readFile(path).size();
    if (size != 0 && bytesInCache(path) >= size) return;
  }
  ADD_FAILURE() << path << " does not stay in the cache";
}
