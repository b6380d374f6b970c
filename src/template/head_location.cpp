// Finding and measuring the head's silhouette by frame differencing.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>

#include "template/head_common.h"

namespace headtrack {

using namespace detail;

bool FitOutlineCentre(const std::vector<cv::Point2f>& points, const HeadOutline& model,
                      cv::Point2d& centre) {
  if (points.size() < 3 || !(model.semiMajor > 0.0) || !(model.semiMinor > 0.0)) return false;
  const double c = std::cos(model.angle);
  const double s = std::sin(model.angle);
  const double a2 = model.semiMajor * model.semiMajor;
  const double b2 = model.semiMinor * model.semiMinor;
  const double scale = 0.5 * (model.semiMajor + model.semiMinor);
  cv::Point2d estimate = model.centre;
  for (int iteration = 0; iteration < 20; ++iteration) {
    cv::Matx22d normal = cv::Matx22d::zeros();
    cv::Vec2d gradient(0.0, 0.0);
    for (const cv::Point2f& p : points) {
      const double dx = p.x - estimate.x;
      const double dy = p.y - estimate.y;
      const double u = c * dx + s * dy;
      const double v = -s * dx + c * dy;
      const double rho = std::sqrt(u * u / a2 + v * v / b2);
      if (!(rho > 1e-9)) continue;
      const double residual = scale * (rho - 1.0);
      // d rho / d centre = -(u / a2 * du/dd + v / b2 * dv/dd) / rho, where
      // du/dd = (c, s) and dv/dd = (-s, c).
      const cv::Vec2d jacobian =
          -scale / rho * cv::Vec2d(u / a2 * c - v / b2 * s, u / a2 * s + v / b2 * c);
      normal += jacobian * jacobian.t();
      gradient += jacobian * residual;
    }
    cv::Vec2d step;
    if (!cv::solve(normal, -gradient, step, cv::DECOMP_CHOLESKY)) return false;
    estimate += cv::Point2d(step[0], step[1]);
    if (!std::isfinite(estimate.x) || !std::isfinite(estimate.y)) return false;
    if (std::hypot(step[0], step[1]) < 1e-3) {
      centre = estimate;
      return true;
    }
  }
  return false;
}

bool MeasureSilhouette(const CameraFrame& frame, const cv::Mat& background,
                       const cv::Rect& region, double thickness, const BallModel& ball,
                       const HeadOutline* model, double wholeFraction, HeadOutline& outline,
                       std::vector<cv::Point2f>* points) {
  const cv::Rect r = Clip(region, frame.grey.size());
  if (r.width < 3 || r.height < 3 || background.size() != frame.grey.size()) return false;

  const cv::Mat filled = ChangedMask(frame.grey(r), background(r), kFullClosing);
  const cv::Mat body = OpenByPreciseDisc(filled, std::max(1.5, kOpeningFraction * thickness));
  std::vector<std::vector<cv::Point>> contours;
  cv::findContours(body, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
  const std::vector<cv::Point>* head = nullptr;
  double largest = 0.0;
  for (const std::vector<cv::Point>& contour : contours) {
    const double size = cv::contourArea(contour);
    if (head == nullptr || size > largest) {
      head = &contour;
      largest = size;
    }
  }
  if (head == nullptr) return false;
  const cv::Rect bounds = cv::boundingRect(*head);
  if (bounds.x == 0 || bounds.y == 0 || bounds.x + bounds.width == r.width ||
      bounds.y + bounds.height == r.height) {
    return false;
  }

  // The head's outline: its border where it is the silhouette's own edge (not
  // where the opening cut the shaft off), away from the ball.
  const double ballReach = ball.radius > 0.0 ? ball.radius + kBallMargin : 0.0;
  std::vector<cv::Point2f> kept;
  size_t total = 0;
  for (const cv::Point& p : *head) {
    bool edge = false;
    for (int dy = -1; dy <= 1 && !edge; ++dy) {
      for (int dx = -1; dx <= 1 && !edge; ++dx) {
        const cv::Point q(p.x + dx, p.y + dy);
        edge = q.x < 0 || q.y < 0 || q.x >= r.width || q.y >= r.height ||
               filled.at<uchar>(q) == 0;
      }
    }
    if (!edge) continue;
    ++total;
    const cv::Point2d full(p.x + r.x, p.y + r.y);
    if (ballReach > 0.0 && cv::norm(full - ball.centre) <= ballReach) continue;
    kept.emplace_back(static_cast<float>(full.x), static_cast<float>(full.y));
  }
  if (kept.size() < kMinOutlinePoints) return false;
  const double fraction = static_cast<double>(kept.size()) / static_cast<double>(total);

  if (fraction >= wholeFraction) {
    const cv::RotatedRect ellipse = cv::fitEllipse(kept);
    outline.centre = cv::Point2d(ellipse.center.x, ellipse.center.y);
    outline.semiMajor = 0.5 * std::max(ellipse.size.width, ellipse.size.height);
    outline.semiMinor = 0.5 * std::min(ellipse.size.width, ellipse.size.height);
    double degrees = ellipse.angle + (ellipse.size.width < ellipse.size.height ? 90.0 : 0.0);
    degrees = std::fmod(degrees, 180.0);
    if (degrees < 0.0) degrees += 180.0;
    outline.angle = degrees * CV_PI / 180.0;
    outline.complete = true;
  } else if (model != nullptr && fraction >= kPartialOutline) {
    HeadOutline moved = *model;
    if (!FitOutlineCentre(kept, *model, moved.centre)) return false;
    moved.complete = false;
    outline = moved;
  } else {
    return false;
  }
  if (!std::isfinite(outline.centre.x) || !std::isfinite(outline.centre.y) ||
      !r.contains(outline.centre) || !(outline.semiMajor > 0.0) || !(outline.semiMinor > 0.0)) {
    return false;
  }
  if (points != nullptr) *points = std::move(kept);
  return true;
}

bool LocateHead(const CameraFrame& frame, const cv::Mat& background,
                const cv::Mat& halfBackground, const BallModel& ball, bool strict,
                HeadBlob& blob) {
  if (frame.grey.empty() || background.size() != frame.grey.size() ||
      halfBackground.size() != HalfSize(frame.grey)) {
    return false;
  }
  // The search runs at half resolution; the head is large enough for it.
  const cv::Mat grey = Half(frame.grey);
  cv::Mat moving = ChangedMask(grey, halfBackground, kHalfClosing);
  // A visible ball differs from the background where it has left its place in
  // the later frames: remove its blob, and give up when the head is beside it.
  const bool ballVisible = ball.VisibleFraction(frame) > kBallVisibleFraction;
  const cv::Point ballHalf(static_cast<int>(std::floor(ball.centre.x / 2.0)),
                           static_cast<int>(std::floor(ball.centre.y / 2.0)));
  const cv::Rect whole(0, 0, grey.cols, grey.rows);
  if (ballVisible && whole.contains(ballHalf) && moving.at<uchar>(ballHalf) != 0) {
    cv::floodFill(moving, ballHalf, cv::Scalar(0));
  }

  // The head is the thickest part of the moving club (the distances are 0
  // outside the box of the moving pixels).
  const cv::Rect active = ActiveBox(moving);
  if (active.empty()) return false;
  cv::Mat distance;
  Distances(moving(active), cv::DIST_MASK_5, distance);
  double thickness = 0.0;
  cv::Point deepest;
  cv::minMaxLoc(distance, nullptr, &thickness, nullptr, &deepest);
  deepest += active.tl();
  if (2.0 * thickness < kMinHeadThickness) return false;

  // The head's body without the shaft, in a region around it.
  const int reach = static_cast<int>(std::ceil(5.0 * thickness));
  const cv::Rect region = Clip(
      cv::Rect(deepest.x - reach, deepest.y - reach, 2 * reach + 1, 2 * reach + 1), grey.size());
  cv::Mat regionDistance = cv::Mat::zeros(region.size(), CV_32F);
  const cv::Rect both = region & active;
  distance(both - active.tl()).copyTo(regionDistance(both - region.tl()));
  cv::Mat body =
      OpenByDisc(moving(region), regionDistance, std::max(1.0, kOpeningFraction * thickness));
  cv::Rect box;
  if (!ComponentBox(body, deepest - region.tl(), box)) return false;
  box += region.tl();
  // The whole head must be in view, and inside the region searched.
  if ((box & Grow(whole, -1)) != box) return false;
  if (region != whole && (box & Grow(region, -1)) != box) return false;
  if (ballVisible && Grow(box, static_cast<int>(std::ceil(thickness))).contains(ballHalf)) {
    return false;
  }

  // Measured at full resolution: half-resolution pixel i covers pixels 2i and
  // 2i + 1. A start needs the whole outline, so a head that reaches the ball
  // (hidden or not) is not taken.
  const cv::Rect full = Doubled(box);
  if (strict && ball.radius > 0.0) {
    const double reach = ball.radius + kBallMargin;
    const cv::Rect disc(static_cast<int>(std::floor(ball.centre.x - reach)),
                        static_cast<int>(std::floor(ball.centre.y - reach)),
                        static_cast<int>(std::ceil(2.0 * reach)) + 1,
                        static_cast<int>(std::ceil(2.0 * reach)) + 1);
    if (!(disc & full).empty()) return false;
  }
  HeadOutline outline;
  if (!MeasureSilhouette(frame, background, Grow(full, kRegionMargin), 2.0 * thickness, ball,
                         nullptr, strict ? 1.0 : kNearlyWhole, outline) ||
      !outline.complete) {
    return false;
  }
  blob.outline = outline;
  blob.box = Clip(full, frame.grey.size());
  blob.thickness = 2.0 * thickness;
  return true;
}

}  // namespace headtrack
