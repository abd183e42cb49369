#include "tests/support/ClipOffload.h"

#include <functional>
#include <map>
#include <utility>

#include "tests/support/ExpectedText.h"

namespace {

constexpr std::pair<const char*, const char*> lineWords[] = {
    {"{started}", started},
    {"{hashed}", hashed},
    {"{sizeChecked}", sizeChecked},
    {"{bothReadBack}", bothReadBack},
    {"{moving}", moving},
    {"{flushing}", flushing},
    {"{closing}", closing},
    {"{movedAndFlushed}", movedAndFlushed},
    {"{notMovedLines}", notMovedLines},
    {"{invalid}", invalid},
};

}  // namespace

ClipOffload::ClipOffload(std::size_t size, const std::string& clipName)
    : bytes(mediaBytes(size)),
      source(scratch.file("card/" + clipName)),
      destination(scratch.file("backup/" + clipName)) {
  writeFile(source, bytes);
}

std::string ClipOffload::digestBy(const std::string& program) const {
  // Digests a copy with a plain name, because shells and programs stumble over some names.
  const ScratchDirectory folder;
  writeFile(folder.file("clip"), bytes);
  return digestByProgram(program, folder.file("clip"));
}

std::string ClipOffload::filled(std::string in) const {
  for (const auto& [word, lines] : lineWords) in = replaced(std::move(in), word, lines);
  const std::map<std::string, std::function<std::string()>> words{
      {"{source}", [&] { return source; }},
      {"{destination}", [&] { return destination; }},
      {"{card}", [&] { return (scratch.path() / "card").string(); }},
      {"{backup}", [&] { return (scratch.path() / "backup").string(); }},
      {"{scratch}", [&] { return scratch.path().string(); }},
      {"{size}", [&] { return std::to_string(bytes.size()); }},
      {"{md5}", [&] { return digestBy("md5sum"); }},
      {"{MD5}", [&] { return inCapitals(digestBy("md5sum")); }},
      {"{sha1}", [&] { return digestBy("sha1sum"); }},
      {"{xxh64}", [&] { return digestBy("xxh64sum"); }},
      {"{xxh64reversed}", [&] { return bytesTurnedRound(digestBy("xxh64sum")); }},
  };
  for (const auto& [word, meaning] : words) {
    if (in.find(word) != std::string::npos) in = replaced(std::move(in), word, meaning());
  }
  return in;
}

std::vector<std::string> ClipOffload::filled(std::vector<std::string> in) const {
  for (std::string& argument : in) argument = filled(argument);
  return in;
}

std::vector<std::string> namesOf(OnDisk state) {
  switch (state) {
    case OnDisk::untouched:
      return {"card/clip.mov"};
    case OnDisk::notMoved:
      return {"backup/clip.mov.kdxcopy", "card/clip.mov"};
    case OnDisk::both:
      return {"backup/clip.mov", "backup/clip.mov.kdxcopy", "card/clip.mov"};
    case OnDisk::offloaded:
      break;
  }
  return {"backup/clip.mov", "card/clip.mov"};
}
