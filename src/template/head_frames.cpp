// Frames ready for tracking and the static scene behind the club.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>

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

cv::Mat MakeBackground(const std::vector<CameraFrame>& frames) {
  const int n = static_cast<int>(frames.size());
  if (n < 3) return cv::Mat();
  for (const CameraFrame& f : frames) {
    if (f.grey.empty() || f.grey.size() != frames.front().grey.size()) return cv::Mat();
  }
  // An odd number of frames, at most nine, spread evenly from first to last.
  const int m = std::min(9, n % 2 == 1 ? n : n - 1);
  std::vector<cv::Mat> sorted(m);
  for (int i = 0; i < m; ++i) {
    const int index = static_cast<int>(std::lround(static_cast<double>(i) * (n - 1) / (m - 1)));
    sorted[i] = frames[index].grey.clone();
  }
  // Odd-even transposition sort, pixel by pixel; the middle image is the median.
  cv::Mat low;
  for (int round = 0; round < m; ++round) {
    for (int i = round % 2; i + 1 < m; i += 2) {
      cv::min(sorted[i], sorted[i + 1], low);
      cv::max(sorted[i], sorted[i + 1], sorted[i + 1]);
      std::swap(sorted[i], low);
    }
  }
  return sorted[m / 2];
}

}  // namespace headtrack
