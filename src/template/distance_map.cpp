// Exact Euclidean distances to the background (cv::distanceTransform with
// DIST_L2 and DIST_MASK_PRECISE, to the bit), for the head's silhouettes.
//
// The library's transform runs a column pass and a row pass through its
// parallel loop, each task with buffers of its own; on the small regions of
// a head that overhead is most of the time. Here the column pass sweeps the
// rows with all columns at once, and the row pass is the lower envelope of
// parabolas in the same single-precision arithmetic, operation for operation:
// squared column distances (1e15 for a column without background), crossings
// (f(q) + q^2 - f(p) - p^2) * (0.5 / (q - p)), and the square root of
// (q - p)^2 + f(p) at each pixel.

#include "template/distance_map.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace headtrack::detail {

namespace {

// The squared distance of a column without background.
constexpr float kInfinite = 1e15f;

struct DistanceScratch {
  std::vector<int> run;       // per column: rows to the nearest background above, then below
  std::vector<int> below;     // per row and column: rows to the nearest background below
  std::vector<float> square;  // i * i
  std::vector<float> inverse; // 0.5 / i
  std::vector<float> f;       // the row's squared column distances
  std::vector<float> z;       // crossings
  std::vector<int> v;         // parabolas of the envelope
};

DistanceScratch& ThreadScratch() {
  thread_local DistanceScratch scratch;
  return scratch;
}

void RowPass(float* d, int n, DistanceScratch& s) {
  const float* square = s.square.data();
  const float* inverse = s.inverse.data();
  float* f = s.f.data();
  float* z = s.z.data();
  int* v = s.v.data();
  int k = 0;
  v[0] = 0;
  z[0] = -kInfinite;
  z[1] = kInfinite;
  f[0] = d[0];
  for (int q = 1; q < n; ++q) {
    const float fq = d[q];
    f[q] = fq;
    for (;; --k) {
      const int p = v[k];
      const float crossing = (fq + square[q] - d[p] - square[p]) * inverse[q - p];
      if (crossing > z[k]) {
        ++k;
        v[k] = q;
        z[k] = crossing;
        z[k + 1] = kInfinite;
        break;
      }
    }
  }
  k = 0;
  for (int q = 0; q < n; ++q) {
    while (z[k + 1] < static_cast<float>(q)) ++k;
    const int p = v[k];
    d[q] = square[std::abs(q - p)] + f[p];
  }
  // The roots apart, where they are taken several at a time.
  for (int q = 0; q < n; ++q) d[q] = std::sqrt(d[q]);
}

}  // namespace

void PreciseDistances(const cv::Mat& mask, cv::Mat& distance) {
  CV_Assert(mask.type() == CV_8UC1);
  const int rows = mask.rows;
  const int cols = mask.cols;
  distance.create(rows, cols, CV_32FC1);
  if (rows == 0 || cols == 0) return;
  DistanceScratch& s = ThreadScratch();
  // Down the columns: rows to the nearest background below (bottom-up), then
  // the nearer of that and the one above (top-down); rows or more means none.
  s.run.assign(cols, rows);
  s.below.resize(static_cast<size_t>(rows) * cols);
  int* __restrict run = s.run.data();
  for (int y = rows - 1; y >= 0; --y) {
    const uchar* __restrict m = mask.ptr<uchar>(y);
    int* __restrict b = s.below.data() + static_cast<size_t>(y) * cols;
    for (int x = 0; x < cols; ++x) {
      const int next = std::min(run[x] + 1, rows);
      run[x] = m[x] == 0 ? 0 : next;
      b[x] = run[x];
    }
  }
  s.square.resize(std::max(rows, cols));
  for (int i = 0; i < static_cast<int>(s.square.size()); ++i) {
    s.square[i] = static_cast<float>(i * i);
  }
  std::fill(s.run.begin(), s.run.end(), rows);
  for (int y = 0; y < rows; ++y) {
    const int* __restrict b = s.below.data() + static_cast<size_t>(y) * cols;
    float* __restrict d = distance.ptr<float>(y);
    for (int x = 0; x < cols; ++x) {
      const int r = std::min(run[x] + 1, b[x]);
      run[x] = r;
      // The square as the table holds it: i * i in single precision.
      const float square = static_cast<float>(r * r);
      d[x] = r < rows ? square : kInfinite;
    }
  }
  s.inverse.resize(cols);
  s.inverse[0] = 0.0f;
  for (int i = 1; i < cols; ++i) s.inverse[i] = static_cast<float>(0.5 / i);
  s.f.resize(cols);
  s.z.resize(cols + 1);
  s.v.resize(cols);
  for (int y = 0; y < rows; ++y) RowPass(distance.ptr<float>(y), cols, s);
}

}  // namespace headtrack::detail
