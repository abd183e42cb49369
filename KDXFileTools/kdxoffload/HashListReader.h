#pragma once

#include <optional>
#include <string>

#include "KDXFileTools/kdxoffload/HashList.h"
#include "platform/Error.h"

namespace kdxoffload {

// Reads a document as writeHashList writes them, and those of other tools that keep to the standard: elements that this program has no
// use for are passed over. None, and an error with listErrorDomain, for anything that it can't be sure of: a path that leads elsewhere, a
// digest with other digits, an action that there is not, a file without a digest.
std::optional<HashList> readHashList(std::string bytes, platform::ErrorPlace error);

}  // namespace kdxoffload
