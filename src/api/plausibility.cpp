// Suspect numbers of a measured swing.
#include "api/plausibility.h"

#include <cmath>
#include <cstdio>

namespace clubtracker {

namespace {

constexpr double kMpsPerUnit = 1000.0;  // mm/us to m/s

void Walk(const nlohmann::json& json, const std::string& path, std::vector<std::string>& out) {
  if (json.is_number_float()) {
    const double value = json.get<double>();
    if (!std::isfinite(value)) {
      out.push_back(path + " is " + (std::isnan(value) ? "not a number" : value > 0 ? "+infinite" : "-infinite") +
                    " and is written as null");
    }
  } else if (json.is_object()) {
    for (auto it = json.begin(); it != json.end(); ++it) {
      Walk(it.value(), path.empty() ? it.key() : path + "." + it.key(), out);
    }
  } else if (json.is_array()) {
    for (size_t i = 0; i < json.size(); ++i) Walk(json[i], path + "[" + std::to_string(i) + "]", out);
  }
}

}  // namespace

bool SuspectSpeed(double speed, std::string* why) {
  char text[200];
  if (!std::isfinite(speed)) {
    std::snprintf(text, sizeof text,
                  "is %s: the frames it was measured over have equal time stamps, or the "
                  "calibration is out of range",
                  std::isnan(speed) ? "not a number" : "infinite");
  } else {
    const double mps = std::fabs(speed) * kMpsPerUnit;
    if (speed == 0.0 || (mps >= kPlausibleSpeedMinMps && mps <= kPlausibleSpeedMaxMps)) return false;
    std::snprintf(text, sizeof text,
                  "of %.2f m/s is outside the plausible %.0f to %.0f m/s: check the time stamps, "
                  "TimeStampIntervalBeforeImpact and the calibration",
                  speed * kMpsPerUnit, kPlausibleSpeedMinMps, kPlausibleSpeedMaxMps);
  }
  if (why != nullptr) *why = text;
  return true;
}

void AddPlausibilityWarnings(SwingReport& report) {
  std::string why;
  if (SuspectSpeed(report.clubHeadSpeed, &why)) {
    report.warnings.push_back("the line-based club-head speed " + why);
  }
  if (SuspectSpeed(report.headTrackingSpeed, &why)) {
    report.warnings.push_back("the head-tracking speed " + why);
  }
}

void NoteNonFiniteNumbers(const nlohmann::json& json, std::vector<std::string>& warnings) {
  Walk(json, "", warnings);
}

}  // namespace clubtracker
