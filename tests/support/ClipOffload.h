#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "tests/support/ScratchDirectory.h"

// Lines that many runs over one clip print, and the files that they leave. ClipOffload::filled replaces the words in braces,
// and knows the names of these lines as words too: "{started}{hashed}".
inline constexpr const char* started = "INFO: copying {card}...\n";
inline constexpr const char* hashed = "hash MD5:{md5}\n";
inline constexpr const char* sizeChecked =
    "Copy completed successfully for destination file with file size check ({destination})\n";
// Lines that begin with "~" may come in any order.
inline constexpr const char* bothReadBack =
    "~INFO: verifying {card}\n"
    "~INFO: verifying {backup}\n"
    "~verify of source file #2 ({source}) ok.\n"
    "~verify of destination file #1 ({destination}) ok.\n";
inline constexpr const char* moving = "INFO: moving files in place..\n";
inline constexpr const char* flushing = "INFO: flushing files\n";
inline constexpr const char* closing = "INFO: done.\n\n";
inline constexpr const char* movedAndFlushed =
    "INFO: moving files in place..\n"
    "INFO: flushing files\n"
    "INFO: done.\n"
    "\n";
inline constexpr const char* notMovedLines =
    "failed to move {destination}.kdxcopy\n"
    "failed to move files in place\n";
// On standard error, after the name of the tool.
inline constexpr const char* usage =
    "usage: kdxdispatchcopy [options] source destination [destination ...]; see man kdxdispatchcopy";
inline constexpr const char* invalid = "invalid arguments\n";

// A card with one clip, and the destination, which has the same name.
class ClipOffload {
 public:
  explicit ClipOffload(std::size_t size = 3 * MiB + 17, const std::string& clipName = "clip.mov");

  // The digest of the clip that a program of the system prints.
  [[nodiscard]] std::string digestBy(const std::string& program) const;

  // The text with its words in braces replaced: the lines above, {source}, {destination}, {card}, {backup}, {scratch},
  // {size}, and the digests {md5}, {MD5}, {sha1}, {xxh64} and {xxh64reversed}.
  [[nodiscard]] std::string filled(std::string in) const;
  [[nodiscard]] std::vector<std::string> filled(std::vector<std::string> in) const;

  [[nodiscard]] std::vector<std::string> names() const { return namesBelow(scratch.path()); }

  ScratchDirectory scratch;
  std::string bytes;
  std::string source;
  std::string destination;
};

// The files on disk when a run over "clip.mov" has ended.
enum class OnDisk { untouched, notMoved, both, offloaded };
std::vector<std::string> namesOf(OnDisk state);
inline std::vector<std::string> notMoved() {
  return namesOf(OnDisk::notMoved);
}
inline std::vector<std::string> offloaded() {
  return namesOf(OnDisk::offloaded);
}
