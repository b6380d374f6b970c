// Initialisation files as the recording tool writes and reads them, and the
// text-to-number conversions of its runtime.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <string_view>
#include <vector>

// Longest value a read returns, in characters (a buffer of 256 with its
// terminator).
inline constexpr size_t kProfileValueMaxChars = 255;

// Largest option file read, in bytes.
inline constexpr uint64_t kProfileMaxBytes = 1u << 20;

// One initialisation file, read at once. Sections and keys are matched without
// regard to case; the first occurrence of a key wins; values are trimmed,
// stripped of one pair of surrounding quotes and cut to 255 characters. Lines
// starting with ';' or '#' are comments; CRLF line endings are accepted. A
// missing or unreadable file reads as an empty one, and so does anything that
// is not a regular file of at most kProfileMaxBytes (a FIFO, /dev/zero): it is
// never read, and Problem() says why.
class ProfileFile {
 public:
  ProfileFile() = default;
  explicit ProfileFile(const std::filesystem::path& path);

  // Parses `content` as the text of a file (for tests and in-memory use).
  static ProfileFile FromText(std::string_view content);

  bool Found() const { return found_; }
  // Why the file was not read ("does not exist", "is not a regular file ...");
  // empty when it was.
  const std::string& Problem() const { return problem_; }

  // The value (UTF-8) of `key` in `section`, or null when either is missing.
  const std::string* Find(std::string_view section, std::string_view key) const;

  // Wide-string read with a default, like the string reader of the profile API.
  std::wstring GetString(std::string_view section, std::string_view key,
                         std::wstring_view defaultValue) const;

  // Integer read: a missing key or an empty value gives `defaultValue`;
  // otherwise the value's leading integer (see ProfileTextToInt).
  int GetInt(std::string_view section, std::string_view key, int defaultValue) const;

 private:
  struct Entry {
    std::string section;  // lower case, trimmed
    std::string key;      // lower case
    std::string value;
  };
  void Parse(std::string_view content);

  std::vector<Entry> entries_;
  bool found_ = false;
  std::string problem_;
};

// _wtof: leading white space, an optional sign, then the longest decimal
// number (digits, point, exponent); the rest is ignored. No number gives 0.0;
// an overflow gives +-HUGE_VAL.
double WideToDouble(std::wstring_view text);

// _wtoi / _wtoi64: leading white space, an optional sign, decimal digits up to
// the first other character; no digits give 0; overflow saturates.
int WideToInt(std::wstring_view text);
int64_t WideToInt64(std::wstring_view text);

// The profile integer reader's conversion of a non-empty value: its leading
// integer as WideToInt reads it.
int ProfileTextToInt(std::wstring_view text);

// Strict checks used to report malformed values to a user: the whole text
// (trimmed) is one integer, or one decimal number.
bool IsWholeInteger(std::string_view text);
bool IsWholeNumber(std::string_view text);

// UTF-8 and wide strings. Bytes that are not valid UTF-8 map to U+DC80..U+DCFF
// and back, so a file name survives the round trip unchanged.
std::wstring Utf8ToWide(std::string_view text);
std::string WideToUtf8(std::wstring_view text);

// A log callback that keeps each line, in UTF-8 and without its line breaks,
// in the std::vector<std::string> that `context` points to.
void CollectLogLine(std::wstring message, void* context);
