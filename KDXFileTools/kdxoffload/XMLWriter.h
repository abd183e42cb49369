#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace kdxoffload {

// Writes an XML 1.0 document in UTF-8, piece by piece: a hundred thousand files never stand in memory as a tree. Tab, newline and
// return in texts and attributes are written as references, so that no reader makes blanks or one newline of them. Used by one thread.
class XMLWriter {
 public:
  // Gets the bytes, in order, in pieces of some size.
  using Sink = std::function<void(std::string_view)>;
  struct Attribute {
    std::string_view name;
    std::string value{};
  };
  using Attributes = std::vector<Attribute>;

  explicit XMLWriter(Sink sink);
  // What was not closed stays open, and what was not finished is lost.
  ~XMLWriter() = default;
  XMLWriter(const XMLWriter&) = delete;
  XMLWriter& operator=(const XMLWriter&) = delete;

  // An element with elements in it.
  void open(std::string_view name, const Attributes& attributes = {});
  void close();
  // An element with a text. What XML can't hold is replaced by U+FFFD: ask canHold for names before.
  void element(std::string_view name, std::string_view text, const Attributes& attributes = {});
  // Closes all that is open and hands over the rest.
  void finish();

  // True when XML 1.0 has a way to write the text: UTF-8 without control characters but tab, newline and return.
  static bool canHold(std::string_view text);

 private:
  void indent();
  void start(std::string_view name, const Attributes& attributes);
  void escape(std::string_view text);
  void handOver(std::size_t least);

  Sink _sink;
  std::string _pending;
  std::vector<std::string> _open;
};

}  // namespace kdxoffload
