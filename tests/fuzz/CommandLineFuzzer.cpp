// The command line: each line of the input is an argument. It is parsed, and a job is made of it that is not run.

#include <algorithm>
#include <string>
#include <vector>

#include "Fuzz.h"
#include "KDXFileTools/kdxdispatchcopy/CommandLine.h"
#include "KDXFileTools/kdxdispatchcopy/FrontEnd.h"
#include "platform/Text.h"

namespace {

using Words = std::vector<std::string>;

// Arguments of a process contain no zeros. (Those with a newline are parsed like any others.)
Words wordsOf(std::string_view input) {
  Words words;
  for (std::size_t start = 0; start < input.size();) {
    const std::size_t end = std::min(input.find_first_of(std::string_view("\n\0", 2), start), input.size());
    words.emplace_back(input.substr(start, end - start));
    start = end + 1;
  }
  return words;
}

CommandLine parsed(Words words) {
  words.insert(words.begin(), "kdxdispatchcopy");
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return parseCommandLine(static_cast<int>(words.size()), argv.data());
}

std::string identifierOf(const CommandLine& line) {
  return line.sourceSequence ? line.sourceSequence->identifier() : "";
}

bool isSame(const CommandLine& one, const CommandLine& other) {
  return one.verificationOptions == other.verificationOptions && one.source == other.source &&
         (one.sourceSequence == nullptr) == (other.sourceSequence == nullptr) &&
         identifierOf(one) == identifierOf(other) && one.destinations == other.destinations &&
         one.isSequence == other.isSequence && one.noDestinationNeeded == other.noDestinationNeeded &&
         one.verbose == other.verbose && one.forceOverwrite == other.forceOverwrite &&
         one.skipFlush == other.skipFlush && one.expectedFilesize == other.expectedFilesize &&
         one.algorithmWord == other.algorithmWord && one.externalHash == other.externalHash;
}

// An option's argument is a word of its own, or the end of one.
bool isGiven(const Words& words, std::string_view argument) {
  return std::ranges::any_of(words, [&](const std::string& word) { return word.ends_with(argument); });
}

bool sizeIsGiven(const Words& words, int64_t size) {
  return std::ranges::any_of(words, [&](const std::string& word) {
    for (std::size_t start = 0; start <= word.size(); ++start) {
      if (std::strtoll(word.c_str() + start, nullptr, 10) == size) return true;
    }
    return false;
  });
}

void requirePathsOfWords(const CommandLine& line, const Words& words) {
  // The source and the destinations come in this order among the words.
  std::vector<platform::FileURL> paths = line.destinations;
  if (line.source) paths.insert(paths.begin(), *line.source);
  auto word = words.begin();
  for (const platform::FileURL& path : paths) {
    word = std::find_if(word, words.end(), [&](const std::string& text) {
      return platform::isUTF8(text) && platform::FileURL(text) == path;
    });
    require(word != words.end(), "every path is a word, and paths keep their order");
    ++word;
    require(path.path().starts_with('/'), "paths are absolute");
    require(path.path() == "/" || !path.path().ends_with('/'), "paths end without a slash");
    require(platform::isUTF8(path.path()), "paths are UTF-8");
  }
}

void requireOptionsOfWords(const CommandLine& line, const Words& words) {
  constexpr int32_t readBack = KDXVerificationOptionVerifySource | KDXVerificationOptionVerifyDestinations;
  constexpr int32_t all = readBack | KDXVerificationOptionHashDuringCopy | KDXVerificationOptionSkipFileSizeCheck;
  require((line.verificationOptions & ~all) == 0, "no other verification options");
  require((line.verificationOptions & readBack) == 0 ||
              (line.verificationOptions & KDXVerificationOptionHashDuringCopy) != 0,
          "nothing is read back without a digest to compare with");
  if (std::ranges::none_of(words, [](const std::string& word) { return word.starts_with('-'); })) {
    require(line.verificationOptions == (readBack | KDXVerificationOptionHashDuringCopy) && !line.forceOverwrite &&
                !line.skipFlush && !line.noDestinationNeeded && !line.isSequence,
            "without options nothing is left out, and nothing is replaced");
  }
  require(!line.externalHash || isGiven(words, *line.externalHash), "the external hash is as it was given");
  require(!line.algorithmWord || isGiven(words, *line.algorithmWord), "the algorithm's word is as it was given");
  require(!line.expectedFilesize || sizeIsGiven(words, *line.expectedFilesize), "the size is a number of a word, or 0");
  require(!line.sourceSequence || (!line.source && line.isSequence), "a source is a file or a sequence");
  require(!line.sourceSequence || isGiven(words, identifierOf(line)), "the identifier is as it was given");
}

void requireJobOf(const CommandLine& line) {
  const bool hasSource = line.isSequence ? line.sourceSequence != nullptr : line.source.has_value();
  const bool hasDestinations = line.noDestinationNeeded || !line.destinations.empty();
  const bool digests = (line.verificationOptions & KDXVerificationOptionHashDuringCopy) != 0;
  const std::string word = line.algorithmWord.value_or("md5");
  const bool knowsWord = word == "md5" || word == "sha1" || word == "xxhash64be";
  const std::shared_ptr<KDXDispatchCopy> job = makeJob(line);
  require((job != nullptr) == (hasSource && hasDestinations && (knowsWord || !digests)),
          "there is a job for what can be done, and for nothing else");
  if (!job) return;
  require((job->digestAlgorithm() != KDXDigestAlgorithmNone) == digests, "there is a digest where one is wanted");
  require(job->verificationOptions() == line.verificationOptions && job->forceOverwrite() == line.forceOverwrite &&
              job->skipFlush() == line.skipFlush && job->verbose() == line.verbose,
          "the job has the options of the line");
  require(job->externalHash() == line.externalHash && job->expectedFilesize() == line.expectedFilesize,
          "checks that were asked for are the job's");
  require(job->destinationURLs().size() == line.destinations.size(), "the job has all destinations");
  for (std::size_t index = 0; index < line.destinations.size(); ++index) {
    const platform::FileURL& finalURL = line.destinations[index];
    const platform::FileURL& temporaryURL = job->destinationURLs()[index];
    require(finalURL.path() == "/" || (temporaryURL != finalURL && temporaryURL.deletingPathExtension() == finalURL),
            "a temporary name is another one and leads back to the final name");
  }
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const Words words = wordsOf(textOf(data, size));
  const CommandLine line = parsed(words);
  require(isSame(line, parsed(words)), "the same words give the same line");
  if (words.empty() || !words.back().starts_with('-')) {
    Words more = words;
    more.insert(more.end(), {"--", "-n", "/dropped"});
    require(isSame(line, parsed(more)), "what stands behind two dashes is dropped");
  }
  requirePathsOfWords(line, words);
  requireOptionsOfWords(line, words);
  requireJobOf(line);
  return 0;
}
