// Measure: one swing through the line-based measurement, the head tracking and
// the club delivery, as one value.
#include "clubtracker/measure.h"
#include "clubtracker/validation.h"

#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <new>

#include "api/plausibility.h"
#include "delivery/delivery.h"
#include "harness/profile.h"
#include "tracker/frame_pairing.h"

namespace clubtracker {

namespace {

bool FiniteUnit(const Vec3& v, const char* name, std::string* why) {
  const double norm = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  if (!std::isfinite(v[0]) || !std::isfinite(v[1]) || !std::isfinite(v[2])) {
    if (why != nullptr) *why = std::string(name) + " is not finite";
    return false;
  }
  if (norm == 0.0) {
    if (why != nullptr) *why = std::string(name) + " is the zero vector";
    return false;
  }
  if (std::fabs(norm - 1.0) > 1e-6) {
    char text[160];
    std::snprintf(text, sizeof text, "%s has length %g, not 1", name, norm);
    if (why != nullptr) *why = text;
    return false;
  }
  return true;
}

std::vector<ClubImage*> Pointers(const std::vector<ClubImage>& frames) {
  std::vector<ClubImage*> list;
  list.reserve(frames.size());
  // The tracker takes mutable pointers but only reads the frames.
  for (const ClubImage& frame : frames) list.push_back(const_cast<ClubImage*>(&frame));
  return list;
}

void Run(const std::vector<ClubImage>& cam1, const std::vector<ClubImage>& cam2,
         const ClubTrackerSetting& setting, const MeasureOptions& options,
         SwingReport& report) {
  const std::vector<ClubImage*> list1 = Pointers(cam1);
  const std::vector<ClubImage*> list2 = Pointers(cam2);
  report.cam1Frames = static_cast<int>(cam1.size());
  report.cam2Frames = static_cast<int>(cam2.size());

  ClubTrackerSetting own = setting;
  own.logCallback = &CollectLogLine;
  own.logContext = &report.log;
  ClubTracker tracker(own);

  // What is wrong with the input, one warning each (the measurement goes on
  // and says itself what it could not measure).
  std::vector<std::string> problems;
  ValidateFrames(list1, list2, problems);
  ValidateSetting(setting, list1, list2, problems);
  for (const std::string& problem : problems) report.warnings.push_back("input: " + problem);

  if (options.lineBased) {
    auto result = std::make_shared<ClubTrackerResult>();
    const auto start = std::chrono::steady_clock::now();
    tracker.Find(list1, list2, *result, options.timeLimitSeconds);
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - start;
    report.processingTimeMs = elapsed.count();
    report.frameCount = result->frameCount;
    report.pairedFrames = result->frameCount / 2;
    report.clubHeadSpeed = result->clubHeadSpeed;
    report.angularVelocity = result->angularVelocity;
    report.headRadius = result->headRadius;
    for (int i = 0; i < 3; ++i) {
      report.axisDirection[i] = result->axisDirection[i];
      report.axisPosition[i] = result->axisPosition[i];
    }
    report.speedFrameFrom = result->speedFrameFrom;
    report.speedFrameTo = result->speedFrameTo;
    if (options.keepFrames) report.result = std::move(result);
  }

  if (options.headTracking) {
    std::vector<ClubImage*> pairs1;
    std::vector<ClubImage*> pairs2;
    PairFrames(list1, list2, pairs1, pairs2);
    ClubTrackerSetting headSetting = own;
    headSetting.logContext = &report.headTrackingLog;
    tracker.SetTrackerSetting(headSetting);
    double speed = 0.0;
    tracker.FindbyTemplate(pairs1, pairs2, speed);
    report.headTrackingSpeed = std::isnan(speed) ? 0.0 : speed;
    report.delivery = EstimateDelivery(pairs1, pairs2, setting, options);
  }
  report.ok = true;
}

}  // namespace

bool MeasureOptions::IsValid(std::string* why) const {
  if (!FiniteUnit(up, "up", why) || !FiniteUnit(target, "target", why)) return false;
  const double dot = up[0] * target[0] + up[1] * target[1] + up[2] * target[2];
  if (std::fabs(dot) > 1e-6) {
    char text[160];
    std::snprintf(text, sizeof text,
                  "target is not perpendicular to up (their dot product is %g)", dot);
    if (why != nullptr) *why = text;
    return false;
  }
  return true;
}

SwingReport Measure(const std::vector<ClubImage>& cam1, const std::vector<ClubImage>& cam2,
                    const ClubTrackerSetting& setting, const MeasureOptions& options) {
  SwingReport report;
  try {
    std::string why;
    if (!options.IsValid(&why)) {
      report.error = "invalid options: " + why;
      return report;
    }
    Run(cam1, cam2, setting, options, report);
    AddPlausibilityWarnings(report);
  } catch (const std::bad_alloc&) {
    report.ok = false;
    report.error = "out of memory";
  } catch (const std::exception& e) {
    report.ok = false;
    report.error = std::string("the measurement stopped: ") + e.what();
  } catch (...) {
    report.ok = false;
    report.error = "the measurement stopped";
  }
  return report;
}

SwingReport MeasureRecording(const Recording& recording, const MeasureOptions& options) {
  SwingReport report = Measure(recording.cam1, recording.cam2, recording.setting, options);
  report.warnings.insert(report.warnings.begin(), recording.warnings.begin(),
                         recording.warnings.end());
  return report;
}

}  // namespace clubtracker
