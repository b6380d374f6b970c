// Swing geometry, cameras and time stamps of a synthetic recording.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>

#include "synth/draws.h"
#include "synth/swing.h"

namespace synth {

namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;
constexpr double kBallRadius = 21.35;
constexpr int kSensorWidth = 1280;
constexpr int kSensorHeight = 1024;
constexpr double kGripFromHead = 1100.0;  // the shaft starts this far up from the head centre

// Streams of the seed: each group of draws has its own, so that a change in
// the number of frames (jitter, flicker) never shifts the geometry.
constexpr uint64_t kGeometryStream = 0x47454F4D;
constexpr uint64_t kTimingStream = 0x54494D45;
constexpr uint64_t kLookStream = 0x4C4F4F4B;
constexpr uint64_t kVariedStream = 0x56415259;

cv::Vec3d Rotate(const cv::Vec3d& v, const cv::Vec3d& axis, double angle) {
  const double c = std::cos(angle);
  const double s = std::sin(angle);
  return v * c + axis.cross(v) * s + axis * (axis.dot(v) * (1.0 - c));
}

cv::Vec3d RotateAboutY(const cv::Vec3d& v, double angle) {
  const double c = std::cos(angle);
  const double s = std::sin(angle);
  return {v[0] * c + v[2] * s, v[1], -v[0] * s + v[2] * c};
}

double Finite(double value, double fallback) { return std::isfinite(value) ? value : fallback; }

// Camera looking from `centre` at `aim`, image x to the right, y down, rolled
// about the optical axis.
CameraModel LookAt(const cv::Vec3d& centre, const cv::Vec3d& aim, double rollDeg, double focal,
                   const cv::Vec2d& principal) {
  const cv::Vec3d forward = cv::normalize(aim - centre);
  cv::Vec3d right = cv::normalize(forward.cross(cv::Vec3d(0.0, 1.0, 0.0)));
  cv::Vec3d down = forward.cross(right);
  const double roll = rollDeg * kDeg;
  const cv::Vec3d rolledRight = right * std::cos(roll) + down * std::sin(roll);
  const cv::Vec3d rolledDown = down * std::cos(roll) - right * std::sin(roll);
  right = rolledRight;
  down = rolledDown;
  CameraModel camera;
  camera.R = cv::Matx33d(right[0], right[1], right[2], down[0], down[1], down[2], forward[0],
                         forward[1], forward[2]);
  camera.t = -(camera.R * centre);
  camera.K = cv::Matx33d(focal, 0.0, principal[0], 0.0, focal, principal[1], 0.0, 0.0, 1.0);
  return camera;
}

// The delivery in the default orientation: up +y, target +x, out -z (the
// golfer stands at +z).
DeliveryTruth MakeDeliveryTruth(const SwingTruth& truth, const cv::Vec3d& toPivot) {
  const cv::Vec3d up(0.0, 1.0, 0.0), target(1.0, 0.0, 0.0), out(0.0, 0.0, -1.0);
  DeliveryTruth t;
  const cv::Vec3d v = truth.HeadVelocity(truth.impactTime);
  t.speedMps = cv::norm(v) * 1000.0;
  t.attackAngleDeg = std::asin(v.dot(up) / cv::norm(v)) / kDeg;
  t.pathDeg = std::atan2(v.dot(out), v.dot(target)) / kDeg;
  t.swingPlaneDeg = std::acos(std::min(1.0, std::abs(truth.axis.dot(up)))) / kDeg;
  cv::Vec3d groundLine = cv::normalize(up.cross(truth.axis));
  if (groundLine.dot(target) < 0.0) groundLine = -groundLine;
  t.swingDirectionDeg = std::atan2(groundLine.dot(out), groundLine.dot(target)) / kDeg;
  t.lowPoint = truth.pivot - truth.headRadius * toPivot;
  const cv::Vec3d rel = t.lowPoint - truth.ball;
  t.lowPointAheadMm = rel.dot(target);
  t.lowPointHeightMm = rel.dot(up);
  t.lowPointSideMm = rel.dot(out);
  return t;
}

}  // namespace

namespace detail {

SwingScene Sanitised(const SwingScene& scene) {
  SwingScene s = scene;
  s.speedMps = std::clamp(Finite(s.speedMps, 45.0), 0.0, 150.0);
  s.fps = std::clamp(Finite(s.fps, 2000.0), 100.0, 20000.0);
  s.frames = std::clamp(s.frames, 1, 2000);
  s.impactIndex = std::clamp(s.impactIndex, 0, s.frames);
  s.noiseSigma = std::clamp(Finite(s.noiseSigma, 1.0), 0.0, 50.0);
  if (s.directionDeg) s.directionDeg = std::clamp(Finite(*s.directionDeg, 0.0), -30.0, 30.0);
  s.lowPointAheadMm = std::clamp(Finite(s.lowPointAheadMm, 0.0), -300.0, 300.0);
  return s;
}

SceneDraws Draw(const SwingScene& scene) {
  SceneDraws d;
  const bool near = scene.placement == Placement::kNear;

  Rng geometry(Mix(scene.seed, kGeometryStream));
  d.pivotDistance = geometry.Uniform(1300.0, 1700.0);
  d.planeDeg = geometry.Uniform(45.0, 65.0);
  d.yawDeg = geometry.Uniform(-2.0, 2.0);
  d.accelFraction = geometry.Uniform(-0.02, 0.02);
  d.impactFraction = geometry.Uniform(0.3, 0.7);
  d.shaftRadius = geometry.Uniform(5.5, 6.5);
  d.headScale = geometry.Uniform(0.95, 1.05);
  d.launchDeg = geometry.Uniform(10.0, 15.0);
  d.ballSpeedRatio = geometry.Uniform(1.40, 1.50);

  // The pair of cameras sits on the far side of the ball from the golfer,
  // camera 1 on the +x side; both aim at the ball region.
  const double distance = near ? geometry.Uniform(680.0, 820.0) : geometry.Uniform(1500.0, 1800.0);
  const double elevation = near ? geometry.Uniform(9.0, 15.0) : geometry.Uniform(14.0, 20.0);
  const double azimuth = geometry.Uniform(-8.0, 8.0);
  d.baseline = near ? geometry.Uniform(230.0, 380.0) : geometry.Uniform(330.0, 560.0);
  const double halfAngle = std::asin(d.baseline / (2.0 * distance * std::cos(elevation * kDeg))) / kDeg;
  for (int c = 0; c < 2; ++c) {
    CameraDraw& cam = d.cameras[c];
    cam.distance = distance + geometry.Uniform(-40.0, 40.0);
    cam.azimuthDeg = azimuth + (c == 0 ? halfAngle : -halfAngle);
    cam.elevationDeg = elevation + geometry.Uniform(-1.5, 1.5);
    cam.focal = near ? geometry.Uniform(1000.0, 1100.0) : geometry.Uniform(1750.0, 1900.0);
    cam.principal = {640.0 + geometry.Uniform(-12.0, 12.0), 512.0 + geometry.Uniform(-12.0, 12.0)};
    if (near) {
      cam.aim = {geometry.Uniform(-25.0, 25.0), kBallRadius + geometry.Uniform(-5.0, 15.0),
                 geometry.Uniform(-15.0, 15.0)};
      cam.ballTarget = {320.0 + geometry.Uniform(-6.0, 6.0), 148.0 + geometry.Uniform(-5.0, 5.0)};
    } else {
      cam.aim = {geometry.Uniform(-40.0, 40.0), kBallRadius + geometry.Uniform(20.0, 150.0),
                 geometry.Uniform(-20.0, 20.0)};
      cam.ballTarget = {320.0 + geometry.Uniform(-8.0, 8.0), 336.0 + geometry.Uniform(-12.0, 12.0)};
    }
    cam.rollDeg = geometry.Uniform(-1.5, 1.5);
  }

  Rng timing(Mix(scene.seed, kTimingStream));
  d.firstStamp = 100000000ull + timing.Next() % 700000000ull;
  d.exposureUs = timing.Uniform(30.0, 100.0);
  d.dropIndex = scene.frames >= 5 ? timing.Int(2, scene.frames - 3) : -1;
  d.slaveJitter.resize(static_cast<size_t>(scene.frames));
  for (int& jitter : d.slaveJitter) jitter = timing.Int(-3, 3);
  d.flickerGain.resize(static_cast<size_t>(scene.frames));
  for (double& gain : d.flickerGain) {
    const double dip = timing.Uniform(0.02, 0.05);
    const bool dims = timing.Chance(0.5);
    gain = timing.Chance(0.6) ? 1.0 : (dims ? 1.0 - dip : 1.0 + dip);
  }

  Rng look(Mix(scene.seed, kLookStream));
  d.matAlbedo = look.Uniform(0.22, 0.32);
  d.turfAlbedo = look.Uniform(0.12, 0.22);
  d.textureContrast = look.Uniform(0.04, 0.08);
  d.matExtent[0] = look.Uniform(-850.0, -650.0);
  d.matExtent[1] = look.Uniform(650.0, 850.0);
  d.matExtent[2] = look.Uniform(-750.0, -550.0);
  d.matExtent[3] = look.Uniform(800.0, 1100.0);
  d.wallZ = look.Uniform(3000.0, 4000.0);
  d.wallAlbedo = look.Uniform(0.25, 0.45);
  d.feet[0] = {look.Uniform(-240.0, -190.0), look.Uniform(420.0, 540.0)};
  d.feet[1] = {look.Uniform(190.0, 240.0), look.Uniform(420.0, 540.0)};
  d.feetSplayDeg = look.Uniform(10.0, 25.0);
  d.legRadius = look.Uniform(55.0, 70.0);
  d.trouserAlbedo = look.Uniform(0.08, 0.2);
  d.shoeAlbedo = look.Uniform(0.15, 0.3);
  d.ambient = look.Uniform(0.08, 0.2);
  d.ballAlbedo = look.Uniform(0.8, 0.93);
  d.shaftAlbedo = look.Uniform(0.55, 0.75);
  d.shaftGloss = look.Uniform(0.2, 0.35);
  d.headAlbedo = look.Uniform(0.5, 0.6);
  d.headGloss = look.Uniform(0.12, 0.22);
  d.blackLevel = look.Uniform(6.0, 10.0);
  d.lightGain = look.Uniform(250.0, 280.0);
  d.textureSalt = look.Next();
  return d;
}

}  // namespace detail

SwingScene SwingScene::Varied(uint64_t seed) {
  detail::Rng rng(detail::Mix(seed, kVariedStream));
  SwingScene scene;
  scene.seed = seed;
  scene.speedMps = rng.Uniform(30.0, 55.0);
  scene.placement = rng.Chance(0.5) ? Placement::kNear : Placement::kFar;
  static constexpr double kRates[] = {1500.0, 2000.0, 2500.0, 3000.0};
  scene.fps = kRates[rng.Int(0, 3)];
  scene.iron = rng.Chance(0.25);
  return scene;
}

cv::Vec3d CameraModel::Center() const { return -(R.t() * t); }

cv::Vec2d CameraModel::Project(const cv::Vec3d& world) const {
  const cv::Vec3d p = K * (R * world + t);
  return {p[0] / p[2], p[1] / p[2]};
}

cv::Vec2d CameraModel::ProjectToWindow(const cv::Vec3d& world) const {
  const cv::Vec2d p = Project(world);
  return {p[0] - sensorOffsetX, p[1] - sensorOffsetY};
}

void CameraModel::Intrinsic(double values[9]) const {
  for (int i = 0; i < 9; ++i) values[i] = K.val[i];
}

void CameraModel::Extrinsic(double values[12]) const {
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) values[r * 4 + c] = R(r, c);
    values[r * 4 + 3] = t[r];
  }
}

cv::Vec2f HoughLineOf(const CameraModel& camera, const cv::Vec3d& a, const cv::Vec3d& b) {
  const cv::Vec2d p = camera.Project(a);
  const cv::Vec2d q = camera.Project(b);
  const cv::Vec2d direction = q - p;
  double theta = std::atan2(direction[0], -direction[1]);  // normal (-dy, dx) rotated into atan2 form
  cv::Vec2d normal(std::cos(theta), std::sin(theta));
  double rho = normal.dot(p);
  while (theta < 0.0) {
    theta += kPi;
    rho = -rho;
  }
  while (theta >= kPi) {
    theta -= kPi;
    rho = -rho;
  }
  return {static_cast<float>(rho), static_cast<float>(theta)};
}

double SwingTruth::SwingAngle(double timeUs) const {
  const double tau = timeUs - impactTime;
  return omega0 * tau + 0.5 * alpha * tau * tau;
}

cv::Vec3d SwingTruth::ShaftDirection(double timeUs) const {
  const cv::Vec3d atImpact = cv::normalize(ball - pivot);
  return cv::normalize(Rotate(atImpact, axis, SwingAngle(timeUs)));
}

cv::Vec3d SwingTruth::HeadVelocity(double timeUs) const {
  const double rate = omega0 + alpha * (timeUs - impactTime);
  return rate * axis.cross(HeadCentre(timeUs) - pivot);
}

cv::Vec3d SwingTruth::HeadCentre(double timeUs) const {
  return pivot + headRadius * ShaftDirection(timeUs);
}

cv::Vec3d SwingTruth::ShaftPoint(double timeUs, double distance) const {
  return pivot + distance * ShaftDirection(timeUs);
}

cv::Vec3d SwingTruth::BallCentre(double timeUs) const {
  const double tau = timeUs - impactTime;
  if (!(tau > 0.0)) return ball;
  const double launch = launchDeg * kDeg;
  return ball + ballSpeed * tau * cv::Vec3d(std::cos(launch), std::sin(launch), 0.0);
}

cv::Vec2f SwingTruth::ShaftLine(int camera, double timeUs) const {
  return HoughLineOf(cameras[camera], ShaftPoint(timeUs, gripDistance),
                     ShaftPoint(timeUs, headRadius));
}

double SwingTruth::FrameTime(int camera, int index) const {
  return static_cast<double>(timeStamps[camera].at(static_cast<size_t>(index)));
}

cv::Vec2d SwingTruth::BallInWindow(int camera) const {
  return cameras[camera].ProjectToWindow(ball);
}

SwingTruth MakeTruth(const SwingScene& input) {
  const SwingScene scene = detail::Sanitised(input);
  const detail::SceneDraws d = detail::Draw(scene);
  const bool near = scene.placement == Placement::kNear;
  SwingTruth truth;

  truth.ballRadius = kBallRadius;
  truth.ball = {0.0, kBallRadius, 0.0};
  const double phi = d.planeDeg * kDeg;
  const double yaw = (scene.directionDeg ? *scene.directionDeg : d.yawDeg) * kDeg;
  const double r = d.pivotDistance;
  // In the plane: `toPivot` from the low point up to the pivot, `ground` the
  // ground line the head travels along at the low point.
  const cv::Vec3d toPivot = RotateAboutY(cv::Vec3d(0.0, std::sin(phi), std::cos(phi)), yaw);
  if (scene.lowPointAheadMm == 0.0) {
    truth.pivot = truth.ball + RotateAboutY(cv::Vec3d(0.0, std::sin(phi), std::cos(phi)) * r, yaw);
  } else {
    // The ball sits `before` radians before the low point on the arc.
    const cv::Vec3d ground = RotateAboutY(cv::Vec3d(1.0, 0.0, 0.0), yaw);
    const double before = std::asin(std::clamp(scene.lowPointAheadMm / r, -1.0, 1.0));
    truth.pivot = truth.ball + r * std::cos(before) * toPivot + r * std::sin(before) * ground;
  }
  truth.axis = cv::normalize(RotateAboutY(cv::Vec3d(0.0, -std::cos(phi), std::sin(phi)), yaw));
  truth.headRadius = cv::norm(truth.pivot - truth.ball);
  truth.clubHeadSpeed = scene.speedMps / 1000.0;
  truth.omega0 = truth.clubHeadSpeed / truth.headRadius;
  truth.clubHeadSpeed = truth.omega0 * truth.headRadius;
  truth.clubHeadSpeedMps = truth.clubHeadSpeed * 1000.0;
  truth.trueHeadCentreSpeedMps = truth.clubHeadSpeedMps;  // the head centre lies on the radius
  truth.alpha = d.accelFraction * truth.omega0 / 5000.0;
  truth.fps = scene.fps;
  truth.impactIndex = scene.impactIndex;

  const double scale = d.headScale;
  truth.headSemiAxes = scene.iron ? cv::Vec3d(40.0, 22.0, 15.0) * scale
                                  : cv::Vec3d(58.0, 28.0, 30.0) * scale;
  truth.shaftRadius = d.shaftRadius;
  truth.gripDistance = truth.headRadius - kGripFromHead;
  truth.hoselDistance = truth.headRadius - 0.5 * truth.headSemiAxes[1];
  truth.exposureUs = d.exposureUs;
  truth.ballSpeed = d.ballSpeedRatio * truth.clubHeadSpeed;
  truth.launchDeg = d.launchDeg;
  truth.droppedFrame = scene.dropFrame ? d.dropIndex : -1;

  // Time stamps: camera 1 on the exact frame clock rounded to microseconds,
  // camera 2 within 3 us of it.
  const double period = 1.0e6 / scene.fps;
  truth.impactTime = static_cast<double>(d.firstStamp) +
                     (scene.impactIndex - 1 + d.impactFraction) * period;
  for (int k = 0; k < scene.frames; ++k) {
    const uint64_t stamp = d.firstStamp + static_cast<uint64_t>(std::llround(k * period));
    truth.timeStamps[0].push_back(stamp);
    if (k == truth.droppedFrame) continue;
    truth.timeStamps[1].push_back(static_cast<uint64_t>(static_cast<int64_t>(stamp) +
                                                        d.slaveJitter[static_cast<size_t>(k)]));
  }

  const int windowWidth = 640;
  const int windowHeight = near ? 208 : 480;
  for (int c = 0; c < 2; ++c) {
    const detail::CameraDraw& cd = d.cameras[c];
    const double az = cd.azimuthDeg * kDeg;
    const double el = cd.elevationDeg * kDeg;
    const cv::Vec3d centre =
        cd.aim + cd.distance * cv::Vec3d(std::sin(az) * std::cos(el), std::sin(el),
                                         -std::cos(az) * std::cos(el));
    CameraModel camera = LookAt(centre, cd.aim, cd.rollDeg, cd.focal, cd.principal);
    camera.width = windowWidth;
    camera.height = windowHeight;
    const cv::Vec2d onSensor = camera.Project(truth.ball);
    camera.sensorOffsetX = std::clamp(static_cast<int>(std::lround(onSensor[0] - cd.ballTarget[0])),
                                      0, kSensorWidth - windowWidth);
    camera.sensorOffsetY = std::clamp(static_cast<int>(std::lround(onSensor[1] - cd.ballTarget[1])),
                                      0, kSensorHeight - windowHeight);
    truth.cameras[c] = camera;
  }
  truth.delivery = MakeDeliveryTruth(truth, toPivot);
  return truth;
}

ClubTrackerSetting MakeSetting(const SwingTruth& truth) {
  ClubTrackerSetting setting{};
  InitClubTrackerSetting(setting);
  truth.cameras[0].Intrinsic(setting.cam1Intrinsic);
  truth.cameras[0].Extrinsic(setting.cam1Extrinsic);
  truth.cameras[1].Intrinsic(setting.cam2Intrinsic);
  truth.cameras[1].Extrinsic(setting.cam2Extrinsic);
  setting.logContext = nullptr;
  return setting;
}

std::string FrameFileName(const ClubImage& image, bool png) {
  char name[128];
  std::snprintf(name, sizeof(name), "%llu_%d_%d_%.2f_%.2f.%s",
                static_cast<unsigned long long>(image.timeStamp), image.sensorOffsetX,
                image.sensorOffsetY, static_cast<double>(image.ballX),
                static_cast<double>(image.ballY), png ? "png" : "bmp");
  return name;
}

std::vector<ClubImage*> Recording::Cam1() {
  std::vector<ClubImage*> list;
  list.reserve(images[0].size());
  for (ClubImage& image : images[0]) list.push_back(&image);
  return list;
}

std::vector<ClubImage*> Recording::Cam2() {
  std::vector<ClubImage*> list;
  list.reserve(images[1].size());
  for (ClubImage& image : images[1]) list.push_back(&image);
  return list;
}

}  // namespace synth
