#include "KDXFileTools/kdxdispatchcopy/FileList.h"

#include <memory>
#include <utility>

FileList::FileList(std::vector<platform::FileURL> files) : _size(files.size()) {
  _fileAt = [files = std::make_shared<const std::vector<platform::FileURL>>(std::move(files))](std::size_t position) {
    return (*files)[position];
  };
}

std::vector<platform::FileURL> FileList::files() const {
  std::vector<platform::FileURL> files;
  files.reserve(_size);
  for (std::size_t position = 0; position < _size; ++position) files.push_back(_fileAt(position));
  return files;
}

void addIdentities(const FileList& files, platform::FileIdentities& identities) {
  for (std::size_t position = 0; position < files.size(); ++position) {
    if (const auto identity = platform::identityOfItem(files[position].path())) identities.insert(*identity);
  }
}
