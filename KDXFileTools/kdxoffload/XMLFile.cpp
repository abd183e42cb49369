#include "KDXFileTools/kdxoffload/XMLFile.h"

#include <fmt/format.h>

#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/XMLWriter.h"
#include "platform/Text.h"

namespace kdxoffload {

namespace {

// White space is text where there is nothing else: a file may be named so. A text is kept in its element, which halves the memory.
constexpr unsigned wanted = (pugi::parse_default | pugi::parse_ws_pcdata_single | pugi::parse_embed_pcdata);

// Elements and attributes take some sixty bytes each, however short they are written.
bool isMadeOfMarks(const std::string& bytes) {
  constexpr std::size_t bytesForMark = 8;
  constexpr std::size_t usual = 1000;  // few are harmless
  std::size_t marks = 0;
  for (std::size_t index = 0; index < bytes.size(); ++index) {
    const bool isAttribute =
        bytes[index] == '=' && index + 1 < bytes.size() && (bytes[index + 1] == '"' || bytes[index + 1] == '\'');
    if (bytes[index] == '<' || isAttribute) ++marks;
  }
  return marks > usual + bytes.size() / bytesForMark;
}

std::optional<std::string> objectionTo(const std::string& bytes) {
  if (bytes.size() > XMLFile::largest) return fmt::format("it is larger than {} MiB", XMLFile::largest >> 20);
  if (bytes.find('\0') != std::string::npos || !platform::isUTF8(bytes)) return "it is not text in UTF-8";
  if (isMadeOfMarks(bytes)) return "it has more elements than a list of files";
  return std::nullopt;
}

// What removes an element calls itself for each one in it: a million deep it would need more stack than there is.
class DepthCheck final : public pugi::xml_tree_walker {
 public:
  bool for_each(pugi::xml_node& /*node*/) override { return depth() < deepest; }

 private:
  static constexpr int deepest = 50;  // lists have six
};

bool isText(pugi::xml_node node) {
  return node.type() == pugi::node_pcdata || node.type() == pugi::node_cdata;
}

}  // namespace

std::optional<XMLFile> XMLFile::parse(std::string bytes, platform::ErrorPlace error) {
  const auto refuse = [error](std::string why) {
    platform::fail(error, listError(std::move(why)));
    return std::optional<XMLFile>();
  };
  if (auto objection = objectionTo(bytes)) return refuse(std::move(*objection));
  XMLFile file;
  file._bytes = std::make_unique<std::string>(std::move(bytes));
  file._document = std::make_unique<pugi::xml_document>();
  const pugi::xml_parse_result result =
      file._document->load_buffer_inplace(file._bytes->data(), file._bytes->size(), wanted, pugi::encoding_utf8);
  if (!result)
    return refuse(fmt::format("it is no well-formed XML: {} at byte {}", result.description(), result.offset));
  const pugi::xml_node root = file.root();
  DepthCheck check;
  if (!file._document->traverse(check)) return refuse("its elements stand too deep in one another");
  if (root.previous_sibling() || root.next_sibling()) return refuse("it has more than one element at its top");
  return file;
}

std::optional<std::string> XMLFile::textIn(pugi::xml_node element) {
  std::string text = element.value();
  for (const pugi::xml_node part : element.children()) {
    if (part.type() == pugi::node_element) return std::nullopt;
    if (isText(part)) text += part.value();
  }
  return XMLWriter::canHold(text) ? std::optional(std::move(text)) : std::nullopt;
}

}  // namespace kdxoffload
