#pragma once

#include <optional>
#include <string_view>

#include "KDXFileTools/kdxoffload/Catalogue.h"
#include "KDXFileTools/kdxoffload/Database.h"

namespace kdxoffload {

// A record of a file as a row of the catalogue: state, sizes, times, digest, and a check value over all of these, the
// destination and the path. The database does not check the content of its pages, and one wrong bit could turn "begun" into
// "proved".
namespace CatalogueRow {

// The columns, in the order in which they are written and read.
inline constexpr std::string_view columns =
    "state, size, modified, destinationSize, destinationModified, digest, checkValue";
inline constexpr int count = 7;

// Gives the statement's next parameters the values of the columns.
//   digestText   the text of the record's digest; must stay valid until the next step has returned
void put(Statement& statement, std::string_view destination, std::string_view path, const FileRecord& record,
         std::string_view digestText);

// The record in the row's first columns. None when the row makes no sense: a value of the wrong type, an unknown state or
// digest, a proof of another size, or a wrong check value.
std::optional<FileRecord> take(const Statement& row, std::string_view destination, std::string_view path);

}  // namespace CatalogueRow

}  // namespace kdxoffload
