#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <set>
#include <string_view>
#include <vector>

#include "platform/FileIdentity.h"
#include "platform/FileURL.h"
#include "platform/OutputFile.h"

// The files that a copy writes, until they are moved to their final names.

// What a destination's name ends with until then.
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

// Closes the destinations in their order. What a destination took and then lost is a failed write like any other. Returns
// what each file is recognised by from then on.
std::vector<platform::FileStamp> closeAll(std::vector<platform::OutputFile>& destinations,
                                          const std::function<void(std::size_t, int64_t)>& endForFailedWrite);
