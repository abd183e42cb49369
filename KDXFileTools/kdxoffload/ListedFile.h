#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/FileDigest.h"

namespace kdxoffload {

// A file as a checksum list or an older hash list names it. A plain value.
struct ListedFile {
  std::string path{};              // relative to the folder of the list
  std::optional<uint64_t> size{};  // bytes, where the list says so
  FileDigest digest{};
  bool operator==(const ListedFile&) const = default;
};
using ListedFiles = std::vector<ListedFile>;

}  // namespace kdxoffload
