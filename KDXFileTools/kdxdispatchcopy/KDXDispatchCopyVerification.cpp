// How a copy job proves its copy.

#include <fmt/format.h>

#include <algorithm>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/CopyLines.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/ExternalHash.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchVerify.h"
#include "KDXFileTools/kdxdispatchcopy/KDXFileSystemOperationQueueManager.h"
#include "extensions/filesizeCFI.h"
#include "platform/Log.h"

namespace {

std::string bareHexText(const std::shared_ptr<KDXDigestContext>& context) {
  return context ? context->rawDigestString().value_or("(null)") : "(null)";
}

void printDescription(const std::optional<platform::Error>& error) {
  platform::printAndWait("{}\n", error ? error->description.value_or("(null)") : "(null)");
}

}  // namespace

bool KDXDispatchCopy::startVerification(ErrorPlace error) {
  if (!runCheck(&KDXDispatchCopy::performFileSizeCheck, error)) return false;
  if (!runCheck(&KDXDispatchCopy::performExternalHashVerification, error)) return false;
  _verificationStartTime = ProgressClock::Clock::now();
  const auto self = shared_from_this();
  auto& readBacks = KDXFileSystemOperationQueueManager::sharedOperationQueueManager();
  if (hasOption(KDXVerificationOptionVerifySource)) {
    readBacks.addOperationForURL(*_sourceURL, [self, error] { self->readSourceBack(error); });
  }
  if (hasOption(KDXVerificationOptionVerifyDestinations)) {
    for (std::size_t index = 0; index < _destinationURLs.size(); ++index) {
      const FileURL& temporaryURL = _destinationURLs[index];
      readBacks.addOperationForURL(temporaryURL,
                                   [self, temporaryURL, index] { self->readDestinationBack(temporaryURL, index); });
    }
  }
  return true;
}

bool KDXDispatchCopy::runCheck(bool (KDXDispatchCopy::*check)(ErrorPlace), ErrorPlace error) {
  std::optional<platform::Error> failure;
  if ((this->*check)(&failure)) return true;
  printDescription(failure);
  if (error != nullptr) *error = failure;
  return false;
}

void KDXDispatchCopy::readSourceBack(ErrorPlace error) {
  // The destinations are 1 to n, the source comes after them.
  const std::size_t number = _destinationURLs.size() + 1;
  std::optional<platform::Error> failure;
  if (verifyURL(*_sourceURL, &failure)) {
    platform::queueLine("verify of source file #{} ({}) ok.\n", number, _sourceURL->path());
    handlSuccessfullCopiedSource(*_sourceURL);
    return;
  }
  printDescription(failure);
  int64_t code = failure ? failure->code : 0;
  if (code == ExitStatus::destinationDigestDiffers) {
    platform::printAndWait("ERROR: verify of source file #{} ({}) failed, wrong hash.\n", number, _sourceURL->path());
    code = ExitStatus::verificationFailed;
  }
  markAsVerificationFailed(*_sourceURL, code);
  if (error != nullptr) *error = failure;
}

void KDXDispatchCopy::readDestinationBack(const FileURL& temporaryURL, std::size_t index) {
  std::optional<platform::Error> failure;
  if (verifyURL(temporaryURL, &failure)) {
    platform::queueLine("verify of destination file #{} ({}) ok.\n", index + 1,
                        temporaryURL.deletingPathExtension().path());
    handlSuccessfullCopiedDestination(temporaryURL);
    return;
  }
  printDescription(failure);
  const int64_t code = failure ? failure->code : 0;
  if (code == ExitStatus::destinationDigestDiffers) {
    // With the temporary name, where the damaged file can be looked at.
    platform::printAndWait("ERROR: verify of destination file #{} ({}) failed, wrong hash.\n", index + 1,
                           temporaryURL.path());
  }
  markAsVerificationFailed(temporaryURL, code);
}

bool KDXDispatchCopy::verifyURL(const FileURL& file, ErrorPlace error) {
  const auto verifier = KDXDispatchVerify::initWithFileURL(file, digestAlgorithm());
  const std::string directory = file.deletingLastPathComponent().path();
  if (_verbose) {
    verifier->setProgressInterval(
        progressInterval, &platform::logQueue(), [directory, size = _sourceFileSize](uint64_t bytesRead) {
          platform::printOnLogQueue(
              fmt::format("INFO: verified {} of {} bytes of path {}\n", bytesRead, size, directory));
        });
  }
  platform::queueLine("INFO: verifying {}\n", directory);
  const std::shared_ptr<KDXDigestContext> digest = verifier->calculateDigest(nullptr);
  if (digest && !verifier->readFailed() && digest->isEqual(_sourceDigestContext.get())) return true;
  return platform::fail(error, copyError(ExitStatus::destinationDigestDiffers,
                                         fmt::format(ErrorText::destinationDigestDiffers,
                                                     bareHexText(_sourceDigestContext), bareHexText(digest)),
                                         file.path()));
}

bool KDXDispatchCopy::performExternalHashVerification(ErrorPlace error) {
  if (!_externalHash) return true;
  const auto& context = _externalDigestContext ? _externalDigestContext : _sourceDigestContext;
  const std::string digest = context ? context->digestString() : "(null)";
  if (isSameHash(*_externalHash, digest)) return true;
  const std::string description = fmt::format(ErrorText::externalHashDiffers, *_externalHash, digest);
  // The caller prints the description again; managing applications expect the line twice.
  platform::printAndWait("{}\n", description);
  return platform::fail(error, copyError(ExitStatus::externalHashDiffers, description));
}

bool KDXDispatchCopy::performFileSizeCheck(ErrorPlace error) {
  if (!skipVerification()) return true;
  const uint64_t expected = _expectedFilesize ? static_cast<uint64_t>(*_expectedFilesize) : _sourceFileSize;
  if (expected != _bytesHashed) return platform::fail(error, wrongNumberOfBytesCopied(expected, _bytesHashed));
  return std::ranges::all_of(
      _destinationURLs, [&](const FileURL& temporaryURL) { return destinationHasSize(temporaryURL, expected, error); });
}

bool KDXDispatchCopy::destinationHasSize(const FileURL& temporaryURL, uint64_t expected, ErrorPlace error) const {
  if (hasOption(KDXVerificationOptionSkipFileSizeCheck)) {
    queueCompletedLine(temporaryURL, SizeCheck::skipped);
    return true;
  }
  if (filesizeCFI(temporaryURL) == expected) {
    queueCompletedLine(temporaryURL, SizeCheck::made);
    return true;
  }
  return platform::fail(error, wrongSizeOnDisk(temporaryURL.path(), expected, _bytesHashed));
}

void KDXDispatchCopy::markAsVerificationFailed(const FileURL& file, int64_t errorCode) {
  const platform::MutexLock lock(_lock);
  if (_verificationError) return;
  _verificationError = copyError(errorCode == 0 ? ExitStatus::verificationFailed : errorCode,
                                 fmt::format(ErrorText::verificationFailed, file.path()), file.path());
}

bool KDXDispatchCopy::finishVerification(ErrorPlace error) {
  KDXFileSystemOperationQueueManager::sharedOperationQueueManager().waitUntilAllOperationQueuesAreFinished();
  {
    const platform::MutexLock lock(_lock);
    if (_verificationError) return platform::fail(error, *_verificationError);
  }
  // The size of one file, however many files were read back.
  if (_verbose && !skipVerification()) queueSpeedLine("verification", _sourceFileSize, _verificationStartTime);
  return true;
}
