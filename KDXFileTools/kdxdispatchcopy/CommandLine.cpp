#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"

#include <getopt.h>

#include <array>
#include <cstdlib>
#include <string_view>

namespace {

// What the parser reports for options without a short form. Greater than any character.
enum class LongOnly : int { sequence = 256, noDestination, ignoredSwitch, skipSource, skipFlush, skipFileSize };

constexpr int code(LongOnly option) {
  return static_cast<int>(option);
}

// The leading "-" makes the parser report each path where it stands, so that paths and options keep their order.
constexpr const char* shortOptions = "-a:t:e:knvfb:";
constexpr int pathFound = 1;

constexpr std::array<option, 15> longOptions{{
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

constexpr bool hasShortForm(const option& entry) {
  return entry.val < code(LongOnly::sequence);
}

// True for a letter of the short options that takes an argument exactly when `argument` says so.
constexpr bool isShortOption(int letter, int argument) {
  const std::string_view letters = std::string_view(shortOptions).substr(1);
  const std::size_t found = letters.find(static_cast<char>(letter));
  if (found == std::string_view::npos) return false;
  return letters.substr(found + 1).starts_with(':') == (argument == required_argument);
}

// Every short option is also in the table of long options, so that this table lists all options.
constexpr bool tablesAgree() {
  std::size_t shortForms = 0;
  for (const option& entry : longOptions) {
    if (entry.name == nullptr || !hasShortForm(entry)) continue;
    if (!isShortOption(entry.val, entry.has_arg)) return false;
    ++shortForms;
  }
  std::size_t letters = 0;
  for (const char letter : std::string_view(shortOptions).substr(1)) letters += letter == ':' ? 0 : 1;
  return shortForms == letters;
}
static_assert(tablesAgree());

// The first path is the source, even if it is not understood. Every later one is a destination.
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
      // "-c", "-b VALUE", unknown options and options without their argument: older callers still give them.
      break;
  }
}

}  // namespace

std::vector<CommandLineOption> commandLineOptions() {
  std::vector<CommandLineOption> options;
  for (const option& entry : longOptions) {
    if (entry.name == nullptr) break;
    options.push_back({.longName = entry.name,
                       .shortName = hasShortForm(entry) ? static_cast<char>(entry.val) : '\0',
                       .takesArgument = entry.has_arg == required_argument});
  }
  return options;
}

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
