#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

// The descriptor that this process has open on the path.
std::optional<int> descriptorOf(const std::string& path);

// How many descriptors this process has open, with the one that counts them.
std::size_t openDescriptors();

// The offset at which the descriptor stands; -1 for none.
int64_t positionOf(int descriptor);

// From now on reads of what this process has open on the path fail with EISDIR.
void makeReadsFail(const std::string& path);
