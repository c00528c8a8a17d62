// The file system types that are never watched.
#pragma once

#include <cstring>

/// Whether register_mounting_point() refuses a file system of this type, which may be null.
inline bool network_file_system(const char* fstype) {
  return fstype != nullptr && std::strncmp(fstype, "nfs", 3) == 0;
}
