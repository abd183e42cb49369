#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

// A numbered run of files, one per frame, given by one text, the sequence identifier:
//
//   prefix, start frame, one or more "-", end frame, one separator, a run of "#" (one per digit), postfix
//
//   /data/shot/plate.1001-1100.####.dpx  is  /data/shot/plate.1001.dpx ... /data/shot/plate.1100.dpx
//
// Other texts with a "#" are accepted too, with whatever the rules of parsing make of them. A sequence does not change, and
// never looks at the disk. Its texts are UTF-8, but the rules count UTF-16 code units: callers rely on where they cut.
class KDXFileSequence {
 public:
  // An empty sequence: prefix, postfix and identifier empty, both frames and the number of digits 0.
  static std::shared_ptr<KDXFileSequence> init();

  // Null when the identifier has no "#", after a line on standard output that says so. Null without a line when the
  // identifier is not UTF-8.
  static std::shared_ptr<const KDXFileSequence> initWithIdentifier(std::string_view identifier);

  [[nodiscard]] const std::string& identifier() const { return mIdentifier; }
  [[nodiscard]] int64_t startFrame() const { return mStartFrame; }
  [[nodiscard]] int64_t endFrameInclusive() const { return mEndFrameInclusive; }

  // Number of files, modulo 2^64: an end before the start gives a huge one.
  [[nodiscard]] uint64_t duration() const;

  // Empty if the rules cut a character in half.
  [[nodiscard]] std::string prefix() const;
  [[nodiscard]] std::string postfix() const;
  [[nodiscard]] int32_t numberOfDigits() const { return mNumberOfDigits; }

  // The path of a frame's file. None when the frame is not in the range (all compared as unsigned numbers), after a line on
  // standard output that says so. Prefix and postfix are part of a printf pattern with the frame as its only argument: none
  // also when they do not give a path, because a "%" asks for anything else, a character is cut in half, or a width is longer
  // than any path.
  [[nodiscard]] std::optional<std::string> filenameForFrameNumber(uint64_t frame) const;

  // The same by position: index 0 is the start frame.
  [[nodiscard]] std::optional<std::string> filenameForIndex(uint64_t index) const;

 private:
  KDXFileSequence() = default;
  void countDigits(const std::u16string& identifier, std::size_t lastHash);
  void parseRange(const std::u16string& identifier, std::size_t lastHash);

  std::u16string mPrefix;
  std::u16string mPostfix;
  std::string mIdentifier;
  int64_t mStartFrame = 0;
  int64_t mEndFrameInclusive = 0;
  int32_t mNumberOfDigits = 0;
};
