#pragma once

#include <optional>
#include <string>

#include "KDXFileTools/kdxoffload/ListedFile.h"
#include "platform/Error.h"

namespace kdxoffload {

// The files of a media hash list 1.x, of which many are still around. Of a file with several digests one that this program can compute
// is taken, the quickest first. None, and an error with listErrorDomain, where it is no such list, a path leads elsewhere, or a file has no
// digest that this program can compute; and where there is no file in it.
std::optional<ListedFiles> readLegacyHashList(std::string bytes, platform::ErrorPlace error);

}  // namespace kdxoffload
