// A dynamic library loaded at run time, for as long as the object lives.
#pragma once

#include <dlfcn.h>

#include <utility>

/// Owns at most one library. Not synchronised; several loaders may load the same file at once.
class CUnixLoader {
 public:
  CUnixLoader() = default;
  ~CUnixLoader() {
    if (handle_ != nullptr) {
      (void)unloadLibrary();
    }
  }
  CUnixLoader(const CUnixLoader&) = delete;
  CUnixLoader& operator=(const CUnixLoader&) = delete;

  /// Loads a library, which must be the first of this loader. @return true when it is loaded
  bool loadLibrary(const char* file_name) {
    handle_ = dlopen(file_name, RTLD_LAZY);
    return handle_ != nullptr;
  }

  /// The function of that name, or null. A library must be loaded.
  template <typename Function>
  Function getProcAddress(const char* name) const {
    return reinterpret_cast<Function>(dlsym(handle_, name));
  }

  /// Unloads the library. @return dlclose's result, 0 for success
  int unloadLibrary() { return dlclose(std::exchange(handle_, nullptr)); }

 private:
  void* handle_ = nullptr;
};
