#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KDXFileTools/kdxoffload/ListedFile.h"
#include "platform/Error.h"

namespace kdxoffload {

// The files of a list of either kind, which its bytes tell: see ChecksumList and LegacyHashList for what is refused.
std::optional<ListedFiles> readListFile(std::string bytes, platform::ErrorPlace error);

// True for names that such lists have.
bool isNameOfListFile(std::string_view name);

}  // namespace kdxoffload
