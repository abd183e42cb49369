#include "KDXFileTools/kdxoffload/HashListWriter.h"

#include <algorithm>

#include "KDXFileTools/kdxoffload/DateTime.h"
#include "KDXFileTools/kdxoffload/HashListNames.h"

namespace kdxoffload {

namespace {

using Attributes = XMLWriter::Attributes;

void addTime(Attributes& attributes, std::string_view name, const std::optional<int64_t>& time) {
  if (time) attributes.push_back({.name = name, .value = DateTime::text(*time)});
}

void write(XMLWriter& xml, const HashList::Hash& hash) {
  Attributes attributes;
  if (hash.action != HashList::Action::none) {
    attributes.push_back({.name = "action", .value = std::string(HashListNames::nameOf(hash.action))});
  }
  addTime(attributes, "hashdate", hash.hashed);
  xml.element(nameOf(hash.format), hash.value, attributes);
}

void write(XMLWriter& xml, const HashList::Hashes& hashes) {
  const bool isInOrder = std::ranges::is_sorted(hashes, {}, &HashList::Hash::format);
  HashList::Hashes sorted;
  if (!isInOrder) {
    sorted = hashes;
    std::ranges::stable_sort(sorted, {}, &HashList::Hash::format);
  }
  for (const HashList::Hash& hash : isInOrder ? hashes : sorted) write(xml, hash);
}

void write(XMLWriter& xml, const HashList::FolderHashes& hashes) {
  xml.open("content");
  write(xml, hashes.content);
  xml.close();
  xml.open("structure");
  write(xml, hashes.structure);
  xml.close();
}

void write(XMLWriter& xml, const HashList::File& file) {
  Attributes attributes;
  if (file.size) attributes.push_back({.name = "size", .value = std::to_string(*file.size)});
  addTime(attributes, "creationdate", file.created);
  addTime(attributes, "lastmodificationdate", file.modified);
  xml.open("hash");
  xml.element("path", file.path, attributes);
  write(xml, file.hashes);
  xml.close();
}

void write(XMLWriter& xml, const HashList::Folder& folder) {
  Attributes attributes;
  addTime(attributes, "lastmodificationdate", folder.modified);
  xml.open("directoryhash");
  xml.element("path", folder.path, attributes);
  write(xml, folder.hashes);
  xml.close();
}

void write(XMLWriter& xml, const HashList::Creator& creator) {
  xml.open("creatorinfo");
  xml.element("creationdate", DateTime::text(creator.created));
  xml.element("hostname", creator.host);
  xml.element("tool", creator.tool, {{.name = "version", .value = creator.toolVersion}});
  xml.close();
}

void writeProcess(XMLWriter& xml, const HashList& list) {
  xml.open("processinfo");
  xml.element("process", HashListNames::nameOf(list.process));
  if (list.root) {
    xml.open("roothash");
    write(xml, *list.root);
    xml.close();
  }
  if (!list.ignored.empty()) {
    xml.open("ignore");
    for (const std::string& pattern : list.ignored) xml.element("pattern", pattern);
    xml.close();
  }
  xml.close();
}

// An empty one is against the standard.
void writeHashes(XMLWriter& xml, const HashList& list) {
  if (list.files.empty() && list.folders.empty()) return;
  xml.open("hashes");
  for (const HashList::File& file : list.files) write(xml, file);
  for (const HashList::Folder& folder : list.folders) write(xml, folder);
  xml.close();
}

void writeReferences(XMLWriter& xml, const HashList& list) {
  if (list.references.empty()) return;
  xml.open("references");
  for (const HashList::Reference& reference : list.references) {
    xml.open("hashlistreference");
    xml.element("path", reference.path);
    xml.element("c4", reference.c4);
    xml.close();
  }
  xml.close();
}

}  // namespace

void writeHashList(const HashList& list, const XMLWriter::Sink& sink) {
  XMLWriter xml(sink);
  xml.open("hashlist", {{.name = "version", .value = std::string(HashListNames::version)},
                        {.name = "xmlns", .value = std::string(HashListNames::space)}});
  write(xml, list.creator);
  writeProcess(xml, list);
  writeHashes(xml, list);
  writeReferences(xml, list);
  xml.finish();
}

}  // namespace kdxoffload
