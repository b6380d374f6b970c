// The synthetic swing generator: geometry of the truth, what the frames show
// to the tracker's first stages, determinism and variety.
#include <string>
#include <ostream>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <memory>
#include <set>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <tbb/global_control.h>

#include "synth/swing.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

bool SameScene(const synth::SwingScene& a, const synth::SwingScene& b) {
  return a.seed == b.seed && a.placement == b.placement && a.speedMps == b.speedMps &&
         a.fps == b.fps && a.frames == b.frames && a.impactIndex == b.impactIndex &&
         a.noiseSigma == b.noiseSigma && a.flicker == b.flicker && a.dropFrame == b.dropFrame &&
         a.iron == b.iron && a.darkShaft == b.darkShaft && a.noClub == b.noClub;
}

// Recordings shared by the tests of this file, rendered once each.
const synth::Recording& Rendered(const synth::SwingScene& scene) {
  static std::vector<std::unique_ptr<synth::Recording>> cache;
  for (const auto& rec : cache) {
    if (SameScene(rec->scene, scene)) return *rec;
  }
  cache.push_back(std::make_unique<synth::Recording>(synth::Render(scene)));
  return *cache.back();
}

cv::Mat FrameOf(const ClubImage& image) {
  return cv::Mat(static_cast<int>(image.height), static_cast<int>(image.width), CV_8UC1,
                 image.pixels);
}

cv::Matx33d Matx33(const double* v) { return cv::Matx33d(v); }

// Ball centre projected with the calibration as the tracker reads it, in
// window pixels of the frame.
cv::Vec2d ProjectWithSetting(const double* intrinsic, const double* extrinsic, const cv::Vec3d& p,
                             const ClubImage& frame) {
  const cv::Matx33d K = Matx33(intrinsic);
  const cv::Matx33d R(extrinsic[0], extrinsic[1], extrinsic[2], extrinsic[4], extrinsic[5],
                      extrinsic[6], extrinsic[8], extrinsic[9], extrinsic[10]);
  const cv::Vec3d t(extrinsic[3], extrinsic[7], extrinsic[11]);
  const cv::Vec3d q = K * (R * p + t);
  return {q[0] / q[2] - frame.sensorOffsetX, q[1] / q[2] - frame.sensorOffsetY};
}

// The candidate mask of frame i the way the tracker's differencing builds it:
// median-filtered frames, references more than 2000 us away (index 0 is never
// an earlier reference by the scan), fallbacks to the far end, and pixels that
// differ by 2 or more from both.
std::vector<cv::Mat> CandidateMasks(const std::vector<ClubImage>& frames) {
  const int n = static_cast<int>(frames.size());
  std::vector<cv::Mat> filtered(static_cast<size_t>(n));
  for (int i = 0; i < n; ++i) cv::medianBlur(FrameOf(frames[i]), filtered[i], 3);
  auto gapOk = [&](int a, int b) {
    const uint32_t gap = static_cast<uint32_t>(frames[b].timeStamp) -
                         static_cast<uint32_t>(frames[a].timeStamp);
    return gap > 2000u;
  };
  std::vector<cv::Mat> masks;
  for (int i = 0; i < n; ++i) {
    int p = -1, q = -1;
    for (int j = i - 1; j >= 1 && p < 0; --j) {
      if (gapOk(j, i)) p = j;
    }
    for (int k = i + 1; k < n && q < 0; ++k) {
      if (gapOk(i, k)) q = k;
    }
    if (p < 0) p = n - 1;
    if (q < 0) q = 0;
    cv::Mat d1, d2, mask;
    cv::Mat a1, a2;
    cv::absdiff(filtered[i], filtered[p], a1);
    cv::absdiff(filtered[i], filtered[q], a2);
    cv::threshold(a1, d1, 1.0, 255.0, cv::THRESH_BINARY);
    cv::threshold(a2, d2, 1.0, 255.0, cv::THRESH_BINARY);
    masks.push_back(d1 & d2);
  }
  return masks;
}

void Morph(const cv::Mat& src, cv::Mat& dst, int op, int shape, int k) {
  cv::morphologyEx(src, dst, op, cv::getStructuringElement(shape, cv::Size(k, k)),
                   cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::morphologyDefaultBorderValue());
}

// The presence test: cleaned blob thicker than a square of about a quarter of
// the smaller side.
bool BlobPresent(const cv::Mat& mask) {
  cv::Mat refined;
  Morph(mask, refined, cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 3);
  Morph(refined, refined, cv::MORPH_CLOSE, cv::MORPH_RECT, 5);
  Morph(refined, refined, cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7);
  Morph(refined, refined, cv::MORPH_CLOSE, cv::MORPH_ELLIPSE, 31);
  const int m = std::min(refined.rows, refined.cols);
  const int s = 2 * ((m / 4) / 2) + 1;
  cv::Mat eroded;
  Morph(refined, eroded, cv::MORPH_ERODE, cv::MORPH_RECT, s);
  return cv::countNonZero(eroded) > 0;
}

// ---------------------------------------------------------------------------
// Geometry, for a set of scenes.

struct SceneCase {
  const char* name;
  synth::SwingScene scene;
};

void PrintTo(const SceneCase& c, std::ostream* os) { *os << c.name; }

synth::SwingScene Near(uint64_t seed) {
  synth::SwingScene s;
  s.seed = seed;
  return s;
}
synth::SwingScene Far(uint64_t seed) {
  synth::SwingScene s;
  s.seed = seed;
  s.placement = synth::Placement::kFar;
  return s;
}

std::vector<SceneCase> GeometryCases() {
  std::vector<SceneCase> cases = {{"near1", Near(1)}, {"far2", Far(2)}};
  if (!Sanitized()) {
    cases.push_back({"near7", Near(7)});
    cases.push_back({"far11", Far(11)});
    synth::SwingScene slow = Near(3);
    slow.speedMps = 30.0;
    cases.push_back({"near3slow", slow});
    synth::SwingScene fast = Far(4);
    fast.speedMps = 55.0;
    fast.fps = 3000.0;
    cases.push_back({"far4fast", fast});
    cases.push_back({"varied5", synth::SwingScene::Varied(5)});
    cases.push_back({"varied6", synth::SwingScene::Varied(6)});
  }
  return cases;
}

class SynthGeometry : public ::testing::TestWithParam<SceneCase> {};

TEST_P(SynthGeometry, BallProjectsOntoTheFramesBallPosition) {
  const synth::Recording& rec = Rendered(GetParam().scene);
  const double* intrinsic[2] = {rec.setting.cam1Intrinsic, rec.setting.cam2Intrinsic};
  const double* extrinsic[2] = {rec.setting.cam1Extrinsic, rec.setting.cam2Extrinsic};
  for (int c = 0; c < 2; ++c) {
    ASSERT_FALSE(rec.images[c].empty());
    const cv::Vec2d exact = rec.truth.BallInWindow(c);
    for (const ClubImage& image : rec.images[c]) {
      const cv::Vec2d p = ProjectWithSetting(intrinsic[c], extrinsic[c], rec.truth.ball, image);
      EXPECT_NEAR(p[0], image.ballX, 0.0051);
      EXPECT_NEAR(p[1], image.ballY, 0.0051);
      EXPECT_EQ(image.ballX, rec.images[c][0].ballX);
      EXPECT_EQ(image.ballY, rec.images[c][0].ballY);
      EXPECT_EQ(image.ballRadius, 0.0f);
      const std::string name = synth::FrameFileName(image);
      char expected[64];
      std::snprintf(expected, sizeof(expected), "_%.2f_%.2f.bmp", exact[0], exact[1]);
      EXPECT_NE(name.find(expected), std::string::npos) << name << " vs " << expected;
    }
  }
}

TEST_P(SynthGeometry, SwingMeetsItsDefinition) {
  const synth::SwingScene& scene = GetParam().scene;
  const synth::SwingTruth t = synth::MakeTruth(scene);
  const cv::Vec3d ball(0.0, 21.35, 0.0);
  EXPECT_EQ(t.ball, ball);
  EXPECT_LT(cv::norm(t.HeadCentre(t.impactTime) - ball), 1e-9);
  EXPECT_NEAR(t.clubHeadSpeed, t.omega0 * t.headRadius, 1e-15);
  EXPECT_NEAR(t.clubHeadSpeedMps, scene.speedMps, 1e-9);
  EXPECT_NEAR(t.trueHeadCentreSpeedMps, scene.speedMps, 1e-9);
  // The head's velocity at impact, numerically: the speed, along the target line.
  const double h = 1.0;
  const cv::Vec3d v = (t.HeadCentre(t.impactTime + h) - t.HeadCentre(t.impactTime - h)) / (2 * h);
  EXPECT_NEAR(cv::norm(v), t.clubHeadSpeed, 1e-9);
  EXPECT_GT(v[0] / cv::norm(v), 0.99);
  // Pivot and axis within the ranges the tracker's defaults expect.
  EXPECT_GE(t.headRadius, 1300.0);
  EXPECT_LE(t.headRadius, 1700.0);
  EXPECT_NEAR(cv::norm(t.pivot - ball), t.headRadius, 1e-9);
  EXPECT_GE(t.pivot[1] - ball[1], 700.0);
  EXPECT_LE(t.pivot[1] - ball[1], 2000.0);
  EXPECT_NEAR(cv::norm(t.axis), 1.0, 1e-12);
  EXPECT_GE(t.axis[2], 0.5);
  EXPECT_NEAR(t.axis.dot(t.pivot - ball), 0.0, 1e-9);
  const double inclination = std::asin((t.pivot[1] - ball[1]) / t.headRadius) * 180.0 / kPi;
  EXPECT_GE(inclination, 45.0 - 1e-9);
  EXPECT_LE(inclination, 65.0 + 1e-9);
  // The head stays on its circle about the axis.
  for (double dt : {-3000.0, -700.0, 1500.0}) {
    const cv::Vec3d hc = t.HeadCentre(t.impactTime + dt);
    EXPECT_NEAR(cv::norm(hc - t.pivot), t.headRadius, 1e-9);
    EXPECT_NEAR((hc - t.pivot).dot(t.axis), 0.0, 1e-9);
  }
  // Ball at rest until impact, then faster than the club, rising.
  EXPECT_EQ(t.BallCentre(t.impactTime - 1.0), ball);
  const cv::Vec3d flight = t.BallCentre(t.impactTime + 1000.0) - ball;
  EXPECT_NEAR(cv::norm(flight) / 1000.0 / t.clubHeadSpeed, 1.45, 0.05 + 1e-9);
  const double rise = std::atan2(flight[1], flight[0]) * 180.0 / kPi;
  EXPECT_GE(rise, 10.0);
  EXPECT_LE(rise, 15.0);
}

TEST_P(SynthGeometry, CamerasAndClocksFollowTheRig) {
  const synth::SwingScene& scene = GetParam().scene;
  const synth::SwingTruth t = synth::MakeTruth(scene);
  const bool near = scene.placement == synth::Placement::kNear;
  const cv::Vec3d c0 = t.cameras[0].Center();
  const cv::Vec3d c1 = t.cameras[1].Center();
  const double baseline = cv::norm(c0 - c1);
  EXPECT_GE(baseline, 200.0);
  EXPECT_LE(baseline, 600.0);
  EXPECT_GT(c0[0], c1[0]);  // camera 1 on the +x side
  for (int c = 0; c < 2; ++c) {
    const synth::CameraModel& m = t.cameras[c];
    const cv::Vec3d centre = m.Center();
    EXPECT_LT(centre[2], -300.0);  // far side of the ball from the golfer
    const double distance = cv::norm(centre - t.ball);
    EXPECT_GE(distance, near ? 600.0 : 1400.0);
    EXPECT_LE(distance, near ? 900.0 : 2000.0);
    EXPECT_NEAR(cv::determinant(cv::Mat(m.R)), 1.0, 1e-12);
    EXPECT_LT(cv::norm(cv::Mat(m.R * m.R.t() - cv::Matx33d::eye())), 1e-12);
    EXPECT_EQ(m.width, 640);
    EXPECT_EQ(m.height, near ? 208 : 480);
    EXPECT_GE(m.sensorOffsetX, 0);
    EXPECT_GE(m.sensorOffsetY, 0);
    EXPECT_LE(m.sensorOffsetX + m.width, 1280);
    EXPECT_LE(m.sensorOffsetY + m.height, 1024);
    const cv::Vec2d ball = t.BallInWindow(c);
    EXPECT_GT(ball[0], 0.25 * m.width);
    EXPECT_LT(ball[0], 0.75 * m.width);
    EXPECT_GT(ball[1], 0.5 * m.height);
    EXPECT_LT(ball[1], 0.9 * m.height);
  }
  const double period = 1.0e6 / scene.fps;
  ASSERT_EQ(t.timeStamps[0].size(), static_cast<size_t>(scene.frames));
  ASSERT_EQ(t.timeStamps[1].size(), static_cast<size_t>(scene.frames));
  for (size_t k = 0; k < t.timeStamps[0].size(); ++k) {
    EXPECT_GE(t.timeStamps[0][k], 100000000u);
    EXPECT_LE(t.timeStamps[0][k], 999999999u);
    const int64_t skew =
        static_cast<int64_t>(t.timeStamps[1][k]) - static_cast<int64_t>(t.timeStamps[0][k]);
    EXPECT_LE(std::abs(skew), 3);
    if (k > 0) {
      EXPECT_NEAR(static_cast<double>(t.timeStamps[0][k] - t.timeStamps[0][k - 1]), period, 1.0);
    }
  }
  // Impact between the last before-impact frame and the first after it.
  EXPECT_GT(t.impactTime, t.FrameTime(0, scene.impactIndex - 1));
  EXPECT_LT(t.impactTime, t.FrameTime(0, scene.impactIndex));
}

// The shaft near impact is a steep band at least 8 px wide in both cameras.
TEST_P(SynthGeometry, ShaftNearImpactIsASteepWideBand) {
  const synth::Recording& rec = Rendered(GetParam().scene);
  const synth::SwingTruth& t = rec.truth;
  for (int c = 0; c < 2; ++c) {
    for (int k : {t.impactIndex - 1, t.impactIndex}) {
      const double time = t.FrameTime(c, k);
      const cv::Vec2f line = t.ShaftLine(c, time);
      EXPECT_GT(std::abs(line[1] - kPi / 2), kPi / 8) << "camera " << c << " frame " << k;
      // Measure the band across a row above the head, in the frame itself.
      const synth::CameraModel& m = t.cameras[c];
      const cv::Vec2d head = m.ProjectToWindow(t.HeadCentre(time));
      const cv::Vec2d top = m.ProjectToWindow(t.ShaftPoint(time, t.headRadius - 110.0));
      const int row = static_cast<int>(std::lround(top[1]));
      ASSERT_GE(row, 2);
      ASSERT_LT(row, static_cast<int>(head[1]));
      const cv::Mat frame = FrameOf(rec.images[c][static_cast<size_t>(k)]);
      // Expected column of the centre line on that row (full-sensor Hough form).
      const double y = row + 0.5 + m.sensorOffsetY;
      const double xCentre =
          (line[0] - y * std::sin(line[1])) / std::cos(line[1]) - m.sensorOffsetX;
      const int x0 = static_cast<int>(std::lround(xCentre));
      ASSERT_GE(x0, 0);
      ASSERT_LT(x0, frame.cols);
      const int peak = frame.at<uchar>(row, x0);
      int left = x0, right = x0;
      const int far = std::min(std::max(x0 - 60, 0), frame.cols - 1);
      const int background = frame.at<uchar>(row, far);
      const int level = background + 12;
      while (left > 0 && frame.at<uchar>(row, left - 1) > level) --left;
      while (right < frame.cols - 1 && frame.at<uchar>(row, right + 1) > level) ++right;
      const double across = (right - left + 1) * std::abs(std::cos(line[1]));
      EXPECT_GT(peak - background, 40) << "camera " << c << " frame " << k;
      EXPECT_GE(across, 8.0) << "camera " << c << " frame " << k;
      EXPECT_LT(across, 40.0) << "camera " << c << " frame " << k;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Scenes, SynthGeometry, ::testing::ValuesIn(GeometryCases()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---------------------------------------------------------------------------
// What the first tracker stages see.

struct PresenceCase {
  uint64_t seed;
  double speed;
  double fps;
};

void PrintTo(const PresenceCase& c, std::ostream* os) { *os << "seed " << c.seed << ", " << c.speed << " m/s, " << c.fps << " fps"; }

class SynthPresence : public ::testing::TestWithParam<PresenceCase> {};

TEST_P(SynthPresence, NearHeadBlobPassesThePresenceTestInBothCameras) {
  synth::SwingScene scene;
  scene.seed = GetParam().seed;
  scene.speedMps = GetParam().speed;
  scene.fps = GetParam().fps;
  const synth::Recording& rec = Rendered(scene);
  const std::vector<cv::Mat> masks1 = CandidateMasks(rec.images[0]);
  const std::vector<cv::Mat> masks2 = CandidateMasks(rec.images[1]);
  int both = 0;
  for (size_t i = 0; i < masks1.size(); ++i) {
    if (BlobPresent(masks1[i]) && BlobPresent(masks2[i])) ++both;
  }
  EXPECT_GT(both, 10);
}

std::vector<PresenceCase> PresenceCases() {
  std::vector<PresenceCase> cases = {{1, 45.0, 2000.0}};
  if (!Sanitized()) {
    for (uint64_t seed = 2; seed <= 5; ++seed) cases.push_back({seed, 45.0, 2000.0});
    cases.push_back({6, 30.0, 2000.0});
    cases.push_back({7, 55.0, 2000.0});
    cases.push_back({8, 40.0, 3000.0});
  }
  return cases;
}

INSTANTIATE_TEST_SUITE_P(Near, SynthPresence, ::testing::ValuesIn(PresenceCases()));

// Differencing frames five apart (after a 3 x 3 median filter) keeps the club
// and drops the static scene.
TEST(SynthDifference, ThreeFrameDifferenceShowsTheClubOnly) {
  for (const synth::SwingScene& scene : {Near(1), Far(2)}) {
    const synth::Recording& rec = Rendered(scene);
    const synth::SwingTruth& t = rec.truth;
    for (int c = 0; c < 2; ++c) {
      const std::vector<cv::Mat> masks = CandidateMasks(rec.images[c]);
      const synth::CameraModel& m = t.cameras[c];
      for (int i = t.impactIndex - 3; i <= t.impactIndex + 2; ++i) {
        // Where the club and the ball are in this frame and its two references.
        cv::Mat near(m.height, m.width, CV_8UC1, cv::Scalar(0));
        for (int k : {i - 5, i, i + 5}) {
          const double time = t.FrameTime(c, k);
          const cv::Vec2d head = m.ProjectToWindow(t.HeadCentre(time));
          const cv::Vec2d ball = m.ProjectToWindow(t.BallCentre(time));
          const cv::Vec2d grip = m.ProjectToWindow(t.ShaftPoint(time, t.gripDistance));
          const double scale = m.K(0, 0) / (m.R * t.HeadCentre(time) + m.t)[2];
          cv::circle(near, cv::Point(head), static_cast<int>(75 * scale) + 10, 255, -1);
          cv::circle(near, cv::Point(ball), static_cast<int>(25 * scale) + 10, 255, -1);
          cv::line(near, cv::Point(head), cv::Point(grip), 255, static_cast<int>(14 * scale) + 20);
        }
        // Sensor noise leaves small specks, which the first three steps of
        // the tracker's cleaning remove; nothing of the static scene remains.
        const cv::Mat& mask = masks[static_cast<size_t>(i)];
        const int awayArea = cv::countNonZero(~near);
        EXPECT_LT(cv::countNonZero(mask & ~near), awayArea / 100) << "camera " << c << " frame " << i;
        cv::Mat cleaned;
        Morph(mask, cleaned, cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 3);
        Morph(cleaned, cleaned, cv::MORPH_CLOSE, cv::MORPH_RECT, 5);
        Morph(cleaned, cleaned, cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7);
        EXPECT_EQ(cv::countNonZero(cleaned & ~near), 0) << "camera " << c << " frame " << i;
        // The head of frame i itself is in the mask.
        const cv::Vec2d head = m.ProjectToWindow(t.HeadCentre(t.FrameTime(c, i)));
        const cv::Rect core(cv::Point(head) - cv::Point(8, 8), cv::Size(17, 17));
        const cv::Rect window(0, 0, m.width, m.height);
        if ((core & window) == core) {
          EXPECT_GT(cv::countNonZero(mask(core)), 17 * 17 * 3 / 4)
              << "camera " << c << " frame " << i;
        }
      }
    }
  }
}

// ---------------------------------------------------------------------------
// Determinism and variety.

bool SameBytes(const synth::Recording& a, const synth::Recording& b) {
  for (int c = 0; c < 2; ++c) {
    if (a.pixels[c] != b.pixels[c]) return false;
    if (a.truth.timeStamps[c] != b.truth.timeStamps[c]) return false;
  }
  return true;
}

TEST(SynthDeterminism, SameSceneGivesTheSameBytesWhateverTheThreads) {
  synth::SwingScene scene = Near(21);
  scene.flicker = true;
  scene.dropFrame = true;
  const synth::Recording a = synth::Render(scene);
  synth::Recording b;
  {
    tbb::global_control oneThread(tbb::global_control::max_allowed_parallelism, 1);
    b = synth::Render(scene);
  }
  EXPECT_TRUE(SameBytes(a, b));
  EXPECT_EQ(synth::TruthJson(a), synth::TruthJson(b));
  for (int c = 0; c < 2; ++c) {
    for (size_t k = 0; k < b.images[c].size(); ++k) {
      EXPECT_EQ(b.images[c][k].pixels, b.pixels[c][k].data());
    }
  }
}

TEST(SynthDeterminism, DifferentSeedsGiveDifferentSwingsWithinTheRanges) {
  const int count = Sanitized() ? 12 : 60;
  std::set<double> radii;
  int far = 0, iron = 0;
  std::set<double> rates;
  for (int seed = 1; seed <= count; ++seed) {
    const synth::SwingScene scene = synth::SwingScene::Varied(static_cast<uint64_t>(seed));
    EXPECT_EQ(scene.seed, static_cast<uint64_t>(seed));
    EXPECT_GE(scene.speedMps, 30.0);
    EXPECT_LE(scene.speedMps, 55.0);
    EXPECT_GE(scene.fps, 1000.0);
    EXPECT_LE(scene.fps, 4000.0);
    far += scene.placement == synth::Placement::kFar;
    iron += scene.iron;
    rates.insert(scene.fps);
    const synth::SwingTruth t = synth::MakeTruth(scene);
    radii.insert(t.headRadius);
    EXPECT_NEAR(t.clubHeadSpeedMps, scene.speedMps, 1e-9);
  }
  EXPECT_EQ(radii.size(), static_cast<size_t>(count));
  EXPECT_GT(far, 0);
  EXPECT_LT(far, count);
  EXPECT_GT(iron, 0);
  EXPECT_GT(rates.size(), 1u);

  const synth::Recording& a = Rendered(Near(1));
  const synth::Recording b = synth::Render(Near(32));
  EXPECT_FALSE(SameBytes(a, b));
  EXPECT_NE(a.truth.pivot, b.truth.pivot);
}

// Switches change only what they are about: the swing stays the same.
TEST(SynthDeterminism, SwitchesKeepTheSwing) {
  const synth::SwingTruth plain = synth::MakeTruth(Near(41));
  synth::SwingScene switched = Near(41);
  switched.flicker = true;
  switched.darkShaft = true;
  switched.noiseSigma = 2.0;
  const synth::SwingTruth other = synth::MakeTruth(switched);
  EXPECT_EQ(plain.pivot, other.pivot);
  EXPECT_EQ(plain.axis, other.axis);
  EXPECT_EQ(plain.impactTime, other.impactTime);
  EXPECT_EQ(plain.timeStamps[1], other.timeStamps[1]);
  for (int c = 0; c < 2; ++c) {
    EXPECT_EQ(plain.cameras[c].sensorOffsetX, other.cameras[c].sensorOffsetX);
    EXPECT_EQ(cv::Mat(plain.cameras[c].R).at<double>(0, 0),
              cv::Mat(other.cameras[c].R).at<double>(0, 0));
  }
}

// ---------------------------------------------------------------------------
// Options that change the pictures.

TEST(SynthOptions, DroppedFrameFlickerDarkShaftAndNoClub) {
  synth::SwingScene scene = Near(51);
  scene.dropFrame = true;
  scene.flicker = true;
  const synth::Recording rec = synth::Render(scene);
  const synth::SwingTruth& t = rec.truth;
  ASSERT_GE(t.droppedFrame, 0);
  EXPECT_EQ(rec.images[0].size(), static_cast<size_t>(scene.frames));
  EXPECT_EQ(rec.images[1].size(), static_cast<size_t>(scene.frames - 1));
  // Every camera 2 frame still has a partner within 3 us; the dropped one has none.
  for (size_t j = 0; j < rec.images[1].size(); ++j) {
    const size_t k = j < static_cast<size_t>(t.droppedFrame) ? j : j + 1;
    const int64_t skew = static_cast<int64_t>(rec.images[1][j].timeStamp) -
                         static_cast<int64_t>(rec.images[0][k].timeStamp);
    EXPECT_LE(std::abs(skew), 3);
    // afterImpact follows the position in the camera's own list, as the replay sets it.
    EXPECT_EQ(rec.images[1][j].afterImpact, j >= static_cast<size_t>(t.impactIndex) ? 1u : 0u);
  }
  // Flicker: the static scene scales frame by frame, and not always by 1.
  // Without flicker the noise is the same, so wherever the club-less frame
  // equals the steady one the pixel shows the static scene.
  const synth::Recording steady = synth::Render(Near(51));
  synth::SwingScene none = Near(51);
  none.noClub = true;
  const synth::Recording noneRec = synth::Render(none);
  int flickered = 0;
  for (size_t k = 0; k < rec.images[0].size(); ++k) {
    const cv::Mat staticPart = FrameOf(steady.images[0][k]) == FrameOf(noneRec.images[0][k]);
    const double black = 8.0;
    const double ratio = (cv::mean(FrameOf(rec.images[0][k]), staticPart)[0] - black) /
                         (cv::mean(FrameOf(steady.images[0][k]), staticPart)[0] - black);
    if (std::abs(ratio - 1.0) > 0.015) ++flickered;
    EXPECT_LT(std::abs(ratio - 1.0), 0.07) << "frame " << k;
  }
  EXPECT_GT(flickered, 0);

  // Dark shaft: along the shaft above the head the frame looks like the
  // background; the head still shows.
  synth::SwingScene dark = Near(51);
  dark.darkShaft = true;
  const synth::Recording darkRec = synth::Render(dark);
  const int k = t.impactIndex - 4;  // head clear of the ball
  const double time = t.FrameTime(0, k);
  const synth::CameraModel& m = t.cameras[0];
  const cv::Vec2d onShaft = m.ProjectToWindow(t.ShaftPoint(time, t.headRadius - 100.0));
  const cv::Vec2d head = m.ProjectToWindow(t.HeadCentre(time));
  const cv::Point s(onShaft), h(head);
  const cv::Mat withShaft = FrameOf(steady.images[0][k]);
  const cv::Mat darkFrame = FrameOf(darkRec.images[0][k]);
  const cv::Mat noClubFrame = FrameOf(noneRec.images[0][k]);
  EXPECT_GT(withShaft.at<uchar>(s) - noClubFrame.at<uchar>(s), 40);
  EXPECT_LE(std::abs(darkFrame.at<uchar>(s) - noClubFrame.at<uchar>(s)), 5);
  EXPECT_GT(darkFrame.at<uchar>(h) - noClubFrame.at<uchar>(h), 40);
  // No club: away from the ball the frames before impact are the static scene.
  const cv::Mat first = FrameOf(noneRec.images[0][0]);
  const cv::Mat last = FrameOf(noneRec.images[0][static_cast<size_t>(t.impactIndex - 1)]);
  cv::Mat diff;
  cv::absdiff(first, last, diff);
  EXPECT_LE(cv::mean(diff)[0], 1.5);
  EXPECT_NEAR(cv::mean(first)[0], cv::mean(last)[0], 0.1);
}

}  // namespace
