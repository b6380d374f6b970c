// The per-camera analysis stages in pipeline order on the golden recordings and the synthetic swing.
#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "harness/offline.h"
#include "support/access.h"
#include "synth/swing.h"

namespace {

using Access = ClubTrackerTestAccess;

// Records of one camera as Find keeps them; freed on destruction.
struct CameraStages {
  std::vector<PreprocessedImage*> pre;
  std::vector<CandidateAreaImage*> cand;
  std::vector<cv::Mat> masks;
  std::vector<int> present;
  ~CameraStages() {
    for (PreprocessedImage* p : pre) delete p;
    for (CandidateAreaImage* c : cand) delete c;
  }
};

// Preprocessing and candidate areas of one camera, then the presence test.
void RunToCandidates(ClubTracker& tracker, const std::vector<ClubImage*>& frames,
                     CameraStages& stages) {
  for (ClubImage* frame : frames) {
    stages.pre.push_back(new PreprocessedImage());
    Access::Preprocessing(tracker, frame, stages.pre.back());
  }
  ASSERT_EQ(Access::FindCandidateArea(tracker, stages.pre, stages.cand), 1);
  ASSERT_EQ(stages.cand.size(), frames.size());
  stages.masks.assign(stages.cand.size(), cv::Mat());
  stages.present.assign(stages.cand.size(), 0);
  for (size_t k = 0; k < stages.cand.size(); ++k)
    RefineCandidateMask(stages.cand[k]->image, stages.masks[k], &stages.present[k]);
}

int CountBothPresent(const CameraStages& cam1, const CameraStages& cam2) {
  int both = 0;
  for (size_t k = 0; k < cam1.present.size() && k < cam2.present.size(); ++k) {
    both += cam1.present[k] != 0 && cam2.present[k] != 0;
  }
  return both;
}

// The head size the driver takes from one camera's per-frame thicknesses.
int HeadValue(const std::vector<int>& sizes) {
  std::vector<int> positive;
  for (int s : sizes)
    if (s > 0) positive.push_back(s);
  if (positive.empty()) return 0;
  std::sort(positive.begin(), positive.end());
  return positive[(2 * positive.size()) / 3];
}

// Head sizes of both cameras when more than 10 frames show a blob in both,
// then the head disc painted out of every mask.
void MeasureAndDeleteHeads(ClubTracker& tracker, CameraStages& cam1, CameraStages& cam2,
                           int& head1, int& head2) {
  head1 = head2 = 0;
  if (CountBothPresent(cam1, cam2) > 10) {
    std::vector<int> sizes;
    MeasureHeadSizes(tracker, cam1.cand, cam1.masks, sizes);
    head1 = HeadValue(sizes);
    MeasureHeadSizes(tracker, cam2.cand, cam2.masks, sizes);
    head2 = HeadValue(sizes);
  }
  for (size_t k = 0; k < cam1.cand.size(); ++k) {
    Access::DeleteDriverHeadArea(tracker, cam1.cand[k], head1);
    Access::DeleteDriverHeadArea(tracker, cam2.cand[k], head2);
  }
}

// Lines of every frame at one divisor, with the driver's per-phase thresholds.
void ExtractLines(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& cand,
                  float divisor) {
  const int t0 = Access::GetLineThreshold(tracker, cand[0], divisor);
  int tAfter = 0;
  for (CandidateAreaImage* c : cand) {
    if (c->afterImpact == 1) {
      if (tAfter <= 0) tAfter = Access::GetLineThreshold(tracker, c, divisor);
      Access::ExtractCandidates(tracker, c, tAfter);
    } else {
      Access::ExtractCandidates(tracker, c, t0);
    }
  }
}

int LineCount(const std::vector<CandidateAreaImage*>& cand) {
  int count = 0;
  for (const CandidateAreaImage* c : cand) count += static_cast<int>(c->lines.size());
  return count;
}

int FoundPairs(const std::vector<CandidateAreaImage*>& a,
               const std::vector<CandidateAreaImage*>& b) {
  int pairs = 0;
  for (size_t k = 0; k < a.size(); ++k) {
    pairs += !a[k]->lines.empty() && !b[k]->lines.empty() && a[k]->afterImpact == 0 &&
             b[k]->afterImpact == 0;
  }
  return pairs;
}

// Frames of a camera folder, freed on destruction.
struct GoldenCamera {
  std::vector<ClubImage*> images;
  GoldenCamera(const std::filesystem::path& folder, int impactIndex)
      : images(LoadCameraFrames(folder, impactIndex)) {}
  ~GoldenCamera() { FreeFrames(images); }
};

class GoldenStages : public ::testing::TestWithParam<const char*> {};

// Presence pairs, head sizes and line counts of every pass as recorded with the golden recordings.
TEST_P(GoldenStages, PresenceHeadSizesAndLineCountsOfEveryPass) {
  const std::filesystem::path dir = std::filesystem::path(CLUBTRACKER_GOLDEN_DIR) / GetParam();
  ASSERT_TRUE(std::filesystem::exists(dir / "expected.json")) << "missing golden recording " << dir;
  nlohmann::json expected;
  std::ifstream(dir / "expected.json") >> expected;
  const nlohmann::json& diag = expected.at("diagnostics");

  const RunOptions options = ReadRunOptions(dir / "run.ini");
  GoldenCamera master(dir / "Master", options.impactIndex), slave(dir / "Slave", options.impactIndex);
  ASSERT_EQ(master.images.size(), slave.images.size());
  for (size_t k = 0; k < master.images.size(); ++k) {
    const int64_t d = static_cast<int64_t>(master.images[k]->timeStamp - slave.images[k]->timeStamp);
    ASSERT_LE(std::abs(d), 10) << "frames of the golden recording pair one to one";
  }

  ClubTracker tracker;
  tracker.setting.timeStampIntervalBeforeImpact = options.setting.timeStampIntervalBeforeImpact;
  tracker.setting.timeStampIntervalAfterImpact = options.setting.timeStampIntervalAfterImpact;
  CameraStages cam1, cam2;
  RunToCandidates(tracker, master.images, cam1);
  RunToCandidates(tracker, slave.images, cam2);
  EXPECT_EQ(CountBothPresent(cam1, cam2), diag.at("bothPresent").get<int>());

  int head1 = 0, head2 = 0;
  MeasureAndDeleteHeads(tracker, cam1, cam2, head1, head2);
  EXPECT_EQ(head1, diag.at("headValues")[0].get<int>());
  EXPECT_EQ(head2, diag.at("headValues")[1].get<int>());

  CameraStages* cams[2] = {&cam1, &cam2};
  for (const nlohmann::json& pass : diag.at("passes")) {
    for (int c = 0; c < 2; ++c) {
      const float size = pass.at("lineSize")[c].get<float>();
      if (pass.at("redo")[c].get<int>() == 1) {
        for (CandidateAreaImage* cand : cams[c]->cand) cand->lines.clear();
        ExtractLines(tracker, cams[c]->cand, size);
      }
      EXPECT_EQ(LineCount(cams[c]->cand), pass.at("lineCount")[c].get<int>()) << "divisor " << size;
    }
    EXPECT_EQ(FoundPairs(cam1.cand, cam2.cand), pass.at("foundPair").get<int>());
  }
}

INSTANTIATE_TEST_SUITE_P(Recordings, GoldenStages, ::testing::Values("g01", "g02"));

// Synthetic swing (default scene: near cameras, 24 frames, impact at frame 10).
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

class SwingAnalysis : public ::testing::Test {
 protected:
  struct State {
    synth::Recording recording;
    ClubTracker tracker;
    CameraStages cams[2];
    std::vector<cv::Mat> masksBeforeHeadDeletion[2];
    int bothPresent = 0;
    int headValue[2] = {0, 0};
  };

  static void SetUpTestSuite() {
    state_ = new State();
    State& s = *state_;
    s.recording = synth::Render(synth::SwingScene{});
    s.tracker = ClubTracker(s.recording.setting);
    RunToCandidates(s.tracker, s.recording.Cam1(), s.cams[0]);
    RunToCandidates(s.tracker, s.recording.Cam2(), s.cams[1]);
    for (int c = 0; c < 2; ++c)
      for (const CandidateAreaImage* cand : s.cams[c].cand)
        s.masksBeforeHeadDeletion[c].push_back(cand->image.clone());
    s.bothPresent = CountBothPresent(s.cams[0], s.cams[1]);
    MeasureAndDeleteHeads(s.tracker, s.cams[0], s.cams[1], s.headValue[0], s.headValue[1]);
    for (int c = 0; c < 2; ++c) ExtractLines(s.tracker, s.cams[c].cand, 4.5f);
  }

  static void TearDownTestSuite() { delete state_; }

  // Middle of the visible shaft axis (full-sensor pixels) and its projected radius.
  static bool VisibleShaftPoint(int camera, double time, cv::Vec2d& point, double& radius) {
    const synth::SwingTruth& truth = state_->recording.truth;
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

  static State* state_;
};

SwingAnalysis::State* SwingAnalysis::state_ = nullptr;

TEST_F(SwingAnalysis, EveryBeforeImpactMaskHoldsTheProjectedClubHead) {
  const synth::SwingTruth& truth = state_->recording.truth;
  for (int c = 0; c < 2; ++c) {
    const synth::CameraModel& model = truth.cameras[c];
    for (int k = 0; k < truth.impactIndex; ++k) {
      SCOPED_TRACE(testing::Message() << "camera " << c + 1 << " frame " << k);
      const cv::Mat& mask = state_->masksBeforeHeadDeletion[c][k];
      ASSERT_EQ(state_->cams[c].cand[k]->afterImpact, 0u);
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
    }
  }
}

TEST_F(SwingAnalysis, BlobInBothCamerasGivesPositiveHeadSizes) {
  EXPECT_GT(state_->bothPresent, 10);
  EXPECT_GT(state_->headValue[0], 0);
  EXPECT_GT(state_->headValue[1], 0);
}

TEST_F(SwingAnalysis, StrongestLineFollowsAnEdgeOfTheShaftBeforeImpact) {
  const synth::SwingTruth& truth = state_->recording.truth;
  for (int c = 0; c < 2; ++c) {
    int onEdge = 0;
    for (int k = 0; k < truth.impactIndex; ++k) {
      const CandidateAreaImage& cand = *state_->cams[c].cand[k];
      if (cand.lines.empty()) continue;
      const double time = truth.FrameTime(c, k);
      cv::Vec2d point;
      double radius = 0.0;
      if (!VisibleShaftPoint(c, time, point, radius)) continue;
      const cv::Vec2f& strongest = cand.lines[0];
      const double angle = AngleBetween(strongest[1], truth.ShaftLine(c, time)[1]);
      const double offEdge = std::fabs(std::fabs(DistanceFromLine(strongest, point)) - radius);
      if (angle <= 2.0 && offEdge <= 4.0) ++onEdge;
    }
    EXPECT_GE(onEdge, 8) << "camera " << c + 1;
  }
}

}  // namespace
