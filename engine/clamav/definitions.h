// SPDX-License-Identifier: GPL-2.0-only
// Which definitions an engine is made of: a database directory and a family.
//
// Everything in the directory that has the name of a ClamAV database belongs to all families.
// Beside that each family has two files of its own, which updates bring. They are ClamAV databases
// as well, but their names say nothing about their format.
#ifndef PELOWATCHD_ENGINE_CLAMAV_DEFINITIONS_H
#define PELOWATCHD_ENGINE_CLAMAV_DEFINITIONS_H

#include <array>
#include <compare>
#include <optional>
#include <string>

namespace clamav_engine {

enum class Family { kV1, kV2, kV2s };

/// The family that the flags of vseInit ask for; none if they are not VSE_INIT_BASE and one family.
std::optional<Family> family_of(unsigned int init_flags);

/// One place for each file of a family, in the order in which an update names them.
inline constexpr std::size_t kFamilyFiles = 2;

/// The names of a family's files in the database directory.
const std::array<std::string, kFamilyFiles>& family_files(Family family);

struct Definitions {
  std::string directory;  ///< absolute, without links
  Family family = Family::kV1;

  friend auto operator<=>(const Definitions&, const Definitions&) = default;
};

}  // namespace clamav_engine

#endif
