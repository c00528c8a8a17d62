// SPDX-License-Identifier: GPL-2.0-only
// Which definitions an engine is made of: a database directory and a family.
//
// Everything in the directory that has the name of a ClamAV database belongs to all families.
// Beside that each family has two files of its own, which updates bring. They are ClamAV databases
// as well, but their names say nothing about their format.
#pragma once

#include <vse.h>

#include <array>
#include <compare>
#include <string>

namespace clamav_engine {

/// One place for each file of a family, in the order in which an update names them.
inline constexpr std::size_t family_files = 2;

struct Family {
  unsigned int flags;  ///< that vseInit asks for it with
  std::array<const char*, family_files> files;
};

inline constexpr std::array<Family, 3> families = {
    {{VSE_INIT_BASE | VSE_INIT_FAMILY_V1, {"antivir.def", "aivsecon.def"}},
     {VSE_INIT_BASE | VSE_INIT_FAMILY_V2, {"antivir-v2.def", "aivsecon-v2.def"}},
     {VSE_INIT_BASE | VSE_INIT_FAMILY_V2S, {"antivir-v2s.def", "aivsecon-v2s.def"}}}};

struct Definitions {
  std::string directory;  ///< absolute, without links
  const Family* family;   ///< one of families

  friend auto operator<=>(const Definitions&, const Definitions&) = default;
};

}  // namespace clamav_engine
