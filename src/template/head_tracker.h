// Club-head tracking by templates: locating the head by frame differencing,
// following it with gradient templates in both cameras, triangulating its path
// and fitting its speed. The tracker's FindbyTemplate and FindHeadAndCalculate
// are built from these pieces; failures come back as a status that the tracker
// puts into words.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "clubtracker/ClubTracker.h"
#include "tracker/frame_pairing.h"

namespace headtrack {

// The speed is fitted over the last kFitWindow samples before the impact,
// with a quadratic term (the swing's acceleration) from kQuadraticFrom
// samples on. The speed is carried on to the impact with the fitted
// acceleration only when that stands out of its standard error by
// kAccelerationSignificance: the bar is high because successive positions
// share much of their error (the same part of the outline hidden, the same
// shading), which the formal error does not see.
constexpr int kFitWindow = 8;
constexpr int kQuadraticFrom = 5;
constexpr double kAccelerationSignificance = 5.0;

// One camera's frame, ready for tracking.
struct CameraFrame {
  cv::Mat grey;         // 8-bit grey, cut to the region of interest (may be a view)
  cv::Point2d origin;   // full-sensor position of grey's pixel (0, 0)
  double time = 0.0;    // time-stamp units since the first paired frame of camera 1
  bool afterImpact = false;
  bool hasBall = false;
  cv::Point2d ball;         // ball centre in grey's coordinates, when hasBall
  double ballRadius = 0.0;  // as given with the frame; 0 = not given
};


// Grey views of paired frames. Colour frames are converted; grey frames are
// used in place (no copy). `reference` is the time stamp that becomes time 0.
// False when a frame cannot be read (null pixels, bytesPerChannel not 1,
// channels other than 1, 3 or 4, fewer than 8 pixels a side left by the
// region of interest).
bool PrepareFrames(const std::vector<const ClubImage*>& images, const ClubTrackerSetting& setting,
                   uint64_t reference, std::vector<CameraFrame>& frames);

// The static scene of one camera: the per-pixel median of up to nine frames
// spread evenly over the sequence. The club covers a pixel in only a few of
// them, so the median is what lies behind it. Empty when there are fewer than
// three frames or they differ in size.
cv::Mat MakeBackground(const std::vector<CameraFrame>& frames);

// The resting ball as one camera sees it before the impact.
struct BallModel {
  double radius = 0.0;  // pixels; 0 = no ball known
  cv::Point2d centre;   // grey coordinates
  cv::Rect box;         // square around the disc, within the frame
  cv::Mat look;         // the ball's pixels in `box`, as first seen
  cv::Mat disc;         // 255 inside the disc, the size of `look`

  // Fraction of the disc where `frame` shows the ball as it looks at rest;
  // small when the head hides it, 0 when no ball is known.
  double VisibleFraction(const CameraFrame& frame) const;
  // True when the ball stands in front of (or beside) the head in `frame` and
  // its disc, with `margin` pixels, reaches into `area`.
  bool InFront(const CameraFrame& frame, const cv::Rect& area, double margin) const;
};

// The ball's radius in pixels, from the strongest ring of edges around its
// given centre; 0 when the frame has no ball.
double EstimateBallRadius(const CameraFrame& frame);

// The ball of the first frame: its given centre, its radius (measured when not
// given) and its look.
BallModel MakeBallModel(const std::vector<CameraFrame>& frames);

// The ellipse of the head's silhouette (the head is close to an ellipsoid,
// whose outline in a picture is an ellipse).
struct HeadOutline {
  cv::Point2d centre;       // grey coordinates
  double semiMajor = 0.0;   // pixels, along `angle`
  double semiMinor = 0.0;
  double angle = 0.0;       // radians
  bool complete = false;    // fitted to the whole outline (else only moved)

  double Area() const { return CV_PI * semiMajor * semiMinor; }
};

// Measures the head's silhouette inside `region` of `frame`: the pixels that
// differ from the background, holes filled, with parts thinner than the head
// (shaft, hosel) opened away. The outline points near the ball are left out
// (it may stand in front of the head or leave a ring inside it). When at
// least `wholeFraction` of the outline is left (1 = all of it), an ellipse is
// fitted to it; otherwise `model` (the head's expected outline), if given, is
// moved onto the points left. `thickness` is the head's inscribed radius.
// False when the silhouette touches the region's border, is empty, or too
// little of its outline is left. `points`, when given, receives the outline
// points clear of the ball.
bool MeasureSilhouette(const CameraFrame& frame, const cv::Mat& background,
                       const cv::Rect& region, double thickness, const BallModel& ball,
                       const HeadOutline* model, double wholeFraction, HeadOutline& outline,
                       std::vector<cv::Point2f>* points = nullptr);

// Moves `model` (its shape kept) to the centre that fits `points` best, by
// Gauss-Newton steps on the points' normalised radial distance. False when the
// steps do not settle.
bool FitOutlineCentre(const std::vector<cv::Point2f>& points, const HeadOutline& model,
                      cv::Point2d& centre);

// The head as found by frame differencing in one frame.
struct HeadBlob {
  HeadOutline outline;     // complete: its centre is the head's
  cv::Rect box;            // bounding box of the silhouette
  double thickness = 0.0;  // largest distance from inside the silhouette to its edge
};

// Finds the head in `frame`: the part that differs from the background
// (absdiff, threshold, dilate), searched at half resolution, where the
// thickest moving part is the head; then measured at full resolution with
// MeasureSilhouette. With `strict`, the head must be clear of the ball and its
// outline whole; otherwise a head beside the ball is taken when nine tenths of
// its outline are clear of it. False when nothing head-like is found, the head
// touches the border of the frame, or the visible ball is beside it.
// `halfBackground` is Half(background), made once for all the frames.
bool LocateHead(const CameraFrame& frame, const cv::Mat& background,
                const cv::Mat& halfBackground, const BallModel& ball, bool strict,
                HeadBlob& blob);

// How a tracked position was measured, from least to most trusted.
enum Quality : unsigned char {
  kByTemplate = 0,        // template match only (drifts as the head's look changes)
  kByPartialOutline = 1,  // expected outline moved onto the part not hidden by the ball
  kByOutline = 2,         // ellipse fitted to the whole outline
};

// One camera's track over a list of frames (indices into the camera's frames).
struct CameraTrack {
  std::vector<cv::Point2d> position;    // grey coordinates, per entry of the list
  std::vector<unsigned char> tracked;
  std::vector<unsigned char> quality;   // how the position was measured (Quality)
  std::vector<cv::Rect> region;         // where the silhouette was looked for
  std::vector<HeadOutline> outline;     // the silhouette's outline, where measured
  std::vector<std::vector<cv::Point2f>> partialOutline;  // its points, where partly hidden
  std::vector<double> score;
  int templateUpdates = 0;
};

// Follows the head from list[start], where `blob` was found, forward and
// backward through the frames of `list` with gradient templates matched at
// half resolution (forward to the end of the list, backward until `wanted`
// frames are tracked). The first step is predicted from `velocityHint` (pixels
// per time unit) when given, and searched widely otherwise. Where the ball
// stands in front of the head, or the head nears the frame's border, only the
// part of the template clear of them is matched. Each match is refined on the
// head's silhouette where it can be measured, else to sub-pixel by the
// correlation peak. Where the ball hides part of the outline, the outline is
// fitted once more at the end with the head's shape as it develops over all
// its whole outlines.
void TrackHead(const std::vector<CameraFrame>& frames, const cv::Mat& background,
               const BallModel& ball, const std::vector<int>& list, int start,
               const HeadBlob& blob, const cv::Point2d* velocityHint, int wanted,
               CameraTrack& track);

// Camera matrices for the triangulation.
struct StereoRig {
  cv::Mat intrinsic[2];
  cv::Mat rotationToWorld[2];
  cv::Mat center[2];
};
StereoRig MakeStereoRig(const ClubTrackerSetting& setting);

// Triangulates two full-sensor pixels. False when the rays do not meet.
bool Triangulate(const StereoRig& rig, const cv::Point2d& pixel1, const cv::Point2d& pixel2,
                 cv::Vec3d& world, double& rayGap);

// One triangulated head position.
struct HeadSample {
  int pair = 0;        // index of the frame pair
  double time = 0.0;   // camera 1's time
  cv::Vec3d point;     // world units
  double rayGap = 0.0;
  int quality = 0;     // the lower Quality of the two cameras' positions
};

// Triangulates the frames of `list` tracked in both cameras. Camera 2's
// position is moved along its own image motion to camera 1's time stamp, so
// that a small offset between the cameras' clocks does not bend the path.
std::vector<HeadSample> TriangulateTrack(const StereoRig& rig,
                                         const std::vector<CameraFrame>& frames1,
                                         const std::vector<CameraFrame>& frames2,
                                         const std::vector<int>& list, const CameraTrack& track1,
                                         const CameraTrack& track2);

// Polynomial fit of the head path, x(t) = a + b (t - t0) + c (t - t0)^2 per
// coordinate (c = 0 for a straight-line fit), t0 the samples' mean time.
struct PathFit {
  double t0 = 0.0;
  cv::Vec3d a, b, c;
  bool quadratic = false;
  int samples = 0;
  double rmsResidual = 0.0;  // world units
  double span = 0.0;         // distance between the first and last sample fitted
  // Rate of change of the speed along the path (2 c . b/|b|) and its standard
  // error from the residuals along the path; 0 for a straight line. The
  // quadratic's other part, across the path, is the bend of the swing's arc.
  double tangentialAcceleration = 0.0;
  double tangentialAccelerationError = 0.0;

  cv::Vec3d Position(double t) const;
  cv::Vec3d Velocity(double t) const;
  // Speed at time t: |b|, carried on by the tangential acceleration when that
  // exceeds `significance` standard errors (a parabola's own speed would grow
  // away from t0 with the arc's bend).
  double Speed(double t, double significance) const;
};

// Fits the last samples (at most `window`, at least three): a quadratic when
// there are at least `quadraticFrom`, else a straight line. False when fewer
// than three samples or their times do not increase.
bool FitPath(const std::vector<HeadSample>& samples, int window, int quadraticFrom,
             PathFit& fit);

// Angular velocity (radians per time unit, positive) of the last samples
// (at most `window`, at least three) about the axis through `pivot` along
// `axis`, at time `at`, fitted like the path. False when there are too few
// samples, the axis is zero, or a sample lies on the axis.
bool FitAngularVelocity(const std::vector<HeadSample>& samples, int window,
                        const cv::Vec3d& pivot, const cv::Vec3d& axis, double at,
                        double& omega);

// Why a measurement failed.
enum class Status {
  kOk,
  kTooFewPairs,    // fewer than three before-impact frame pairs
  kBadFrame,       // a frame could not be read
  kHeadNotFound,   // no frame where both cameras show the head clearly
  kTooFewTracked,  // fewer than three frames tracked in both cameras
  kNotCredible,    // the fit does not describe the samples
  kFailed,         // an unexpected error
};

// Everything one head measurement produced.
struct HeadMeasurement {
  Status status = Status::kOk;
  const char* reason = "";  // why the fit is not credible
  int beforeImpactPairs = 0;
  int startPair = -1;
  int tracked1 = 0;  // frames tracked in camera 1, camera 2 and both
  int tracked2 = 0;
  int trackedBoth = 0;
  std::vector<int> list;  // the before-impact frame pairs
  CameraTrack track1;     // per entry of `list`, grey coordinates
  CameraTrack track2;
  std::vector<HeadSample> samples;
  std::vector<HeadSample> fitted;  // the samples the fit was made from
  PathFit fit;
  bool hasBall = false;     // the ball was triangulated
  cv::Vec3d ball;
  double impactTime = 0.0;  // time at which the speed is taken
  bool impactFromBall = false;
  double speed = 0.0;       // world units per time-stamp unit; 0 = none
  // What the tracking worked on, kept when the speed was measured (for the
  // club delivery): both cameras' paired frames and their backgrounds.
  std::vector<CameraFrame> frames[2];
  cv::Mat background[2];
};

// Locates, tracks and triangulates the head in the before-impact frames of
// both cameras and fits its speed at the impact. Never throws.
HeadMeasurement MeasureHead(const std::vector<ClubImage*>& cam1,
                            const std::vector<ClubImage*>& cam2,
                            const ClubTrackerSetting& setting);

// FindbyTemplate's outcome of the measurement `m` of the frames `cam1`,
// `cam2` with `setting`: the speed (0 = none) and the line it logs, which
// names what is wrong with the input when the head was not measured.
double ReportSpeed(const HeadMeasurement& m, const std::vector<ClubImage*>& cam1,
                   const std::vector<ClubImage*>& cam2, const ClubTrackerSetting& setting,
                   std::string& logLine);

}  // namespace headtrack
