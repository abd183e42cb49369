#include "KDXFileTools/kdxoffload/HashListChain.h"

#include <fmt/format.h>

#include "KDXFileTools/kdxoffload/HashFormat.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/ListPath.h"
#include "KDXFileTools/kdxoffload/XMLFile.h"
#include "KDXFileTools/kdxoffload/XMLWriter.h"

namespace kdxoffload {

namespace {

constexpr std::string_view space = "urn:ASC:MHL:DIRECTORY:v2.0";

// None where the element is not the link of this number.
std::optional<HashListChain::Link> linkIn(pugi::xml_node element, std::size_t number) {
  const auto fileName = XMLFile::textIn(element.child("path"));
  const auto c4 = XMLFile::textIn(element.child("c4"));
  const bool isNext = element.attribute("sequencenr").value() == std::to_string(number);
  if (!isNext || !fileName || !c4 || !isListName(*fileName) || !hashValueFrom(HashFormat::c4, *c4)) return std::nullopt;
  return HashListChain::Link{.fileName = *fileName, .c4 = *c4};
}

}  // namespace

std::string HashListChain::text() const {
  std::string text;
  XMLWriter xml([&text](std::string_view bytes) { text += bytes; });
  xml.open("ascmhldirectory", {{.name = "xmlns", .value = std::string(space)}});
  for (std::size_t index = 0; index < links.size(); ++index) {
    xml.open("hashlist", {{.name = "sequencenr", .value = std::to_string(index + 1)}});
    xml.element("path", links[index].fileName);
    xml.element("c4", links[index].c4);
    xml.close();
  }
  xml.finish();
  return text;
}

std::optional<HashListChain> HashListChain::fromText(std::string bytes, platform::ErrorPlace error) {
  const auto refuse = [error](std::string why) {
    platform::fail(error, listError(std::move(why)));
    return std::optional<HashListChain>();
  };
  const std::optional<XMLFile> file = XMLFile::parse(std::move(bytes), error);
  if (!file) return std::nullopt;
  const pugi::xml_node root = file->root();
  if (std::string_view(root.name()) != "ascmhldirectory" || root.attribute("xmlns").value() != space) {
    return refuse("it is no chain of media hash lists");
  }
  HashListChain chain;
  for (const pugi::xml_node element : root.children("hashlist")) {
    const std::optional<Link> link = linkIn(element, chain.links.size() + 1);
    if (!link) return refuse(fmt::format("there is no list {} where it should be", chain.links.size() + 1));
    chain.links.push_back(*link);
  }
  return chain;
}

}  // namespace kdxoffload
