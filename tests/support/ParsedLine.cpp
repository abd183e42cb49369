#include "tests/support/ParsedLine.h"

CommandLine parsedLine(std::vector<std::string> words) {
  words.insert(words.begin(), "kdxdispatchcopy");
  std::vector<char*> argv;
  for (std::string& word : words) argv.push_back(word.data());
  argv.push_back(nullptr);
  return parseCommandLine(static_cast<int>(words.size()), argv.data());
}
