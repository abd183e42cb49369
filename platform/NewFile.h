#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "platform/Error.h"
#include "platform/FileDescriptor.h"
#include "platform/Folder.h"

namespace platform {

// A small file that is whole as soon as it has its name, whenever the process or the machine ends: written under a temporary name,
// made permanent and then named. Without a name it is removed at the end. Move only, used by one thread. For lists and reports;
// media have OutputFile.
class NewFile {
 public:
  static constexpr std::string_view temporarySuffix = ".kdxcopy";

  // Makes the temporary file, next to where `name` will be: "name.kdxcopy", or with a number where that is taken, since it may be
  // anybody's. The folder must stay as long as the file. None on failure, with a POSIXErrorDomain error.
  static std::optional<NewFile> create(const Folder& folder, const std::string& name, ErrorPlace error);

  NewFile(NewFile&& other) noexcept;
  NewFile& operator=(NewFile&&) = delete;
  ~NewFile();

  // Adds the bytes. Once that failed all that follows fails too.
  bool write(std::string_view bytes, ErrorPlace error);

  // Makes all of it permanent, names it, and makes the name permanent. Once. `give` never replaces anything (EEXIST); `replace` takes the
  // place of a file that has the name.
  bool give(ErrorPlace error);
  bool replace(ErrorPlace error);

 private:
  NewFile(const Folder& folder, std::string name, std::string temporaryName, FileDescriptor file);
  bool makePermanent(ErrorPlace error);
  bool writePending(ErrorPlace error);

  const Folder* _folder;
  std::string _name;
  std::string _temporaryName;  // empty once it has its name
  FileDescriptor _file;
  std::string _pending;
  int _failure = 0;  // errno of the first write that failed
};

}  // namespace platform
