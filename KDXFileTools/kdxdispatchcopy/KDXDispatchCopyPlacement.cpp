// How a copy job moves its destinations to their final names and makes them permanent.

#include <algorithm>
#include <cerrno>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "platform/Log.h"
#include "platform/Process.h"

bool KDXDispatchCopy::moveFilesInPlace(ErrorPlace error) {
  platform::queueLine("INFO: moving files in place..\n");
  if (!_skipFlush) makeTemporaryFilesPermanent();
  for (const FileURL& temporaryURL : _destinationURLs) {
    if (move(temporaryURL, error)) continue;
    platform::printAndWait("failed to move {}\n", temporaryURL.path());
    return false;
  }
  return true;
}

// A loss of power between the move and the flush must not leave a short or hollow file under a final name.
void KDXDispatchCopy::makeTemporaryFilesPermanent() {
  std::vector<int> results(_destinationURLs.size());
  platform::ConcurrentQueue("sync").apply(results.size(), [&](std::size_t index) {
    results[index] = platform::makeDataPermanent(_destinationURLs[index].path());
  });
  for (std::size_t index = 0; index < results.size(); ++index) {
    if (results[index] != 0) endForFailedSync(_destinationURLs[index], results[index]);
  }
}

bool KDXDispatchCopy::move(const FileURL& temporaryURL, ErrorPlace error) {
  // With nothing to put in its place nothing is removed.
  if (!platform::fileExistsAtPath(temporaryURL.path())) return false;
  const FileURL finalURL = temporaryURL.deletingPathExtension();
  if (_forceOverwrite && !removeReplacedFile(finalURL, error)) {
    // No newline: managing applications know this line.
    platform::printAndWait("failed to remove {} before moving", finalURL.path());
    return false;
  }
  std::optional<platform::Error> failure;
  if (platform::moveItem(temporaryURL.path(), finalURL.path(), &failure)) return true;
  // Only a taken name is reported; other reasons leave the caller's place as it was, and the run ends with status 1.
  if (failure && failure->code == EEXIST) {
    platform::fail(error, copyError(CopyErrorCode::finalNameTaken, std::nullopt, temporaryURL.path()));
  }
  return false;
}

bool KDXDispatchCopy::removeReplacedFile(const FileURL& finalURL, ErrorPlace error) const {
  const std::string& path = finalURL.path();
  if (!platform::fileExistsAtPath(path)) return true;
  if (isStillNeeded(path)) return platform::fail(error, platform::posixError("unlink", path, EBUSY));
  return platform::removeItem(path, error);
}

// The source itself, or the temporary file of a destination that was not moved yet, must not make room for a copy.
bool KDXDispatchCopy::isStillNeeded(const std::string& path) const {
  const std::optional<platform::FileIdentity> item = platform::identityOfItem(path);
  if (!item) return false;
  if (_sourceURL && platform::identityOfFile(_sourceURL->path()) == item) return true;
  return std::ranges::any_of(_destinationURLs, [&](const FileURL& temporaryURL) {
    return platform::identityOfItem(temporaryURL.path()) == item;
  });
}

bool KDXDispatchCopy::flushFilesystem(ErrorPlace error) {
  bool flushed = true;
  if (!_skipFlush) {
    platform::queueLine("INFO: flushing files\n");
    for (const FileURL& temporaryURL : _destinationURLs) {
      const FileURL finalURL = temporaryURL.deletingPathExtension();
      flushed = flush(finalURL, error);
      if (flushed) continue;
      platform::printAndWait("failed to flush {}\n", finalURL.path());
      break;
    }
  }
  printClosingLines();
  return flushed;
}

void KDXDispatchCopy::printClosingLines() const {
  platform::queueLine("INFO: done.\n");
  platform::printAndWait("\n");
}

bool KDXDispatchCopy::flush(const FileURL& finalURL, ErrorPlace /*error*/) {
  const int result = platform::fullSync(finalURL.path());
  if (result != 0) endForFailedSync(finalURL, result);
  return true;
}

void KDXDispatchCopy::endForFailedSync(const FileURL& file, int result) const {
  platform::printAndWait("Error: couldn't sync the file system of file {} (error code {})\n", file.path(), result);
  platform::endProcess(ExitStatus::flushFailed);
}

void KDXDispatchCopy::handlSuccessfullCopiedSource(const FileURL& /*source*/) {}

void KDXDispatchCopy::handlSuccessfullCopiedDestination(const FileURL& temporaryURL) {
  // A destination that was read back has its own line.
  if (!skipVerification()) return;
  platform::queueLine("Copy completed successfully for destination file ({})\n",
                      temporaryURL.deletingPathExtension().path());
}
