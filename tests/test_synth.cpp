// The synthetic swing generator: geometry of the truth, what the frames show
// to the tracker's first stages, determinism and variety.
#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <opencv2/imgproc.hpp>
#include <set>
#include <string>

#include "analysis/binary_morphology.h"
#include "support/change_masks.h"
#include "synth/swing.h"
#include "tracker/records.h"

namespace {

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

cv::Vec2d ProjectWithSetting(const double* intrinsic, const double* extrinsic, const cv::Vec3d& p,
                             const ClubImage& frame) {
  const cv::Matx33d K(intrinsic);
  const cv::Matx33d R(extrinsic[0], extrinsic[1], extrinsic[2], extrinsic[4], extrinsic[5],
                      extrinsic[6], extrinsic[8], extrinsic[9], extrinsic[10]);
  const cv::Vec3d t(extrinsic[3], extrinsic[7], extrinsic[11]);
  const cv::Vec3d q = K * (R * p + t);
  return {q[0] / q[2] - frame.sensorOffsetX, q[1] / q[2] - frame.sensorOffsetY};
}

synth::SwingScene Near(uint64_t seed) {
  synth::SwingScene s;
  s.seed = seed;
  return s;
}
synth::SwingScene Far(uint64_t seed) {
  synth::SwingScene s = Near(seed);
  s.placement = synth::Placement::kFar;
  return s;
}

void ExpectTruthMeetsItsDefinition(const synth::SwingScene& scene, const synth::SwingTruth& t) {
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

// The ball projects onto each frame's ball position.
void ExpectBallInEveryFrame(const synth::Recording& rec, int c) {
  const double* intrinsic = c == 0 ? rec.setting.cam1Intrinsic : rec.setting.cam2Intrinsic;
  const double* extrinsic = c == 0 ? rec.setting.cam1Extrinsic : rec.setting.cam2Extrinsic;
  ASSERT_FALSE(rec.images[c].empty());
  for (const ClubImage& image : rec.images[c]) {
    const cv::Vec2d p = ProjectWithSetting(intrinsic, extrinsic, rec.truth.ball, image);
    EXPECT_NEAR(p[0], image.ballX, 0.0051);
    EXPECT_NEAR(p[1], image.ballY, 0.0051);
  }
}

// The tracker's change masks around impact show the club and ball only: noise
// specks away from them, gone after the first three cleaning steps.
void ExpectClubOnlyInTheChangeMasks(const synth::Recording& rec, int c,
                                    const std::vector<cv::Mat>& masks) {
  const synth::SwingTruth& t = rec.truth;
  const synth::CameraModel& m = t.cameras[c];
  ASSERT_EQ(masks.size(), rec.images[c].size());
  ASSERT_EQ(masks[0].size(), cv::Size(m.width, m.height));
  for (int i = t.impactIndex - 3; i <= t.impactIndex + 2; ++i) {
    SCOPED_TRACE(i);
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
    const cv::Mat& mask = masks[static_cast<size_t>(i)];
    EXPECT_LT(cv::countNonZero(mask & ~near), cv::countNonZero(~near) / 100);
    cv::Mat cleaned;
    MorphologyChainLiteral(mask, cleaned,
                           {{cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 3},
                            {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
                            {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7}});
    EXPECT_EQ(cv::countNonZero(cleaned & ~near), 0);
    const cv::Vec2d head = m.ProjectToWindow(t.HeadCentre(t.FrameTime(c, i)));
    const cv::Rect core(cv::Point(head) - cv::Point(8, 8), cv::Size(17, 17));
    if ((core & cv::Rect(0, 0, m.width, m.height)) == core)
      EXPECT_GT(cv::countNonZero(mask(core)), 17 * 17 * 3 / 4);
  }
}

// Frames in which the tracker's presence test finds the head blob in both
// cameras.
int BothPresent(const std::vector<cv::Mat> (&masks)[2]) {
  EXPECT_EQ(masks[0].size(), masks[1].size());
  int both = 0;
  for (size_t i = 0; i < std::min(masks[0].size(), masks[1].size()); ++i) {
    cv::Mat refined;
    int present[2] = {0, 0};
    for (int c = 0; c < 2; ++c) RefineCandidateMask(masks[c][i], refined, &present[c]);
    both += present[0] == 1 && present[1] == 1;
  }
  return both;
}

// One render per scene serves every check of it.
TEST(Synth, TruthFramesAndWhatTheTrackerSees) {
  for (const synth::SwingScene& scene : {Near(1), Far(2)}) {
    SCOPED_TRACE(scene.placement == synth::Placement::kFar ? "far" : "near");
    ExpectTruthMeetsItsDefinition(scene, synth::MakeTruth(scene));
    synth::Recording rec = synth::Render(scene);
    const std::vector<cv::Mat> masks[2] = {CameraChangeMasks(rec, 0), CameraChangeMasks(rec, 1)};
    for (int c = 0; c < 2; ++c) {
      SCOPED_TRACE(c);
      ExpectBallInEveryFrame(rec, c);
      ExpectClubOnlyInTheChangeMasks(rec, c, masks[c]);
    }
    if (scene.placement == synth::Placement::kNear) EXPECT_GT(BothPresent(masks), 10);
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
  scene.seed = 32;  // another seed, another swing
  const synth::Recording other = synth::Render(scene);
  EXPECT_FALSE(SameBytes(a, other));
  EXPECT_NE(a.truth.pivot, other.truth.pivot);
}

TEST(SynthDeterminism, DifferentSeedsGiveDifferentSwings) {
  const int count = Sanitized() ? 12 : 60;
  std::set<double> radii;
  int far = 0, iron = 0;
  std::set<double> rates;
  for (int seed = 1; seed <= count; ++seed) {
    const synth::SwingScene scene = synth::SwingScene::Varied(static_cast<uint64_t>(seed));
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
}

}  // namespace
