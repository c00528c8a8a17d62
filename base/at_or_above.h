// Which paths lie at or under others.
#pragma once

#include <cstddef>
#include <string_view>

/// Whether a directory is the path itself or lies above it. Whole directory names are compared as
/// written, without normalisation: "/data" covers "/data" and "/data/x", not "/database"; "/a/"
/// covers only the text "/a/"; "/" covers only "/".
inline bool is_at_or_above(std::string_view directory, std::string_view path) {
  return path.starts_with(directory) &&
         (path.size() == directory.size() || path[directory.size()] == '/');
}

/// Finds such a directory in a set or map of paths that can be asked for a piece of a text.
/// @return the entry, or the end
template <typename Paths>
auto find_at_or_above(const Paths& paths, std::string_view path) {
  auto found = paths.find(path);
  for (std::size_t slash = path.find('/', 1);
       slash != std::string_view::npos && found == paths.end(); slash = path.find('/', slash + 1)) {
    found = paths.find(path.substr(0, slash));
  }
  return found;
}
