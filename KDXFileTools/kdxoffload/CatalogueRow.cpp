#include "KDXFileTools/kdxoffload/CatalogueRow.h"

#include <xxhash.h>

#include <array>
#include <string>

namespace kdxoffload::CatalogueRow {

namespace {

void append(std::string& bytes, uint64_t value) {
  constexpr unsigned bitsOfByte = 8;
  for (unsigned shift = 0; shift < 64; shift += bitsOfByte) bytes += static_cast<char>(value >> shift & 0xff);
}

// With its length, so that what ends one text can't begin the next.
void append(std::string& bytes, std::string_view text) {
  append(bytes, uint64_t{text.size()});
  bytes += text;
}

int64_t checkValue(std::string_view destination, std::string_view path, const FileRecord& record,
                   std::string_view digestText) {
  constexpr std::size_t room = 128;  // for the numbers, the lengths and the longest digest
  std::string bytes;
  bytes.reserve(destination.size() + path.size() + room);
  append(bytes, destination);
  append(bytes, path);
  append(bytes, static_cast<uint64_t>(record.state));
  append(bytes, record.size);
  append(bytes, static_cast<uint64_t>(record.modified));
  append(bytes, record.destinationSize);
  append(bytes, static_cast<uint64_t>(record.destinationModified));
  append(bytes, digestText);
  return static_cast<int64_t>(XXH64(bytes.data(), bytes.size(), 0));
}

std::optional<FileRecord::State> stateFrom(std::optional<int64_t> value) {
  using enum FileRecord::State;
  for (const FileRecord::State state : {begun, proved, adopted, copied}) {
    if (value == static_cast<int64_t>(state)) return state;
  }
  return std::nullopt;
}

// What was only begun has nothing to show yet but when that was, and what is proved has the size of what it was made from.
bool makesSense(const FileRecord& record) {
  if (record.state != FileRecord::State::begun) return record.destinationSize == record.size;
  return record.destinationSize == 0 && record.digest == FileDigest{};
}

}  // namespace

void put(Statement& statement, std::string_view destination, std::string_view path, const FileRecord& record,
         std::string_view digestText) {
  statement.with(static_cast<int64_t>(record.state))
      .with(static_cast<int64_t>(record.size))
      .with(record.modified)
      .with(static_cast<int64_t>(record.destinationSize))
      .with(record.destinationModified)
      .with(digestText)
      .with(checkValue(destination, path, record, digestText));
}

std::optional<FileRecord> take(const Statement& row, std::string_view destination, std::string_view path) {
  const auto state = stateFrom(row.integer(0));
  const auto size = row.integer(1);
  const auto modified = row.integer(2);
  const auto destinationSize = row.integer(3);
  const auto destinationModified = row.integer(4);
  const auto digestText = row.bytes(5);
  if (!state || !size || !modified || !destinationSize || !destinationModified || !digestText) return std::nullopt;
  if (*size < 0 || *destinationSize < 0) return std::nullopt;
  const auto digest = digestText->empty() ? FileDigest{} : FileDigest::fromText(*digestText);
  if (!digest) return std::nullopt;
  const FileRecord record{.state = *state,
                          .digest = *digest,
                          .size = static_cast<uint64_t>(*size),
                          .modified = *modified,
                          .destinationSize = static_cast<uint64_t>(*destinationSize),
                          .destinationModified = *destinationModified};
  const bool isWhole = row.integer(6) == checkValue(destination, path, record, *digestText);
  return isWhole && makesSense(record) ? std::optional(record) : std::nullopt;
}

}  // namespace kdxoffload::CatalogueRow
