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
// A job is made, configured, and driven once through its five phases, in this order, on one thread:
//   performCopy, startVerification, finishVerification, moveFilesInPlace, flushFilesystem.
// Each returns true when the run can go on; otherwise it has put an error into the caller's place, if there is one and
// it has something to report. Failures from which no run can go on print their line and end the process with the
// statuses of ExitStatus.h. Temporary files are left behind then, and whenever a phase fails.
//
// All lines go through the log queue. Tasks queued there keep the job alive until they have run.
class KDXDispatchCopy : public std::enable_shared_from_this<KDXDispatchCopy> {
 public:
  using FileURL = platform::FileURL;
  using ErrorPlace = platform::ErrorPlace;

  // A job without destinations, digest and options. The source is none for a job that has no single one.
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
  [[nodiscard]] bool skipVerification() const;  // no file is to be read back

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

  // Queues the line that tells where the source is: the directory, which is what people recognise a card by.
  virtual void logCopyStart();

  // Phase 1: prints the start line and copies.
  bool performCopy(ErrorPlace error);

  // Phase 2: checks sizes (when nothing is read back) and the external hash, then starts to read the source and the
  // destinations back, all at the same time. `error` must stay valid until finishVerification has returned.
  virtual bool startVerification(ErrorPlace error);

  // Phase 3: waits for all that is being read back; reports the first failure.
  bool finishVerification(ErrorPlace error);

  // Phase 4: gives every destination its final name, in the order added. Stops at the first that can't have it: those
  // before it keep their final names, those behind it their temporary ones.
  virtual bool moveFilesInPlace(ErrorPlace error);

  // Phase 5: makes the final files permanent, unless that is to be skipped.
  virtual bool flushFilesystem(ErrorPlace error);

  // The steps of the phases.

  // Creates the temporary destinations and streams the source into them and into the digests.
  virtual bool doTheCopyWork(ErrorPlace error);
  // Prepares a digest for an external hash whose algorithm is not that of the copy digest. A hash that is not
  // understood ends the process with status 1.
  virtual void setupHash();
  // Feeds the digests; runs on one queue at a time.
  void updateHash(std::span<const std::byte> bytes);
  // Ends the digests and prints that of the copy.
  void finalizeHash();

  // Compares the bytes copied, and the sizes of the destinations on disk, with the size expected.
  virtual bool performFileSizeCheck(ErrorPlace error);
  virtual bool performExternalHashVerification(ErrorPlace error);
  // Reads one file back on the calling thread and compares its digest with that of the copy.
  bool verifyURL(const FileURL& file, ErrorPlace error);
  // Records the failure of a file, unless one is recorded already. Any thread.
  void markAsVerificationFailed(const FileURL& file, int64_t errorCode);

  // Called when a file has passed its read-back, on the queue that read it.
  virtual void handlSuccessfullCopiedSource(const FileURL& source);
  virtual void handlSuccessfullCopiedDestination(const FileURL& temporaryURL);

  // Gives one destination its final name. A platform error is reported only for a file that was in the way.
  bool move(const FileURL& temporaryURL, ErrorPlace error);
  // Makes one final file permanent or ends the process with status 106; never returns false and never writes `error`.
  virtual bool flush(const FileURL& finalURL, ErrorPlace error);

 protected:
  explicit KDXDispatchCopy(std::optional<FileURL> sourceURL);

  [[nodiscard]] bool hasOption(int32_t option) const { return (_verificationOptions & option) != 0; }

  // Whether a destination that took less than it was given is found out after the copy.
  [[nodiscard]] ShortWrite becomesOfShortWrite() const;
  [[nodiscard]] virtual bool readsDestinationsBack() const;
  [[nodiscard]] bool checksSizesOnDisk() const;

  // Prints the line for a destination (its position) whose write failed and returned `result`, and ends the process.
  [[noreturn]] virtual void endForFailedWrite(std::size_t destination, int64_t result) const;

  // Queues the line that tells in which folder the source is: that is what people recognise a card by.
  void queueStartLine(std::string sourceDirectory);

  // As move, of the very file that the job created and that is pinned: what another run put in its place is not moved.
  bool moveCreated(const platform::FileStamp& created, const platform::PinnedFile& item, const FileURL& temporaryURL,
                   ErrorPlace error);

  // Runs one check of startVerification: prints the failure's description and hands it to the caller.
  bool runCheck(bool (KDXDispatchCopy::*check)(ErrorPlace), ErrorPlace error);

  // Prints the line of the phase and, unless flushing is skipped, makes the temporary files permanent: a loss of power
  // between the move and the flush must not leave a short or hollow file under a final name.
  void startMoving();
  virtual void makeTemporaryFilesPermanent();

  // Gathers the files that must not make room for a copy: the source, and what is still to be moved.
  virtual void collectNeededFiles(platform::FileIdentities& files) const;

  // Prints what a failed sync returned and ends the process.
  [[noreturn]] void endForFailedSync(const std::string& path, int result) const;
  // The closing lines of a run; returns when everything queued before is out.
  void printClosingLines() const;

  // Accessed by the phases on the front end's thread, except where something else is said.
  platform::SerialQueue _readQ{"read"};               // the source's data arrives here, in file order
  platform::SerialQueue _writeQ{"write"};             // kept for those who look for it; copies use the next one
  platform::ConcurrentQueue _destinationsQ{"write"};  // writes, digests, syncs; its threads start once in a run
  uint64_t _bytesHashed = 0;                          // written by the digest task alone; read when the copy is done
  uint64_t _sourceFileSize = 0;                       // bytes; 0: not known yet
  std::shared_ptr<KDXDigestContext> _sourceDigestContext;    // of the bytes copied
  std::shared_ptr<KDXDigestContext> _externalDigestContext;  // in the external hash's algorithm, if that is another
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
  // Set once: the first failure is reported.
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
  std::vector<platform::PinnedFile> _pinnedFiles;        // the same: their numbers stay what they are
  std::optional<platform::FileIdentities> _neededFiles;  // gathered when the first existing file is in the way
};
