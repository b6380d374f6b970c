// Synthetic two-camera swing recordings with exact ground truth.
//
// World units are millimetres, time stamps microseconds. x runs along the
// target line, y up (ground y = 0), z from the ball toward the golfer. The ball
// rests at (0, ballRadius, 0). The club turns rigidly about a fixed axis through
// the pivot; the head centre passes through the ball centre at impact.
//
// Everything is decided by the scene, its seed included: the same scene gives
// byte-identical frames.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "clubtracker/ClubTracker.h"

namespace synth {

enum class Placement { kNear, kFar };

// All parameters of one recording. Geometry not listed here (swing radius and
// inclination, yaw, camera placement and baseline, exposure, textures) is
// drawn from `seed` within the documented ranges.
struct SwingScene {
  uint64_t seed = 1;
  Placement placement = Placement::kNear;  // near: 640 x 208 windows; far: 640 x 480
  double speedMps = 45.0;                  // club-head speed at impact, 30..55
  double fps = 2000.0;                     // 1000..4000
  int frames = 24;                         // per camera
  int impactIndex = 10;                    // first after-impact frame
  double noiseSigma = 1.0;                 // grey levels
  bool flicker = false;                    // per-frame brightness flicker
  bool dropFrame = false;                  // camera 2 misses one frame
  bool iron = false;                       // iron head instead of a driver
  bool darkShaft = false;                  // shaft as dark as the background
  bool noClub = false;                     // the ball alone
  // Swing direction, degrees (+ toward the side away from the golfer, -z):
  // the arc's plane turned about the vertical through its low point. Empty:
  // the drawn yaw of a few degrees.
  std::optional<double> directionDeg;
  // The arc's lowest point lies this far ahead of the ball along the plane's
  // ground line, mm (+ after the ball: a descending blow); the head still
  // meets the ball's centre at impact. -300..300.
  double lowPointAheadMm = 0.0;

  // A varied scene for seed-sweeps: speed, placement, frame rate, club and
  // geometry all drawn from `seed`.
  static SwingScene Varied(uint64_t seed);
};

// Pinhole camera, no distortion. x_cam = R * X + t; pixels are full-sensor.
struct CameraModel {
  cv::Matx33d K;
  cv::Matx33d R;
  cv::Vec3d t;
  int sensorOffsetX = 0;  // window on the full sensor
  int sensorOffsetY = 0;
  int width = 0;
  int height = 0;

  cv::Vec3d Center() const;                         // -R^T t
  cv::Vec2d Project(const cv::Vec3d& world) const;  // full-sensor pixel
  cv::Vec2d ProjectToWindow(const cv::Vec3d& world) const;  // window pixel
  void Intrinsic(double values[9]) const;   // row-major
  void Extrinsic(double values[12]) const;  // [R|t] row-major
};

// The club delivery at impact as the scene defines it, in the default
// orientation (up +y, target +x, out -z); angles in degrees, low point in mm
// relative to the ball's centre.
struct DeliveryTruth {
  double speedMps = 0.0;
  double attackAngleDeg = 0.0;
  double pathDeg = 0.0;
  double swingPlaneDeg = 0.0;
  double swingDirectionDeg = 0.0;
  cv::Vec3d lowPoint;  // world
  double lowPointAheadMm = 0.0;
  double lowPointHeightMm = 0.0;
  double lowPointSideMm = 0.0;
};

struct SwingTruth {
  cv::Vec3d pivot;       // swing centre
  cv::Vec3d axis;        // unit spin axis (normal of the swing plane), z > 0
  cv::Vec3d ball;        // resting ball centre
  double ballRadius = 21.35;
  double omega0 = 0.0;   // rad/us at impact
  double alpha = 0.0;    // rad/us^2
  double headRadius = 0.0;          // |pivot - ball|
  double clubHeadSpeed = 0.0;       // omega0 * headRadius, mm/us
  double clubHeadSpeedMps = 0.0;
  double trueHeadCentreSpeedMps = 0.0;
  double impactTime = 0.0;          // us, same clock as the time stamps
  double fps = 0.0;
  int impactIndex = 0;
  CameraModel cameras[2];           // 0 = master (camera 1), 1 = slave
  std::vector<uint64_t> timeStamps[2];  // per camera, per written frame

  DeliveryTruth delivery;          // filled by MakeTruth

  double SwingAngle(double timeUs) const;          // rotation from the impact position
  cv::Vec3d HeadCentre(double timeUs) const;
  cv::Vec3d ShaftDirection(double timeUs) const;   // unit, pivot toward the head
  cv::Vec3d HeadVelocity(double timeUs) const;     // mm/us
  // Resting ball centre in window pixels, exact; the frames' ballX, ballY (and
  // the file names) carry it rounded to 0.01 px.
  cv::Vec2d BallInWindow(int camera) const;

  // Further detail of the rendered swing (filled by MakeTruth).
  cv::Vec3d headSemiAxes;       // mm: along the motion, along the shaft, along the axis
  double shaftRadius = 0.0;     // mm
  double gripDistance = 0.0;    // shaft starts this far from the pivot (R - 1100)
  double hoselDistance = 0.0;   // and ends this far from the pivot, inside the head
  double exposureUs = 0.0;      // every frame is exposed over [t - e/2, t + e/2]
  double ballSpeed = 0.0;       // mm/us after impact
  double launchDeg = 0.0;       // ball's rise above the ground after impact
  int droppedFrame = -1;        // frame index camera 2 misses, -1 = none

  // Exposure centre of a written frame: its time stamp.
  double FrameTime(int camera, int index) const;
  cv::Vec3d BallCentre(double timeUs) const;  // at rest until impact, then flying along +x
  // Point on the shaft's axis `distance` mm from the pivot (R = head centre).
  cv::Vec3d ShaftPoint(double timeUs, double distance) const;
  // The shaft's centre line as a Hough line (full-sensor pixels) in one camera:
  // what the shaft-line stage should find, e.g. ShaftLine(0, FrameTime(0, i)).
  cv::Vec2f ShaftLine(int camera, double timeUs) const;
};

// Hough (rho, theta) of the image of the 3D line through a and b, in
// full-sensor pixels, theta in [0, pi) as cv::HoughLines reports it.
cv::Vec2f HoughLineOf(const CameraModel& camera, const cv::Vec3d& a, const cv::Vec3d& b);

// Geometry, cameras and time stamps only (no pixels): fast.
SwingTruth MakeTruth(const SwingScene& scene);

// Calibration of both cameras, ROI 0, default intervals, no log callback.
ClubTrackerSetting MakeSetting(const SwingTruth& truth);

// A rendered recording. It owns the frames' pixels; ClubImage::pixels point
// into `pixels`. Movable, not copyable.
struct Recording {
  SwingScene scene;
  SwingTruth truth;
  ClubTrackerSetting setting{};
  std::vector<ClubImage> images[2];
  std::vector<std::vector<unsigned char>> pixels[2];

  Recording() = default;
  Recording(Recording&&) = default;
  Recording& operator=(Recording&&) = default;
  Recording(const Recording&) = delete;
  Recording& operator=(const Recording&) = delete;

  std::vector<ClubImage*> Cam1();
  std::vector<ClubImage*> Cam2();
};

// Renders both cameras. Each frame is exposed around its time stamp; its
// afterImpact is 1 from position impactIndex of its camera's list on (as the
// replay sets it, so a dropped frame shifts camera 2's flags), ballX/ballY
// hold the resting ball, ballRadius is 0. Scene values outside what can be
// rendered (frames 1..2000, fps 100..20000, impactIndex 0..frames) are
// clamped; `scene` in the result holds the values used.
Recording Render(const SwingScene& scene);

// Writes REC/run.ini, REC/Master/MasterOption.ini, REC/Slave/SlaveOption.ini,
// the frames (BMP, or PNG when `png`) and REC/truth.json.
// Throws std::runtime_error naming the path when the file system refuses.
void WriteRecording(const Recording& recording, const std::filesystem::path& dir,
                    bool png = false);
// The same without exceptions: false and a one-line `error` on failure.
bool WriteRecording(const Recording& recording, const std::filesystem::path& dir, bool png,
                    std::string& error) noexcept;

// Name of a written frame: <timeStamp>_<sensorOffsetX>_<sensorOffsetY>_<ballX>_<ballY>.<ext>,
// the ball with two decimals (the ClubImage's ballX/ballY hold exactly that value).
std::string FrameFileName(const ClubImage& image, bool png = false);

// truth.json's content.
std::string TruthJson(const Recording& recording);

}  // namespace synth
