// How a copy job moves its destinations to their final names and makes them permanent.

#include <cerrno>

#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/CopyLines.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/FileList.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "platform/Log.h"
#include "platform/Process.h"

bool KDXDispatchCopy::moveFilesInPlace(ErrorPlace error) {
  startMoving();
  for (std::size_t index = 0; index < _destinationURLs.size(); ++index) {
    const FileURL& temporaryURL = _destinationURLs[index];
    // A job that has not copied created nothing, and moves whatever file is there.
    const bool isMoved = index < _createdFiles.size()
                             ? moveCreated(_createdFiles[index], _pinnedFiles[index], temporaryURL, error)
                             : move(temporaryURL, error);
    if (isMoved) continue;
    platform::printAndWait("failed to move {}\n", temporaryURL.path());
    return false;
  }
  return true;
}

void KDXDispatchCopy::startMoving() {
  platform::queueLine("INFO: moving files in place..\n");
  if (!_skipFlush) makeTemporaryFilesPermanent();
}

void KDXDispatchCopy::makeTemporaryFilesPermanent() {
  std::vector<int> results(_destinationURLs.size());
  _destinationsQ.apply(results.size(), [&](std::size_t index) {
    results[index] = platform::makeDataPermanent(_destinationURLs[index].path());
  });
  for (std::size_t index = 0; index < results.size(); ++index) {
    if (results[index] != 0) endForFailedSync(_destinationURLs[index].path(), results[index]);
  }
}

bool KDXDispatchCopy::moveCreated(const platform::FileStamp& created, const platform::PinnedFile& item,
                                  const FileURL& temporaryURL, ErrorPlace error) {
  const std::optional<platform::FileStamp> pinned = item.stamp();
  return pinned && created.isOf(*pinned) && movePinned(item, temporaryURL, error);
}

bool KDXDispatchCopy::move(const FileURL& temporaryURL, ErrorPlace error) {
  return movePinned(platform::PinnedFile::ofItem(temporaryURL.path()), temporaryURL, error);
}

bool KDXDispatchCopy::movePinned(const platform::PinnedFile& item, const FileURL& temporaryURL, ErrorPlace error) {
  // Without a file to put in its place, the existing file is not removed.
  if (item.standsAt(temporaryURL.path()) != true) return false;
  const FileURL finalURL = temporaryURL.deletingPathExtension();
  if (_forceOverwrite && !removeReplacedFile(finalURL, error)) {
    // No newline: managing applications know this line.
    platform::printAndWait("failed to remove {} before moving", finalURL.path());
    return false;
  }
  std::optional<platform::Error> failure;
  if (platform::moveItem(item, temporaryURL.path(), finalURL.path(), &failure)) return true;
  // Only a taken name is reported. For any other reason the caller's place stays as it was, and the run ends with status 1.
  if (failure && failure->code == EEXIST) {
    platform::fail(error, copyError(ExitStatus::finalNameTaken, std::nullopt, temporaryURL.path()));
  }
  return false;
}

bool KDXDispatchCopy::removeReplacedFile(const FileURL& finalURL, ErrorPlace error) {
  const std::string& path = finalURL.path();
  const std::optional<platform::FileIdentity> replaced = platform::identityOfItem(path);
  if (!replaced) return true;
  if (!_neededFiles) {
    collectNeededFiles(_neededFiles.emplace());
    _neededFiles->seal();
  }
  if (_neededFiles->contains(*replaced)) return platform::fail(error, platform::posixError("unlink", path, EBUSY));
  return platform::removeItem(path, error);
}

void KDXDispatchCopy::collectNeededFiles(platform::FileIdentities& files) const {
  if (const auto source = platform::identityOfFile(_sourceURL->path())) files.insert(*source);
  addIdentities(_destinationURLs, files);
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

// Ends the process if the sync fails, so that what runFrontEnd would print for a failed phase is never printed.
bool KDXDispatchCopy::flush(const FileURL& finalURL, ErrorPlace /*error*/) {
  const int result = platform::fullSync(finalURL.path());
  if (result != 0) endForFailedSync(finalURL.path(), result);
  return true;
}

void KDXDispatchCopy::endForFailedSync(const std::string& path, int result) const {
  platform::printAndWait(ErrorText::notSynced, path, result);
  platform::endProcess(ExitStatus::flushFailed);
}

void KDXDispatchCopy::handlSuccessfullCopiedSource(const FileURL& /*source*/) {}

void KDXDispatchCopy::handlSuccessfullCopiedDestination(const FileURL& temporaryURL) {
  // A destination that was read back has its own line.
  if (skipVerification()) queueCompletedLine(temporaryURL, SizeCheck::skipped);
}
