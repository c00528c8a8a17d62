// SPDX-License-Identifier: GPL-2.0-only
// Where in a file libclamav is: the file itself, a member of it, a member of that member. Knows
// what counts as an archive, and so how deep in archives a scan has come.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace clamav_engine {

enum class LayerKind {
  plain,        ///< no archive, though there may be something inside, as in a document or a mail
  archive,      ///< an archive of members
  stream,       ///< one compressed file
  uncompressed  ///< members without compression: belongs to the stream that it lies in
};

/// The kind that libclamav's name for a file type stands for.
LayerKind layer_kind(std::string_view type);

/// The layers that libclamav is in, outermost first. Used by one thread; nothing in it throws or
/// allocates, since libclamav's C code calls it.
class Layers {
 public:
  /// The layer at `level` (0 is the file itself) of `size` bytes begins. `name` may be null. A
  /// level may be left out: libclamav reports no layer for an archive at the end of a program, only
  /// for its members.
  void enter(std::uint32_t level, LayerKind kind, const char* name, std::size_t size);

  /// The innermost layer turned out to have an archive of members in it.
  void list_member(LayerKind archive);

  /// The layer entered last ends.
  void leave();

  /// How many archives the innermost layer lies in, itself included.
  std::uint32_t archives() const { return layers_[innermost()].archives; }

  /// The bytes in the innermost layer.
  std::size_t size() const { return layers_[innermost()].size; }

  /// Writes the names of all layers but the file itself, with slashes between them, NUL-terminated
  /// and cut to fit. Layers without a name are left out.
  void write_member_name(std::span<char> out) const;

 private:
  struct Layer {
    std::uint32_t level = 0;
    std::uint32_t archives = 0;  // that it lies in, itself included
    std::size_t size = 0;
    LayerKind kind = LayerKind::plain;
    bool lists_members = false;
    std::array<char, 256> name{};
  };

  static std::uint32_t archives_at(const Layer& around, std::uint32_t level, LayerKind kind);

  // Should libclamav ever have more layers than there is room for, the last one changes.
  std::size_t innermost() const { return std::min(entered_, layers_.size() - 1); }

  static constexpr std::size_t max_layers = 24;  // libclamav's own limit is 17
  std::array<Layer, 1 + max_layers> layers_;     // the first one is what is around the file
  std::size_t entered_ = 0;
};

}  // namespace clamav_engine
