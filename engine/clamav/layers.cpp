// SPDX-License-Identifier: GPL-2.0-only
#include "layers.h"

#include <algorithm>
#include <utility>

namespace clamav_engine {
namespace {

struct TypeKind {
  std::string_view type;
  LayerKind kind;
};

constexpr std::string_view kPrefix = "CL_TYPE_";

constexpr std::array kKinds = {
    TypeKind{"7Z", LayerKind::kArchive},
    TypeKind{"7ZSFX", LayerKind::kArchive},
    TypeKind{"ALZ", LayerKind::kArchive},
    TypeKind{"APM", LayerKind::kArchive},
    TypeKind{"ARJ", LayerKind::kArchive},
    TypeKind{"ARJSFX", LayerKind::kArchive},
    TypeKind{"AUTOIT", LayerKind::kArchive},
    TypeKind{"BINHEX", LayerKind::kArchive},
    TypeKind{"BZ", LayerKind::kStream},
    TypeKind{"CABSFX", LayerKind::kArchive},
    TypeKind{"CPIO_CRC", LayerKind::kUncompressed},
    TypeKind{"CPIO_NEWC", LayerKind::kUncompressed},
    TypeKind{"CPIO_ODC", LayerKind::kUncompressed},
    TypeKind{"CPIO_OLD", LayerKind::kUncompressed},
    TypeKind{"DMG", LayerKind::kArchive},
    TypeKind{"EGG", LayerKind::kArchive},
    TypeKind{"EGGSFX", LayerKind::kArchive},
    TypeKind{"GPT", LayerKind::kArchive},
    TypeKind{"GZ", LayerKind::kStream},
    TypeKind{"ISHIELD_MSI", LayerKind::kArchive},
    TypeKind{"ISO9660", LayerKind::kArchive},
    TypeKind{"LHA_LZH", LayerKind::kArchive},
    TypeKind{"MBR", LayerKind::kArchive},
    TypeKind{"MSCAB", LayerKind::kArchive},
    TypeKind{"MSCHM", LayerKind::kArchive},
    TypeKind{"MSSZDD", LayerKind::kStream},
    TypeKind{"NULSFT", LayerKind::kArchive},
    TypeKind{"OLD_TAR", LayerKind::kUncompressed},
    TypeKind{"POSIX_TAR", LayerKind::kUncompressed},
    TypeKind{"RAR", LayerKind::kArchive},
    TypeKind{"RARSFX", LayerKind::kArchive},
    TypeKind{"SIS", LayerKind::kArchive},
    TypeKind{"UDF", LayerKind::kArchive},
    TypeKind{"XAR", LayerKind::kArchive},
    TypeKind{"XZ", LayerKind::kStream},
    TypeKind{"ZIP", LayerKind::kArchive},
    TypeKind{"ZIPSFX", LayerKind::kArchive},
};

// Where a part has no name libclamav gives it that of its temporary file, another one in each scan.
bool is_made_up(std::string_view name) {
  return name.starts_with("clamav-") && name.ends_with(".tmp");
}

// Appends to the text in out[0..used), leaving room for the terminator.
std::size_t append(std::span<char> out, std::size_t used, std::string_view text) {
  return used + text.copy(out.data() + used, out.size() - 1 - used);
}

}  // namespace

LayerKind layer_kind(std::string_view type) noexcept {
  if (!type.starts_with(kPrefix)) {
    return LayerKind::kPlain;
  }
  type.remove_prefix(kPrefix.size());
  const auto row = std::find_if(kKinds.begin(), kKinds.end(),
                                [&](const TypeKind& entry) { return entry.type == type; });
  return row == kKinds.end() ? LayerKind::kPlain : row->kind;
}

bool Layers::enter(std::uint32_t level, LayerKind kind, const char* name,
                   std::size_t size) noexcept {
  const Layer* const around = innermost();
  if (entered_++ >= layers_.size()) {
    return false;
  }
  Layer& layer = layers_[entered_ - 1];
  layer = {};
  layer.level = level;
  layer.kind = kind;
  layer.size = size;
  layer.archives = archives_at(around, level, kind);
  (void)append(layer.name, 0, name == nullptr ? "" : name);
  return true;
}

std::uint32_t Layers::archives_at(const Layer* around, std::uint32_t level, LayerKind kind) {
  const std::uint32_t own = kind == LayerKind::kPlain ? 0 : 1;
  if (around == nullptr) {
    return own;
  }
  if (level > around->level + 1) {
    const bool in_archive = around->kind == LayerKind::kPlain && around->lists_members;
    return around->archives + (in_archive ? 1 : 0) + own;
  }
  const bool part_of_stream =
      kind == LayerKind::kUncompressed && around->kind == LayerKind::kStream;
  return around->archives + (part_of_stream ? 0 : own);
}

void Layers::list_member(LayerKind archive) noexcept {
  Layer* const layer = innermost();
  if (layer != nullptr && archive != LayerKind::kPlain) {
    layer->lists_members = true;
  }
}

Layers::Layer* Layers::innermost() noexcept {
  return const_cast<Layer*>(std::as_const(*this).innermost());
}

const Layers::Layer* Layers::innermost() const noexcept {
  return entered_ == 0 ? nullptr : &layers_[std::min(entered_, layers_.size()) - 1];
}

void Layers::leave() noexcept {
  if (entered_ > 0) {
    --entered_;
  }
}

std::uint32_t Layers::archives() const noexcept {
  return entered_ == 0 ? 0 : innermost()->archives;
}

std::size_t Layers::size() const noexcept {
  return entered_ == 0 ? 0 : innermost()->size;
}

void Layers::write_member_name(std::span<char> out) const noexcept {
  std::size_t used = 0;
  for (std::size_t i = 1; i < std::min(entered_, layers_.size()); ++i) {
    const std::string_view name = layers_[i].name.data();
    if (!name.empty() && !is_made_up(name)) {
      used = append(out, used, used == 0 ? "" : "/");
      used = append(out, used, name);
    }
  }
  out[used] = '\0';
}

}  // namespace clamav_engine
