#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/Folder.h"

namespace kdxoffload {

// How a file at the name of a list that is about to be written came to be there.
enum class ListOrigin : uint8_t {
  unknown,  // it is replaced only when the new list says all that it says
  ownFile,  // an earlier run wrote it
};

// Writes a checksum list of that name in the folder, so that it is whole as soon as it has its name. A file that may be somebody else's is
// never replaced; nor is anything but a file. False, with an error, then and where it can't be written.
//   text  lines of ChecksumList::lineFor
bool writeChecksumList(const platform::Folder& folder, const std::string& name, std::string_view text,
                       ListOrigin origin, platform::ErrorPlace error);

}  // namespace kdxoffload
