// Bit planes of 0/255 masks (64 pixels a word): packing, unpacking, boxes
// and the other whole-plane reads. The morphology on them is in
// binary_morphology.cpp.
#include "analysis/binary_morphology.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include <algorithm>
#include <array>
#include <bit>
#include <cstring>

#include <opencv2/imgproc.hpp>

namespace {

constexpr uint64_t kOnes = ~uint64_t{0};

constexpr uint64_t kByteLsb = 0x0101010101010101ull;
// Gathers the low bits of the 8 bytes of a word into one byte (byte k -> bit k).
constexpr uint64_t kGather = 0x0102040810204080ull;

// Byte k of entry v is 0xFF when bit k of v is set.
constexpr std::array<uint64_t, 256> MakeSpread() {
  std::array<uint64_t, 256> table{};
  for (int v = 0; v < 256; ++v) {
    uint64_t word = 0;
    for (int k = 0; k < 8; ++k) {
      if ((v >> k) & 1) word |= uint64_t{0xFF} << (8 * k);
    }
    table[static_cast<size_t>(v)] = word;
  }
  return table;
}
constexpr std::array<uint64_t, 256> kSpread = MakeSpread();

// The box of set pixels met row by row: each row's first and last set column.
class RowBox {
 public:
  explicit RowBox(int cols) : cols_(cols), xmin_(cols) {}
  void Add(int y, int first, int last) {
    if (ymin_ < 0) ymin_ = y;
    ymax_ = y;
    xmin_ = std::min(xmin_, first);
    xmax_ = std::max(xmax_, last);
  }
  // cv::boundingRect's answer: Rect(0, 0, 0, 0) when no row had a pixel.
  cv::Rect Rect() const {
    const int xmin = xmin_ >= cols_ ? 0 : xmin_, ymin = xmin_ >= cols_ ? 0 : ymin_;
    return cv::Rect(xmin, ymin, xmax_ - xmin + 1, ymax_ - ymin + 1);
  }

 private:
  int cols_;
  int xmin_, xmax_ = -1, ymin_ = -1, ymax_ = -1;
};

#if defined(__x86_64__)
// The row's whole 64-pixel words, 32 pixels at a time: the number of words
// packed, or -1 at a byte other than 0 or 255.
__attribute__((target("avx2"))) int PackWordsAvx2(const uchar* p, int cols, uint64_t* out) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i ones = _mm256_set1_epi8(-1);
  int w = 0;
  for (; 64 * (w + 1) <= cols; ++w) {
    uint64_t word = 0;
    for (int half = 0; half < 2; ++half) {
      const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + 64 * w + 32 * half));
      const __m256i valid = _mm256_or_si256(_mm256_cmpeq_epi8(v, zero), _mm256_cmpeq_epi8(v, ones));
      if (_mm256_movemask_epi8(valid) != -1) return -1;
      word |= static_cast<uint64_t>(static_cast<uint32_t>(_mm256_movemask_epi8(v))) << (32 * half);
    }
    out[w] = word;
  }
  return w;
}

// The inverse for the row's whole words: 0xFF for each set bit, 0 for each
// clear one; returns the number of words written.
__attribute__((target("avx2"))) int UnpackWordsAvx2(const uint64_t* in, int cols, uchar* p) {
  // Byte k of a 32-pixel vector takes byte k / 8 of the bits and tests bit k % 8.
  const __m256i spread = _mm256_setr_epi64x(0, 0x0101010101010101ll, 0x0202020202020202ll,
                                            0x0303030303030303ll);
  const __m256i bit = _mm256_set1_epi64x(static_cast<long long>(0x8040201008040201ull));
  int w = 0;
  for (; 64 * (w + 1) <= cols; ++w) {
    for (int half = 0; half < 2; ++half) {
      const uint32_t bits = static_cast<uint32_t>(in[w] >> (32 * half));
      const __m256i v = _mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(bits)), spread);
      const __m256i set = _mm256_cmpeq_epi8(_mm256_and_si256(v, bit), bit);
      _mm256_storeu_si256(reinterpret_cast<__m256i*>(p + 64 * w + 32 * half), set);
    }
  }
  return w;
}

bool PackAvx2() {
  static const bool supported = __builtin_cpu_supports("avx2") != 0;
  return supported;
}
#endif

}  // namespace

bool BitMask::Pack(const cv::Mat& mask) {
  rows_ = cols_ = words_ = 0;
  occupied_.known = false;
  if (mask.empty() || mask.type() != CV_8UC1 || mask.dims != 2 || mask.isSubmatrix()) {
    return false;
  }
  rows_ = mask.rows;
  cols_ = mask.cols;
  words_ = (cols_ + 63) / 64;
  const int tail = cols_ % 64;
  pad_ = tail == 0 ? 0 : (kOnes << tail);
  bits_.resize(static_cast<size_t>(rows_) * words_);
  for (int y = 0; y < rows_; ++y) {
    const uchar* p = mask.ptr<uchar>(y);
    uint64_t* out = bits_.data() + static_cast<size_t>(y) * words_;
    int first = 0;
#if defined(__x86_64__)
    if (PackAvx2()) {
      first = PackWordsAvx2(p, cols_, out);
      if (first < 0) return false;
    }
#endif
    int x = 64 * first;
    for (int w = first; w < words_; ++w) {
      uint64_t word = 0;
      const int end = std::min(cols_, x + 64);
      int bit = 0;
#if defined(__SSE2__)
      // Sixteen pixels at a time: every byte 0 or 255, the top bits gathered.
      for (; x + 16 <= end; x += 16, bit += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + x));
        const __m128i valid = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_setzero_si128()),
                                           _mm_cmpeq_epi8(v, _mm_set1_epi8(-1)));
        if (_mm_movemask_epi8(valid) != 0xFFFF) return false;  // a byte other than 0 or 255
        word |= static_cast<uint64_t>(static_cast<uint32_t>(_mm_movemask_epi8(v))) << bit;
      }
#endif
      for (; x + 8 <= end; x += 8, bit += 8) {
        uint64_t v;
        std::memcpy(&v, p + x, 8);
        const uint64_t low = v & kByteLsb;
        if (v != low * 0xFF) return false;  // a byte other than 0 or 255
        word |= ((low * kGather) >> 56) << bit;
      }
      for (; x < end; ++x, ++bit) {
        if (p[x] != 0 && p[x] != 255) return false;
        word |= static_cast<uint64_t>(p[x] & 1) << bit;
      }
      out[w] = word;
    }
  }
  return true;
}

void BitMask::Unpack(cv::Mat& mask) const {
  mask.create(rows_, cols_, CV_8UC1);
  for (int y = 0; y < rows_; ++y) {
    uchar* p = mask.ptr<uchar>(y);
    const uint64_t* in = bits_.data() + static_cast<size_t>(y) * words_;
    if (std::all_of(in, in + words_, [](uint64_t w) { return w == 0; })) {
      std::memset(p, 0, static_cast<size_t>(cols_));  // most rows of a mask are empty
      continue;
    }
    int first = 0;
#if defined(__x86_64__)
    if (PackAvx2()) first = UnpackWordsAvx2(in, cols_, p);
#endif
    int x = 64 * first;
    for (int w = first; w < words_; ++w) {
      uint64_t word = in[w];
      const int end = std::min(cols_, x + 64);
      if (word == 0) {
        std::memset(p + x, 0, static_cast<size_t>(end - x));
        x = end;
        continue;
      }
      for (; x + 8 <= end; x += 8, word >>= 8) {
        std::memcpy(p + x, &kSpread[word & 0xFF], 8);
      }
      for (; x < end; ++x, word >>= 1) p[x] = (word & 1) != 0 ? 255 : 0;
    }
  }
}

void BitMask::Unpack(cv::Mat& mask, const cv::Rect& box) const {
  CV_Assert((box & cv::Rect(0, 0, cols_, rows_)) == box);
  mask.create(box.height, box.width, CV_8UC1);
  for (int y = 0; y < box.height; ++y) {
    uchar* p = mask.ptr<uchar>(y);
    const uint64_t* in = bits_.data() + static_cast<size_t>(box.y + y) * words_;
    int x = 0;
    for (; x + 8 <= box.width; x += 8) {  // eight pixels from the bits at column box.x + x on
      const int column = box.x + x;
      const int w = column >> 6, o = column & 63;
      uint64_t v = in[w] >> o;
      if (o > 56) v |= in[w + 1] << (64 - o);  // the eight end in the next word
      std::memcpy(p + x, &kSpread[v & 0xFF], 8);
    }
    for (; x < box.width; ++x) {
      const int column = box.x + x;
      p[x] = ((in[column >> 6] >> (column & 63)) & 1) != 0 ? 255 : 0;
    }
  }
}

cv::Rect BitMask::Bounds() const {
  RowBox box(cols_);
  for (int y = 0; y < rows_; ++y) {
    const uint64_t* row = bits_.data() + static_cast<size_t>(y) * words_;
    int first = -1, last = -1;
    for (int w = 0; w < words_; ++w) {
      if (row[w] == 0) continue;
      if (first < 0) first = 64 * w + std::countr_zero(row[w]);
      last = 64 * w + 63 - std::countl_zero(row[w]);
    }
    if (first >= 0) box.Add(y, first, last);
  }
  return box.Rect();
}

void BitMask::CopyTo(BitMask& other) const {
  other.rows_ = rows_;
  other.cols_ = cols_;
  other.words_ = words_;
  other.pad_ = pad_;
  other.occupied_ = occupied_;
  other.bits_.assign(bits_.begin(), bits_.begin() + static_cast<std::ptrdiff_t>(rows_) * words_);
}

void BitMask::ClearFrame() {
  if (rows_ == 0) return;
  std::fill(bits_.begin(), bits_.begin() + words_, 0);
  std::fill(bits_.end() - words_, bits_.end(), 0);
  const int lastWord = (cols_ - 1) / 64;
  const uint64_t lastBit = uint64_t{1} << ((cols_ - 1) % 64);
  for (int y = 0; y < rows_; ++y) {
    uint64_t* row = bits_.data() + static_cast<size_t>(y) * words_;
    row[0] &= ~uint64_t{1};
    row[lastWord] &= ~lastBit;
  }
}

namespace {

// Spreads the set bits of row r (a subset of m) along the runs of m, across
// the row's words: towards the high bits by an addition that carries through
// each run, towards the low bits by doubling shifts.
void SpreadAlongRuns(uint64_t* r, const uint64_t* m, int words) {
  unsigned carry = 0;
  for (int w = 0; w < words; ++w) {
    const uint64_t g = r[w];
    const unsigned __int128 sum = static_cast<unsigned __int128>(m[w]) + g + carry;
    carry = static_cast<unsigned>(sum >> 64);
    r[w] = ((static_cast<uint64_t>(sum) ^ m[w]) & m[w]) | g;
  }
  uint64_t from = 0;  // the lowest bit of the word above
  for (int w = words - 1; w >= 0; --w) {
    uint64_t g = r[w] | ((from << 63) & m[w]);
    uint64_t p = m[w];
    for (int shift = 1; shift < 64; shift *= 2) {
      g |= p & (g >> shift);
      p &= p >> shift;
    }
    r[w] = g;
    from = g & 1;
  }
}

}  // namespace

// The filled holes lie inside the box of the set pixels (a pixel outside it
// sees the plane's edge along a row or column of zeros), so occupied_ holds.
void BitMask::FillHoles() {
  if (rows_ == 0 || cols_ == 0) return;
  const size_t n = static_cast<size_t>(rows_) * words_;
  open_.resize(n);
  reach_.assign(n, 0);
  const uint64_t lastWord = pad_ == 0 ? ~uint64_t{0} : ~pad_;
  const uint64_t lastBit = uint64_t{1} << ((cols_ - 1) % 64);
  for (int y = 0; y < rows_; ++y) {
    uint64_t* open = open_.data() + static_cast<size_t>(y) * words_;
    uint64_t* reach = reach_.data() + static_cast<size_t>(y) * words_;
    const uint64_t* set = bits_.data() + static_cast<size_t>(y) * words_;
    for (int w = 0; w < words_; ++w) open[w] = ~set[w] & (w == words_ - 1 ? lastWord : ~uint64_t{0});
    // The edge: the first and last rows whole, the first and last columns.
    if (y == 0 || y == rows_ - 1) {
      std::copy(open, open + words_, reach);
    } else {
      reach[0] |= open[0] & 1;
      reach[words_ - 1] |= open[words_ - 1] & lastBit;
    }
  }
  // Down and up the rows in turn, each row taking what the row before
  // reaches and spreading it along its runs. After a sweep every row holds
  // what the rows on the side it came from reach; a sweep that changes
  // nothing leaves rows that hold what both sides reach.
  std::vector<uint64_t>& row = row_;
  row.resize(static_cast<size_t>(words_));
  const auto step = [&](int y, int from, bool spread) {
    uint64_t* reach = reach_.data() + static_cast<size_t>(y) * words_;
    const uint64_t* open = open_.data() + static_cast<size_t>(y) * words_;
    const uint64_t* before = reach_.data() + static_cast<size_t>(from) * words_;
    uint64_t fresh = 0;
    for (int w = 0; w < words_; ++w) {
      row[w] = reach[w] | (before[w] & open[w]);
      fresh |= row[w] & ~reach[w];
    }
    if (fresh == 0 && !spread) return false;  // nothing new to spread
    SpreadAlongRuns(row.data(), open, words_);
    const bool changed = !std::equal(row.begin(), row.end(), reach);
    std::copy(row.begin(), row.end(), reach);
    return changed;
  };
  // The first sweep spreads the edge's own rows and columns as well.
  for (int y = 0; y < rows_; ++y) step(y, y > 0 ? y - 1 : y, true);
  for (bool down = false;; down = !down) {
    bool changed = false;
    if (down) {
      for (int y = 1; y < rows_; ++y) changed |= step(y, y - 1, false);
    } else {
      for (int y = rows_ - 2; y >= 0; --y) changed |= step(y, y + 1, false);
    }
    if (!changed) break;
  }
  for (size_t i = 0; i < n; ++i) {
    const bool last = (i % static_cast<size_t>(words_)) == static_cast<size_t>(words_ - 1);
    bits_[i] = ~reach_[i] & (last ? lastWord : ~uint64_t{0});
  }
}

bool BitMask::Any() const {
  return std::any_of(bits_.begin(), bits_.begin() + static_cast<std::ptrdiff_t>(rows_) * words_,
                     [](uint64_t w) { return w != 0; });
}

void BitMask::SetPixels(std::vector<cv::Point>& points) const {
  points.clear();
  for (int y = 0; y < rows_; ++y) {
    const uint64_t* row = bits_.data() + static_cast<size_t>(y) * words_;
    for (int w = 0; w < words_; ++w) {
      for (uint64_t word = row[w]; word != 0; word &= word - 1) {
        points.emplace_back(64 * w + std::countr_zero(word), y);
      }
    }
  }
}

cv::Rect MaskBounds(const cv::Mat& mask) {
  if (mask.type() != CV_8UC1 || mask.dims != 2 || std::endian::native != std::endian::little) {
    return cv::boundingRect(mask);
  }
  const int cols = mask.cols;
  RowBox box(cols);
  for (int y = 0; y < mask.rows; ++y) {
    const uchar* p = mask.ptr<uchar>(y);
    // The first nonzero pixel of the row, eight at a time (pixel j + k is
    // byte k of the word read at j).
    int first = -1;
    int j = 0;
    for (; j + 8 <= cols; j += 8) {
      uint64_t word;
      std::memcpy(&word, p + j, 8);
      if (word != 0) {
        first = j + std::countr_zero(word) / 8;
        break;
      }
    }
    for (; first < 0 && j < cols; ++j) {
      if (p[j] != 0) first = j;
    }
    if (first < 0) continue;
    // The last one, from the end of the row.
    int last = first;
    int end = cols;
    for (; end - 8 >= first; end -= 8) {
      uint64_t word;
      std::memcpy(&word, p + end - 8, 8);
      if (word != 0) {
        last = end - 8 + (63 - std::countl_zero(word)) / 8;
        break;
      }
    }
    if (end - 8 < first) {
      for (int k = end - 1; k > first; --k) {
        if (p[k] != 0) {
          last = k;
          break;
        }
      }
    }
    box.Add(y, first, last);
  }
  return box.Rect();
}
