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

/// What is remembered of a path when it is added.
struct pathinfo_t {
  std::int32_t mode = 0;  ///< st_mode; no decision reads it
};

/// Looks keys up by a piece of a longer text, so that testing a path allocates nothing.
struct PathHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view path) const {
    return std::hash<std::string_view>{}(path);
  }
};

using PathSet = std::unordered_map<std::string, pathinfo_t, PathHash, std::equal_to<>>;

/// Adds a path, or refreshes its record. -1 for a null set or a path that stat() refuses.
int fsfilter_path_add(PathSet* set, const char* path);

/// Removes a path if it is there. -1 for a null set.
int fsfilter_path_rm(PathSet* set, const char* path);

/// 1 when the path or one of its leading directories is in the set, else 0, also for nulls.
int fsfilter_path_in(const PathSet* set, const char* path);

/// Fills `info` for an existing path; -1 with errno otherwise.
int get_pathinfo(const char* path, pathinfo_t* info);

}  // namespace fsfilter_internal
