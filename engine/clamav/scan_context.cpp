// SPDX-License-Identifier: GPL-2.0-only
#include "scan_context.h"

#include <clamav.h>
#include <sys/stat.h>
#include <vse.h>

#include <array>
#include <string_view>

namespace clamav_engine {
namespace {

// A callback that answers CL_VIRUS ends the scan at once, with a match of this name.
constexpr std::string_view kStopMatch = "Detected.By.Callback";

constexpr const char* kBombName = "Heuristics.Bomb.DecompressLimit";
constexpr std::uint64_t kBombRatio = 100;

bool is_out_of_proportion(std::uint64_t unpacked, std::uint64_t packed) {
  return unpacked / kBombRatio >= packed;
}

ScanContext& context_of(void* context) {
  return *static_cast<ScanContext*>(context);
}

cl_error_t answer(ScanContext::Verdict verdict) {
  switch (verdict) {
    case ScanContext::Verdict::kSkip:
      return CL_BREAK;
    case ScanContext::Verdict::kStop:
      return CL_VIRUS;
    case ScanContext::Verdict::kScan:
      break;
  }
  return CL_CLEAN;
}

cl_error_t part_begins(int, const char* type, const char**, std::size_t size_around,
                       const char* name, std::size_t size, const char* content, std::uint32_t level,
                       std::uint32_t, void* context) {
  return answer(context_of(context).enter({type, name, content, size, size_around, level}));
}

cl_error_t part_ends(int, int, const char*, void* context) {
  context_of(context).leave();
  return CL_CLEAN;
}

cl_error_t member_listed(const char* archive_type, unsigned long, const char*, unsigned long,
                         int encrypted, unsigned int, void* context) {
  context_of(context).see_member(archive_type, encrypted != 0);
  return CL_CLEAN;
}

void virus_found(int, const char* signature, void* context) {
  context_of(context).see_match(signature);
}

}  // namespace

void install_scan_callbacks(cl_engine* engine) {
  cl_engine_set_clcb_file_inspection(engine, part_begins);
  cl_engine_set_clcb_post_scan(engine, part_ends);
  cl_engine_set_clcb_meta(engine, member_listed);
  cl_engine_set_clcb_virus_found(engine, virus_found);
}

// A scan that was stopped has not come to the signatures of the file as a whole.
ScanOutcome scan_file(const cl_engine* engine, int fd, const char* name, const ScanOptions& options,
                      DetectionFilter& filter) {
  ScanContext parts(engine, options, filter);
  ScanOutcome outcome{parts.scan(fd, name), parts.clean_result()};
  if (!parts.stopped() || filter.found()) {
    return outcome;
  }
  ScanContext whole(engine, options, filter);
  if (whole.scan_without_parts(fd, name) == ScanStatus::kMatched) {
    outcome.status = ScanStatus::kMatched;
  }
  if (parts.is_bomb()) {
    filter.see(kBombName, "");  // the first match is kept
  }
  return outcome;
}

cl_scan_options ScanContext::libclamav_options() const noexcept {
  cl_scan_options result{};
  result.general = CL_SCAN_GENERAL_HEURISTICS;
  result.parse = ~std::uint32_t{0};
  if (options_.all_matches) {
    result.general |= CL_SCAN_GENERAL_ALLMATCHES;
  }
  if (without_parts_) {
    result.parse &= ~std::uint32_t{CL_SCAN_PARSE_ARCHIVE};
  }
  return result;
}

ScanStatus ScanContext::scan(int fd, const char* name) noexcept {
  cl_scan_options options = libclamav_options();
  const char* signature = nullptr;
  unsigned long scanned = 0;
  const cl_error_t result =
      cl_scandesc_callback(fd, name, &signature, &scanned, engine_, &options, this);
  const ScanStatus status = judge(result, signature);
  const bool passed_over = status == ScanStatus::kClean && !entered_;
  return passed_over && is_of_scannable_size(fd) ? ScanStatus::kFailed : status;
}

// libclamav calls a file clean that it could not begin with, for want of a temporary folder for
// instance, just as one that it passes over for its size.
bool ScanContext::is_of_scannable_size(int fd) const noexcept {
  constexpr off_t shortest = 6;
  struct stat status {};
  int error = 0;
  const long long longest = cl_engine_get_num(engine_, CL_ENGINE_MAX_FILESIZE, &error);
  return fstat(fd, &status) == 0 && status.st_size >= shortest && status.st_size <= longest;
}

ScanStatus ScanContext::scan_without_parts(int fd, const char* name) noexcept {
  without_parts_ = true;
  return scan(fd, name);
}

ScanStatus ScanContext::judge(int libclamav_result, const char* signature) noexcept {
  switch (libclamav_result) {
    case CL_VIRUS:
      see_match(signature);
      break;
    case CL_CLEAN:
    case CL_VERIFIED:
      break;
    default:
      return ScanStatus::kFailed;
  }
  return matched_ ? ScanStatus::kMatched : ScanStatus::kClean;
}

std::uint32_t ScanContext::clean_result() const noexcept {
  if (stopped_ || !entered_) {
    return VSE_RESULT_NOT_SCANNED;
  }
  if (encrypted_) {
    return VSE_RESULT_ENCRYPTED;
  }
  return too_deep_ ? VSE_RESULT_MAX_ARCHIVE_DEPTH : VSE_RESULT_NOTHING_FOUND;
}

ScanContext::Verdict ScanContext::enter(const Part& part) noexcept {
  entered_ = true;
  const LayerKind kind = layer_kind(part.type == nullptr ? "" : part.type);
  const bool known = layers_.enter(part.level, kind, part.name);
  if (part.level > 0 && (without_parts_ || !known)) {
    return Verdict::kSkip;
  }
  if (unpacks_too_much(part)) {
    stopped_ = true;
    bomb_ = is_out_of_proportion(unpacked_, file_size_) ||
            is_out_of_proportion(part.size, part.size_around);
    return Verdict::kStop;
  }
  if (layers_.archives() <= options_.archive_depth) {
    return Verdict::kScan;
  }
  too_deep_ = true;
  return without_parts_ ? Verdict::kScan : leave_closed(part, kind);
}

bool ScanContext::unpacks_too_much(const Part& part) noexcept {
  if (part.level == 0) {
    file_size_ = part.size;
    return false;
  }
  unpacked_ += part.size;
  return options_.unpacked_bytes != 0 && unpacked_ > options_.unpacked_bytes;
}

// An archive that is not looked into still is a file that signatures may know. If libclamav went
// on with it, it would unpack all of it, only to be told to skip each member.
ScanContext::Verdict ScanContext::leave_closed(const Part& part, LayerKind kind) noexcept {
  const bool is_archive = kind != LayerKind::kPlain;
  if (!is_archive || layers_.archives() > options_.archive_depth + 1 || part.content == nullptr) {
    return Verdict::kSkip;
  }
  ScanContext closed(engine_, options_, filter_);
  closed.around_ = &layers_;
  if (closed.scan_without_parts(part.content, part.size, part.name) == ScanStatus::kMatched) {
    matched_ = true;
  }
  return filter_.found() ? Verdict::kStop : Verdict::kSkip;
}

ScanStatus ScanContext::scan_without_parts(const char* content, std::size_t size,
                                           const char* name) noexcept {
  without_parts_ = true;
  cl_fmap_t* const map = size == 0 ? nullptr : cl_fmap_open_memory(content, size);
  if (map == nullptr) {
    return ScanStatus::kFailed;
  }
  cl_scan_options options = libclamav_options();
  const char* signature = nullptr;
  unsigned long scanned = 0;
  const cl_error_t result =
      cl_scanmap_callback(map, name, &signature, &scanned, engine_, &options, this);
  cl_fmap_close(map);
  return judge(result, signature);
}

void ScanContext::see_member(const char* archive_type, bool encrypted) noexcept {
  encrypted_ = encrypted_ || encrypted;
  layers_.list_member(layer_kind(archive_type == nullptr ? "" : archive_type));
}

void ScanContext::see_match(const char* signature) noexcept {
  if (signature == nullptr || std::string_view(signature).starts_with(kStopMatch)) {
    return;
  }
  matched_ = true;
  std::array<char, Detection::kMemberSize> member{};
  (around_ == nullptr ? layers_ : *around_).write_member_name(member);
  filter_.see(signature, member.data());
}

}  // namespace clamav_engine
