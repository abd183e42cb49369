#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

#include "KDXFileTools/kdxdispatchcopy/FileList.h"
#include "digest/KDXDigestContext.h"
#include "platform/ConcurrentQueue.h"
#include "platform/FileManager.h"
#include "platform/FileURL.h"
#include "platform/OutputFile.h"

// Small steps that the jobs for one file and for a sequence have in common.

// What a destination's name ends with until it is moved to its final name.
inline constexpr std::string_view temporaryExtension = "kdxcopy";

// Creates the temporary destinations of one source file.
class TemporaryFileMaker {
 public:
  // `otherSources` are files that must not be touched either; they are sealed and must outlive the maker.
  TemporaryFileMaker(const platform::FileURL& source, const platform::FileIdentities& otherSources);

  // Removes an old temporary file, unless it is one that must not be touched. To be called for all destinations before the
  // first is created: names that differ may stand for one file.
  void removeOld(const platform::FileURL& temporaryURL) const;

  // A new, empty file; for a destination given twice the file of the first time. Where that can't be, also because something
  // still stands there, the process ends with status 107 and without a message.
  platform::OutputFile create(const platform::FileURL& temporaryURL);

  // A source that was not there before, and is now, is one of the files just created: there is nothing to copy. The process
  // then ends as for every source that can't be opened.
  void endIfSourceWasCreated() const;

 private:
  const platform::FileURL& _sourceURL;
  platform::PinnedFile _source;
  const platform::FileIdentities& _otherSources;
  std::set<platform::FileIdentity> _created;
};

// Up to so many bytes are digested in less time than another thread takes to wake and answer.
inline constexpr std::size_t notWorthAThread = std::size_t{64} << 10;

// Feeds the bytes to both digests, side by side on the queue and the calling thread, and returns when both have them. Either
// may be null. Bytes that are not worth a thread are fed on the calling thread alone.
void updateBoth(platform::ConcurrentQueue& queue, KDXDigestContext* digest, KDXDigestContext* externalDigest,
                std::span<const std::byte> bytes);

// Closes the destinations in their order. What a destination took and then lost is a failed write like any other. Returns
// what each file is recognised by from then on.
std::vector<platform::FileStamp> closeAll(std::vector<platform::OutputFile>& destinations,
                                          const std::function<void(std::size_t, int64_t)>& endForFailedWrite);

// Queues the line of a destination that is not read back.
enum class SizeCheck { skipped, made };
void queueCompletedLine(const platform::FileURL& temporaryURL, SizeCheck sizeCheck);

// Reads a file, or a list that begins with it, back on the operation queue of that file. False when it has none.
bool queueReadBack(const platform::FileURL& file, std::function<void()> operation);

// ASCII letters in lower case: digest texts have no others.
std::string lowerCased(std::string text);

// Adds the identities of the files that are there, links as such.
void addIdentities(const FileList& files, platform::FileIdentities& identities);
