// SPDX-License-Identifier: GPL-2.0-only
#include "detection.h"

#include <strings.h>
#include <vse.h>

#include <algorithm>
#include <cstddef>
#include <string_view>

namespace clamav_engine {
namespace {

struct TypeWords {
  std::uint32_t type;
  std::array<std::string_view, 3> words;
};

constexpr std::uint32_t virus = 1;
constexpr std::uint32_t adware = 2;
constexpr std::uint32_t application = 3;

// The first row that has one of the name's words decides. Types that an administrator can tell the
// daemon to ignore stand last, so that "Win.Trojan.Adware-1" is not ignored as adware.
constexpr TypeWords types_by_word[] = {{4, {"backdoor", "ircbot"}},
                                       {6, {"bootkit", "boot"}},
                                       {7, {"ddos", "flooder"}},
                                       {8, {"dialer"}},
                                       {9, {"downloader", "dropper"}},
                                       {10, {"exploit", "cve"}},
                                       {13, {"macro", "containsmacros"}},
                                       {14, {"massmailer"}},
                                       {17, {"p2pworm"}},
                                       {16, {"worm", "networm"}},
                                       {18, {"proxy"}},
                                       {19, {"stealer", "passwordstealer", "infostealer"}},
                                       {24, {"trojan", "ransomware"}},
                                       {27, {"packer", "packed"}},
                                       {21, {"phishing"}},
                                       {20, {"remotetemplate"}},
                                       {adware, {"adware"}},
                                       {22, {"spyware", "keylogger"}},
                                       {12, {"joke"}},
                                       {23, {"tool", "hacktool"}},
                                       {5, {"bomb", "limits"}},
                                       {application, {"pua"}}};

bool same_word(std::string_view a, std::string_view b) {
  return a.size() == b.size() && strncasecmp(a.data(), b.data(), a.size()) == 0;
}

bool has_word(std::string_view name, std::string_view word) {
  constexpr std::string_view characters =
      "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
  std::size_t begin = name.find_first_of(characters);
  while (begin < name.size()) {
    const std::size_t end = std::min(name.find_first_not_of(characters, begin), name.size());
    if (same_word(name.substr(begin, end - begin), word)) {
      return true;
    }
    begin = name.find_first_of(characters, end);
  }
  return false;
}

bool has_one_of(std::string_view name, const TypeWords& row) {
  return std::any_of(row.words.begin(), row.words.end(),
                     [&](std::string_view word) { return has_word(name, word); });
}

/// The detection type that a signature's name stands for; see the table in README.md.
std::uint32_t detection_type(std::string_view signature) {
  // Its makers give this prefix to everything that may merely be unwanted, such as an
  // administrator's tool, which must not be refused unless the settings ask for it.
  constexpr std::string_view unwanted = "PUA.";
  if (same_word(signature.substr(0, unwanted.size()), unwanted)) {
    return has_word(signature, "adware") ? adware : application;
  }
  const auto* const row =
      std::find_if(std::begin(types_by_word), std::end(types_by_word),
                   [&](const TypeWords& words) { return has_one_of(signature, words); });
  return row == std::end(types_by_word) ? virus : row->type;
}

Detection describe(std::string_view name) {
  // libclamav marks signatures that are not of its own makers; the mark is not part of the name.
  constexpr std::string_view origin_mark = ".UNOFFICIAL";
  if (name.ends_with(origin_mark)) {
    name.remove_suffix(origin_mark.size());
  }
  Detection detection;
  detection.type = detection_type(name);
  detection.accuracy =
      name.starts_with("Heuristics.") ? VSE_ACCURACY_HEURISTIC : VSE_ACCURACY_EXACT;
  name.copy(detection.name.data(), detection.name.size() - 1);
  return detection;
}

}  // namespace

void DetectionFilter::see(const char* signature, const char* member) {
  if (found()) {
    return;
  }
  const Detection detection = describe(signature);
  if (((ignore_mask_ >> detection.type) & 1U) == 0) {
    detection_ = detection;
    (void)std::string_view(member).copy(detection_.member.data(), detection_.member.size() - 1);
  }
}

}  // namespace clamav_engine
