#include "tests/support/TwoFolderOffload.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <array>
#include <utility>

namespace fs = std::filesystem;

namespace {

constexpr std::array folders{"first", "second"};
constexpr std::size_t clipSize = 2 * MiB + 4096 + 17;
constexpr std::array<std::size_t, 3> frameSizes{70'001, MiB + 4096 + 17, 4096};

const std::string temporaryExtension = ".kdxcopy";

}  // namespace

std::optional<std::string> contentsAt(const fs::path& path) {
  return fs::exists(path) ? std::optional(readFile(path)) : std::nullopt;
}

TwoFolderOffload TwoFolderOffload::ofAClip() {
  TwoFolderOffload offload;
  offload.addFile("clip.mov", mediaBytes(clipSize));
  offload._arguments = {offload._card->file("clip.mov")};
  offload._destinationName = "clip.mov";
  return offload;
}

TwoFolderOffload TwoFolderOffload::ofASequence() {
  TwoFolderOffload offload;
  uint32_t number = 0;
  for (const std::size_t size : frameSizes) {
    ++number;
    offload.addFile(fmt::format("p.{:04}.dpx", number), mediaBytes(size, number));
  }
  offload._arguments = {"-s", offload._card->file("p.1-3.####.dpx")};
  offload._destinationName = "frames";
  return offload;
}

void TwoFolderOffload::addFile(const std::string& name, const std::string& bytes) {
  writeFile(_card->file(name), bytes);
  _sources[_card->file(name)] = bytes;
  for (const char* folder : folders) _contents[fs::path(folder) / name] = bytes;
}

ToolStart TwoFolderOffload::to(const fs::path& root, std::vector<std::string> options) const {
  writeFile(_card->file("settings/kdxdispatchcopy/defaults.ini"), "readBufferSizeMB = 1\n");
  options.insert(options.end(), _arguments.begin(), _arguments.end());
  for (const char* folder : folders) options.push_back(root / folder / _destinationName);
  return ToolStart{.arguments = std::move(options), .environment = {{"XDG_CONFIG_HOME", _card->file("settings")}}};
}

void TwoFolderOffload::makeFolders(const fs::path& root) const {
  for (const char* folder : folders) fs::create_directories(root / folder);
}

Contents TwoFolderOffload::writeOldFiles(const fs::path& root) const {
  Contents old;
  for (const auto& [name, bytes] : _contents) {
    old[name] = "an older take of " + name;
    writeFile(root / name, old[name]);
  }
  return old;
}

void TwoFolderOffload::expectSourceUntouched() const {
  for (const auto& [path, bytes] : _sources) EXPECT_TRUE(contentsAt(path) == bytes) << path;
}

void TwoFolderOffload::expectAllInPlace(const fs::path& root) const {
  for (const auto& [name, bytes] : _contents) {
    const auto there = contentsAt(root / name);
    EXPECT_TRUE(there == bytes) << name << (there ? " is not as it should be" : " is missing");
  }
}

void TwoFolderOffload::expectAllUnderTheirTemporaryNames(const fs::path& root) const {
  for (const auto& [name, bytes] : _contents) {
    const auto there = contentsAt(root / (name + temporaryExtension));
    EXPECT_TRUE(there == bytes) << name << (there ? " is not as it should be" : " is missing");
  }
}

void TwoFolderOffload::expectNothingLost(const fs::path& root, const Contents& old) const {
  for (const auto& [name, bytes] : _contents) {
    const auto there = contentsAt(root / name);
    const auto before = old.find(name);
    if (there) {
      EXPECT_TRUE(there == bytes || (before != old.end() && there == before->second)) << name << " is wrong";
    } else if (before != old.end()) {
      EXPECT_TRUE(contentsAt(root / (name + temporaryExtension)) == bytes) << name << " is gone";
    }
  }
}
