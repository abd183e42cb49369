#include <cerrno>
#include <cstdio>
#include <exception>

#include "PassThrough.h"

// The functions that libfuse calls. Each one only finds the file system and passes the request on.
namespace faultyfs {

namespace {

PassThrough& fileSystemOf(fuse_req_t request) {
  return *static_cast<PassThrough*>(fuse_req_userdata(request));
}

// No exception may pass through libfuse. A request that throws has not been answered: only steps before the answer (looking
// things up, getting memory) throw.
template <class Handler>
void guarded(fuse_req_t request, Handler handler) {
  try {
    handler(fileSystemOf(request));
  } catch (const std::exception& failure) {
    std::fprintf(stderr, "faultyfs: %s\n", failure.what());
    fuse_reply_err(request, EIO);
  }
}

void addAttributeOperations(fuse_lowlevel_ops& table) {
  table.init = [](void* userData, fuse_conn_info* connection) {
    static_cast<PassThrough*>(userData)->initialise(*connection);
  };
  table.lookup = [](fuse_req_t request, fuse_ino_t parent, const char* name) {
    guarded(request, [&](PassThrough& fs) { fs.lookup(request, parent, name); });
  };
  table.forget = [](fuse_req_t request, fuse_ino_t inode, std::uint64_t count) {
    fileSystemOf(request).forget(inode, count);
    fuse_reply_none(request);
  };
  table.forget_multi = [](fuse_req_t request, std::size_t count, fuse_forget_data* inodes) {
    for (const fuse_forget_data& entry : std::span(inodes, count)) {
      fileSystemOf(request).forget(entry.ino, entry.nlookup);
    }
    fuse_reply_none(request);
  };
  table.getattr = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info*) {
    guarded(request, [&](PassThrough& fs) { fs.getAttributes(request, inode); });
  };
  table.setattr = [](fuse_req_t request, fuse_ino_t inode, struct stat* wanted, int which, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.setAttributes(request, inode, *wanted, which, file); });
  };
  table.access = [](fuse_req_t request, fuse_ino_t inode, int mask) {
    guarded(request, [&](PassThrough& fs) { fs.access(request, inode, mask); });
  };
  table.statfs = [](fuse_req_t request, fuse_ino_t inode) {
    guarded(request, [&](PassThrough& fs) { fs.statFileSystem(request, inode); });
  };
  table.setxattr = [](fuse_req_t request, fuse_ino_t inode, const char* name, const char* value, std::size_t size,
                      int flags) {
    guarded(request, [&](PassThrough& fs) { fs.setExtended(request, inode, name, {value, size}, flags); });
  };
  table.getxattr = [](fuse_req_t request, fuse_ino_t inode, const char* name, std::size_t size) {
    guarded(request, [&](PassThrough& fs) { fs.getExtended(request, inode, name, size); });
  };
  table.listxattr = [](fuse_req_t request, fuse_ino_t inode, std::size_t size) {
    guarded(request, [&](PassThrough& fs) { fs.listExtended(request, inode, size); });
  };
  table.removexattr = [](fuse_req_t request, fuse_ino_t inode, const char* name) {
    guarded(request, [&](PassThrough& fs) { fs.removeExtended(request, inode, name); });
  };
}

void addNameOperations(fuse_lowlevel_ops& table) {
  table.mknod = [](fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, dev_t device) {
    guarded(request, [&](PassThrough& fs) { fs.makeNode(request, parent, name, mode, device); });
  };
  table.mkdir = [](fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode) {
    guarded(request, [&](PassThrough& fs) { fs.makeFolder(request, parent, name, mode); });
  };
  table.symlink = [](fuse_req_t request, const char* target, fuse_ino_t parent, const char* name) {
    guarded(request, [&](PassThrough& fs) { fs.makeSymlink(request, target, parent, name); });
  };
  table.readlink = [](fuse_req_t request, fuse_ino_t inode) {
    guarded(request, [&](PassThrough& fs) { fs.readSymlink(request, inode); });
  };
  table.link = [](fuse_req_t request, fuse_ino_t inode, fuse_ino_t parent, const char* name) {
    guarded(request, [&](PassThrough& fs) { fs.link(request, inode, parent, name); });
  };
  table.unlink = [](fuse_req_t request, fuse_ino_t parent, const char* name) {
    guarded(request, [&](PassThrough& fs) { fs.unlink(request, parent, name); });
  };
  table.rmdir = [](fuse_req_t request, fuse_ino_t parent, const char* name) {
    guarded(request, [&](PassThrough& fs) { fs.removeFolder(request, parent, name); });
  };
  table.rename = [](fuse_req_t request, fuse_ino_t parent, const char* name, fuse_ino_t newParent, const char* newName,
                    unsigned int flags) {
    guarded(request, [&](PassThrough& fs) { fs.rename(request, parent, name, newParent, newName, flags); });
  };
}

void addFileOperations(fuse_lowlevel_ops& table) {
  table.create = [](fuse_req_t request, fuse_ino_t parent, const char* name, mode_t mode, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.create(request, parent, name, mode, *file); });
  };
  table.open = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.open(request, inode, *file); });
  };
  table.read = [](fuse_req_t request, fuse_ino_t inode, std::size_t size, off_t offset, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.read(request, inode, size, offset, *file); });
  };
  table.write = [](fuse_req_t request, fuse_ino_t inode, const char* data, std::size_t size, off_t offset,
                   fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.write(request, inode, {data, size}, offset, *file); });
  };
  table.fallocate = [](fuse_req_t request, fuse_ino_t inode, int mode, off_t offset, off_t length,
                       fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.allocate(request, inode, mode, offset, length, *file); });
  };
  table.lseek = [](fuse_req_t request, fuse_ino_t, off_t offset, int whence, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.seek(request, offset, whence, *file); });
  };
  table.flush = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.flush(request, inode, *file); });
  };
  table.fsync = [](fuse_req_t request, fuse_ino_t inode, int dataOnly, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.sync(request, inode, dataOnly != 0, *file); });
  };
  table.release = [](fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.release(request, *file); });
  };
}

void addFolderOperations(fuse_lowlevel_ops& table) {
  table.opendir = [](fuse_req_t request, fuse_ino_t inode, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.openFolder(request, inode, *file); });
  };
  table.readdir = [](fuse_req_t request, fuse_ino_t, std::size_t size, off_t offset, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.readFolder(request, size, offset, *file); });
  };
  table.fsyncdir = [](fuse_req_t request, fuse_ino_t inode, int dataOnly, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.syncFolder(request, inode, dataOnly != 0, *file); });
  };
  table.releasedir = [](fuse_req_t request, fuse_ino_t, fuse_file_info* file) {
    guarded(request, [&](PassThrough& fs) { fs.releaseFolder(request, *file); });
  };
}

}  // namespace

const fuse_lowlevel_ops& PassThrough::operations() {
  static const fuse_lowlevel_ops table = [] {
    fuse_lowlevel_ops operations{};
    addAttributeOperations(operations);
    addNameOperations(operations);
    addFileOperations(operations);
    addFolderOperations(operations);
    return operations;
  }();
  return table;
}

}  // namespace faultyfs
