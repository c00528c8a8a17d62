// SPDX-License-Identifier: GPL-2.0-only
#include "layers.h"

#include <algorithm>

namespace clamav_engine {
namespace {

struct TypeKind {
  std::string_view type;
  LayerKind kind;
};

constexpr std::string_view kPrefix = "CL_TYPE_";

constexpr std::array kKinds = {
    TypeKind{"7Z", LayerKind::kArchive},      TypeKind{"7ZSFX", LayerKind::kArchive},
    TypeKind{"ALZ", LayerKind::kArchive},     TypeKind{"APM", LayerKind::kArchive},
    TypeKind{"ARJ", LayerKind::kArchive},     TypeKind{"ARJSFX", LayerKind::kArchive},
    TypeKind{"AUTOIT", LayerKind::kArchive},  TypeKind{"BINHEX", LayerKind::kArchive},
    TypeKind{"BZ", LayerKind::kStream},       TypeKind{"CABSFX", LayerKind::kArchive},
    TypeKind{"CPIO_CRC", LayerKind::kTape},   TypeKind{"CPIO_NEWC", LayerKind::kTape},
    TypeKind{"CPIO_ODC", LayerKind::kTape},   TypeKind{"CPIO_OLD", LayerKind::kTape},
    TypeKind{"DMG", LayerKind::kArchive},     TypeKind{"EGG", LayerKind::kArchive},
    TypeKind{"EGGSFX", LayerKind::kArchive},  TypeKind{"GPT", LayerKind::kArchive},
    TypeKind{"GZ", LayerKind::kStream},       TypeKind{"ISHIELD_MSI", LayerKind::kArchive},
    TypeKind{"ISO9660", LayerKind::kArchive}, TypeKind{"LHA_LZH", LayerKind::kArchive},
    TypeKind{"MBR", LayerKind::kArchive},     TypeKind{"MSCAB", LayerKind::kArchive},
    TypeKind{"MSCHM", LayerKind::kArchive},   TypeKind{"MSSZDD", LayerKind::kStream},
    TypeKind{"NULSFT", LayerKind::kArchive},  TypeKind{"OLD_TAR", LayerKind::kTape},
    TypeKind{"POSIX_TAR", LayerKind::kTape},  TypeKind{"RAR", LayerKind::kArchive},
    TypeKind{"RARSFX", LayerKind::kArchive},  TypeKind{"SIS", LayerKind::kArchive},
    TypeKind{"UDF", LayerKind::kArchive},     TypeKind{"XAR", LayerKind::kArchive},
    TypeKind{"XZ", LayerKind::kStream},       TypeKind{"ZIP", LayerKind::kArchive},
    TypeKind{"ZIPSFX", LayerKind::kArchive},
};

// The archives that a layer adds to those of the layer it lies directly in.
std::uint32_t own_archives(LayerKind kind, LayerKind around) {
  const bool part_of_stream = kind == LayerKind::kTape && around == LayerKind::kStream;
  return kind == LayerKind::kPlain || part_of_stream ? 0 : 1;
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
                   bool inside_archive) noexcept {
  const std::size_t index = entered_++;
  if (index >= layers_.size()) {
    return false;
  }
  Layer& layer = layers_[index];
  static constexpr Layer kNothing;
  const Layer& around = index == 0 ? kNothing : layers_[index - 1];
  const bool left_out = index > 0 && around.level + 1 < level;
  layer.level = level;
  layer.kind = kind;
  layer.archives = around.archives + (left_out && inside_archive ? 1U : 0U) +
                   own_archives(kind, left_out ? LayerKind::kPlain : around.kind);
  layer.name.fill('\0');
  (void)append(layer.name, 0, name == nullptr ? "" : name);
  return true;
}

void Layers::leave() noexcept {
  if (entered_ > 0) {
    --entered_;
  }
}

std::uint32_t Layers::archives() const noexcept {
  return entered_ == 0 ? 0 : layers_[std::min(entered_, layers_.size()) - 1].archives;
}

void Layers::write_member_name(std::span<char> out) const noexcept {
  std::size_t used = 0;
  for (std::size_t i = 1; i < std::min(entered_, layers_.size()); ++i) {
    const std::string_view name = layers_[i].name.data();
    if (!name.empty()) {
      used = append(out, used, used == 0 ? "" : "/");
      used = append(out, used, name);
    }
  }
  out[used] = '\0';
}

}  // namespace clamav_engine
