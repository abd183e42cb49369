#include "tests/sweep/Offload.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <utility>

namespace fs = std::filesystem;

namespace {

// Writing files in memory costs nothing.
fs::path folderInMemory() {
  const fs::path memory = "/dev/shm";
  std::error_code none;
  return fs::is_directory(memory, none) ? memory : fs::temp_directory_path();
}

const Lack* lackOf(const Scenario& scenario, const SystemCall& call) {
  if (!call.isBelowRoot || call.where.starts_with("settings/")) return nullptr;
  for (const Lack& lack : scenario.lacks) {
    if (lack.call == call.name && (lack.where.empty() || lack.where == call.where)) return &lack;
  }
  return nullptr;
}

// Reads a file of any size at once: reading is most of the sweep's work, apart from running the tool. Empty if there is no
// file.
std::string bytesOf(const fs::path& path) {
  std::error_code none;
  const std::uintmax_t size = fs::file_size(path, none);
  if (none) return {};
  std::string bytes(size, '\0');
  std::ifstream file(path, std::ios::binary);
  file.read(bytes.data(), static_cast<std::streamsize>(size));
  bytes.resize(static_cast<std::size_t>(file.gcount()));
  return bytes;
}

constexpr const char* folders[] = {"a", "b"};

}  // namespace

Offload::Offload(Scenario scenario) : _scenario(std::move(scenario)), _root(folderInMemory()) {
  _before["settings/kdxdispatchcopy/defaults.ini"] = "readBufferSizeMB = 1\n";
  for (const std::string folder : folders) _before[folder + "/older.mov"] = "an older clip in " + folder;
  _arguments = _scenario.options;
  if (_scenario.isSequence) {
    // One block; a block and a part of one; many blocks and a part of one.
    _before["card/f_1.dpx"] = mediaBytes(4096, 1);
    _before["card/f_2.dpx"] = mediaBytes(5001, 2);
    _before["card/f_3.dpx"] = mediaBytes(70000, 3);
    _arguments.insert(_arguments.end(), {"-s", _root.file("card/f_1-3.#.dpx")});
    addCopies({"f_1.dpx", "f_2.dpx", "f_3.dpx"});
    for (const std::string folder : folders) _arguments.push_back(_root.file(folder + "/frames"));
    return;
  }
  _before["card/clip.mov"] = mediaBytes(_scenario.clipSize);
  _arguments.push_back(_root.file("card/clip.mov"));
  addCopies({"clip.mov"});
  for (const Copy& copy : _copies) _arguments.push_back(_root.file(copy.name));
}

void Offload::addCopies(const std::vector<std::string>& names) {
  for (const std::string folder : folders) {
    for (const std::string& name : names) {
      const std::string finalName = folder + "/" + name;
      _copies.push_back({.name = finalName, .temporary = finalName + ".kdxcopy", .bytes = _before.at("card/" + name)});
      if (!_scenario.replacesFiles) continue;
      _before[_copies.back().name] = "an earlier take of " + finalName;
      _before[_copies.back().temporary] = "left by an earlier run for " + finalName;
    }
  }
}

Offload::Files Offload::files() const {
  Files found;
  for (const std::string& name : namesBelow(_root.path())) found[name] = bytesOf(_root.path() / name);
  return found;
}

void Offload::prepare() const {
  // Files of the card are written again only if they differ, since the tool must not change them.
  const auto isOfFolders = [](const std::string& name) { return !name.starts_with("card/"); };
  for (const std::string& name : namesBelow(_root.path())) {
    if (isOfFolders(name) || !_before.contains(name)) fs::remove(_root.path() / name);
  }
  for (const auto& [name, bytes] : _before) {
    if (isOfFolders(name) || bytesOf(_root.path() / name) != bytes) writeFile(_root.file(name), bytes);
  }
}

SupervisedRun Offload::run(const std::function<Verdict(const SystemCall&)>& judge,
                           const std::vector<std::string>& moreOptions) const {
  std::vector<std::string> arguments = moreOptions;
  arguments.insert(arguments.end(), _arguments.begin(), _arguments.end());
  const ToolStart start{.arguments = std::move(arguments),
                        .environment = {{"XDG_CONFIG_HOME", (_root.path() / "settings").string()}}};
  return runSupervised(start, _root.path(), [&](const SystemCall& call) {
    const Lack* const lack = lackOf(_scenario, call);
    return lack == nullptr ? judge(call) : Verdict{.error = lack->error};
  });
}
