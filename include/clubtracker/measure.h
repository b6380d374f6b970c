// clubtracker's modern C++ interface: one call measures one swing and gives a
// value that holds everything measured, with the uncertainty of every number
// beyond the line-based result and a reason for whatever could not be measured.
//
//   clubtracker::Recording rec;
//   std::string why;
//   if (!clubtracker::LoadRecording("rec", rec, &why)) { ... why ... }
//   const clubtracker::SwingReport report =
//       clubtracker::Measure(rec.cam1, rec.cam2, rec.setting, clubtracker::MeasureOptions{});
//   if (report.delivery.attackAngleDeg) { ... report.delivery.attackAngleDeg->value ... }
//
// Measure is stateless: every call builds its own tracker, and the ball's 3D
// position is an output. Calls on distinct data may run on several threads at
// once. No exception leaves it: a failure is a report with `ok == false` and
// the reason in `error`.
//
// Conventions of the club delivery
// - World frame: the calibration's. `up` is a unit vector (default +y);
//   `target` a horizontal unit vector along the target line (default +x).
//   `out` is horizontal, perpendicular to the target line, pointing away from
//   the golfer (who stands on the side of the vertical plane through the
//   target line where the swing's pivot lies).
// - Impact is the instant the head centre's path comes closest to the ball's
//   centre. At that instant, of the head centre's velocity v:
//   speed |v| (m/s); attack angle asin(v.up / |v|) in degrees, + upward;
//   path atan2(v.out, v.target) in degrees, + in-to-out.
// - Swing plane: the plane of the head centre's arc just before impact. Swing
//   plane angle: between that plane and the horizontal, degrees. Swing
//   direction: from the target line to the plane's ground line, degrees,
//   + toward `out`.
// - Low point: the lowest point of the fitted arc relative to the ball's
//   centre, mm: `ahead` along target (+ after the ball), `height` along up,
//   `side` along out.
#pragma once

#include <array>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "clubtracker/ClubTracker.h"

namespace clubtracker {

using Vec3 = std::array<double, 3>;

// What Measure does and how the delivery is oriented.
struct MeasureOptions {
  Vec3 up{0.0, 1.0, 0.0};      // unit vector
  Vec3 target{1.0, 0.0, 0.0};  // unit vector, perpendicular to up
  unsigned int timeLimitSeconds = 0;  // Find's time limit; 0 = none
  bool lineBased = true;     // run the line-based measurement (Find)
  bool headTracking = true;  // track the head: its speed and the club delivery
  bool keepFrames = true;    // keep Find's result frames in the report

  // False with a one-line reason when an option cannot be used (a direction
  // that is zero, not finite, or up and target not perpendicular).
  CLUBTRACKER_API bool IsValid(std::string* why) const;
};

// A value and its standard error (1 sigma), in the value's unit.
struct Measured {
  double value = 0.0;
  double stdErr = 0.0;
};

// The club delivery at impact. A value that could not be measured is empty,
// and `notes` says why.
struct ClubDelivery {
  std::optional<Measured> speedMps;
  std::optional<Measured> attackAngleDeg;
  std::optional<Measured> pathDeg;
  std::optional<Measured> swingPlaneDeg;
  std::optional<Measured> swingDirectionDeg;
  std::optional<Measured> lowPointAheadMm;
  std::optional<Measured> lowPointHeightMm;
  std::optional<Measured> lowPointSideMm;
  std::vector<std::string> notes;

  // What the values were derived from, for plots and checks (world units).
  std::optional<Vec3> ball;        // the ball's centre
  std::optional<Vec3> lowPoint;    // the arc's lowest point
  std::optional<Vec3> arcCentre;   // centre of the fitted arc
  std::optional<Vec3> arcNormal;   // unit normal of the swing plane
  double arcRadius = 0.0;          // 0 = no arc
  std::vector<double> times;       // time-stamp units, of each tracked head position
  std::vector<Vec3> headPath;      // the head centre, one per entry of `times`
};

// Everything one swing gave.
struct SwingReport {
  bool ok = false;     // false: the measurement could not run; see `error`
  std::string error;   // one line

  // The line-based measurement as Find gives it (clubHeadSpeed in world units
  // per time-stamp unit; 0.0 = none).
  int cam1Frames = 0;
  int cam2Frames = 0;
  int frameCount = 0;    // result entries, both cameras
  int pairedFrames = 0;
  double clubHeadSpeed = 0.0;
  float angularVelocity = 0.0f;
  float headRadius = 0.0f;
  std::array<float, 3> axisDirection{};
  std::array<float, 3> axisPosition{};
  int speedFrameFrom = 0;
  int speedFrameTo = 0;
  double processingTimeMs = 0.0;  // wall-clock time of Find
  std::vector<std::string> log;   // Find's log lines, UTF-8
  // Find's result with its frames (when MeasureOptions::keepFrames).
  std::shared_ptr<const ClubTrackerResult> result;

  // Head tracking: speed in world units per time-stamp unit, 0.0 = none.
  double headTrackingSpeed = 0.0;
  std::vector<std::string> headTrackingLog;

  ClubDelivery delivery;
  std::vector<std::string> warnings;  // one line each
};

// Measures one swing. The frames belong to the caller and are only read.
CLUBTRACKER_API SwingReport Measure(const std::vector<ClubImage>& cam1,
                                    const std::vector<ClubImage>& cam2,
                                    const ClubTrackerSetting& setting,
                                    const MeasureOptions& options = {});

// A recording read from disk: the run option file, both cameras' calibration
// and frames. Owns the frames' pixels; move-only.
struct Recording {
  std::filesystem::path runFile;
  ClubTrackerSetting setting{};
  int impactIndex = 10;
  std::vector<ClubImage> cam1;  // pixels point into `storage`
  std::vector<ClubImage> cam2;
  std::vector<std::unique_ptr<unsigned char[]>> storage;
  std::vector<std::string> warnings;  // what the reading noticed
};

// The largest frame LoadRecording decodes, width x height; larger frame files
// are skipped with a warning, judged from the image header before decoding.
inline constexpr uint64_t kMaxFramePixels = 16'000'000;

// Reads RECORDING (a run option file or a folder holding "run.ini") as
// `clubtrack run` does. False with a one-line reason when it cannot be used.
CLUBTRACKER_API bool LoadRecording(const std::filesystem::path& recording, Recording& out,
                                   std::string* why, uint64_t maxFramePixels = kMaxFramePixels);

// Measures a recording; the report's warnings start with the reading's.
CLUBTRACKER_API SwingReport MeasureRecording(const Recording& recording,
                                             const MeasureOptions& options = {});

// The report as the JSON text `clubtrack run --json` writes (keys are a
// stable interface); `recording` fills the "recording" key when not empty.
CLUBTRACKER_API std::string ReportJson(const SwingReport& report, const std::string& recording,
                                       int indent = 1);

}  // namespace clubtracker
