/* SPDX-License-Identifier: MIT
 * The engine of a machine that has none: every call fails, so that the daemon starts, records that
 * it could not initialise its engine, and allows every access. */
#include <vse.h>

#pragma GCC diagnostic ignored "-Wunused-parameter"

enum { NO_ENGINE = -1 };

int vseGlobalInit(const char* cloud_access_key) {
  return NO_ENGINE;
}

int vseGlobalRelease(void) {
  return NO_ENGINE;
}

int vseInit(uintptr_t reserved, unsigned int flags, const char* database_directory,
            vse_event_callback callback, void* callback_context, VSEHANDLE* handle_out) {
  return NO_ENGINE;
}

int vseRelease(VSEHANDLE handle) {
  return NO_ENGINE;
}

int vseSet(VSEHANDLE handle, unsigned int property_id, unsigned int index, const void* value,
           unsigned int value_size, uintptr_t reserved) {
  return NO_ENGINE;
}

int vseGet(VSEHANDLE handle, unsigned int property_id, unsigned int index, void* buffer,
           unsigned int buffer_size, uintptr_t reserved) {
  return NO_ENGINE;
}

int vseExec(VSEHANDLE handle, unsigned int operation, uintptr_t argument_1, uintptr_t argument_2,
            uintptr_t argument_3) {
  return NO_ENGINE;
}
