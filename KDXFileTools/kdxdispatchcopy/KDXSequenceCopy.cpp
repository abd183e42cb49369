#include "KDXFileTools/kdxdispatchcopy/KDXSequenceCopy.h"

#include <functional>
#include <set>
#include <span>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/CopyDigests.h"
#include "KDXFileTools/kdxdispatchcopy/CopyLines.h"
#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "KDXFileTools/kdxdispatchcopy/TemporaryFiles.h"
#include "digest/DigestStrings.h"
#include "extensions/filesizeCFI.h"
#include "platform/Log.h"
#include "platform/Process.h"

using platform::OutputFile;

namespace {

// `index` must be valid: its path was made before. A job that copies again lists the same files again, hence the modulus.
platform::FileURL sourceFile(const KDXFileSequence& sequence, std::size_t index) {
  return platform::FileURL(sequence.filenameForIndex(index % sequence.duration()).value());
}

}  // namespace

std::shared_ptr<KDXSequenceCopy> KDXSequenceCopy::initWithFileSequence(
    std::shared_ptr<const KDXFileSequence> sequence) {
  return std::shared_ptr<KDXSequenceCopy>(new KDXSequenceCopy(std::move(sequence)));
}

KDXSequenceCopy::KDXSequenceCopy(std::shared_ptr<const KDXFileSequence> sequence)
    : KDXDispatchCopy(std::nullopt),
      _sourceSequence(std::move(sequence)),
      _sourcePaths([files = _sourceSequence](std::size_t index) { return sourceFile(*files, index); }) {}

void KDXSequenceCopy::logCopyStart() {
  queueStartLine(FileURL(_sourceSequence->identifier()).deletingLastPathComponent().path());
}

void KDXSequenceCopy::addDestinationURL(const FileURL& destinationURL) {
  KDXDispatchCopy::addDestinationURL(destinationURL);
  _destinationSequencePaths.emplace_back(
      [files = _sourceSequence, folder = destinationURLs().back().deletingLastPathComponent()](std::size_t index) {
        const std::string name = sourceFile(*files, index).lastPathComponent();
        return folder.appendingPathComponent(name).appendingPathExtension(temporaryExtension);
      });
  _createdFiles.emplace_back();
}

// The files of one pass over the source, fed by the reader on _readQ, one file after the other.
class KDXSequenceCopy::FrameStream {
 public:
  explicit FrameStream(KDXSequenceCopy& job) : _job(job) {}

  void startFile(const FileURL& source) {
    if (_job.hasOption(KDXVerificationOptionHashDuringCopy)) startDigests();
    if (_job._destinationSequencePaths.empty()) return;
    const std::string name = source.lastPathComponent();
    // If the frames differ only in the name of a folder, all of them would be written to one file.
    if (name == std::exchange(_previousName, name)) platform::endProcess(ExitStatus::temporaryFileNotCreated);
    TemporaryFileMaker maker(source, _job._sourceIdentities);
    for (FileList& files : _job._destinationSequencePaths) {
      files.grow();
      maker.removeOld(files.back());
    }
    for (const FileList& files : _job._destinationSequencePaths) {
      _destinations.push_back(maker.create(files.back()));
    }
    maker.endIfSourceWasCreated();
  }

  void takeData(bool isLast, const std::byte* bytes, int64_t length) {
    if (length < 0) endForUnreadableFrame(length);
    if (length != 0) {
      const std::span data(bytes, static_cast<std::size_t>(length));
      _writer.writeToAll(_destinations, data, [&] { digest(data); });
      _bytesCopied += data.size();
    }
    if (_job.verbose() && _progress.isDue()) {
      platform::queueLine("INFO: copied {} of {} bytes\n", _bytesCopied, _job._totalBytesExpectedToCopy);
    }
    if (isLast) endFile();
  }

  // Finalises the digests of the sequence and gives the job the digests of the files.
  void endSequence() {
    if (_job._sourceDigestContext) _job._sourceDigestContext->updateAndFinalizeFromString(_digestList);
    if (_job._externalDigestContext) _job._externalDigestContext->updateAndFinalizeFromString(_externalDigestList);
    if (_job._alternativeExternalDigestContext) {
      _job._alternativeExternalDigestContext->updateAndFinalizeFromString(_alternativeDigestList);
    }
    if (_job.verbose()) queueSpeedLine("copy", _bytesCopied, _start);
    _job._sourceDigests = std::move(_fileDigests);
  }

 private:
  void startDigests() {
    _fileDigest = KDXDigestContext::contextWithAlgorithm(_job.digestAlgorithm());
    _externalFileDigest = KDXDigestContext::contextWithAlgorithm(static_cast<uint32_t>(_job._externalDigestAlgorithm));
    _fileDigests.push_back(_fileDigest);
  }

  void digest(std::span<const std::byte> bytes) {
    updateBoth(_job._destinationsQ, _fileDigest.get(), _externalFileDigest.get(), bytes);
    _job._bytesHashed += bytes.size();
  }

  void endFile() {
    if (_fileDigest) {
      _fileDigest->finalize();
      platform::queueLine("hash {}\n", _fileDigest->digestString());
      _digestList += _fileDigest->rawDigestString().value_or("");
    }
    if (_externalFileDigest) {
      _externalFileDigest->finalize();
      const std::string digits = _externalFileDigest->rawDigestString().value_or("");
      _externalDigestList += digits;
      _alternativeDigestList += XXHash64BEasXXHash64(digits);
    }
    const std::vector<platform::FileStamp> stamps = closeAll(_destinations, failedWrite());
    for (std::size_t index = 0; index < stamps.size(); ++index) _job._createdFiles[index].push_back(stamps[index]);
  }

  [[nodiscard]] std::function<void(std::size_t, int64_t)> failedWrite() const {
    return [this](std::size_t index, int64_t result) { _job.endForFailedWrite(index, result); };
  }

  // A frame that can't be read must not become a short frame, so the run ends before more of it is written.
  [[noreturn]] void endForUnreadableFrame(int64_t result) const {
    if (!_destinations.empty()) _job.endForFailedWrite(0, result);
    platform::endProcess(ExitStatus::sourceReadFailed);
  }

  KDXSequenceCopy& _job;
  const ProgressClock::Clock::time_point _start = ProgressClock::Clock::now();
  ProgressClock _progress{progressInterval, _start};
  const DestinationsWriter _writer{_job._destinationsQ, _job.becomesOfShortWrite(), failedWrite()};
  uint64_t _bytesCopied = 0;
  std::string _digestList;
  std::string _externalDigestList;
  std::string _alternativeDigestList;
  std::vector<std::shared_ptr<KDXDigestContext>> _fileDigests;

  std::string _previousName;

  // Of the file under way.
  std::shared_ptr<KDXDigestContext> _fileDigest;
  std::shared_ptr<KDXDigestContext> _externalFileDigest;
  std::vector<OutputFile> _destinations;
};

bool KDXSequenceCopy::doTheCopyWork(ErrorPlace /*error*/) {
  setupHash();
  FrameStream stream(*this);
  if (!listSourceFiles()) return false;
  // Returns when every callback has returned.
  KDXReadFiles(
      _sourcePaths, _readQ,
      [&](const FileURL& source) {
        stream.startFile(source);
        return true;
      },
      [&](bool isLast, const std::byte* bytes, int64_t length, int32_t) { stream.takeData(isLast, bytes, length); });
  stream.endSequence();
  platform::queueLine("sequence-hash {}\n", _sourceDigestContext ? _sourceDigestContext->digestString() : "(null)");
  return true;
}

bool KDXSequenceCopy::listSourceFiles() {
  const bool sizesAreMeasured = _sourceFileSize == 0 && !hasOption(KDXVerificationOptionSkipFileSizeCheck);
  // A size from the command line is used as it is, not multiplied by the number of files: callers give the size of one file.
  if (!sizesAreMeasured) _totalBytesExpectedToCopy = _sourceFileSize;
  _expectedFileSizes.clear();
  const uint64_t count = _sourceSequence->duration();
  for (uint64_t index = 0; index < count; ++index) {
    const std::optional<std::string> path = _sourceSequence->filenameForIndex(index);
    if (!path) {
      // No newline: managing applications know this line.
      platform::printAndWait("ERROR no path for index: {}", index);
      return false;
    }
    const FileURL file(*path);
    if (const auto identity = platform::identityOfFile(file.path())) _sourceIdentities.insert(*identity);
    const uint64_t size = sizesAreMeasured ? filesizeCFI(file).value_or(0) : _sourceFileSize;
    if (sizesAreMeasured) _totalBytesExpectedToCopy += size;
    _expectedFileSizes.push_back(size);
    _sourcePaths.grow();
  }
  _sourceIdentities.seal();
  for (std::vector<platform::FileStamp>& created : _createdFiles) created.reserve(_sourcePaths.size());
  _totalFileCount = _sourcePaths.size();
  return true;
}

bool KDXSequenceCopy::readsDestinationsBack() const {
  return hasOption(KDXVerificationOptionVerifySource);
}

void KDXSequenceCopy::endForFailedWrite(std::size_t destination, int64_t /*result*/) const {
  platform::printAndWait("ERROR: failed writing to {}\n",
                         destinationURLs()[destination].deletingLastPathComponent().path());
  platform::endProcess(ExitStatus::writeFailed);
}

void KDXSequenceCopy::setupHash() {
  KDXDispatchCopy::setupHash();
  for (const uint32_t algorithm : {digestAlgorithm(), static_cast<uint32_t>(_externalDigestAlgorithm)}) {
    const bool hasTwoByteOrders = algorithm == KDXDigestAlgorithmXXHash64BE || algorithm == KDXDigestAlgorithmXXHash64;
    if (!hasTwoByteOrders) continue;
    _alternativeExternalDigestContext = KDXDigestContext::contextWithAlgorithm(algorithm);
    return;
  }
}

bool KDXSequenceCopy::moveFilesInPlace(ErrorPlace error) {
  startMoving();
  for (std::size_t list = 0; list < _destinationSequencePaths.size(); ++list) {
    for (std::size_t index = 0; index < _destinationSequencePaths[list].size(); ++index) {
      const FileURL temporaryURL = _destinationSequencePaths[list][index];
      const auto item = platform::PinnedFile::ofItem(temporaryURL.path());
      if (!moveCreated(_createdFiles[list][index], item, temporaryURL, error)) return false;
    }
  }
  return true;
}

// Syncs each file system once instead of each file, where the file system can do that.
void KDXSequenceCopy::makeTemporaryFilesPermanent() {
  std::set<uint64_t> synced;
  for (const FileList& files : _destinationSequencePaths) {
    if (files.empty()) continue;
    const std::string first = files.front().path();
    // A file system that can't be identified is synced in any case.
    const std::optional<platform::FileIdentity> identity = platform::identityOfFile(first);
    if (identity && synced.contains(identity->device)) continue;
    const std::optional<int> result = platform::makeFileSystemPermanent(first);
    if (!result) {
      makeEachPermanent(files);
      continue;
    }
    if (*result != 0) endForFailedSync(first, *result);
    if (identity) synced.insert(identity->device);
  }
}

void KDXSequenceCopy::makeEachPermanent(const FileList& files) const {
  for (std::size_t index = 0; index < files.size(); ++index) {
    const FileURL temporaryURL = files[index];
    const int result = platform::makeDataPermanent(temporaryURL.path());
    if (result != 0) endForFailedSync(temporaryURL.path(), result);
  }
}

void KDXSequenceCopy::collectNeededFiles(platform::FileIdentities& files) const {
  files = _sourceIdentities;
  for (const FileList& destination : _destinationSequencePaths) addIdentities(destination, files);
}

// A sequence without files has no file to flush. Callers know the line that this gives.
bool KDXSequenceCopy::flushNothing() const {
  const int result = platform::fullSyncOfNothing();
  if (result != 0) endForFailedSync("(null)", result);
  return true;
}

bool KDXSequenceCopy::flushFilesystem(ErrorPlace error) {
  bool flushed = true;
  if (!skipFlush()) {
    platform::queueLine("INFO: flushing files\n");
    for (const FileList& files : _destinationSequencePaths) {
      flushed = files.empty() ? flushNothing() : flush(files.back().deletingPathExtension(), error);
      if (!flushed) break;
    }
  }
  printClosingLines();
  return flushed;
}
