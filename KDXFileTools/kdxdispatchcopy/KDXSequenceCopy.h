#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/FileList.h"
#include "KDXFileTools/kdxdispatchcopy/KDXDispatchCopy.h"
#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"

// Copies every file of a numbered sequence to any number of folders in one pass over the source, with the phases of the
// single-file job. Each file has its own digest. The digest of the sequence is the digest of their bare hex texts, joined in
// frame order.
//
// A destination is a path inside the folder that the files go to: its last component is dropped, whatever it is. The files
// keep the names of their sources.
class KDXSequenceCopy final : public KDXDispatchCopy {
 public:
  static std::shared_ptr<KDXSequenceCopy> initWithFileSequence(std::shared_ptr<const KDXFileSequence> sequence);

  void logCopyStart() override;
  void addDestinationURL(const FileURL& destinationURL) override;

  // Fails without an error when a frame has no path.
  bool doTheCopyWork(ErrorPlace error) override;
  void setupHash() override;
  bool performFileSizeCheck(ErrorPlace error) override;
  bool performExternalHashVerification(ErrorPlace error) override;

  // Reads back the source files and those of all destinations if KDXVerificationOptionVerifySource is set.
  // KDXVerificationOptionVerifyDestinations changes nothing here; callers rely on that.
  bool startVerification(ErrorPlace error) override;

  // Reads back one list of files on the calling thread and compares each digest with that of its source during the copy. A
  // mismatch is recorded for finishVerification, and the next file is still read.
  //   loggingIndex   the destination's number, counted from 1; for the source files the bitwise complement of the number of
  //                  destinations
  //   error          never written
  // False when a file differs. Also false, without reading, when the list is not as long as that of the source.
  bool verifyFiles(const FileList& files, int64_t loggingIndex, ErrorPlace error);

  // Moves all files of the first destination, then those of the next one.
  bool moveFilesInPlace(ErrorPlace error) override;

  // Syncs the last file of each destination, and its folder, which makes the names of all files permanent.
  bool flushFilesystem(ErrorPlace error) override;

  [[nodiscard]] const FileList& sourcePaths() const { return _sourcePaths; }
  [[nodiscard]] const std::vector<FileList>& destinationSequencePaths() const { return _destinationSequencePaths; }
  [[nodiscard]] const std::vector<std::shared_ptr<KDXDigestContext>>& sourceDigests() const { return _sourceDigests; }
  [[nodiscard]] const std::vector<uint64_t>& expectedFileSizes() const { return _expectedFileSizes; }
  [[nodiscard]] uint64_t totalBytesExpectedToCopy() const { return _totalBytesExpectedToCopy; }

 protected:
  [[nodiscard]] bool readsDestinationsBack() const override;
  void makeTemporaryFilesPermanent() override;
  [[noreturn]] void endForFailedWrite(std::size_t destination, int64_t result) const override;
  void collectNeededFiles(platform::FileIdentities& files) const override;

 private:
  class FrameStream;
  class ListVerification;

  explicit KDXSequenceCopy(std::shared_ptr<const KDXFileSequence> sequence);
  void makeEachPermanent(const FileList& files) const;
  bool listSourceFiles();
  bool destinationHasSizes(const FileList& files, ErrorPlace error) const;
  [[nodiscard]] bool flushNothing() const;
  [[nodiscard]] bool destinationFileHasSize(const FileURL& temporaryURL, uint64_t expected, ErrorPlace error) const;

  // Written by doTheCopyWork; the later phases only read.
  uint64_t _totalFileCount = 0;
  uint64_t _totalBytesExpectedToCopy = 0;
  std::shared_ptr<const KDXFileSequence> _sourceSequence;
  std::vector<std::shared_ptr<KDXDigestContext>> _sourceDigests;  // one per file; empty without digests during the copy
  platform::FileIdentities _sourceIdentities;                     // of the files of _sourcePaths that exist
  FileList _sourcePaths;                                          // in frame order
  std::vector<FileList> _destinationSequencePaths;                // per destination, temporary names in frame order
  std::vector<std::vector<platform::FileStamp>> _createdFiles;    // per destination, the files that the copy created
  std::vector<uint64_t> _expectedFileSizes;                       // bytes, in frame order
  // For an external hash in the other byte order of XXHash64, which some managing applications give.
  std::shared_ptr<KDXDigestContext> _alternativeExternalDigestContext;
};
