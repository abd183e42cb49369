#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "KDXFileTools/kdxoffload/FileDigest.h"
#include "KDXFileTools/kdxoffload/Listing.h"

namespace kdxoffload {

// Two digests of a folder with all that is in it. A plain value.
//   content    of the digests of its files and the contents of its folders: stays when something is renamed
//   structure  of the names with what they stand for: of files their digest, of folders their structure
struct FolderDigests {
  FileDigest content{};
  FileDigest structure{};
  bool operator==(const FolderDigests&) const = default;

  // Of every folder of the tree, at its position, and last of the tree's own folder. None for what is no folder or takes no part, and for
  // a folder that is not whole: something in it has no digest of the algorithm, could not be listed, is neither file nor folder, or has a
  // name that XML can't hold. Links take no part.
  //   digests  one for each entry
  //   ignored  one for each entry: it takes no part, nor does what is below it
  static std::vector<std::optional<FolderDigests>> of(const Listing& tree, std::span<const FileDigest> digests,
                                                      const std::vector<bool>& ignored, uint32_t algorithm);
};

}  // namespace kdxoffload
