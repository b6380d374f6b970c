// The testing object as a host gets it: from the shared library's
// QTIFactoryFunc, the library loaded once and kept.
#pragma once

#include <dlfcn.h>

#include <memory>

#include "clubtracker/QuarvelTestingInterface.h"

inline std::unique_ptr<QuarvelTestingInterface> LoadedTester() {
  static void* handle = dlopen(CLUBTRACKER_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  if (handle == nullptr) return nullptr;
  auto factory = reinterpret_cast<QuarvelTestingInterface* (*)()>(dlsym(handle, "QTIFactoryFunc"));
  return std::unique_ptr<QuarvelTestingInterface>(factory != nullptr ? factory() : nullptr);
}
