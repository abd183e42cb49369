#include "KDXFileTools/kdxdispatchcopy/FrontEnd.h"

#include <array>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"
#include "extensions/filesizeCFI.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/WorkerThreads.h"

namespace {

constexpr const char* usage =
    "usage: kdxdispatchcopy [options] source destination [destination ...]; see man kdxdispatchcopy";

struct Phase {
  bool (KDXDispatchCopy::*run)(platform::ErrorPlace);
  const char* failureLine;  // null: the phase prints its own
};

constexpr std::array phases{
    Phase{&KDXDispatchCopy::performCopy, "failed to perform copy"},
    Phase{&KDXDispatchCopy::startVerification, nullptr},
    Phase{&KDXDispatchCopy::finishVerification, nullptr},
    Phase{&KDXDispatchCopy::moveFilesInPlace, "failed to move files in place"},
    Phase{&KDXDispatchCopy::flushFilesystem, "failed to flush filesystem"},
};

std::optional<uint32_t> digestAlgorithmFromWord(const std::string& word) {
  if (word == "md5") return KDXDigestAlgorithmMD5;
  if (word == "sha1") return KDXDigestAlgorithmSHA1;
  if (word == "xxhash64be") return KDXDigestAlgorithmXXHash64BE;
  return std::nullopt;
}

std::shared_ptr<KDXDispatchCopy> refuse(const char* reason) {
  platform::printAndWait("{}\n", reason);
  return nullptr;
}

std::shared_ptr<KDXDispatchCopy> makeJobForSource(const CommandLine& line) {
  if (line.isSequence) {
    if (!line.sourceSequence) return refuse("is sequence but could not get input sequence");
    return KDXSequenceCopy::initWithFileSequence(line.sourceSequence);
  }
  if (!line.source) return refuse("no source specified");
  return KDXDispatchCopy::initWithSourceURL(line.source);
}

// Pipes and devices report a size of 0, whatever number of bytes follows.
bool isNotWorthAThread(const CommandLine& line) {
  if (!line.source || line.isSequence) return false;
  const uint64_t size = filesizeCFI(*line.source).value_or(0);
  return size != 0 && size <= platform::notWorthAThread;
}

}  // namespace

std::shared_ptr<KDXDispatchCopy> makeJob(const CommandLine& line) {
  if (!line.noDestinationNeeded && line.destinations.empty()) return refuse("no destination specified");
  std::shared_ptr<KDXDispatchCopy> theCopier = makeJobForSource(line);
  if (!theCopier) return nullptr;
  for (const platform::FileURL& destination : line.destinations) theCopier->addDestinationURL(destination);
  theCopier->setExpectedFilesize(line.expectedFilesize);
  // Without a digest the word is ignored, even an unknown one: callers give one together with -n.
  if ((line.verificationOptions & KDXVerificationOptionHashDuringCopy) != 0) {
    const std::string word = line.algorithmWord.value_or("md5");
    const std::optional<uint32_t> algorithm = digestAlgorithmFromWord(word);
    if (!algorithm) return refuse(("invalid digest algorithm " + word).c_str());
    theCopier->setDigestAlgorithm(*algorithm);
  }
  theCopier->setVerificationOptions(line.verificationOptions);
  theCopier->setVerbose(line.verbose);
  theCopier->setForceOverwrite(line.forceOverwrite);
  theCopier->setExternalHash(line.externalHash);
  theCopier->setSkipFlush(line.skipFlush);
  return theCopier;
}

int exitStatusOf(const std::optional<platform::Error>& error) {
  constexpr int32_t statuses = 256;
  const int32_t status = error ? static_cast<int32_t>(error->code) % statuses : 0;
  return status == 0 ? ExitStatus::failure : status;
}

int runJob(const std::shared_ptr<KDXDispatchCopy>& theCopier, platform::ErrorPlace error) {
  if (!theCopier) platform::assertionFailed("theCopier != nil && @\"copier is nil\"", "main");
  for (const Phase& phase : phases) {
    if ((theCopier.get()->*phase.run)(error)) continue;
    if (phase.failureLine != nullptr) platform::printAndWait("{}\n", phase.failureLine);
    if (*error) platform::systemLog(platform::description(**error));
    return exitStatusOf(*error);
  }
  return ExitStatus::success;
}

void runFrontEnd(int argc, char* const* argv) {
  const CommandLine line = parseCommandLine(argc, argv);
  if (isNotWorthAThread(line)) platform::stayOnThisProcessor();
  const std::shared_ptr<KDXDispatchCopy> theCopier = makeJob(line);
  if (!theCopier) {
    platform::printAndWait("invalid arguments\n");
    platform::systemLog(usage);
    platform::endProcess(ExitStatus::failure);
  }
  // The job is still alive when the process ends: read-backs that a failed phase left running may go on using it.
  std::optional<platform::Error> error;
  platform::endProcess(runJob(theCopier, &error));
}
