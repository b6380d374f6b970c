// The shaft-and-head stage on hand-built candidate areas and spin axes: the
// shaft lines are the exact images of a synthetic swing's shaft, so the
// geometry can be checked against the swing's ground truth.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <string>
#include <tuple>
#include <vector>

#include "support/access.h"
#include "support/log_capture.h"
#include "synth/swing.h"

namespace {

// Candidate areas of both cameras and a spin axis whose inliers carry the
// exact shaft lines of the chosen frames.
class Swing {
 public:
  explicit Swing(const synth::SwingScene& scene = synth::SwingScene{})
      : truth(synth::MakeTruth(scene)) {
    tracker.SetTrackerSetting(LoggingInto(synth::MakeSetting(truth), log));
    for (int i = 0; i < 3; ++i) {
      tracker.referencePoint[i] = truth.ball[i];
      axis.pivot[i] = truth.pivot[i];
    }
    for (int c = 0; c < 2; ++c) {
      const synth::CameraModel& camera = truth.cameras[c];
      for (size_t k = 0; k < truth.timeStamps[c].size(); ++k) {
        auto area = std::make_unique<CandidateAreaImage>();
        area->image = cv::Mat(camera.height, camera.width, CV_8UC1, cv::Scalar(0));
        for (int r = 0; r < camera.height; ++r) {
          for (int x = 0; x < camera.width; ++x) {
            if ((r * 7 + x * 3 + static_cast<int>(k)) % 11 == 0)
              area->image.at<uint8_t>(r, x) = 255;
          }
        }
        area->sensorOffsetX = camera.sensorOffsetX;
        area->sensorOffsetY = camera.sensorOffsetY;
        area->afterImpact = static_cast<int>(k) >= truth.impactIndex ? 1 : 0;
        area->timeStamp = truth.timeStamps[c][k];
        const cv::Vec2d ball = truth.BallInWindow(c);
        area->ballX = static_cast<float>(ball[0]);
        area->ballY = static_cast<float>(ball[1]);
        areas[c].push_back(area.get());
        owned.push_back(std::move(area));
      }
    }
  }

  // Makes frames `frames` the inliers, in the given order.
  void SetInliers(const std::vector<int>& frames) {
    axis.inliers.clear();
    for (const int f : frames) {
      SpinAxisInlier inlier;
      inlier.frame = f;
      inlier.cam1Line = truth.ShaftLine(0, truth.FrameTime(0, f));
      inlier.cam2Line = truth.ShaftLine(1, truth.FrameTime(1, f));
      axis.inliers.push_back(inlier);
    }
  }

  int Run(ClubTrackerResult& result) {
    return ClubTrackerTestAccess::FindShaftAndHead(tracker, areas[0], areas[1], axis, result);
  }

  int Frames() const { return static_cast<int>(areas[0].size()); }

  synth::SwingTruth truth;
  ClubTracker tracker;
  std::vector<std::string> log;
  ClubSpinAxis3D axis;
  std::vector<CandidateAreaImage*> areas[2];
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
};

std::vector<int> Range(int from, int to) {  // [from, to)
  std::vector<int> frames;
  for (int f = from; f < to; ++f) frames.push_back(f);
  return frames;
}

cv::Vec3d HeadOf(const ClubFrameResult& entry) {
  return {entry.head[0], entry.head[1], entry.head[2]};
}

// Sentinel values that show which result fields a call left alone.
void Preset(ClubTrackerResult& r) {
  r.headRadius = -1.0f, r.angularVelocity = -2.0f, r.speedFrameFrom = -3, r.speedFrameTo = -4;
  r.clubHeadSpeed = -5.0;
  for (int i = 0; i < 3; ++i) {
    r.axisDirection[i] = -6.0f;
    r.axisPosition[i] = -7.0f;
  }
}

void ExpectSpeedUntouched(const ClubTrackerResult& r) {
  EXPECT_EQ(std::make_tuple(r.headRadius, r.angularVelocity, r.speedFrameFrom, r.speedFrameTo,
                            r.clubHeadSpeed),
            std::make_tuple(-1.0f, -2.0f, -3, -4, -5.0));
}

// Every entry holds the BGR copy of its area, the area's metadata and its
// place in the combined list.
void ExpectFramesRebuilt(const Swing& swing, const ClubTrackerResult& result, bool overlays) {
  const int n = swing.Frames();
  ASSERT_EQ(result.frameCount, 2 * n);
  ASSERT_NE(result.frames, nullptr);
  for (int e = 0; e < 2 * n; ++e) {
    SCOPED_TRACE(e);
    const ClubFrameResult& entry = result.frames[e];
    const CandidateAreaImage& area = *swing.areas[e / n][e % n];
    const ClubImage& image = entry.image;
    EXPECT_EQ(std::make_tuple(entry.camera, entry.frameNumber, entry.spare, entry.rawPixels),
              std::make_tuple(e / n, e, 0, nullptr));
    EXPECT_EQ(std::make_tuple(image.width, image.height, image.bytesPerChannel, image.channels),
              std::make_tuple(uint32_t(area.image.cols), uint32_t(area.image.rows), 1u, 3u));
    EXPECT_EQ(std::make_tuple(image.sensorOffsetX, image.sensorOffsetY, image.afterImpact,
                              image.timeStamp),
              std::make_tuple(area.sensorOffsetX, area.sensorOffsetY, area.afterImpact,
                              area.timeStamp));
    const float ball[3] = {area.ballX, area.ballY, area.ballRadius};
    EXPECT_EQ(std::memcmp(&image.ballX, ball, sizeof ball), 0);  // bit for bit
    if (!overlays || entry.hasShaft == 0) {
      cv::Mat bgr;
      cv::cvtColor(area.image, bgr, cv::COLOR_GRAY2BGR);
      const cv::Mat copy(area.image.rows, area.image.cols, CV_8UC3, entry.image.pixels);
      EXPECT_EQ(cv::norm(copy, bgr, cv::NORM_INF), 0.0);
    }
  }
}

// Without a reference point nothing is done; with one inlier only the frames
// are rebuilt, without shafts or heads. Either way the speed and the axis stay.
TEST(ShaftAndHead, ZeroReferencePointOrOneInlierGivesNoSpeed) {
  for (const bool zeroReference : {true, false}) {
    SCOPED_TRACE(zeroReference ? "zero reference point" : "one inlier");
    Swing swing;
    swing.SetInliers(zeroReference ? Range(0, 10) : std::vector<int>{4});
    if (zeroReference)
      for (double& v : swing.tracker.referencePoint) v = 0.0;
    ClubTrackerResult result;
    Preset(result);
    EXPECT_EQ(swing.Run(result), 0);
    if (zeroReference) {
      EXPECT_EQ(result.frames, nullptr);
      EXPECT_EQ(result.frameCount, 0);
    } else {
      ExpectFramesRebuilt(swing, result, false);
    }
    for (int e = 0; e < result.frameCount; ++e) {
      EXPECT_EQ(result.frames[e].hasShaft, 0);
      EXPECT_EQ(HeadOf(result.frames[e]), cv::Vec3d(0, 0, 0));
    }
    ExpectSpeedUntouched(result);
    EXPECT_EQ(result.axisDirection[0], -6.0f);
    EXPECT_EQ(swing.log, std::vector<std::string>{"FindShaftAndHead start"});
  }
}

// With 2 and with 8 inliers before the impact.
TEST(ShaftAndHead, AxisHeadsAndSpeedFollowTheSwing) {
  for (const int count : {2, 8}) {
    SCOPED_TRACE(count);
    Swing swing;
    const int impact = swing.truth.impactIndex;
    swing.SetInliers(Range(impact - count, impact));
    ClubTrackerResult result;
    ASSERT_EQ(swing.Run(result), 1);
    ExpectFramesRebuilt(swing, result, true);

    const cv::Vec3d a(result.axisDirection[0], result.axisDirection[1], result.axisDirection[2]);
    EXPECT_NEAR(cv::norm(a), 1.0, 1e-6);
    EXPECT_GT(std::fabs(a.dot(swing.truth.axis)), 0.9999);
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(result.axisPosition[i], static_cast<float>(swing.truth.pivot[i]));
    }

    // Camera-1 heads lie on the ball's radius, at the true head centres; every
    // camera-2 head holds the projection of the last inlier's head.
    const double radius = swing.truth.headRadius;
    EXPECT_NEAR(result.headRadius, radius, 1e-3);
    const int n = swing.Frames();
    const cv::Vec2d projected = swing.truth.cameras[1].Project(HeadOf(result.frames[impact - 1]));
    for (const SpinAxisInlier& inlier : swing.axis.inliers) {
      SCOPED_TRACE(inlier.frame);
      const cv::Vec3d head = HeadOf(result.frames[inlier.frame]);
      EXPECT_NEAR(cv::norm(head - swing.truth.pivot), radius, 1e-2);
      EXPECT_LT(cv::norm(head - swing.truth.HeadCentre(swing.truth.FrameTime(0, inlier.frame))),
                0.5);
      EXPECT_EQ(result.frames[inlier.frame].hasShaft, 1);
      const ClubFrameResult& entry2 = result.frames[n + inlier.frame];
      EXPECT_EQ(entry2.hasShaft, 1);
      EXPECT_NEAR(entry2.head[0], projected[0], 0.05);
      EXPECT_NEAR(entry2.head[1], projected[1], 0.05);
      EXPECT_NEAR(entry2.head[2], 1.0f, 1e-6);
    }
    EXPECT_EQ(HeadOf(result.frames[n + impact - count - 1]), cv::Vec3d(0, 0, 0));

    // The speed comes from the last interval before the impact.
    EXPECT_EQ(result.speedFrameFrom, impact - 2);
    EXPECT_EQ(result.speedFrameTo, impact - 1);
    const double t0 = swing.truth.FrameTime(0, impact - 2);
    const double t1 = swing.truth.FrameTime(0, impact - 1);
    const double omega = (swing.truth.SwingAngle(t1) - swing.truth.SwingAngle(t0)) / (t1 - t0);
    EXPECT_NEAR(result.angularVelocity, omega, 2e-3 * omega);
    EXPECT_NEAR(result.clubHeadSpeed, omega * radius, 2e-3 * omega * radius);

    // Log: start, the axis with its own line break (the golden logs pin its
    // numbers), end.
    ASSERT_EQ(swing.log.size(), 3u);
    EXPECT_EQ(swing.log[0], "FindShaftAndHead start");
    EXPECT_EQ(swing.log[1].rfind("Axis pos: ", 0), 0u) << swing.log[1];
    EXPECT_EQ(swing.log[1].back(), '\n');
    EXPECT_EQ(swing.log[2], "FindShaftAndHead end");
  }
}

TEST(ShaftAndHead, OnlyHeadIndexOneQualifiesWhenLaterInliersFollowTheImpact) {
  Swing swing;
  const int impact = swing.truth.impactIndex;
  swing.SetInliers({impact - 1, impact, impact + 1, impact + 2});
  ClubTrackerResult result;
  ASSERT_EQ(swing.Run(result), 1);
  EXPECT_EQ(result.speedFrameFrom, impact - 1);
  EXPECT_EQ(result.speedFrameTo, impact);
  EXPECT_GT(result.clubHeadSpeed, 0.0);
}

}  // namespace
