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
#include <cstring>
#include <vector>

#include <opencv2/core.hpp>

#include "analysis/analysis.h"

namespace {

constexpr int kShift = 15;
const int kTan22 = static_cast<int>(0.4142135623730950488016887242097 * (1 << kShift) + 0.5);

// The pixels as 0 and 1: the Sobel components, the squared magnitude and the
// direction tests all scale by 255 (or 255^2) exactly, so they are formed on
// the small values. Directions of the suppression.
enum Direction : uint8_t { kAlongRow, kAlongColumn, kDiagonalDown, kDiagonalUp };

// The suppression direction of every component pair (gx, gy) in [-4, 4]^2,
// decided on the components of the 0/255 mask as cv::Canny decides.
struct DirectionTable {
  uint8_t at[9][9];
  DirectionTable() {
    for (int i = 0; i < 9; ++i) {
      for (int j = 0; j < 9; ++j) {
        const int xs = 255 * (i - 4), ys = 255 * (j - 4);
        const int x = std::abs(xs);
        const int y = std::abs(ys) << kShift;
        const int tg22x = x * kTan22;
        const int tg67x = tg22x + (x << (kShift + 1));
        if (y < tg22x) {
          at[i][j] = kAlongRow;
        } else if (y > tg67x) {
          at[i][j] = kAlongColumn;
        } else {
          at[i][j] = (xs ^ ys) < 0 ? kDiagonalUp : kDiagonalDown;  // s = -1 : s = 1
        }
      }
    }
  }
};

struct CannyRows {
  std::vector<uint8_t> padded[3];  // source rows as 0/1 with a replicated pixel each side
  int source[3] = {-1, -1, -1};    // which row each holds
  int first[3] = {0, 0, 0};        // its first and last set pixel (first > last: none)
  int last[3] = {-1, -1, -1};
  std::vector<int8_t> dx[3], dy[3];
  std::vector<uint8_t> mag[3];  // with a zero on each side
};

// The first and last nonzero byte of p[0 .. n), eight at a time; first > last
// when there is none.
void SetRange(const uint8_t* p, int n, int& first, int& last) {
  first = 0;
  while (first + 8 <= n) {
    uint64_t word;
    std::memcpy(&word, p + first, 8);
    if (word != 0) break;
    first += 8;
  }
  while (first < n && p[first] == 0) ++first;
  last = n - 1;
  while (last - 7 > first) {
    uint64_t word;
    std::memcpy(&word, p + last - 7, 8);
    if (word != 0) break;
    last -= 8;
  }
  while (last >= first && p[last] == 0) --last;
}

const uint8_t* PaddedRow(const cv::Mat& src, int y, CannyRows& rows, int& first, int& last) {
  const int slot = y % 3;
  std::vector<uint8_t>& row = rows.padded[slot];
  if (rows.source[slot] != y) {
    // Raw pointers: bytes written through the vector could alias its own
    // pointer and keep the loop from being vectorised.
    const uint8_t* __restrict p = src.ptr<uint8_t>(y);
    uint8_t* __restrict out = row.data() + 1;
    const int cols = src.cols;
    for (int x = 0; x < cols; ++x) out[x] = p[x] & 1;
    row[0] = row[1];
    row[static_cast<size_t>(cols) + 1] = row[static_cast<size_t>(cols)];
    rows.source[slot] = y;
    SetRange(row.data() + 1, cols, rows.first[slot], rows.last[slot]);
  }
  first = rows.first[slot];
  last = rows.last[slot];
  return row.data();
}

// Sobel components and squared magnitude of a row from its padded rows above
// (a), at (b) and below (c).
void Gradients(const uint8_t* __restrict a, const uint8_t* __restrict b,
               const uint8_t* __restrict c, int cols, int8_t* __restrict dx,
               int8_t* __restrict dy, uint8_t* __restrict mag) {
  for (int x = 0; x < cols; ++x) {
    const int8_t gx =
        static_cast<int8_t>((a[x + 2] - a[x]) + 2 * (b[x + 2] - b[x]) + (c[x + 2] - c[x]));
    const int8_t gy = static_cast<int8_t>((c[x] + 2 * c[x + 1] + c[x + 2]) -
                                          (a[x] + 2 * a[x + 1] + a[x + 2]));
    dx[x] = gx;
    dy[x] = gy;
    mag[x] = static_cast<uint8_t>(gx * gx + gy * gy);
  }
}

// Sobel components and squared magnitude of row y, in 0/1 units, between
// `lo` and `hi` (set here): outside them the three rows it reads are zero, and
// so is the magnitude (the components there are not set).
void GradientRow(const cv::Mat& src, int y, CannyRows& rows, int slot, int& lo, int& hi) {
  int f[3], l[3];
  const uint8_t* a = PaddedRow(src, std::max(y - 1, 0), rows, f[0], l[0]);
  const uint8_t* b = PaddedRow(src, y, rows, f[1], l[1]);
  const uint8_t* c = PaddedRow(src, std::min(y + 1, src.rows - 1), rows, f[2], l[2]);
  const int cols = src.cols;
  lo = cols;
  hi = -1;
  for (int k = 0; k < 3; ++k) {
    if (f[k] > l[k]) continue;
    lo = std::min(lo, f[k] - 1);
    hi = std::max(hi, l[k] + 1);
  }
  lo = std::max(lo, 0);
  hi = std::min(hi, cols - 1);
  uint8_t* mag = rows.mag[slot].data() + 1;
  if (lo > hi) {
    std::memset(mag, 0, static_cast<size_t>(cols));
    return;
  }
  std::memset(mag, 0, static_cast<size_t>(lo));
  Gradients(a + lo, b + lo, c + lo, hi - lo + 1, rows.dx[slot].data() + lo,
            rows.dy[slot].data() + lo, mag + lo);
  std::memset(mag + hi + 1, 0, static_cast<size_t>(cols - 1 - hi));
}

}  // namespace

void BinaryCanny(const cv::Mat& src, cv::Mat& edges) {
  CV_Assert(src.type() == CV_8UC1 && !src.empty());
  const int cols = src.cols;
  edges.create(src.size(), CV_8UC1);
  static const DirectionTable directions;
  thread_local CannyRows rows;
  for (int s = 0; s < 3; ++s) {
    rows.padded[s].resize(static_cast<size_t>(cols) + 2);
    rows.source[s] = -1;
    rows.dx[s].resize(static_cast<size_t>(cols));
    rows.dy[s].resize(static_cast<size_t>(cols));
    rows.mag[s].assign(static_cast<size_t>(cols) + 2, 0);
  }
  // Slots of rows y - 1, y, y + 1 rotate; beyond the first and last row the
  // magnitude is zero.
  int prev = 0, cur = 1, next = 2;
  std::fill(rows.mag[prev].begin(), rows.mag[prev].end(), uint8_t{0});
  int lo = 0, hi = -1, nextLo = 0, nextHi = -1;  // where each row's magnitude can be nonzero
  GradientRow(src, 0, rows, cur, lo, hi);
  for (int y = 0; y < src.rows; ++y) {
    if (y + 1 < src.rows) {
      GradientRow(src, y + 1, rows, next, nextLo, nextHi);
    } else {
      std::fill(rows.mag[next].begin(), rows.mag[next].end(), uint8_t{0});
    }
    const uint8_t* above = rows.mag[prev].data() + 1;
    const uint8_t* here = rows.mag[cur].data() + 1;
    const uint8_t* below = rows.mag[next].data() + 1;
    const int8_t* dx = rows.dx[cur].data();
    const int8_t* dy = rows.dy[cur].data();
    uint8_t* out = edges.ptr<uint8_t>(y);
    std::fill(out, out + cols, uint8_t{0});
    for (int x = lo; x <= hi; ++x) {
      if (x + 8 <= cols) {  // eight pixels without a gradient at once
        uint64_t eight;
        std::memcpy(&eight, here + x, 8);
        if (eight == 0) {
          x += 7;
          continue;
        }
      }
      const int m = here[x];
      if (m == 0) continue;
      bool edge = false;
      switch (directions.at[dx[x] + 4][dy[x] + 4]) {
        case kAlongRow:
          edge = m > here[x - 1] && m >= here[x + 1];
          break;
        case kAlongColumn:
          edge = m > above[x] && m >= below[x];
          break;
        case kDiagonalDown:  // s = 1
          edge = m > above[x - 1] && m > below[x + 1];
          break;
        default:  // s = -1
          edge = m > above[x + 1] && m > below[x - 1];
          break;
      }
      if (edge) out[x] = 255;
    }
    const int freed = prev;
    prev = cur;
    cur = next;
    next = freed;
    lo = nextLo;
    hi = nextHi;
  }
}
