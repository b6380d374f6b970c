// The shaft-and-head stage on hand-built candidate areas and spin axes: the
// shaft lines are the exact images of a synthetic swing's shaft, so the
// geometry can be checked against the swing's ground truth.
#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "support/access.h"
#include "synth/swing.h"

namespace {

struct LogCapture {
  std::vector<std::string> lines;
};

void CaptureLog(std::wstring line, void* context) {
  static_cast<LogCapture*>(context)->lines.emplace_back(line.begin(), line.end());
}

// Candidate areas of both cameras and a spin axis whose inliers carry the
// exact shaft lines of the chosen frames.
class Swing {
 public:
  explicit Swing(const synth::SwingScene& scene = synth::SwingScene{})
      : truth(synth::MakeTruth(scene)) {
    tracker.SetTrackerSetting(synth::MakeSetting(truth));
    tracker.setting.logCallback = CaptureLog;
    tracker.setting.logContext = &log;
    for (int i = 0; i < 3; ++i) tracker.referencePoint[i] = truth.ball[i];
    for (int i = 0; i < 3; ++i) axis.pivot[i] = truth.pivot[i];
    for (int c = 0; c < 2; ++c) {
      const synth::CameraModel& camera = truth.cameras[c];
      for (size_t k = 0; k < truth.timeStamps[c].size(); ++k) {
        auto area = std::make_unique<CandidateAreaImage>();
        area->image = cv::Mat(camera.height, camera.width, CV_8UC1, cv::Scalar(0));
        for (int r = 0; r < camera.height; ++r) {
          for (int x = 0; x < camera.width; ++x) {
            if ((r * 7 + x * 3 + static_cast<int>(k)) % 11 == 0) area->image.at<uint8_t>(r, x) = 255;
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
  LogCapture log;
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
void Preset(ClubTrackerResult& result) {
  result.headRadius = -1.0f;
  result.angularVelocity = -2.0f;
  result.speedFrameFrom = -3;
  result.speedFrameTo = -4;
  result.clubHeadSpeed = -5.0;
  for (int i = 0; i < 3; ++i) {
    result.axisDirection[i] = -6.0f;
    result.axisPosition[i] = -7.0f;
  }
}

void ExpectSpeedUntouched(const ClubTrackerResult& result) {
  EXPECT_EQ(result.headRadius, -1.0f);
  EXPECT_EQ(result.angularVelocity, -2.0f);
  EXPECT_EQ(result.speedFrameFrom, -3);
  EXPECT_EQ(result.speedFrameTo, -4);
  EXPECT_EQ(result.clubHeadSpeed, -5.0);
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
    EXPECT_EQ(entry.camera, e / n);
    EXPECT_EQ(entry.frameNumber, e);
    EXPECT_EQ(entry.spare, 0);
    EXPECT_EQ(entry.rawPixels, nullptr);
    EXPECT_EQ(entry.image.width, static_cast<uint32_t>(area.image.cols));
    EXPECT_EQ(entry.image.height, static_cast<uint32_t>(area.image.rows));
    EXPECT_EQ(entry.image.bytesPerChannel, 1u);
    EXPECT_EQ(entry.image.channels, 3u);
    EXPECT_EQ(entry.image.sensorOffsetX, area.sensorOffsetX);
    EXPECT_EQ(entry.image.sensorOffsetY, area.sensorOffsetY);
    EXPECT_EQ(entry.image.afterImpact, area.afterImpact);
    EXPECT_EQ(entry.image.timeStamp, area.timeStamp);
    EXPECT_EQ(std::memcmp(&entry.image.ballX, &area.ballX, sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(&entry.image.ballY, &area.ballY, sizeof(float)), 0);
    EXPECT_EQ(std::memcmp(&entry.image.ballRadius, &area.ballRadius, sizeof(float)), 0);
    if (!overlays || entry.hasShaft == 0) {
      cv::Mat bgr;
      cv::cvtColor(area.image, bgr, cv::COLOR_GRAY2BGR);
      const cv::Mat copy(area.image.rows, area.image.cols, CV_8UC3, entry.image.pixels);
      EXPECT_EQ(cv::norm(copy, bgr, cv::NORM_INF), 0.0);
    }
  }
}

// --- refusals ---------------------------------------------------------------

TEST(ShaftAndHead, ZeroReferencePointLeavesTheResultUntouched) {
  Swing swing;
  swing.SetInliers(Range(0, 10));
  for (double& v : swing.tracker.referencePoint) v = 0.0;
  ClubTrackerResult result;
  Preset(result);
  EXPECT_EQ(swing.Run(result), 0);
  EXPECT_EQ(result.frames, nullptr);
  EXPECT_EQ(result.frameCount, 0);
  ExpectSpeedUntouched(result);
  EXPECT_EQ(swing.log.lines, std::vector<std::string>{"FindShaftAndHead start"});
}

TEST(ShaftAndHead, FewerThanTwoInliersRebuildsOnlyTheFrames) {
  for (const std::vector<int>& inliers : {std::vector<int>{}, std::vector<int>{4}}) {
    Swing swing;
    swing.SetInliers(inliers);
    ClubTrackerResult result;
    Preset(result);
    EXPECT_EQ(swing.Run(result), 0);
    ExpectFramesRebuilt(swing, result, false);
    for (int e = 0; e < result.frameCount; ++e) {
      EXPECT_EQ(result.frames[e].hasShaft, 0);
      EXPECT_EQ(HeadOf(result.frames[e]), cv::Vec3d(0, 0, 0));
    }
    ExpectSpeedUntouched(result);
    EXPECT_EQ(result.axisDirection[0], -6.0f);
    EXPECT_EQ(swing.log.lines, std::vector<std::string>{"FindShaftAndHead start"});
  }
}

TEST(ShaftAndHead, InliersOutsideTheFrameListsAreRefused) {
  Swing swing;
  swing.SetInliers(Range(0, 3));
  swing.axis.inliers[1].frame = swing.Frames();
  ClubTrackerResult result;
  EXPECT_EQ(swing.Run(result), 0);
  EXPECT_EQ(result.frames, nullptr);
  ASSERT_EQ(swing.log.lines.size(), 2u);
}

TEST(ShaftAndHead, AxisNormComponentDecides) {
  Swing probe;
  probe.SetInliers(Range(2, 10));
  ClubTrackerResult reference;
  ASSERT_EQ(probe.Run(reference), 1);
  const cv::Vec3d a(reference.axisDirection[0], reference.axisDirection[1],
                    reference.axisDirection[2]);
  int smallest = 0;
  int largest = 0;
  for (int i = 1; i < 3; ++i) {
    if (std::fabs(a[i]) < std::fabs(a[smallest])) smallest = i;
    if (std::fabs(a[i]) > std::fabs(a[largest])) largest = i;
  }
  ASSERT_LT(std::fabs(a[smallest]), 0.49);
  ASSERT_GE(std::fabs(a[largest]), 0.5);

  for (const int index : {smallest, largest, 3, -1}) {
    SCOPED_TRACE(index);
    Swing swing;
    swing.SetInliers(Range(2, 10));
    swing.tracker.setting.axisNormIndex = index;
    ClubTrackerResult result;
    Preset(result);
    const bool valid = index == largest;
    EXPECT_EQ(swing.Run(result), valid ? 1 : 0);
    ExpectFramesRebuilt(swing, result, true);
    if (!valid) {
      EXPECT_EQ(swing.log.lines,
                (std::vector<std::string>{"FindShaftAndHead start", "Invalid axis norm"}));
      EXPECT_EQ(result.axisDirection[0], -6.0f);
      EXPECT_EQ(result.frames[5].hasShaft, 0);
      ExpectSpeedUntouched(result);
    }
  }
}

// --- geometry ---------------------------------------------------------------

class Geometry : public ::testing::TestWithParam<int> {};  // number of inliers

TEST_P(Geometry, AxisHeadsAndSpeedFollowTheSwing) {
  const int count = GetParam();
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

  // Heads lie on the ball's radius, at the true head centres.
  const double radius = swing.truth.headRadius;
  EXPECT_NEAR(result.headRadius, radius, 1e-3);
  for (const SpinAxisInlier& inlier : swing.axis.inliers) {
    SCOPED_TRACE(inlier.frame);
    const cv::Vec3d head = HeadOf(result.frames[inlier.frame]);
    EXPECT_NEAR(cv::norm(head - swing.truth.pivot), radius, 1e-2);
    EXPECT_LT(cv::norm(head - swing.truth.HeadCentre(swing.truth.FrameTime(0, inlier.frame))),
              0.5);
    EXPECT_EQ(result.frames[inlier.frame].hasShaft, 1);
    EXPECT_EQ(result.frames[swing.Frames() + inlier.frame].hasShaft, 1);
  }

  // The speed comes from the last interval before the impact.
  EXPECT_EQ(result.speedFrameFrom, impact - 2);
  EXPECT_EQ(result.speedFrameTo, impact - 1);
  const double t0 = swing.truth.FrameTime(0, impact - 2);
  const double t1 = swing.truth.FrameTime(0, impact - 1);
  const double omega = (swing.truth.SwingAngle(t1) - swing.truth.SwingAngle(t0)) / (t1 - t0);
  EXPECT_NEAR(result.angularVelocity, omega, 2e-3 * omega);
  EXPECT_NEAR(result.clubHeadSpeed, omega * radius, 2e-3 * omega * radius);
  EXPECT_NEAR(result.clubHeadSpeed / result.angularVelocity, result.headRadius,
              1e-6 * result.headRadius);

  // Log: start, the axis with its own line break, end.
  ASSERT_EQ(swing.log.lines.size(), 3u);
  EXPECT_EQ(swing.log.lines[0], "FindShaftAndHead start");
  EXPECT_EQ(swing.log.lines[2], "FindShaftAndHead end");
  double values[6];
  char tail = 0;
  ASSERT_EQ(std::sscanf(swing.log.lines[1].c_str(), "Axis pos: %lf, %lf, %lf, norm: %lf, %lf, %lf%c",
                        &values[0], &values[1], &values[2], &values[3], &values[4], &values[5],
                        &tail),
            7);
  EXPECT_EQ(tail, '\n');
  for (int i = 0; i < 3; ++i) {
    EXPECT_NEAR(values[i], swing.truth.pivot[i], 1e-6);
    EXPECT_NEAR(values[3 + i], a[i], 1.5e-6);
  }
}

INSTANTIATE_TEST_SUITE_P(ShaftAndHead, Geometry, ::testing::Values(2, 3, 8));

TEST(ShaftAndHead, CameraTwoHeadHoldsTheLastInliersProjection) {
  Swing swing;
  swing.SetInliers({3, 5, 7, 8});
  ClubTrackerResult result;
  ASSERT_EQ(swing.Run(result), 1);
  const int n = swing.Frames();
  const cv::Vec3d lastHead = HeadOf(result.frames[8]);
  const cv::Vec2d projected = swing.truth.cameras[1].Project(lastHead);
  for (const int f : {3, 5, 7, 8}) {
    SCOPED_TRACE(f);
    const ClubFrameResult& entry = result.frames[n + f];
    EXPECT_NEAR(entry.head[0], projected[0], 0.05);
    EXPECT_NEAR(entry.head[1], projected[1], 0.05);
    EXPECT_NEAR(entry.head[2], 1.0f, 1e-6);
    // Camera 1 keeps the frame's own 3D head.
    EXPECT_LT(cv::norm(HeadOf(result.frames[f]) -
                       swing.truth.HeadCentre(swing.truth.FrameTime(0, f))),
              0.5);
  }
  EXPECT_EQ(HeadOf(result.frames[n + 4]), cv::Vec3d(0, 0, 0));
}

// A flagged frame shows every inlier's shaft line and head, not only its own;
// frames without a shaft stay plain copies (checked by ExpectFramesRebuilt).
TEST(ShaftAndHead, FlaggedFramesShowEveryInliersLineAndHead) {
  Swing swing;
  const std::vector<int> frames = {2, 5, 8};
  swing.SetInliers(frames);
  ClubTrackerResult result;
  ASSERT_EQ(swing.Run(result), 1);
  ExpectFramesRebuilt(swing, result, true);
  const int n = swing.Frames();
  const cv::Vec3b red(0, 0, 255);
  const cv::Vec3b green(0, 255, 0);
  for (int c = 0; c < 2; ++c) {
    const synth::CameraModel& camera = swing.truth.cameras[c];
    for (const int f : frames) {
      const ClubFrameResult& entry = result.frames[c * n + f];
      const cv::Mat canvas(camera.height, camera.width, CV_8UC3, entry.image.pixels);
      for (size_t k = 0; k < frames.size(); ++k) {
        SCOPED_TRACE(testing::Message() << "camera " << c << " frame " << f << " inlier " << k);
        // The line crosses the window's middle row.
        const cv::Vec2f line = c == 0 ? swing.axis.inliers[k].cam1Line : swing.axis.inliers[k].cam2Line;
        const double y = camera.sensorOffsetY + camera.height / 2;
        const double x = (line[0] - y * std::sin(line[1])) / std::cos(line[1]) - camera.sensorOffsetX;
        int marked = 0;
        for (int dx = -2; dx <= 2; ++dx) {
          const int col = static_cast<int>(std::lround(x)) + dx;
          if (col < 0 || col >= camera.width) continue;
          const cv::Vec3b pixel = canvas.at<cv::Vec3b>(camera.height / 2, col);
          if (pixel == red || pixel == green) ++marked;
        }
        EXPECT_GT(marked, 0);
        // The head's circle of radius 2 around its projection.
        const cv::Vec2d centre = camera.ProjectToWindow(HeadOf(result.frames[frames[k]]));
        if (centre[0] < 3 || centre[1] < 3 || centre[0] > camera.width - 4 ||
            centre[1] > camera.height - 4) {
          continue;
        }
        int ring = 0;
        for (int dy = -3; dy <= 3; ++dy) {
          for (int dx = -3; dx <= 3; ++dx) {
            if (canvas.at<cv::Vec3b>(static_cast<int>(centre[1]) + dy,
                                     static_cast<int>(centre[0]) + dx) == green) {
              ++ring;
            }
          }
        }
        EXPECT_GE(ring, 6);
      }
    }
  }
}

// --- the speed interval ---------------------------------------------------------

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

TEST(ShaftAndHead, NoSampleLeavesTheSpeedUntouched) {
  Swing swing;
  swing.SetInliers(Range(2, 8));
  for (CandidateAreaImage* area : swing.areas[1]) area->afterImpact = 1;
  ClubTrackerResult result;
  Preset(result);
  ASSERT_EQ(swing.Run(result), 1);
  ExpectSpeedUntouched(result);
  EXPECT_EQ(swing.log.lines.back(), "FindShaftAndHead end");
}

// Samples are skipped by the head index, not by the inlier's frame, and the
// chosen interval indexes the kept samples: with sample 1 skipped, interval
// (6, 7) reports the angular velocity measured over (7, 8).
TEST(ShaftAndHead, SamplesAreSkippedByHeadIndex) {
  Swing clean;
  clean.SetInliers({5, 6, 7, 8});
  ClubTrackerResult cleanResult;
  ASSERT_EQ(clean.Run(cleanResult), 1);
  EXPECT_EQ(cleanResult.speedFrameFrom, 7);
  EXPECT_EQ(cleanResult.speedFrameTo, 8);

  Swing quirk;
  quirk.SetInliers({5, 6, 7, 8});
  quirk.areas[1][1]->afterImpact = 1;  // list index 1, not an inlier's frame
  ClubTrackerResult quirkResult;
  ASSERT_EQ(quirk.Run(quirkResult), 1);
  EXPECT_EQ(quirkResult.speedFrameFrom, 6);
  EXPECT_EQ(quirkResult.speedFrameTo, 7);
  EXPECT_EQ(quirkResult.clubHeadSpeed, cleanResult.clubHeadSpeed);
  EXPECT_EQ(quirkResult.angularVelocity, cleanResult.angularVelocity);
}

// An interval with a wrong clock gives an outlier; it is removed and the
// chosen interval then takes the mean of the remaining samples.
TEST(ShaftAndHead, OutlierIsReplacedByTheMeanOfTheOtherSamples) {
  Swing swing;
  const int impact = swing.truth.impactIndex;
  swing.SetInliers(Range(impact - 8, impact));
  ClubTrackerResult clean;
  ASSERT_EQ(swing.Run(clean), 1);

  swing.areas[0][impact - 1]->timeStamp = swing.areas[0][impact - 2]->timeStamp + 1;
  ClubTrackerResult result;
  ASSERT_EQ(swing.Run(result), 1);
  EXPECT_EQ(result.speedFrameFrom, impact - 2);
  EXPECT_EQ(result.speedFrameTo, impact - 1);
  // The mean of the six earlier intervals, a little slower than the last one.
  EXPECT_LT(result.angularVelocity, clean.angularVelocity);
  EXPECT_GT(result.angularVelocity, 0.9f * clean.angularVelocity);
}

TEST(ShaftAndHead, SecondCallReplacesTheFrames) {
  Swing swing;
  swing.SetInliers(Range(3, 9));
  ClubTrackerResult result;
  ASSERT_EQ(swing.Run(result), 1);
  result.frames[0].rawPixels = new unsigned char[8];  // as Find leaves it
  ASSERT_EQ(swing.Run(result), 1);
  EXPECT_EQ(result.frames[0].rawPixels, nullptr);
  ExpectFramesRebuilt(swing, result, true);
}

}  // namespace
