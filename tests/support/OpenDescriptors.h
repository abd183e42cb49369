#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// The descriptor that this process has open on the path.
std::optional<int> descriptorOf(const std::string& path);

// How many descriptors this process has open, including the one that is used for counting.
std::size_t openDescriptors();

// The current offset of the descriptor; -1 if it has none.
int64_t positionOf(int descriptor);

// From now on reads fail with EISDIR on the descriptor that this process has open on the path.
void makeReadsFail(const std::string& path);
