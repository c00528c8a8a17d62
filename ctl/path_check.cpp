#include "path_check.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "at_or_above.h"
#include "fsfilter.h"

namespace {

/// What a path is listed for.
struct Purpose {
  bool includes;
  const char* key;           ///< by which its list is called
  const char* when_missing;  ///< what else follows
  const char* instead_of_root;
};

constexpr Purpose inclusion = {true, "IncludeDirectory", ", also when it is made later",
                               "write no inclusion at all to include everything"};
constexpr Purpose exclusion = {false, "ExcludeDirectory", ": what is made there later is scanned",
                               "write the directories that are meant"};

/// What the filter makes of one path.
struct Judgement {
  bool taken = true;      ///< it is in the filter's set
  std::string complaint;  ///< why no file can match it; empty when some can
};

Judgement skipped(std::string complaint) {
  return {.taken = false, .complaint = std::move(complaint)};
}

Judgement unmatched(std::string complaint) {
  return {.taken = true, .complaint = std::move(complaint)};
}

bool is_missing(int error) {
  return error == ENOENT || error == ENOTDIR;
}

Judgement judge_unseen(const std::string& path, const Purpose& purpose, int error) {
  if (is_missing(error)) {
    return skipped(fmt::format("{} does not exist, so the daemon skips it{}", quote(path),
                               purpose.when_missing));
  }
  // The daemon may see more than whoever checks.
  return {
      .taken = error == EACCES,
      .complaint = fmt::format("{} cannot be looked at: {}", quote(path), std::strerror(error))};
}

Judgement judge_name(const std::string& path, const Purpose& purpose) {
  const std::string real = real_path(path);
  if (real == "/") {
    return unmatched(
        fmt::format("no file ever matches {}; {}", quote(path), purpose.instead_of_root));
  }
  if (!real.empty() && real != path) {
    return unmatched(fmt::format("no file ever matches {}; write it as the kernel does: {}",
                                 quote(path), quote(real)));
  }
  return {};
}

// To exclude what is not watched anyway does no harm, whatever the path.
Judgement judge_absolute(const std::string& path, const Purpose& purpose,
                         const WatchedMounts& mounts) {
  struct stat status {};
  if (stat(path.c_str(), &status) != 0) {
    return judge_unseen(path, purpose, errno);
  }
  if (purpose.includes && !S_ISDIR(status.st_mode) && !S_ISREG(status.st_mode)) {
    return unmatched(quote(path) +
                     " is neither a directory nor a regular file, and nothing else is scanned");
  }
  if (const auto why = mounts.why_unwatched(path)) {
    return purpose.includes
               ? unmatched(fmt::format("nothing in {} is scanned: {}", quote(path), *why))
               : Judgement{};
  }
  return judge_name(path, purpose);
}

Judgement judge(const std::string& path, const Purpose& purpose, const WatchedMounts& mounts) {
  if (path.starts_with('=')) {
    return skipped(fmt::format(
        "the path is {}, so the daemon skips it; there is no \"=\" between key and value",
        quote(path)));
  }
  if (path.find('\0') != std::string::npos) {
    return skipped(fmt::format("{} holds a NUL byte, at which the daemon cuts it", quote(path)));
  }
  if (path.starts_with('/')) {
    return judge_absolute(path, purpose, mounts);
  }
  struct stat status {};
  return {.taken = stat(seen_by_daemon(path).c_str(), &status) == 0,
          .complaint = fmt::format(
              "no file ever matches {}: it is relative; write an absolute path", quote(path))};
}

Judgement judge_listed(const std::string& path, const Purpose& purpose,
                       const WatchedMounts& mounts) {
  if (path.empty()) {
    return skipped("has no value, so the daemon skips it");
  }
  if (!purpose.includes) {
    return path == "/" ? unmatched(
                             "excludes no file, but leaves the file system mounted at \"/\" "
                             "unwatched; write the directories that are meant")
                       : judge(path, purpose, mounts);
  }
  const std::string text = trimmed_include(path);
  if (text.empty()) {
    return skipped(
        "\"/\" includes nothing: the daemon takes the slash off and skips what is left; write no "
        "inclusion at all to include everything");
  }
  return text == "/" ? judge_name(path, purpose) : judge(text, purpose, mounts);
}

// The area keeps the last list that it could hold.
void check_area(std::string_view key, const LinesOfTexts& taken, FileReport& report) {
  const std::size_t size = bytes_in_area(taken);
  if (size > FSFILTER_TEXT_SIZE) {
    report.add(0, key,
               fmt::format("the list of these paths takes {} bytes: the status area holds {} and "
                           "shows only some of them, but all of them count",
                           size, static_cast<int>(FSFILTER_TEXT_SIZE)));
  }
}

// @return those that hold
HeldPaths check_list(const std::vector<ListedPath>& paths, const Purpose& purpose,
                     const WatchedMounts& mounts, const HeldPaths& exclusions, FileReport& report) {
  HeldPaths held;
  LinesOfTexts taken;
  for (const ListedPath& listed : paths) {
    const std::string text = purpose.includes ? trimmed_include(listed.path) : listed.path;
    auto [is_taken, complaint] = judge_listed(listed.path, purpose, mounts);
    const auto above = find_at_or_above(exclusions, text);
    if (complaint.empty() && above != exclusions.end()) {
      complaint = fmt::format("nothing in {} is scanned: line {} excludes {}", quote(text),
                              above->second, quote(above->first));
    }
    if (is_taken) {
      taken.emplace(text, listed.line);
    }
    if (complaint.empty()) {
      held.emplace(text, listed.line);
    } else {
      report.add(listed.line, listed.key, complaint);
    }
  }
  check_area(purpose.key, taken, report);
  if (purpose.includes && !paths.empty() && taken.empty()) {
    report.add(0, paths.front().key,
               "the daemon skips every path to include, and then includes everything");
  }
  return held;
}

}  // namespace

HeldPaths check_paths(const std::vector<ListedPath>& inclusions,
                      const std::vector<ListedPath>& exclusions, const WatchedMounts& mounts,
                      FileReport& report) {
  HeldPaths held = check_list(exclusions, exclusion, mounts, {}, report);
  (void)check_list(inclusions, inclusion, mounts, held, report);
  return held;
}

std::string seen_by_daemon(const std::string& path) {
  return path.starts_with('/') ? path : "/" + path;
}

std::string real_path(const std::string& path) {
  char resolved[PATH_MAX];
  return realpath(path.c_str(), resolved) == nullptr ? "" : resolved;
}

std::size_t bytes_in_area(const LinesOfTexts& entries) {
  std::size_t size = 0;
  for (const auto& [text, line] : entries) {
    size += text.size() + 1;
  }
  return size;
}

std::optional<std::string> no_directory(const std::string& path, const char* consequence) {
  const std::string name = quote(path);
  const std::string follows = std::string(": ") + consequence;
  struct stat status {};
  if (path.empty()) {
    return "has no value" + follows;
  }
  if (path.find('\0') != std::string::npos) {
    return name + " holds a NUL byte, at which the daemon cuts it";
  }
  if (stat(seen_by_daemon(path).c_str(), &status) != 0) {
    return is_missing(errno) ? name + " does not exist" + follows
                             : name + " cannot be looked at: " + std::strerror(errno);
  }
  if (!S_ISDIR(status.st_mode)) {
    return name + " is no directory" + follows;
  }
  if (!path.starts_with('/')) {
    return name + " is relative: in the background the daemon looks for it in \"/\"";
  }
  return std::nullopt;
}
