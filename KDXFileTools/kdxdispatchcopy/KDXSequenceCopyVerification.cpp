// How a sequence job proves its copy.

#include <fmt/format.h>

#include <cstdlib>
#include <string_view>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/CopyLines.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/ExternalHash.h"
#include "KDXFileTools/kdxdispatchcopy/KDXFileSystemOperationQueueManager.h"
#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"
#include "KDXFileTools/kdxdispatchcopy/TemporaryFiles.h"
#include "extensions/filesizeCFI.h"
#include "platform/Log.h"
#include "platform/Process.h"

bool KDXSequenceCopy::performFileSizeCheck(ErrorPlace error) {
  if (!skipVerification()) return true;
  if (!hasOption(KDXVerificationOptionSkipFileSizeCheck) && _totalBytesExpectedToCopy != _bytesHashed) {
    return platform::fail(error, wrongNumberOfBytesCopied(_totalBytesExpectedToCopy, _bytesHashed));
  }
  for (const FileList& files : _destinationSequencePaths) {
    if (files.size() != _expectedFileSizes.size()) {
      platform::printAndWait("unequal number of files {} {} {}\n", files.size(), _expectedFileSizes.size(),
                             files.empty() ? "(null)" : files.front().path());
      platform::endProcess(ExitStatus::failure);
    }
    if (!destinationHasSizes(files, error)) return false;
  }
  return true;
}

bool KDXSequenceCopy::destinationHasSizes(const FileList& files, ErrorPlace error) const {
  for (std::size_t index = 0; index < files.size(); ++index) {
    if (!destinationFileHasSize(files[index], _expectedFileSizes[index], error)) return false;
  }
  return true;
}

bool KDXSequenceCopy::destinationFileHasSize(const FileURL& temporaryURL, uint64_t expected, ErrorPlace error) const {
  if (hasOption(KDXVerificationOptionSkipFileSizeCheck)) {
    queueCompletedLine(temporaryURL, SizeCheck::skipped);
    return true;
  }
  // The line is printed even if the size differs; callers look at the error.
  queueCompletedLine(temporaryURL, SizeCheck::made);
  if (filesizeCFI(temporaryURL) == expected) return true;
  return platform::fail(error, wrongSizeOnDisk(temporaryURL.path(), expected, _bytesHashed));
}

bool KDXSequenceCopy::performExternalHashVerification(ErrorPlace error) {
  // Only digests that were fed with the frames count.
  const bool hasAlternative =
      _alternativeExternalDigestContext && _externalDigestContext && hasOption(KDXVerificationOptionHashDuringCopy);
  const bool isAlternative = externalHash() && hasAlternative &&
                             isSameHash(*externalHash(), _alternativeExternalDigestContext->digestString());
  return isAlternative || KDXDispatchCopy::performExternalHashVerification(error);
}

bool KDXSequenceCopy::startVerification(ErrorPlace error) {
  if (!runCheck(&KDXDispatchCopy::performFileSizeCheck, error)) return false;
  if (!runCheck(&KDXDispatchCopy::performExternalHashVerification, error)) return false;
  _verificationStartTime = ProgressClock::Clock::now();
  if (!hasOption(KDXVerificationOptionVerifySource) || _sourcePaths.empty()) return true;
  const auto self = std::static_pointer_cast<KDXSequenceCopy>(shared_from_this());
  const auto sourceIndex = ~static_cast<int64_t>(_destinationSequencePaths.size());
  auto& readBacks = KDXFileSystemOperationQueueManager::sharedOperationQueueManager();
  readBacks.addOperationForURL(
      _sourcePaths.front(), [self, sourceIndex, error] { self->verifyFiles(self->_sourcePaths, sourceIndex, error); });
  for (std::size_t index = 0; index < _destinationSequencePaths.size(); ++index) {
    readBacks.addOperationForURL(_destinationSequencePaths[index].front(), [self, index, error] {
      self->verifyFiles(self->_destinationSequencePaths[index], static_cast<int64_t>(index) + 1, error);
    });
  }
  // A list may have failed already, depending on the pace of the threads. Only finishVerification reports it, so that a
  // destination that differs always ends with the same status.
  return true;
}

// The read-back of one list. The reader feeds it on the list's own queue, one file after the other.
class KDXSequenceCopy::ListVerification {
 public:
  ListVerification(KDXSequenceCopy& job, int64_t loggingIndex)
      : _job(job),
        _kind(loggingIndex < 0 ? "source" : "destination"),
        _errorCode(loggingIndex < 0 ? ExitStatus::verificationFailed : ExitStatus::destinationDigestDiffers),
        _sequenceNumber(std::abs(loggingIndex)) {}

  void startFile(const FileURL& file) {
    _file = file;
    _digest = KDXDigestContext::contextWithAlgorithm(_job.digestAlgorithm());
  }

  void takeData(bool isLast, const std::byte* bytes, int64_t length) {
    // A frame that can't be read to its end counts as different.
    if (length < 0) _digest = nullptr;
    const uint64_t count = length < 0 ? 0 : static_cast<uint64_t>(length);
    if (_digest) _digest->update(bytes, count);
    _bytesVerified += count;
    if (isLast) endFile();
  }

  [[nodiscard]] bool passed() const { return _passed; }

 private:
  void endFile() {
    if (_digest) _digest->finalize();
    const KDXDigestContext* const expected = _job._sourceDigests[_fileIndex].get();
    if (expected != nullptr && expected->isEqual(_digest.get())) {
      if (_job.verbose()) reportMatch();
    } else {
      _job.markAsVerificationFailed(*_file, _errorCode);
      platform::printTextAndWait(resultLine("failed"));
      _passed = false;
    }
    ++_fileIndex;
  }

  void reportMatch() {
    if (_progress.isDue()) {
      platform::queueLine("INFO: verified {} of {} bytes of path {}\n", _bytesVerified, _job._totalBytesExpectedToCopy,
                          _file->deletingLastPathComponent().path());
    }
    platform::queueText(resultLine("ok"));
  }

  [[nodiscard]] std::string resultLine(std::string_view result) const {
    // A plain test of the last characters, which the name of a source file may have too.
    const bool hasTemporaryName = _file->path().ends_with(temporaryExtension);
    return fmt::format("verify of {} file {} of {} of sequence #{} ({}) {}.\n", _kind, _fileIndex + 1,
                       _job._totalFileCount, _sequenceNumber,
                       (hasTemporaryName ? _file->deletingPathExtension() : *_file).path(), result);
  }

  KDXSequenceCopy& _job;
  const std::string_view _kind;
  const int64_t _errorCode;
  const int64_t _sequenceNumber;
  ProgressClock _progress{progressInterval};
  bool _passed = true;
  uint64_t _bytesVerified = 0;
  std::size_t _fileIndex = 0;
  std::optional<FileURL> _file;  // being read
  std::shared_ptr<KDXDigestContext> _digest;
};

bool KDXSequenceCopy::verifyFiles(const FileList& files, int64_t loggingIndex, ErrorPlace /*error*/) {
  if (files.size() != _sourceDigests.size()) {
    platform::printAndWait("verifying {} files have {} source digests\n", files.size(), _sourceDigests.size());
    return false;
  }
  if (files.empty()) return true;
  platform::queueLine("INFO: verifying {}\n", files.front().deletingLastPathComponent().path());
  ListVerification list(*this, loggingIndex);
  platform::SerialQueue verificationQueue("verificationQ");
  // Returns when every callback has returned, so no line of the list comes after its operation.
  KDXReadFiles(
      files, verificationQueue,
      [&](const FileURL& file) {
        list.startFile(file);
        return true;
      },
      [&](bool isLast, const std::byte* bytes, int64_t length, int32_t) { list.takeData(isLast, bytes, length); });
  return list.passed();
}
