#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "KDXFileTools/kdxdispatchcopy/FileList.h"
#include "platform/DispatchQueue.h"
#include "platform/FileURL.h"

// Receives a file's data, one buffer after the other.
//   isLast   true for the last buffer of a file, which may be empty
//   bytes    page-aligned, owned by the reader, valid until the block returns
//   length   bytes in the buffer: 0 when the file ends on a buffer boundary, -1 when a read failed
//   error    errno of the failed read, else 0; after a failed read the file is not read any further
using KDXReadFileDataBlock = std::function<void(bool isLast, const std::byte* bytes, int64_t length, int32_t error)>;

// Called with the file that is read next. Returns false to stop after that file.
using KDXReadFilesStartBlock = std::function<bool(const platform::FileURL& file)>;

// Reads the file from start to end, past the file cache. Hands each filled buffer to dataBlock on `queue`, which must be
// serial so that the buffers come in file order, and fills the next one meanwhile. All calls of the process share their
// memory (ReadBuffers.h): when many run at once, a call may have one buffer only, and then reads and works in turns.
// Reads on the calling thread and returns when the last read has been issued. Callbacks may still be pending; the one with
// isLast is the last. The queue must outlive them. The call waits for callbacks, so it must not be made on the queue.
// A file that can't be opened ends the process with a line and status 108; descriptor 0 is a failed assertion. The buffers
// have the size of the setting readBufferSizeMB (MiB, read once in a process), or 10 MiB without it.
void KDXReadFile(const std::string& path, platform::DispatchQueue& queue, KDXReadFileDataBlock dataBlock);

// Reads the files one after the other in the same way, and calls startBlock on `queue` before the data of each file.
// Returns when every callback has returned. Once startBlock has returned false, no further file is begun; since reading is
// ahead of the callbacks, another file may be under way already. The buffers are sized for the first file.
void KDXReadFiles(const FileList& files, platform::DispatchQueue& queue, const KDXReadFilesStartBlock& startBlock,
                  KDXReadFileDataBlock dataBlock);

// Buffer size in bytes for a list whose first file has `firstFileSize` bytes: 20 % more, rounded up to whole MiB, halved
// until it is at most 16 MiB; at least 1 MiB.
std::size_t KDXReadFilesBufferSize(uint64_t firstFileSize);

// Prints the line of a file that can't be opened for reading and ends the process with status 108.
[[noreturn]] void endForUnreadableFile(const std::string& path);
