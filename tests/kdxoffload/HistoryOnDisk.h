#pragma once

#include <filesystem>
#include <string>

#include "KDXFileTools/kdxoffload/HashListChain.h"
#include "KDXFileTools/kdxoffload/HashListWriter.h"
#include "digest/C4Digest.h"
#include "tests/support/ScratchDirectory.h"

// A history as another tool leaves it in a folder.
class HistoryOnDisk {
 public:
  static constexpr const char* abcd = "0ea03b369a463d9d";
  static constexpr const char* def = "7680e5f98f4a80fd";

  explicit HistoryOnDisk(std::filesystem::path folder) : _folder(std::move(folder)) {
    std::filesystem::create_directories(_folder / "ascmhl");
  }

  static kdxoffload::HashList::File file(const std::string& path, const std::string& value,
                                         kdxoffload::HashList::Action action = kdxoffload::HashList::Action::original) {
    kdxoffload::HashList::File file{.path = path, .size = 5, .modified = 1'700'000'000'000'000'000};
    file.hashes.push_back({.value = value, .action = action});
    return file;
  }
  static kdxoffload::HashList listOf(const std::vector<kdxoffload::HashList::File>& files) {
    kdxoffload::HashList list;
    list.creator = {.created = 1'700'000'000'000'000'000, .host = "cart", .tool = "another", .toolVersion = "1"};
    list.ignored = {".DS_Store", "ascmhl", "ascmhl/", "*.tmp"};
    list.files = files;
    return list;
  }
  static std::string textOf(const kdxoffload::HashList& list) {
    std::string text;
    kdxoffload::writeHashList(list, [&text](std::string_view bytes) { text += bytes; });
    return text;
  }

  // Writes the list, and with the next call of `writeChain` it is in the chain.
  HistoryOnDisk& add(const std::string& name, const kdxoffload::HashList& list) {
    writeFile(path(name), textOf(list));
    _chain.links.push_back({.fileName = name, .c4 = C4Digest::of(textOf(list))});
    return *this;
  }
  HistoryOnDisk& writeChain() {
    writeFile(path("ascmhl_chain.xml"), _chain.text());
    return *this;
  }
  [[nodiscard]] std::string path(const std::string& name) const { return _folder / "ascmhl" / name; }

 private:
  std::filesystem::path _folder;
  kdxoffload::HashListChain _chain;
};
