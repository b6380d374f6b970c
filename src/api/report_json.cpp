// The JSON object of a measured swing: the keys `clubtrack run --json` writes
// and the Python package returns.
#include <optional>

#include <nlohmann/json.hpp>

#include "api/plausibility.h"
#include "clubtracker/measure.h"

namespace clubtracker {

namespace {

// The recordings' units are millimetres and microseconds: mm/us times 1000 is m/s.
constexpr double kMpsPerUnit = 1000.0;
constexpr double kMphPerMps = 3600.0 / 1609.344;

struct NamedValue {
  const char* key;
  const std::optional<Measured>* value;
};

nlohmann::json ClubDataJson(const ClubDelivery& d) {
  const NamedValue values[] = {
      {"speedMps", &d.speedMps},
      {"attackAngleDeg", &d.attackAngleDeg},
      {"pathDeg", &d.pathDeg},
      {"swingPlaneDeg", &d.swingPlaneDeg},
      {"swingDirectionDeg", &d.swingDirectionDeg},
      {"lowPointAheadMm", &d.lowPointAheadMm},
      {"lowPointHeightMm", &d.lowPointHeightMm},
      {"lowPointSideMm", &d.lowPointSideMm},
  };
  nlohmann::json data = nlohmann::json::object();
  nlohmann::json errors = nlohmann::json::object();
  for (const NamedValue& v : values) {
    if (!v.value->has_value()) continue;
    data[v.key] = (*v.value)->value;
    errors[v.key] = (*v.value)->stdErr;
  }
  data["stdErr"] = errors;
  return data;
}

// The club fields of the common open simulator connector that this system
// measures; the face fields are left out.
nlohmann::json SimulatorJson(const ClubDelivery& d) {
  nlohmann::json club = nlohmann::json::object();
  if (d.speedMps) club["Speed"] = d.speedMps->value * kMphPerMps;
  if (d.attackAngleDeg) club["AngleOfAttack"] = d.attackAngleDeg->value;
  if (d.pathDeg) club["Path"] = d.pathDeg->value;
  return {{"ClubData", club}};
}

}  // namespace

std::string ReportJson(const SwingReport& r, const std::string& recording, int indent) {
  nlohmann::json json;
  if (!recording.empty()) json["recording"] = recording;
  json["clubHeadSpeed"] = r.clubHeadSpeed;
  json["clubHeadSpeedMps"] = r.clubHeadSpeed * kMpsPerUnit;
  json["angularVelocity"] = r.angularVelocity;
  json["headRadius"] = r.headRadius;
  json["axisDirection"] = r.axisDirection;
  json["axisPosition"] = r.axisPosition;
  json["speedFrameFrom"] = r.speedFrameFrom;
  json["speedFrameTo"] = r.speedFrameTo;
  json["frameCount"] = r.frameCount;
  json["pairedFrames"] = r.pairedFrames;
  json["cam1Frames"] = r.cam1Frames;
  json["cam2Frames"] = r.cam2Frames;
  json["headTrackingSpeed"] = r.headTrackingSpeed;
  json["headTrackingSpeedMps"] = r.headTrackingSpeed * kMpsPerUnit;
  json["processingTimeMs"] = r.processingTimeMs;
  json["log"] = r.log;
  json["headTrackingLog"] = r.headTrackingLog;
  json["clubData"] = ClubDataJson(r.delivery);
  json["simulator"] = SimulatorJson(r.delivery);
  std::vector<std::string> warnings = r.warnings;
  warnings.insert(warnings.end(), r.delivery.notes.begin(), r.delivery.notes.end());
  NoteNonFiniteNumbers(json, warnings);  // JSON has no infinity: each null says why
  json["warnings"] = warnings;
  if (!r.ok) json["error"] = r.error;
  return json.dump(indent, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
}

}  // namespace clubtracker
