#include "tests/support/FileSystemProfiles.h"

#include <algorithm>
#include <cerrno>
#include <iterator>

using Numbers = FileSystemProfile::Numbers;
using namespace std::chrono_literals;

const std::vector<FileSystemProfile>& fileSystemProfiles() {
  static const std::vector<FileSystemProfile> profiles{
      {.name = "NFS", .renameFlags = EINVAL, .tellsOfWritesLate = true},
      {.name = "SMB", .link = EOPNOTSUPP, .folderSync = EOPNOTSUPP, .tellsOfWritesLate = true, .ignoresCase = true},
      // The server gives no numbers, or the mount asks for none.
      {.name = "SMBWithNumbersOfTheClient",
       .folderSync = EINVAL,
       .tellsOfWritesLate = true,
       .numbers = Numbers::untilRenamed,
       .ignoresCase = true},
      {.name = "SMBOfAnOlderKernel",
       .renameFlags = EINVAL,
       .link = EOPNOTSUPP,
       .folderSync = EINVAL,
       .tellsOfWritesLate = true,
       .numbers = Numbers::untilRenamed},
      {.name = "Plan9", .renameFlags = EINVAL, .folderSync = EINVAL, .direct = EINVAL},
      {.name = "Plan9WithoutACache", .renameFlags = EINVAL, .folderSync = EINVAL, .isUncached = true},
      {.name = "FAT", .link = EPERM, .numbers = Numbers::untilForgotten, .ignoresCase = true, .timeGrain = 2s},
      {.name = "ExFAT", .link = EPERM, .numbers = Numbers::untilForgotten, .ignoresCase = true, .timeGrain = 10ms},
      {.name = "NTFSWithoutCase", .ignoresCase = true},
      // Compressed files are always read and written through the cache.
      {.name = "NTFSCompressed", .direct = EOPNOTSUPP},
      {.name = "ZFSWithoutRenameFlags", .renameFlags = EINVAL},
  };
  return profiles;
}

std::vector<FileSystemProfile> profilesWith(bool (*trait)(const FileSystemProfile&)) {
  std::vector<FileSystemProfile> found;
  std::ranges::copy_if(fileSystemProfiles(), std::back_inserter(found), trait);
  return found;
}

void behaveAs(const FileSystemProfile& profile, FaultyFileSystem& server) {
  const char* const everything = "*";
  if (profile.renameFlags != 0) server.whenRenaming(everything).refuseFlags(profile.renameFlags);
  if (profile.link != 0) server.whenLinking(everything).fail(profile.link);
  if (profile.folderSync != 0) server.whenSyncing(everything).refuseFolders(profile.folderSync);
  if (profile.direct != 0) {
    server.whenReading(everything).refuseDirect(profile.direct);
    server.whenWriting(everything).refuseDirect(profile.direct);
  }
  if (profile.isUncached) server.whenOpening(everything).bypassCache();
  if (profile.numbers == Numbers::untilForgotten) server.whenReportingAttributes(everything).numberAnew();
  if (profile.numbers == Numbers::untilRenamed) server.whenReportingAttributes(everything).numberByName();
  if (profile.ignoresCase) server.whenLookingUp(everything).ignoreCase();
  if (profile.timeGrain != 0ms) server.whenReportingAttributes(everything).roundTimesTo(profile.timeGrain);
}
