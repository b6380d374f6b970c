#include "analysis/hough.h"

#include <algorithm>
#include <cmath>
#include <numeric>

namespace {

constexpr int kAngles = 180;  // cvRound(pi / (float)(pi / 180))

struct Tables {
  float sin[kAngles];
  float cos[kAngles];
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

// The accumulator of the calling thread, kept between frames.
std::vector<int>& Accumulator() {
  thread_local std::vector<int> accumulator;
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
  const int stride = numrho_ + 2;
  const int shift = (numrho_ - 1) / 2;
  std::vector<int>& accum = Accumulator();
  accum.assign(static_cast<size_t>(kAngles + 2) * stride, 0);
  const Tables& trig = Trig();

  int lowest = stride, highest = -1;  // rho indices voted for
  for (int i = 0; i < edges.rows; ++i) {
    const uchar* row = edges.ptr<uchar>(i);
    const float y = static_cast<float>(i + offset.y);
    for (int j = 0; j < edges.cols; ++j) {
      if (row[j] == 0) continue;
      const float x = static_cast<float>(j + offset.x);
      int* cell = accum.data() + stride + 1 + shift;
      for (int n = 0; n < kAngles; ++n, cell += stride) {
        const int r = cvRound(x * trig.cos[n] + y * trig.sin[n]);
        ++cell[r];
        lowest = std::min(lowest, r + shift);
        highest = std::max(highest, r + shift);
      }
    }
  }

  // Cells without a vote are never maxima, so only the voted rho range is
  // searched.
  const int* a = accum.data();
  for (int r = lowest; r <= highest; ++r) {
    for (int n = 0; n < kAngles; ++n) {
      const int base = (n + 1) * stride + r + 1;
      const int v = a[base];
      if (v > 0 && v > a[base - 1] && v >= a[base + 1] && v > a[base - stride] &&
          v >= a[base + stride]) {
        cells_.push_back(base);
      }
    }
  }
  std::sort(cells_.begin(), cells_.end(),
            [a](int l, int m) { return a[l] > a[m] || (a[l] == a[m] && l < m); });
  votes_.resize(cells_.size());
  for (size_t k = 0; k < cells_.size(); ++k) votes_[k] = a[cells_[k]];
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
