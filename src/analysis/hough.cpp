#include "analysis/hough.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#if defined(__SSE2__)
#include <emmintrin.h>
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
};

Accumulator& ThreadAccumulator() {
  thread_local Accumulator accumulator;
  return accumulator;
}

}  // namespace

void HoughVotes::Clear() {
  numrho_ = 0;
  cells_.clear();
  votes_.clear();
}

void HoughVotes::Vote(const cv::Mat& edges, cv::Point offset, cv::Size frame) {
  Clear();
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

  // The rho index range any pixel of the part can vote for: the rounded sum
  // is monotone in x and in y, so the part's corners bound it.
  int lowest = stride, highest = -1;
  for (const cv::Point corner : {offset, offset + cv::Point(edges.cols - 1, 0),
                                 offset + cv::Point(0, edges.rows - 1),
                                 offset + cv::Point(edges.cols - 1, edges.rows - 1)}) {
    const float x = static_cast<float>(corner.x), y = static_cast<float>(corner.y);
    for (int n = 0; n < kAngles; ++n) {
      const int r = cvRound(x * trig.cos[n] + y * trig.sin[n]) + shift;
      lowest = std::min(lowest, r);
      highest = std::max(highest, r);
    }
  }

  for (int i = 0; i < edges.rows; ++i) {
    const uchar* row = edges.ptr<uchar>(i);
    const float y = static_cast<float>(i + offset.y);
    for (int j = 0; j < edges.cols; ++j) {
      if (row[j] == 0) continue;
      alignas(16) int rho[kAngles];
#if defined(__SSE2__)
      // Four angles at a time: single-precision products and sum, rounded
      // to nearest even as cvRound does.
      const __m128 vx = _mm_set1_ps(static_cast<float>(j + offset.x));
      const __m128 vy = _mm_set1_ps(y);
      for (int n = 0; n < kAngles; n += 4) {
        const __m128 sum = _mm_add_ps(_mm_mul_ps(vx, _mm_load_ps(trig.cos + n)),
                                      _mm_mul_ps(vy, _mm_load_ps(trig.sin + n)));
        _mm_store_si128(reinterpret_cast<__m128i*>(rho + n), _mm_cvtps_epi32(sum));
      }
#else
      const float x = static_cast<float>(j + offset.x);
      for (int n = 0; n < kAngles; ++n) rho[n] = cvRound(x * trig.cos[n] + y * trig.sin[n]);
#endif
      int* cell = a + stride + 1 + shift;
      for (int n = 0; n < kAngles; ++n, cell += stride) ++cell[rho[n]];
    }
  }

  // Cells without a vote are never maxima, so only the voted rho range is
  // searched, in cell order; a stable counting sort by votes then gives the
  // library's order (more votes first, ties by cell index).
  int most = 0;
  for (int n = 0; n < kAngles; ++n) {
    for (int r = lowest; r <= highest; ++r) {
      const int base = (n + 1) * stride + r + 1;
      const int v = a[base];
      if (v > 0 && v > a[base - 1] && v >= a[base + 1] && v > a[base - stride] &&
          v >= a[base + stride]) {
        votes_.push_back(base);  // cell for now
        most = std::max(most, v);
      }
    }
  }
  std::vector<int>& start = counts_;
  start.assign(static_cast<size_t>(most) + 2, 0);
  for (const int cell : votes_) ++start[static_cast<size_t>(most - a[cell]) + 1];
  for (size_t v = 1; v < start.size(); ++v) start[v] += start[v - 1];
  cells_.resize(votes_.size());
  for (const int cell : votes_) cells_[static_cast<size_t>(start[static_cast<size_t>(most - a[cell])]++)] = cell;
  for (size_t k = 0; k < cells_.size(); ++k) votes_[k] = a[cells_[k]];

  for (int n = 1; n <= kAngles; ++n) {  // back to zero for the next frame
    std::fill(a + n * stride + lowest + 1, a + n * stride + highest + 2, 0);
  }
}

void HoughVotes::Lines(int threshold, std::vector<cv::Vec2f>& lines) const {
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
}
