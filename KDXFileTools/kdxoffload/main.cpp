#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/CommandLine.h"
#include "KDXFileTools/kdxoffload/Coordinator.h"
#include "KDXFileTools/kdxoffload/Displays.h"
#include "KDXFileTools/kdxoffload/StatusAndHistory.h"
#include "KDXFileTools/kdxoffload/Worker.h"
#include "platform/Log.h"
#include "platform/Memory.h"
#include "platform/Process.h"

namespace {

constexpr int standardOutput = 1;
constexpr int standardError = 2;

int refuseInJson(const std::string& fault, int exitStatus) {
  return kdxoffload::withDisplay({.json = true}, [&](kdxoffload::OutputStream&, kdxoffload::Listener& display) {
    display.take(kdxoffload::ErrorReported{.text = fault, .path = std::nullopt});
    display.take(kdxoffload::Finished{.verdict = {.exitStatus = exitStatus}, .wasRefused = true});
    return exitStatus;
  });
}

int answer(const kdxoffload::CommandLineAnswer& answer) {
  if (answer.json) return refuseInJson(answer.fault, answer.exitStatus);
  platform::writeText(answer.exitStatus == 0 ? standardOutput : standardError, answer.text);
  return answer.exitStatus;
}

int run(const kdxoffload::CommandLine& line) {
  if (line.command == kdxoffload::Command::status) return kdxoffload::runStatus(line);
  if (line.command == kdxoffload::Command::history) return kdxoffload::runHistory(line);
  return kdxoffload::runOffload(line);
}

}  // namespace

int main(int argc, char* argv[]) {
  platform::keepOutputOutOfFiles();
  platform::letWritesFailInsteadOfSignals();
  std::vector<std::string> arguments(argv + 1, argv + argc);
  if (!arguments.empty() && arguments.front() == kdxoffload::workerArgument) kdxoffload::runWorker();
  platform::giveBackLargePieces();
  const auto parsed = kdxoffload::parseCommandLine(std::move(arguments));
  if (const auto* line = std::get_if<kdxoffload::CommandLine>(&parsed)) return run(*line);
  return answer(std::get<kdxoffload::CommandLineAnswer>(parsed));
}
