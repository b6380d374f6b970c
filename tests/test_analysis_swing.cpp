// Find's analysis stage by stage on the synthetic swing (default scene: near
// cameras, 24 frames, impact at frame 10); the golden recordings' stages are
// checked with the spin-axis identity.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "analysis/frame_buffers.h"
#include "support/find_stages.h"
#include "synth/swing.h"

namespace {

// Angle between two Hough directions, in degrees, modulo 180.
double AngleBetween(float theta1, float theta2) {
  double d = std::fabs(static_cast<double>(theta1) - theta2) * 180.0 / CV_PI;
  d = std::fmod(d, 180.0);
  return std::min(d, 180.0 - d);
}

// Signed distance of a full-sensor point from a Hough line.
double DistanceFromLine(const cv::Vec2f& line, const cv::Vec2d& point) {
  return point[0] * std::cos(line[1]) + point[1] * std::sin(line[1]) - line[0];
}

// Middle of the visible shaft axis (full-sensor pixels) and its projected radius.
bool VisibleShaftPoint(const synth::SwingTruth& truth, int camera, double time, cv::Vec2d& point,
                    double& radius) {
  const synth::CameraModel& model = truth.cameras[camera];
  std::vector<double> inside;
  for (double d = truth.hoselDistance; d >= truth.gripDistance; d -= 2.0) {
    const cv::Vec2d p = model.ProjectToWindow(truth.ShaftPoint(time, d));
    if (p[0] >= 0 && p[1] >= 0 && p[0] < model.width && p[1] < model.height) inside.push_back(d);
  }
  if (inside.empty()) return false;
  const cv::Vec3d middle = truth.ShaftPoint(time, inside[inside.size() / 2]);
  point = model.Project(middle);
  radius = model.K(0, 0) * truth.shaftRadius / (model.R * middle + model.t)[2];
  return true;
}


// One render, analysed up to the last line pass: the candidate masks before
// the head deletion hold the head, both cameras give head sizes, and the
// strongest line of the first pass follows an edge of the shaft.
TEST(SyntheticSwing, HeadInTheMasksHeadSizesAndShaftLines) {
  synth::Recording recording = synth::Render(synth::SwingScene{});
  const synth::SwingTruth& truth = recording.truth;
  ClubTracker tracker(recording.setting);
  SwingAnalysis analysis;
  std::vector<cv::Mat> masks[2];
  std::vector<std::vector<cv::Vec2f>> firstLines[2];
  reference::AnalyseUpTo(tracker, recording.Cam1(), recording.Cam2(), SwingStage::kLinesDone,
                         analysis, [&](SwingStage stage, const SwingAnalysis& a) {
                           for (int c = 0; c < 2; ++c) {
                             for (const CandidateAreaImage* area : a.cand[c]) {
                               if (stage == SwingStage::kPresence) masks[c].push_back(area->image.clone());
                               if (stage == SwingStage::kLinePass && a.pass == 1)
                                 firstLines[c].push_back(area->lines);
                             }
                           }
                         });
  EXPECT_GT(analysis.bothPresent, 10);
  EXPECT_GT(analysis.headValue[0], 0);
  EXPECT_GT(analysis.headValue[1], 0);

  for (int c = 0; c < 2; ++c) {
    const synth::CameraModel& model = truth.cameras[c];
    ASSERT_EQ(masks[c].size(), analysis.cand[c].size());
    ASSERT_EQ(firstLines[c].size(), analysis.cand[c].size());
    int onEdge = 0;
    for (int k = 0; k < truth.impactIndex; ++k) {
      SCOPED_TRACE(testing::Message() << "camera " << c + 1 << " frame " << k);
      const cv::Mat& mask = masks[c][k];
      ASSERT_EQ(analysis.cand[c][k]->afterImpact, 0u);
      EXPECT_GT(cv::countNonZero(mask), 0);
      const cv::Vec3d head = truth.HeadCentre(truth.FrameTime(c, k));
      const cv::Vec2d centre = model.ProjectToWindow(head);
      const cv::Point p(static_cast<int>(std::lround(centre[0])),
                        static_cast<int>(std::lround(centre[1])));
      if (p.inside(cv::Rect(0, 0, mask.cols, mask.rows))) {
        EXPECT_EQ(mask.at<uchar>(p), 255) << "at " << p;
      } else {
        // Centre outside the window: the part of the head it shows is in the mask.
        const double depth = (model.R * head + model.t)[2];
        const double semiAxis = std::min({truth.headSemiAxes[0], truth.headSemiAxes[1],
                                          truth.headSemiAxes[2]});
        const int radius = static_cast<int>(model.K(0, 0) * semiAxis / depth);
        cv::Mat disc = cv::Mat::zeros(mask.size(), CV_8UC1);
        cv::circle(disc, p, radius, cv::Scalar(255), cv::FILLED);
        EXPECT_GT(cv::countNonZero(disc & mask), 0) << "near " << p << " radius " << radius;
      }

      const std::vector<cv::Vec2f>& lines = firstLines[c][k];
      const double time = truth.FrameTime(c, k);
      cv::Vec2d point;
      double radius = 0.0;
      if (lines.empty() || !VisibleShaftPoint(truth, c, time, point, radius)) continue;
      const double angle = AngleBetween(lines[0][1], truth.ShaftLine(c, time)[1]);
      const double offEdge = std::fabs(std::fabs(DistanceFromLine(lines[0], point)) - radius);
      if (angle <= 2.0 && offEdge <= 4.0) ++onEdge;
    }
    EXPECT_GE(onEdge, 8) << "camera " << c + 1;
  }
}

// The mask sizes the spin-axis stage of the last analysis saw, camera 1's first.
std::vector<cv::Size> searchedSizes;

int SearchRecordingMaskSizes(ClubTracker& t, const std::vector<CandidateAreaImage*>& cam1,
                             const std::vector<CandidateAreaImage*>& cam2, ClubSpinAxis3D& axis) {
  searchedSizes.clear();
  for (const auto* areas : {&cam1, &cam2}) {
    for (const CandidateAreaImage* area : *areas) searchedSizes.push_back(area->image.size());
  }
  return ClubTrackerTestAccess::FindClubSpinAxis(t, cam1, cam2, axis);
}

// Find's analysis holds the masks as bit planes while the spin axis is
// searched (the search sees their heights) and brings them back pixel for
// pixel: the same masks, axis and result images as an analysis that keeps
// them, whether the line passes packed the masks (run 1) or the per-frame
// extractor ran and the analysis packed them itself (run 2). A mask that is
// not 0/255 (camera 2's frame 3, one pixel set to 7 after the head deletion)
// is left as it is.
TEST(SyntheticSwing, MasksSetAsideForTheSpinAxisComeBackUnchanged) {
  synth::Recording recording = synth::Render(synth::SwingScene{});
  ClubTracker tracker(recording.setting);
  SwingStages stages = StagesOf<ClubTrackerTestAccess>();
  stages.findClubSpinAxis = &SearchRecordingMaskSizes;
  std::vector<cv::Size> sizes[3];
  std::vector<cv::Mat> masks[3];
  SwingAnalysis analyses[3];
  ClubTrackerResult results[3];
  for (int run = 0; run < 3; ++run) {
    if (run >= 1) {
      analyses[run].frameBuffers = &ThreadFrameBuffers();
      stages.findCandidateArea = [](ClubTracker& t, const std::vector<PreprocessedImage*>& f,
                                    std::vector<CandidateAreaImage*>& c) {
        return FindCandidateAreaReleasingFrames(t, f, c, ThreadFrameBuffers());
      };
    }
    if (run == 2) stages.extractLines = &ClubTrackerTestAccess::ExtractCandidates;
    ASSERT_TRUE(reference::AnalyseUpTo(
        tracker, recording.Cam1(), recording.Cam2(), SwingStage::kShaftAndHead, analyses[run],
        [&](SwingStage stage, const SwingAnalysis& a) {
          if (stage == SwingStage::kHeadsDeleted) a.cand[1][3]->image.at<uchar>(5, 5) = 7;
          if (stage != SwingStage::kSpinAxis) return;
          for (int c = 0; c < 2; ++c) {
            for (const CandidateAreaImage* area : a.cand[c]) {
              masks[run].push_back(area->image.clone());
            }
          }
        },
        &results[run], stages));
    sizes[run] = searchedSizes;
  }
  const size_t n = analyses[0].cand[0].size();
  const ClubSpinAxis3D& axis0 = analyses[0].axis;
  for (int run = 1; run < 3; ++run) {
    SCOPED_TRACE(run);
    ASSERT_EQ(sizes[run].size(), 2 * n);
    ASSERT_EQ(masks[run].size(), 2 * n);
    for (size_t k = 0; k < 2 * n; ++k) {
      const int cols = k == n + 3 ? sizes[0][k].width : 0;
      EXPECT_EQ(sizes[run][k], cv::Size(cols, sizes[0][k].height)) << k;
      EXPECT_EQ(cv::norm(masks[0][k], masks[run][k], cv::NORM_INF), 0.0) << k;
    }
    const ClubSpinAxis3D& axis = analyses[run].axis;
    EXPECT_EQ(analyses[run].axisFound, analyses[0].axisFound);
    EXPECT_EQ(std::memcmp(axis0.pivot, axis.pivot, sizeof axis0.pivot), 0);
    EXPECT_EQ(std::make_pair(axis.id, axis.inliers.size()),
              std::make_pair(axis0.id, axis0.inliers.size()));
    ASSERT_EQ(results[run].frameCount, results[0].frameCount);
    for (int e = 0; e < results[0].frameCount; ++e) {
      const ClubImage& a = results[0].frames[e].image;
      const ClubImage& b = results[run].frames[e].image;
      ASSERT_EQ(std::make_pair(b.width, b.height), std::make_pair(a.width, a.height));
      EXPECT_EQ(std::memcmp(a.pixels, b.pixels, size_t{a.width} * a.height * 3), 0) << e;
    }
  }
}

}  // namespace
