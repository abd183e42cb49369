#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"
#include "tests/support/ToolRun.h"

using Contents = std::map<std::string, std::string>;  // contents of files, by their paths below a root

// A card that is offloaded to the folders "first" and "second" below a root, with buffers of 1 MiB.
class TwoFolderOffload {
 public:
  // A clip of several buffers and a last one that ends within a block.
  static TwoFolderOffload ofAClip();
  // A frame that is small, one of several buffers and a last one that ends within a block, and one of a single block.
  static TwoFolderOffload ofASequence();

  [[nodiscard]] ToolStart to(const std::filesystem::path& root, std::vector<std::string> options = {}) const;

  // What stands under the final names after a complete offload.
  [[nodiscard]] const Contents& contents() const { return _contents; }
  void makeFolders(const std::filesystem::path& root) const;
  // Writes another file under each final name.
  [[nodiscard]] Contents writeOldFiles(const std::filesystem::path& root) const;

  void expectSourceUntouched() const;
  void expectAllInPlace(const std::filesystem::path& root) const;
  void expectAllUnderTheirTemporaryNames(const std::filesystem::path& root) const;
  // Every file with a final name is complete, or is the old file. Where the old file is gone and no new one has the name, its
  // replacement stands under the temporary name.
  void expectNothingLost(const std::filesystem::path& root, const Contents& old) const;

 private:
  void addFile(const std::string& name, const std::string& bytes);

  std::unique_ptr<ScratchDirectory> _card = std::make_unique<ScratchDirectory>();
  std::vector<std::string> _arguments;  // up to the destinations
  std::string _destinationName;
  Contents _sources;  // by absolute paths
  Contents _contents;
};

// The content of the file at the path; none when nothing is there.
std::optional<std::string> contentsAt(const std::filesystem::path& path);
