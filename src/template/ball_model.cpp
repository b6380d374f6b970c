// The resting ball as each camera sees it.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>

#include "template/head_common.h"

namespace headtrack {

using namespace detail;

double EstimateBallRadius(const CameraFrame& frame) {
  if (!frame.hasBall || frame.grey.empty() || !std::isfinite(frame.ball.x) ||
      !std::isfinite(frame.ball.y)) {
    return 0.0;
  }
  const int reach = std::min(100, std::min(frame.grey.cols, frame.grey.rows) / 3);
  const cv::Point centre(static_cast<int>(std::lround(frame.ball.x)),
                         static_cast<int>(std::lround(frame.ball.y)));
  const cv::Rect region = Clip(
      cv::Rect(centre.x - reach, centre.y - reach, 2 * reach + 1, 2 * reach + 1),
      frame.grey.size());
  if (region.width < 3 || region.height < 3) return 0.0;
  std::vector<cv::Mat> gradients;
  MakeGradientImages({frame.grey(region)}, gradients);
  const cv::Mat& g = gradients.front();
  // Mean gradient on rings of one pixel around the ball's centre: the ball's
  // outline is the ring with the strongest edges.
  std::vector<double> sum(reach + 1, 0.0);
  std::vector<int> count(reach + 1, 0);
  for (int y = 0; y < g.rows; ++y) {
    const uchar* row = g.ptr<uchar>(y);
    const double dy = y + region.y - frame.ball.y;
    for (int x = 0; x < g.cols; ++x) {
      const long ring = RoundedDistance(x + region.x - frame.ball.x, dy);
      if (ring > reach) continue;
      sum[ring] += row[x];
      ++count[ring];
    }
  }
  double best = 0.0;
  int radius = 0;
  for (int ring = 3; ring <= reach; ++ring) {
    if (count[ring] == 0) continue;
    const double mean = sum[ring] / count[ring];
    if (mean > best) {
      best = mean;
      radius = ring;
    }
  }
  return radius;
}

BallModel MakeBallModel(const std::vector<CameraFrame>& frames) {
  BallModel ball;
  if (frames.empty() || !frames.front().hasBall) return ball;
  const CameraFrame& first = frames.front();
  const double radius = first.ballRadius > 0.0 ? first.ballRadius : EstimateBallRadius(first);
  if (!(radius > 0.0)) return ball;
  const int r = static_cast<int>(std::ceil(radius));
  const cv::Point centre(static_cast<int>(std::lround(first.ball.x)),
                         static_cast<int>(std::lround(first.ball.y)));
  const cv::Rect box = Clip(cv::Rect(centre.x - r, centre.y - r, 2 * r + 1, 2 * r + 1),
                            first.grey.size());
  if (box.empty()) return ball;
  ball.radius = radius;
  ball.centre = first.ball;
  ball.box = box;
  ball.look = first.grey(box).clone();
  ball.disc = cv::Mat::zeros(box.size(), CV_8U);
  cv::circle(ball.disc, centre - box.tl(), r, cv::Scalar(255), cv::FILLED);
  return ball;
}

double BallModel::VisibleFraction(const CameraFrame& frame) const {
  if (!(radius > 0.0) || frame.grey.empty() || Clip(box, frame.grey.size()) != box) return 0.0;
  cv::Mat same;
  cv::absdiff(frame.grey(box), look, same);
  same = (same <= kBallSameThreshold) & disc;
  const int inside = cv::countNonZero(disc);
  return inside > 0 ? static_cast<double>(cv::countNonZero(same)) / inside : 0.0;
}

bool BallModel::InFront(const CameraFrame& frame, const cv::Rect& area, double margin) const {
  if (!(radius > 0.0)) return false;
  const double reach = radius + margin;
  const cv::Rect disc(static_cast<int>(std::floor(centre.x - reach)),
                      static_cast<int>(std::floor(centre.y - reach)),
                      static_cast<int>(std::ceil(2.0 * reach)) + 1,
                      static_cast<int>(std::ceil(2.0 * reach)) + 1);
  if ((disc & area).empty()) return false;
  return VisibleFraction(frame) > kBallVisibleFraction;
}

}  // namespace headtrack
