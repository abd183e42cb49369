#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// The domain of errors that a system call reported; their code is the errno value.
inline constexpr std::string_view POSIXErrorDomain = "POSIXErrorDomain";

// A failure that a caller can act on. A plain value: copies are independent.
struct Error {
  std::string domain;
  int64_t code = 0;
  std::optional<std::string> description;  // for a person; some errors have only a code
  std::optional<std::string> path;         // absolute path of the file that the error is about
};

// Where a caller wants an error to be put; null when it does not want one. The caller owns the place, which must stay valid
// as long as the operation's comment says.
using ErrorPlace = std::optional<Error>*;

// Puts the error into the place, if there is one, and returns false, so that an operation can fail with `return fail(...)`.
bool fail(ErrorPlace place, Error error);

// True for the errno values with which a kernel, a file system or a container's filter refuses a call that only helps. The
// same work is then done in an older way.
bool isRefused(int code);

// The error of a failed system call: `call` on `path` failed with the errno value `code`.
Error posixError(std::string_view call, std::string_view path, int code);

}  // namespace platform
