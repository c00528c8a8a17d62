// SPDX-License-Identifier: GPL-2.0-only
#include "libclamav.h"

#include <clamav.h>

#include <cstdlib>
#include <ctime>

#include "scan_context.h"
#include "work_folder.h"

namespace clamav_engine {
namespace {

// libclamav's messages go to standard error unless taken. A scan that blocks on a full pipe there
// would hold a file access for ever, so nobody gets them.
void drop_message(cl_msg, const char*, const char*, void*) {}

// The first digest makes OpenSSL read its configuration and the first temporary name makes the
// C library read the time zone. Both are done here, before any mount is watched, and not within
// a scan that holds a file access.
bool read_lazy_configuration() {
  tzset();
  unsigned int length = 0;
  unsigned char* digest = cl_hash_data("sha256", "", 0, nullptr, &length);
  const bool digests_work = digest != nullptr;
  std::free(digest);
  return digests_work;
}

}  // namespace

bool start_libclamav() {
  static const bool started = [] {
    cl_set_clcb_msg(drop_message);
    return cl_init(CL_INIT_DEFAULT) == CL_SUCCESS && read_lazy_configuration();
  }();
  return started;
}

Engine load_databases(const std::string& folder) {
  const std::shared_ptr<cl_engine> engine(cl_engine_new(), cl_engine_free);
  // libclamav remembers clean content without the options it was scanned with: a file scanned
  // with archives off would be clean for good.
  if (engine == nullptr ||
      cl_engine_set_num(engine.get(), CL_ENGINE_DISABLE_CACHE, 1) != CL_SUCCESS ||
      cl_engine_set_str(engine.get(), CL_ENGINE_TMPDIR, work_folder()) != CL_SUCCESS) {
    return nullptr;
  }
  install_scan_callbacks(engine.get());
  // Signatures of unwanted programs too: whether those are detections is for the ignore mask to
  // say.
  constexpr unsigned int options = CL_DB_STDOPT | CL_DB_PUA;
  unsigned int signatures = 0;
  const bool usable = cl_load(folder.c_str(), engine.get(), &signatures, options) == CL_SUCCESS &&
                      signatures > 0 && cl_engine_compile(engine.get()) == CL_SUCCESS;
  return usable ? engine : nullptr;
}

}  // namespace clamav_engine
