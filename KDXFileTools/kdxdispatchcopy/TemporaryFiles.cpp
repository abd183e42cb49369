#include "KDXFileTools/kdxdispatchcopy/TemporaryFiles.h"

#include <optional>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "platform/FileManager.h"
#include "platform/Process.h"

TemporaryFileMaker::TemporaryFileMaker(const platform::FileURL& source, const platform::FileIdentities& otherSources)
    : _sourceURL(source), _source(platform::PinnedFile::ofFile(source.path())), _otherSources(otherSources) {}

void TemporaryFileMaker::removeOld(const platform::FileURL& temporaryURL) const {
  const std::optional<platform::FileIdentity> standing = platform::identityOfItem(temporaryURL.path());
  if (!standing || _otherSources.contains(*standing) || _source.mayBeItem(temporaryURL.path())) return;
  platform::removeRegularFile(temporaryURL.path());
}

platform::OutputFile TemporaryFileMaker::create(const platform::FileURL& temporaryURL) {
  std::optional<platform::OutputFile> destination = platform::OutputFile::createEmpty(temporaryURL.path(), _created);
  if (!destination) platform::endProcess(ExitStatus::temporaryFileNotCreated);
  _created.insert(destination->identity());
  return std::move(*destination);
}

void TemporaryFileMaker::endIfSourceWasCreated() const {
  if (_source.identity() || !platform::identityOfFile(_sourceURL.path())) return;
  endForUnreadableFile(_sourceURL.path());
}

std::vector<platform::FileStamp> closeAll(std::vector<platform::OutputFile>& destinations,
                                          const std::function<void(std::size_t, int64_t)>& endForFailedWrite) {
  std::vector<platform::FileStamp> stamps;
  for (std::size_t index = 0; index < destinations.size(); ++index) {
    if (!destinations[index].close()) endForFailedWrite(index, -1);
    stamps.push_back(destinations[index].stamp());
  }
  destinations.clear();
  return stamps;
}
