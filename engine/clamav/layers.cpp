// SPDX-License-Identifier: GPL-2.0-only
#include "layers.h"

#include <algorithm>

namespace clamav_engine {
namespace {

constexpr std::string_view type_prefix = "CL_TYPE_";

constexpr std::string_view archive_types[] = {
    "7Z",    "7ZSFX",  "ALZ",    "APM",    "ARJ",         "ARJSFX",  "AUTOIT",  "BINHEX", "CABSFX",
    "DMG",   "EGG",    "EGGSFX", "GPT",    "ISHIELD_MSI", "ISO9660", "LHA_LZH", "MBR",    "MSCAB",
    "MSCHM", "NULSFT", "RAR",    "RARSFX", "SIS",         "UDF",     "XAR",     "ZIP",    "ZIPSFX"};
constexpr std::string_view stream_types[] = {"BZ", "GZ", "MSSZDD", "XZ"};
constexpr std::string_view uncompressed_types[] = {"CPIO_CRC", "CPIO_NEWC", "CPIO_ODC",
                                                   "CPIO_OLD", "OLD_TAR",   "POSIX_TAR"};

bool is_one_of(std::span<const std::string_view> types, std::string_view type) {
  return std::find(types.begin(), types.end(), type) != types.end();
}

// libclamav gives a part without a name that of its temporary file, which differs in each scan.
bool is_made_up(std::string_view name) {
  return name.starts_with("clamav-") && name.ends_with(".tmp");
}

// Appends to the text in out[0..used), leaving room for the terminator.
std::size_t append(std::span<char> out, std::size_t used, std::string_view text) {
  return used + text.copy(out.data() + used, out.size() - 1 - used);
}

}  // namespace

LayerKind layer_kind(std::string_view type) {
  if (!type.starts_with(type_prefix)) {
    return LayerKind::plain;
  }
  type.remove_prefix(type_prefix.size());
  return is_one_of(archive_types, type)        ? LayerKind::archive
         : is_one_of(stream_types, type)       ? LayerKind::stream
         : is_one_of(uncompressed_types, type) ? LayerKind::uncompressed
                                               : LayerKind::plain;
}

void Layers::enter(std::uint32_t level, LayerKind kind, const char* name, std::size_t size) {
  const std::uint32_t archives = archives_at(layers_[innermost()], level, kind);
  ++entered_;
  Layer& layer = layers_[innermost()];
  layer = {level, archives, size, kind};
  (void)append(layer.name, 0, name == nullptr ? "" : name);
}

std::uint32_t Layers::archives_at(const Layer& around, std::uint32_t level, LayerKind kind) {
  const std::uint32_t own = kind == LayerKind::plain ? 0 : 1;
  if (level > around.level + 1) {
    const bool in_archive = around.kind == LayerKind::plain && around.lists_members;
    return around.archives + (in_archive ? 1 : 0) + own;
  }
  const bool part_of_stream = kind == LayerKind::uncompressed && around.kind == LayerKind::stream;
  return around.archives + (part_of_stream ? 0 : own);
}

void Layers::list_member(LayerKind archive) {
  if (archive != LayerKind::plain) {
    layers_[innermost()].lists_members = true;
  }
}

void Layers::leave() {
  if (entered_ > 0) {
    --entered_;
  }
}

void Layers::write_member_name(std::span<char> out) const {
  std::size_t used = 0;
  for (std::size_t i = 2; i <= innermost(); ++i) {
    const std::string_view name = layers_[i].name.data();
    if (!name.empty() && !is_made_up(name)) {
      used = append(out, used, used == 0 ? "" : "/");
      used = append(out, used, name);
    }
  }
  out[used] = '\0';
}

}  // namespace clamav_engine
