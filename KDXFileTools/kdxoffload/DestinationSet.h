#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

namespace kdxoffload {

// Some of the destinations of an offload, by their positions on the command line. A plain value of eight bytes.
class DestinationSet {
 public:
  static constexpr std::size_t most = 64;  // destinations of one offload; the command line refuses more

  DestinationSet() = default;
  // The first `count` destinations.
  static DestinationSet all(std::size_t count) {
    return DestinationSet(count >= most ? ~uint64_t{0} : (uint64_t{1} << count) - 1);
  }
  static DestinationSet only(std::size_t position) { return DestinationSet(uint64_t{1} << position); }
  static DestinationSet fromBits(uint64_t bits) { return DestinationSet(bits); }

  void insert(std::size_t position) { _bits |= uint64_t{1} << position; }
  [[nodiscard]] bool contains(std::size_t position) const { return (_bits >> position & 1) != 0; }
  [[nodiscard]] bool empty() const { return _bits == 0; }
  [[nodiscard]] std::size_t size() const { return static_cast<std::size_t>(std::popcount(_bits)); }
  [[nodiscard]] uint64_t bits() const { return _bits; }
  [[nodiscard]] DestinationSet with(DestinationSet other) const { return DestinationSet(_bits | other._bits); }
  [[nodiscard]] DestinationSet without(DestinationSet other) const { return DestinationSet(_bits & ~other._bits); }
  bool operator==(const DestinationSet&) const = default;

 private:
  explicit DestinationSet(uint64_t bits) : _bits(bits) {}
  uint64_t _bits = 0;
};

}  // namespace kdxoffload
