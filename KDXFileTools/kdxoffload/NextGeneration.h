#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/FileDigest.h"
#include "KDXFileTools/kdxoffload/FolderDigests.h"
#include "KDXFileTools/kdxoffload/HashHistories.h"

namespace kdxoffload {

// A file whose bytes were read. A plain value.
struct ReadFile {
  std::string path{};  // relative to the folder at the top
  uint64_t size = 0;
  int64_t modified = 0;  // nanoseconds since 1970
  FileDigest digest{};
  int64_t read = 0;  // when; nanoseconds since 1970
};

// What was read of a folder since its last generation, and by whom. A plain value.
struct GenerationFacts {
  HashList::Creator creator{};
  HashList::Process process = HashList::Process::transfer;
  int64_t started = 0;     // of the operation; nanoseconds since 1970
  std::string rootName{};  // see ListNames
  std::vector<ReadFile> files{};
  std::map<std::string, FolderDigests> folders{};  // those that are whole, by path; "" is the one at the top
  std::vector<std::string> ignored{};              // patterns that come to those of before
};

// The patterns of the place's next list: the usual ones, those of before and those that come to them, each once.
std::vector<std::string> patternsOf(const HashHistories::Place& place, const GenerationFacts& facts);

// The list of each place's next generation, at the same position: what was read of its files, compared with what is known of them. None where
// nothing was read, there and further down. Files that a pattern of the place leaves out are in none, nor are those whose name XML can't
// hold. References are still missing: they name lists by their bytes.
std::vector<std::optional<HashList>> nextGeneration(const HashHistories& histories, const GenerationFacts& facts);

}  // namespace kdxoffload
