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
// single-file job. Each file has a digest of its own; the digest of the sequence is that of their bare hex texts, joined in
// frame order.
//
// A destination names a path inside the folder that the files go to: its last component is dropped, whatever it is, and the
// files keep the names of their sources.
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

  // Reads the source files and those of all destinations back with KDXVerificationOptionVerifySource;
  // KDXVerificationOptionVerifyDestinations changes nothing here, on which callers rely.
  bool startVerification(ErrorPlace error) override;

  // Reads one list of files back on the calling thread and compares each with the digest that its source had while it was
  // copied. A mismatch is recorded for finishVerification, and the next file is read all the same.
  //   loggingIndex   the destination's number, counted from 1; for the source files the complement of how many there are
  //   error          never written
  // False when a file differs, or when the list is not as long as the source's, which is then not read.
  bool verifyFiles(const FileList& files, int64_t loggingIndex, ErrorPlace error);

  // Moves all files of the first destination, then those of the next.
  bool moveFilesInPlace(ErrorPlace error) override;

  // Makes the last file of each destination permanent, and with its folder the names of all.
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
  std::vector<std::shared_ptr<KDXDigestContext>> _sourceDigests;  // one per file; none without digests during the copy
  platform::FileIdentities _sourceIdentities;       // the files behind _sourcePaths, as far as they are there
  FileList _sourcePaths;                            // in frame order
  std::vector<FileList> _destinationSequencePaths;  // per destination, temporary names in frame order
  std::vector<std::vector<platform::FileStamp>> _createdFiles;  // of those, what the copy created
  std::vector<uint64_t> _expectedFileSizes;                     // bytes, in frame order
  // The external hash in the other byte order of XXHash64, which some managing applications hand over.
  std::shared_ptr<KDXDigestContext> _alternativeExternalDigestContext;
};
