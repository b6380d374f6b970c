// Candidate areas: reference selection, brightness compensation, ball disc.
#include <algorithm>
#include <memory>
#include <ostream>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

struct FrameRun {
  std::vector<std::unique_ptr<PreprocessedImage>> owned;
  std::vector<PreprocessedImage*> frames;
  std::vector<CandidateAreaImage*> candidates;
  ~FrameRun() {
    for (CandidateAreaImage* c : candidates) delete c;
  }

  PreprocessedImage& Add(const cv::Mat& image, uint64_t timeStamp, uint32_t afterImpact = 0) {
    owned.push_back(std::make_unique<PreprocessedImage>());
    PreprocessedImage& frame = *owned.back();
    frame.image = image;
    frame.timeStamp = timeStamp;
    frame.afterImpact = afterImpact;
    frames.push_back(&frame);
    return frame;
  }

  int Find(ClubTracker& tracker) { return Access::FindCandidateArea(tracker, frames, candidates); }
};

// Grey 100 with ~10 % of pixels (from `seed`) at 150.
cv::Mat SpottedFrame(uint64_t seed, int rows = 48, int cols = 64) {
  cv::Mat frame(rows, cols, CV_8UC1, cv::Scalar(100));
  cv::RNG rng(seed);
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c)
      if (rng.uniform(0, 10) == 0) frame.at<uchar>(r, c) = 150;
  return frame;
}

cv::Mat ExpectedMask(const cv::Mat& image, const cv::Mat& earlier, const cv::Mat& later) {
  cv::Mat d1, d2;
  cv::absdiff(image, earlier, d1);
  cv::absdiff(image, later, d2);
  return (d1 >= 2) & (d2 >= 2);
}

bool SameMask(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

// Every unordered pair of same-size frames that explains frame i's mask.
std::vector<std::pair<int, int>> ReferencesOf(const FrameRun& run, int i) {
  std::vector<std::pair<int, int>> pairs;
  const cv::Mat& image = run.frames[i]->image;
  const int n = static_cast<int>(run.frames.size());
  for (int p = 0; p < n; ++p)
    for (int q = p; q < n; ++q) {
      const cv::Mat& a = run.frames[p]->image;
      const cv::Mat& b = run.frames[q]->image;
      if (a.size() != image.size() || b.size() != image.size()) continue;
      if (SameMask(run.candidates[i]->image, ExpectedMask(image, a, b))) pairs.emplace_back(p, q);
    }
  return pairs;
}

struct ReferenceCase {
  const char* name;
  std::vector<uint64_t> timeStamps;
  std::vector<uint32_t> afterImpact;
  int32_t intervalBefore, intervalAfter;
  int frame, earlier, later;  // expected references of `frame`
};

void PrintTo(const ReferenceCase& c, std::ostream* os) { *os << c.name; }

class ReferenceSelection : public ::testing::TestWithParam<ReferenceCase> {};

TEST_P(ReferenceSelection, PicksTheExpectedFrames) {
  const ReferenceCase& param = GetParam();
  ClubTracker tracker;
  tracker.setting.timeStampIntervalBeforeImpact = param.intervalBefore;
  tracker.setting.timeStampIntervalAfterImpact = param.intervalAfter;
  FrameRun run;
  for (size_t k = 0; k < param.timeStamps.size(); ++k) {
    run.Add(SpottedFrame(17 + k), param.timeStamps[k],
            param.afterImpact.empty() ? 0 : param.afterImpact[k]);
  }
  ASSERT_EQ(run.Find(tracker), 1);
  ASSERT_EQ(run.candidates.size(), param.timeStamps.size());

  const cv::Mat& image = run.frames[param.frame]->image;
  const cv::Mat expected = ExpectedMask(image, run.frames[param.earlier]->image,
                                        run.frames[param.later]->image);
  ASSERT_GT(cv::countNonZero(expected), 0);
  const auto pairs = ReferencesOf(run, param.frame);
  ASSERT_EQ(pairs.size(), 1u) << "the spot patterns tell every reference pair apart";
  EXPECT_EQ(pairs[0], std::make_pair(std::min(param.earlier, param.later), std::max(param.earlier, param.later)));
}

const uint64_t kWrapBase = 0xFFFFFFFFull - 2500;  // the low 32 bits wrap at frame 3

INSTANTIATE_TEST_SUITE_P(
    Gaps, ReferenceSelection,
    ::testing::Values(
        ReferenceCase{"equal_gap_not_enough", {0, 1000, 2000, 3000, 4000}, {}, 2000, 2000, 2, 4, 0},
        ReferenceCase{"one_more_unit_is", {0, 1000, 2000, 3000, 4001}, {}, 2000, 2000, 2, 4, 4},
        ReferenceCase{"scan_skips_index_0", {0, 1000, 2000, 3000, 4000}, {}, 2000, 2000, 3, 4, 0},
        ReferenceCase{"index_1_is_scanned", {0, 1000, 2000, 3001, 4000}, {}, 2000, 2000, 3, 1, 0},
        ReferenceCase{"later_after_impact", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 2000, 500, 2, 4, 3},
        ReferenceCase{"frame_after_impact", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 2000, 500, 3, 2, 4},
        ReferenceCase{"wrapping_gap",
                      {kWrapBase, kWrapBase + 1000, kWrapBase + 2000, kWrapBase + 3000, kWrapBase + 4001},
                      {}, 2000, 2000, 4, 2, 0}),
    [](const ::testing::TestParamInfo<ReferenceCase>& info) { return info.param.name; });

TEST(CandidateArea, ALoneFrameGetsAnEmptyMaskAndItsMetadata) {
  ClubTracker tracker;
  FrameRun run;
  run.Add(SpottedFrame(3), 123456789012ull, 1).sensorOffsetX = -7;
  ASSERT_EQ(run.Find(tracker), 1);
  ASSERT_EQ(run.candidates.size(), 1u);
  const CandidateAreaImage& c = *run.candidates[0];
  EXPECT_TRUE(SameMask(c.image, cv::Mat::zeros(48, 64, CV_8UC1)));
  EXPECT_EQ(c.sensorOffsetX, -7);
  EXPECT_EQ(c.afterImpact, 1u);
  EXPECT_EQ(c.timeStamp, 123456789012ull);
}

TEST(CandidateArea, FramesOfAnotherWindowOrSizeAreNeverReferences) {
  ClubTracker tracker;
  FrameRun run;
  for (int k = 0; k < 6; ++k) run.Add(SpottedFrame(40 + k), 1000u * k);
  run.frames[3]->sensorOffsetX = 4;
  run.frames[5]->image = SpottedFrame(45, 48, 65);
  run.frames[1]->sensorOffsetY = -1;
  ASSERT_EQ(run.Find(tracker), 1);

  auto pairs = ReferencesOf(run, 0);
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0], std::make_pair(4, 4));
  EXPECT_EQ(cv::countNonZero(run.candidates[3]->image), 0);
  EXPECT_EQ(run.candidates[5]->image.size(), cv::Size(65, 48));
  EXPECT_EQ(cv::countNonZero(run.candidates[5]->image), 0);
  pairs = ReferencesOf(run, 2);
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0], std::make_pair(0, 4));
}

TEST(CandidateArea, ThreeQuartersChangedIsKeptOneMorePixelIsCompensatedAndBlanked) {
  ClubTracker tracker;
  FrameRun kept, blanked;
  for (FrameRun* run : {&kept, &blanked}) {
    const cv::Mat reference(100, 100, CV_8UC1, cv::Scalar(100));
    cv::Mat image = reference.clone();
    const int changed = run == &kept ? 7500 : 7501;
    for (int k = 0; k < changed; ++k) image.at<uchar>(k / 100, k % 100) = 200;
    run->Add(reference, 0);
    run->Add(image, 5000);
    run->Add(reference.clone(), 10000);
  }
  ASSERT_EQ(kept.Find(tracker), 1);
  ASSERT_EQ(blanked.Find(tracker), 1);
  EXPECT_EQ(cv::countNonZero(kept.candidates[1]->image), 7500);
  EXPECT_EQ(cv::countNonZero(blanked.candidates[1]->image), 0);
  EXPECT_EQ(blanked.candidates[1]->image.size(), cv::Size(100, 100));
}

TEST(CandidateArea, GlobalBrighteningIsCompensatedWithTheMasksOwnMedian) {
  // Middle frame: the scene scaled to median 255, with a dark object over 40 %.
  cv::Mat scene(100, 100, CV_8UC1);
  for (int r = 0; r < 100; ++r)
    for (int c = 0; c < 100; ++c) scene.at<uchar>(r, c) = static_cast<uchar>(60 + (r * 7 + c * 13) % 81);
  std::vector<uchar> sorted(scene.datastart, scene.dataend);
  std::sort(sorted.begin(), sorted.end());
  const float ratio = 255.0f / static_cast<float>(sorted[sorted.size() / 2]);
  cv::Mat scaled;
  scene.convertTo(scaled, CV_8UC1, static_cast<double>(ratio));
  cv::Mat bright = scaled.clone();
  const cv::Rect object(10, 10, 80, 50);
  bright(object).setTo(cv::Scalar(0));

  ClubTracker tracker;
  FrameRun run;
  run.Add(scene, 0);
  run.Add(bright, 5000);
  run.Add(scene.clone(), 10000);
  ASSERT_GT(cv::countNonZero(ExpectedMask(bright, scene, scene)), 7500);
  ASSERT_EQ(run.Find(tracker), 1);

  EXPECT_TRUE(SameMask(run.candidates[1]->image, ExpectedMask(bright, scaled, scaled)));
  cv::Mat objectMask = cv::Mat::zeros(100, 100, CV_8UC1);
  objectMask(object).setTo(cv::Scalar(255));
  EXPECT_TRUE(SameMask(run.candidates[1]->image, objectMask));
}

struct BallCase {
  float x, y, radius;
  cv::Point centre;   // expected painted disc
  int paintedRadius;  // -1 = nothing painted
};

class BallDisc : public ::testing::TestWithParam<BallCase> {};

TEST_P(BallDisc, IsPaintedWithTruncatedRadiusAndRoundedCentre) {
  const BallCase& param = GetParam();
  const cv::Mat flat(100, 100, CV_8UC1, cv::Scalar(100));
  cv::Mat moved = flat.clone();
  const cv::Rect square(10, 10, 60, 60);
  moved(square).setTo(cv::Scalar(180));
  ClubTracker tracker;
  FrameRun run;
  run.Add(flat, 0);
  PreprocessedImage& frame = run.Add(moved, 5000);
  run.Add(flat.clone(), 10000);
  frame.ballX = param.x;
  frame.ballY = param.y;
  frame.ballRadius = param.radius;
  ASSERT_EQ(run.Find(tracker), 1);

  cv::Mat expected = cv::Mat::zeros(100, 100, CV_8UC1);
  expected(square).setTo(cv::Scalar(255));
  if (param.paintedRadius >= 0)
    cv::circle(expected, param.centre, param.paintedRadius, cv::Scalar(0), cv::FILLED, cv::LINE_8);
  EXPECT_TRUE(SameMask(run.candidates[1]->image, expected));
  EXPECT_EQ(run.candidates[1]->ballRadius, param.radius);
}

INSTANTIATE_TEST_SUITE_P(
    Discs, BallDisc,
    ::testing::Values(BallCase{40.5f, 30.4f, 10.7f, {41, 30}, 10},   // halves round away from 0
                      BallCase{39.49f, 30.6f, 10.0f, {39, 31}, 10},
                      BallCase{20.0f, 20.0f, 0.9f, {20, 20}, 0},      // truncated to a dot
                      BallCase{40.0f, 30.0f, 0.0f, {0, 0}, -1}));     // no radius, no disc

}  // namespace
