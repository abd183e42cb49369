#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <mutex>
#include <string>

#include "tests/faultyfs/FaultBuilders.h"
#include "tests/faultyfs/FileDescriptor.h"
#include "tests/faultyfs/Protocol.h"

// A mounted file system which passes everything through to a backing folder, except for the faults that a test sets:
//
//   FaultyFileSystem fs(scratch);
//   fs.whenReading("b/clip.mov").fromPass(2).flipBitAt(17);
//   fs.whenWriting("a/*").failAt(5 * MiB, EIO);
//   EXPECT_GE(fs.counters("b/clip.mov").bytesRead, 2 * size);
//
// Patterns are fnmatch patterns of the path relative to root(), where '*' matches '/' as well; the root itself is ".".
// A rename or link is concerned if either of its names matches. For everything that is done to an opened file, the
// name counts by which the file was seen last, so it follows renames.
//
// Members may be called from several threads. They throw std::runtime_error if the file system does not answer.
class FaultyFileSystem {
 public:
  struct Availability {
    bool usable = false;
    std::string reason;  // why not, for GTEST_SKIP()
  };

  // Whether such a file system can be mounted here. Tries it out once.
  static const Availability& availability();

  // Makes a folder of its own in the existing folder `scratch`, mounts there and waits until the mount is in use.
  // Throws std::runtime_error or std::filesystem::filesystem_error.
  explicit FaultyFileSystem(const std::filesystem::path& scratch);

  // Unmounts, even if files are still open (they fail from then on), and removes the folder with all its contents.
  ~FaultyFileSystem();

  FaultyFileSystem(const FaultyFileSystem&) = delete;
  FaultyFileSystem& operator=(const FaultyFileSystem&) = delete;

  // The mount point, and the folder where everything is really stored.
  const std::filesystem::path& root() const { return _root; }
  const std::filesystem::path& backing() const { return _backing; }

  // The absolute path of a file or folder on the faulty file system, and of its storage.
  std::filesystem::path path(const std::string& relative) const { return _root / relative; }
  std::filesystem::path stored(const std::string& relative) const { return _backing / relative; }

  // Each begins the description of a fault, see faultyfs/FaultBuilders.h.
  faultyfs::ReadFault whenReading(const std::string& pattern);
  faultyfs::WriteFault whenWriting(const std::string& pattern);
  faultyfs::SyncFault whenSyncing(const std::string& pattern);
  faultyfs::OpenFault whenOpening(const std::string& pattern);
  faultyfs::PlainFault whenCreating(const std::string& pattern);
  faultyfs::PlainFault whenClosing(const std::string& pattern);
  faultyfs::RenameFault whenRenaming(const std::string& pattern);
  faultyfs::PlainFault whenLinking(const std::string& pattern);
  faultyfs::PlainFault whenUnlinking(const std::string& pattern);
  faultyfs::PlainFault whenMakingFolders(const std::string& pattern);
  faultyfs::AttributeFault whenReportingAttributes(const std::string& pattern);
  faultyfs::LookUpFault whenLookingUp(const std::string& pattern);

  // Delays every read, write and sync.
  void slowDown(const std::string& pattern, std::chrono::milliseconds delay);

  // From now on the file stands for a device with a volatile write cache: what is written to it is permanent once the
  // file was synced. What it holds now is permanent.
  void cacheWrites(const std::string& relative);

  // Writes to `target` what such a file would hold if the power failed now.
  //   seed   faultyfs::losingAll: nothing of what is in the cache reached the medium; losingNothing: all of it did; any
  //          other number: some blocks of it did, the same ones for the same number
  void copyAfterPowerLoss(const std::string& relative, const std::filesystem::path& target, std::uint64_t seed);

  // The medium is gone for good, as if it were pulled out: every further use fails with ENOTCONN, requests under way
  // fail with ECONNABORTED. What was stored stays in backing(). Faults and counters cannot be used any more.
  void vanish();

  // Ends all faults, or one. Requests which are held back by a delay go on.
  void clear();
  void remove(faultyfs::FaultNumber fault);

  // How many requests (or passes) a fault has affected so far; also known of faults that have ended.
  std::uint64_t timesFired(faultyfs::FaultNumber fault);

  // Waits until a fault has affected `count` requests, for instance until a request is being held back. False if
  // `patience` runs out before. Holds up the calls of other threads to this object meanwhile.
  bool waitUntilFired(faultyfs::FaultNumber fault, std::uint64_t count = 1,
                      std::chrono::milliseconds patience = std::chrono::seconds(30));

  // The requests under one path, or under all paths that match; a file is counted under the path which it had when
  // the request came.
  faultyfs::Counters counters(const std::string& path);
  faultyfs::Counters countersMatching(const std::string& pattern);
  void resetCounters();

 private:
  // Starts the program which serves the mount.
  void start();
  void awaitMount();
  void stop() noexcept;
  // Whether that program comes to its end in time.
  bool exitsWithin(std::chrono::milliseconds patience) noexcept;
  // Takes the mount out of sight, whether or not somebody serves it.
  void unmountByForce() noexcept;
  // Both throw std::runtime_error when there is no answer in time; ask() also when the answer is a refusal.
  faultyfs::Fields receive(std::chrono::milliseconds patience);
  faultyfs::Fields ask(const faultyfs::Fields& command, std::chrono::milliseconds patience = answerTime);
  faultyfs::SetFault setter();

  static constexpr std::chrono::milliseconds answerTime = std::chrono::seconds(30);

  std::filesystem::path _folder;
  std::filesystem::path _root;
  std::filesystem::path _backing;
  std::mutex _mutex;
  faultyfs::FileDescriptor _control;
  pid_t _process = -1;
};
