#include "platform/Error.h"

#include <fmt/format.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace platform {

bool fail(ErrorPlace place, Error error) {
  if (place != nullptr) *place = std::move(error);
  return false;
}

bool isRefused(int code) {
  return code == EINVAL || code == ENOSYS || code == EPERM || code == ENOTSUP;
}

Error posixError(std::string_view call, std::string_view path, int code) {
  return Error{.domain = std::string(POSIXErrorDomain),
               .code = code,
               .description = fmt::format("{} {}: {}", call, path, std::generic_category().message(code)),
               .path = std::string(path)};
}

}  // namespace platform
