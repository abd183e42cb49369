#pragma once

#include <optional>
#include <string_view>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "KDXFileTools/kdxoffload/Database.h"

namespace kdxoffload {

// How a record of a file stands in a row of the catalogue: state, sizes, times, digest, and a check value over all of them, the
// destination and the path. The database has no check of its own over what is in its pages, and one bit would be enough to turn
// "begun" into "proved".
namespace CatalogueRow {

// The columns, in the order in which they are written and read.
inline constexpr std::string_view columns =
    "state, size, modified, destinationSize, destinationModified, digest, checkValue";
inline constexpr int count = 7;

// Gives the statement's next parameters the values of the columns. `digestText` is that of the record's digest, and must stay until the
// next step has returned.
void put(Statement& statement, std::string_view destination, std::string_view path, const FileRecord& record,
         std::string_view digestText);

// The record in the row's first columns. None when the row makes no sense: a value of another type, a state or digest
// that there is not, a proof of another size, or a check value that is another one's.
std::optional<FileRecord> take(const Statement& row, std::string_view destination, std::string_view path);

}  // namespace CatalogueRow

}  // namespace kdxoffload
