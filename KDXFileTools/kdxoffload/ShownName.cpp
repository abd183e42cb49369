#include "KDXFileTools/kdxoffload/ShownName.h"

#include <fmt/format.h>
#include <utf8proc.h>

#include <iterator>
#include <optional>
#include <vector>

namespace kdxoffload {

namespace {

constexpr std::string_view ellipsis = "\xE2\x80\xA6";

struct Character {
  utf8proc_int32_t codePoint = 0;
  std::size_t length = 0;  // bytes
};

// The one that the text begins with; none where it is not UTF-8.
std::optional<Character> firstCharacter(std::string_view text) {
  Character first;
  const auto* bytes = reinterpret_cast<const utf8proc_uint8_t*>(text.data());
  const auto used = utf8proc_iterate(bytes, static_cast<utf8proc_ssize_t>(text.size()), &first.codePoint);
  if (used <= 0) return std::nullopt;
  first.length = static_cast<std::size_t>(used);
  return first;
}

// It is drawn over the character before it.
bool isMark(utf8proc_int32_t codePoint) {
  const utf8proc_category_t category = utf8proc_category(codePoint);
  return category == UTF8PROC_CATEGORY_MN || category == UTF8PROC_CATEGORY_ME;
}

// Spaces that look like the common one are shown by their bytes: two names that differ must not look the same.
bool isBlankOfItsOwn(utf8proc_int32_t codePoint) {
  constexpr utf8proc_int32_t ideographicSpace = 0x3000;  // as wide as the signs around it
  return utf8proc_category(codePoint) == UTF8PROC_CATEGORY_ZS && codePoint != ' ' && codePoint != ideographicSpace;
}

bool isPrinted(utf8proc_int32_t codePoint) {
  if (utf8proc_get_property(codePoint)->ignorable || isBlankOfItsOwn(codePoint)) return false;
  switch (utf8proc_category(codePoint)) {
    case UTF8PROC_CATEGORY_CC:  // controls
    case UTF8PROC_CATEGORY_CF:  // invisible, among them those that turn the direction of the text
    case UTF8PROC_CATEGORY_CN:  // not assigned: nobody knows how wide
    case UTF8PROC_CATEGORY_CO:  // of private use: the same
    case UTF8PROC_CATEGORY_CS:
    case UTF8PROC_CATEGORY_ZL:  // separators of lines and paragraphs
    case UTF8PROC_CATEGORY_ZP:
      return false;
    default:
      return true;
  }
}

std::size_t columnsOfCharacter(utf8proc_int32_t codePoint) {
  if (isMark(codePoint)) return 0;
  const int columns = utf8proc_charwidth(codePoint);
  return columns > 1 ? static_cast<std::size_t>(columns) : 1;
}

void appendBytes(std::string& shown, std::string_view bytes) {
  for (const char byte : bytes) {
    fmt::format_to(std::back_inserter(shown), "\\x{:02x}", static_cast<unsigned char>(byte));
  }
}

// As many marks as letters of living languages have over one another. More would reach into other lines.
constexpr std::size_t mostMarks = 4;

std::string shown(std::string_view text, bool doublesBackslashes) {
  std::string result;
  std::size_t marksLeft = 0;  // none at the beginning: a mark there would be drawn over what stands before the text
  while (!text.empty()) {
    const auto first = firstCharacter(text);
    const std::string_view bytes = text.substr(0, first ? first->length : 1);
    text.remove_prefix(bytes.size());
    const bool mark = first && isMark(first->codePoint);
    const bool printed = first && isPrinted(first->codePoint) && (!mark || marksLeft > 0);
    if (printed) {
      result += bytes;
      if (doublesBackslashes && bytes == "\\") result += bytes;
      marksLeft = mark ? marksLeft - 1 : mostMarks;
    } else {
      appendBytes(result, bytes);
      marksLeft = 0;
    }
  }
  return result;
}

// What is never cut apart: a character with its marks, or the bytes of one that is not printed.
struct Piece {
  std::string_view text{};
  std::size_t columns = 0;
};

bool isShownByte(std::string_view text) {
  constexpr std::string_view digits = "0123456789abcdef";
  return text.size() >= 4 && text.starts_with("\\x") && digits.find(text[2]) != digits.npos &&
         digits.find(text[3]) != digits.npos;
}

Piece firstPiece(std::string_view text) {
  if (isShownByte(text)) return {.text = text.substr(0, 4), .columns = 4};
  if (text.starts_with("\\\\")) return {.text = text.substr(0, 2), .columns = 2};
  const Character base = firstCharacter(text).value_or(Character{.codePoint = '?', .length = 1});
  std::size_t length = base.length;
  for (auto next = firstCharacter(text.substr(length)); next && isMark(next->codePoint);
       next = firstCharacter(text.substr(length))) {
    length += next->length;
  }
  return {.text = text.substr(0, length), .columns = columnsOfCharacter(base.codePoint)};
}

std::vector<Piece> piecesOf(std::string_view text) {
  std::vector<Piece> pieces;
  while (!text.empty()) {
    pieces.push_back(firstPiece(text));
    text.remove_prefix(pieces.back().text.size());
  }
  return pieces;
}

// How many bytes the pieces have that fit into so many columns, one after the other.
template <typename Pieces>
std::size_t bytesThatFit(const Pieces& pieces, std::size_t columns) {
  std::size_t bytes = 0;
  for (const Piece& piece : pieces) {
    if (piece.columns > columns) break;
    columns -= piece.columns;
    bytes += piece.text.size();
  }
  return bytes;
}

}  // namespace

std::string shownName(std::string_view name) {
  return shown(name, true);
}

std::string shownText(std::string_view text) {
  return shown(text, false);
}

std::size_t columnsOf(std::string_view shown) {
  std::size_t columns = 0;
  for (const Piece& piece : piecesOf(shown)) columns += piece.columns;
  return columns;
}

std::string cutInTheMiddle(std::string_view shown, std::size_t columns) {
  if (columnsOf(shown) <= columns) return std::string(shown);
  if (columns == 0) return "";
  const std::size_t room = columns - 1;  // beside the ellipsis
  const std::vector<Piece> pieces = piecesOf(shown);
  const std::size_t forHead = room * 2 / 5;  // more stays of the end, where clips of one take differ
  const std::size_t head = bytesThatFit(pieces, forHead);
  const std::vector<Piece> fromTheEnd(pieces.rbegin(), pieces.rend());
  const std::size_t tail = bytesThatFit(fromTheEnd, room - forHead);
  std::string cut(shown.substr(0, head));
  cut += ellipsis;
  cut += shown.substr(shown.size() - tail);
  return cut;
}

}  // namespace kdxoffload
