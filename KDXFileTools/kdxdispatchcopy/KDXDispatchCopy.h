#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/DestinationsWriter.h"
#include "KDXFileTools/kdxdispatchcopy/KDXVerificationOptions.h"
#include "KDXFileTools/kdxdispatchcopy/ProgressClock.h"
#include "digest/KDXDigestContext.h"
#include "platform/ConcurrentQueue.h"
#include "platform/Error.h"
#include "platform/FileManager.h"
#include "platform/FileURL.h"
#include "platform/Mutex.h"
#include "platform/OutputFile.h"
#include "platform/SerialQueue.h"

// Copies one file to any number of destinations in a single read, proves the copies and moves them to their final
// names.
//
// A job is made, configured, and taken once through its five phases, in this order, on one thread:
//   performCopy, startVerification, finishVerification, moveFilesInPlace, flushFilesystem.
// Each returns true when the run can go on. Otherwise it has put an error into the caller's place, if there is a place and
// something to report. Where no run can go on, a phase prints a line and ends the process with a status of ExitStatus.h.
// Temporary files are left then, and whenever a phase fails.
//
// All lines go through the log queue. A task queued there keeps the job alive until it has run.
class KDXDispatchCopy : public std::enable_shared_from_this<KDXDispatchCopy> {
 public:
  using FileURL = platform::FileURL;
  using ErrorPlace = platform::ErrorPlace;

  // A job without destinations, digest and options. A job that has no single source file is made without one.
  static std::shared_ptr<KDXDispatchCopy> initWithSourceURL(std::optional<FileURL> sourceURL);
  virtual ~KDXDispatchCopy();
  KDXDispatchCopy(const KDXDispatchCopy&) = delete;
  KDXDispatchCopy& operator=(const KDXDispatchCopy&) = delete;

  // Keeps the destination under its temporary name, the given one with the extension "kdxcopy" added.
  virtual void addDestinationURL(const FileURL& finalURL);

  // Sets the algorithm of the copy digest; an unknown code leaves the job without one.
  void setDigestAlgorithm(uint32_t algorithm);
  [[nodiscard]] uint32_t digestAlgorithm() const;  // 0 without a copy digest

  [[nodiscard]] const std::optional<FileURL>& sourceURL() const { return _sourceURL; }
  [[nodiscard]] const std::vector<FileURL>& destinationURLs() const { return _destinationURLs; }  // temporary names
  [[nodiscard]] bool skipVerification() const;  // no file will be read back

  [[nodiscard]] int32_t verificationOptions() const { return _verificationOptions; }
  void setVerificationOptions(int32_t options) { _verificationOptions = options; }
  [[nodiscard]] bool verbose() const { return _verbose; }
  void setVerbose(bool verbose) { _verbose = verbose; }
  [[nodiscard]] bool skipFlush() const { return _skipFlush; }
  void setSkipFlush(bool skipFlush) { _skipFlush = skipFlush; }
  [[nodiscard]] std::optional<int64_t> expectedFilesize() const { return _expectedFilesize; }  // bytes
  void setExpectedFilesize(std::optional<int64_t> bytes) { _expectedFilesize = bytes; }
  [[nodiscard]] bool forceOverwrite() const { return _forceOverwrite; }
  void setForceOverwrite(bool forceOverwrite) { _forceOverwrite = forceOverwrite; }
  [[nodiscard]] bool continueOnVerificationError() const { return _continueOnVerificationError; }
  void setContinueOnVerificationError(bool goOn) { _continueOnVerificationError = goOn; }  // changes nothing else
  [[nodiscard]] const std::optional<std::string>& externalHash() const { return _externalHash; }
  void setExternalHash(std::optional<std::string> hash) { _externalHash = std::move(hash); }

  // Queues the line with the source's directory, by which people recognise a card.
  virtual void logCopyStart();

  // Phase 1: prints the start line and copies.
  bool performCopy(ErrorPlace error);

  // Phase 2: checks the sizes (when nothing is read back) and the external hash, then starts to read back the source and the
  // destinations, all at the same time. `error` must stay valid until finishVerification has returned.
  virtual bool startVerification(ErrorPlace error);

  // Phase 3: waits for all read-backs; reports the first failure.
  bool finishVerification(ErrorPlace error);

  // Phase 4: gives every destination its final name, in the order added. Stops at the first that can't get it: the
  // destinations before it keep their final names, those after it their temporary ones.
  virtual bool moveFilesInPlace(ErrorPlace error);

  // Phase 5: makes the final files permanent, unless skipFlush is set.
  virtual bool flushFilesystem(ErrorPlace error);

  // The steps of the phases.

  // Creates the temporary destinations and streams the source into them and into the digests.
  virtual bool doTheCopyWork(ErrorPlace error);
  // Prepares a digest for the external hash if its algorithm is not that of the copy digest. An external hash that is not
  // understood ends the process with status 1.
  virtual void setupHash();
  // Feeds the digests; runs on one queue at a time.
  void updateHash(std::span<const std::byte> bytes);
  // Finalises the digests and prints that of the copy.
  void finalizeHash();

  // Compares the number of bytes copied, and the sizes of the destinations on disk, with the expected size.
  virtual bool performFileSizeCheck(ErrorPlace error);
  virtual bool performExternalHashVerification(ErrorPlace error);
  // Reads one file back on the calling thread and compares its digest with that of the copy.
  bool verifyURL(const FileURL& file, ErrorPlace error);
  // Records the failure of a file, unless a failure is recorded already. Any thread may call it.
  void markAsVerificationFailed(const FileURL& file, int64_t errorCode);

  // Called when a file has passed its read-back, on the queue that read it.
  virtual void handlSuccessfullCopiedSource(const FileURL& source);
  virtual void handlSuccessfullCopiedDestination(const FileURL& temporaryURL);

  // Gives one destination its final name. The only platform errors reported are those of removing an existing file.
  bool move(const FileURL& temporaryURL, ErrorPlace error);
  // Makes one final file permanent or ends the process with status 106; never returns false and never writes `error`.
  virtual bool flush(const FileURL& finalURL, ErrorPlace error);

 protected:
  explicit KDXDispatchCopy(std::optional<FileURL> sourceURL);

  [[nodiscard]] bool hasOption(int32_t option) const { return (_verificationOptions & option) != 0; }

  // Whether a later check finds a destination that took fewer bytes than it was given.
  [[nodiscard]] ShortWrite becomesOfShortWrite() const;
  [[nodiscard]] virtual bool readsDestinationsBack() const;
  [[nodiscard]] bool checksSizesOnDisk() const;

  // Prints the line for the destination at this position, whose write returned `result`, and ends the process.
  [[noreturn]] virtual void endForFailedWrite(std::size_t destination, int64_t result) const;

  // Queues the line with this directory.
  void queueStartLine(std::string sourceDirectory);

  // As move, but only if the pinned item is the file that the job created. A file that another run has put in its place is
  // not moved.
  bool moveCreated(const platform::FileStamp& created, const platform::PinnedFile& item, const FileURL& temporaryURL,
                   ErrorPlace error);

  // Runs one check of startVerification. If it fails, prints the description of the error and puts the error into the place.
  bool runCheck(bool (KDXDispatchCopy::*check)(ErrorPlace), ErrorPlace error);

  // Prints the line of the phase and, unless skipFlush is set, makes the temporary files permanent: a loss of power between
  // the move and the flush must not leave a short or hollow file under a final name.
  void startMoving();
  virtual void makeTemporaryFilesPermanent();

  // Gathers the files that -f must not remove: the source, and the temporary files that are still to be moved.
  virtual void collectNeededFiles(platform::FileIdentities& files) const;

  // Prints what a failed sync returned and ends the process.
  [[noreturn]] void endForFailedSync(const std::string& path, int result) const;
  // Prints the closing lines of a run, and returns when everything queued earlier has been printed.
  void printClosingLines() const;

  // Accessed by the phases on the front end's thread, unless a comment says otherwise.
  platform::SerialQueue _readQ{"read"};               // the source's data arrives here, in file order
  platform::SerialQueue _writeQ{"write"};             // not used by copies, which use the next one
  platform::ConcurrentQueue _destinationsQ{"write"};  // writes, digests, syncs; its threads start once in a run
  uint64_t _bytesHashed = 0;                          // written by the digest task alone; read when the copy is done
  uint64_t _sourceFileSize = 0;                       // bytes; 0: not known
  std::shared_ptr<KDXDigestContext> _sourceDigestContext;    // of the bytes copied
  std::shared_ptr<KDXDigestContext> _externalDigestContext;  // null unless the external hash has another algorithm
  int32_t _externalDigestAlgorithm = 0;
  ProgressClock::Clock::time_point _verificationStartTime;

 private:
  bool finalNamesAreFree(ErrorPlace error) const;
  void querySourceFileSizeIfUnknown();
  [[nodiscard]] std::vector<platform::OutputFile> createTemporaryDestinations();
  uint64_t streamSourceInto(std::vector<platform::OutputFile>& destinations, ProgressClock::Clock::time_point start);

  bool destinationHasSize(const FileURL& temporaryURL, uint64_t expected, ErrorPlace error) const;
  void readSourceBack(ErrorPlace error);
  void readDestinationBack(const FileURL& temporaryURL, std::size_t index);

  bool movePinned(const platform::PinnedFile& item, const FileURL& temporaryURL, ErrorPlace error);
  bool removeReplacedFile(const FileURL& finalURL, ErrorPlace error);

  platform::RecursiveMutex _lock;
  // Set once, so that the first failure is the one reported.
  std::optional<platform::Error> _verificationError KDX_GUARDED_BY(_lock);
  bool _verbose = false;
  bool _skipFlush = false;
  bool _forceOverwrite = false;
  bool _continueOnVerificationError = false;
  int32_t _verificationOptions = 0;
  std::optional<int64_t> _expectedFilesize;
  std::optional<std::string> _externalHash;
  std::optional<FileURL> _sourceURL;
  std::vector<FileURL> _destinationURLs;
  std::vector<platform::FileStamp> _createdFiles;        // what the copy created, in the order of _destinationURLs
  std::vector<platform::PinnedFile> _pinnedFiles;        // the same files, held so that they keep their numbers
  std::optional<platform::FileIdentities> _neededFiles;  // gathered when the first existing file is in the way
};
