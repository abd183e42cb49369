#include "platform/Settings.h"

#include <fcntl.h>
#include <ini.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "platform/FileDescriptor.h"

namespace platform {

namespace {

std::string settingsPath() {
  // Safe in any thread: nothing in this process changes the environment.
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

// Gives the parser one whole line, as fgets does, but without the newline and without leading white space. With fgets the
// parser would cut long lines, so that the end of a comment could become a setting, and would take a line that begins with
// white space as the continuation of the value before it. A line that fills the space looks like one that was cut, so it is
// replaced by an empty line.
char* readLine(char* line, int size, void* stream) {
  char* text = nullptr;
  std::size_t capacity = 0;
  const ssize_t length = ::getline(&text, &capacity, static_cast<std::FILE*>(stream));
  const std::unique_ptr<char, void (*)(void*)> owner(text, std::free);
  if (length < 0) return nullptr;
  std::string_view taken = std::string_view(text).substr(std::strspn(text, " \t\v\f\r"));
  if (taken.ends_with('\n')) taken.remove_suffix(1);
  if (taken.size() + 1 >= static_cast<std::size_t>(size)) taken = {};
  line[taken.copy(line, taken.size())] = '\0';
  return line;
}

// Only a regular file is read: reading would wait for a pipe in its place.
std::unique_ptr<std::FILE, int (*)(std::FILE*)> openSettings() {
  FileDescriptor file(::open(settingsPath().c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
  struct stat facts = {};
  if (!file.isOpen() || ::fstat(file.get(), &facts) != 0 || !S_ISREG(facts.st_mode)) return {nullptr, std::fclose};
  return {::fdopen(file.release(), "r"), std::fclose};
}

}  // namespace

int64_t integerForKey(std::string_view key) {
  const auto settings = openSettings();
  return settings ? integerForKey(settings.get(), key) : 0;
}

int64_t integerForKey(std::FILE* settings, std::string_view key) {
  Query query{.key = key};
  ::ini_parse_stream(readLine, settings, keepValue, &query);
  return query.value;
}

}  // namespace platform
