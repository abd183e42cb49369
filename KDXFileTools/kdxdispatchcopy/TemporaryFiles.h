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

// The extension of their names.
inline constexpr std::string_view temporaryExtension = "kdxcopy";

// Creates the temporary destinations of one source file.
class TemporaryFileMaker {
 public:
  // Both arguments must outlive the maker.
  //   otherSources   sealed; files that must not be removed, like the source
  TemporaryFileMaker(const platform::FileURL& source, const platform::FileIdentities& otherSources);

  // Removes an old temporary file, unless it is a source. To be called for all destinations before the first file is
  // created, because different names may stand for one file.
  void removeOld(const platform::FileURL& temporaryURL) const;

  // Creates a new, empty file. For a destination given twice it opens the first file again. If that fails, also because
  // something still stands there, the process ends with status 107 and without a message.
  platform::OutputFile create(const platform::FileURL& temporaryURL);

  // A source that did not exist before, but does now, is one of the files just created, and there is nothing to copy. The
  // process then ends as for any source that can't be opened.
  void endIfSourceWasCreated() const;

 private:
  const platform::FileURL& _sourceURL;
  platform::PinnedFile _source;
  const platform::FileIdentities& _otherSources;
  std::set<platform::FileIdentity> _created;
};

// Closes the destinations in their order. A close that reports lost bytes is a failed write. Returns the stamps by which the
// files are recognised from then on.
std::vector<platform::FileStamp> closeAll(std::vector<platform::OutputFile>& destinations,
                                          const std::function<void(std::size_t, int64_t)>& endForFailedWrite);
