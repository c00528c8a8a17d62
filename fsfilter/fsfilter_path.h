// Path sets: does a file lie at or under one of the set's paths?
//
// Whole directory names are compared as written, without normalisation: "/data" covers "/data" and
// "/data/x", not "/database"; "/a/" covers only the text "/a/"; "/" covers only "/".
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <unordered_map>

inline namespace fsfilter_internal {

/// What is kept about a path.
struct pathinfo_t {
  std::int32_t mode = 0;  ///< st_mode; no decision reads it
};

/// Allows look-ups by a part of a longer text, so that testing a path allocates nothing.
struct PathHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view path) const {
    return std::hash<std::string_view>{}(path);
  }
};

using PathSet = std::unordered_map<std::string, pathinfo_t, PathHash, std::equal_to<>>;

/// Adds a path, or refreshes its record. -1 for a null set or a path that does not exist.
int fsfilter_path_add(PathSet* set, const char* path);

/// Adds a path, or refreshes its record, without asking the file system. -1 with ENOMEM.
int fsfilter_path_put(PathSet* set, const char* path, pathinfo_t info);

/// Removes a path if it is there. -1 for a null set.
int fsfilter_path_rm(PathSet* set, const char* path);

/// 1 when the path or one of its leading directories is in the set; 0 otherwise and for nulls.
int fsfilter_path_in(const PathSet* set, const char* path);

/// Fills `info` for an existing path without asking a file system's server about the file. -1 with
/// errno on failure.
int get_pathinfo(const char* path, pathinfo_t* info);

}  // namespace fsfilter_internal
