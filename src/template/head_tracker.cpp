#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include <opencv2/imgproc.hpp>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "reconstruction/geometry.h"
#include "template/template_matching.h"

namespace headtrack {

namespace {

// Grey-level difference above which a pixel counts as changed against the
// background. The head and shaft stand out from the background by far more;
// brightness flicker of a few per cent and sensor noise stay below.
constexpr double kDifferenceThreshold = 20.0;
// Closing of the changed pixels at full and at half resolution: wide enough to
// close the ring where the head is as bright as the ball behind it.
constexpr int kFullClosing = 7;
constexpr int kHalfClosing = 3;
// A head is at least this thick (largest inscribed radius, full-resolution
// pixels).
constexpr double kMinHeadThickness = 6.0;
// Opening radius relative to the head's thickness: removes the shaft and the
// hosel, keeps the body of the head.
constexpr double kOpeningFraction = 0.6;
// Pixels of gradient context kept around a template's silhouette (full
// resolution), and around a template where its silhouette is measured.
constexpr int kTemplateMargin = 4;
constexpr int kRegionMargin = 6;
// Extra pixels around every gradient crop, so that the Sobel border rule does
// not touch the pixels that are matched.
constexpr int kCropBorder = 2;
// Pixels kept clear around the ball when only part of a template is matched,
// and the smallest part of a template worth matching.
constexpr double kBallMargin = 4.0;
constexpr double kMinPartFraction = 0.3;
// The ball counts as visible when more than this fraction of its disc looks
// as it does at rest (within kBallSameThreshold grey levels). A ball hidden
// by the head still matches on a tenth to a fifth of its disc, where the
// head's shading happens to be as bright.
constexpr double kBallVisibleFraction = 0.3;
constexpr double kBallSameThreshold = 12.0;

// Normalised correlation of (half-resolution) gradient templates. Following
// the head from one frame to the next scores above 0.9; as the head turns and
// its shading moves, the score falls, and below kUpdateScore the template is
// renewed from the current frame. A match below kRejectScore is not the head:
// over 41 synthetic swings a head template scored at most 0.45 anywhere on the
// static background (the golfer's feet and legs are the closest look-alikes),
// while the head itself, even partly hidden by the ball, scored 0.6 or more.
constexpr double kUpdateScore = 0.85;
constexpr double kRejectScore = 0.52;

// A silhouette centre is taken instead of the template's when it lies within
// this fraction of the template's smaller side of it and its area is within
// kAreaRatio of the head's last silhouette.
constexpr double kMaxRefineShift = 0.25;
constexpr double kAreaRatio = 1.35;
// An outline is fitted when at least this many of its points are the
// silhouette's own edge clear of the ball. An ellipse is fitted anew only to
// a whole outline: with a part missing its length is not pinned down. Then,
// down to kPartialOutline of it left, the head's expected outline is moved
// onto the part left instead.
constexpr size_t kMinOutlinePoints = 20;
constexpr double kPartialOutline = 0.25;
// A start beside the ball, when there is no other, needs this much of its
// outline clear of the ball.
constexpr double kNearlyWhole = 0.9;
// Frames (after the cut to the region of interest) smaller than this on a
// side cannot show a club head.
constexpr int kMinFrameSide = 8;

cv::Rect Clip(const cv::Rect& r, const cv::Size& size) {
  return r & cv::Rect(0, 0, size.width, size.height);
}

cv::Rect Grow(const cv::Rect& r, int by) {
  return cv::Rect(r.x - by, r.y - by, r.width + 2 * by, r.height + 2 * by);
}

// Vertex of the parabola through (-1, a), (0, b), (1, c), within half a pixel.
double ParabolaPeak(double a, double b, double c) {
  const double curvature = a - 2.0 * b + c;
  if (!(curvature < 0.0)) return 0.0;
  return std::clamp(0.5 * (a - c) / curvature, -0.5, 0.5);
}

// Half resolution: each pixel the mean of a 2 x 2 block (an odd last row or
// column is left out), so that half-resolution pixel i covers pixels 2i and
// 2i + 1 exactly.
cv::Size HalfSize(const cv::Mat& image) { return cv::Size(image.cols / 2, image.rows / 2); }

cv::Mat Half(const cv::Mat& image) {
  const cv::Size size = HalfSize(image);
  cv::Mat half;
  cv::resize(image(cv::Rect(0, 0, 2 * size.width, 2 * size.height)), half, size, 0.0, 0.0,
             cv::INTER_AREA);
  return half;
}

// Full-resolution rectangle covered by a half-resolution one.
cv::Rect Doubled(const cv::Rect& r) {
  return cv::Rect(2 * r.x, 2 * r.y, 2 * r.width, 2 * r.height);
}

// Keeps the parts of a mask that a disc of `radius` fits into: an opening by
// distances (the erosion keeps the pixels deeper than the radius, the
// dilation grows them back by it), worked out around the deep pixels only.
cv::Mat OpenByDisc(const cv::Mat& mask, const cv::Mat& distance, double radius) {
  cv::Mat body = cv::Mat::zeros(mask.size(), CV_8U);
  const cv::Mat core = distance > radius;
  const cv::Rect deep = cv::boundingRect(core);
  if (deep.empty()) return body;
  const cv::Rect around =
      Clip(Grow(deep, static_cast<int>(std::ceil(radius)) + 1), mask.size());
  const cv::Mat outsideCore = distance(around) <= radius;
  cv::Mat toCore;
  cv::distanceTransform(outsideCore, toCore, cv::DIST_L2, cv::DIST_MASK_PRECISE);
  body(around) = (toCore <= radius) & mask(around);
  return body;
}

// The changed pixels of a frame, gaps closed (by a dilation and erosion of
// `closing` pixels) and holes filled: where the head passes in front of the
// ball, it is as bright as the ball along a thin ring.
cv::Mat ChangedMask(const cv::Mat& grey, const cv::Mat& background, int closing) {
  cv::Mat changed;
  cv::absdiff(grey, background, changed);
  cv::threshold(changed, changed, kDifferenceThreshold, 255.0, cv::THRESH_BINARY);
  const cv::Mat kernel =
      cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(closing, closing));
  cv::dilate(changed, changed, kernel);
  cv::erode(changed, changed, kernel);
  // Whatever the outside cannot reach belongs to the silhouette.
  cv::Mat padded;
  cv::copyMakeBorder(changed, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::floodFill(padded, cv::Point(0, 0), cv::Scalar(128));
  return padded(cv::Rect(1, 1, changed.cols, changed.rows)) != 128;
}

// Gradient image of a patch of a frame, computed with a little context so that
// the Sobel border rule does not touch it.
cv::Mat GradientPatch(const cv::Mat& grey, const cv::Rect& patch) {
  const cv::Rect crop = Clip(Grow(patch, kCropBorder), grey.size());
  std::vector<cv::Mat> gradients;
  MakeGradientImages({grey(crop)}, gradients);
  return gradients.front()(patch - crop.tl()).clone();
}

// The largest part of a template (rectangle in template coordinates) that
// stays clear of a disc; the whole template when the disc misses it.
cv::Rect ClearOfDisc(const cv::Size& size, const cv::Point2d& centre, double radius) {
  const cv::Rect whole(0, 0, size.width, size.height);
  const int left = static_cast<int>(std::floor(centre.x - radius));
  const int right = static_cast<int>(std::ceil(centre.x + radius));
  const int top = static_cast<int>(std::floor(centre.y - radius));
  const int bottom = static_cast<int>(std::ceil(centre.y + radius));
  if ((cv::Rect(left, top, right - left, bottom - top) & whole).empty()) return whole;
  const cv::Rect parts[4] = {cv::Rect(0, 0, left, size.height) & whole,
                             cv::Rect(right, 0, size.width - right, size.height) & whole,
                             cv::Rect(0, 0, size.width, top) & whole,
                             cv::Rect(0, bottom, size.width, size.height - bottom) & whole};
  cv::Rect best;
  for (const cv::Rect& part : parts) {
    if (part.area() > best.area()) best = part;
  }
  return best;
}

}  // namespace

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

double EstimateBallRadius(const CameraFrame& frame) {
  if (!frame.hasBall || frame.grey.empty()) return 0.0;
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
    for (int x = 0; x < g.cols; ++x) {
      const double rho = std::hypot(x + region.x - frame.ball.x, y + region.y - frame.ball.y);
      const long ring = std::lround(rho);
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
  cv::Mat distance;
  cv::distanceTransform(filled, distance, cv::DIST_L2, cv::DIST_MASK_PRECISE);
  const cv::Mat body = OpenByDisc(filled, distance, std::max(1.5, kOpeningFraction * thickness));
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

bool LocateHead(const CameraFrame& frame, const cv::Mat& background, const BallModel& ball,
                bool strict, HeadBlob& blob) {
  if (frame.grey.empty() || background.size() != frame.grey.size()) return false;
  // The search runs at half resolution; the head is large enough for it.
  const cv::Mat grey = Half(frame.grey);
  cv::Mat moving = ChangedMask(grey, Half(background), kHalfClosing);
  // A visible ball differs from the background where it has left its place in
  // the later frames: remove its blob, and give up when the head is beside it.
  const bool ballVisible = ball.VisibleFraction(frame) > kBallVisibleFraction;
  const cv::Point ballHalf(static_cast<int>(std::floor(ball.centre.x / 2.0)),
                           static_cast<int>(std::floor(ball.centre.y / 2.0)));
  const cv::Rect whole(0, 0, grey.cols, grey.rows);
  if (ballVisible && whole.contains(ballHalf) && moving.at<uchar>(ballHalf) != 0) {
    cv::floodFill(moving, ballHalf, cv::Scalar(0));
  }

  // The head is the thickest part of the moving club.
  cv::Mat distance;
  cv::distanceTransform(moving, distance, cv::DIST_L2, cv::DIST_MASK_5);
  double thickness = 0.0;
  cv::Point deepest;
  cv::minMaxLoc(distance, nullptr, &thickness, nullptr, &deepest);
  if (2.0 * thickness < kMinHeadThickness) return false;

  // The head's body without the shaft, in a region around it.
  const int reach = static_cast<int>(std::ceil(5.0 * thickness));
  const cv::Rect region = Clip(
      cv::Rect(deepest.x - reach, deepest.y - reach, 2 * reach + 1, 2 * reach + 1), grey.size());
  const cv::Mat body =
      OpenByDisc(moving(region), distance(region), std::max(1.0, kOpeningFraction * thickness));
  cv::Mat labels;
  cv::Mat stats;
  cv::Mat centroids;
  cv::connectedComponentsWithStats(body, labels, stats, centroids, 8, CV_32S);
  const int label = labels.at<int>(deepest - region.tl());
  if (label <= 0) return false;
  const cv::Rect box(stats.at<int>(label, cv::CC_STAT_LEFT) + region.x,
                     stats.at<int>(label, cv::CC_STAT_TOP) + region.y,
                     stats.at<int>(label, cv::CC_STAT_WIDTH),
                     stats.at<int>(label, cv::CC_STAT_HEIGHT));
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

namespace {

// The head's outline expected at `time`, centred at `centre`: its size and
// turn change smoothly, so they are carried on from the last two complete
// outlines (or kept from the last one).
HeadOutline PredictOutline(const std::vector<double>& times, const std::vector<HeadOutline>& shapes,
                           double time, const cv::Point2d& centre) {
  HeadOutline predicted = shapes.back();
  predicted.centre = centre;
  predicted.complete = false;
  const size_t n = shapes.size();
  if (n >= 2 && times[n - 1] != times[n - 2]) {
    const HeadOutline& a = shapes[n - 2];
    const HeadOutline& b = shapes[n - 1];
    const double f = (time - times[n - 1]) / (times[n - 1] - times[n - 2]);
    double turn = b.angle - a.angle;  // angles are defined modulo pi
    if (turn > CV_PI / 2) turn -= CV_PI;
    if (turn < -CV_PI / 2) turn += CV_PI;
    const double major = b.semiMajor + f * (b.semiMajor - a.semiMajor);
    const double minor = b.semiMinor + f * (b.semiMinor - a.semiMinor);
    if (major > 0.0 && minor > 0.0) {
      predicted.semiMajor = major;
      predicted.semiMinor = minor;
      predicted.angle = b.angle + f * turn;
    }
  }
  return predicted;
}

// One direction of the tracking from the start frame. Templates are matched
// at half resolution, which is ample to follow the head; the position comes
// from the silhouette at full resolution.
void TrackDirection(const std::vector<CameraFrame>& frames, const cv::Mat& background,
                    const BallModel& ball, const std::vector<int>& list, int start, int step,
                    const cv::Mat& startTemplate, const cv::Point2d& startOffset,
                    const HeadBlob& blob, const cv::Point2d* velocityHint, int limit,
                    CameraTrack& track) {
  cv::Mat templ = startTemplate;  // half resolution
  // The tracked point from the template's corner, in full-resolution pixels.
  cv::Point2d offset = startOffset;
  // The head's complete outlines so far, to predict its shape from.
  std::vector<double> shapeTimes = {frames[list[start]].time};
  std::vector<HeadOutline> shapes = {blob.outline};
  std::vector<double> times = {frames[list[start]].time};
  std::vector<cv::Point2d> points = {track.position[start]};
  if (velocityHint != nullptr) {
    // A point one time unit earlier on the hinted motion starts the prediction.
    times.insert(times.begin(), times.front() - 1.0);
    points.insert(points.begin(), points.front() - *velocityHint);
  }
  const double ballHalfRadius = 0.5 * (ball.radius + kBallMargin);

  int added = 0;
  for (int j = start + step; j >= 0 && j < static_cast<int>(list.size()) && added < limit;
       j += step) {
    const CameraFrame& frame = frames[list[j]];
    const cv::Mat half = Half(frame.grey);
    const cv::Size size = half.size();
    cv::Point2d predicted = points.back();
    double margin = 0.0;  // half-resolution pixels
    if (points.size() >= 2) {
      const size_t k = points.size() - 1;
      const double dt = times[k] - times[k - 1];
      if (dt == 0.0) break;
      const cv::Point2d move = (points[k] - points[k - 1]) * ((frame.time - times[k]) / dt);
      predicted += move;
      margin = 4.0 + 0.075 * std::hypot(move.x, move.y);
    } else {
      // No motion known yet: search half a head length around.
      margin = 4.0 + 0.6 * std::max(templ.cols, templ.rows);
    }
    const cv::Point2d corner = (predicted - offset) * 0.5;
    const cv::Rect expectedWhole(static_cast<int>(std::lround(corner.x)),
                                 static_cast<int>(std::lround(corner.y)), templ.cols, templ.rows);
    // Only the part of the template inside the frame (a window may not reach
    // its last row or column) is matched; the head leaving the view ends the
    // track.
    cv::Rect part = (cv::Rect(0, 0, size.width - 1, size.height - 1) & expectedWhole) -
                    expectedWhole.tl();
    if (part.area() < kMinPartFraction * static_cast<double>(templ.total())) break;
    // Where the ball stands in front of the head, only the part of the
    // template clear of it.
    if (ball.InFront(frame, Doubled(expectedWhole), kBallMargin)) {
      const cv::Rect clear =
          part & ClearOfDisc(templ.size(), ball.centre * 0.5 - cv::Point2d(expectedWhole.tl()),
                             ballHalfRadius);
      if (clear.area() >= kMinPartFraction * static_cast<double>(templ.total())) part = clear;
    }
    const cv::Mat partTemplate = templ(part);
    const cv::Rect expected = part + expectedWhole.tl();

    const int reachBase = static_cast<int>(std::ceil(margin));
    bool found = false;
    for (int attempt = 0; attempt < 2 && !found; ++attempt) {
      const int reach = attempt == 0 ? reachBase : 2 * reachBase;
      // Kept off the last row and column, which a window may not reach.
      const cv::Rect wanted = Grow(expected, reach);
      const cv::Rect window = wanted & cv::Rect(0, 0, size.width - 1, size.height - 1);
      const cv::Rect crop = Clip(Grow(window, kCropBorder), size);
      std::vector<cv::Mat> gradients;
      MakeGradientImages({half(crop)}, gradients);
      const cv::Mat& gradient = gradients.front();
      cv::Rect local = window - crop.tl();
      cv::Rect match;
      double score = 0.0;
      if (!MatchTemplateInWindow(partTemplate, gradient, local, match, score)) break;
      if (score < kRejectScore) break;
      // A best match on the edge of the window may be the slope of a peak
      // outside it (unless the frame ends there): search once more in a
      // wider window.
      const bool onEdge =
          (match.x == local.x && window.x == wanted.x) ||
          (match.y == local.y && window.y == wanted.y) ||
          (match.x + match.width == local.x + local.width && window.br().x == wanted.br().x) ||
          (match.y + match.height == local.y + local.height && window.br().y == wanted.br().y);
      if (onEdge && attempt == 0) continue;
      if (onEdge) break;

      const cv::Rect halfWhole(crop.x + match.x - part.x, crop.y + match.y - part.y, templ.cols,
                               templ.rows);
      const cv::Rect whole = Doubled(halfWhole);
      cv::Point2d position = cv::Point2d(whole.tl()) + offset;

      // Where the head's silhouette can be measured, its centre is taken:
      // unlike a template match it does not drift as the head's shading
      // changes. The region is generous: near the ball the template's match
      // can be off by a good part of the head's thickness.
      const int smaller = std::min(whole.width, whole.height);
      const int regionMargin =
          std::max(kRegionMargin, static_cast<int>(std::lround(kMaxRefineShift * smaller)));
      const HeadOutline expectedShape = PredictOutline(shapeTimes, shapes, frame.time, position);
      HeadOutline measured;
      Quality quality = kByTemplate;
      std::vector<cv::Point2f> outlinePoints;
      if (MeasureSilhouette(frame, background, Grow(whole, regionMargin), blob.thickness, ball,
                            &expectedShape, 1.0, measured, &outlinePoints) &&
          measured.Area() < kAreaRatio * expectedShape.Area() &&
          measured.Area() * kAreaRatio > expectedShape.Area() &&
          cv::norm(measured.centre - position) <= kMaxRefineShift * smaller) {
        position = measured.centre;
        if (measured.complete) {
          shapeTimes.push_back(frame.time);
          shapes.push_back(measured);
        }
        quality = measured.complete ? kByOutline : kByPartialOutline;
      } else {
        // Else the template's match, to sub-pixel by the parabola through
        // the correlation around its peak.
        const cv::Rect around(match.x - 1, match.y - 1, match.width + 2, match.height + 2);
        if (Clip(around, gradient.size()) == around) {
          cv::Mat scores;
          cv::matchTemplate(gradient(around), partTemplate, scores, cv::TM_CCOEFF_NORMED);
          position.x += 2.0 * ParabolaPeak(scores.at<float>(1, 0), scores.at<float>(1, 1),
                                           scores.at<float>(1, 2));
          position.y += 2.0 * ParabolaPeak(scores.at<float>(0, 1), scores.at<float>(1, 1),
                                           scores.at<float>(2, 1));
        }
      }
      track.position[j] = position;
      track.tracked[j] = 1;
      track.quality[j] = quality;
      track.region[j] = Grow(whole, regionMargin);
      if (quality != kByTemplate) track.outline[j] = measured;
      if (quality == kByPartialOutline) track.partialOutline[j] = std::move(outlinePoints);
      track.score[j] = score;
      times.push_back(frame.time);
      points.push_back(position);
      // Renew the template when the head's look has changed, but not while
      // the ball stands in front of it: its outline would become part of it.
      if (score < kUpdateScore && part.size() == templ.size() &&
          Clip(halfWhole, size) == halfWhole) {
        templ = GradientPatch(half, halfWhole);
        offset = position - cv::Point2d(whole.tl());
        ++track.templateUpdates;
      }
      found = true;
      ++added;
    }
    if (!found) break;
  }
}

// The head's apparent size and turn change smoothly with its position in the
// picture: straight-line trends over its complete outlines predict its shape
// where the ball hides part of it, better than the last complete outline
// alone. The outlines of those frames are fitted once more with that shape.
void RefitHidden(const std::vector<CameraFrame>& frames, const std::vector<int>& list,
                 const HeadBlob& blob, CameraTrack& track) {
  std::vector<double> times;
  std::vector<cv::Vec3d> shapes;  // semi-major, semi-minor, angle (unwrapped)
  const int n = static_cast<int>(list.size());
  bool anyHidden = false;
  for (int j = 0; j < n; ++j) {
    if (!track.tracked[j]) continue;
    if (track.quality[j] != kByOutline) {
      anyHidden = anyHidden || track.quality[j] == kByPartialOutline;
      continue;
    }
    const HeadOutline& o = track.outline[j];
    double angle = o.angle;
    if (!shapes.empty()) {
      const double reference = shapes.front()[2];
      while (angle - reference > CV_PI / 2) angle -= CV_PI;
      while (angle - reference < -CV_PI / 2) angle += CV_PI;
    }
    times.push_back(frames[list[j]].time);
    shapes.emplace_back(o.semiMajor, o.semiMinor, angle);
  }
  if (!anyHidden || shapes.empty()) return;
  // Least-squares straight lines through the shapes over time.
  double meanTime = 0.0;
  cv::Vec3d meanShape(0.0, 0.0, 0.0);
  for (size_t i = 0; i < shapes.size(); ++i) {
    meanTime += times[i];
    meanShape += shapes[i];
  }
  meanTime /= static_cast<double>(shapes.size());
  meanShape *= 1.0 / static_cast<double>(shapes.size());
  double spread = 0.0;
  cv::Vec3d slope(0.0, 0.0, 0.0);
  for (size_t i = 0; i < shapes.size(); ++i) {
    spread += (times[i] - meanTime) * (times[i] - meanTime);
    slope += (shapes[i] - meanShape) * (times[i] - meanTime);
  }
  slope = spread > 0.0 ? slope * (1.0 / spread) : cv::Vec3d(0.0, 0.0, 0.0);

  const double limit = kMaxRefineShift * std::min(blob.box.width, blob.box.height);
  for (int j = 0; j < n; ++j) {
    if (!track.tracked[j] || track.quality[j] != kByPartialOutline) continue;
    const cv::Vec3d shape = meanShape + slope * (frames[list[j]].time - meanTime);
    if (!(shape[0] > 0.0) || !(shape[1] > 0.0)) continue;
    HeadOutline model;
    model.centre = track.position[j];
    model.semiMajor = shape[0];
    model.semiMinor = shape[1];
    model.angle = shape[2];
    cv::Point2d centre;
    if (FitOutlineCentre(track.partialOutline[j], model, centre) &&
        cv::norm(centre - track.position[j]) <= limit) {
      model.centre = centre;
      track.position[j] = centre;
      track.outline[j] = model;
    }
  }
}

}  // namespace

void TrackHead(const std::vector<CameraFrame>& frames, const cv::Mat& background,
               const BallModel& ball, const std::vector<int>& list, int start,
               const HeadBlob& blob, const cv::Point2d* velocityHint, int wanted,
               CameraTrack& track) {
  track.position.assign(list.size(), cv::Point2d(0.0, 0.0));
  track.tracked.assign(list.size(), 0);
  track.quality.assign(list.size(), kByTemplate);
  track.region.assign(list.size(), cv::Rect());
  track.outline.assign(list.size(), HeadOutline());
  track.partialOutline.assign(list.size(), std::vector<cv::Point2f>());
  track.score.assign(list.size(), 0.0);
  track.templateUpdates = 0;
  if (start < 0 || start >= static_cast<int>(list.size())) return;

  // The first template: the head's box with a margin, at half resolution.
  const cv::Mat half = Half(frames[list[start]].grey);
  const cv::Rect fullBox = Grow(blob.box, kTemplateMargin);
  const cv::Rect box = Clip(cv::Rect(fullBox.x / 2, fullBox.y / 2, (fullBox.width + 1) / 2,
                                     (fullBox.height + 1) / 2),
                            half.size());
  if (box.width < 3 || box.height < 3) return;
  const cv::Mat templ = GradientPatch(half, box);
  const cv::Point2d offset = blob.outline.centre - cv::Point2d(Doubled(box).tl());

  track.position[start] = blob.outline.centre;
  track.tracked[start] = 1;
  track.quality[start] = kByOutline;
  track.outline[start] = blob.outline;
  track.region[start] = Grow(Doubled(box), kRegionMargin);
  track.score[start] = 1.0;
  TrackDirection(frames, background, ball, list, start, +1, templ, offset, blob, velocityHint,
                 static_cast<int>(list.size()), track);
  int tracked = 0;
  for (unsigned char t : track.tracked) tracked += t;
  TrackDirection(frames, background, ball, list, start, -1, templ, offset, blob, velocityHint,
                 wanted - tracked, track);
  RefitHidden(frames, list, blob, track);
}

StereoRig MakeStereoRig(const ClubTrackerSetting& setting) {
  StereoRig rig;
  MakeCameraMatrices(setting.cam1Intrinsic, setting.cam1Extrinsic, rig.intrinsic[0],
                     rig.rotationToWorld[0], rig.center[0]);
  MakeCameraMatrices(setting.cam2Intrinsic, setting.cam2Extrinsic, rig.intrinsic[1],
                     rig.rotationToWorld[1], rig.center[1]);
  return rig;
}

bool Triangulate(const StereoRig& rig, const cv::Point2d& pixel1, const cv::Point2d& pixel2,
                 cv::Vec3d& world, double& rayGap) {
  double p1[3] = {pixel1.x, pixel1.y, 1.0};
  double p2[3] = {pixel2.x, pixel2.y, 1.0};
  double out[3] = {0.0, 0.0, 0.0};
  cv::Mat point1(3, 1, CV_64F, p1);
  cv::Mat point2(3, 1, CV_64F, p2);
  cv::Mat result(3, 1, CV_64F, out);
  float quality = 0.0f;
  const int ok = ImageProcess::Coordinate2DTO3D(
      rig.intrinsic[0], rig.rotationToWorld[0], rig.center[0], point1, rig.intrinsic[1],
      rig.rotationToWorld[1], rig.center[1], point2, result, quality);
  if (ok == 0) return false;
  if (!std::isfinite(out[0]) || !std::isfinite(out[1]) || !std::isfinite(out[2])) return false;
  world = cv::Vec3d(out[0], out[1], out[2]);
  rayGap = quality;
  return true;
}

std::vector<HeadSample> TriangulateTrack(const StereoRig& rig,
                                         const std::vector<CameraFrame>& frames1,
                                         const std::vector<CameraFrame>& frames2,
                                         const std::vector<int>& list, const CameraTrack& track1,
                                         const CameraTrack& track2) {
  std::vector<HeadSample> samples;
  const int n = static_cast<int>(list.size());
  for (int j = 0; j < n; ++j) {
    if (!track1.tracked[j] || !track2.tracked[j]) continue;
    const CameraFrame& f1 = frames1[list[j]];
    const CameraFrame& f2 = frames2[list[j]];
    // Camera 2's image velocity from its neighbouring tracked frames.
    const int before = j > 0 && track2.tracked[j - 1] ? j - 1 : j;
    const int after = j + 1 < n && track2.tracked[j + 1] ? j + 1 : j;
    cv::Point2d position2 = track2.position[j];
    if (after != before) {
      const double dt = frames2[list[after]].time - frames2[list[before]].time;
      if (dt != 0.0) {
        position2 += (track2.position[after] - track2.position[before]) *
                     ((f1.time - f2.time) / dt);
      }
    }
    HeadSample sample;
    if (!Triangulate(rig, f1.origin + track1.position[j], f2.origin + position2, sample.point,
                     sample.rayGap)) {
      continue;
    }
    sample.pair = list[j];
    sample.quality = std::min(track1.quality[j], track2.quality[j]);
    sample.time = f1.time;
    samples.push_back(sample);
  }
  return samples;
}

cv::Vec3d PathFit::Position(double t) const {
  const double tau = t - t0;
  return a + b * tau + c * (tau * tau);
}

cv::Vec3d PathFit::Velocity(double t) const { return b + c * (2.0 * (t - t0)); }

bool FitPath(const std::vector<HeadSample>& samples, int window, int quadraticFrom,
             PathFit& fit) {
  const int n = std::min(static_cast<int>(samples.size()), window);
  if (n < 3) return false;
  const int first = static_cast<int>(samples.size()) - n;
  fit = PathFit();
  fit.samples = n;
  fit.quadratic = n >= quadraticFrom;
  double t0 = 0.0;
  for (int i = first; i < first + n; ++i) t0 += samples[i].time;
  t0 /= n;
  fit.t0 = t0;
  // Times scaled to about one unit per sample keep the normal system well
  // conditioned.
  const double scale = (samples.back().time - samples[first].time) / (n - 1);
  if (!(scale > 0.0)) return false;
  const int terms = fit.quadratic ? 3 : 2;
  cv::Matx33d normal = cv::Matx33d::zeros();
  cv::Matx33d rhs = cv::Matx33d::zeros();  // column k: coordinate k
  for (int i = first; i < first + n; ++i) {
    const double u = (samples[i].time - t0) / scale;
    const double basis[3] = {1.0, u, u * u};
    for (int r = 0; r < terms; ++r) {
      for (int c = 0; c < terms; ++c) normal(r, c) += basis[r] * basis[c];
      for (int k = 0; k < 3; ++k) rhs(r, k) += basis[r] * samples[i].point[k];
    }
  }
  if (!fit.quadratic) normal(2, 2) = 1.0;
  cv::Matx33d coefficients;
  if (!cv::solve(normal, rhs, coefficients, cv::DECOMP_CHOLESKY)) return false;
  for (int k = 0; k < 3; ++k) {
    fit.a[k] = coefficients(0, k);
    fit.b[k] = coefficients(1, k) / scale;
    fit.c[k] = fit.quadratic ? coefficients(2, k) / (scale * scale) : 0.0;
  }
  double sum = 0.0;
  for (int i = first; i < first + n; ++i) {
    const cv::Vec3d r = samples[i].point - fit.Position(samples[i].time);
    sum += r.dot(r);
  }
  fit.rmsResidual = std::sqrt(sum / n);
  fit.span = cv::norm(samples.back().point - samples[first].point);

  const double speed = cv::norm(fit.b);
  if (fit.quadratic && n > 3 && speed > 0.0) {
    const cv::Vec3d along = fit.b * (1.0 / speed);
    double alongSum = 0.0;
    for (int i = first; i < first + n; ++i) {
      const double r = (samples[i].point - fit.Position(samples[i].time)).dot(along);
      alongSum += r * r;
    }
    const double variance = alongSum / (n - 3);
    const cv::Matx33d inverse = normal.inv(cv::DECOMP_CHOLESKY);
    fit.tangentialAcceleration = 2.0 * fit.c.dot(along);
    fit.tangentialAccelerationError =
        2.0 * std::sqrt(variance * inverse(2, 2)) / (scale * scale);
  }
  return true;
}

bool FitAngularVelocity(const std::vector<HeadSample>& samples, int window,
                        const cv::Vec3d& pivot, const cv::Vec3d& axis, double at,
                        double& omega) {
  const int n = std::min(static_cast<int>(samples.size()), window);
  const double length = cv::norm(axis);
  if (n < 3 || !(length > 0.0)) return false;
  const cv::Vec3d unit = axis * (1.0 / length);
  const int first = static_cast<int>(samples.size()) - n;
  // Angles of the head about the axis, measured from the first sample's
  // direction in the plane across the axis.
  auto across = [&](const cv::Vec3d& point) {
    const cv::Vec3d r = point - pivot;
    return r - unit * r.dot(unit);
  };
  const cv::Vec3d start = across(samples[first].point);
  const double startLength = cv::norm(start);
  if (!(startLength > 0.0)) return false;
  const cv::Vec3d e1 = start * (1.0 / startLength);
  const cv::Vec3d e2 = unit.cross(e1);
  std::vector<double> angles;
  double previous = 0.0;
  for (int i = first; i < first + n; ++i) {
    const cv::Vec3d r = across(samples[i].point);
    double angle = std::atan2(r.dot(e2), r.dot(e1));
    while (angle - previous > CV_PI) angle -= 2.0 * CV_PI;
    while (angle - previous < -CV_PI) angle += 2.0 * CV_PI;
    angles.push_back(angle);
    previous = angle;
  }
  // The same polynomial as for the path: a straight line in time, with a
  // quadratic term when there are enough samples, taken into account at `at`
  // only when it stands out of its standard error.
  double t0 = 0.0;
  for (int i = first; i < first + n; ++i) t0 += samples[i].time;
  t0 /= n;
  const double scale = (samples.back().time - samples[first].time) / (n - 1);
  if (!(scale > 0.0)) return false;
  const bool quadratic = n >= kQuadraticFrom;
  const int terms = quadratic ? 3 : 2;
  cv::Matx33d normal = cv::Matx33d::zeros();
  cv::Vec3d rhs(0.0, 0.0, 0.0);
  for (int i = first; i < first + n; ++i) {
    const double u = (samples[i].time - t0) / scale;
    const double basis[3] = {1.0, u, u * u};
    for (int r = 0; r < terms; ++r) {
      for (int c = 0; c < terms; ++c) normal(r, c) += basis[r] * basis[c];
      rhs[r] += basis[r] * angles[i - first];
    }
  }
  if (!quadratic) normal(2, 2) = 1.0;
  cv::Vec3d coefficients;
  if (!cv::solve(normal, rhs, coefficients, cv::DECOMP_CHOLESKY)) return false;
  omega = coefficients[1] / scale;
  if (quadratic && n > 3) {
    double sum = 0.0;
    for (int i = first; i < first + n; ++i) {
      const double u = (samples[i].time - t0) / scale;
      const double r =
          angles[i - first] - (coefficients[0] + coefficients[1] * u + coefficients[2] * u * u);
      sum += r * r;
    }
    const double error = std::sqrt(sum / (n - 3) * normal.inv(cv::DECOMP_CHOLESKY)(2, 2));
    if (std::abs(coefficients[2]) > kAccelerationSignificance * error) {
      omega += 2.0 * coefficients[2] / (scale * scale) * (at - t0);
    }
  }
  omega = std::abs(omega);
  return std::isfinite(omega);
}

double PathFit::Speed(double t, double significance) const {
  double speed = cv::norm(b);
  if (quadratic && std::abs(tangentialAcceleration) > significance * tangentialAccelerationError) {
    speed += tangentialAcceleration * (t - t0);
  }
  return speed;
}

namespace {

// Samples of a lower quality are fitted only when fewer than this many of a
// better one exist.
constexpr int kMinBestSamples = 4;
// With at least this many samples, one whose residual exceeds kOutlierFactor
// times the others' is dropped.
constexpr int kMinSamplesForOutlier = 5;
constexpr double kOutlierFactor = 4.0;
// The fit describes the samples when its residual stays below this fraction of
// the head's travel between two frames.
constexpr double kMaxResidualPerStep = 0.25;
// Triangulated rays of a matched pair pass closer than this fraction of the
// travel between two frames.
constexpr double kMaxRayGapPerStep = 0.5;

// The time at which the speed is taken: when the fitted path passes closest
// to the ball (the head's centre meets the ball's at the impact), between the
// last frame before the impact and the first after it; their middle when the
// ball is not known.
void FindImpactTime(const std::vector<CameraFrame>& frames1, int lastBefore, HeadMeasurement& m) {
  const double tLast = frames1[lastBefore].time;
  const size_t first = m.fitted.size() - m.fit.samples;
  const double meanStep = (m.fitted.back().time - m.fitted[first].time) / (m.fit.samples - 1);
  double tEnd = tLast + meanStep;
  for (size_t i = static_cast<size_t>(lastBefore) + 1; i < frames1.size(); ++i) {
    if (frames1[i].afterImpact) {
      tEnd = frames1[i].time;
      break;
    }
  }
  m.impactTime = 0.5 * (tLast + tEnd);
  m.impactFromBall = false;
  if (!m.hasBall) return;
  double t = m.impactTime;
  for (int iteration = 0; iteration < 8; ++iteration) {
    const cv::Vec3d d = m.fit.Position(t) - m.ball;
    const cv::Vec3d v = m.fit.Velocity(t);
    const double curvature = v.dot(v) + d.dot(2.0 * m.fit.c);
    if (!(curvature > 0.0)) return;
    t -= d.dot(v) / curvature;
  }
  if (!std::isfinite(t)) return;
  m.impactTime = std::clamp(t, tLast, tEnd);
  m.impactFromBall = true;
}

// Runs body(0) and body(1), one task per camera.
template <typename Body>
void ForBothCameras(const Body& body) {
  tbb::parallel_for(tbb::blocked_range<int>(0, 2, 1), [&](const tbb::blocked_range<int>& range) {
    for (int c = range.begin(); c != range.end(); ++c) body(c);
  });
}

// Image velocity of the head from its silhouettes in two frames.
bool HintVelocity(const std::vector<CameraFrame>& frames, const cv::Mat& background,
                  const BallModel& ball, int at, int other, const HeadBlob& blob,
                  cv::Point2d& velocity) {
  HeadBlob second;
  if (other < 0 || other >= static_cast<int>(frames.size()) || other == at) return false;
  if (!LocateHead(frames[other], background, ball, true, second)) return false;
  const double dt = frames[at].time - frames[other].time;
  if (dt == 0.0) return false;
  velocity = (blob.outline.centre - second.outline.centre) * (1.0 / dt);
  return true;
}

HeadMeasurement Measure(const std::vector<ClubImage*>& cam1, const std::vector<ClubImage*>& cam2,
                        const ClubTrackerSetting& setting) {
  HeadMeasurement m;
  std::vector<const ClubImage*> pairs1;
  std::vector<const ClubImage*> pairs2;
  PairFrames(cam1, cam2, pairs1, pairs2);
  if (pairs1.empty()) {
    m.status = Status::kTooFewPairs;
    return m;
  }
  const uint64_t reference = pairs1.front()->timeStamp;
  // The two cameras are worked on side by side, each task on its own slots.
  const std::vector<const ClubImage*>* pairs[2] = {&pairs1, &pairs2};
  std::vector<CameraFrame> frames[2];
  bool readable[2] = {false, false};
  ForBothCameras(
      [&](int c) { readable[c] = PrepareFrames(*pairs[c], setting, reference, frames[c]); });
  if (!readable[0] || !readable[1]) {
    m.status = Status::kBadFrame;
    return m;
  }
  for (size_t i = 0; i < frames[0].size(); ++i) {
    if (!frames[0][i].afterImpact && !frames[1][i].afterImpact) {
      m.list.push_back(static_cast<int>(i));
    }
  }
  const std::vector<int>& before = m.list;
  m.beforeImpactPairs = static_cast<int>(before.size());
  if (before.size() < 3) {
    m.status = Status::kTooFewPairs;
    return m;
  }

  // Before the impact the ball rests in its place: it belongs to the
  // background there, whatever the later frames show.
  cv::Mat background[2];
  BallModel ball[2];
  ForBothCameras([&](int c) {
    background[c] = MakeBackground(frames[c]);
    ball[c] = MakeBallModel(frames[c]);
    if (!background[c].empty() && ball[c].radius > 0.0) {
      ball[c].look.copyTo(background[c](ball[c].box));
    }
  });

  // Start where both cameras show the head clearly, as late as possible.
  // When the head is near the ball in every frame (the cameras see only the
  // last moments before the impact), a head beside the ball will do.
  int start = -1;
  HeadBlob blob[2];
  for (int pass = 0; pass < 2 && start < 0; ++pass) {
    const bool strict = pass == 0;
    for (int s = static_cast<int>(before.size()) - 1; s >= 0 && start < 0; --s) {
      bool found[2] = {false, false};
      ForBothCameras([&](int c) {
        found[c] = LocateHead(frames[c][before[s]], background[c], ball[c], strict, blob[c]);
      });
      if (found[0] && found[1]) start = s;
    }
  }
  if (start < 0) {
    m.status = Status::kHeadNotFound;
    return m;
  }
  m.startPair = before[start];

  // Both cameras follow the head to the last frame before the impact, and back
  // from the start as far as the fit needs. The head in a neighbouring frame
  // gives the motion to predict from.
  const int neighbour = before[start > 0 ? start - 1 : start + 1];
  CameraTrack* tracks[2] = {&m.track1, &m.track2};
  ForBothCameras([&](int c) {
    cv::Point2d hint;
    const bool hinted =
        HintVelocity(frames[c], background[c], ball[c], before[start], neighbour, blob[c], hint);
    TrackHead(frames[c], background[c], ball[c], before, start, blob[c],
              hinted ? &hint : nullptr, kFitWindow, *tracks[c]);
  });
  const std::vector<CameraFrame>& frames1 = frames[0];
  const std::vector<CameraFrame>& frames2 = frames[1];
  for (size_t j = 0; j < before.size(); ++j) {
    m.tracked1 += m.track1.tracked[j];
    m.tracked2 += m.track2.tracked[j];
  }
  const StereoRig rig = MakeStereoRig(setting);
  m.samples = TriangulateTrack(rig, frames1, frames2, before, m.track1, m.track2);
  m.trackedBoth = static_cast<int>(m.samples.size());
  // The fit takes the samples measured on the head's outline (whole, or
  // partly hidden by the ball) when there are enough of them: a position from
  // a template alone drifts as the head's look changes.
  for (int quality = kByPartialOutline; quality >= kByTemplate && m.fitted.empty(); --quality) {
    int count = 0;
    for (const HeadSample& sample : m.samples) count += sample.quality >= quality ? 1 : 0;
    if (count < kMinBestSamples && quality > kByTemplate) continue;
    for (const HeadSample& sample : m.samples) {
      if (sample.quality >= quality) m.fitted.push_back(sample);
    }
  }
  if (!FitPath(m.fitted, kFitWindow, kQuadraticFrom, m.fit)) {
    m.status = Status::kTooFewTracked;
    return m;
  }
  // One sample far off the others' path is dropped.
  if (m.fit.samples >= kMinSamplesForOutlier) {
    const size_t first = m.fitted.size() - m.fit.samples;
    size_t worst = first;
    double worstResidual = 0.0;
    double sum = 0.0;
    for (size_t i = first; i < m.fitted.size(); ++i) {
      const double r = cv::norm(m.fitted[i].point - m.fit.Position(m.fitted[i].time));
      sum += r * r;
      if (r > worstResidual) {
        worstResidual = r;
        worst = i;
      }
    }
    const double others =
        std::sqrt((sum - worstResidual * worstResidual) / (m.fit.samples - 1));
    if (worstResidual > kOutlierFactor * others) {
      m.fitted.erase(m.fitted.begin() + static_cast<std::ptrdiff_t>(worst));
      if (!FitPath(m.fitted, kFitWindow, kQuadraticFrom, m.fit)) {
        m.status = Status::kTooFewTracked;
        return m;
      }
    }
  }

  const CameraFrame& last1 = frames1[before.back()];
  const CameraFrame& last2 = frames2[before.back()];
  double gap = 0.0;
  m.hasBall = last1.hasBall && last2.hasBall &&
              Triangulate(rig, last1.origin + last1.ball, last2.origin + last2.ball, m.ball, gap);
  FindImpactTime(frames1, before.back(), m);
  const double speed = m.fit.Speed(m.impactTime, kAccelerationSignificance);

  // Credibility of the fit.
  const double step = m.fit.span / (m.fit.samples - 1);
  std::vector<double> gaps;
  for (size_t i = m.fitted.size() - m.fit.samples; i < m.fitted.size(); ++i) {
    gaps.push_back(m.fitted[i].rayGap);
  }
  std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
  const double medianGap = gaps[gaps.size() / 2];
  if (!std::isfinite(speed) || !(speed > 0.0) || !(step > 0.0)) {
    m.status = Status::kNotCredible;
    m.reason = "the head does not move";
  } else if (m.fit.rmsResidual > kMaxResidualPerStep * step) {
    m.status = Status::kNotCredible;
    m.reason = "the head path is not smooth";
  } else if (medianGap > kMaxRayGapPerStep * step) {
    m.status = Status::kNotCredible;
    m.reason = "the cameras do not see the same point";
  } else {
    m.speed = speed;
  }
  return m;
}

}  // namespace

HeadMeasurement MeasureHead(const std::vector<ClubImage*>& cam1,
                            const std::vector<ClubImage*>& cam2,
                            const ClubTrackerSetting& setting) {
  try {
    return Measure(cam1, cam2, setting);
  } catch (const std::exception&) {
    HeadMeasurement m;
    m.status = Status::kFailed;
    return m;
  }
}

}  // namespace headtrack
