#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"

#include <fmt/format.h>

#include <span>
#include <tuple>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/CopyDigests.h"
#include "KDXFileTools/kdxdispatchcopy/CopyErrors.h"
#include "KDXFileTools/kdxdispatchcopy/CopyLines.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/ExternalHash.h"
#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "KDXFileTools/kdxdispatchcopy/TemporaryFiles.h"
#include "extensions/filesizeCFI.h"
#include "platform/DispatchGroup.h"
#include "platform/Log.h"
#include "platform/Process.h"

using platform::OutputFile;

namespace {

[[noreturn]] void endForExternalHash(ExternalHash::Form form, const std::string& text) {
  const char* const wrongPart = form == ExternalHash::Form::notTwoParts ? "string" : "format";
  platform::printAndWait("invalid external hash {}: {}\n", wrongPart, text);
  platform::endProcess(ExitStatus::failure);
}

}  // namespace

std::shared_ptr<KDXDispatchCopy> KDXDispatchCopy::initWithSourceURL(std::optional<FileURL> sourceURL) {
  return std::shared_ptr<KDXDispatchCopy>(new KDXDispatchCopy(std::move(sourceURL)));
}

KDXDispatchCopy::KDXDispatchCopy(std::optional<FileURL> sourceURL) : _sourceURL(std::move(sourceURL)) {
  std::ignore = platform::logQueue();
}

KDXDispatchCopy::~KDXDispatchCopy() = default;

void KDXDispatchCopy::addDestinationURL(const FileURL& finalURL) {
  _destinationURLs.push_back(finalURL.appendingPathExtension(temporaryExtension));
}

void KDXDispatchCopy::setDigestAlgorithm(uint32_t algorithm) {
  _sourceDigestContext = KDXDigestContext::contextWithAlgorithm(algorithm);
}

uint32_t KDXDispatchCopy::digestAlgorithm() const {
  return _sourceDigestContext ? _sourceDigestContext->algorithm() : KDXDigestAlgorithmNone;
}

bool KDXDispatchCopy::skipVerification() const {
  return !hasOption(KDXVerificationOptionVerifySource | KDXVerificationOptionVerifyDestinations);
}

void KDXDispatchCopy::logCopyStart() {
  queueStartLine(_sourceURL ? _sourceURL->deletingLastPathComponent().path() : "(null)");
}

void KDXDispatchCopy::queueStartLine(std::string sourceDirectory) {
  platform::logQueue().async([self = shared_from_this(), directory = std::move(sourceDirectory)] {
    platform::printOnLogQueue(fmt::format("INFO: copying {}...\n", directory));
  });
}

bool KDXDispatchCopy::performCopy(ErrorPlace error) {
  if (_expectedFilesize) _sourceFileSize = static_cast<uint64_t>(*_expectedFilesize);
  logCopyStart();
  return doTheCopyWork(error);
}

bool KDXDispatchCopy::doTheCopyWork(ErrorPlace error) {
  if (!_forceOverwrite && !finalNamesAreFree(error)) return false;
  const auto start = ProgressClock::Clock::now();
  querySourceFileSizeIfUnknown();
  setupHash();
  std::vector<OutputFile> destinations = createTemporaryDestinations();
  const uint64_t bytesCopied = streamSourceInto(destinations, start);
  finalizeHash();
  if (_verbose) queueSpeedLine("copy", bytesCopied, start);
  _createdFiles =
      closeAll(destinations, [this](std::size_t index, int64_t result) { endForFailedWrite(index, result); });
  return true;
}

bool KDXDispatchCopy::finalNamesAreFree(ErrorPlace error) const {
  for (const FileURL& temporaryURL : _destinationURLs) {
    const std::string finalPath = temporaryURL.deletingPathExtension().path();
    if (!platform::fileExistsAtPath(finalPath)) continue;
    return platform::fail(
        error, copyError(ExitStatus::finalNameTaken, fmt::format(ErrorText::finalNameTaken, finalPath), finalPath));
  }
  return true;
}

void KDXDispatchCopy::querySourceFileSizeIfUnknown() {
  if (_sourceFileSize != 0 || hasOption(KDXVerificationOptionSkipFileSizeCheck)) return;
  _sourceFileSize = filesizeCFI(*_sourceURL).value_or(0);
}

void KDXDispatchCopy::setupHash() {
  if (!_externalHash) return;
  const auto [form, algorithm] = ExternalHash::fromText(*_externalHash);
  if (form != ExternalHash::Form::understood) endForExternalHash(form, *_externalHash);
  if (algorithm == digestAlgorithm()) return;
  _externalDigestAlgorithm = static_cast<int32_t>(algorithm);
  _externalDigestContext = KDXDigestContext::contextWithAlgorithm(algorithm);
}

std::vector<OutputFile> KDXDispatchCopy::createTemporaryDestinations() {
  const platform::FileIdentities noOtherSources;
  TemporaryFileMaker maker(*_sourceURL, noOtherSources);
  for (const FileURL& temporaryURL : _destinationURLs) maker.removeOld(temporaryURL);
  _pinnedFiles.clear();
  std::vector<OutputFile> destinations;
  for (const FileURL& temporaryURL : _destinationURLs) {
    destinations.push_back(maker.create(temporaryURL));
    _pinnedFiles.push_back(platform::PinnedFile::ofItem(temporaryURL.path()));
  }
  maker.endIfSourceWasCreated();
  return destinations;
}

uint64_t KDXDispatchCopy::streamSourceInto(std::vector<OutputFile>& destinations,
                                           ProgressClock::Clock::time_point start) {
  uint64_t bytesCopied = 0;  // changed on _readQ only, until `done`
  ProgressClock progress(progressInterval, start);
  const DestinationsWriter writer(_destinationsQ, becomesOfShortWrite(),
                                  [this](std::size_t index, int64_t result) { endForFailedWrite(index, result); });
  platform::DispatchGroup done;
  done.enter();
  KDXReadFile(_sourceURL->path(), _readQ, [&](bool isLast, const std::byte* bytes, int64_t length, int32_t error) {
    if (error != 0) platform::endProcess(ExitStatus::sourceReadFailed);
    if (length != 0) {
      const std::span data(bytes, static_cast<std::size_t>(length));
      writer.writeToAll(destinations, data, [&] { updateHash(data); });
      bytesCopied += data.size();
      if (_verbose && progress.isDue()) {
        platform::queueLine("INFO: copied {} of {} bytes\n", bytesCopied, _sourceFileSize);
      }
    }
    if (isLast) done.leave();
  });
  done.wait();
  return bytesCopied;
}

ShortWrite KDXDispatchCopy::becomesOfShortWrite() const {
  return readsDestinationsBack() || checksSizesOnDisk() ? ShortWrite::isFoundLater : ShortWrite::isFailure;
}

bool KDXDispatchCopy::readsDestinationsBack() const {
  return hasOption(KDXVerificationOptionVerifyDestinations);
}

bool KDXDispatchCopy::checksSizesOnDisk() const {
  return skipVerification() && !hasOption(KDXVerificationOptionSkipFileSizeCheck);
}

void KDXDispatchCopy::endForFailedWrite(std::size_t /*destination*/, int64_t result) const {
  // No newline, and the value that write returned instead of the reason: managing applications know this line.
  platform::printAndWait("write failed: {}", result);
  platform::endProcess(ExitStatus::writeFailed);
}

void KDXDispatchCopy::updateHash(std::span<const std::byte> bytes) {
  updateBoth(_destinationsQ, _sourceDigestContext.get(), _externalDigestContext.get(), bytes);
  _bytesHashed += bytes.size();
}

void KDXDispatchCopy::finalizeHash() {
  if (_sourceDigestContext) _sourceDigestContext->finalize();
  if (_externalDigestContext) _externalDigestContext->finalize();
  if (digestAlgorithm() != KDXDigestAlgorithmNone) {
    platform::queueLine("hash {}\n", _sourceDigestContext->digestString());
  }
}
