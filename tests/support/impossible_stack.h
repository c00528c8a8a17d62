// For tests of threads that cannot be made, or of very many.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>

/// The size of a stack for which no address space has room, 32 bits wide or 64.
inline constexpr std::size_t impossible_stack = SIZE_MAX / 4 * 3;

/// The size of the stack of threads that are made from now on without attributes of their own.
inline void set_default_stack_size(std::size_t bytes) {
  pthread_attr_t attributes;
  (void)pthread_attr_init(&attributes);
  (void)pthread_attr_setstacksize(&attributes, bytes);
  (void)pthread_setattr_default_np(&attributes);
  (void)pthread_attr_destroy(&attributes);
}
