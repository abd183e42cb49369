#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"

#include <getopt.h>

#include <array>
#include <cstdlib>

namespace {

// What the parser reports for options that have no short form, beyond every character.
enum class LongOnly : int { sequence = 256, noDestination, ignoredSwitch, skipSource, skipFlush, skipFileSize };

constexpr int code(LongOnly option) {
  return static_cast<int>(option);
}

// The leading "-": a path is reported where it stands, so the order of paths and options is kept.
constexpr const char* shortOptions = "-a:t:e:knvfb:";
constexpr int pathFound = 1;

const std::array<option, 15> longOptions{{
    {"v", no_argument, nullptr, 'v'},
    {"f_size", required_argument, nullptr, 'a'},
    {"k", no_argument, nullptr, 'k'},
    {"n", no_argument, nullptr, 'n'},
    {"s", no_argument, nullptr, code(LongOnly::sequence)},
    {"j", no_argument, nullptr, code(LongOnly::noDestination)},
    {"c", no_argument, nullptr, code(LongOnly::ignoredSwitch)},
    {"ns", no_argument, nullptr, code(LongOnly::skipSource)},
    {"nf", no_argument, nullptr, code(LongOnly::skipFlush)},
    {"nfs", no_argument, nullptr, code(LongOnly::skipFileSize)},
    {"f", no_argument, nullptr, 'f'},
    {"t", required_argument, nullptr, 't'},
    {"b", required_argument, nullptr, 'b'},
    {"e", required_argument, nullptr, 'e'},
    {nullptr, 0, nullptr, 0},
}};

// The first path is the source, whatever becomes of it; every later one is a destination.
void takePath(CommandLine& line, bool& sourceSeen, const char* argument) {
  const std::optional<platform::FileURL> url = platform::FileURL::fromArgument(argument);
  if (sourceSeen) {
    if (url) line.destinations.push_back(*url);
    return;
  }
  sourceSeen = true;
  if (line.isSequence) {
    line.sourceSequence = KDXFileSequence::initWithIdentifier(argument);
  } else {
    line.source = url;
  }
}

void takeOption(CommandLine& line, int option, const char* argument) {
  constexpr int32_t readBack = KDXVerificationOptionVerifySource | KDXVerificationOptionVerifyDestinations;
  switch (option) {
    case 'v':
      line.verbose = true;
      break;
    case 'a':
      line.expectedFilesize = std::atoll(argument);  // NOLINT(cert-err34-c): a word that is no number counts as 0
      break;
    case 'k':
      line.verificationOptions &= ~readBack;
      break;
    case 'n':
      line.verificationOptions &= ~(readBack | KDXVerificationOptionHashDuringCopy);
      break;
    case code(LongOnly::sequence):
      line.isSequence = true;
      break;
    case code(LongOnly::noDestination):
      line.noDestinationNeeded = true;
      break;
    case code(LongOnly::skipSource):
      line.verificationOptions &= ~KDXVerificationOptionVerifySource;
      break;
    case code(LongOnly::skipFlush):
      line.skipFlush = true;
      break;
    case code(LongOnly::skipFileSize):
      line.verificationOptions |= KDXVerificationOptionSkipFileSizeCheck;
      break;
    case 'f':
      line.forceOverwrite = true;
      break;
    case 't':
      line.algorithmWord = argument;
      break;
    case 'e':
      line.externalHash = argument;
      break;
    default:
      // "-c", "-b VALUE", unknown options and options without their argument: older callers give them, nothing is
      // meant.
      break;
  }
}

}  // namespace

CommandLine parseCommandLine(int argc, char* const* argv) {
  CommandLine line;
  bool sourceSeen = false;
  opterr = 0;
  optind = 0;  // starts the parser anew
  // NOLINTNEXTLINE(concurrency-mt-unsafe): the declaration says so
  for (int found = 0; (found = getopt_long_only(argc, argv, shortOptions, longOptions.data(), nullptr)) != -1;) {
    if (found == pathFound) {
      takePath(line, sourceSeen, optarg);
    } else {
      takeOption(line, found, optarg);
    }
  }
  return line;
}
