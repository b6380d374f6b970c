// The head's 3D path drawn from above and from the side, with the fitted arc,
// its low point, the ball and the target line.
#include "trajectory_picture.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace {

using clubtracker::ClubDelivery;
using clubtracker::Vec3;

cv::Vec3d ToVec(const Vec3& v) { return {v[0], v[1], v[2]}; }

const cv::Scalar kBackground(32, 32, 32);
const cv::Scalar kText(225, 225, 225);
const cv::Scalar kGuide(90, 90, 90);
const cv::Scalar kPath(80, 220, 80);
const cv::Scalar kArc(255, 170, 60);
const cv::Scalar kBall(240, 240, 240);
const cv::Scalar kLowPoint(60, 60, 255);
constexpr int kPanelWidth = 460;
constexpr int kPanelHeight = 300;
constexpr int kMargin = 24;
constexpr double kBallRadius = 21.35;  // mm

// A panel's two axes (world directions) and the points to draw, relative to
// the ball, in millimetres.
struct Panel {
  const char* title;
  cv::Vec3d across, upward;  // picture right, picture up
};

struct Scene {
  cv::Vec3d ball;  // the origin: the ball's centre, else the last head position
  bool hasBall = false;
  std::vector<cv::Vec3d> path, arc;
  bool hasLowPoint = false;
  cv::Vec3d lowPoint;
};

void DrawPanel(cv::Mat& canvas, const cv::Rect& area, const Panel& panel, const Scene& scene) {
  cv::Mat view = canvas(area);
  cv::rectangle(view, cv::Rect(0, 0, area.width, area.height), kGuide, 1);
  cv::putText(view, panel.title, cv::Point(8, 18), cv::FONT_HERSHEY_SIMPLEX, 0.45, kText, 1,
              cv::LINE_AA);
  const auto project = [&](const cv::Vec3d& p) {
    const cv::Vec3d r = p - scene.ball;
    return cv::Point2d(r.dot(panel.across), r.dot(panel.upward));
  };
  // One scale for both directions, fitted to everything shown.
  double lo[2] = {-kBallRadius, -kBallRadius}, hi[2] = {kBallRadius, kBallRadius};
  const auto extend = [&](const cv::Point2d& q) {
    lo[0] = std::min(lo[0], q.x);
    hi[0] = std::max(hi[0], q.x);
    lo[1] = std::min(lo[1], q.y);
    hi[1] = std::max(hi[1], q.y);
  };
  for (const cv::Vec3d& p : scene.path) extend(project(p));
  for (const cv::Vec3d& p : scene.arc) extend(project(p));
  if (scene.hasLowPoint) extend(project(scene.lowPoint));
  const double scale = std::min((area.width - 2.0 * kMargin) / std::max(hi[0] - lo[0], 1.0),
                                (area.height - 2.0 * kMargin - 16) / std::max(hi[1] - lo[1], 1.0));
  const cv::Point2d mid(0.5 * (lo[0] + hi[0]), 0.5 * (lo[1] + hi[1]));
  const auto pixel = [&](const cv::Vec3d& p) {
    const cv::Point2d q = project(p);
    return cv::Point(static_cast<int>(std::lround(area.width / 2.0 + (q.x - mid.x) * scale)),
                     static_cast<int>(std::lround(area.height / 2.0 + 8 - (q.y - mid.y) * scale)));
  };
  // The line through the ball along the picture's horizontal axis.
  const cv::Point ballPixel = pixel(scene.ball);
  cv::line(view, cv::Point(0, ballPixel.y), cv::Point(area.width - 1, ballPixel.y), kGuide, 1,
           cv::LINE_AA);
  for (size_t i = 1; i < scene.arc.size(); ++i) {
    cv::line(view, pixel(scene.arc[i - 1]), pixel(scene.arc[i]), kArc, 1, cv::LINE_AA);
  }
  if (scene.hasBall) {
    cv::circle(view, ballPixel, std::max(2, static_cast<int>(std::lround(kBallRadius * scale))),
               kBall, 1, cv::LINE_AA);
  }
  for (const cv::Vec3d& p : scene.path) cv::circle(view, pixel(p), 3, kPath, -1, cv::LINE_AA);
  if (scene.hasLowPoint) {
    cv::drawMarker(view, pixel(scene.lowPoint), kLowPoint, cv::MARKER_CROSS, 12, 2);
  }
}

}  // namespace

cv::Mat TrajectoryPicture(const ClubDelivery& d, const clubtracker::MeasureOptions& options) {
  if (d.headPath.empty()) return {};
  Scene scene;
  scene.hasBall = d.ball.has_value();
  scene.ball = ToVec(d.ball ? *d.ball : d.headPath.back());
  for (const Vec3& p : d.headPath) scene.path.push_back(ToVec(p));
  const cv::Vec3d up = ToVec(options.up), target = ToVec(options.target);
  cv::Vec3d out = up.cross(target);
  if (scene.hasBall && d.lowPoint && d.arcCentre && d.arcNormal && d.arcRadius > 0.0) {
    scene.hasLowPoint = true;
    scene.lowPoint = ToVec(*d.lowPoint);
    const cv::Vec3d centre = ToVec(*d.arcCentre);
    // `out` points away from the golfer, who stands on the pivot's side.
    if ((centre - scene.ball).dot(out) > 0.0) out = -out;
    // The arc from the first tracked position to as far past the low point.
    const cv::Vec3d u = cv::normalize(scene.lowPoint - centre);
    const cv::Vec3d w = ToVec(*d.arcNormal).cross(u);
    const cv::Vec3d first = scene.path.front() - centre;
    const double reach = std::abs(std::atan2(first.dot(w), first.dot(u))) * 1.2 + 0.02;
    for (int i = 0; i <= 100; ++i) {
      const double angle = -reach + 2.0 * reach * i / 100.0;
      scene.arc.push_back(centre + (u * std::cos(angle) + w * std::sin(angle)) * d.arcRadius);
    }
  }
  const Panel panels[2] = {{"from above: target to the right, out upward", target, out},
                           {"from the side: target to the right, up upward", target, up}};
  cv::Mat picture(kPanelHeight + 2 * 8 + 20, 2 * kPanelWidth + 3 * 8, CV_8UC3, kBackground);
  cv::putText(picture,
              "head centre (green), fitted arc (blue), low point (red), ball (white), mm scale "
              "equal in both axes",
              cv::Point(8, 18), cv::FONT_HERSHEY_SIMPLEX, 0.42, kText, 1, cv::LINE_AA);
  for (int i = 0; i < 2; ++i) {
    DrawPanel(picture, cv::Rect(8 + i * (kPanelWidth + 8), 28, kPanelWidth, kPanelHeight),
              panels[i], scene);
  }
  return picture;
}

cv::Mat AppendBelow(const cv::Mat& top, const cv::Mat& bottom) {
  if (bottom.empty()) return top;
  if (top.empty()) return bottom;
  cv::Mat both(top.rows + bottom.rows, std::max(top.cols, bottom.cols), CV_8UC3, kBackground);
  top.copyTo(both(cv::Rect(0, 0, top.cols, top.rows)));
  bottom.copyTo(both(cv::Rect(0, top.rows, bottom.cols, bottom.rows)));
  return both;
}
