#pragma once

#ifndef FUSE_USE_VERSION
#define FUSE_USE_VERSION 35
#endif
#include <dirent.h>
#include <fuse_lowlevel.h>

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

#include "FaultBook.h"
#include "InodeTable.h"
#include "TrafficLog.h"
#include "WriteCaches.h"

namespace faultyfs {

// Answers the kernel's requests from a backing folder, changed by the faults in force. Every member function that takes a
// fuse_req_t answers it exactly once. They may run at the same time in any number of threads.
//
// The kernel's page cache keeps its content when a file is closed and opened again, and when its modification time changes.
// Only reads past the cache (O_DIRECT, or after dropping the cached pages) come here. That is the point of this file system:
// a check that never leaves the cache proves nothing about a medium. Writes are passed on before write(2) returns.
class PassThrough {
 public:
  //   backing       the opened backing folder
  //   whenMounted   called when the kernel begins to use the mount
  PassThrough(FileDescriptor backing, FaultBook& faults, TrafficLog& traffic, WriteCaches& caches,
              std::function<void()> whenMounted);

  // The table of functions for fuse_session_new(); the user data must be a PassThrough.
  static const fuse_lowlevel_ops& operations();

  void initialise(fuse_conn_info& connection);

  void lookup(fuse_req_t request, fuse_ino_t parent, const char* name);
  void forget(fuse_ino_t inode, std::uint64_t count);
  void getAttributes(fuse_req_t request, fuse_ino_t inode);
  void setAttributes(fuse_req_t request, fuse_ino_t inode, const struct stat& wanted, int which,
                     const fuse_file_info* file);
  void access(fuse_req_t request, fuse_ino_t inode, int mask);
  void statFileSystem(fuse_req_t request, fuse_ino_t inode);

  void makeNode(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device);
  void makeFolder(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode);
  void makeSymlink(fuse_req_t request, const char* target, fuse_ino_t parent, const char* name);
  void readSymlink(fuse_req_t request, fuse_ino_t inode);
  void link(fuse_req_t request, fuse_ino_t inode, fuse_ino_t newParent, const char* newName);
  void unlink(fuse_req_t request, fuse_ino_t parent, const char* name);
  void removeFolder(fuse_req_t request, fuse_ino_t parent, const char* name);
  void rename(fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
              unsigned int flags);

  void create(fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info& file);
  void open(fuse_req_t request, fuse_ino_t inode, fuse_file_info& file);
  void read(fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset, const fuse_file_info& file);
  void write(fuse_req_t request, fuse_ino_t inode, std::span<const char> data, off_t offset,
             const fuse_file_info& file);
  void allocate(fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t length, const fuse_file_info& file);
  void seek(fuse_req_t request, off_t offset, int whence, const fuse_file_info& file);
  void flush(fuse_req_t request, fuse_ino_t inode, const fuse_file_info& file);
  void sync(fuse_req_t request, fuse_ino_t inode, bool dataOnly, const fuse_file_info& file);
  void release(fuse_req_t request, const fuse_file_info& file);

  void openFolder(fuse_req_t request, fuse_ino_t inode, fuse_file_info& file);
  void readFolder(fuse_req_t request, std::size_t size, off_t offset, const fuse_file_info& file);
  void syncFolder(fuse_req_t request, fuse_ino_t inode, bool dataOnly, const fuse_file_info& file);
  void releaseFolder(fuse_req_t request, const fuse_file_info& file);

  // Extended attributes, because copies may be asked to carry them along.
  void setExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::span<const char> value, int flags);
  void getExtended(fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t size);
  void listExtended(fuse_req_t request, fuse_ino_t inode, std::size_t size);
  void removeExtended(fuse_req_t request, fuse_ino_t inode, const char* name);

 private:
  struct FolderEntry {
    std::string name;
    struct stat attributes {};
  };
  // An opened folder. Its entries are collected whenever it is read from the start.
  struct OpenFolder {
    std::mutex mutex;
    FileDescriptor descriptor;
    std::vector<FolderEntry> entries;
  };

  int attributesOf(const Inode& inode, struct stat& attributes);
  // The name in the backing folder of the item that is requested as `name`.
  std::string storedName(const Inode& folder, const char* name);
  int enter(fuse_ino_t parent, const char* name, fuse_entry_param& entry);
  void answerWithEntry(fuse_req_t request, fuse_ino_t parent, const char* name);
  int changeAttributes(const Inode& inode, const struct stat& wanted, int which, const fuse_file_info* file);
  std::uint64_t sizeOf(const Inode& inode) const;
  int changeSize(const Inode& inode, std::uint64_t size, const fuse_file_info* file);
  void noteName(const InodePointer& parent, const std::string& name);
  int prepareOpen(const std::string& path, fuse_file_info& file);
  // Stores what the verdict leaves of a write; returns the acknowledged bytes or a negative errno.
  std::int64_t store(int descriptor, std::span<const char> data, std::uint64_t offset, std::vector<ByteRange> lost);
  std::shared_ptr<OpenFolder> folderOf(const fuse_file_info& file);
  static void collectEntries(OpenFolder& folder);
  // Judges a request, and delays the calling thread if the verdict says so.
  Verdict meet(const Request& request);
  std::string pathOf(fuse_ino_t inode) const { return _inodes.pathOf(*_inodes.find(inode)); }

  InodeTable _inodes;
  FaultBook& _faults;
  TrafficLog& _traffic;
  WriteCaches& _caches;
  std::function<void()> _whenMounted;
  std::mutex _foldersMutex;
  std::map<std::uint64_t, std::shared_ptr<OpenFolder>> _folders;
  std::uint64_t _lastFolder = 0;
};

}  // namespace faultyfs
