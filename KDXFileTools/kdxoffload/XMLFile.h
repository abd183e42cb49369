#pragma once

#include <memory>
#include <optional>
#include <pugixml.hpp>
#include <string>

#include "platform/Error.h"

namespace kdxoffload {

// An XML document that somebody else may have written. What it takes of memory is bounded by its size, and nothing in it is ever
// fetched or expanded. Move only.
class XMLFile {
 public:
  static constexpr std::size_t largest = std::size_t{256} << 20;  // bytes: some 800,000 files

  // None, and an error with listErrorDomain, where the bytes are no such document, are too many, or are made to take a lot
  // of memory or stack.
  static std::optional<XMLFile> parse(std::string bytes, platform::ErrorPlace error);

  // Its one element.
  [[nodiscard]] pugi::xml_node root() const { return _document->document_element(); }

  // The whole text in the element; none where there are elements in it, or what XML can't hold.
  static std::optional<std::string> textIn(pugi::xml_node element);

 private:
  XMLFile() = default;
  // Both stay where they are: the document refers to the bytes.
  std::unique_ptr<std::string> _bytes;
  std::unique_ptr<pugi::xml_document> _document;
};

}  // namespace kdxoffload
