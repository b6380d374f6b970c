// The 3 x 3 median of a grey frame (cv::medianBlur with aperture 3: the rows
// and columns beyond the border repeat the last ones).
//
// Every pixel's median is that of its 3 x 3 window whatever the method, so
// the result is the library's to the bit. Here each row's columns are sorted
// once (low, middle, high of the three rows), and a window's median is the
// median of the largest of its three lows, the median of its three middles
// and the smallest of its three highs; both passes run over whole rows, a
// vector of pixels at a time.
#include <algorithm>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"

namespace {

struct MedianRows {
  std::vector<uchar> low, middle, high;  // per column, with a repeated column each side
};

inline uchar Min(uchar a, uchar b) { return a < b ? a : b; }
inline uchar Max(uchar a, uchar b) { return a < b ? b : a; }
inline uchar Median3(uchar a, uchar b, uchar c) { return Max(Min(a, b), Min(Max(a, b), c)); }

// One output row from the three source rows above (a), at (b) and below (c);
// inlined into each variant below, which vectorises it for its own target.
__attribute__((always_inline)) inline void MedianRow(const uchar* __restrict a, const uchar* __restrict b,
                      const uchar* __restrict c, int cols, uchar* __restrict low,
                      uchar* __restrict middle, uchar* __restrict high,
                      uchar* __restrict out) {
  for (int x = 0; x < cols; ++x) {
    const uchar p = a[x], q = b[x], r = c[x];
    const uchar lo = Min(p, q), hi = Max(p, q);
    low[x + 1] = Min(lo, r);
    high[x + 1] = Max(hi, r);
    middle[x + 1] = Max(lo, Min(hi, r));
  }
  low[0] = low[1];
  middle[0] = middle[1];
  high[0] = high[1];
  low[cols + 1] = low[cols];
  middle[cols + 1] = middle[cols];
  high[cols + 1] = high[cols];
  for (int x = 0; x < cols; ++x) {
    const uchar lows = Max(Max(low[x], low[x + 1]), low[x + 2]);
    const uchar highs = Min(Min(high[x], high[x + 1]), high[x + 2]);
    out[x] = Median3(lows, Median3(middle[x], middle[x + 1], middle[x + 2]), highs);
  }
}

void MedianRowPortable(const uchar* a, const uchar* b, const uchar* c, int cols, uchar* low,
                       uchar* middle, uchar* high, uchar* out) {
  MedianRow(a, b, c, cols, low, middle, high, out);
}

#if defined(__x86_64__)
__attribute__((target("avx2"))) void MedianRowAvx2(const uchar* a, const uchar* b,
                                                   const uchar* c, int cols, uchar* low,
                                                   uchar* middle, uchar* high, uchar* out) {
  MedianRow(a, b, c, cols, low, middle, high, out);
}
#endif

}  // namespace

void MedianBlur3(const cv::Mat& src, cv::Mat& dst) {
  if (src.type() != CV_8UC1 || src.empty() || src.dims != 2) {
    cv::medianBlur(src, dst, 3);
    return;
  }
  // In place (or over the source's own pixels): from a copy.
  if (dst.data == src.data) {
    const cv::Mat copy = src.clone();
    MedianBlur3(copy, dst);
    return;
  }
  const int rows = src.rows;
  const int cols = src.cols;
  dst.create(rows, cols, CV_8UC1);
  thread_local MedianRows scratch;
  scratch.low.resize(static_cast<size_t>(cols) + 2);
  scratch.middle.resize(static_cast<size_t>(cols) + 2);
  scratch.high.resize(static_cast<size_t>(cols) + 2);
#if defined(__x86_64__)
  static const bool avx2 = __builtin_cpu_supports("avx2") != 0;
  const auto row = avx2 ? &MedianRowAvx2 : &MedianRowPortable;
#else
  const auto row = &MedianRowPortable;
#endif
  for (int y = 0; y < rows; ++y) {
    row(src.ptr<uchar>(std::max(y - 1, 0)), src.ptr<uchar>(y),
        src.ptr<uchar>(std::min(y + 1, rows - 1)), cols, scratch.low.data(),
        scratch.middle.data(), scratch.high.data(), dst.ptr<uchar>(y));
  }
}
