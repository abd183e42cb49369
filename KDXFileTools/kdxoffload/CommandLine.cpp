#include "KDXFileTools/kdxoffload/CommandLine.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <map>
#include <memory>
#include <utility>

#include "KDXFileTools/kdxoffload/DestinationSet.h"
#include "KDXFileTools/kdxoffload/ExitStatus.h"

namespace kdxoffload {

namespace {

constexpr std::size_t mostJobs = 64;  // each needs six of the 1,024 descriptors that a process usually has
constexpr int64_t longestStall = int64_t{7} * 24 * 60 * 60;  // seconds

const std::map<std::string, uint32_t> algorithms{
    {"md5", KDXDigestAlgorithmMD5}, {"sha1", KDXDigestAlgorithmSHA1}, {"xxhash64be", KDXDigestAlgorithmXXHash64BE}};

const std::map<std::string, Command> commands{{"status", Command::status}, {"history", Command::history}};

class Help final : public CLI::Formatter {
 public:
  std::string make_usage(const CLI::App* /*app*/, std::string /*name*/) const override {
    return "Usage: kdxoffload [OPTIONS] CARD DESTINATION...\n"
           "       kdxoffload status [OPTIONS] CARD [DESTINATION...]\n"
           "       kdxoffload history [OPTIONS]\n\n";
  }
  std::string make_positionals(const CLI::App* /*app*/) const override { return ""; }
};

// The parser, and what it fills.
class Parser {
 public:
  Parser() : _app("Offloads a whole card, proves every copy, and says whether the card may be erased.", "kdxoffload") {
    _app.formatter(std::make_shared<Help>());
    _app.set_version_flag("--version", "kdxoffload " KDX_VERSION, "Print the version and end");
    _app.set_help_flag("--help", "Print this text and end");
    _app.add_option("PATH", paths, "The card and its destinations");
    addWorkOptions();
    addListOptions();
    addRememberingOptions();
  }

  void parse(std::vector<std::string> arguments) {
    std::ranges::reverse(arguments);  // as the library wants them
    _app.parse(std::move(arguments));
    line.readBack = !_noReadBack;
    line.hashList = !_noHashList;
    line.algorithm = algorithms.at(_digest);
  }

  [[nodiscard]] const CLI::App& app() const { return _app; }

  CommandLine line{};
  std::vector<std::string> paths{};

 private:
  void addWorkOptions() {
    std::vector<std::string> words;
    words.reserve(algorithms.size());
    for (const auto& [word, code] : algorithms) words.push_back(word);
    _app.add_option("-t", _digest, "The digest: md5, sha1 or xxhash64be (this one, unless another is given)")
        ->check(CLI::IsMember(words))
        ->type_name("DIGEST");
    _app.add_option("--jobs", line.jobs, "How many files are worked on at once")
        ->check(CLI::Range(std::size_t{1}, mostJobs))
        ->type_name("N");
    _app.add_option("--stall", line.stallSeconds, "End a job that neither reads nor writes for so long (300)")
        ->check(CLI::Range(int64_t{1}, longestStall))
        ->type_name("SECONDS");
    _app.add_option("--exclude", line.excluded, "Leave out what matches; may be given again")
        ->type_name("PATTERN")
        ->type_size(1)
        ->allow_extra_args(false);
    _app.add_flag("--partial", line.partial, "Offload what can be listed");
    _app.add_flag("--no-read-back", _noReadBack, "Copy without reading back");
  }

  void addListOptions() {
    _app.add_flag("--no-mhl", _noHashList, "Leave no media hash list at the destinations");
    _app.add_flag("--checksums", line.checksums, "Leave a list for md5sum, sha1sum or xxhsum there too");
  }

  void addRememberingOptions() {
    _app.add_flag("--recheck", line.recheck, "Read again what is proved already");
    _app.add_flag("--replace", line.replace, "Replace files that differ or whose source changed");
    _app.add_option("--catalogue", line.catalogue, "Remember in this file")->type_name("FILE");
    _app.add_flag("--json", line.json, "Print JSON lines");
    _app.add_flag("--quiet", line.quiet, "Print nothing but failures and the verdict");
  }

  CLI::App _app;
  std::string _digest = "xxhash64be";
  bool _noReadBack = false;
  bool _noHashList = false;
};

// Takes the command off the arguments: the first word that is neither an option nor one's value. Behind "--" there is none.
Command takeCommand(std::vector<std::string>& arguments) {
  const std::vector<CommandLineOption> options = commandLineOptions();
  const auto takesNext = [&options](const std::string& word) {
    return std::ranges::any_of(options, [&word](const CommandLineOption& option) {
      return option.takesArgument && (word == "--" + option.longName || word == "-" + option.shortName);
    });
  };
  for (auto word = arguments.begin(); word != arguments.end(); ++word) {
    if (*word == "--") break;
    if (word->starts_with("-")) {
      if (takesNext(*word) && word + 1 != arguments.end()) ++word;
      continue;
    }
    const auto command = commands.find(*word);
    if (command == commands.end()) break;
    arguments.erase(word);
    return command->second;
  }
  return Command::offload;
}

// What is wrong with the number of paths; empty when nothing is.
std::string faultOfPaths(const CommandLine& line, std::size_t paths) {
  if (line.command == Command::history) return paths == 0 ? "" : "history takes no paths";
  if (paths == 0) return "no card given";
  if (paths == 1 && line.command == Command::offload) return "no destination given";
  if (paths - 1 > DestinationSet::most) return "too many destinations";
  return "";
}

CommandLineAnswer refuse(const std::string& reason) {
  return {.text = "kdxoffload: " + reason + "\nkdxoffload --help explains the command line.\n",
          .exitStatus = ExitStatus::nothingDone,
          .fault = reason};
}

}  // namespace

std::variant<CommandLine, CommandLineAnswer> parseCommandLine(std::vector<std::string> arguments) {
  const bool json = std::ranges::find(arguments, "--json") != arguments.end();
  const auto inForm = [json](CommandLineAnswer answer) {
    answer.json = json && answer.exitStatus != 0;
    return answer;
  };
  Parser parser;
  parser.line.command = takeCommand(arguments);
  try {
    parser.parse(std::move(arguments));
  } catch (const CLI::CallForHelp&) {
    return CommandLineAnswer{.text = parser.app().help()};
  } catch (const CLI::CallForVersion& version) {
    return CommandLineAnswer{.text = std::string(version.what()) + "\n"};
  } catch (const CLI::ParseError& fault) {
    return inForm(refuse(fault.what()));
  }
  CommandLine line = std::move(parser.line);
  if (const std::string fault = faultOfPaths(line, parser.paths.size()); !fault.empty()) return inForm(refuse(fault));
  if (!parser.paths.empty()) line.card = parser.paths.front();
  if (parser.paths.size() > 1) line.destinations.assign(parser.paths.begin() + 1, parser.paths.end());
  return line;
}

std::vector<CommandLineOption> commandLineOptions() {
  const Parser parser;
  std::vector<CommandLineOption> known;
  for (const CLI::Option* option : parser.app().get_options()) {
    if (option->nonpositional()) {
      known.push_back({.longName = option->get_lnames().empty() ? "" : option->get_lnames().front(),
                       .shortName = option->get_snames().empty() ? "" : option->get_snames().front(),
                       .takesArgument = option->get_items_expected_max() != 0});
    }
  }
  return known;
}

}  // namespace kdxoffload
