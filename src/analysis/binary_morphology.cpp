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

bool PackAvx2() {
  static const bool supported = __builtin_cpu_supports("avx2") != 0;
  return supported;
}
#endif

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

// The three plane operations of Morph, each over n words:
//  kShift: dst[i] = src[i] op (the 64 bits starting d bits after word i's
//    first): a plane of rows laid end to end, shifted as one row. src must be
//    readable from |d| / 64 + 1 words before its start to as many after its
//    end; dst must not overlap it.
//  kRows: dst[i] = dst[i] op src[i]; src and dst must not overlap.
//  kAhead: dst[i] = dst[i] op dst[i + d] (d > 0, in place).
enum class PlaneOp { kShift, kRows, kAhead };

template <bool kErode>
inline uint64_t Op(uint64_t a, uint64_t b) {
  return kErode ? (a & b) : (a | b);
}

template <bool kErode>
inline void PlaneStepOf(PlaneOp op, const uint64_t* __restrict src, uint64_t* __restrict dst,
                        size_t n, int d) {
  if (op == PlaneOp::kRows) {
    for (size_t i = 0; i < n; ++i) dst[i] = Op<kErode>(dst[i], src[i]);
    return;
  }
  if (op == PlaneOp::kAhead) {
    uint64_t* a = dst;  // reads ahead of the writes: vectorised with a runtime check
    const size_t k = static_cast<size_t>(d);
    for (size_t i = 0; i < n; ++i) a[i] = Op<kErode>(a[i], a[i + k]);
    return;
  }
  const std::ptrdiff_t q = d >= 0 ? d / 64 : -((-d + 63) / 64);
  const int r = d - 64 * static_cast<int>(q);
  const uint64_t* at = src + q;
  if (r == 0) {
    for (size_t i = 0; i < n; ++i) dst[i] = Op<kErode>(src[i], at[i]);
  } else {
    const int l = 64 - r;
    for (size_t i = 0; i < n; ++i) dst[i] = Op<kErode>(src[i], (at[i] >> r) | (at[i + 1] << l));
  }
}

void PlaneStepPortable(PlaneOp op, const uint64_t* src, uint64_t* dst, size_t n, int d,
                       bool erode) {
  if (erode) {
    PlaneStepOf<true>(op, src, dst, n, d);
  } else {
    PlaneStepOf<false>(op, src, dst, n, d);
  }
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) void PlaneStepAvx2(PlaneOp op, const uint64_t* src, uint64_t* dst,
                                                   size_t n, int d, bool erode) {
  if (erode) {
    PlaneStepOf<true>(op, src, dst, n, d);
  } else {
    PlaneStepOf<false>(op, src, dst, n, d);
  }
}
#endif

void PlaneStep(PlaneOp op, const uint64_t* src, uint64_t* dst, size_t n, int d, bool erode) {
#if defined(__x86_64__)
  static const bool avx2 = __builtin_cpu_supports("avx2") != 0;
  if (avx2) {
    PlaneStepAvx2(op, src, dst, n, d, erode);
    return;
  }
#endif
  PlaneStepPortable(op, src, dst, n, d, erode);
}

}  // namespace

namespace {

// A row's few words, copied or filled in place: as library calls, one or
// three per row, the calls would cost more than the words (the file is built
// without turning such loops back into calls).
inline void CopyWords(uint64_t* __restrict dst, const uint64_t* __restrict src, int n) {
  for (int i = 0; i < n; ++i) dst[i] = src[i];
}

inline void FillWords(uint64_t* dst, int n, uint64_t value) {
  for (int i = 0; i < n; ++i) dst[i] = value;
}

}  // namespace

void BitMask::Morph(const Kernel& kernel, bool erode) {
  const uint64_t identity = erode ? kOnes : 0;
  const int reach = kernel.size / 2;
  const int runs = static_cast<int>(kernel.lo.size());

  // Horizontal runs, each grown from the one before by doubling. A run's value
  // just outside the image depends on the pixels inside, so each row carries
  // margin words on both sides, wide enough that every pixel's run reads only
  // its own row: its image words, then the border. The rows lie end to end
  // and each doubling shifts the whole plane as one row; what reaches across
  // into a neighbouring row lands only in margin words, which no image pixel
  // reads. Planes alternate between buffers (a doubling does not run in
  // place); each buffer has `pad` words of the border before and after it.
  int farthest = 0;
  for (int k = 0; k < runs; ++k) farthest = std::max({farthest, kernel.hi[k], -kernel.lo[k]});
  const int margin = (farthest + 63) / 64;
  const int stride = words_ + 2 * margin;
  const size_t planeWords = static_cast<size_t>(rows_) * stride;
  const size_t pad = static_cast<size_t>(margin) + 1;
  const size_t bufferWords = planeWords + 2 * pad;
  const int buffers = runs + 2;  // the image, one per run, one spare
  planes_.resize(bufferWords * static_cast<size_t>(buffers));
  const auto buffer = [&](int index) {
    return planes_.data() + bufferWords * static_cast<size_t>(index) + pad;
  };
  // A doubling writes every word of its plane; the pads are only read.
  for (int index = 0; index < buffers; ++index) {
    std::fill(buffer(index) - pad, buffer(index), identity);
    std::fill(buffer(index) + planeWords, buffer(index) + planeWords + pad, identity);
  }
  FixPadding(bits_.data(), erode);
  for (int y = 0; y < rows_; ++y) {
    uint64_t* row = buffer(0) + static_cast<size_t>(y) * stride;
    FillWords(row, margin, identity);
    CopyWords(row + margin, bits_.data() + static_cast<size_t>(y) * words_, words_);
    FillWords(row + margin + words_, stride - margin - words_, identity);
  }
  runPlane_.assign(static_cast<size_t>(runs), 0);
  std::vector<int>& free = freeBuffers_;
  free.clear();
  for (int index = buffers - 1; index >= 1; --index) free.push_back(index);
  int current = 0;  // the buffer holding the window [a, b]
  bool temporary = false;  // whether it is neither the image nor a finished run
  int a = 0, b = 0;
  for (int k = 0; k < runs; ++k) {
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
      const int target = free.back();
      free.pop_back();
      PlaneStep(PlaneOp::kShift, buffer(current), buffer(target), planeWords, d, erode);
      if (temporary) free.push_back(current);
      current = target;
      temporary = true;
    }
    runPlane_[static_cast<size_t>(k)] = current;
    temporary = false;
  }

  const auto runRow = [&](int run, int y) {
    return buffer(runPlane_[static_cast<size_t>(run)]) + static_cast<size_t>(y) * stride + margin;
  };

  if (kernel.uniform) {
    // Rows: windows of `size` rows by doubling. Row p of the column buffer
    // holds the window starting at image row p - reach; rows before the first
    // and past the last are the border, the identity.
    const int total = rows_ + reach;
    column_.resize(static_cast<size_t>(total + kernel.size) * words_);
    std::fill(column_.begin(), column_.end(), identity);
    for (int y = 0; y < rows_; ++y) {
      CopyWords(column_.data() + static_cast<size_t>(y + reach) * words_, runRow(0, y), words_);
    }
    int length = 1;
    while (length < kernel.size) {
      const int e = std::min(kernel.size - length, length);
      PlaneStep(PlaneOp::kAhead, nullptr, column_.data(), static_cast<size_t>(total - e) * words_,
                e * words_, erode);
      length += e;
    }
    std::memcpy(bits_.data(), column_.data(),
                static_cast<size_t>(rows_) * words_ * sizeof(uint64_t));
  } else {
    // Rows: the run plane of each kernel row, shifted by the row's offset,
    // combined into the result plane at once; a row beyond the image is the
    // border, the identity, and leaves the result as it is.
    vertical_.resize(planeWords);
    std::fill(vertical_.begin(), vertical_.end(), identity);
    for (int i = 0; i < kernel.size; ++i) {
      const int run = kernel.run[static_cast<size_t>(i)];
      const int dy = i - reach;
      const int first = std::max(0, -dy), end = std::min(rows_, rows_ - dy);
      if (run < 0 || first >= end) continue;
      PlaneStep(PlaneOp::kRows, runRow(run, first + dy) - margin,
                vertical_.data() + static_cast<size_t>(first) * stride,
                static_cast<size_t>(end - first) * stride, 0, erode);
    }
    for (int y = 0; y < rows_; ++y) {
      CopyWords(bits_.data() + static_cast<size_t>(y) * words_,
                vertical_.data() + static_cast<size_t>(y) * stride + margin, words_);
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
