// Frames ready for tracking and the static scene behind the club.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>

#if defined(__x86_64__)
#include <immintrin.h>
#endif

#include "template/head_common.h"

namespace headtrack {

using namespace detail;

bool PrepareFrames(const std::vector<const ClubImage*>& images, const ClubTrackerSetting& setting,
                   uint64_t reference, std::vector<CameraFrame>& frames) {
  frames.clear();
  frames.reserve(images.size());
  for (const ClubImage* image : images) {
    if (image == nullptr || image->pixels == nullptr || image->bytesPerChannel != 1 ||
        image->width == 0 || image->height == 0) {
      return false;
    }
    if (image->channels != 1 && image->channels != 3 && image->channels != 4) return false;
    const int rows = static_cast<int>(image->height);
    const int cols = static_cast<int>(image->width);
    CameraFrame frame;
    const cv::Mat raw(rows, cols, CV_8UC(static_cast<int>(image->channels)), image->pixels);
    if (image->channels == 1) {
      frame.grey = raw;
    } else {
      cv::cvtColor(raw, frame.grey, cv::COLOR_BGR2GRAY);
    }
    cv::Rect area(0, 0, cols, rows);
    if (setting.roiWidth != 0 && setting.roiHeight != 0) {
      area = Clip(cv::Rect(setting.roiX, setting.roiY, setting.roiWidth, setting.roiHeight),
                  area.size());
      frame.grey = frame.grey(area);
    }
    if (area.width < kMinFrameSide || area.height < kMinFrameSide) return false;
    frame.origin = cv::Point2d(image->sensorOffsetX + area.x, image->sensorOffsetY + area.y);
    frame.time = static_cast<double>(static_cast<int64_t>(image->timeStamp - reference));
    frame.afterImpact = image->afterImpact != 0;
    if (image->ballX != 0.0f || image->ballY != 0.0f) {
      frame.hasBall = true;
      frame.ball = cv::Point2d(image->ballX - area.x, image->ballY - area.y);
      frame.ballRadius = image->ballRadius > 0.0f ? image->ballRadius : 0.0;
    }
    frames.push_back(std::move(frame));
  }
  return true;
}

namespace {

// The middle one of m values by odd-even transposition sort (m rounds sort m
// values), on pixels or on vectors of them.
template <int M, typename T, typename Min, typename Max>
inline T MiddleOf(T* v, const Min& lower, const Max& upper) {
  for (int round = 0; round < M; ++round) {
    for (int i = round % 2; i + 1 < M; i += 2) {
      const T low = lower(v[i], v[i + 1]);
      v[i + 1] = upper(v[i], v[i + 1]);
      v[i] = low;
    }
  }
  return v[M / 2];
}

template <int M>
void MedianRowPortable(const uchar* const* rows, uchar* out, int width, int x) {
  const auto lower = [](uchar a, uchar b) { return std::min(a, b); };
  const auto upper = [](uchar a, uchar b) { return std::max(a, b); };
  for (; x < width; ++x) {
    uchar v[M];
    for (int i = 0; i < M; ++i) v[i] = rows[i][x];
    out[x] = MiddleOf<M>(v, lower, upper);
  }
}

#if defined(__x86_64__)
// The same sort written out: the vector helpers cannot be inlined into an
// AVX2 function through a generic one.
template <int M>
__attribute__((target("avx2"))) int MedianRowAvx2(const uchar* const* rows, uchar* out,
                                                  int width) {
  int x = 0;
  for (; x + 32 <= width; x += 32) {
    __m256i v[M];
    for (int i = 0; i < M; ++i) {
      v[i] = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(rows[i] + x));
    }
    for (int round = 0; round < M; ++round) {
      for (int i = round % 2; i + 1 < M; i += 2) {
        const __m256i low = _mm256_min_epu8(v[i], v[i + 1]);
        v[i + 1] = _mm256_max_epu8(v[i], v[i + 1]);
        v[i] = low;
      }
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + x), v[M / 2]);
  }
  return x;
}

template <int M>
int MedianRowSse2(const uchar* const* rows, uchar* out, int width) {
  const auto lower = [](__m128i a, __m128i b) { return _mm_min_epu8(a, b); };
  const auto upper = [](__m128i a, __m128i b) { return _mm_max_epu8(a, b); };
  int x = 0;
  for (; x + 16 <= width; x += 16) {
    __m128i v[M];
    for (int i = 0; i < M; ++i) {
      v[i] = _mm_loadu_si128(reinterpret_cast<const __m128i*>(rows[i] + x));
    }
    _mm_storeu_si128(reinterpret_cast<__m128i*>(out + x), MiddleOf<M>(v, lower, upper));
  }
  return x;
}
#endif

// The per-pixel median of the rows of M images, vectors of pixels at a time.
template <int M>
void MedianRows(const cv::Mat* const* images, cv::Mat& median) {
#if defined(__x86_64__)
  static const bool avx2 = __builtin_cpu_supports("avx2") != 0;
#endif
  for (int y = 0; y < median.rows; ++y) {
    const uchar* rows[M];
    for (int i = 0; i < M; ++i) rows[i] = images[i]->ptr<uchar>(y);
    uchar* out = median.ptr<uchar>(y);
    int x = 0;
#if defined(__x86_64__)
    x = avx2 ? MedianRowAvx2<M>(rows, out, median.cols) : MedianRowSse2<M>(rows, out, median.cols);
#endif
    MedianRowPortable<M>(rows, out, median.cols, x);
  }
}

}  // namespace

cv::Mat MakeBackground(const std::vector<CameraFrame>& frames) {
  const int n = static_cast<int>(frames.size());
  if (n < 3) return cv::Mat();
  for (const CameraFrame& f : frames) {
    if (f.grey.empty() || f.grey.size() != frames.front().grey.size() ||
        f.grey.type() != CV_8UC1) {
      return cv::Mat();
    }
  }
  // An odd number of frames, at most nine, spread evenly from first to last;
  // the per-pixel median of them.
  constexpr int kMaxFrames = 9;
  const int m = std::min(kMaxFrames, n % 2 == 1 ? n : n - 1);
  const cv::Mat* picked[kMaxFrames];
  for (int i = 0; i < m; ++i) {
    const int index = static_cast<int>(std::lround(static_cast<double>(i) * (n - 1) / (m - 1)));
    picked[i] = &frames[index].grey;
  }
  cv::Mat median(frames.front().grey.size(), CV_8UC1);
  switch (m) {
    case 3:
      MedianRows<3>(picked, median);
      break;
    case 5:
      MedianRows<5>(picked, median);
      break;
    case 7:
      MedianRows<7>(picked, median);
      break;
    default:
      MedianRows<9>(picked, median);
      break;
  }
  return median;
}

}  // namespace headtrack
