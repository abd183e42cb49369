#include "tests/support/PhaseRun.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "platform/Log.h"
#include "platform/Process.h"
#include "tests/support/ScratchDirectory.h"

std::string outputOf(const std::function<void()>& phases) {
  testing::internal::CaptureStdout();
  phases();
  platform::logQueue().sync([] {});
  return testing::internal::GetCapturedStdout();
}

PhaseRun runPhase(const std::function<bool(platform::ErrorPlace)>& phase) {
  PhaseRun run;
  run.output = outputOf([&] { run.succeeded = phase(&run.error); });
  return run;
}

PhaseRun copied(KDXDispatchCopy& job) {
  return runPhase([&](platform::ErrorPlace error) { return job.performCopy(error); });
}

PhaseRun moveInPlace(KDXDispatchCopy& job) {
  return runPhase([&](platform::ErrorPlace error) { return job.moveFilesInPlace(error); });
}

PhaseRun flushed(KDXDispatchCopy& job) {
  return runPhase([&](platform::ErrorPlace error) { return job.flushFilesystem(error); });
}

std::string couldNotSync(const std::string& path) {
  return "Error: couldn't sync the file system of file " + path + " (error code -1)\n";
}

ChildRun endingOf(const std::function<void()>& phases, const std::string& standardInput) {
  const ScratchDirectory scratch;
  const std::string output = scratch.file("output");
  const int status = statusOfChild([&] {
    ::dup2(::open(standardInput.c_str(), O_RDONLY | O_CLOEXEC), STDIN_FILENO);
    ::dup2(::open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600), STDOUT_FILENO);
    platform::makeStandardOutputUnbuffered();
    phases();
    platform::endProcess(cameBack);
  });
  return {.exitStatus = status, .output = readFile(output)};
}
