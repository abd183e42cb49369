#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"

#include <fmt/printf.h>

#include <algorithm>
#include <exception>
#include <limits>

#include "platform/Log.h"
#include "platform/Text.h"

namespace {

constexpr char16_t hash = u'#';

// In characters. Formatting a longer width or precision would only use up memory.
constexpr uint64_t longestPath = 4096;

template <typename IsStripped>
void stripTrailing(std::u16string& text, IsStripped isStripped) {
  while (!text.empty() && isStripped(text.back())) text.pop_back();
}

// The number at the start of the text: white space, an optional sign, ASCII digits. A number beyond 32 bits becomes the
// limit. Without digits it is 0.
int32_t intValue(std::u16string_view text) {
  constexpr int64_t largest = std::numeric_limits<int32_t>::max();
  constexpr int64_t smallest = std::numeric_limits<int32_t>::min();
  std::size_t next = 0;
  while (next < text.size() && (text[next] == u' ' || (text[next] >= u'\t' && text[next] <= u'\r'))) ++next;
  const bool negative = next < text.size() && text[next] == u'-';
  if (negative || (next < text.size() && text[next] == u'+')) ++next;
  int64_t value = 0;
  for (; next < text.size() && text[next] >= u'0' && text[next] <= u'9'; ++next) {
    value = std::min(value * 10 + (text[next] - u'0'), largest + 1);
  }
  return static_cast<int32_t>(std::clamp(negative ? -value : value, smallest, largest));
}

// True when a directive of the pattern asks for more characters than a path has.
bool asksForTooMuch(std::string_view pattern) {
  for (std::size_t percent = pattern.find('%'); percent != std::string_view::npos;) {
    // "%%" is a whole directive; plain text follows.
    if (pattern.substr(percent).starts_with("%%")) {
      percent = pattern.find('%', percent + 2);
      continue;
    }
    uint64_t number = 0;
    for (const char c : pattern.substr(percent + 1)) {
      const bool isDigit = c >= '0' && c <= '9';
      if (!isDigit && std::string_view("+- #.$*").find(c) == std::string_view::npos) break;
      number = isDigit ? number * 10 + static_cast<uint64_t>(c - '0') : 0;
      if (number > longestPath) return true;
    }
    percent = pattern.find('%', percent + 1);
  }
  return false;
}

}  // namespace

std::shared_ptr<KDXFileSequence> KDXFileSequence::init() {
  return std::shared_ptr<KDXFileSequence>(new KDXFileSequence);
}

std::shared_ptr<const KDXFileSequence> KDXFileSequence::initWithIdentifier(std::string_view identifier) {
  const std::optional<std::u16string> text = platform::UTF16FromUTF8(identifier);
  if (!text) return nullptr;
  const std::shared_ptr<KDXFileSequence> sequence = init();
  sequence->mIdentifier = identifier;
  const std::size_t lastHash = text->rfind(hash);
  if (lastHash == std::u16string::npos) {
    platform::printAndWait("ERROR: Wrong arguments - missing hashes in identifier.\n");
    return nullptr;
  }
  sequence->countDigits(*text, lastHash);
  sequence->parseRange(*text, lastHash);
  return sequence;
}

// The loop never reaches the character at index 0: if the text is all hashes up to the last "#", the number of digits is 0.
// Callers rely on the names that this gives.
void KDXFileSequence::countDigits(const std::u16string& identifier, std::size_t lastHash) {
  for (std::size_t position = lastHash; position >= 1; --position) {
    if (identifier[position] == hash) continue;
    mNumberOfDigits = static_cast<int32_t>(lastHash - position);
    return;
  }
}

void KDXFileSequence::parseRange(const std::u16string& identifier, std::size_t lastHash) {
  const auto isDecimalDigit = [](char16_t unit) { return platform::isDecimalDigit(unit); };
  const auto numberBehind = [&identifier](const std::u16string& head) {
    return intValue(std::u16string_view(identifier).substr(head.size()));
  };
  // Leaves out the run of hashes and the one character before it, the separator, whatever it is. If that is a digit of the
  // end frame, the digit still counts, because numbers are read from the whole identifier.
  std::u16string head = identifier.substr(0, lastHash - static_cast<std::size_t>(mNumberOfDigits));
  stripTrailing(head, isDecimalDigit);
  mEndFrameInclusive = numberBehind(head);
  stripTrailing(head, [](char16_t unit) { return unit == u'-'; });
  stripTrailing(head, isDecimalDigit);
  mStartFrame = numberBehind(head);
  mPrefix = head;
  mPostfix = identifier.substr(lastHash + 1);
}

uint64_t KDXFileSequence::duration() const {
  return static_cast<uint64_t>(mEndFrameInclusive) + 1 - static_cast<uint64_t>(mStartFrame);
}

std::string KDXFileSequence::prefix() const {
  return platform::UTF8FromUTF16(mPrefix).value_or("");
}

std::string KDXFileSequence::postfix() const {
  return platform::UTF8FromUTF16(mPostfix).value_or("");
}

std::optional<std::string> KDXFileSequence::filenameForFrameNumber(uint64_t frame) const {
  if (frame < static_cast<uint64_t>(mStartFrame) || frame > static_cast<uint64_t>(mEndFrameInclusive)) {
    platform::printAndWait("ERROR: framenumber not in range of sequence.\n");
    return std::nullopt;
  }
  const std::optional<std::string> prefixText = platform::UTF8FromUTF16(mPrefix);
  const std::optional<std::string> postfixText = platform::UTF8FromUTF16(mPostfix);
  if (!prefixText || !postfixText) return std::nullopt;
  const std::string pattern = fmt::format("{}%0{}i{}", *prefixText, mNumberOfDigits, *postfixText);
  if (asksForTooMuch(pattern)) return std::nullopt;
  try {
    const std::string path = fmt::sprintf(pattern, static_cast<int32_t>(frame));
    const bool isPath = path.find('\0') == std::string::npos && platform::isUTF8(path);
    return isPath ? std::optional(path) : std::nullopt;
  } catch (const std::exception&) {
    return std::nullopt;
  }
}

std::optional<std::string> KDXFileSequence::filenameForIndex(uint64_t index) const {
  return filenameForFrameNumber(index + static_cast<uint64_t>(mStartFrame));
}
