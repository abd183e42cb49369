#include "KDXFileTools/kdxoffload/CommandLine.h"

#include <CLI/CLI.hpp>

namespace kdxoffload {

std::variant<CommandLine, CommandLineAnswer> parseCommandLine(std::vector<std::string> /*arguments*/) {
  CLI::App app;
  return CommandLineAnswer{.text = app.help()};
}

std::vector<CommandLineOption> commandLineOptions() {
  return {};
}

}  // namespace kdxoffload
