#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "digest/KDXDigestContext.h"

namespace kdxoffload {

enum class Command : uint8_t { offload, status, history };

// What the command line asks for. A plain value.
struct CommandLine {
  Command command = Command::offload;
  std::string card{};                       // as given
  std::vector<std::string> destinations{};  // as given, in this order, duplicates too
  uint32_t algorithm = KDXDigestAlgorithmXXHash64BE;
  std::optional<std::size_t> jobs{};  // how many at once; none: as many as pays
  int64_t stallSeconds = 300;
  std::vector<std::string> excluded{};  // patterns
  bool partial = false;
  bool readBack = true;
  bool recheck = false;
  bool replace = false;
  bool hashList = true;                    // a hash list is left at each destination
  bool checksums = false;                  // a list for the digest's own program too
  std::optional<std::string> catalogue{};  // path; none: the one in the state folder
  bool json = false;
  bool quiet = false;
};

// What there is to say instead of a command: help and version on standard output with status 0, anything wrong on
// standard error with status 1. The text ends with a newline.
struct CommandLineAnswer {
  std::string text{};
  int exitStatus = 0;
  std::string fault{};  // what is wrong, by itself; empty when nothing is
  bool json = false;    // --json was among the words: a refusal is reported in that form too
};

//   arguments   without the program's name
std::variant<CommandLine, CommandLineAnswer> parseCommandLine(std::vector<std::string> arguments);

// An option as it is written on a command line.
struct CommandLineOption {
  std::string longName{};   // after two dashes; empty for some
  std::string shortName{};  // after one dash; empty for most
  bool takesArgument = false;
};

// Every option that the parser knows. The manual page and the shells' completions offer the same ones.
std::vector<CommandLineOption> commandLineOptions();

}  // namespace kdxoffload
