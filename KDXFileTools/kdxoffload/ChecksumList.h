#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "KDXFileTools/kdxoffload/ListedFile.h"
#include "platform/Error.h"

namespace kdxoffload {

// Lists that md5sum, sha1sum and xxhsum write, and check with "-c".
namespace ChecksumList {

// The line of one file, with its newline. None where there is no way to write the name: xxhsum knows none for one with a newline in it.
std::optional<std::string> lineFor(std::string_view path, const FileDigest& digest);

// The files of such a list, by any of the three, also of lines that name the digest ("MD5 (clip.mov) = ..."). Comments and empty lines
// are passed over. None, and an error with listErrorDomain that names the line, where one is something else, its digest is one that this
// program can't compute, or its path leads elsewhere; and where there is no file in it.
std::optional<ListedFiles> filesFrom(std::string_view text, platform::ErrorPlace error);

}  // namespace ChecksumList

}  // namespace kdxoffload
