// The club delivery from the tracked head and the shaft next to it.
//
// The head's path before impact gives the speed and the impact instant (the
// closest approach of the head centre to the ball's centre). The arc seen is
// short, so the plane is taken from what is well measured: the head's velocity
// (a chord of many millimetres) and the shaft's 3D direction next to the head,
// both of which lie in the swing plane. The shaft's turn over the frames,
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
// frames fitted. They are added to the formal errors.
constexpr double kSpeedScatter = 0.005;   // relative
constexpr double kCentreOffset = 3.0;     // mm, per coordinate
constexpr double kCentreDrift = 0.7;      // mm over the fitted span

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
    Vec3d direction;
    if (!found || !delivery::LineDirection(rig, lines[0], lines[1], up, direction)) continue;
    if (std::abs(direction.dot(motion)) > kMaxShaftSkew) continue;
    shafts.push_back({m.fitted[i].time, direction});
  }
  return shafts;
}

void Set(std::optional<Measured>& slot, double value, double error) {
  if (std::isfinite(value) && std::isfinite(error)) slot = Measured{value, error};
}

ClubDelivery Estimate(const std::vector<ClubImage*>& cam1, const std::vector<ClubImage*>& cam2,
                      const ClubTrackerSetting& setting, const MeasureOptions& options) {
  ClubDelivery out;
  const auto note = [&out](const std::string& text) {
    out.notes.push_back("club delivery: " + text);
  };
  const headtrack::HeadMeasurement m = headtrack::MeasureHead(cam1, cam2, setting);
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
  std::vector<double> t;
  std::vector<Vec3d> x;
  for (size_t i = m.fitted.size() - static_cast<size_t>(m.fit.samples); i < m.fitted.size();
       ++i) {
    t.push_back(m.fitted[i].time);
    x.push_back(m.fitted[i].point);
  }
  const PolyFit path = delivery::FitPolynomial(t, x, m.fit.quadratic ? 2 : 1);
  const double tImpact = m.impactTime;
  const Vec3d chord = path.Derivative(path.t0);
  const double speed = m.speed;
  double speedVar = path.CoefficientVariance(1);
  if (m.fit.quadratic && std::abs(m.fit.tangentialAcceleration) >
                             headtrack::kAccelerationSignificance *
                                 m.fit.tangentialAccelerationError) {
    const double lever = (tImpact - m.fit.t0) * m.fit.tangentialAccelerationError;
    speedVar += lever * lever;
  }
  const double speedError = std::sqrt(speedVar + std::pow(kSpeedScatter * m.speed, 2));
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
                                       kCentreDrift / std::max(m.fit.span, 1.0));  // radians
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
  p[kSpeed] = speed * kMetresPerSecond;
  sigma[kSpeed] = speedError * kMetresPerSecond;
  sigma[kTiltAboutShaft] = std::hypot(std::sqrt(path.CoefficientVariance(1)) / speedAtShafts,
                                      kCentreDrift / std::max(m.fit.span, 1.0));
  sigma[kTiltAboutChord] = std::sqrt(outOfPlane / std::max(1.0, n - 1.0) / n);
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

ClubDelivery EstimateDelivery(const std::vector<ClubImage*>& cam1,
                              const std::vector<ClubImage*>& cam2,
                              const ClubTrackerSetting& setting, const MeasureOptions& options) {
  try {
    return Estimate(cam1, cam2, setting, options);
  } catch (const std::exception& e) {
    ClubDelivery failed;
    failed.notes.push_back(std::string("club delivery: not measured: ") + e.what());
    return failed;
  }
}

}  // namespace clubtracker
