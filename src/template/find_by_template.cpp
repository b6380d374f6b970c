// The template tracking path: the club-head speed from the head followed in
// both cameras, and the angular velocity of the head about a given spin axis.
#include <cmath>
#include <cstdio>
#include <exception>
#include <string>

#include "clubtracker/validation.h"
#include "template/head_tracker.h"
#include "tracker/records.h"

namespace {

// Speeds are logged in metres per second: the calibration's millimetres per
// time-stamp microsecond, times 1000.
constexpr double kLoggedSpeedFactor = 1000.0;

// Why a head measurement gave no speed, in words.
std::string Reason(const headtrack::HeadMeasurement& m) {
  char text[200];
  switch (m.status) {
    case headtrack::Status::kOk:
      return "measured";
    case headtrack::Status::kTooFewPairs:
      std::snprintf(text, sizeof text,
                    "%d frame pairs before the impact, at least 3 needed", m.beforeImpactPairs);
      return text;
    case headtrack::Status::kBadFrame:
      return "a frame cannot be read (no pixels, or not 8-bit grey or colour)";
    case headtrack::Status::kHeadNotFound:
      return "no club head found in both cameras before the impact";
    case headtrack::Status::kTooFewTracked:
      std::snprintf(text, sizeof text,
                    "head tracked in both cameras in %d frames, at least 3 needed",
                    m.trackedBoth);
      return text;
    case headtrack::Status::kNotCredible:
      return std::string("speed fit not credible: ") + m.reason;
    case headtrack::Status::kFailed:
      break;
  }
  return "head tracking failed";
}

}  // namespace

int ClubTracker::FindbyTemplate(std::vector<ClubImage*> cam1Images,
                                std::vector<ClubImage*> cam2Images, double& clubHeadSpeed) {
  clubHeadSpeed = 0.0;
  try {
    const headtrack::HeadMeasurement m = headtrack::MeasureHead(cam1Images, cam2Images, setting);
    if (m.status == headtrack::Status::kOk) {
      clubHeadSpeed = m.speed;
      Log("FindbyTemplate: head tracked in %d frames (camera 1 %d, camera 2 %d), speed fitted "
          "over %d, ClubHeadSpeed: %f m/s",
          m.trackedBoth, m.tracked1, m.tracked2, m.fit.samples,
          clubHeadSpeed * kLoggedSpeedFactor);
      return 1;
    }
    // Input that cannot be measured is named rather than what the tracking
    // made of it.
    std::vector<std::string> problems;
    clubtracker::ValidateFrames(cam1Images, cam2Images, problems);
    clubtracker::ValidateSetting(setting, cam1Images, cam2Images, problems);
    std::string reason = problems.empty() ? Reason(m) : problems.front();
    for (size_t i = 1; i < problems.size(); ++i) reason += "; " + problems[i];
    Log("FindbyTemplate: %s; no club speed.", reason.c_str());
  } catch (const std::exception&) {
    clubHeadSpeed = 0.0;
  }
  return 0;
}

// The alternative head routine. The spin axis is read from the result
// (axisPosition, axisDirection); the head is tracked as for FindbyTemplate,
// and its angle about the axis fitted over the last frames before the impact
// gives the angular velocity. The radius is the axis point's distance to the
// ball (triangulated from the frames' ball positions, else the tracker's
// referencePoint when set, else the head's mean distance from the axis); the
// speed is their product.
int ClubTracker::FindHeadAndCalculate(const std::vector<ClubImage*>& cam1Images,
                                      const std::vector<ClubImage*>& cam2Images,
                                      ClubTrackerResult& result) {
  try {
    const cv::Vec3d pivot(result.axisPosition[0], result.axisPosition[1],
                          result.axisPosition[2]);
    const cv::Vec3d axis(result.axisDirection[0], result.axisDirection[1],
                         result.axisDirection[2]);
    const double length = cv::norm(axis);
    if (!(length > 0.0) || !std::isfinite(length) || !std::isfinite(cv::norm(pivot))) {
      Log("FindHeadAndCalculate: the result holds no spin axis.");
      return 0;
    }
    const headtrack::HeadMeasurement m = headtrack::MeasureHead(cam1Images, cam2Images, setting);
    if (m.status != headtrack::Status::kOk) {
      Log("FindHeadAndCalculate: %s.", Reason(m).c_str());
      return 0;
    }
    double omega = 0.0;
    if (!headtrack::FitAngularVelocity(m.fitted, headtrack::kFitWindow, pivot, axis,
                                       m.impactTime, omega) ||
        !(omega > 0.0)) {
      Log("FindHeadAndCalculate: no angular velocity about the axis.");
      return 0;
    }
    double radius = 0.0;
    const cv::Vec3d reference(referencePoint[0], referencePoint[1], referencePoint[2]);
    if (m.hasBall) {
      radius = cv::norm(pivot - m.ball);
    } else if (reference != cv::Vec3d(0.0, 0.0, 0.0)) {
      radius = cv::norm(pivot - reference);
    } else {
      const cv::Vec3d unit = axis * (1.0 / length);
      const size_t first = m.fitted.size() - static_cast<size_t>(m.fit.samples);
      for (size_t i = first; i < m.fitted.size(); ++i) {
        const cv::Vec3d r = m.fitted[i].point - pivot;
        radius += cv::norm(r - unit * r.dot(unit));
      }
      radius /= m.fit.samples;
    }
    const double speed = omega * radius;
    if (!std::isfinite(speed)) {
      Log("FindHeadAndCalculate: no angular velocity about the axis.");
      return 0;
    }
    result.angularVelocity = static_cast<float>(omega);
    result.headRadius = static_cast<float>(radius);
    result.clubHeadSpeed = speed;
    Log("Axis pos: %f, %f, %f, norm: %f, %f, %f, AngVel: %f, Radius: %f, ClubHeadSpeed: %f m/s",
        static_cast<double>(result.axisPosition[0]), static_cast<double>(result.axisPosition[1]),
        static_cast<double>(result.axisPosition[2]), static_cast<double>(result.axisDirection[0]),
        static_cast<double>(result.axisDirection[1]), static_cast<double>(result.axisDirection[2]),
        static_cast<double>(result.angularVelocity), static_cast<double>(result.headRadius),
        result.clubHeadSpeed * kLoggedSpeedFactor);
    return 1;
  } catch (const std::exception&) {
    return 0;
  }
}
