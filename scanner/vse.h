/* The scan-engine interface: what the daemon calls in libaivse000.so.5, and what that library
 * calls back. Usable from C and C++; every call has C linkage.
 *
 * Threads: vseGlobalInit comes before and vseGlobalRelease after every other call. One handle is
 * used by one thread at a time; different handles may be used at the same time. vseInit, vsePrepare
 * and the VSE_EXEC_LOAD_DEFINITIONS operation never overlap each other; they may overlap scans.
 *
 * Arguments that carry a path or a descriptor are pointer-sized, so that one prototype serves
 * both on 32-bit and on 64-bit machines.
 */
#pragma once

#include <stdint.h>

#define VSE_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* One scanning session, owned by whoever called vseInit. */
typedef void* VSEHANDLE;

/* Called on the thread that is inside vseExec. `event_data` is the engine's own and is not read.
 * The result is 0. Within the callback the handle's result properties may be read with vseGet. */
typedef int (*vse_event_callback)(VSEHANDLE handle, unsigned int event_id, void* event_data);

/* Every call but vseExec's scans: 0 is success, anything else a failure. */
enum { VSE_OK = 0 };

/* Events. */
enum { vseEvIdDetect = 16 /* something was found; properties 5, 15 to 17, 20, 21 hold */ };

/* Flags of vseInit: one definition family, with VSE_INIT_BASE always added. */
enum {
  VSE_INIT_BASE = 2,
  VSE_INIT_FAMILY_V1 = 0,
  VSE_INIT_FAMILY_V2 = 12,
  VSE_INIT_FAMILY_V2S = 16
};

/* Operations of vseExec. */
enum {
  VSE_EXEC_SCAN_PATH = 1,        /* (path, 0, 0) */
  VSE_EXEC_SCAN_FD = 9,          /* (path for the reports, open descriptor, 0) */
  VSE_EXEC_LOAD_DEFINITIONS = 14 /* (first file or NULL, 0, second file or NULL) */
};

/* Results of a scan; every other code counts as nothing found. */
enum {
  VSE_SCAN_CLEAN = 0,
  VSE_SCAN_DETECTED = 1,
  VSE_SCAN_DETECTED_OTHER = 2,
  VSE_SCAN_REMOVE = 7 /* a detection whose file the caller removes */
};

/* Properties. "set" ones are written by the daemon, "get" ones read inside the event callback. */
enum {
  VSE_PROP_SCAN_ACTION = 4, /* set, 4 bytes: 0 report, 1 disinfect, 2 delete */
  VSE_PROP_SCAN_RESULT = 5, /* get, 4 bytes: vse_scan_result */
  VSE_PROP_DECOMPRESS = 7,  /* set, index VSE_DECOMPRESS_LIMIT, 4 bytes: 0 is the engine's own */
  VSE_PROP_SESSION_OPTIONS = 9,     /* set, 4 bytes: VSE_SESSION_OPTIONS_DEFAULT */
  VSE_PROP_DETECTION_TYPE = 15,     /* get, 4 bytes: 0 to 27 */
  VSE_PROP_DETECTION_ACCURACY = 16, /* get, 4 bytes: vse_accuracy */
  VSE_PROP_DETECTION_NAME = 17,     /* get, text */
  VSE_PROP_ARCHIVE_NAME = 20,       /* get, text: the member inside an archive, else empty */
  VSE_PROP_OBJECT_NAME = 21,        /* get, text: the path as given to vseExec */
  VSE_PROP_MAX_ARCHIVE_DEPTH = 30,  /* set, 4 bytes: 0 looks into no archive */
  VSE_PROP_IGNORE_MASK = 40         /* set, 8 bytes: bit N ignores detections of type N */
};
enum { VSE_DECOMPRESS_LIMIT = 6, VSE_SESSION_OPTIONS_DEFAULT = 242 };

enum vse_accuracy {
  VSE_ACCURACY_NONE = 0,
  VSE_ACCURACY_EXACT = 1,
  VSE_ACCURACY_HEURISTIC = 2,
  VSE_ACCURACY_MODIFIED = 3,
  VSE_ACCURACY_POSSIBLY = 4
};

enum vse_scan_result {
  VSE_RESULT_NOTHING_FOUND = 0,
  VSE_RESULT_NOT_SCANNED = 1,
  VSE_RESULT_DAMAGED = 2,
  VSE_RESULT_ENCRYPTED = 3,
  VSE_RESULT_UNSUPPORTED = 4,
  VSE_RESULT_MAX_ARCHIVE_DEPTH = 5,
  VSE_RESULT_FOUND = 6,
  VSE_RESULT_DISINFECTED = 7,
  VSE_RESULT_DELETED = 8,
  VSE_RESULT_DISINFECT_FAILED = 10,
  VSE_RESULT_DELETE_FAILED = 11,
  VSE_RESULT_ERROR = 13
};

/* Starts the engine for the whole process. `cloud_access_key` may be NULL: no cloud look-ups. */
VSE_API int vseGlobalInit(const char* cloud_access_key);

/* Ends the engine. Handles still open are released with it. */
VSE_API int vseGlobalRelease(void);

/* Optional: an engine may leave it out, so its address is null unless the engine offers it. It does
 * beforehand what takes long in the first vseInit with these flags and this directory, such as
 * loading the definitions, and an engine that offers it keeps that for every vseInit to come. It
 * follows vseGlobalInit and overlaps no vseInit; who watches files calls it before watching any.
 * 0 on success; after a failure vseInit says for itself whether a handle can be made. */
VSE_API int vsePrepare(unsigned int flags, const char* database_directory) __attribute__((weak));

/* Makes a handle on the definitions in `database_directory`.
 * `reserved` is 0; `callback_context` is NULL. On failure `*handle_out` is not a handle. */
VSE_API int vseInit(uintptr_t reserved, unsigned int flags, const char* database_directory,
                    vse_event_callback callback, void* callback_context, VSEHANDLE* handle_out);

/* Releases a handle; it must not be in use. */
VSE_API int vseRelease(VSEHANDLE handle);

/* Writes one property. `value_size` is in bytes; `reserved` is 0. The value is copied. */
VSE_API int vseSet(VSEHANDLE handle, unsigned int property_id, unsigned int index,
                   const void* value, unsigned int value_size, uintptr_t reserved);

/* Reads one property into `buffer` of `buffer_size` bytes; texts are NUL-terminated and cut to
 * fit. `reserved` is 0. */
VSE_API int vseGet(VSEHANDLE handle, unsigned int property_id, unsigned int index, void* buffer,
                   unsigned int buffer_size, uintptr_t reserved);

/* Runs one operation; see VSE_EXEC_* for what the arguments carry. Descriptors and texts stay the
 * caller's; the position of a descriptor may change. */
VSE_API int vseExec(VSEHANDLE handle, unsigned int operation, uintptr_t argument_1,
                    uintptr_t argument_2, uintptr_t argument_3);

#ifdef __cplusplus
}
#endif
