// Canny edges of a 0/255 mask with the shaft-line settings (3 x 3 Sobel with
// replicated borders, squared L2 magnitude, thresholds 30 and 40).
//
// On such a mask every nonzero Sobel component is a multiple of 255, so every
// nonzero squared magnitude (at least 255^2) exceeds both squared thresholds
// (900 and 1600): every pixel that survives the non-maximum suppression is a
// strong edge, the hysteresis adds nothing, and the edge map is the set of
// suppression survivors. The suppression is cv::Canny's: the gradient
// direction sorted into horizontal, vertical and the two diagonals by the
// tangent of 22.5 degrees in 15-bit fixed point, and the magnitude compared
// with its two neighbours along it (greater than the one before, not less
// than the one after; greater than both on a diagonal).
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include <opencv2/core.hpp>

#include "analysis/analysis.h"

namespace {

constexpr int kShift = 15;
const int kTan22 = static_cast<int>(0.4142135623730950488016887242097 * (1 << kShift) + 0.5);

struct CannyRows {
  std::vector<uint8_t> padded[3];  // source rows y - 1, y, y + 1 with a replicated pixel each side
  std::vector<int16_t> dx[3], dy[3];
  std::vector<int32_t> mag[3];  // with a zero on each side
};

// Sobel components and squared magnitude of row y.
void GradientRow(const cv::Mat& src, int y, CannyRows& rows, int slot) {
  const int cols = src.cols;
  for (int r = 0; r < 3; ++r) {
    const int source = std::clamp(y + r - 1, 0, src.rows - 1);
    const uint8_t* p = src.ptr<uint8_t>(source);
    std::vector<uint8_t>& row = rows.padded[r];
    std::copy(p, p + cols, row.begin() + 1);
    row[0] = p[0];
    row[static_cast<size_t>(cols) + 1] = p[cols - 1];
  }
  const uint8_t* a = rows.padded[0].data();
  const uint8_t* b = rows.padded[1].data();
  const uint8_t* c = rows.padded[2].data();
  int16_t* dx = rows.dx[slot].data();
  int16_t* dy = rows.dy[slot].data();
  int32_t* mag = rows.mag[slot].data() + 1;
  for (int x = 0; x < cols; ++x) {
    const int gx = (a[x + 2] - a[x]) + 2 * (b[x + 2] - b[x]) + (c[x + 2] - c[x]);
    const int gy = (c[x] + 2 * c[x + 1] + c[x + 2]) - (a[x] + 2 * a[x + 1] + a[x + 2]);
    dx[x] = static_cast<int16_t>(gx);
    dy[x] = static_cast<int16_t>(gy);
    mag[x] = gx * gx + gy * gy;
  }
}

}  // namespace

void BinaryCanny(const cv::Mat& src, cv::Mat& edges) {
  CV_Assert(src.type() == CV_8UC1 && !src.empty());
  const int cols = src.cols;
  edges.create(src.size(), CV_8UC1);
  thread_local CannyRows rows;
  for (int s = 0; s < 3; ++s) {
    rows.padded[s].resize(static_cast<size_t>(cols) + 2);
    rows.dx[s].resize(static_cast<size_t>(cols));
    rows.dy[s].resize(static_cast<size_t>(cols));
    rows.mag[s].assign(static_cast<size_t>(cols) + 2, 0);
  }
  // Slots of rows y - 1, y, y + 1 rotate; beyond the first and last row the
  // magnitude is zero.
  int prev = 0, cur = 1, next = 2;
  std::fill(rows.mag[prev].begin(), rows.mag[prev].end(), 0);
  GradientRow(src, 0, rows, cur);
  for (int y = 0; y < src.rows; ++y) {
    if (y + 1 < src.rows) {
      GradientRow(src, y + 1, rows, next);
    } else {
      std::fill(rows.mag[next].begin(), rows.mag[next].end(), 0);
    }
    const int32_t* above = rows.mag[prev].data() + 1;
    const int32_t* here = rows.mag[cur].data() + 1;
    const int32_t* below = rows.mag[next].data() + 1;
    const int16_t* dx = rows.dx[cur].data();
    const int16_t* dy = rows.dy[cur].data();
    uint8_t* out = edges.ptr<uint8_t>(y);
    for (int x = 0; x < cols; ++x) {
      const int m = here[x];
      bool edge = false;
      if (m > 0) {
        const int xs = dx[x], ys = dy[x];
        const int gx = std::abs(xs);
        const int gy = std::abs(ys) << kShift;
        const int tg22x = gx * kTan22;
        if (gy < tg22x) {
          edge = m > here[x - 1] && m >= here[x + 1];
        } else {
          const int tg67x = tg22x + (gx << (kShift + 1));
          if (gy > tg67x) {
            edge = m > above[x] && m >= below[x];
          } else {
            const int s = (xs ^ ys) < 0 ? -1 : 1;
            edge = m > above[x - s] && m > below[x + s];
          }
        }
      }
      out[x] = edge ? 255 : 0;
    }
    const int freed = prev;
    prev = cur;
    cur = next;
    next = freed;
  }
}
