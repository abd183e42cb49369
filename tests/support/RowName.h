#pragma once

#include <string>

// Names the tests of a table after its rows' `name`.
inline constexpr auto rowName = [](const auto& row) { return std::string(row.param.name); };
