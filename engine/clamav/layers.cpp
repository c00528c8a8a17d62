// SPDX-License-Identifier: GPL-2.0-only
#include "layers.h"

#include <algorithm>

namespace clamav_engine {
namespace {

constexpr std::string_view kPrefix = "CL_TYPE_";

constexpr std::string_view kArchives[] = {
    "7Z",    "7ZSFX",  "ALZ",    "APM",    "ARJ",         "ARJSFX",  "AUTOIT",  "BINHEX", "CABSFX",
    "DMG",   "EGG",    "EGGSFX", "GPT",    "ISHIELD_MSI", "ISO9660", "LHA_LZH", "MBR",    "MSCAB",
    "MSCHM", "NULSFT", "RAR",    "RARSFX", "SIS",         "UDF",     "XAR",     "ZIP",    "ZIPSFX"};
constexpr std::string_view kStreams[] = {"BZ", "GZ", "MSSZDD", "XZ"};
constexpr std::string_view kUncompressed[] = {"CPIO_CRC", "CPIO_NEWC", "CPIO_ODC",
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
  if (!type.starts_with(kPrefix)) {
    return LayerKind::kPlain;
  }
  type.remove_prefix(kPrefix.size());
  return is_one_of(kArchives, type)       ? LayerKind::kArchive
         : is_one_of(kStreams, type)      ? LayerKind::kStream
         : is_one_of(kUncompressed, type) ? LayerKind::kUncompressed
                                          : LayerKind::kPlain;
}

bool Layers::enter(std::uint32_t level, LayerKind kind, const char* name, std::size_t size) {
  const Layer& around = layers_[innermost()];
  if (++entered_ >= layers_.size()) {
    return false;
  }
  Layer& layer = layers_[entered_];
  layer = {};
  layer.level = level;
  layer.kind = kind;
  layer.size = size;
  layer.archives = archives_at(around, level, kind);
  (void)append(layer.name, 0, name == nullptr ? "" : name);
  return true;
}

std::uint32_t Layers::archives_at(const Layer& around, std::uint32_t level, LayerKind kind) {
  const std::uint32_t own = kind == LayerKind::kPlain ? 0 : 1;
  if (level > around.level + 1) {
    const bool in_archive = around.kind == LayerKind::kPlain && around.lists_members;
    return around.archives + (in_archive ? 1 : 0) + own;
  }
  const bool part_of_stream = kind == LayerKind::kUncompressed && around.kind == LayerKind::kStream;
  return around.archives + (part_of_stream ? 0 : own);
}

void Layers::list_member(LayerKind archive) {
  if (archive != LayerKind::kPlain) {
    layers_[innermost()].lists_members = true;
  }
}

std::size_t Layers::innermost() const {
  return std::min(entered_, layers_.size() - 1);
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
