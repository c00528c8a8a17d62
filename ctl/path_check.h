// Paths in the daemon's files, judged by what is on the disk now.
//
// The filter compares texts: a path of the settings with the path by which the kernel names a file,
// which is absolute and holds no link, doubled slash or dot.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "findings.h"
#include "watched_mounts.h"

/// A path to include or exclude.
struct ListedPath {
  std::size_t line = 0;
  std::string key;   ///< of the line
  std::string path;  ///< as the line has it
};

/// Texts with the lines that list them first.
using LinesOfTexts = std::map<std::string, std::size_t, std::less<>>;

/// Paths that the filter takes and that files can match.
using HeldPaths = LinesOfTexts;

/// Judges the paths of one configuration file, each alone and one with the other.
/// @return the exclusions that hold
HeldPaths check_paths(const std::vector<ListedPath>& inclusions,
                      const std::vector<ListedPath>& exclusions, const WatchedMounts& mounts,
                      FileReport& report);

/// How much of the status area a list of them takes.
std::size_t bytes_in_area(const LinesOfTexts& entries);

/// The path from the directory in which the daemon works in the background, which is "/".
std::string seen_by_daemon(const std::string& path);

/// The path as the kernel names it; empty when it cannot be followed.
std::string real_path(const std::string& path);

/// Why a setting that names a directory does not name one for the daemon, and what follows:
/// "does not exist: " and the consequence, which is left out when nobody can tell. Nothing when it
/// names one.
std::optional<std::string> no_directory(const std::string& path, const char* consequence);
