// The C interface over the modern one (measure.h): plain structs in and out,
// every failure a status with its one-line message, nothing thrown across.
#include "clubtracker/clubtracker_c.h"

#include <cstdio>
#include <cstring>
#include <exception>
#include <new>
#include <optional>
#include <string>
#include <vector>

#include "clubtracker/measure.h"

namespace {

// The recordings' units are millimetres and microseconds: mm/us times 1000 is m/s.
constexpr double kMpsPerUnit = 1000.0;

void SetMessage(clubtracker_report* report, const std::string& text) {
  std::snprintf(report->message, sizeof report->message, "%s", text.c_str());
}

int Fail(clubtracker_report* report, int status, const std::string& why) {
  SetMessage(report, why);
  return status;
}

clubtracker::MeasureOptions ToOptions(const clubtracker_options& o) {
  clubtracker::MeasureOptions options;
  for (int i = 0; i < 3; ++i) {
    options.up[i] = o.up[i];
    options.target[i] = o.target[i];
  }
  options.timeLimitSeconds = o.time_limit_seconds;
  options.lineBased = o.line_based != 0;
  options.headTracking = o.head_tracking != 0;
  options.keepFrames = false;
  return options;
}

void Copy(const std::optional<clubtracker::Measured>& from, int32_t& has, double& value,
          double& stdErr) {
  has = from ? 1 : 0;
  value = from ? from->value : 0.0;
  stdErr = from ? from->stdErr : 0.0;
}

int Fill(const clubtracker::SwingReport& r, clubtracker_report* out) {
  if (!r.ok) return Fail(out, CLUBTRACKER_FAILED, r.error);
  out->club_head_speed_mps = r.clubHeadSpeed * kMpsPerUnit;
  out->head_radius = r.headRadius;
  out->angular_velocity = r.angularVelocity;
  for (int i = 0; i < 3; ++i) {
    out->axis_direction[i] = r.axisDirection[i];
    out->axis_position[i] = r.axisPosition[i];
  }
  out->speed_frame_from = r.speedFrameFrom;
  out->speed_frame_to = r.speedFrameTo;
  out->cam1_frames = r.cam1Frames;
  out->cam2_frames = r.cam2Frames;
  out->paired_frames = r.pairedFrames;
  out->processing_time_ms = r.processingTimeMs;
  out->head_tracking_speed_mps = r.headTrackingSpeed * kMpsPerUnit;

  const clubtracker::ClubDelivery& d = r.delivery;
  Copy(d.speedMps, out->has_club_speed, out->club_speed_mps, out->club_speed_mps_std_err);
  Copy(d.attackAngleDeg, out->has_attack_angle, out->attack_angle_deg,
       out->attack_angle_deg_std_err);
  Copy(d.pathDeg, out->has_path, out->path_deg, out->path_deg_std_err);
  Copy(d.swingPlaneDeg, out->has_swing_plane, out->swing_plane_deg,
       out->swing_plane_deg_std_err);
  Copy(d.swingDirectionDeg, out->has_swing_direction, out->swing_direction_deg,
       out->swing_direction_deg_std_err);
  Copy(d.lowPointAheadMm, out->has_low_point_ahead, out->low_point_ahead_mm,
       out->low_point_ahead_mm_std_err);
  Copy(d.lowPointHeightMm, out->has_low_point_height, out->low_point_height_mm,
       out->low_point_height_mm_std_err);
  Copy(d.lowPointSideMm, out->has_low_point_side, out->low_point_side_mm,
       out->low_point_side_mm_std_err);

  // The warnings as `clubtrack run --json` lists them: the run's, then the delivery's notes.
  std::vector<std::string> warnings = r.warnings;
  warnings.insert(warnings.end(), d.notes.begin(), d.notes.end());
  out->warning_count = static_cast<int32_t>(warnings.size());
  if (!warnings.empty()) SetMessage(out, warnings.front());
  return CLUBTRACKER_OK;
}

// Runs `body` with the report zeroed and the options resolved; turns whatever
// escapes into a status.
template <typename Body>
int Guarded(const clubtracker_options* options, clubtracker_report* report, Body body) {
  if (report == nullptr) return CLUBTRACKER_BAD_ARGUMENT;
  std::memset(report, 0, sizeof *report);
  try {
    clubtracker_options resolved;
    clubtracker_default_options(&resolved);
    if (options != nullptr) resolved = *options;
    const clubtracker::MeasureOptions measureOptions = ToOptions(resolved);
    std::string why;
    if (!measureOptions.IsValid(&why)) {
      return Fail(report, CLUBTRACKER_BAD_OPTIONS, "invalid options: " + why);
    }
    return body(resolved, measureOptions);
  } catch (const std::bad_alloc&) {
    return Fail(report, CLUBTRACKER_FAILED, "out of memory");
  } catch (const std::exception& e) {
    return Fail(report, CLUBTRACKER_FAILED, std::string("the measurement stopped: ") + e.what());
  } catch (...) {
    return Fail(report, CLUBTRACKER_FAILED, "the measurement stopped");
  }
}

// The frames of one camera as the tracker's records; false with the reason.
bool ToImages(const clubtracker_frame* frames, size_t count, const char* camera,
              std::vector<ClubImage>& images, std::string& why) {
  if (count == 0 || frames == nullptr) {
    why = std::string(camera) + " has no frames";
    return false;
  }
  images.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    const clubtracker_frame& f = frames[i];
    const bool channelsOk = f.channels == 1 || f.channels == 3 || f.channels == 4;
    if (f.pixels == nullptr || f.width == 0 || f.height == 0 || !channelsOk) {
      why = std::string(camera) + " frame " + std::to_string(i) +
            (f.pixels == nullptr ? ": no pixels"
             : !channelsOk       ? ": channels must be 1, 3 or 4"
                                 : ": empty size");
      return false;
    }
    ClubImage image{};
    image.width = f.width;
    image.height = f.height;
    image.bytesPerChannel = 1;
    image.channels = f.channels;
    image.pixels = const_cast<unsigned char*>(f.pixels);  // only read
    image.sensorOffsetX = f.sensor_offset_x;
    image.sensorOffsetY = f.sensor_offset_y;
    image.afterImpact = f.after_impact;
    image.timeStamp = f.time_stamp;
    image.ballX = f.ball_x;
    image.ballY = f.ball_y;
    image.ballRadius = f.ball_radius;
    images.push_back(image);
  }
  return true;
}

}  // namespace

extern "C" {

void clubtracker_default_options(clubtracker_options* options) {
  if (options == nullptr) return;
  std::memset(options, 0, sizeof *options);
  const clubtracker::MeasureOptions defaults;
  for (int i = 0; i < 3; ++i) {
    options->up[i] = defaults.up[i];
    options->target[i] = defaults.target[i];
  }
  options->time_limit_seconds = defaults.timeLimitSeconds;
  options->line_based = defaults.lineBased ? 1 : 0;
  options->head_tracking = defaults.headTracking ? 1 : 0;
  ClubTrackerSetting setting;
  InitClubTrackerSetting(setting);
  options->roi_x = setting.roiX;
  options->roi_y = setting.roiY;
  options->roi_width = setting.roiWidth;
  options->roi_height = setting.roiHeight;
  options->interval_before_impact = setting.timeStampIntervalBeforeImpact;
  options->interval_after_impact = setting.timeStampIntervalAfterImpact;
  options->axis_index = setting.axisIndex;
  options->axis_norm_index = setting.axisNormIndex;
}

int clubtracker_measure_recording(const char* recording, const clubtracker_options* options,
                                  clubtracker_report* report) {
  return Guarded(options, report,
                 [&](const clubtracker_options&, const clubtracker::MeasureOptions& measure) {
                   if (recording == nullptr || *recording == '\0') {
                     return Fail(report, CLUBTRACKER_BAD_ARGUMENT, "no recording given");
                   }
                   clubtracker::Recording loaded;
                   std::string why;
                   if (!clubtracker::LoadRecording(recording, loaded, &why)) {
                     return Fail(report, CLUBTRACKER_BAD_RECORDING, why);
                   }
                   return Fill(clubtracker::MeasureRecording(loaded, measure), report);
                 });
}

int clubtracker_measure_frames(const clubtracker_frame* cam1, size_t cam1_count,
                               const clubtracker_frame* cam2, size_t cam2_count,
                               const double* calibration, const clubtracker_options* options,
                               clubtracker_report* report) {
  return Guarded(options, report,
                 [&](const clubtracker_options& o, const clubtracker::MeasureOptions& measure) {
                   std::vector<ClubImage> images1;
                   std::vector<ClubImage> images2;
                   std::string why;
                   if (!ToImages(cam1, cam1_count, "camera 1", images1, why) ||
                       !ToImages(cam2, cam2_count, "camera 2", images2, why)) {
                     return Fail(report, CLUBTRACKER_BAD_ARGUMENT, why);
                   }
                   if (calibration == nullptr) {
                     return Fail(report, CLUBTRACKER_BAD_ARGUMENT, "no calibration values");
                   }
                   ClubTrackerSetting setting;
                   InitClubTrackerSetting(setting);
                   setting.logContext = nullptr;
                   setting.roiX = o.roi_x;
                   setting.roiY = o.roi_y;
                   setting.roiWidth = o.roi_width;
                   setting.roiHeight = o.roi_height;
                   setting.timeStampIntervalBeforeImpact = o.interval_before_impact;
                   setting.timeStampIntervalAfterImpact = o.interval_after_impact;
                   setting.axisIndex = o.axis_index;
                   setting.axisNormIndex = o.axis_norm_index;
                   std::memcpy(setting.cam1Intrinsic, calibration, 9 * sizeof(double));
                   std::memcpy(setting.cam1Extrinsic, calibration + 9, 12 * sizeof(double));
                   std::memcpy(setting.cam2Intrinsic, calibration + 21, 9 * sizeof(double));
                   std::memcpy(setting.cam2Extrinsic, calibration + 30, 12 * sizeof(double));
                   return Fill(clubtracker::Measure(images1, images2, setting, measure), report);
                 });
}

const char* clubtracker_status_text(int status) {
  switch (status) {
    case CLUBTRACKER_OK:
      return "ok";
    case CLUBTRACKER_BAD_ARGUMENT:
      return "bad argument";
    case CLUBTRACKER_BAD_OPTIONS:
      return "bad options";
    case CLUBTRACKER_BAD_RECORDING:
      return "bad recording";
    case CLUBTRACKER_FAILED:
      return "measurement failed";
    default:
      return "unknown status";
  }
}

const char* clubtracker_version(void) { return CLUBTRACKER_VERSION_STRING; }

}  // extern "C"
