#include "KDXFileTools/kdxoffload/HashListReader.h"

#include <fmt/format.h>

#include <charconv>

#include "KDXFileTools/kdxoffload/DateTime.h"
#include "KDXFileTools/kdxoffload/HashListNames.h"
#include "KDXFileTools/kdxoffload/ListError.h"
#include "KDXFileTools/kdxoffload/ListPath.h"
#include "KDXFileTools/kdxoffload/ShownName.h"
#include "KDXFileTools/kdxoffload/XMLFile.h"

namespace kdxoffload {

namespace {

using pugi::xml_node;

// Reads the one list. Once something is wrong with it the first reason stays, and what is read after that counts for nothing.
class Reader {
 public:
  std::optional<HashList> read(xml_node root);
  [[nodiscard]] const std::string& problem() const { return _problem; }

 private:
  void refuse(std::string why) {
    if (_problem.empty()) _problem = std::move(why);
  }
  std::string textIn(xml_node element);
  std::string pathIn(xml_node element);
  std::optional<int64_t> timeIn(xml_node element, const char* attribute);
  HashList::Hash hashIn(HashFormat format, xml_node element);
  HashList::Hashes hashesIn(xml_node element);
  HashList::FolderHashes folderHashesIn(xml_node element);
  HashList::File fileIn(xml_node element);
  HashList::Folder folderIn(xml_node element);
  void readCreator(xml_node element);
  void readProcess(xml_node element);
  void readHashes(xml_node element);
  void readReferences(xml_node element);

  HashList _list;
  std::string _problem;
};

std::string Reader::textIn(xml_node element) {
  std::optional<std::string> text = XMLFile::textIn(element);
  if (!text) refuse(fmt::format("what is in a \"{}\" is no text", shownName(element.name())));
  return std::move(text).value_or("");
}

std::string Reader::pathIn(xml_node element) {
  std::string path = textIn(element.child("path"));
  if (!isListPath(path))
    refuse(fmt::format("the path \"{}\" does not lead to something in the folder", shownName(path)));
  return path;
}

// A time that makes no sense is none: nothing is proved by it.
std::optional<int64_t> Reader::timeIn(xml_node element, const char* attribute) {
  return DateTime::fromText(element.attribute(attribute).value());
}

HashList::Hash Reader::hashIn(HashFormat format, xml_node element) {
  const std::string text = textIn(element);
  const std::optional<std::string> value = hashValueFrom(format, text);
  if (!value) refuse(fmt::format("\"{}\" is no {} digest", shownName(text), nameOf(format)));
  const std::string_view word = element.attribute("action").value();
  const auto action = HashListNames::valueFor<HashList::Action>(HashListNames::actions, word);
  if (!action) refuse(fmt::format("there is no action \"{}\"", shownName(word)));
  return {.format = format,
          .value = value.value_or(""),
          .action = action.value_or(HashList::Action::none),
          .hashed = timeIn(element, "hashdate")};
}

HashList::Hashes Reader::hashesIn(xml_node element) {
  HashList::Hashes hashes;
  for (const xml_node child : element.children()) {
    if (const auto format = hashFormatFrom(child.name())) hashes.push_back(hashIn(*format, child));
  }
  return hashes;
}

HashList::FolderHashes Reader::folderHashesIn(xml_node element) {
  return {.content = hashesIn(element.child("content")), .structure = hashesIn(element.child("structure"))};
}

HashList::File Reader::fileIn(xml_node element) {
  const xml_node path = element.child("path");
  HashList::File file{.path = pathIn(element),
                      .size = std::nullopt,
                      .created = timeIn(path, "creationdate"),
                      .modified = timeIn(path, "lastmodificationdate"),
                      .hashes = hashesIn(element)};
  if (file.hashes.empty()) refuse(fmt::format("\"{}\" has no digest", shownName(file.path)));
  const std::string_view size = path.attribute("size").value();
  uint64_t bytes = 0;
  const auto end = std::from_chars(size.data(), size.data() + size.size(), bytes);
  if (size.empty()) return file;
  if (end.ec != std::errc() || end.ptr != size.data() + size.size()) {
    refuse(fmt::format("\"{}\" is no size", shownName(size)));
  }
  file.size = bytes;
  return file;
}

HashList::Folder Reader::folderIn(xml_node element) {
  return {.path = pathIn(element),
          .modified = timeIn(element.child("path"), "lastmodificationdate"),
          .hashes = folderHashesIn(element)};
}

void Reader::readCreator(xml_node element) {
  const xml_node tool = element.child("tool");
  _list.creator = {.created = DateTime::fromText(textIn(element.child("creationdate"))).value_or(0),
                   .host = textIn(element.child("hostname")),
                   .tool = textIn(tool),
                   .toolVersion = tool.attribute("version").value()};
}

void Reader::readProcess(xml_node element) {
  const std::string word = textIn(element.child("process"));
  const auto process = HashListNames::valueFor<HashList::Process>(HashListNames::processes, word);
  if (!process) return refuse(fmt::format("there is no process \"{}\"", shownName(word)));
  _list.process = *process;
  if (const xml_node root = element.child("roothash")) _list.root = folderHashesIn(root);
  for (const xml_node pattern : element.child("ignore").children("pattern")) {
    _list.ignored.push_back(textIn(pattern));
  }
}

// What was read is dropped from the document at once: the list and the document shall not both be whole in memory.
void Reader::readHashes(xml_node element) {
  while (const xml_node first = element.first_child()) {
    const std::string_view name = first.name();
    if (name == "hash") _list.files.push_back(fileIn(first));
    if (name == "directoryhash") _list.folders.push_back(folderIn(first));
    if (!_problem.empty()) return;
    element.remove_child(first);
  }
}

void Reader::readReferences(xml_node element) {
  for (const xml_node child : element.children("hashlistreference")) {
    HashList::Reference reference{.path = pathIn(child), .c4 = textIn(child.child("c4"))};
    if (!hashValueFrom(HashFormat::c4, reference.c4)) refuse("a reference has no C4 digest");
    _list.references.push_back(std::move(reference));
  }
}

std::optional<HashList> Reader::read(xml_node root) {
  const bool isHashList =
      std::string_view(root.name()) == "hashlist" && root.attribute("xmlns").value() == HashListNames::space;
  if (!isHashList || root.attribute("version").value() != HashListNames::version)
    refuse("it is no media hash list 2.0");
  if (!root.child("creatorinfo") || !root.child("processinfo")) refuse("the list does not say where it is from");
  if (!_problem.empty()) return std::nullopt;
  readCreator(root.child("creatorinfo"));
  readProcess(root.child("processinfo"));
  readHashes(root.child("hashes"));
  readReferences(root.child("references"));
  return _problem.empty() ? std::optional(std::move(_list)) : std::nullopt;
}

}  // namespace

std::optional<HashList> readHashList(std::string bytes, platform::ErrorPlace error) {
  const std::optional<XMLFile> file = XMLFile::parse(std::move(bytes), error);
  if (!file) return std::nullopt;
  Reader reader;
  std::optional<HashList> list = reader.read(file->root());
  if (!list) platform::fail(error, listError(reader.problem()));
  return list;
}

}  // namespace kdxoffload
