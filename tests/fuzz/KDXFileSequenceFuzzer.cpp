// The identifier of a sequence: all of the input except its last line, which is the number of a frame, and of an index.

#include <algorithm>
#include <array>
#include <optional>
#include <string>

#include "Fuzz.h"
#include "KDXFileTools/kdxdispatchcopy/KDXFileSequence.h"
#include "platform/Text.h"

namespace {

// Longer than any path that the system accepts. A name has two texts of the identifier and some directives of this width.
constexpr std::size_t longestPath = 4096;

void requireSame(const KDXFileSequence& one, const KDXFileSequence& other) {
  require(one.prefix() == other.prefix() && one.postfix() == other.postfix() &&
              one.startFrame() == other.startFrame() && one.endFrameInclusive() == other.endFrameInclusive() &&
              one.numberOfDigits() == other.numberOfDigits(),
          "the same identifier gives the same sequence");
}

void requireFields(const KDXFileSequence& sequence, std::string_view identifier) {
  const auto fitsFrame = [](int64_t frame) { return frame == static_cast<int32_t>(frame); };
  require(sequence.identifier() == identifier, "the identifier is as it was given");
  require(identifier.starts_with(sequence.prefix()), "the prefix is the start of the identifier");
  require(identifier.ends_with(sequence.postfix()), "the postfix is the end of the identifier");
  require(sequence.postfix().find('#') == std::string::npos, "the postfix is behind every hash");
  require(fitsFrame(sequence.startFrame()) && fitsFrame(sequence.endFrameInclusive()), "frames have 32 bits");
  require(sequence.numberOfDigits() >= 0 && sequence.numberOfDigits() <= std::ranges::count(identifier, '#'),
          "there are no more digits than hashes");
  require(sequence.duration() == static_cast<uint64_t>(sequence.endFrameInclusive() - sequence.startFrame() + 1),
          "the duration is the number of frames from the first to the last");
}

// The name of a frame if the texts around its number are plain: both texts with the number in between. It has as many digits
// as there are hashes; a sign counts as a digit.
std::string plainName(const KDXFileSequence& sequence, int32_t frame) {
  std::string number = std::to_string(frame);
  const auto width = static_cast<std::size_t>(sequence.numberOfDigits());
  if (number.size() < width) number.insert(frame < 0 ? 1 : 0, width - number.size(), '0');
  return sequence.prefix() + number + sequence.postfix();
}

bool isUsable(std::string_view text) {
  return text.find('\0') == std::string_view::npos;
}

// True if no text was cut within a character, which would make it empty.
bool isWhole(const KDXFileSequence& sequence, std::string_view identifier) {
  const std::size_t lastHash = identifier.rfind('#');
  const bool postfixIsWhole = sequence.postfix() == identifier.substr(lastHash + 1);
  // Between the prefix and the hashes are digits, dashes and one separator, which may be half a character.
  return postfixIsWhole && !sequence.prefix().empty();
}

void requireName(const KDXFileSequence& sequence, uint64_t frame, std::string_view identifier) {
  const std::optional<std::string> name = sequence.filenameForFrameNumber(frame);
  require(name == sequence.filenameForFrameNumber(frame), "a frame has one name");
  require(name == sequence.filenameForIndex(frame - static_cast<uint64_t>(sequence.startFrame())),
          "a frame has the same name by its index");
  const bool isInRange = frame >= static_cast<uint64_t>(sequence.startFrame()) &&
                         frame <= static_cast<uint64_t>(sequence.endFrameInclusive());
  require(isInRange || !name, "frames out of range have no name");
  const bool isPlain = identifier.find('%') == std::string_view::npos;
  if (isPlain && isInRange && isWhole(sequence, identifier) && isUsable(sequence.prefix()) &&
      isUsable(sequence.postfix()) && sequence.numberOfDigits() <= static_cast<int32_t>(longestPath)) {
    require(name.has_value(), "every frame in range has a name");
  }
  if (!name) return;
  require(isUsable(*name) && platform::isUTF8(*name), "a name is text that the system takes");
  const auto directives = static_cast<std::size_t>(std::ranges::count(identifier, '%')) + 1;
  require(name->size() <= identifier.size() + directives * longestPath, "a name is no longer than it was asked for");
  if (isPlain) require(*name == plainName(sequence, static_cast<int32_t>(frame)), "a name is made of the identifier");
}

uint64_t numberIn(std::string_view text) {
  constexpr int decimal = 10;
  return std::strtoull(std::string(text).c_str(), nullptr, decimal);
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
  const std::string_view input = textOf(data, size);
  const std::string_view identifier = input.substr(0, input.rfind('\n'));
  const uint64_t number = numberIn(input.substr(std::min(identifier.size() + 1, input.size())));
  const auto sequence = KDXFileSequence::initWithIdentifier(identifier);
  const bool isIdentifier = platform::isUTF8(identifier) && identifier.find('#') != std::string_view::npos;
  require((sequence != nullptr) == isIdentifier, "there is a sequence for every text with a hash");
  if (!sequence) return 0;
  requireSame(*sequence, *KDXFileSequence::initWithIdentifier(identifier));
  requireFields(*sequence, identifier);
  const auto start = static_cast<uint64_t>(sequence->startFrame());
  const auto end = static_cast<uint64_t>(sequence->endFrameInclusive());
  for (const uint64_t frame : std::array{start, end, start - 1, end + 1, number, start + number}) {
    requireName(*sequence, frame, identifier);
  }
  return 0;
}
