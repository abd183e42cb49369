#include "KDXFileTools/kdxdispatchcopy/KDXReadFile.h"

#include <fmt/format.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <utility>

#include "KDXFileTools/kdxdispatchcopy/ExitStatus.h"
#include "KDXFileTools/kdxdispatchcopy/ReadBuffers.h"
#include "extensions/filesizeCFI.h"
#include "platform/DispatchGroup.h"
#include "platform/InputFile.h"
#include "platform/Log.h"
#include "platform/Process.h"
#include "platform/Settings.h"

namespace {

constexpr int64_t MiB = 1'048'576;

platform::InputFile _openForRead(const std::string& path) {
  std::optional<platform::InputFile> file = platform::InputFile::open(path);
  if (!file) endForUnreadableFile(path);
  // Descriptor 0 means that standard input was closed. The rest of the process does not expect a file there.
  if (file->descriptor() == 0) platform::assertionFailed("fd > 0 && @\"invalid fd\"", "_openForRead");
  return std::move(*file);
}

std::size_t bufferSizeFromSettings() {
  constexpr int64_t defaultMegabytes = 10;
  const int64_t megabytes = platform::integerForKey("readBufferSizeMB");
  if (megabytes <= 0) return defaultMegabytes * MiB;
  platform::systemLog(fmt::format("KDXReadFile buffer size {}", megabytes));
  if (megabytes > std::numeric_limits<int64_t>::max() / MiB) {
    platform::endProcessForLackOf(fmt::format("a read buffer of {} MiB", megabytes));
  }
  return static_cast<std::size_t>(megabytes * MiB);
}

std::size_t bufferSizeOfThisProcess() {
  static const std::size_t size = bufferSizeFromSettings();
  return size;
}

// One call of KDXReadFile or KDXReadFiles: its buffers, and where its data goes.
class BufferedReader {
 public:
  BufferedReader(const std::shared_ptr<ReadBuffers>& buffers, platform::DispatchQueue& queue,
                 KDXReadFileDataBlock dataBlock)
      : _buffers(buffers),
        _queue(queue),
        _dataBlock(std::make_shared<const KDXReadFileDataBlock>(std::move(dataBlock))) {}

  // Issues all reads of the file. Waits for a buffer while the last two are with callbacks, so that reading never overtakes
  // a slow destination. The callbacks of the last two may still be pending when it returns.
  void readToEnd(platform::InputFile file) {
    bool isLast = false;
    while (!isLast) {
      std::shared_ptr<std::byte> buffer = _buffers->next();
      const platform::ReadResult result = file.read(buffer.get(), _buffers->bufferSize());
      isLast = result.length < static_cast<int64_t>(_buffers->bufferSize());
      _callbacks->enter();
      _queue.async(
          [isLast, result, buffer = std::move(buffer), dataBlock = _dataBlock, callbacks = _callbacks]() mutable {
            (*dataBlock)(isLast, buffer.get(), result.length, result.error);
            buffer.reset();
            callbacks->leave();
          });
    }
  }

  void waitForCallbacks() { _callbacks->wait(); }

 private:
  std::shared_ptr<ReadBuffers> _buffers;
  platform::DispatchQueue& _queue;
  std::shared_ptr<const KDXReadFileDataBlock> _dataBlock;
  std::shared_ptr<platform::DispatchGroup> _callbacks = std::make_shared<platform::DispatchGroup>();
};

}  // namespace

void endForUnreadableFile(const std::string& path) {
  platform::printAndWait(ErrorText::fileNotReadable, path);
  platform::endProcess(ExitStatus::fileNotReadable);
}

void KDXReadFile(const std::string& path, platform::DispatchQueue& queue, KDXReadFileDataBlock dataBlock) {
  const std::size_t bufferSize = bufferSizeOfThisProcess();
  platform::InputFile file = _openForRead(path);
  const auto buffers = ReadBuffers::make(bufferSize, file.sizeWhenOpened());
  BufferedReader(buffers, queue, std::move(dataBlock)).readToEnd(std::move(file));
}

std::size_t KDXReadFilesBufferSize(uint64_t firstFileSize) {
  constexpr double headroom = 1.2;
  constexpr uint64_t halvedAbove = 16 * MiB;
  constexpr uint64_t smallest = MiB;
  constexpr uint64_t largest = 32 * MiB;
  auto size = static_cast<uint64_t>(std::ceil(static_cast<double>(firstFileSize) * headroom / MiB)) * MiB;
  while (size > halvedAbove) size >>= 1;
  return std::clamp(size, smallest, largest);
}

void KDXReadFiles(const FileList& files, platform::DispatchQueue& queue, const KDXReadFilesStartBlock& startBlock,
                  KDXReadFileDataBlock dataBlock) {
  if (files.empty()) return;
  const uint64_t firstFileSize = filesizeCFI(files.front()).value_or(0);
  BufferedReader reader(ReadBuffers::make(KDXReadFilesBufferSize(firstFileSize)), queue, std::move(dataBlock));
  std::atomic<bool> stop = false;
  platform::DispatchGroup startCallbacks;
  for (std::size_t position = 0; position < files.size() && !stop; ++position) {
    const platform::FileURL file = files[position];
    startCallbacks.enter();
    queue.async([&stop, &startBlock, &startCallbacks, file] {
      if (!startBlock(file)) stop = true;
      startCallbacks.leave();
    });
    reader.readToEnd(_openForRead(file.path()));
  }
  startCallbacks.wait();
  reader.waitForCallbacks();
}
