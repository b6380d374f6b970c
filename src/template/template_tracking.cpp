// Following the head through the frames with gradient templates.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>

#include "template/head_common.h"

namespace headtrack {

using namespace detail;

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
    const cv::Size size = HalfSize(frame.grey);
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
      MakeGradientImages({HalfPart(frame.grey, crop)}, gradients);
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
        templ = HalfGradientPatch(frame.grey, halfWhole);
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
  const cv::Mat& grey = frames[list[start]].grey;
  const cv::Rect fullBox = Grow(blob.box, kTemplateMargin);
  const cv::Rect box = Clip(cv::Rect(fullBox.x / 2, fullBox.y / 2, (fullBox.width + 1) / 2,
                                     (fullBox.height + 1) / 2),
                            HalfSize(grey));
  if (box.width < 3 || box.height < 3) return;
  const cv::Mat templ = HalfGradientPatch(grey, box);
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

}  // namespace headtrack
