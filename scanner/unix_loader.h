// A dynamic library loaded at run time, for as long as the object lives.
#pragma once

#include <dlfcn.h>

#include <memory>

/// Owns at most one library. Not synchronised; several loaders may load the same file at once.
class CUnixLoader {
 public:
  /// Loads a library in place of the one before. @return true when it is loaded
  bool loadLibrary(const char* file_name) {
    handle_.reset(dlopen(file_name, RTLD_LAZY));
    return handle_ != nullptr;
  }

  /// The function of that name, or null. A library must be loaded.
  template <typename Function>
  Function getProcAddress(const char* name) const {
    return reinterpret_cast<Function>(dlsym(handle_.get(), name));
  }

  /// Unloads the library. @return dlclose's result, 0 for success
  int unloadLibrary() { return dlclose(handle_.release()); }

 private:
  std::unique_ptr<void, int (*)(void*)> handle_{nullptr, dlclose};
};
