#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "KDXFileTools/kdxoffload/FileDigest.h"

namespace kdxoffload {

// The digests that manifests hold, in the order in which they stand there. Those that this program can't compute are kept as they were
// read.
enum class HashFormat : uint8_t { c4, md5, sha1, xxh128, xxh3, xxh64 };

// "md5"; the name of the element.
std::string_view nameOf(HashFormat format);
std::optional<HashFormat> hashFormatFrom(std::string_view name);

// The text as it is compared, with small hex digits; none where it is not a digest of this format.
std::optional<std::string> hashValueFrom(HashFormat format, std::string_view text);

// Of a KDXDigestAlgorithm code; none where manifests know no such digest.
std::optional<HashFormat> hashFormatOf(uint32_t algorithm);
// The hex digits; "" where there is no digest.
std::string hashValueOf(const FileDigest& digest);
// None where this program can't compute such digests, or the value is none.
std::optional<FileDigest> fileDigestFrom(HashFormat format, std::string_view value);

}  // namespace kdxoffload
