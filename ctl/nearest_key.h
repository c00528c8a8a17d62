// What somebody may have meant who wrote a key that there is not.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "file_lines.h"

using KeyNames = std::vector<std::string_view>;

/// How many letters must be put in, left out, replaced or swapped with their neighbour to make one
/// word of the other, whatever their case.
std::size_t edit_distance(std::string_view one, std::string_view other);

/// The known key most like the word; empty when none is like it.
std::string_view nearest_key(std::string_view word, const KeyNames& known);

/// What a finding says about a line whose key is not among the known ones.
std::string about_unknown_key(const FileLine& line, const KeyNames& known);
