// Morphology on bit planes: the kernels as runs of columns, the plane
// operations (AVX2 where available) and the chains of steps. The planes
// themselves (packing, boxes) are in bit_plane.cpp.
#include "analysis/binary_morphology.h"

#include <algorithm>

#include <opencv2/imgproc.hpp>

namespace {

constexpr uint64_t kOnes = ~uint64_t{0};

}  // namespace

const BitMask::Kernel& BitMask::KernelOf(int shape, int size) {
  for (const Kernel& kernel : kernels_) {
    if (kernel.shape == shape && kernel.size == size) return kernel;
  }
  Kernel kernel;
  kernel.shape = shape;
  kernel.size = size;
  Parse(cv::getStructuringElement(shape, cv::Size(size, size), cv::Point(-1, -1)), kernel);
  kernels_.push_back(std::move(kernel));
  return kernels_.back();
}

void BitMask::DilateByDisc(int squaredRadius) {
  if (squaredRadius >= 0) Morph(DiscOf(squaredRadius), false);
}

void BitMask::ErodeByDisc(int squaredRadius) {
  if (squaredRadius >= 0) Morph(DiscOf(squaredRadius), true);
}

const BitMask::Kernel& BitMask::DiscOf(int squaredRadius) {
  const Kernel* disc = nullptr;
  for (const Kernel& kernel : discs_) {
    if (kernel.squared == squaredRadius) {
      disc = &kernel;
      break;
    }
  }
  if (disc == nullptr) {
    if (discs_.size() >= kDiscsKept) discs_.clear();
    int reach = 0;
    while ((reach + 1) * (reach + 1) <= squaredRadius) ++reach;
    const int side = 2 * reach + 1;
    cv::Mat k(side, side, CV_8U);
    for (int y = 0; y < side; ++y) {
      for (int x = 0; x < side; ++x) {
        const int dx = x - reach, dy = y - reach;
        k.at<uchar>(y, x) = dx * dx + dy * dy <= squaredRadius ? 1 : 0;
      }
    }
    Kernel kernel;
    kernel.size = side;
    kernel.squared = squaredRadius;
    Parse(k, kernel);
    discs_.push_back(std::move(kernel));
    disc = &discs_.back();
  }
  return *disc;
}

void BitMask::Parse(const cv::Mat& k, Kernel& kernel) {
  const int size = kernel.size;
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

  // The part of the plane the operation can change: the words holding set
  // pixels, widened by the kernel's reach (the columns by whole words). Outside
  // it the plane is zero and stays zero. Inside, the part's own border (the
  // identity) stands in for the zeros around it where the frame goes on: a
  // dilation adds nothing from zeros, and an erosion that reads past the
  // part's edge is centred on a pixel within the reach of that edge, which is
  // zero and stays zero.
  if (!occupied_.known) FindOccupied();
  if (occupied_.Empty()) return;  // no set pixel: none after either operation
  const int reachWords = (reach + 63) / 64;
  const int top = std::max(0, occupied_.top - reach);
  const int bottom = std::min(rows_, occupied_.bottom + reach);
  const int left = std::max(0, occupied_.left - reachWords);
  const int right = std::min(words_, occupied_.right + reachWords);
  const int rows = bottom - top;
  const int words = right - left;
  uint64_t* const origin = bits_.data() + static_cast<size_t>(top) * words_ + left;
  const auto imageRow = [&](int y) { return origin + static_cast<size_t>(y) * words_; };
  // Bits beyond the last column read as the border while the operation runs
  // (CopyBack clears them).
  if (erode && right == words_ && pad_ != 0) {
    for (int y = 0; y < rows; ++y) imageRow(y)[words - 1] |= pad_;
  }

  // Horizontal runs, each grown from the one before by doubling. A run's value
  // just outside the part depends on the pixels inside, so each row carries
  // margin words on both sides, wide enough that every pixel's run reads only
  // its own row: its words, then the border. The rows lie end to end and each
  // doubling shifts the whole plane as one row; what reaches across into a
  // neighbouring row lands only in margin words, which no pixel of the part
  // reads. Planes alternate between buffers (a doubling does not run in
  // place); each buffer has `ends` words of the border before and after it.
  int farthest = 0;
  for (int k = 0; k < runs; ++k) farthest = std::max({farthest, kernel.hi[k], -kernel.lo[k]});
  const int margin = (farthest + 63) / 64;
  const int stride = words + 2 * margin;
  const size_t planeWords = static_cast<size_t>(rows) * stride;
  const size_t ends = static_cast<size_t>(margin) + 1;
  const size_t bufferWords = planeWords + 2 * ends;
  const int buffers = runs + 2;  // the image, one per run, one spare
  planes_.resize(bufferWords * static_cast<size_t>(buffers));
  const auto buffer = [&](int index) {
    return planes_.data() + bufferWords * static_cast<size_t>(index) + ends;
  };
  // A doubling writes every word of its plane; the ends are only read.
  for (int index = 0; index < buffers; ++index) {
    std::fill(buffer(index) - ends, buffer(index), identity);
    std::fill(buffer(index) + planeWords, buffer(index) + planeWords + ends, identity);
  }
  for (int y = 0; y < rows; ++y) {
    uint64_t* row = buffer(0) + static_cast<size_t>(y) * stride;
    FillWords(row, margin, identity);
    CopyWords(row + margin, imageRow(y), words);
    FillWords(row + margin + words, stride - margin - words, identity);
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
    // holds the window starting at row p - reach; rows before the first and
    // past the last are the border, the identity.
    const int total = rows + reach;
    column_.resize(static_cast<size_t>(total + kernel.size) * words);
    std::fill(column_.begin(), column_.end(), identity);
    for (int y = 0; y < rows; ++y) {
      CopyWords(column_.data() + static_cast<size_t>(y + reach) * words, runRow(0, y), words);
    }
    int length = 1;
    while (length < kernel.size) {
      const int e = std::min(kernel.size - length, length);
      PlaneStep(PlaneOp::kAhead, nullptr, column_.data(), static_cast<size_t>(total - e) * words,
                e * words, erode);
      length += e;
    }
    CopyBack(column_.data(), words, top, left, rows, words);
  } else {
    // Rows: the run plane of each kernel row, shifted by the row's offset,
    // combined into the result plane at once; a row beyond the part is the
    // border, the identity, and leaves the result as it is.
    vertical_.resize(planeWords);
    std::fill(vertical_.begin(), vertical_.end(), identity);
    for (int i = 0; i < kernel.size; ++i) {
      const int run = kernel.run[static_cast<size_t>(i)];
      const int dy = i - reach;
      const int first = std::max(0, -dy), end = std::min(rows, rows - dy);
      if (run < 0 || first >= end) continue;
      PlaneStep(PlaneOp::kRows, runRow(run, first + dy) - margin,
                vertical_.data() + static_cast<size_t>(first) * stride,
                static_cast<size_t>(end - first) * stride, 0, erode);
    }
    CopyBack(vertical_.data() + margin, stride, top, left, rows, words);
  }
}

void BitMask::FindOccupied() {
  occupied_ = Occupied{};
  occupied_.known = true;
  for (int y = 0; y < rows_; ++y) {
    const uint64_t* row = bits_.data() + static_cast<size_t>(y) * words_;
    int first = 0;
    while (first < words_ && row[first] == 0) ++first;
    if (first == words_) continue;
    int last = words_ - 1;
    while (row[last] == 0) --last;
    occupied_.Add(y, first, last + 1);
  }
}

void BitMask::CopyBack(const uint64_t* from, int fromStride, int top, int left, int rows,
                       int words) {
  // The words that hold set pixels are found on the way: the next operation
  // works on them and their reach.
  columns_.assign(static_cast<size_t>(words), 0);
  uint64_t* const columns = columns_.data();
  occupied_ = Occupied{};
  occupied_.known = true;
  // The bits beyond the last column are cleared.
  const uint64_t inLast = left + words == words_ ? ~pad_ : ~uint64_t{0};
  for (int y = 0; y < rows; ++y) {
    const uint64_t* in = from + static_cast<size_t>(y) * fromStride;
    uint64_t* out = bits_.data() + static_cast<size_t>(top + y) * words_ + left;
    uint64_t any = 0;
    for (int w = 0; w < words; ++w) {
      const uint64_t v = w == words - 1 ? in[w] & inLast : in[w];
      out[w] = v;
      any |= v;
      columns[w] |= v;
    }
    if (any != 0) occupied_.Add(top + y, left, left + words);
  }
  if (occupied_.Empty()) return;
  int first = 0, last = words - 1;
  while (columns[first] == 0) ++first;
  while (columns[last] == 0) --last;
  occupied_.left = left + first;
  occupied_.right = left + last + 1;
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
