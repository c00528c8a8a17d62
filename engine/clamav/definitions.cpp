// SPDX-License-Identifier: GPL-2.0-only
#include "definitions.h"

#include <vse.h>

namespace clamav_engine {

std::optional<Family> family_of(unsigned int init_flags) {
  switch (init_flags) {
    case VSE_INIT_BASE | VSE_INIT_FAMILY_V1:
      return Family::kV1;
    case VSE_INIT_BASE | VSE_INIT_FAMILY_V2:
      return Family::kV2;
    case VSE_INIT_BASE | VSE_INIT_FAMILY_V2S:
      return Family::kV2s;
    default:
      return std::nullopt;
  }
}

const std::array<std::string, kFamilyFiles>& family_files(Family family) {
  static const std::array<std::string, kFamilyFiles> v1{"antivir.def", "aivsecon.def"};
  static const std::array<std::string, kFamilyFiles> v2{"antivir-v2.def", "aivsecon-v2.def"};
  static const std::array<std::string, kFamilyFiles> v2s{"antivir-v2s.def", "aivsecon-v2s.def"};
  switch (family) {
    case Family::kV2:
      return v2;
    case Family::kV2s:
      return v2s;
    case Family::kV1:
      break;
  }
  return v1;
}

}  // namespace clamav_engine
