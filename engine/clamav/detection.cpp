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
constexpr std::array kTypeWords = {
    TypeWord{"backdoor", 4},
    TypeWord{"ircbot", 4},
    TypeWord{"bootkit", 6},
    TypeWord{"boot", 6},
    TypeWord{"ddos", 7},
    TypeWord{"flooder", 7},
    TypeWord{"dialer", 8},
    TypeWord{"downloader", 9},
    TypeWord{"dropper", 9},
    TypeWord{"exploit", 10},
    TypeWord{"cve", 10},
    TypeWord{"macro", 13},
    TypeWord{"containsmacros", 13},
    TypeWord{"massmailer", 14},
    TypeWord{"p2pworm", 17},
    TypeWord{"worm", 16},
    TypeWord{"networm", 16},
    TypeWord{"proxy", 18},
    TypeWord{"stealer", 19},
    TypeWord{"passwordstealer", 19},
    TypeWord{"infostealer", 19},
    TypeWord{"trojan", 24},
    TypeWord{"ransomware", 24},
    TypeWord{"packer", 27},
    TypeWord{"packed", 27},
    TypeWord{"phishing", 21},
    TypeWord{"remotetemplate", 20},
    TypeWord{"adware", kAdware},
    TypeWord{"spyware", 22},
    TypeWord{"keylogger", 22},
    TypeWord{"joke", 12},
    TypeWord{"tool", 23},
    TypeWord{"hacktool", 23},
    TypeWord{"bomb", 5},
    TypeWord{"limits", 5},
    TypeWord{"pua", kApplication},
};

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

// Its makers name everything that only may be unwanted like that, whatever it is else: a tool of an
// administrator's, say, that nobody wants to be refused unless the settings ask for it.
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

std::uint32_t detection_type(std::string_view signature) noexcept {
  if (is_possibly_unwanted(signature)) {
    return has_word(signature, "adware") ? kAdware : kApplication;
  }
  const auto* const row =
      std::find_if(kTypeWords.begin(), kTypeWords.end(),
                   [&](const TypeWord& entry) { return has_word(signature, entry.word); });
  return row == kTypeWords.end() ? kVirus : row->type;
}

void DetectionFilter::see(const char* signature, const char* member) noexcept {
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
