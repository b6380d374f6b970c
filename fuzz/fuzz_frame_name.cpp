// The frame-file-name parser on arbitrary names, both layouts.
#include <cstddef>
#include <cstdint>
#include <string>

#include "harness/offline.h"
#include "harness/profile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string bytes(reinterpret_cast<const char*>(data), size);
  ClubImage image{};
  ParseFrameFileName(std::wstring(bytes.begin(), bytes.end()), image);  // as the loader does
  ClubImage wide{};
  ParseFrameFileName(Utf8ToWide(bytes), wide);
  ClubImage head{};
  ParseFrameFileName(L"ClubHeadOriginal_" + Utf8ToWide(bytes), head);
  return 0;
}
