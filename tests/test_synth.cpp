// The synthetic swing generator: geometry of the truth, what the frames show
// to the tracker's first stages, determinism and variety.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ostream>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <tbb/global_control.h>

#include "synth/swing.h"

namespace {

constexpr double kPi = 3.14159265358979323846;

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

cv::Mat FrameOf(const ClubImage& image) {
  return cv::Mat(static_cast<int>(image.height), static_cast<int>(image.width), CV_8UC1,
                 image.pixels);
}

cv::Vec2d ProjectWithSetting(const double* intrinsic, const double* extrinsic, const cv::Vec3d& p,
                             const ClubImage& frame) {
  const cv::Matx33d K(intrinsic);
  const cv::Matx33d R(extrinsic[0], extrinsic[1], extrinsic[2], extrinsic[4], extrinsic[5],
                      extrinsic[6], extrinsic[8], extrinsic[9], extrinsic[10]);
  const cv::Vec3d t(extrinsic[3], extrinsic[7], extrinsic[11]);
  const cv::Vec3d q = K * (R * p + t);
  return {q[0] / q[2] - frame.sensorOffsetX, q[1] / q[2] - frame.sensorOffsetY};
}

// Candidate masks as the tracker's differencing builds them (references > 2000 us away).
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
    for (int j = i - 1; j >= 1 && p < 0; --j) p = gapOk(j, i) ? j : -1;
    for (int k = i + 1; k < n && q < 0; ++k) q = gapOk(i, k) ? k : -1;
    if (p < 0) p = n - 1;
    if (q < 0) q = 0;
    cv::Mat a1, a2;
    cv::absdiff(filtered[i], filtered[p], a1);
    cv::absdiff(filtered[i], filtered[q], a2);
    masks.push_back((a1 > 1) & (a2 > 1));
  }
  return masks;
}

void Morph(const cv::Mat& src, cv::Mat& dst, int op, int shape, int k) {
  cv::morphologyEx(src, dst, op, cv::getStructuringElement(shape, cv::Size(k, k)),
                   cv::Point(-1, -1), 1, cv::BORDER_CONSTANT, cv::morphologyDefaultBorderValue());
}

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


class SynthGeometry : public ::testing::TestWithParam<SceneCase> {};

TEST_P(SynthGeometry, BallProjectsOntoTheFramesBallPosition) {
  const synth::Recording rec = synth::Render(GetParam().scene);
  const double* intrinsic[2] = {rec.setting.cam1Intrinsic, rec.setting.cam2Intrinsic};
  const double* extrinsic[2] = {rec.setting.cam1Extrinsic, rec.setting.cam2Extrinsic};
  for (int c = 0; c < 2; ++c) {
    ASSERT_FALSE(rec.images[c].empty());
    const cv::Vec2d exact = rec.truth.BallInWindow(c);
    for (const ClubImage& image : rec.images[c]) {
      const cv::Vec2d p = ProjectWithSetting(intrinsic[c], extrinsic[c], rec.truth.ball, image);
      EXPECT_NEAR(p[0], image.ballX, 0.0051);
      EXPECT_NEAR(p[1], image.ballY, 0.0051);
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
  EXPECT_NEAR(cv::norm(t.pivot - ball), t.headRadius, 1e-9);
  EXPECT_NEAR(cv::norm(t.axis), 1.0, 1e-12);
  EXPECT_NEAR(t.axis.dot(t.pivot - ball), 0.0, 1e-9);
  for (double dt : {-3000.0, -700.0, 1500.0}) {
    const cv::Vec3d hc = t.HeadCentre(t.impactTime + dt);
    EXPECT_NEAR(cv::norm(hc - t.pivot), t.headRadius, 1e-9);
    EXPECT_NEAR((hc - t.pivot).dot(t.axis), 0.0, 1e-9);
  }
}

// The shaft near impact is a steep band at least 8 px wide in both cameras.
TEST_P(SynthGeometry, ShaftNearImpactIsASteepWideBand) {
  const synth::Recording rec = synth::Render(GetParam().scene);
  const synth::SwingTruth& t = rec.truth;
  for (int c = 0; c < 2; ++c) {
    for (int k : {t.impactIndex - 1, t.impactIndex}) {
      const double time = t.FrameTime(c, k);
      const cv::Vec2f line = t.ShaftLine(c, time);
      EXPECT_GT(std::abs(line[1] - kPi / 2), kPi / 8) << "camera " << c << " frame " << k;
      const synth::CameraModel& m = t.cameras[c];
      const cv::Vec2d head = m.ProjectToWindow(t.HeadCentre(time));
      const cv::Vec2d top = m.ProjectToWindow(t.ShaftPoint(time, t.headRadius - 110.0));
      const int row = static_cast<int>(std::lround(top[1]));
      ASSERT_GE(row, 2);
      ASSERT_LT(row, static_cast<int>(head[1]));
      const cv::Mat frame = FrameOf(rec.images[c][static_cast<size_t>(k)]);
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

INSTANTIATE_TEST_SUITE_P(Scenes, SynthGeometry,
                         ::testing::Values(SceneCase{"near1", Near(1)}, SceneCase{"far2", Far(2)}),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(SynthPresence, NearHeadBlobPassesThePresenceTestInBothCameras) {
  struct Case { uint64_t seed; double speed, fps; };
  std::vector<Case> cases = {{1, 45.0, 2000.0}};
  if (!Sanitized()) cases.insert(cases.end(), {{7, 55.0, 2000.0}, {8, 40.0, 3000.0}});
  for (const Case& c : cases) {
    synth::SwingScene scene = Near(c.seed);
    scene.speedMps = c.speed;
    scene.fps = c.fps;
    const synth::Recording rec = synth::Render(scene);
    const std::vector<cv::Mat> masks1 = CandidateMasks(rec.images[0]);
    const std::vector<cv::Mat> masks2 = CandidateMasks(rec.images[1]);
    int both = 0;
    for (size_t i = 0; i < masks1.size(); ++i) {
      both += BlobPresent(masks1[i]) && BlobPresent(masks2[i]);
    }
    EXPECT_GT(both, 10) << "seed " << c.seed;
  }
}

TEST(SynthDifference, ThreeFrameDifferenceShowsTheClubOnly) {
  for (const synth::SwingScene& scene : {Near(1), Far(2)}) {
    const synth::Recording rec = synth::Render(scene);
    const synth::SwingTruth& t = rec.truth;
    for (int c = 0; c < 2; ++c) {
      const std::vector<cv::Mat> masks = CandidateMasks(rec.images[c]);
      const synth::CameraModel& m = t.cameras[c];
      for (int i = t.impactIndex - 3; i <= t.impactIndex + 2; ++i) {
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
        // Noise specks only, gone after the tracker's first three cleaning steps.
        const cv::Mat& mask = masks[static_cast<size_t>(i)];
        const int awayArea = cv::countNonZero(~near);
        EXPECT_LT(cv::countNonZero(mask & ~near), awayArea / 100) << "camera " << c << " frame " << i;
        cv::Mat cleaned;
        Morph(mask, cleaned, cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 3);
        Morph(cleaned, cleaned, cv::MORPH_CLOSE, cv::MORPH_RECT, 5);
        Morph(cleaned, cleaned, cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7);
        EXPECT_EQ(cv::countNonZero(cleaned & ~near), 0) << "camera " << c << " frame " << i;
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

  const synth::Recording a = synth::Render(Near(1));
  const synth::Recording b = synth::Render(Near(32));
  EXPECT_FALSE(SameBytes(a, b));
  EXPECT_NE(a.truth.pivot, b.truth.pivot);
}

}  // namespace
