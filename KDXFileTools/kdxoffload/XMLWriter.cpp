#include "KDXFileTools/kdxoffload/XMLWriter.h"

#include "platform/Text.h"

namespace kdxoffload {

namespace {

// The last two code points of the first plane are no characters.
bool holdsNoCharacter(std::string_view text) {
  return text.find("\xef\xbf\xbe") != std::string_view::npos || text.find("\xef\xbf\xbf") != std::string_view::npos;
}

bool isAllowed(char byte) {
  return static_cast<unsigned char>(byte) >= ' ' || byte == '\t' || byte == '\n' || byte == '\r';
}

// What stands in a document for the byte; none: the byte itself.
std::string_view referenceFor(char byte) {
  switch (byte) {
    case '&':
      return "&amp;";
    case '<':
      return "&lt;";
    case '>':
      return "&gt;";
    case '"':
      return "&quot;";
    case '\t':
      return "&#9;";
    case '\n':
      return "&#10;";
    case '\r':
      return "&#13;";
    default:
      return "";
  }
}

}  // namespace

XMLWriter::XMLWriter(Sink sink) : _sink(std::move(sink)) {
  _pending = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n";
}

bool XMLWriter::canHold(std::string_view text) {
  for (const char byte : text) {
    if (!isAllowed(byte)) return false;
  }
  return platform::isUTF8(text) && !holdsNoCharacter(text);
}

void XMLWriter::open(std::string_view name, const Attributes& attributes) {
  start(name, attributes);
  _pending += ">\n";
  _open.emplace_back(name);
}

void XMLWriter::close() {
  const std::string name = _open.back();
  _open.pop_back();
  indent();
  _pending.append("</").append(name).append(">\n");
}

void XMLWriter::element(std::string_view name, std::string_view text, const Attributes& attributes) {
  constexpr std::size_t usualPiece = 65'536;
  start(name, attributes);
  _pending += '>';
  escape(text);
  _pending.append("</").append(name).append(">\n");
  handOver(usualPiece);
}

void XMLWriter::finish() {
  while (!_open.empty()) close();
  handOver(0);
}

void XMLWriter::indent() {
  _pending.append(2 * _open.size(), ' ');
}

void XMLWriter::start(std::string_view name, const Attributes& attributes) {
  indent();
  _pending.append("<").append(name);
  for (const Attribute& attribute : attributes) {
    _pending.append(" ").append(attribute.name).append("=\"");
    escape(attribute.value);
    _pending += '"';
  }
}

void XMLWriter::escape(std::string_view text) {
  constexpr std::string_view replacement = "\xef\xbf\xbd";
  const bool isUTF8 = platform::isUTF8(text) && !holdsNoCharacter(text);
  for (const char byte : text) {
    const std::string_view reference = referenceFor(byte);
    const bool isHeld = isAllowed(byte) && (isUTF8 || static_cast<unsigned char>(byte) < 0x80);
    if (!isHeld) {
      _pending += replacement;
    } else if (reference.empty()) {
      _pending += byte;
    } else {
      _pending += reference;
    }
  }
}

void XMLWriter::handOver(std::size_t least) {
  if (_pending.size() < least) return;
  _sink(_pending);
  _pending.clear();
}

}  // namespace kdxoffload
