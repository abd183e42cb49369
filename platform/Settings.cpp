#include "platform/Settings.h"

#include <ini.h>

#include <cstdlib>
#include <string>

namespace platform {

namespace {

std::string settingsPath() {
  // Set-up of one thread alone: nothing in this process changes the environment.
  // NOLINTBEGIN(concurrency-mt-unsafe)
  if (const char* directory = std::getenv("XDG_CONFIG_HOME"); directory != nullptr && *directory == '/') {
    return std::string(directory) + "/kdxdispatchcopy/defaults.ini";
  }
  if (const char* home = std::getenv("HOME"); home != nullptr && *home != '\0') {
    return std::string(home) + "/.config/kdxdispatchcopy/defaults.ini";
  }
  // NOLINTEND(concurrency-mt-unsafe)
  return {};
}

struct Query {
  std::string_view key;
  int64_t value = 0;
};

int keepValue(void* user, const char*, const char* name, const char* value) {
  auto* query = static_cast<Query*>(user);
  constexpr int decimal = 10;
  if (query->key == name) query->value = std::strtoll(value, nullptr, decimal);
  return 1;
}

}  // namespace

int64_t integerForKey(std::string_view key) {
  Query query{.key = key};
  ::ini_parse(settingsPath().c_str(), keepValue, &query);
  return query.value;
}

}  // namespace platform
