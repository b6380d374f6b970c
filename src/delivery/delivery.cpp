// The club delivery from the tracked head and the shaft next to it.
//
// The head's path before impact gives the speed and the impact instant (the
// closest approach of the head centre to the ball's centre). The arc seen is
// short, so the plane is taken from what is well measured: the head's velocity
// (a chord of many millimetres) and the shaft's 3D direction next to the head,
// both of which lie in the swing plane; the shaft's lines where they pass the
// head, over the frames, refine the plane's tilt about the shaft. The shaft's
// turn over the frames,
// against the head's speed, gives the arc's radius; the shaft's direction at
// impact points from the head to the arc's centre. Every value's standard
// error comes from the residuals of these fits, carried through by the
// derivatives of the value with respect to the fitted quantities.
#include "delivery/delivery.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>

#include "delivery/fits.h"
#include "delivery/shaft.h"
#include "template/head_tracker.h"

namespace clubtracker {

namespace {

using cv::Vec3d;
using delivery::LineFit;
using delivery::PolyFit;

constexpr double kDegrees = 180.0 / CV_PI;
// The calibration's millimetres per time-stamp microsecond, in m/s.
constexpr double kMetresPerSecond = 1000.0;
// A shaft direction further than this from square to the head's motion is
// not the shaft (the shaft of a swing stays within a few degrees of square).
constexpr double kMaxShaftSkew = 0.26;  // sine of 15 degrees
constexpr int kMinShafts = 3;
// An arc radius outside these limits (mm) is not a golf swing's.
constexpr double kMinRadius = 500.0;
constexpr double kMaxRadius = 3000.0;
// The ball's centre is known to this (mm) at best: its pixel centres carry
// two decimals.
constexpr double kMinBallError = 0.1;

// Errors the fits' residuals do not see, because successive head positions
// share them (the same part of the outline in shade, the hosel on the same
// side): the head-tracking speed scatters by about half a per cent about the
// truth on synthetic swings, the silhouette's centre lies up to about 3 mm
// from the head's centre, and it drifts by up to about a millimetre over the
// frames fitted. They are added to the formal errors, with kShaftLean below.
constexpr double kSpeedScatter = 0.005;   // relative
constexpr double kCentreOffset = 3.0;     // mm, per coordinate
constexpr double kCentreDrift = 0.7;      // mm over the fitted span
// The shaft's measured centre line leans out of the swing plane by 0.1-0.25
// degrees on synthetic swings, the same way in every frame (the edges' shading
// differs on its two sides), which the frames' scatter does not show either.
constexpr double kShaftLean = 0.1 * CV_PI / 180.0;  // radians
// The shaft's lines where they pass the head stray from one plane by about a
// quarter of a millimetre over the frames, the same way on most swings.
constexpr double kShaftLineDrift = 0.25;  // mm over the frames' spread

Vec3d ToVec(const Vec3& v) { return {v[0], v[1], v[2]}; }
Vec3 ToArray(const Vec3d& v) { return {v[0], v[1], v[2]}; }

Vec3d Rotate(const Vec3d& v, const Vec3d& axis, double angle) {
  const double c = std::cos(angle), s = std::sin(angle);
  return v * c + axis.cross(v) * s + axis * (axis.dot(v) * (1.0 - c));
}

// The orientation of the delivery.
struct Frame {
  Vec3d up, target, out;
};

// The quantities the delivery is computed from, each with its standard error.
enum Param { kSpeed, kTiltAboutShaft, kTiltAboutChord, kShaftAngle, kRadius, kMissX, kMissY,
             kMissZ, kParams };

// The base geometry the parameters perturb.
struct Geometry {
  Vec3d normal;  // unit normal of the swing plane
  Vec3d e1, e2;  // in the plane: the mean shaft direction and normal x e1
  double sign = 1.0;  // tangent = sign * normal x shaft points along the motion
};

enum Output { kOutSpeed, kAttack, kPath, kPlane, kDirection, kAhead, kHeight, kSide, kOutputs };

struct Values {
  std::array<double, kOutputs> v{};
  Vec3d normal, lowPoint, centre;  // low point and centre relative to the ball
};

Values Evaluate(const Geometry& g, const Frame& f, const std::array<double, kParams>& p) {
  Vec3d normal = Rotate(g.normal, g.e1, p[kTiltAboutShaft]);
  normal = Rotate(normal, g.e2, p[kTiltAboutChord]);
  const Vec3d e1 = Rotate(Rotate(g.e1, g.e1, p[kTiltAboutShaft]), g.e2, p[kTiltAboutChord]);
  const Vec3d e2 = normal.cross(e1);
  const Vec3d shaft = e1 * std::cos(p[kShaftAngle]) + e2 * std::sin(p[kShaftAngle]);
  const Vec3d tangent = cv::normalize(normal.cross(shaft)) * g.sign;
  const Vec3d v = tangent * p[kSpeed];
  Values out;
  out.v[kOutSpeed] = p[kSpeed];
  out.v[kAttack] = std::asin(std::clamp(tangent.dot(f.up), -1.0, 1.0)) * kDegrees;
  out.v[kPath] = std::atan2(v.dot(f.out), v.dot(f.target)) * kDegrees;
  out.v[kPlane] = std::acos(std::min(1.0, std::abs(normal.dot(f.up)))) * kDegrees;
  Vec3d ground = f.up.cross(normal);
  if (ground.dot(f.target) < 0.0) ground = -ground;
  out.v[kDirection] = std::atan2(ground.dot(f.out), ground.dot(f.target)) * kDegrees;
  // From the lowest point of the arc, `rise` points up the plane to its centre.
  const Vec3d rise = cv::normalize(f.up - normal * normal.dot(f.up));
  const Vec3d miss(p[kMissX], p[kMissY], p[kMissZ]);
  out.centre = miss + shaft * p[kRadius];
  out.lowPoint = out.centre - rise * p[kRadius];
  out.v[kAhead] = out.lowPoint.dot(f.target);
  out.v[kHeight] = out.lowPoint.dot(f.up);
  out.v[kSide] = out.lowPoint.dot(f.out);
  out.normal = normal;
  return out;
}

// Standard errors of the outputs: each parameter's error carried through the
// outputs' (central-difference) derivatives, the parameters independent.
std::array<double, kOutputs> Propagate(const Geometry& g, const Frame& f,
                                       const std::array<double, kParams>& p,
                                       const std::array<double, kParams>& sigma) {
  std::array<double, kOutputs> variance{};
  for (int i = 0; i < kParams; ++i) {
    if (!(sigma[i] > 0.0)) continue;
    std::array<double, kParams> lo = p, hi = p;
    const double h = 0.01 * sigma[i];
    lo[i] -= h;
    hi[i] += h;
    const Values a = Evaluate(g, f, lo), b = Evaluate(g, f, hi);
    for (int k = 0; k < kOutputs; ++k) {
      double d = b.v[k] - a.v[k];
      if (k == kPath || k == kDirection) d = std::remainder(d, 360.0);
      const double slope = d / (2.0 * h);
      variance[k] += slope * slope * sigma[i] * sigma[i];
    }
  }
  std::array<double, kOutputs> error{};
  for (int k = 0; k < kOutputs; ++k) error[k] = std::sqrt(variance[k]);
  return error;
}

const char* Why(const headtrack::HeadMeasurement& m) {
  switch (m.status) {
    case headtrack::Status::kTooFewPairs:
      return "too few frame pairs before the impact";
    case headtrack::Status::kBadFrame:
      return "a frame cannot be read";
    case headtrack::Status::kHeadNotFound:
      return "no club head found in both cameras before the impact";
    case headtrack::Status::kTooFewTracked:
      return "the head was tracked in both cameras in too few frames";
    case headtrack::Status::kNotCredible:
      return m.reason;
    default:
      return "the head tracking failed";
  }
}

// The shaft's 3D direction in each fitted frame where both cameras show it.
struct ShaftSample {
  double time = 0.0;
  Vec3d direction;
  Vec3d point;  // the shaft's line nearest to the head's centre
};

std::vector<ShaftSample> MeasureShafts(const headtrack::HeadMeasurement& m,
                                       const headtrack::StereoRig& rig, const Vec3d& up,
                                       const Vec3d& motion) {
  std::vector<ShaftSample> shafts;
  const headtrack::CameraTrack* tracks[2] = {&m.track1, &m.track2};
  const size_t first = m.fitted.size() - static_cast<size_t>(m.fit.samples);
  for (size_t i = first; i < m.fitted.size(); ++i) {
    const int pair = m.fitted[i].pair;
    const auto at = std::find(m.list.begin(), m.list.end(), pair);
    if (at == m.list.end()) continue;
    const size_t j = static_cast<size_t>(at - m.list.begin());
    delivery::ImageLine lines[2];
    bool found = true;
    for (int c = 0; c < 2 && found; ++c) {
      headtrack::HeadOutline head = tracks[c]->outline[j];
      head.centre = tracks[c]->position[j];
      found = MeasureShaftLine(m.frames[c][static_cast<size_t>(pair)], m.background[c], head,
                               lines[c]);
    }
    Vec3d direction, point;
    if (!found || !delivery::LineDirection(rig, lines[0], lines[1], up, direction) ||
        !delivery::LinePoint(rig, lines[0], lines[1], m.fitted[i].point, point)) {
      continue;
    }
    if (std::abs(direction.dot(motion)) > kMaxShaftSkew) continue;
    shafts.push_back({m.fitted[i].time, direction, point});
  }
  return shafts;
}

// The head positions the delivery is fitted to. A template match can drift
// off the head for a few frames in a row and move it by a centimetre or more
// in depth, which bends the path's direction by degrees (the tracking drops a
// single stray position only). When the fit of all positions leaves more than
// kMaxPathRms, the largest subset (at most kMaxLeftOut fewer, at least
// kQuadraticFrom) that stays within it is taken; all of them when none does.
constexpr double kMaxPathRms = 1.0;  // mm
constexpr int kMaxLeftOut = 3;

struct PathSamples {
  std::vector<headtrack::HeadSample> kept;
  headtrack::PathFit fit;
  int leftOut = 0;
};

PathSamples SelectPathSamples(const headtrack::HeadMeasurement& m) {
  PathSamples out;
  out.kept.assign(m.fitted.end() - m.fit.samples, m.fitted.end());
  out.fit = m.fit;
  const int n = static_cast<int>(out.kept.size());
  if (m.fit.rmsResidual <= kMaxPathRms || n <= headtrack::kQuadraticFrom) return out;
  unsigned best = 0;
  int bestCount = 0;
  double bestRms = kMaxPathRms;
  std::vector<headtrack::HeadSample> subset;
  headtrack::PathFit fit;
  for (unsigned mask = 1; mask < (1u << n); ++mask) {
    const int count = __builtin_popcount(mask);
    if (count < std::max(headtrack::kQuadraticFrom, n - kMaxLeftOut) || count < bestCount) {
      continue;
    }
    subset.clear();
    for (int i = 0; i < n; ++i) {
      if (mask & (1u << i)) subset.push_back(out.kept[static_cast<size_t>(i)]);
    }
    if (!headtrack::FitPath(subset, n, headtrack::kQuadraticFrom, fit)) continue;
    if (fit.rmsResidual <= kMaxPathRms && (count > bestCount || fit.rmsResidual < bestRms)) {
      best = mask;
      bestCount = count;
      bestRms = fit.rmsResidual;
    }
  }
  if (best == 0) return out;
  subset.clear();
  for (int i = 0; i < n; ++i) {
    if (best & (1u << i)) subset.push_back(out.kept[static_cast<size_t>(i)]);
  }
  headtrack::FitPath(subset, n, headtrack::kQuadraticFrom, out.fit);
  out.leftOut = n - bestCount;
  out.kept = std::move(subset);
  return out;
}

void Set(std::optional<Measured>& slot, double value, double error) {
  if (std::isfinite(value) && std::isfinite(error)) slot = Measured{value, error};
}

ClubDelivery Estimate(const headtrack::HeadMeasurement& m, const ClubTrackerSetting& setting,
                      const MeasureOptions& options) {
  ClubDelivery out;
  const auto note = [&out](const std::string& text) {
    out.notes.push_back("club delivery: " + text);
  };
  for (const headtrack::HeadSample& s : m.samples) {
    out.times.push_back(s.time);
    out.headPath.push_back(ToArray(s.point));
  }
  if (m.status != headtrack::Status::kOk) {
    note(std::string("not measured: ") + Why(m));
    return out;
  }
  Frame f{ToVec(options.up), ToVec(options.target), {}};
  f.out = f.up.cross(f.target);

  // The head's path over the fitted samples, with its parameters' covariance.
  const PathSamples selected = SelectPathSamples(m);
  const headtrack::PathFit& fit = selected.fit;
  if (selected.leftOut > 0) {
    char text[200];
    std::snprintf(text, sizeof text,
                  "%d of %d head positions left out: the path through them leaves %.1f mm "
                  "(rms), through the others %.1f mm",
                  selected.leftOut, m.fit.samples, m.fit.rmsResidual, fit.rmsResidual);
    note(text);
  }
  std::vector<double> t;
  std::vector<Vec3d> x;
  for (const headtrack::HeadSample& sample : selected.kept) {
    t.push_back(sample.time);
    x.push_back(sample.point);
  }
  const PolyFit path = delivery::FitPolynomial(t, x, fit.quadratic ? 2 : 1);
  const double tImpact = m.impactTime;
  const Vec3d chord = path.Derivative(path.t0);
  const double speed =
      selected.leftOut > 0 ? fit.Speed(tImpact, headtrack::kAccelerationSignificance) : m.speed;
  double speedVar = path.CoefficientVariance(1);
  if (fit.quadratic && std::abs(fit.tangentialAcceleration) >
                           headtrack::kAccelerationSignificance *
                               fit.tangentialAccelerationError) {
    const double lever = (tImpact - fit.t0) * fit.tangentialAccelerationError;
    speedVar += lever * lever;
  }
  const double speedError = std::sqrt(speedVar + std::pow(kSpeedScatter * speed, 2));
  Set(out.speedMps, speed * kMetresPerSecond, speedError * kMetresPerSecond);

  // The shaft fixes the plane about the chord, its turn the radius.
  const headtrack::StereoRig rig = headtrack::MakeStereoRig(setting);
  const Vec3d motion = cv::normalize(chord);
  const std::vector<ShaftSample> shafts = MeasureShafts(m, rig, f.up, motion);
  if (static_cast<int>(shafts.size()) < kMinShafts) {
    // Attack angle and path from the path's own bend, the rest unknown.
    const Vec3d v = path.Derivative(tImpact);
    const double vn = cv::norm(v);
    const Vec3d grad = v * (1.0 / vn);
    const double dirError = std::hypot(std::sqrt(path.DerivativeVariance(tImpact)) / vn,
                                       kCentreDrift / std::max(fit.span, 1.0));  // radians
    const double horizontal = std::hypot(v.dot(f.out), v.dot(f.target));
    Set(out.attackAngleDeg, std::asin(grad.dot(f.up)) * kDegrees, dirError * kDegrees);
    Set(out.pathDeg, std::atan2(v.dot(f.out), v.dot(f.target)) * kDegrees,
        dirError * vn / horizontal * kDegrees);
    char text[160];
    std::snprintf(text, sizeof text,
                  "swing plane, direction and low point not measured: the shaft shows next to "
                  "the head in both cameras in %zu frames, at least %d needed",
                  shafts.size(), kMinShafts);
    note(text);
    return out;
  }

  Geometry g;
  Vec3d mean(0.0, 0.0, 0.0);
  for (const ShaftSample& s : shafts) mean += s.direction;
  g.e1 = cv::normalize(mean);
  g.normal = cv::normalize(motion.cross(g.e1));
  g.e1 = cv::normalize(g.e1 - g.normal * g.e1.dot(g.normal));
  g.e2 = g.normal.cross(g.e1);
  std::vector<double> st, angle;
  double outOfPlane = 0.0;
  for (const ShaftSample& s : shafts) {
    st.push_back(s.time);
    angle.push_back(std::atan2(s.direction.dot(g.e2), s.direction.dot(g.e1)));
    outOfPlane += std::pow(s.direction.dot(g.normal), 2);
  }
  const LineFit turn = delivery::FitLine(st, angle);
  const double n = static_cast<double>(shafts.size());
  const double shaftAngle = turn.At(tImpact);
  const double tangentSign =
      g.normal.cross(g.e1 * std::cos(shaftAngle) + g.e2 * std::sin(shaftAngle)).dot(motion);
  g.sign = tangentSign < 0.0 ? -1.0 : 1.0;

  const double speedAtShafts = cv::norm(path.Derivative(turn.tm));
  const double radius = speedAtShafts / std::abs(turn.slope);
  const double radiusError =
      radius * std::hypot(turn.slopeError / turn.slope,
                          std::sqrt(path.CoefficientVariance(1)) / speedAtShafts);

  // The golfer stands on the pivot's side: `out` points away from it.
  const Vec3d toPivot = g.e1;
  if (toPivot.dot(f.out) > 0.0) f.out = -f.out;

  std::array<double, kParams> p{};
  std::array<double, kParams> sigma{};
  sigma[kTiltAboutShaft] = std::hypot(std::sqrt(path.CoefficientVariance(1)) / speedAtShafts,
                                      kCentreDrift / std::max(fit.span, 1.0));
  sigma[kTiltAboutChord] =
      std::hypot(std::sqrt(outOfPlane / std::max(1.0, n - 1.0) / n), kShaftLean);
  // The shaft's lines lie in the plane too: where they pass the head, over
  // the frames, they give its tilt about the shaft a second time, from edges
  // measured to a fraction of a pixel rather than from the head's silhouette
  // (whose centre drifts in depth by a millimetre or two as the ball comes to
  // hide part of it). The two tilts are combined by their variances.
  std::vector<double> across, offset;
  for (const ShaftSample& s : shafts) {
    across.push_back(s.point.dot(g.e2));
    offset.push_back(s.point.dot(g.normal));
  }
  const auto [nearest, furthest] = std::minmax_element(across.begin(), across.end());
  const double acrossSpan = std::max(*furthest - *nearest, 1.0);
  {
    const LineFit lean = delivery::FitLine(across, offset);
    const double fromHead = sigma[kTiltAboutShaft];
    const double fromShaft =
        std::hypot(lean.slopeError, kShaftLineDrift / acrossSpan) / (1.0 + lean.slope * lean.slope);
    if (std::isfinite(fromShaft) && std::isfinite(lean.slope)) {
      const double weight = fromHead * fromHead / (fromHead * fromHead + fromShaft * fromShaft);
      const double tilt = -std::atan(lean.slope) * weight;
      g.normal = cv::normalize(g.normal * std::cos(tilt) + g.e2 * std::sin(tilt));
      g.e2 = g.normal.cross(g.e1);
      sigma[kTiltAboutShaft] = fromHead * fromShaft / std::hypot(fromHead, fromShaft);
    }
  }
  // The shaft's lines move across themselves as fast as the head does: a
  // second speed, from edges rather than the silhouette, carried to the
  // impact as the path's is. The two are combined by the variances of their
  // own errors (each with its drift over the frames' spread); the scatter of
  // the speed they share (the carry to the impact) is added after.
  double combinedSpeed = speed;
  double combinedError = speedError;
  {
    const LineFit travel = delivery::FitLine(st, across);
    const double shaftSpeed = std::abs(travel.slope) + (speed - cv::norm(fit.b));
    const double shaftError =
        std::hypot(travel.slopeError, kShaftLineDrift / acrossSpan * shaftSpeed);
    const double pathError =
        std::sqrt(speedVar + std::pow(kCentreDrift / std::max(fit.span, 1.0) * speed, 2));
    if (std::isfinite(shaftSpeed) && shaftError > 0.0 && std::isfinite(shaftError)) {
      const double w = 1.0 / (pathError * pathError);
      const double ws = 1.0 / (shaftError * shaftError);
      combinedSpeed = (w * speed + ws * shaftSpeed) / (w + ws);
      combinedError = std::hypot(1.0 / std::sqrt(w + ws), kSpeedScatter * combinedSpeed);
    }
  }
  Set(out.speedMps, combinedSpeed * kMetresPerSecond, combinedError * kMetresPerSecond);
  p[kSpeed] = combinedSpeed * kMetresPerSecond;
  sigma[kSpeed] = combinedError * kMetresPerSecond;
  p[kShaftAngle] = shaftAngle;
  sigma[kShaftAngle] = turn.ErrorAt(tImpact);
  p[kRadius] = radius;
  sigma[kRadius] = radiusError;

  const bool arc = std::isfinite(radius) && radius >= kMinRadius && radius <= kMaxRadius;
  if (m.hasBall) {
    const Vec3d miss = path.Position(tImpact) - m.ball;
    // The ball's own error: half the gap between its two rays.
    const auto& last1 = m.frames[0][static_cast<size_t>(m.list.back())];
    const auto& last2 = m.frames[1][static_cast<size_t>(m.list.back())];
    Vec3d ball;
    double gap = 0.0;
    headtrack::Triangulate(rig, last1.origin + last1.ball, last2.origin + last2.ball, ball, gap);
    const double ballError = std::max(kMinBallError, 0.5 * gap);
    const double missError = std::sqrt(path.PositionVariance(tImpact) + ballError * ballError +
                                       kCentreOffset * kCentreOffset);
    for (int k = 0; k < 3; ++k) {
      p[kMissX + k] = miss[k];
      sigma[kMissX + k] = missError;
    }
    out.ball = ToArray(m.ball);
  }
  const Values v = Evaluate(g, f, p);
  const std::array<double, kOutputs> e = Propagate(g, f, p, sigma);
  Set(out.attackAngleDeg, v.v[kAttack], e[kAttack]);
  Set(out.pathDeg, v.v[kPath], e[kPath]);
  Set(out.swingPlaneDeg, v.v[kPlane], e[kPlane]);
  Set(out.swingDirectionDeg, v.v[kDirection], e[kDirection]);
  out.arcNormal = ToArray(v.normal);
  if (!arc) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "low point not measured: the arc's radius (%.0f mm from the shaft's turn) is "
                  "not a swing's",
                  radius);
    note(text);
  } else if (!m.hasBall) {
    note("low point not measured: the ball was not found in both cameras");
  } else {
    Set(out.lowPointAheadMm, v.v[kAhead], e[kAhead]);
    Set(out.lowPointHeightMm, v.v[kHeight], e[kHeight]);
    Set(out.lowPointSideMm, v.v[kSide], e[kSide]);
    out.lowPoint = ToArray(m.ball + v.lowPoint);
    out.arcCentre = ToArray(m.ball + v.centre);
    out.arcRadius = radius;
  }
  return out;
}

}  // namespace

ClubDelivery EstimateDelivery(const headtrack::HeadMeasurement& head,
                              const ClubTrackerSetting& setting, const MeasureOptions& options) {
  try {
    return Estimate(head, setting, options);
  } catch (const std::exception& e) {
    ClubDelivery failed;
    failed.notes.push_back(std::string("club delivery: not measured: ") + e.what());
    return failed;
  }
}

}  // namespace clubtracker
