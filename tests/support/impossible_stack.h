// For tests of threads that cannot be made.
#pragma once

#include <cstddef>
#include <cstdint>

/// The size of a stack for which no address space has room, 32 bits wide or 64.
inline constexpr std::size_t impossible_stack = SIZE_MAX / 4 * 3;
