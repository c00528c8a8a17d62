// SPDX-License-Identifier: GPL-2.0-only
#include "detection.h"

#include <strings.h>
#include <vse.h>

#include <algorithm>
#include <cstddef>

namespace clamav_engine {
namespace {

struct TypeWord {
  std::string_view word;
  std::uint32_t type;
};

constexpr std::uint32_t kVirus = 1;
constexpr std::uint32_t kAdware = 2;
constexpr std::uint32_t kApplication = 3;

// The first row whose word is one of the name's words decides. Types that an administrator can
// tell the daemon to ignore stand last, so that "Win.Trojan.Adware-1" is not ignored as adware.
constexpr TypeWord kTypeWords[] = {{"backdoor", 4},
                                   {"ircbot", 4},
                                   {"bootkit", 6},
                                   {"boot", 6},
                                   {"ddos", 7},
                                   {"flooder", 7},
                                   {"dialer", 8},
                                   {"downloader", 9},
                                   {"dropper", 9},
                                   {"exploit", 10},
                                   {"cve", 10},
                                   {"macro", 13},
                                   {"containsmacros", 13},
                                   {"massmailer", 14},
                                   {"p2pworm", 17},
                                   {"worm", 16},
                                   {"networm", 16},
                                   {"proxy", 18},
                                   {"stealer", 19},
                                   {"passwordstealer", 19},
                                   {"infostealer", 19},
                                   {"trojan", 24},
                                   {"ransomware", 24},
                                   {"packer", 27},
                                   {"packed", 27},
                                   {"phishing", 21},
                                   {"remotetemplate", 20},
                                   {"adware", kAdware},
                                   {"spyware", 22},
                                   {"keylogger", 22},
                                   {"joke", 12},
                                   {"tool", 23},
                                   {"hacktool", 23},
                                   {"bomb", 5},
                                   {"limits", 5},
                                   {"pua", kApplication}};

bool is_word_character(char c) {
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
}

bool same_word(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool has_word(std::string_view name, std::string_view word) {
  std::size_t begin = 0;
  while (begin < name.size()) {
    std::size_t end = begin;
    while (end < name.size() && is_word_character(name[end])) {
      ++end;
    }
    if (same_word(name.substr(begin, end - begin), word)) {
      return true;
    }
    begin = end + 1;
  }
  return false;
}

// Its makers give this prefix to everything that may merely be unwanted, such as an administrator's
// tool, which must not be refused unless the settings ask for it.
bool is_possibly_unwanted(std::string_view name) {
  constexpr std::string_view kMark = "PUA.";
  return same_word(name.substr(0, kMark.size()), kMark);
}

std::string_view without_origin(std::string_view name) {
  // libclamav marks signatures that are not of its own makers; the mark is not part of the name.
  constexpr std::string_view kMark = ".UNOFFICIAL";
  if (name.ends_with(kMark)) {
    name.remove_suffix(kMark.size());
  }
  return name;
}

Detection describe(std::string_view name) {
  Detection detection;
  detection.type = detection_type(name);
  detection.accuracy =
      name.starts_with("Heuristics.") ? VSE_ACCURACY_HEURISTIC : VSE_ACCURACY_EXACT;
  name.copy(detection.name.data(), detection.name.size() - 1);
  return detection;
}

}  // namespace

std::uint32_t detection_type(std::string_view signature) {
  if (is_possibly_unwanted(signature)) {
    return has_word(signature, "adware") ? kAdware : kApplication;
  }
  const auto* const row =
      std::find_if(std::begin(kTypeWords), std::end(kTypeWords),
                   [&](const TypeWord& entry) { return has_word(signature, entry.word); });
  return row == std::end(kTypeWords) ? kVirus : row->type;
}

void DetectionFilter::see(const char* signature, const char* member) {
  if (found_) {
    return;
  }
  const Detection detection = describe(without_origin(signature));
  if (((ignore_mask_ >> detection.type) & 1U) == 0) {
    detection_ = detection;
    (void)std::string_view(member).copy(detection_.member.data(), detection_.member.size() - 1);
    found_ = true;
  }
}

}  // namespace clamav_engine
