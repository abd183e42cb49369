#include "InodeTable.h"

#include <system_error>

namespace faultyfs {

InodeTable::InodeTable(FileDescriptor root, std::uint64_t rootNumber) : _lastNumber(rootNumber) {
  struct stat attributes {};
  if (::fstat(root.get(), &attributes) != 0) {
    throw std::system_error(errno, std::generic_category(), "backing folder");
  }
  auto inode = std::make_shared<Inode>();
  inode->number = rootNumber;
  inode->id = fileIdOf(attributes);
  inode->handle = std::move(root);
  inode->lookups = 1;
  _byNumber[rootNumber] = inode;
  _byId[inode->id] = inode;
}

InodePointer InodeTable::find(std::uint64_t number) const {
  const std::lock_guard lock(_mutex);
  return _byNumber.at(number);
}

InodePointer InodeTable::lookUp(FileDescriptor handle, FileId id, const InodePointer& parent, const std::string& name) {
  const std::lock_guard lock(_mutex);
  InodePointer& inode = _byId[id];
  if (!inode) {
    inode = std::make_shared<Inode>();
    inode->number = ++_lastNumber;
    inode->id = id;
    inode->handle = std::move(handle);
    _byNumber[inode->number] = inode;
  }
  ++inode->lookups;
  inode->parent = parent;
  inode->name = name;
  return inode;
}

void InodeTable::rename(FileId id, const InodePointer& parent, const std::string& name) {
  const std::lock_guard lock(_mutex);
  if (const auto found = _byId.find(id); found != _byId.end()) {
    found->second->parent = parent;
    found->second->name = name;
  }
}

void InodeTable::forget(std::uint64_t number, std::uint64_t count) {
  const std::lock_guard lock(_mutex);
  const auto found = _byNumber.find(number);
  if (found == _byNumber.end() || !found->second->parent) {
    return;  // the root is never forgotten
  }
  Inode& inode = *found->second;
  inode.lookups -= count < inode.lookups ? count : inode.lookups;
  if (inode.lookups == 0) {
    _byId.erase(inode.id);
    _byNumber.erase(found);
  }
}

std::string InodeTable::pathOf(const Inode& inode) const {
  const std::lock_guard lock(_mutex);
  if (!inode.parent) {
    return ".";
  }
  std::string path = inode.name;
  for (const Inode* folder = inode.parent.get(); folder->parent; folder = folder->parent.get()) {
    path.insert(0, folder->name + "/");
  }
  return path;
}

std::string InodeTable::pathOf(const Inode& parent, const std::string& name) const {
  const std::string folder = pathOf(parent);
  return folder == "." ? name : folder + "/" + name;
}

}  // namespace faultyfs
