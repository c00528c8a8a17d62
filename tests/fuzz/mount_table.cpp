// The mount table: what comes of it has a name, and no more entries than the part read has lines.
#include "fuzz_input.h"
#include "mountpt.h"
#include "served_mount.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const InputFile input(data, size);
  std::list<mntinfo> entries;
  require(read_mountinfo(input.fd(), entries) == 0);
  require(entries.size() <= size && entries.size() <= mount_table_limit);
  for (const mntinfo& entry : entries) {
    require(entry.name.size() + entry.type.size() <= mount_table_limit);
    (void)excluded_point(entry);
    (void)is_served(entry.name, entries);
  }
  return 0;
}
