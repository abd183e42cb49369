#include "platform/Mounts.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>

namespace platform {

namespace {

std::vector<std::string_view> wordsOf(std::string_view line) {
  std::vector<std::string_view> words;
  while (!line.empty()) {
    const std::size_t length = std::min(line.find(' '), line.size());
    if (length != 0) words.push_back(line.substr(0, length));
    line.remove_prefix(std::min(length + 1, line.size()));
  }
  return words;
}

std::optional<uint32_t> numberFrom(std::string_view text, int base = 10) {
  uint32_t number = 0;
  const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  const bool isWhole = failure == std::errc() && end == text.data() + text.size();
  return isWhole ? std::optional(number) : std::nullopt;
}

// White space and "\" are written as "\" and three octal digits.
std::string unescaped(std::string_view text) {
  constexpr std::size_t length = 4;
  std::string result;
  while (!text.empty()) {
    const auto code = text.front() == '\\' && text.size() >= length ? numberFrom(text.substr(1, 3), 8) : std::nullopt;
    result += code ? static_cast<char>(*code) : text.front();
    text.remove_prefix(code ? length : 1);
  }
  return result;
}

std::optional<uint64_t> deviceFrom(std::string_view text) {
  const std::size_t colon = text.find(':');
  if (colon == std::string_view::npos) return std::nullopt;
  const auto major = numberFrom(text.substr(0, colon));
  const auto minor = numberFrom(text.substr(colon + 1));
  if (!major || !minor) return std::nullopt;
  return ::makedev(*major, *minor);
}

// "36 35 98:0 /root /mount/point options [more]... - type source options"
std::optional<Mount> mountFrom(std::string_view line) {
  constexpr std::size_t fixedWords = 6;
  const std::vector<std::string_view> words = wordsOf(line);
  if (words.size() < fixedWords) return std::nullopt;
  const auto dash = std::find(words.begin() + fixedWords, words.end(), "-");
  if (words.end() - dash < 3) return std::nullopt;
  const auto number = numberFrom(words[0]);
  const auto device = deviceFrom(words[2]);
  if (!number || !device) return std::nullopt;
  return Mount{.number = *number,
               .device = *device,
               .root = unescaped(words[3]),
               .mountPoint = unescaped(words[4]),
               .fileSystem = unescaped(*(dash + 1)),
               .source = unescaped(*(dash + 2))};
}

}  // namespace

std::vector<Mount> parseMounts(std::string_view text) {
  std::vector<Mount> found;
  while (!text.empty()) {
    const std::size_t length = std::min(text.find('\n'), text.size());
    if (std::optional<Mount> mount = mountFrom(text.substr(0, length))) found.push_back(std::move(*mount));
    text.remove_prefix(std::min(length + 1, text.size()));
  }
  return found;
}

std::vector<Mount> mounts() {
  std::ifstream file("/proc/self/mountinfo", std::ios::binary);
  return parseMounts(std::string(std::istreambuf_iterator<char>(file), {}));
}

std::optional<uint64_t> mountNumberOf(int descriptor) {
  struct statx facts = {};
  if (::statx(descriptor, "", AT_EMPTY_PATH, STATX_MNT_ID, &facts) != 0) return std::nullopt;
  if ((facts.stx_mask & STATX_MNT_ID) == 0) return std::nullopt;
  return facts.stx_mnt_id;
}

const Mount* mountWithNumber(const std::vector<Mount>& all, std::optional<uint64_t> number) {
  const auto found = std::ranges::find_if(all, [&](const Mount& mount) { return mount.number == number; });
  return found == all.end() ? nullptr : &*found;
}

}  // namespace platform
