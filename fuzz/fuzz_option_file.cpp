// The option-file reader on arbitrary bytes: parse, then every read the
// replay makes, and the strict checks the tool applies to the values.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "harness/profile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  const ProfileFile file = ProfileFile::FromText(text);
  static constexpr std::string_view kKeys[][2] = {
      {"ROI", "X"},         {"ROI", "Width"},          {"Info", "FolderPath"},
      {"Info", "ImpactIndex"}, {"IntrinsicCal", "11"}, {"ExtrinsicCal", "34"}};
  for (const auto& key : kKeys) {
    (void)file.GetInt(key[0], key[1], 7);
    const std::wstring value = file.GetString(key[0], key[1], L"0");
    (void)WideToDouble(value);
    (void)WideToInt64(value);
    if (const std::string* raw = file.Find(key[0], key[1])) {
      (void)IsWholeInteger(*raw);
      (void)IsWholeNumber(*raw);
      if (WideToUtf8(Utf8ToWide(*raw)) != *raw) __builtin_trap();  // names must survive
    }
  }
  return 0;
}
