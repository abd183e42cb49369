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
//   error    errno of the failed read, else 0; a failed read is the last of its file
using KDXReadFileDataBlock = std::function<void(bool isLast, const std::byte* bytes, int64_t length, int32_t error)>;

// Told which file is read next; false: no further file after that one.
using KDXReadFilesStartBlock = std::function<bool(const platform::FileURL& file)>;

// Reads the file from start to end, past the file cache, and hands each filled buffer to dataBlock on `queue` (a serial
// queue, which thus sees them in file order) while the next one is filled. The memory is shared by all calls of the process
// (ReadBuffers.h): when many run at once, reading and working on what was read take turns.
// Reads on the calling thread and returns when the last read has been issued: callbacks may still be pending, and only
// the one with isLast tells the end. The queue must outlive them, and since
// the call waits for them it must not come from the queue. A file that can't be opened ends the process with
// status 108 and a line; descriptor 0 is a failed assertion. The buffers have the size of the setting readBufferSizeMB
// (MiB, read once in a process), 10 MiB without it.
void KDXReadFile(const std::string& path, platform::DispatchQueue& queue, KDXReadFileDataBlock dataBlock);

// Reads the files one after the other in the same way, with startBlock called on `queue` before the data of each file.
// Returns when every callback has returned. When startBlock has returned false by the time its file is read, that file
// is the last. The buffers are sized for the first file.
void KDXReadFiles(const FileList& files, platform::DispatchQueue& queue, const KDXReadFilesStartBlock& startBlock,
                  KDXReadFileDataBlock dataBlock);

// Buffer size in bytes for a list whose first file has `firstFileSize` bytes: 20 % more in whole MiB, halved while that
// is over 16 MiB, at least 1 MiB.
std::size_t KDXReadFilesBufferSize(uint64_t firstFileSize);

// Prints the line of a file that can't be opened for reading and ends the process with status 108.
[[noreturn]] void endForUnreadableFile(const std::string& path);
