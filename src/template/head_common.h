// Shared pieces of the head tracker's stages: the thresholds that tie them
// together and small image helpers. Internal to src/template.
#pragma once

#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "analysis/binary_morphology.h"
#include "template/distance_map.h"
#include "template/template_matching.h"

namespace headtrack::detail {

// Grey-level difference above which a pixel counts as changed against the
// background. The head and shaft stand out from the background by far more;
// brightness flicker of a few per cent and sensor noise stay below.
inline constexpr double kDifferenceThreshold = 20.0;
// Closing of the changed pixels at full and at half resolution: wide enough to
// close the ring where the head is as bright as the ball behind it.
inline constexpr int kFullClosing = 7;
inline constexpr int kHalfClosing = 3;
// A head is at least this thick (largest inscribed radius, full-resolution
// pixels).
inline constexpr double kMinHeadThickness = 6.0;
// Opening radius relative to the head's thickness: removes the shaft and the
// hosel, keeps the body of the head.
inline constexpr double kOpeningFraction = 0.6;
// Pixels of gradient context kept around a template's silhouette (full
// resolution), and around a template where its silhouette is measured.
inline constexpr int kTemplateMargin = 4;
inline constexpr int kRegionMargin = 6;
// Extra pixels around every gradient crop, so that the Sobel border rule does
// not touch the pixels that are matched.
inline constexpr int kCropBorder = 2;
// Pixels kept clear around the ball when only part of a template is matched,
// and the smallest part of a template worth matching.
inline constexpr double kBallMargin = 4.0;
inline constexpr double kMinPartFraction = 0.3;
// The ball counts as visible when more than this fraction of its disc looks
// as it does at rest (within kBallSameThreshold grey levels). A ball hidden
// by the head still matches on a tenth to a fifth of its disc, where the
// head's shading happens to be as bright.
inline constexpr double kBallVisibleFraction = 0.3;
inline constexpr double kBallSameThreshold = 12.0;

// Normalised correlation of (half-resolution) gradient templates. Following
// the head from one frame to the next scores above 0.9; as the head turns and
// its shading moves, the score falls, and below kUpdateScore the template is
// renewed from the current frame. A match below kRejectScore is not the head:
// over 41 synthetic swings a head template scored at most 0.45 anywhere on the
// static background (the golfer's feet and legs are the closest look-alikes),
// while the head itself, even partly hidden by the ball, scored 0.6 or more.
inline constexpr double kUpdateScore = 0.85;
inline constexpr double kRejectScore = 0.52;

// A silhouette centre is taken instead of the template's when it lies within
// this fraction of the template's smaller side of it and its area is within
// kAreaRatio of the head's last silhouette.
inline constexpr double kMaxRefineShift = 0.25;
inline constexpr double kAreaRatio = 1.35;
// An outline is fitted when at least this many of its points are the
// silhouette's own edge clear of the ball. An ellipse is fitted anew only to
// a whole outline: with a part missing its length is not pinned down. Then,
// down to kPartialOutline of it left, the head's expected outline is moved
// onto the part left instead.
inline constexpr size_t kMinOutlinePoints = 20;
inline constexpr double kPartialOutline = 0.25;
// A start beside the ball, when there is no other, needs this much of its
// outline clear of the ball.
inline constexpr double kNearlyWhole = 0.9;
// Frames (after the cut to the region of interest) smaller than this on a
// side cannot show a club head.
inline constexpr int kMinFrameSide = 8;

inline cv::Rect Clip(const cv::Rect& r, const cv::Size& size) {
  return r & cv::Rect(0, 0, size.width, size.height);
}

inline cv::Rect Grow(const cv::Rect& r, int by) {
  return cv::Rect(r.x - by, r.y - by, r.width + 2 * by, r.height + 2 * by);
}

// Vertex of the parabola through (-1, a), (0, b), (1, c), within half a pixel.
inline double ParabolaPeak(double a, double b, double c) {
  const double curvature = a - 2.0 * b + c;
  if (!(curvature < 0.0)) return 0.0;
  return std::clamp(0.5 * (a - c) / curvature, -0.5, 0.5);
}

// Half resolution: each pixel the mean of a 2 x 2 block (an odd last row or
// column is left out), so that half-resolution pixel i covers pixels 2i and
// 2i + 1 exactly.
inline cv::Size HalfSize(const cv::Mat& image) { return cv::Size(image.cols / 2, image.rows / 2); }

inline cv::Mat Half(const cv::Mat& image) {
  const cv::Size size = HalfSize(image);
  cv::Mat half;
  cv::resize(image(cv::Rect(0, 0, 2 * size.width, 2 * size.height)), half, size, 0.0, 0.0,
             cv::INTER_AREA);
  return half;
}

// Full-resolution rectangle covered by a half-resolution one.
inline cv::Rect Doubled(const cv::Rect& r) {
  return cv::Rect(2 * r.x, 2 * r.y, 2 * r.width, 2 * r.height);
}

// Half(image)(part) for a part inside HalfSize(image), halving only the pixels
// it covers and a frame of kHalfContext around them: each half-resolution
// pixel depends on its own 2 x 2 block alone. Like a view into the whole half
// image, the result has that frame around it (clipped to the image), which
// filters read instead of their border rule.
inline constexpr int kHalfContext = 2;
inline cv::Mat HalfPart(const cv::Mat& image, const cv::Rect& part) {
  const cv::Rect outer = Clip(Grow(part, kHalfContext), HalfSize(image));
  cv::Mat half;
  cv::resize(image(Doubled(outer)), half, outer.size(), 0.0, 0.0, cv::INTER_AREA);
  return half(part - outer.tl());
}

// The largest whole v whose single-precision square root lies within
// `radius` as a float matrix compares with it (against the radius rounded to
// single precision); -1 when there is none, and for NaN and radii beyond any
// head's (whose discs would take more than they save).
inline int SquaredReach(double radius) {
  const float limit = static_cast<float>(radius);
  if (!(limit >= 0.0f) || !(limit < 256.0f)) return -1;
  int v = static_cast<int>(static_cast<double>(limit) * static_cast<double>(limit));
  while (v > 0 && !(std::sqrt(static_cast<float>(v)) <= limit)) --v;
  while (std::sqrt(static_cast<float>(v + 1)) <= limit) ++v;
  return v;
}

// An empty body (0 at every pixel of the mask), the pixels deeper than
// `radius` (0/255) and the part of the mask within the radius's reach of
// them; false when there are none.
inline bool DeepPixels(const cv::Mat& mask, const cv::Mat& distance, double radius, cv::Mat& body,
                       cv::Mat& core, cv::Rect& around) {
  body = cv::Mat::zeros(mask.size(), CV_8U);
  core = distance > radius;
  const cv::Rect deep = MaskBounds(core);
  if (deep.empty()) return false;
  around = Clip(Grow(deep, static_cast<int>(std::ceil(radius)) + 1), mask.size());
  return true;
}

// The opening below through the exact distances to the deep pixels.
inline cv::Mat OpenByDiscLiteral(const cv::Mat& mask, const cv::Mat& distance, double radius) {
  cv::Mat body, core;
  cv::Rect around;
  if (!DeepPixels(mask, distance, radius, body, core, around)) return body;
  cv::Mat toCore;
  PreciseDistances(distance(around) <= radius, toCore);
  body(around) = (toCore <= radius) & mask(around);
  return body;
}

// Keeps the parts of a mask that a disc of `radius` fits into: an opening by
// distances (the erosion keeps the pixels deeper than the radius, the
// dilation grows them back by it), worked out around the deep pixels only.
// The exact distances to the deep pixels are single-precision roots of whole
// squared distances, so the pixels within the radius of them are a dilation
// by the disc of the offsets with a squared length up to SquaredReach.
inline cv::Mat OpenByDisc(const cv::Mat& mask, const cv::Mat& distance, double radius) {
  cv::Mat body, core;
  cv::Rect around;
  if (!DeepPixels(mask, distance, radius, body, core, around)) return body;
  const int reach = SquaredReach(radius);
  thread_local BitMask bits;
  thread_local cv::Mat part;
  core(around).copyTo(part);
  if (reach < 0 || !bits.Pack(part)) return OpenByDiscLiteral(mask, distance, radius);
  bits.DilateByDisc(reach);
  bits.Unpack(part);
  cv::Mat inside = body(around);
  cv::bitwise_and(part, mask(around), inside);
  return body;
}

// cv::distanceTransform(mask, DIST_L2, maskSize) for DIST_MASK_5 and
// DIST_MASK_PRECISE, worked out around the set pixels only (in `active`, empty
// when there are none; zero elsewhere). Around the set pixels' box lie two
// pixels of background, or the frame's edge: every step of the 5 x 5 chamfer
// that leaves the box lands on background first, and the nearest background
// pixel outside the box is never nearer than its projection onto that ring.
inline cv::Rect ActiveBox(const cv::Mat& mask) {
  const cv::Rect set = MaskBounds(mask);
  return set.empty() ? cv::Rect() : Clip(Grow(set, 2), mask.size());
}
// The transform of a whole mask (or part of one) into `distance`, which may be
// a view of the right size.
inline void Distances(const cv::Mat& mask, int maskSize, cv::Mat& distance) {
  if (maskSize == cv::DIST_MASK_PRECISE) {
    PreciseDistances(mask, distance);
  } else {
    cv::distanceTransform(mask, distance, cv::DIST_L2, maskSize);
  }
}
inline cv::Mat BoxedDistances(const cv::Mat& mask, int maskSize, cv::Rect& active) {
  cv::Mat distance(mask.size(), CV_32F, cv::Scalar(0));
  active = ActiveBox(mask);
  if (active.empty()) return distance;
  cv::Mat part = distance(active);
  Distances(mask(active), maskSize, part);
  return distance;
}

// OpenByDisc(mask, the mask's exact distances, radius) for a 0/255 mask: the
// pixels deeper than the radius are those the disc of SquaredReach leaves
// after an erosion (outside the frame is not background), so the opening
// runs on bit planes without the distances.
inline cv::Mat OpenByPreciseDisc(const cv::Mat& mask, double radius) {
  const int reach = SquaredReach(radius);
  thread_local BitMask bits;
  if (reach >= 0 && bits.Pack(mask)) {
    cv::Mat body;
    bits.ErodeByDisc(reach);
    bits.DilateByDisc(reach);
    bits.Unpack(body);
    return body;
  }
  cv::Rect active;
  return OpenByDisc(mask, BoxedDistances(mask, cv::DIST_MASK_PRECISE, active), radius);
}

// std::lround(std::hypot(dx, dy)) for finite offsets of a few hundred pixels: a
// square root differs from hypot by a few units in the last place, which
// decide the rounding only within a hair of a half.
inline long RoundedDistance(double dx, double dy) {
  const double root = std::sqrt(dx * dx + dy * dy);
  const long whole = static_cast<long>(root);
  const double fraction = root - static_cast<double>(whole);
  if (std::abs(fraction - 0.5) > 1e-9) return whole + (fraction > 0.5 ? 1 : 0);
  return std::lround(std::hypot(dx, dy));
}

// The changed pixels of a frame, gaps closed (by a dilation and erosion of
// `closing` pixels) and holes filled: where the head passes in front of the
// ball, it is as bright as the ball along a thin ring.
//
// Only the box of the changed pixels, grown by twice the kernel's reach and a
// pixel, is closed and filled: outside it the dilation is zero, and so is the
// erosion of the pixels within the kernel's reach of the box; every pixel
// outside the box reaches the frame's edge in a straight line through
// background, and every path from inside the box to the edge crosses the
// background ring left around it.
inline cv::Mat ChangedMask(const cv::Mat& grey, const cv::Mat& background, int closing) {
  cv::Mat changed;
  cv::absdiff(grey, background, changed);
  cv::threshold(changed, changed, kDifferenceThreshold, 255.0, cv::THRESH_BINARY);
  cv::Mat filled = cv::Mat::zeros(changed.size(), CV_8U);
  const cv::Rect set = MaskBounds(changed);
  if (set.empty()) return filled;
  const cv::Rect crop = Clip(Grow(set, 2 * (closing / 2) + 1), changed.size());
  // The closing of the crop on its own (beyond it the changed pixels are 0,
  // as the dilation reads its border), on bit planes.
  thread_local cv::Mat part;
  changed(crop).copyTo(part);
  const MorphStep closingSteps[2] = {{cv::MORPH_DILATE, cv::MORPH_ELLIPSE, closing},
                                     {cv::MORPH_ERODE, cv::MORPH_ELLIPSE, closing}};
  cv::Mat inside = filled(crop);
  BitMask& bits = ThreadBitMask();
  if (bits.Supports(closingSteps[0]) && bits.Supports(closingSteps[1]) && bits.Pack(part)) {
    for (const MorphStep& step : closingSteps) bits.Apply(step);
    bits.FillHoles();
    bits.Unpack(inside);
    return filled;
  }
  cv::Mat closed;
  MorphologyChainLiteral(part, closed, {closingSteps[0], closingSteps[1]});
  // Whatever the outside cannot reach belongs to the silhouette.
  cv::Mat padded;
  cv::copyMakeBorder(closed, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::floodFill(padded, cv::Point(0, 0), cv::Scalar(128));
  cv::compare(padded(cv::Rect(1, 1, crop.width, crop.height)), 128, inside, cv::CMP_NE);
  return filled;
}

// Gradient image of a patch of a frame, computed with a little context so that
// the Sobel border rule does not touch it.
inline cv::Mat GradientPatch(const cv::Mat& grey, const cv::Rect& patch) {
  const cv::Rect crop = Clip(Grow(patch, kCropBorder), grey.size());
  std::vector<cv::Mat> gradients;
  MakeGradientImages({grey(crop)}, gradients);
  return gradients.front()(patch - crop.tl()).clone();
}

// GradientPatch(Half(grey), patch), halving only the pixels it reads.
inline cv::Mat HalfGradientPatch(const cv::Mat& grey, const cv::Rect& patch) {
  const cv::Rect crop = Clip(Grow(patch, kCropBorder), HalfSize(grey));
  std::vector<cv::Mat> gradients;
  MakeGradientImages({HalfPart(grey, crop)}, gradients);
  return gradients.front()(patch - crop.tl()).clone();
}

// The box of the 8-connected part of a 0/255 mask that holds `seed`, as
// cv::connectedComponentsWithStats gives it for that part; the part is
// repainted with 128. False when the seed pixel is 0.
inline bool ComponentBox(cv::Mat& mask, const cv::Point& seed, cv::Rect& box) {
  if (mask.at<uchar>(seed) == 0) return false;
  cv::floodFill(mask, seed, cv::Scalar(128), &box, cv::Scalar(0), cv::Scalar(0), 8);
  return true;
}

// The largest part of a template (rectangle in template coordinates) that
// stays clear of a disc; the whole template when the disc misses it.
inline cv::Rect ClearOfDisc(const cv::Size& size, const cv::Point2d& centre, double radius) {
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

}  // namespace headtrack::detail
