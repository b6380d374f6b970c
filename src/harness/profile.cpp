// Initialisation files and the runtime's text-to-number conversions.
#include "harness/profile.h"

#include "harness/frame_files.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <fstream>
#include <iterator>
#include <limits>
#include <new>
#include <sstream>
#include <vector>

#include <ini.h>

namespace {

bool IsBlank(unsigned ch) {
  return ch == ' ' || ch == '\t' || ch == '\n' || ch == '\v' || ch == '\f' || ch == '\r';
}
bool IsDigit(unsigned ch) { return ch >= '0' && ch <= '9'; }

std::string_view TrimView(std::string_view text) {
  size_t begin = 0;
  size_t end = text.size();
  while (begin < end && IsBlank(static_cast<unsigned char>(text[begin]))) ++begin;
  while (end > begin && IsBlank(static_cast<unsigned char>(text[end - 1]))) --end;
  return text.substr(begin, end - begin);
}

std::string Lower(std::string_view text) {
  std::string out(text);
  for (char& c : out) {
    if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
  }
  return out;
}

// Cuts a UTF-8 text after `maxChars` characters.
void CutToChars(std::string& text, size_t maxChars) {
  size_t chars = 0;
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if ((byte & 0xC0) != 0x80) {  // not a continuation byte: a new character
      if (chars == maxChars) {
        text.resize(i);
        return;
      }
      ++chars;
    }
  }
}

// A file saved as UTF-16 (with its byte-order mark) is turned into UTF-8; a
// UTF-8 byte-order mark is dropped.
std::string NormaliseEncoding(std::string content) {
  const auto byteAt = [&](size_t i) { return static_cast<unsigned char>(content[i]); };
  if (content.size() >= 3 && byteAt(0) == 0xEF && byteAt(1) == 0xBB && byteAt(2) == 0xBF) {
    return content.substr(3);
  }
  if (content.size() >= 2 && ((byteAt(0) == 0xFF && byteAt(1) == 0xFE) ||
                              (byteAt(0) == 0xFE && byteAt(1) == 0xFF))) {
    const bool little = byteAt(0) == 0xFF;
    std::wstring wide;
    for (size_t i = 2; i + 1 < content.size(); i += 2) {
      const unsigned unit = little ? (byteAt(i) | (byteAt(i + 1) << 8))
                                   : ((byteAt(i) << 8) | byteAt(i + 1));
      wide.push_back(static_cast<wchar_t>(unit));
    }
    // Join surrogate pairs.
    std::wstring joined;
    for (size_t i = 0; i < wide.size(); ++i) {
      const unsigned hi = static_cast<unsigned>(wide[i]);
      if (hi >= 0xD800 && hi <= 0xDBFF && i + 1 < wide.size()) {
        const unsigned lo = static_cast<unsigned>(wide[i + 1]);
        if (lo >= 0xDC00 && lo <= 0xDFFF) {
          joined.push_back(static_cast<wchar_t>(0x10000 + ((hi - 0xD800) << 10) + (lo - 0xDC00)));
          ++i;
          continue;
        }
      }
      joined.push_back(wide[i]);
    }
    return WideToUtf8(joined);
  }
  return content;
}

// The ini parser's line limit (200 bytes) is below what a value may hold, it
// joins indented lines to the previous value and cuts values at " ;". Private
// profiles do none of that, so lines are handed to it through this feeder:
// leading white space removed, and every value that is long or holds a ';' (or
// the marker byte) kept aside and replaced by a marker with its index.
struct LineFeeder {
  std::string_view content;
  size_t position = 0;
  std::vector<std::string> setAside;
  bool outOfMemory = false;  // no exception may unwind through the C parser
};

constexpr char kMarker = '\x01';

char* FeedLineOrThrow(char* buffer, int size, LineFeeder& feeder) {
  if (feeder.position >= feeder.content.size() || size < 16) return nullptr;
  const size_t newline = feeder.content.find('\n', feeder.position);
  const size_t end = newline == std::string_view::npos ? feeder.content.size() : newline;
  std::string_view line = feeder.content.substr(feeder.position, end - feeder.position);
  feeder.position = end + 1;

  while (!line.empty() && IsBlank(static_cast<unsigned char>(line.front()))) line.remove_prefix(1);
  while (!line.empty() && line.back() == '\r') line.remove_suffix(1);
  const size_t room = static_cast<size_t>(size) - 2;  // the line break and the terminator

  std::string out;
  if (line.empty()) {
    out.clear();
  } else if (line.front() == ';' || line.front() == '#') {
    out = ";";
  } else if (line.front() == '[') {
    out = line.size() <= room ? std::string(line) : std::string("[") + kMarker + "]";
  } else {
    const size_t equals = line.find('=');
    const size_t colon = line.find(':');
    if (equals == std::string_view::npos || (colon != std::string_view::npos && colon < equals)) {
      out = ";";  // not a key line
    } else {
      const std::string_view key = line.substr(0, equals);
      const std::string_view value = line.substr(equals + 1);
      const bool aside = line.size() > room || value.find(';') != std::string_view::npos ||
                         value.find(kMarker) != std::string_view::npos;
      if (!aside) {
        out = line;
      } else if (key.size() + 24 > room) {
        out = ";";  // a key this long is none that is ever looked up
      } else {
        out = std::string(key) + "=" + kMarker + std::to_string(feeder.setAside.size());
        feeder.setAside.emplace_back(value);
      }
    }
  }
  out.push_back('\n');
  std::memcpy(buffer, out.data(), out.size());
  buffer[out.size()] = '\0';
  return buffer;
}

char* FeedLine(char* buffer, int size, void* stream) {
  auto& feeder = *static_cast<LineFeeder*>(stream);
  try {
    return FeedLineOrThrow(buffer, size, feeder);
  } catch (...) {
    feeder.outOfMemory = true;
    return nullptr;
  }
}

struct ParseContext {
  LineFeeder* feeder;
  std::vector<std::string> sections;
  std::vector<std::string> keys;
  std::vector<std::string> values;
};

void StoreEntry(ParseContext& context, const char* section, const char* name, const char* value) {
  std::string_view text(value);
  if (!text.empty() && text.front() == kMarker) {
    size_t index = 0;
    const auto [end, ec] = std::from_chars(text.data() + 1, text.data() + text.size(), index);
    if (ec == std::errc() && end == text.data() + text.size() &&
        index < context.feeder->setAside.size()) {
      text = context.feeder->setAside[index];
    }
  }
  text = TrimView(text);
  if (text.size() >= 2 && (text.front() == '"' || text.front() == '\'') &&
      text.back() == text.front()) {
    text = text.substr(1, text.size() - 2);
  }
  std::string stored(text);
  CutToChars(stored, kProfileValueMaxChars);
  context.sections.push_back(Lower(TrimView(section)));
  context.keys.push_back(Lower(TrimView(name)));
  context.values.push_back(std::move(stored));
}

int OnEntry(void* user, const char* section, const char* name, const char* value) {
  auto& context = *static_cast<ParseContext*>(user);
  try {
    StoreEntry(context, section, name, value);
    return 1;
  } catch (...) {
    context.feeder->outOfMemory = true;
    return 0;
  }
}

template <typename Ch>
size_t SkipBlanks(std::basic_string_view<Ch> text, size_t i) {
  while (i < text.size() && IsBlank(static_cast<unsigned>(text[i]))) ++i;
  return i;
}

template <typename Ch, typename Int>
Int LeadingInteger(std::basic_string_view<Ch> text) {
  size_t i = SkipBlanks(text, 0);
  bool negative = false;
  if (i < text.size() && (text[i] == Ch('+') || text[i] == Ch('-'))) {
    negative = text[i] == Ch('-');
    ++i;
  }
  using Unsigned = std::make_unsigned_t<Int>;
  const Unsigned limit = negative ? Unsigned(std::numeric_limits<Int>::max()) + 1u
                                  : Unsigned(std::numeric_limits<Int>::max());
  Unsigned magnitude = 0;
  bool saturated = false;
  for (; i < text.size() && IsDigit(static_cast<unsigned>(text[i])); ++i) {
    const Unsigned digit = static_cast<Unsigned>(text[i] - Ch('0'));
    if (saturated || magnitude > (limit - digit) / 10u) {
      saturated = true;
      continue;
    }
    magnitude = magnitude * 10u + digit;
  }
  if (saturated) magnitude = limit;
  if (!negative) return static_cast<Int>(magnitude);
  if (magnitude == limit) return std::numeric_limits<Int>::min();
  return static_cast<Int>(-static_cast<Int>(magnitude));
}

// Finds the decimal number at the start of `text` (after blanks and a sign).
// Returns the number's text without the sign, or empty when there is none;
// `endOut` is the index after it.
template <typename Ch>
std::string DecimalPrefix(std::basic_string_view<Ch> text, bool& negative, size_t& endOut) {
  size_t i = SkipBlanks(text, 0);
  negative = false;
  if (i < text.size() && (text[i] == Ch('+') || text[i] == Ch('-'))) {
    negative = text[i] == Ch('-');
    ++i;
  }
  std::string number;
  size_t mantissaDigits = 0;
  for (; i < text.size() && IsDigit(static_cast<unsigned>(text[i])); ++i, ++mantissaDigits) {
    number.push_back(static_cast<char>(text[i]));
  }
  if (i < text.size() && text[i] == Ch('.')) {
    number.push_back('.');
    for (++i; i < text.size() && IsDigit(static_cast<unsigned>(text[i])); ++i, ++mantissaDigits) {
      number.push_back(static_cast<char>(text[i]));
    }
  }
  if (mantissaDigits == 0) {
    endOut = 0;
    return {};
  }
  if (i < text.size() && (text[i] == Ch('e') || text[i] == Ch('E'))) {
    size_t j = i + 1;
    std::string exponent = "e";
    if (j < text.size() && (text[j] == Ch('+') || text[j] == Ch('-'))) {
      exponent.push_back(static_cast<char>(text[j]));
      ++j;
    }
    if (j < text.size() && IsDigit(static_cast<unsigned>(text[j]))) {
      for (; j < text.size() && IsDigit(static_cast<unsigned>(text[j])); ++j) {
        exponent.push_back(static_cast<char>(text[j]));
      }
      number += exponent;
      i = j;
    }
  }
  endOut = i;
  return number;
}

// Whether a decimal number that does not fit a double is too large (rather
// than too small): the position of its first non-zero digit plus its exponent.
bool Overflows(const std::string& number) {
  const size_t e = number.find('e');
  const std::string mantissa = number.substr(0, e);
  long long exponent = 0;
  if (e != std::string::npos) {
    exponent = LeadingInteger<char, int32_t>(std::string_view(number).substr(e + 1));
  }
  const size_t point = mantissa.find('.');
  const size_t integerDigits = point == std::string::npos ? mantissa.size() : point;
  const size_t firstNonZero = mantissa.find_first_of("123456789");
  if (firstNonZero == std::string::npos) return false;
  const long long position = firstNonZero < integerDigits
                                 ? static_cast<long long>(integerDigits - firstNonZero)
                                 : -static_cast<long long>(firstNonZero - integerDigits - 1);
  return position + exponent > 0;
}

template <typename Ch>
double ToDouble(std::basic_string_view<Ch> text) {
  bool negative = false;
  size_t end = 0;
  const std::string number = DecimalPrefix(text, negative, end);
  if (number.empty()) return 0.0;
  double value = 0.0;
  const auto [ptr, ec] = std::from_chars(number.data(), number.data() + number.size(), value,
                                         std::chars_format::general);
  (void)ptr;
  if (ec == std::errc::result_out_of_range) {
    value = Overflows(number) ? HUGE_VAL : 0.0;
  } else if (ec != std::errc()) {
    value = 0.0;
  }
  return negative ? -value : value;
}

}  // namespace

ProfileFile::ProfileFile(const std::filesystem::path& path) {
  std::error_code ec;
  if (!std::filesystem::exists(path, ec)) {
    problem_ = "does not exist";
    return;
  }
  std::string text;
  if (!ReadRegularFile(path, kProfileMaxBytes, text, problem_)) return;
  found_ = true;
  Parse(NormaliseEncoding(std::move(text)));
}

ProfileFile ProfileFile::FromText(std::string_view content) {
  ProfileFile file;
  file.found_ = true;
  file.Parse(NormaliseEncoding(std::string(content)));
  return file;
}

void ProfileFile::Parse(std::string_view content) {
  LineFeeder feeder{content, 0, {}};
  ParseContext context{&feeder, {}, {}, {}};
  ini_parse_stream(&FeedLine, &feeder, &OnEntry, &context);
  if (feeder.outOfMemory) throw std::bad_alloc();
  entries_.reserve(context.values.size());
  for (size_t i = 0; i < context.values.size(); ++i) {
    entries_.push_back(Entry{std::move(context.sections[i]), std::move(context.keys[i]),
                             std::move(context.values[i])});
  }
}

const std::string* ProfileFile::Find(std::string_view section, std::string_view key) const {
  const std::string wantedSection = Lower(section);
  const std::string wantedKey = Lower(key);
  for (const Entry& entry : entries_) {
    if (entry.section == wantedSection && entry.key == wantedKey) return &entry.value;
  }
  return nullptr;
}

std::wstring ProfileFile::GetString(std::string_view section, std::string_view key,
                                    std::wstring_view defaultValue) const {
  const std::string* value = Find(section, key);
  if (value == nullptr) return std::wstring(defaultValue);
  return Utf8ToWide(*value);
}

int ProfileFile::GetInt(std::string_view section, std::string_view key, int defaultValue) const {
  const std::string* value = Find(section, key);
  if (value == nullptr || value->empty()) return defaultValue;
  return ProfileTextToInt(Utf8ToWide(*value));
}

double WideToDouble(std::wstring_view text) { return ToDouble(text); }

int WideToInt(std::wstring_view text) { return LeadingInteger<wchar_t, int32_t>(text); }

int64_t WideToInt64(std::wstring_view text) { return LeadingInteger<wchar_t, int64_t>(text); }

int ProfileTextToInt(std::wstring_view text) { return WideToInt(text); }

bool IsWholeInteger(std::string_view text) {
  text = TrimView(text);
  size_t i = 0;
  if (i < text.size() && (text[i] == '+' || text[i] == '-')) ++i;
  if (i == text.size()) return false;
  for (; i < text.size(); ++i) {
    if (!IsDigit(static_cast<unsigned char>(text[i]))) return false;
  }
  return true;
}

bool IsWholeNumber(std::string_view text) {
  text = TrimView(text);
  bool negative = false;
  size_t end = 0;
  return !DecimalPrefix(text, negative, end).empty() && end == text.size();
}

std::wstring Utf8ToWide(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const auto lead = static_cast<unsigned char>(text[i]);
    size_t length = 0;
    unsigned code = 0;
    unsigned minimum = 0;
    if (lead < 0x80) {
      out.push_back(static_cast<wchar_t>(lead));
      ++i;
      continue;
    } else if ((lead & 0xE0) == 0xC0) {
      length = 2, code = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
      length = 3, code = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
      length = 4, code = lead & 0x07, minimum = 0x10000;
    }
    bool valid = length != 0 && i + length <= text.size();
    for (size_t k = 1; valid && k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) {
        valid = false;
      } else {
        code = (code << 6) | (next & 0x3F);
      }
    }
    valid = valid && code >= minimum && code <= 0x10FFFF && !(code >= 0xD800 && code <= 0xDFFF);
    if (valid) {
      out.push_back(static_cast<wchar_t>(code));
      i += length;
    } else {
      out.push_back(static_cast<wchar_t>(0xDC00 + lead));  // kept as an escaped byte
      ++i;
    }
  }
  return out;
}

std::string WideToUtf8(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (const wchar_t wide : text) {
    const auto code = static_cast<uint32_t>(wide);
    if (code < 0x80) {
      out.push_back(static_cast<char>(code));
    } else if (code >= 0xDC80 && code <= 0xDCFF) {
      out.push_back(static_cast<char>(code - 0xDC00));  // an escaped byte
    } else if (code < 0x800) {
      out.push_back(static_cast<char>(0xC0 | (code >> 6)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code < 0x10000) {
      out.push_back(static_cast<char>(0xE0 | (code >> 12)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else if (code <= 0x10FFFF) {
      out.push_back(static_cast<char>(0xF0 | (code >> 18)));
      out.push_back(static_cast<char>(0x80 | ((code >> 12) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | ((code >> 6) & 0x3F)));
      out.push_back(static_cast<char>(0x80 | (code & 0x3F)));
    } else {
      out.push_back('?');
    }
  }
  return out;
}

void CollectLogLine(std::wstring message, void* context) {
  auto* lines = static_cast<std::vector<std::string>*>(context);
  try {
    std::string line = WideToUtf8(message);
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r')) line.pop_back();
    lines->push_back(std::move(line));
  } catch (...) {
    // Out of memory: the line is lost, the run goes on.
  }
}
