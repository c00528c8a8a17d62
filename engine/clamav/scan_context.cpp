// SPDX-License-Identifier: GPL-2.0-only
#include "scan_context.h"

#include <clamav.h>
#include <vse.h>

#include <algorithm>
#include <array>
#include <string_view>

#include "layers.h"

namespace clamav_engine {
namespace {

// A callback that answers CL_VIRUS ends the scan at once, with a match of this name.
constexpr std::string_view stop_match = "Detected.By.Callback";

// What libclamav names a limit of its own that a scan has reached.
constexpr std::string_view limit_match = "Heuristics.Limits.Exceeded";
constexpr std::string_view too_large = "Heuristics.Limits.Exceeded.MaxFileSize";

constexpr const char* bomb_name = "Heuristics.Bomb.DecompressLimit";
constexpr std::uint64_t bomb_ratio = 100;

bool is_out_of_proportion(std::uint64_t unpacked, std::uint64_t packed) {
  return unpacked / bomb_ratio >= packed;
}

/// What libclamav is about to scan.
struct Part {
  const char* type;
  const char* name;  ///< null when it has none
  const char* content;
  std::size_t size;
  std::size_t size_around;  ///< of what it lies directly in
  std::uint32_t level;      ///< 0 is the file itself
};

// The first member of an OpenDocument or EPUB file tells what it is; to libclamav it is any zip.
bool is_document(std::string_view zip) {
  constexpr std::size_t name_at = 30;
  const std::string_view first = zip.substr(std::min(name_at, zip.size()));
  return first.starts_with("mimetypeapplication/vnd.oasis.opendocument") ||
         first.starts_with("mimetypeapplication/epub+zip");
}

LayerKind kind_of(const Part& part) {
  const std::string_view type = part.type == nullptr ? "" : part.type;
  const bool document =
      type == "CL_TYPE_ZIP" && part.content != nullptr && is_document({part.content, part.size});
  return document ? LayerKind::plain : layer_kind(type);
}

std::uint64_t longest_part(const cl_engine* engine) {
  int error = 0;
  return static_cast<std::uint64_t>(cl_engine_get_num(engine, CL_ENGINE_MAX_FILESIZE, &error));
}

// libclamav passes over files of other sizes and calls them clean. It says the same of a file that
// it could not begin to scan, for instance because it had no temporary folder.
bool is_of_scannable_size(const cl_engine* engine, const ScannedFile& file) {
  constexpr std::uint64_t shortest = 6;
  return file.size >= shortest && file.size <= longest_part(engine);
}

/// What libclamav's callbacks of one pass over a file work on. Used by one thread. The callbacks
/// are called by libclamav's C code, so nothing in them throws.
class ScanContext {
 public:
  /// All of it outlives the pass. `without_parts`: the file is scanned without what is in it.
  /// `around`: where the file lies that is scanned, if it is a part of another one.
  ScanContext(const cl_engine* engine, const ScanOptions& options, DetectionFilter& filter,
              bool without_parts = false, const Layers* around = nullptr)
      : engine_(engine),
        options_(options),
        filter_(filter),
        without_parts_(without_parts),
        around_(around) {}
  ScanContext(const ScanContext&) = delete;
  ScanContext& operator=(const ScanContext&) = delete;

  /// Scans a file. @return false when that failed.
  bool scan(const ScannedFile& file) {
    cl_scan_options options = libclamav_options();
    const char* signature = nullptr;
    unsigned long scanned = 0;
    const cl_error_t result =
        cl_scandesc_callback(file.fd, file.name, &signature, &scanned, engine_, &options, this);
    return judge(result, signature) && entered_;
  }

  /// True when the scan ended because too much was unpacked.
  bool stopped() const { return stopped_; }
  /// True when what was unpacked then is out of all proportion to what it came from.
  bool is_bomb() const { return bomb_; }

  /// The vse_scan_result of this file when nothing was found.
  std::uint32_t clean_result() const {
    if (stopped_ || limited_ || !entered_) {
      return VSE_RESULT_NOT_SCANNED;
    }
    if (encrypted_) {
      return VSE_RESULT_ENCRYPTED;
    }
    return too_deep_ ? VSE_RESULT_MAX_ARCHIVE_DEPTH : VSE_RESULT_NOTHING_FOUND;
  }

  // ---- The callbacks ----------------------------------------------------------------------------

  /// @return what libclamav is told of the part.
  cl_error_t enter(const Part& part) {
    constexpr cl_error_t scan_it = CL_CLEAN;
    constexpr cl_error_t skip_it = CL_BREAK;
    constexpr cl_error_t stop_scan = CL_VIRUS;
    entered_ = true;
    const LayerKind kind = kind_of(part);
    layers_.enter(part.level, kind, part.name, part.size);
    if (part.level == 0) {
      file_size_ = part.size;
    } else if (without_parts_) {
      return skip_it;
    } else if (filter_.found() || add_unpacked(part.size, part.size_around)) {
      return stop_scan;
    }
    if (layers_.archives() <= options_.archive_depth) {
      return scan_it;
    }
    too_deep_ = true;
    if (without_parts_) {
      return scan_it;
    }
    if (kind != LayerKind::plain && layers_.archives() == options_.archive_depth + 1) {
      match_closed(part);
    }
    return filter_.found() ? stop_scan : skip_it;
  }

  // libclamav keeps what may only be unwanted, and its limits, for the end of the layer they are
  // in.
  void leave(const char* signature) {
    if (signature != nullptr && std::string_view(signature).starts_with(limit_match)) {
      see_limit(signature);
    } else {
      see_match(signature);
    }
    layers_.leave();
  }

  void see_member(const char* archive_type, bool encrypted) {
    encrypted_ = encrypted_ || encrypted;
    layers_.list_member(layer_kind(archive_type == nullptr ? "" : archive_type));
  }

  void see_match(const char* signature) {
    const std::string_view name = signature == nullptr ? stop_match : signature;
    if (name.starts_with(stop_match) || name.starts_with(limit_match)) {
      return;
    }
    std::array<char, Detection::member_size> member{};
    (around_ == nullptr ? layers_ : *around_).write_member_name(member);
    filter_.see(signature, member.data());
  }

 private:
  // Where matches may be ignored libclamav goes on after one, since another may count.
  cl_scan_options libclamav_options() const {
    cl_scan_options result{};
    result.general = CL_SCAN_GENERAL_HEURISTICS;
    result.heuristic = CL_SCAN_HEURISTIC_EXCEEDS_MAX;
    result.parse = ~std::uint32_t{0};
    if (options_.ignore_mask != 0) {
      result.general |= CL_SCAN_GENERAL_ALLMATCHES;
    }
    if (without_parts_) {
      result.parse &= ~std::uint32_t{CL_SCAN_PARSE_ARCHIVE};
    }
    return result;
  }

  bool judge(cl_error_t result, const char* signature) {
    if (result == CL_VIRUS) {
      see_match(signature);
    }
    return result == CL_VIRUS || result == CL_CLEAN || result == CL_VERIFIED;
  }

  /// @return whether that is too much.
  bool add_unpacked(std::uint64_t size, std::uint64_t packed) {
    unpacked_ += size;
    if (options_.unpacked_bytes == 0 || unpacked_ <= options_.unpacked_bytes) {
      return false;
    }
    stopped_ = true;
    bomb_ =
        bomb_ || is_out_of_proportion(unpacked_, file_size_) || is_out_of_proportion(size, packed);
    return true;
  }

  // libclamav does not call enter() for a part above its own limit, nor tell the part's size, so
  // the smallest size above that limit is assumed.
  void see_limit(std::string_view name) {
    if (!limited_ && name == too_large) {
      (void)add_unpacked(longest_part(engine_), layers_.size());
    }
    limited_ = true;
  }

  // An archive that is not looked into still is a file that signatures may know. If libclamav went
  // on with it, it would unpack all of it, only to be told to skip each member.
  void match_closed(const Part& part) {
    cl_fmap_t* const map =
        part.content == nullptr ? nullptr : cl_fmap_open_memory(part.content, part.size);
    if (map == nullptr) {
      return;
    }
    ScanContext closed(engine_, options_, filter_, true, &layers_);
    cl_scan_options options = closed.libclamav_options();
    const char* signature = nullptr;
    unsigned long scanned = 0;
    const cl_error_t result =
        cl_scanmap_callback(map, part.name, &signature, &scanned, engine_, &options, &closed);
    cl_fmap_close(map);
    (void)closed.judge(result, signature);
  }

  const cl_engine* engine_;
  const ScanOptions& options_;
  DetectionFilter& filter_;
  const bool without_parts_;
  const Layers* const around_;

  Layers layers_;
  std::uint64_t file_size_ = 0;
  std::uint64_t unpacked_ = 0;
  bool entered_ = false;
  bool stopped_ = false;
  bool bomb_ = false;
  bool limited_ = false;  // by a limit of libclamav's own
  bool encrypted_ = false;
  bool too_deep_ = false;
};

ScanContext& context_of(void* context) {
  return *static_cast<ScanContext*>(context);
}

cl_error_t part_begins(int, const char* type, const char**, std::size_t size_around,
                       const char* name, std::size_t size, const char* content, std::uint32_t level,
                       std::uint32_t, void* context) noexcept {
  return context_of(context).enter({type, name, content, size, size_around, level});
}

cl_error_t part_ends(int, int, const char* signature, void* context) noexcept {
  context_of(context).leave(signature);
  return CL_CLEAN;
}

cl_error_t member_listed(const char* archive_type, unsigned long, const char*, unsigned long,
                         int encrypted, unsigned int, void* context) noexcept {
  context_of(context).see_member(archive_type, encrypted != 0);
  return CL_CLEAN;
}

void virus_found(int, const char* signature, void* context) noexcept {
  context_of(context).see_match(signature);
}

}  // namespace

void install_scan_callbacks(cl_engine* engine) {
  cl_engine_set_clcb_file_inspection(engine, part_begins);
  cl_engine_set_clcb_post_scan(engine, part_ends);
  cl_engine_set_clcb_meta(engine, member_listed);
  cl_engine_set_clcb_virus_found(engine, virus_found);
}

// A pass that was stopped has not come to the signatures of the file as a whole.
ScanOutcome scan_file(const cl_engine* engine, const ScannedFile& file,
                      const ScanOptions& options) {
  if (!is_of_scannable_size(engine, file)) {
    return {VSE_RESULT_NOT_SCANNED};
  }
  DetectionFilter filter(options.ignore_mask);
  ScanContext parts(engine, options, filter);
  const bool scanned = parts.scan(file);
  if (parts.stopped() && !filter.found()) {
    (void)ScanContext(engine, options, filter, true).scan(file);
    if (parts.is_bomb()) {
      filter.see(bomb_name, "");  // the first match is kept
    }
  }
  const bool failed = !scanned && !filter.found();
  return {failed ? std::uint32_t{VSE_RESULT_ERROR} : parts.clean_result(), filter.detection()};
}

}  // namespace clamav_engine
