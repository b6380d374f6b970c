#include "analysis/binary_morphology.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include <algorithm>
#include <array>
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

inline uint64_t Combine(uint64_t a, uint64_t b, bool erode) { return erode ? (a & b) : (a | b); }

}  // namespace

bool BitMask::Pack(const cv::Mat& mask) {
  rows_ = cols_ = words_ = 0;
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
    int x = 0;
    for (int w = 0; w < words_; ++w) {
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
    int x = 0;
    for (int w = 0; w < words_; ++w) {
      uint64_t word = in[w];
      const int end = std::min(cols_, x + 64);
      for (; x + 8 <= end; x += 8, word >>= 8) {
        std::memcpy(p + x, &kSpread[word & 0xFF], 8);
      }
      for (; x < end; ++x, word >>= 1) p[x] = (word & 1) != 0 ? 255 : 0;
    }
  }
}

const BitMask::Kernel& BitMask::KernelOf(int shape, int size) {
  for (const Kernel& kernel : kernels_) {
    if (kernel.shape == shape && kernel.size == size) return kernel;
  }
  Kernel kernel;
  kernel.shape = shape;
  kernel.size = size;
  const cv::Mat k = cv::getStructuringElement(shape, cv::Size(size, size), cv::Point(-1, -1));
  const int anchor = size / 2;
  kernel.valid = size > 0 && k.rows == size && k.cols == size;
  std::vector<std::pair<int, int>> runs;  // per row
  for (int i = 0; kernel.valid && i < size; ++i) {
    const uchar* row = k.ptr<uchar>(i);
    int first = -1, last = -1, ones = 0;
    for (int j = 0; j < size; ++j) {
      if (row[j] == 0) continue;
      if (first < 0) first = j;
      last = j;
      ++ones;
    }
    if (ones == 0) {
      runs.emplace_back(1, 0);
      continue;
    }
    const int lo = first - anchor, hi = last - anchor;
    if (ones != last - first + 1 || lo > 0 || hi < 0) kernel.valid = false;
    runs.emplace_back(lo, hi);
  }
  if (kernel.valid) {
    std::vector<std::pair<int, int>> distinct;
    for (const auto& run : runs) {
      if (run.first <= run.second) distinct.push_back(run);
    }
    std::sort(distinct.begin(), distinct.end(), [](const auto& a, const auto& b) {
      return a.second - a.first < b.second - b.first ||
             (a.second - a.first == b.second - b.first && a < b);
    });
    distinct.erase(std::unique(distinct.begin(), distinct.end()), distinct.end());
    for (size_t r = 1; r < distinct.size(); ++r) {  // each run holds the one before
      if (distinct[r].first > distinct[r - 1].first || distinct[r].second < distinct[r - 1].second) {
        kernel.valid = false;
      }
    }
    for (const auto& run : distinct) {
      kernel.lo.push_back(run.first);
      kernel.hi.push_back(run.second);
    }
    for (const auto& run : runs) {
      const auto at = std::find(distinct.begin(), distinct.end(), run);
      kernel.run.push_back(at == distinct.end() ? -1 : static_cast<int>(at - distinct.begin()));
    }
    kernel.uniform = distinct.size() == 1 &&
                     std::find(kernel.run.begin(), kernel.run.end(), -1) == kernel.run.end();
  }
  kernels_.push_back(std::move(kernel));
  return kernels_.back();
}

void BitMask::FixPadding(uint64_t* plane, bool fill) const {
  if (pad_ == 0) return;
  for (int y = 0; y < rows_; ++y) {
    uint64_t& last = plane[static_cast<size_t>(y) * words_ + words_ - 1];
    last = fill ? (last | pad_) : (last & ~pad_);
  }
}

namespace {

// BitMask::ShiftCombine for one operation: the words whose reads lie inside
// the row run in a plain loop, the few at its ends read the border.
template <bool kErode>
void ShiftCombineRow(const uint64_t* src, uint64_t* dst, int n, int d) {
  const uint64_t fill = kErode ? kOnes : 0;
  const int q = d >= 0 ? d / 64 : -((-d + 63) / 64);
  const int r = d - 64 * q;
  const auto op = [](uint64_t a, uint64_t b) { return kErode ? (a & b) : (a | b); };
  const auto word = [&](int i) { return (i >= 0 && i < n) ? src[i] : fill; };
  const auto edge = [&](int w) {
    uint64_t shifted = word(w + q) >> r;
    if (r != 0) shifted |= word(w + q + 1) << (64 - r);
    dst[w] = op(src[w], shifted);
  };
  // Words w whose reads w + q and w + q + 1 both lie inside the row.
  const int inFirst = std::max(0, -q), inLast = std::min(n - 1, n - 2 - q);
  // In place (src == dst) each word is written after the words it reads:
  // a shift to the left reads higher words, one to the right lower ones.
  if (d >= 0) {
    int w = 0;
    for (; w < n && w < inFirst; ++w) edge(w);
    if (r == 0) {
      for (; w <= inLast; ++w) dst[w] = op(src[w], src[w + q]);
    } else {
      for (; w <= inLast; ++w) dst[w] = op(src[w], (src[w + q] >> r) | (src[w + q + 1] << (64 - r)));
    }
    for (; w < n; ++w) edge(w);
  } else {
    int w = n - 1;
    for (; w >= 0 && w > inLast; --w) edge(w);
    if (r == 0) {
      for (; w >= inFirst; --w) dst[w] = op(src[w], src[w + q]);
    } else {
      for (; w >= inFirst; --w) {
        dst[w] = op(src[w], (src[w + q] >> r) | (src[w + q + 1] << (64 - r)));
      }
    }
    for (; w >= 0; --w) edge(w);
  }
}

}  // namespace

void BitMask::ShiftCombine(const uint64_t* src, uint64_t* dst, int n, int d, bool erode) {
  if (erode) {
    ShiftCombineRow<true>(src, dst, n, d);
  } else {
    ShiftCombineRow<false>(src, dst, n, d);
  }
}

void BitMask::Morph(const Kernel& kernel, bool erode) {
  const uint64_t identity = erode ? kOnes : 0;
  const int reach = kernel.size / 2;
  const int runs = static_cast<int>(kernel.lo.size());

  // Horizontal runs, each grown from the one before by doubling. A run's value
  // just outside the image depends on the pixels inside, so each row carries
  // margin words on both sides, wide enough that beyond them every run reads
  // only the border.
  int farthest = 0;
  for (int k = 0; k < runs; ++k) farthest = std::max({farthest, kernel.hi[k], -kernel.lo[k]});
  const int margin = (farthest + 63) / 64;
  const int stride = words_ + 2 * margin;
  const size_t planeWords = static_cast<size_t>(rows_) * stride;
  planes_.resize(planeWords * static_cast<size_t>(runs));
  FixPadding(bits_.data(), erode);
  // A row of the image that is all 0 or all 1 gives that same row for every
  // run (each run holds the pixel itself), so such rows are not grown.
  constantRow_.assign(static_cast<size_t>(rows_), 0);
  for (int y = 0; y < rows_; ++y) {
    const uint64_t* row = bits_.data() + static_cast<size_t>(y) * words_;
    const uint64_t value = (row[0] & 1) == 0 ? 0 : kOnes;  // its first pixel's value
    bool constant = true;
    for (int w = 0; w < words_ && constant; ++w) {
      const uint64_t used = w == words_ - 1 ? ~pad_ : kOnes;  // the image's columns
      constant = ((row[w] ^ value) & used) == 0;
    }
    if (constant) constantRow_[static_cast<size_t>(y)] = value == 0 ? 1 : 2;
  }
  int a = 0, b = 0;
  for (int k = 0; k < runs; ++k) {
    uint64_t* plane = planes_.data() + planeWords * static_cast<size_t>(k);
    // The first step of a later run reads the run before it.
    const uint64_t* from = plane - planeWords;
    if (k == 0) {
      for (int y = 0; y < rows_; ++y) {
        uint64_t* row = plane + static_cast<size_t>(y) * stride;
        std::fill(row, row + stride, identity);
        std::memcpy(row + margin, bits_.data() + static_cast<size_t>(y) * words_,
                    static_cast<size_t>(words_) * sizeof(uint64_t));
      }
      from = plane;
    }
    while (b < kernel.hi[k] || a > kernel.lo[k]) {
      const int width = b - a + 1;
      int d;
      if (b < kernel.hi[k]) {
        d = std::min(kernel.hi[k] - b, width);
        b += d;
      } else {
        d = -std::min(a - kernel.lo[k], width);
        a += d;
      }
      for (int y = 0; y < rows_; ++y) {
        const size_t at = static_cast<size_t>(y) * stride;
        const char constant = constantRow_[static_cast<size_t>(y)];
        if (constant == 0) {
          ShiftCombine(from + at, plane + at, stride, d, erode);
        } else if (from != plane) {
          std::fill(plane + at + margin, plane + at + margin + words_,
                    constant == 1 ? uint64_t{0} : kOnes);
        }
      }
      from = plane;
    }
  }
  const auto runRow = [&](int run, int y) {
    return planes_.data() + planeWords * static_cast<size_t>(run) + static_cast<size_t>(y) * stride +
           margin;
  };

  if (kernel.uniform) {
    // Rows: windows of `size` rows by doubling. Row p of the column buffer
    // holds the window starting at image row p - reach; rows before the first
    // and past the last are the border, the identity.
    const int total = rows_ + reach;
    column_.assign(static_cast<size_t>(total) * words_, identity);
    for (int y = 0; y < rows_; ++y) {
      std::memcpy(column_.data() + static_cast<size_t>(y + reach) * words_, runRow(0, y),
                  static_cast<size_t>(words_) * sizeof(uint64_t));
    }
    int length = 1;
    while (length < kernel.size) {
      const int e = std::min(kernel.size - length, length);
      for (int p = 0; p + e < total; ++p) {
        uint64_t* row = column_.data() + static_cast<size_t>(p) * words_;
        const uint64_t* below = row + static_cast<size_t>(e) * words_;
        for (int w = 0; w < words_; ++w) row[w] = Combine(row[w], below[w], erode);
      }
      length += e;
    }
    std::memcpy(bits_.data(), column_.data(),
                static_cast<size_t>(rows_) * words_ * sizeof(uint64_t));
  } else {
    // An all-0 row of the image stays 0 under an erosion (the kernel holds
    // the pixel itself); a dilation gives 0 where every row within reach is
    // all 0. Such rows are written without combining.
    mixedBefore_.resize(static_cast<size_t>(rows_) + 1);
    mixedBefore_[0] = 0;
    for (int y = 0; y < rows_; ++y) {
      mixedBefore_[static_cast<size_t>(y) + 1] =
          mixedBefore_[static_cast<size_t>(y)] + (constantRow_[static_cast<size_t>(y)] != 1 ? 1 : 0);
    }
    const auto noneSet = [&](int from, int to) {  // rows from..to, clipped to the image
      from = std::max(from, 0);
      to = std::min(to, rows_ - 1);
      return mixedBefore_[static_cast<size_t>(to) + 1] == mixedBefore_[static_cast<size_t>(from)];
    };
    for (int y = 0; y < rows_; ++y) {
      uint64_t* out = bits_.data() + static_cast<size_t>(y) * words_;
      const bool zero = erode ? noneSet(y, y) : noneSet(y - reach, y + reach);
      if (zero) {
        std::fill(out, out + words_, uint64_t{0});
        continue;
      }
      std::fill(out, out + words_, identity);
      for (int i = 0; i < kernel.size; ++i) {
        const int yy = y + i - reach;
        const int run = kernel.run[static_cast<size_t>(i)];
        if (run < 0 || yy < 0 || yy >= rows_) continue;
        const uint64_t* in = runRow(run, yy);
        for (int w = 0; w < words_; ++w) out[w] = Combine(out[w], in[w], erode);
      }
    }
  }
  FixPadding(bits_.data(), false);
}

void BitMask::Apply(const MorphStep& step) {
  const Kernel& kernel = KernelOf(step.shape, step.size);
  switch (step.op) {
    case cv::MORPH_ERODE:
      Morph(kernel, true);
      break;
    case cv::MORPH_DILATE:
      Morph(kernel, false);
      break;
    case cv::MORPH_OPEN:
      Morph(kernel, true);
      Morph(kernel, false);
      break;
    case cv::MORPH_CLOSE:
      Morph(kernel, false);
      Morph(kernel, true);
      break;
    default:
      break;
  }
}

void BitMask::CopyTo(BitMask& other) const {
  other.rows_ = rows_;
  other.cols_ = cols_;
  other.words_ = words_;
  other.pad_ = pad_;
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

bool BitMask::Any() const {
  return std::any_of(bits_.begin(), bits_.begin() + static_cast<std::ptrdiff_t>(rows_) * words_,
                     [](uint64_t w) { return w != 0; });
}

bool BitMask::Supports(const MorphStep& step) {
  if (step.op != cv::MORPH_ERODE && step.op != cv::MORPH_DILATE && step.op != cv::MORPH_OPEN &&
      step.op != cv::MORPH_CLOSE) {
    return false;
  }
  return step.size > 0 && step.size % 2 == 1 && KernelOf(step.shape, step.size).valid;
}

BitMask& ThreadBitMask() {
  thread_local BitMask mask;
  return mask;
}

void MorphologyChainLiteral(const cv::Mat& src, cv::Mat& dst,
                            std::initializer_list<MorphStep> steps) {
  const cv::Mat* from = &src;
  for (const MorphStep& step : steps) {
    const cv::Mat kernel =
        cv::getStructuringElement(step.shape, cv::Size(step.size, step.size), cv::Point(-1, -1));
    cv::morphologyEx(*from, dst, step.op, kernel, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT,
                     cv::morphologyDefaultBorderValue());
    from = &dst;
  }
}

void MorphologyChain(const cv::Mat& src, cv::Mat& dst, std::initializer_list<MorphStep> steps) {
  BitMask& mask = ThreadBitMask();
  bool fast = true;
  for (const MorphStep& step : steps) fast = fast && mask.Supports(step);
  if (!fast || !mask.Pack(src)) {
    MorphologyChainLiteral(src, dst, steps);
    return;
  }
  for (const MorphStep& step : steps) mask.Apply(step);
  mask.Unpack(dst);
}
