#include "unix_loader.h"

CUnixLoader::~CUnixLoader() {
  if (handle_ != nullptr) {
    (void)unloadLibrary();
  }
}

bool CUnixLoader::loadLibrary(const char* file_name) {
  handle_ = dlopen(file_name, RTLD_LAZY);
  return handle_ != nullptr;
}

int CUnixLoader::unloadLibrary() {
  const int result = dlclose(handle_);
  handle_ = nullptr;
  return result;
}
