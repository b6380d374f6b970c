// Replaying a recording through the testing object, for `run` and `demo`.
#include "replay.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <cstdio>
#include <ostream>
#include <system_error>

#include "api/plausibility.h"
#include "harness/offline.h"
#include "harness/testing_object.h"

namespace fs = std::filesystem;

namespace {

void SetError(std::string* error, std::string text) {
  if (error != nullptr) *error = std::move(text);
}

std::string Format(const char* format, double a, double b, double c) {
  char text[160];
  std::snprintf(text, sizeof text, format, a, b, c);
  return text;
}

}  // namespace

std::string OneLine(const std::string& text) {
  std::string line;
  line.reserve(text.size());
  for (const char c : text) {
    if (c == '\n' || c == '\r') {
      if (!line.empty() && line.back() != ' ') line.push_back(' ');
    } else {
      line.push_back(c);
    }
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

bool CheckWritableFile(const fs::path& path, std::string* error) {
  std::error_code ec;
  if (path.empty()) {
    SetError(error, "an empty output file name");
    return false;
  }
  if (fs::is_directory(path, ec)) {
    SetError(error, "cannot write " + path.string() + ": it is a folder");
    return false;
  }
  const fs::path parent = path.parent_path().empty() ? fs::path(".") : path.parent_path();
  if (!fs::is_directory(parent, ec)) {
    SetError(error, "cannot write " + path.string() + ": the folder " + parent.string() +
                        " does not exist");
    return false;
  }
  if (::access(parent.c_str(), W_OK) != 0 ||
      (fs::exists(path, ec) && ::access(path.c_str(), W_OK) != 0)) {
    SetError(error, "cannot write " + path.string() + ": permission denied");
    return false;
  }
  return true;
}

namespace {

// The result's entries with storage of their own, for the pictures.
void CopyEntries(const ClubTrackerResult& result,
                 std::vector<std::unique_ptr<OfflineResultImage>>& images) {
  images.clear();
  if (result.frames == nullptr) return;
  for (int e = 0; e < result.frameCount; ++e) images.push_back(CopyResultEntry(result.frames[e]));
}

}  // namespace

bool Replay(const fs::path& recording, ReplayOutcome& outcome, std::string* error,
            const clubtracker::MeasureOptions& options, uint64_t maxFramePixels) {
  if (!ResolveRunFile(recording, outcome.runFile, error)) return false;
  // The loader checks frame files before they reach a decoder, so nothing
  // silences standard error: a crash or a sanitizer report stays visible.
  clubtracker::Recording loaded;
  if (!clubtracker::LoadRecording(outcome.runFile, loaded, error, maxFramePixels)) return false;
  outcome.swing = clubtracker::MeasureRecording(loaded, options);
  const clubtracker::SwingReport& s = outcome.swing;
  if (!s.ok) {
    SetError(error, "the measurement of " + outcome.runFile.string() + " did not run: " + s.error);
    return false;
  }
  OfflineRunReport& r = outcome.report;
  r = OfflineRunReport{};
  r.headTracking = options.headTracking;
  r.cam1FrameCount = s.cam1Frames;
  r.cam2FrameCount = s.cam2Frames;
  r.frameCount = s.frameCount;
  r.pairedFrames = s.pairedFrames;
  r.clubHeadSpeed = s.clubHeadSpeed;
  r.angularVelocity = s.angularVelocity;
  r.headRadius = s.headRadius;
  std::copy(s.axisDirection.begin(), s.axisDirection.end(), r.axisDirection);
  std::copy(s.axisPosition.begin(), s.axisPosition.end(), r.axisPosition);
  r.speedFrameFrom = s.speedFrameFrom;
  r.speedFrameTo = s.speedFrameTo;
  r.processingTimeMs = s.processingTimeMs;
  r.log = s.log;
  r.headTrackingSpeed = s.headTrackingSpeed;
  r.headTrackingLog = s.headTrackingLog;
  outcome.images.clear();
  if (s.result != nullptr) CopyEntries(*s.result, outcome.images);
  return true;
}

std::vector<FrameView> ViewsOf(const ReplayOutcome& outcome) {
  if (!outcome.images.empty()) return ViewsFromResult(outcome.images);
  // The tracker stopped before it filled its result frames: show the frames.
  LoadedRecording recording;
  if (!LoadRecording(outcome.runFile, recording, nullptr)) return {};
  std::vector<ClubImage*> pairs1;
  std::vector<ClubImage*> pairs2;
  PairFrames(recording.cam1, recording.cam2, pairs1, pairs2);
  return ViewsFromFrames(pairs1, pairs2);
}

nlohmann::json ReplayJson(const ReplayOutcome& outcome) {
  return nlohmann::json::parse(clubtracker::ReportJson(outcome.swing, outcome.runFile.string()));
}

void PrintClubData(std::ostream& out, const clubtracker::ClubDelivery& d) {
  struct Row {
    const char* name;
    const std::optional<clubtracker::Measured>* value;
    const char* format;  // value +- error unit
  };
  const Row rows[] = {
      {"Club speed", &d.speedMps, "%6.2f +- %.2f m/s"},
      {"Attack angle", &d.attackAngleDeg, "%+6.2f +- %.2f deg"},
      {"Club path", &d.pathDeg, "%+6.2f +- %.2f deg"},
      {"Swing plane", &d.swingPlaneDeg, "%6.2f +- %.2f deg"},
      {"Swing direction", &d.swingDirectionDeg, "%+6.2f +- %.2f deg"},
      {"Low point ahead", &d.lowPointAheadMm, "%+6.1f +- %.1f mm"},
      {"Low point height", &d.lowPointHeightMm, "%+6.1f +- %.1f mm"},
      {"Low point side", &d.lowPointSideMm, "%+6.1f +- %.1f mm"},
  };
  out << "Club delivery    (value +- standard error)\n";
  for (const Row& row : rows) {
    char value[96] = "not measured";
    if (row.value->has_value()) {
      std::snprintf(value, sizeof value, row.format, (*row.value)->value, (*row.value)->stdErr);
    }
    char line[160];
    std::snprintf(line, sizeof line, "  %-16s %s\n", row.name, value);
    out << line;
  }
  for (const std::string& note : d.notes) out << "  (" << note << ")\n";
}

void PrintSummary(std::ostream& out, const ReplayOutcome& outcome, bool withLog) {
  const OfflineRunReport& r = outcome.report;
  out << "Recording        " << outcome.runFile.string() << "\n";
  out << "Frames           " << r.cam1FrameCount << " + " << r.cam2FrameCount << " loaded, ";
  if (r.frameCount > 0) {
    out << "result for " << r.pairedFrames << " paired frames\n";
  } else {
    out << "no result frames (the tracker stopped before the shaft stage)\n";
  }
  out << "Spin axis        direction "
      << Format("(%.4f, %.4f, %.4f)", r.axisDirection[0], r.axisDirection[1], r.axisDirection[2])
      << ", pivot "
      << Format("(%.2f, %.2f, %.2f)", r.axisPosition[0], r.axisPosition[1], r.axisPosition[2])
      << "\n";
  char line[200];
  std::snprintf(line, sizeof line, "Head radius      %.3f\n", static_cast<double>(r.headRadius));
  out << line;
  std::snprintf(line, sizeof line, "Angular velocity %.6e rad per time-stamp unit\n",
                static_cast<double>(r.angularVelocity));
  out << line;
  std::string why;
  if (clubtracker::SuspectSpeed(r.clubHeadSpeed, &why)) {
    std::snprintf(line, sizeof line,
                  "Club-head speed  %.6f mm/us = %.2f m/s, from frames %d to %d: SUSPECT, it %s\n",
                  r.clubHeadSpeed, r.clubHeadSpeed * kMpsPerUnit, r.speedFrameFrom,
                  r.speedFrameTo, why.c_str());
  } else if (r.clubHeadSpeed != 0.0) {
    std::snprintf(line, sizeof line,
                  "Club-head speed  %.6f mm/us = %.2f m/s, from frames %d to %d\n",
                  r.clubHeadSpeed, r.clubHeadSpeed * kMpsPerUnit, r.speedFrameFrom,
                  r.speedFrameTo);
  } else {
    std::snprintf(line, sizeof line, "Club-head speed  none found\n");
  }
  out << line;
  if (clubtracker::SuspectSpeed(r.headTrackingSpeed, &why)) {
    std::snprintf(line, sizeof line, "Head tracking    %.6f mm/us = %.2f m/s: SUSPECT, it %s\n",
                  r.headTrackingSpeed, r.headTrackingSpeed * kMpsPerUnit, why.c_str());
  } else if (r.headTrackingSpeed != 0.0) {
    std::snprintf(line, sizeof line, "Head tracking    %.6f mm/us = %.2f m/s\n",
                  r.headTrackingSpeed, r.headTrackingSpeed * kMpsPerUnit);
  } else {
    std::snprintf(line, sizeof line, "Head tracking    no speed\n");
  }
  out << line;
  std::snprintf(line, sizeof line, "Processing time  %.1f ms\n", r.processingTimeMs);
  out << line;
  PrintClubData(out, outcome.swing.delivery);
  if (!withLog) return;
  out << "Log:\n";
  for (const std::string& l : r.log) out << "  " << l << "\n";
  if (!r.headTrackingLog.empty()) {
    out << "Head-tracking log:\n";
    for (const std::string& l : r.headTrackingLog) out << "  " << l << "\n";
  }
}
