#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"
#include "KDXFileTools/kdxdispatchcopy/KDXVerificationOptions.h"
#include "platform/FileURL.h"

// What the command line asks for. A plain value.
struct CommandLine {
  int32_t verificationOptions =
      KDXVerificationOptionHashDuringCopy | KDXVerificationOptionVerifySource | KDXVerificationOptionVerifyDestinations;
  std::optional<platform::FileURL> source;
  std::shared_ptr<const KDXFileSequence> sourceSequence;  // the source, when -s came before it; null if not understood
  std::vector<platform::FileURL> destinations;            // in the order given, duplicates too
  bool isSequence = false;
  bool noDestinationNeeded = false;
  bool verbose = false;
  bool forceOverwrite = false;
  bool skipFlush = false;
  std::optional<int64_t> expectedFilesize;  // bytes
  std::optional<std::string> algorithmWord;
  std::optional<std::string> externalHash;  // the bytes as given, valid or not: the check is never skipped
};

// Parses the arguments of the process. Options may stand anywhere among the paths and may be shortened as
// getopt_long_only(3) allows. Unknown options, options without their argument and paths that are not UTF-8 are ignored.
// Uses the parser's global state: one call at a time.
CommandLine parseCommandLine(int argc, char* const* argv);

// An option as it is written on a command line.
struct CommandLineOption {
  std::string_view longName;  // after one dash or two
  char shortName = '\0';      // after one dash, alone or in a cluster; '\0': the option has none
  bool takesArgument = false;
};

// Every option that the parser knows. The manual page and the shells' completions offer the same ones.
std::vector<CommandLineOption> commandLineOptions();
