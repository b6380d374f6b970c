#include "analysis/hough.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numeric>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace {

constexpr int kAngles = 180;  // cvRound(pi / (float)(pi / 180)), a multiple of 4

struct Tables {
  alignas(16) float sin[kAngles];
  alignas(16) float cos[kAngles];
  Tables() {
    // The angle is accumulated in single precision, as the library does.
    const float step = static_cast<float>(CV_PI / 180.0);
    float angle = 0.0f;
    for (int n = 0; n < kAngles; angle += step, ++n) {
      sin[n] = static_cast<float>(std::sin(static_cast<double>(angle)) * 1.0f);
      cos[n] = static_cast<float>(std::cos(static_cast<double>(angle)) * 1.0f);
    }
  }
};

const Tables& Trig() {
  static const Tables tables;
  return tables;
}

// The accumulator of the calling thread, kept between frames. Every cell is
// zero between uses.
struct Accumulator {
  std::vector<int> cells;
  int stride = 0;
  std::vector<float> xs, ys;  // the frame's edge points
};

#if defined(__x86_64__)
bool Avx2() {
  static const bool supported = __builtin_cpu_supports("avx2") != 0;
  return supported;
}

// The local maxima with more than `floor` votes among cells r .. last of the
// accumulator row starting at `v` (rho index r at v[r]), eight cells at a
// time, by the rule of HoughVotes::Vote; appends the cells (index `row` + r)
// in order and returns the first r left unscanned.
__attribute__((target("avx2"))) int ScanMaximaAvx2(const int* v, int stride, int r, int last,
                                                   int row, int floor, std::vector<int>& cells) {
  const __m256i least = _mm256_set1_epi32(floor);
  for (; r + 7 <= last; r += 8) {
    const int* p = v + r;
#define CLUBTRACKER_AT(d) _mm256_loadu_si256(reinterpret_cast<const __m256i*>(p + (d)))
    const __m256i c = CLUBTRACKER_AT(0);
    __m256i pass = _mm256_cmpgt_epi32(c, least);
    if (_mm256_testz_si256(pass, pass)) continue;  // most cells have few votes
    pass = _mm256_and_si256(pass, _mm256_cmpgt_epi32(c, CLUBTRACKER_AT(-1)));
    pass = _mm256_andnot_si256(_mm256_cmpgt_epi32(CLUBTRACKER_AT(1), c), pass);
    pass = _mm256_and_si256(pass, _mm256_cmpgt_epi32(c, CLUBTRACKER_AT(-stride)));
    pass = _mm256_andnot_si256(_mm256_cmpgt_epi32(CLUBTRACKER_AT(stride), c), pass);
#undef CLUBTRACKER_AT
    const int bits = _mm256_movemask_ps(_mm256_castsi256_ps(pass));
    for (int g = 0; bits != 0 && g < 8; ++g) {
      if ((bits >> g) & 1) cells.push_back(row + r + g);
    }
  }
  return r;
}
// The shifted rho indices of points k .. k + 7 at the angle of (c, s): the
// same single-precision products and sum as the four-point loop, rounded to
// nearest even.
__attribute__((target("avx2"))) inline void RhoAvx2(const float* xs, const float* ys, __m256 c,
                                                    __m256 s, __m256i shift, uint32_t* at) {
  const __m256 sum = _mm256_add_ps(_mm256_mul_ps(_mm256_loadu_ps(xs), c),
                                   _mm256_mul_ps(_mm256_loadu_ps(ys), s));
  _mm256_store_si256(reinterpret_cast<__m256i*>(at),
                     _mm256_add_epi32(_mm256_cvtps_epi32(sum), shift));
}
// The votes of points 0 .. count - 1 in the accumulator row `row` (rho index
// r at row[r + shift]) at the angle of (c, s), eight points at a time. The
// shifted indices are never negative.
__attribute__((target("avx2"))) void VoteAvx2(const float* xs, const float* ys, size_t count,
                                              float c, float s, int shift, int* row) {
  const __m256 vc = _mm256_set1_ps(c);
  const __m256 vs = _mm256_set1_ps(s);
  const __m256i vshift = _mm256_set1_epi32(shift);
  alignas(32) uint32_t at[8];
  size_t k = 0;
  for (; k + 8 <= count; k += 8) {
    RhoAvx2(xs + k, ys + k, vc, vs, vshift, at);
    ++row[at[0]];
    ++row[at[1]];
    ++row[at[2]];
    ++row[at[3]];
    ++row[at[4]];
    ++row[at[5]];
    ++row[at[6]];
    ++row[at[7]];
  }
  if (k < count) {
    RhoAvx2(xs + k, ys + k, vc, vs, vshift, at);
    for (size_t g = 0; g < count - k; ++g) ++row[at[g]];
  }
}
#else
bool Avx2() { return false; }
int ScanMaximaAvx2(const int*, int, int r, int, int, int, std::vector<int>&) { return r; }
void VoteAvx2(const float*, const float*, size_t, float, float, int, int*) {}
#endif

Accumulator& ThreadAccumulator() {
  thread_local Accumulator accumulator;
  return accumulator;
}

}  // namespace

void HoughVotes::Clear() {
  numrho_ = 0;
  floor_ = 0;
  cells_.clear();
  votes_.clear();
}

void HoughVotes::Vote(const cv::Mat& edges, cv::Point offset, cv::Size frame, int skipFirst,
                      int skipLast, int floor) {
  Clear();
  floor_ = std::max(floor, 0);
  CV_Assert(edges.type() == CV_8UC1);
  numrho_ = cvRound(static_cast<float>(2 * (frame.width + frame.height) + 1) / 1.0f);
  if (edges.empty()) return;
  const int stride = numrho_ + 2;
  const int shift = (numrho_ - 1) / 2;
  Accumulator& accumulator = ThreadAccumulator();
  if (accumulator.stride != stride) {
    accumulator.cells.assign(static_cast<size_t>(kAngles + 2) * stride, 0);
    accumulator.stride = stride;
  }
  int* a = accumulator.cells.data();
  const Tables& trig = Trig();

  // The rho index range any pixel of the part can vote for at each angle:
  // the rounded sum is monotone in x and in y, so the part's corners bound
  // it.
  int rowLow[kAngles], rowHigh[kAngles];
  std::fill(rowLow, rowLow + kAngles, stride);
  std::fill(rowHigh, rowHigh + kAngles, -1);
  const auto skipped = [&](int n) { return n >= skipFirst && n <= skipLast; };
  for (const cv::Point corner : {offset, offset + cv::Point(edges.cols - 1, 0),
                                 offset + cv::Point(0, edges.rows - 1),
                                 offset + cv::Point(edges.cols - 1, edges.rows - 1)}) {
    const float x = static_cast<float>(corner.x), y = static_cast<float>(corner.y);
    for (int n = 0; n < kAngles; ++n) {
      if (skipped(n)) continue;
      const int r = cvRound(x * trig.cos[n] + y * trig.sin[n]) + shift;
      rowLow[n] = std::min(rowLow[n], r);
      rowHigh[n] = std::max(rowHigh[n], r);
    }
  }

  // The edge points first, then the votes angle by angle: an angle's row of
  // the accumulator stays in the cache while every point votes in it. The
  // counts do not depend on the order of the votes.
  std::vector<float>& xs = accumulator.xs;
  std::vector<float>& ys = accumulator.ys;
  // The edges are sparse: sixteen pixels at a time are tested at once.
  size_t count = 0;
  for (int i = 0; i < edges.rows; ++i) {
    // Room for the whole row and a padded group of eight.
    const size_t room = count + static_cast<size_t>(edges.cols) + 8;
    if (xs.size() < room) {
      xs.resize(std::max(room, 2 * xs.size()));
      ys.resize(xs.size());
    }
    const uchar* row = edges.ptr<uchar>(i);
    const float y = static_cast<float>(i + offset.y);
    int j = 0;
#if defined(__SSE2__)
    const __m128i zero = _mm_setzero_si128();
    for (; j + 16 <= edges.cols; j += 16) {
      const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + j));
      unsigned set = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(v, zero))) ^ 0xFFFFu;
      for (; set != 0; set &= set - 1) {
        xs[count] = static_cast<float>(j + __builtin_ctz(set) + offset.x);
        ys[count++] = y;
      }
    }
#endif
    for (; j < edges.cols; ++j) {
      if (row[j] == 0) continue;
      xs[count] = static_cast<float>(j + offset.x);
      ys[count++] = y;
    }
  }
  // The padding of the last group of eight votes nowhere.
  std::fill(xs.begin() + static_cast<std::ptrdiff_t>(count),
            xs.begin() + static_cast<std::ptrdiff_t>(count + 8), 0.0f);
  std::fill(ys.begin() + static_cast<std::ptrdiff_t>(count),
            ys.begin() + static_cast<std::ptrdiff_t>(count + 8), 0.0f);
  const bool wide = Avx2();
  for (int n = 0; n < kAngles; ++n) {
    if (skipped(n)) continue;
    int* cell = a + (n + 1) * stride + 1 + shift;
    if (wide) {
      VoteAvx2(xs.data(), ys.data(), count, trig.cos[n], trig.sin[n], shift, cell - shift);
      continue;
    }
#if defined(__SSE2__)
    // Four points at a time: single-precision products and sum, rounded to
    // nearest even as cvRound does.
    const __m128 vc = _mm_set1_ps(trig.cos[n]);
    const __m128 vs = _mm_set1_ps(trig.sin[n]);
    alignas(16) int rho[4];
    for (size_t k = 0; k < count; k += 4) {
      const __m128 sum = _mm_add_ps(_mm_mul_ps(_mm_loadu_ps(xs.data() + k), vc),
                                    _mm_mul_ps(_mm_loadu_ps(ys.data() + k), vs));
      _mm_store_si128(reinterpret_cast<__m128i*>(rho), _mm_cvtps_epi32(sum));
      if (count - k >= 4) {
        ++cell[rho[0]];
        ++cell[rho[1]];
        ++cell[rho[2]];
        ++cell[rho[3]];
      } else {
        for (size_t g = 0; g < count - k; ++g) ++cell[rho[g]];
      }
    }
#else
    for (size_t k = 0; k < count; ++k) ++cell[cvRound(xs[k] * trig.cos[n] + ys[k] * trig.sin[n])];
#endif
  }

  // Cells without a vote are never maxima, so only each angle's voted rho
  // range is searched, in cell order; a stable counting sort by votes then gives the
  // library's order (more votes first, ties by cell index).
  int most = 0;
  const auto maximum = [&](int base) {
    const int v = a[base];
    if (v > floor_ && v > a[base - 1] && v >= a[base + 1] && v > a[base - stride] &&
        v >= a[base + stride]) {
      votes_.push_back(base);  // cell for now
    }
  };
  for (int n = 0; n < kAngles; ++n) {
    if (skipped(n)) continue;
    const int row = (n + 1) * stride + 1;
    int r = rowLow[n];
    const int last = rowHigh[n];
    if (wide) r = ScanMaximaAvx2(a + row, stride, r, last, row, floor_, votes_);
#if defined(__SSE2__)
    // Four cells at a time; the cells that pass are taken in cell order.
    const __m128i least = _mm_set1_epi32(floor_);
    for (; r + 3 <= last; r += 4) {
      const int* v = a + row + r;
      const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(v));
      const auto at = [v](int d) { return _mm_loadu_si128(reinterpret_cast<const __m128i*>(v + d)); };
      __m128i pass = _mm_cmpgt_epi32(c, least);
      pass = _mm_and_si128(pass, _mm_cmpgt_epi32(c, at(-1)));
      pass = _mm_andnot_si128(_mm_cmpgt_epi32(at(1), c), pass);
      pass = _mm_and_si128(pass, _mm_cmpgt_epi32(c, at(-stride)));
      pass = _mm_andnot_si128(_mm_cmpgt_epi32(at(stride), c), pass);
      const int bits = _mm_movemask_ps(_mm_castsi128_ps(pass));
      if (bits == 0) continue;
      for (int g = 0; g < 4; ++g) {
        if ((bits >> g) & 1) maximum(row + r + g);
      }
    }
#endif
    for (; r <= last; ++r) maximum(row + r);
  }
  for (const int cell : votes_) most = std::max(most, a[cell]);
  std::vector<int>& start = counts_;
  start.assign(static_cast<size_t>(most) + 2, 0);
  for (const int cell : votes_) ++start[static_cast<size_t>(most - a[cell]) + 1];
  for (size_t v = 1; v < start.size(); ++v) start[v] += start[v - 1];
  cells_.resize(votes_.size());
  for (const int cell : votes_) cells_[static_cast<size_t>(start[static_cast<size_t>(most - a[cell])]++)] = cell;
  for (size_t k = 0; k < cells_.size(); ++k) votes_[k] = a[cells_[k]];

  // Back to zero for the next frame: an angle's votes lie within its rho range.
  for (int n = 0; n < kAngles; ++n) {
    if (skipped(n)) continue;
    int* row = a + (n + 1) * stride + 1;
    std::fill(row + rowLow[n], row + rowHigh[n] + 1, 0);
  }
}

bool HoughVotes::Lines(int threshold, std::vector<cv::Vec2f>& lines) const {
  if (threshold < floor_) return false;
  const int stride = numrho_ + 2;
  const double scale = 1.0 / stride;
  const float theta = static_cast<float>(CV_PI / 180.0);
  for (size_t k = 0; k < cells_.size() && votes_[k] > threshold; ++k) {
    const int idx = cells_[k];
    const int n = cvFloor(idx * scale) - 1;
    const int r = idx - (n + 1) * stride - 1;
    const float rho = (static_cast<float>(r) - static_cast<float>(numrho_ - 1) * 0.5f) * 1.0f;
    const float angle = 0.0f + static_cast<float>(n) * theta;
    lines.emplace_back(rho, angle);
  }
  return true;
}
