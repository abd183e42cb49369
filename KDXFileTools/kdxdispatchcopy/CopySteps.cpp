#include "KDXFileTools/kdxdispatchcopy/CopySteps.h"

#include <algorithm>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/KDXFileSystemOperationQueueManager.h"
#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"
#include "platform/Log.h"
#include "platform/Process.h"

TemporaryFileMaker::TemporaryFileMaker(const platform::FileURL& source, const platform::FileIdentities& otherSources)
    : _sourceURL(source), _source(platform::PinnedFile::ofFile(source.path())), _otherSources(otherSources) {}

void TemporaryFileMaker::removeOld(const platform::FileURL& temporaryURL) const {
  const std::optional<platform::FileIdentity> standing = platform::identityOfItem(temporaryURL.path());
  if (!standing || standing == _source.identity() || _otherSources.contains(*standing)) return;
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

void updateBoth(platform::ConcurrentQueue& queue, KDXDigestContext* digest, KDXDigestContext* externalDigest,
                std::span<const std::byte> bytes) {
  const auto update = [bytes](KDXDigestContext* context) {
    if (context != nullptr) context->update(bytes.data(), bytes.size());
  };
  if (digest != nullptr && externalDigest != nullptr && bytes.size() > notWorthAThread) {
    queue.apply(2, [&](std::size_t index) { update(index == 0 ? externalDigest : digest); });
  } else {
    update(digest);
    update(externalDigest);
  }
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

void queueCompletedLine(const platform::FileURL& temporaryURL, SizeCheck sizeCheck) {
  platform::queueLine("Copy completed successfully for destination file{} ({})\n",
                      sizeCheck == SizeCheck::made ? " with file size check" : "",
                      temporaryURL.deletingPathExtension().path());
}

bool queueReadBack(const platform::FileURL& file, std::function<void()> operation) {
  const auto queue = KDXFileSystemOperationQueueManager::sharedOperationQueueManager().operationQueueForURL(file);
  if (queue) queue->addOperationWithBlock(std::move(operation));
  return queue != nullptr;
}

std::string lowerCased(std::string text) {
  std::ranges::transform(text, text.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; });
  return text;
}

void addIdentities(const FileList& files, platform::FileIdentities& identities) {
  for (std::size_t position = 0; position < files.size(); ++position) {
    if (const auto identity = platform::identityOfItem(files[position].path())) identities.insert(*identity);
  }
}
