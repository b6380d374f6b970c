// Candidate areas: reference selection, brightness compensation, ball disc.
#include <ostream>
#include <algorithm>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

// Owns the frames given to FindCandidateArea and the records it returns.
struct FrameRun {
  std::vector<std::unique_ptr<PreprocessedImage>> owned;
  std::vector<PreprocessedImage*> frames;
  std::vector<CandidateAreaImage*> candidates;

  FrameRun() = default;
  FrameRun(const FrameRun&) = delete;
  FrameRun& operator=(const FrameRun&) = delete;
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

// A flat frame of grey 100 with about 10 % of its pixels (drawn from `seed`)
// at 150: any two such frames differ in a pattern of their own.
cv::Mat SpottedFrame(uint64_t seed, int rows = 48, int cols = 64) {
  cv::Mat frame(rows, cols, CV_8UC1, cv::Scalar(100));
  cv::RNG rng(seed);
  for (int r = 0; r < rows; ++r) {
    for (int c = 0; c < cols; ++c) {
      if (rng.uniform(0, 10) == 0) frame.at<uchar>(r, c) = 150;
    }
  }
  return frame;
}

// Mask of `image` against the references, written out pixel by pixel.
cv::Mat ExpectedMask(const cv::Mat& image, const cv::Mat& earlier, const cv::Mat& later) {
  cv::Mat mask(image.size(), CV_8UC1);
  for (int r = 0; r < image.rows; ++r) {
    for (int c = 0; c < image.cols; ++c) {
      const int v = image.at<uchar>(r, c);
      const bool d1 = std::abs(v - earlier.at<uchar>(r, c)) >= 2;
      const bool d2 = std::abs(v - later.at<uchar>(r, c)) >= 2;
      mask.at<uchar>(r, c) = d1 && d2 ? 255 : 0;
    }
  }
  return mask;
}

bool SameMask(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

// Every pair of same-size frames that explains frame i's mask, as (lower
// index, higher index): the mask is symmetric in its two references, so only
// the unordered pair can be read from it.
std::vector<std::pair<int, int>> ReferencesOf(const FrameRun& run, int i) {
  std::vector<std::pair<int, int>> pairs;
  const cv::Mat& image = run.frames[i]->image;
  const int n = static_cast<int>(run.frames.size());
  for (int p = 0; p < n; ++p) {
    for (int q = p; q < n; ++q) {
      const cv::Mat& a = run.frames[p]->image;
      const cv::Mat& b = run.frames[q]->image;
      if (a.size() != image.size() || b.size() != image.size()) continue;
      if (SameMask(run.candidates[i]->image, ExpectedMask(image, a, b))) pairs.emplace_back(p, q);
    }
  }
  return pairs;
}

struct ReferenceCase {
  const char* name;
  std::vector<uint64_t> timeStamps;
  std::vector<uint32_t> afterImpact;
  int32_t intervalBefore;
  int32_t intervalAfter;
  int frame;
  int earlier;  // expected references of `frame`
  int later;
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
        // Frame 2 of 0, 1000, ... 4000 at interval 2000: no earlier frame but 0
        // is far enough and the scan never visits 0, so the fallback takes the
        // last frame; frame 4 is exactly 2000 later, not enough, so the later
        // fallback takes the first frame.
        ReferenceCase{"equal_gap_not_enough", {0, 1000, 2000, 3000, 4000}, {}, 2000, 2000, 2, 4, 0},
        ReferenceCase{"one_more_unit_is", {0, 1000, 2000, 3000, 4001}, {}, 2000, 2000, 2, 4, 4},
        ReferenceCase{"earlier_one_more_unit", {0, 1000, 2000, 3000, 4001}, {}, 2000, 2000, 4, 2, 0},
        ReferenceCase{"earlier_equal_gap", {0, 2001, 2001, 3000, 4001, 4500}, {}, 2000, 2000, 4, 5, 0},
        // Frame 0 (3000 earlier) would qualify for frame 3, but is never scanned.
        ReferenceCase{"scan_skips_index_0", {0, 1000, 2000, 3000, 4000}, {}, 2000, 2000, 3, 4, 0},
        ReferenceCase{"index_1_is_scanned", {0, 1000, 2000, 3001, 4000}, {}, 2000, 2000, 3, 1, 0},
        ReferenceCase{"frame_0_earlier_is_last", {0, 1000, 2000, 3000, 4000}, {}, 2000, 2000, 0, 4, 3},
        // After-impact interval as soon as either frame is after the impact.
        ReferenceCase{"later_after_impact", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 2000, 500, 2, 4, 3},
        ReferenceCase{"both_after_impact", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 2000, 500, 4, 3, 0},
        ReferenceCase{"frame_after_impact", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 2000, 500, 3, 2, 4},
        ReferenceCase{"any_nonzero_flag", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 2, 0}, 2000, 500, 3, 2, 4},
        ReferenceCase{"long_after_interval", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 500, 5000, 2, 1, 0},
        // Only the low 32 bits count: frame 4 is 2^32 + 2000 after frame 2.
        ReferenceCase{"low_32_bits", {0, 1000, 2000, 3000, (1ull << 32) + 4000}, {}, 2000, 2000, 2, 4, 0},
        ReferenceCase{"wrapping_gap",
                      {kWrapBase, kWrapBase + 1000, kWrapBase + 2000, kWrapBase + 3000, kWrapBase + 4001},
                      {}, 2000, 2000, 4, 2, 0},
        // A later frame with an earlier time stamp wraps to a huge gap.
        ReferenceCase{"backwards_stamp_is_far", {0, 1000, 2000, 1500, 4000}, {}, 2000, 2000, 2, 4, 3},
        // The intervals are compared as unsigned numbers: -1 is never exceeded.
        ReferenceCase{"negative_interval", {0, 1000, 2000, 3000, 4000}, {}, -1, -1, 2, 4, 0}),
    [](const ::testing::TestParamInfo<ReferenceCase>& info) { return info.param.name; });

TEST(CandidateArea, EmptyListAppendsNothingAndKeepsWhatTheListHeld) {
  ClubTracker tracker;
  FrameRun run;
  auto* previous = new CandidateAreaImage();
  run.candidates.push_back(previous);
  EXPECT_EQ(run.Find(tracker), 1);
  ASSERT_EQ(run.candidates.size(), 1u);
  EXPECT_EQ(run.candidates[0], previous);
}

TEST(CandidateArea, ALoneFrameGetsAnEmptyMaskAndItsMetadata) {
  ClubTracker tracker;
  FrameRun run;
  PreprocessedImage& frame = run.Add(SpottedFrame(3), 123456789012ull, 1);
  frame.sensorOffsetX = -7;
  frame.sensorOffsetY = 33;
  frame.ballX = 1.25f;
  frame.ballY = -2.5f;
  ASSERT_EQ(run.Find(tracker), 1);
  ASSERT_EQ(run.candidates.size(), 1u);
  const CandidateAreaImage& c = *run.candidates[0];
  EXPECT_EQ(c.image.size(), frame.image.size());
  EXPECT_EQ(c.image.type(), CV_8UC1);
  EXPECT_EQ(cv::countNonZero(c.image), 0);
  EXPECT_EQ(c.sensorOffsetX, -7);
  EXPECT_EQ(c.sensorOffsetY, 33);
  EXPECT_EQ(c.afterImpact, 1u);
  EXPECT_EQ(c.timeStamp, 123456789012ull);
  EXPECT_EQ(c.ballX, 1.25f);
  EXPECT_EQ(c.ballY, -2.5f);
  EXPECT_EQ(c.ballRadius, 0.0f);
  EXPECT_TRUE(c.lines.empty());
  EXPECT_EQ(c.headX, 0);
  EXPECT_EQ(c.headY, 0);
}

TEST(CandidateArea, FramesOfAnotherWindowOrSizeAreNeverReferences) {
  ClubTracker tracker;
  FrameRun run;
  for (int k = 0; k < 6; ++k) run.Add(SpottedFrame(40 + k), 1000u * k);
  // Frame 3 would be frame 0's later reference and frame 5 its earlier
  // fallback; frame 1 would be the later fallback of frame 3.
  run.frames[3]->sensorOffsetX = 4;
  run.frames[5]->image = SpottedFrame(45, 48, 65);
  run.frames[1]->sensorOffsetY = -1;
  ASSERT_EQ(run.Find(tracker), 1);

  auto pairs = ReferencesOf(run, 0);
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0], std::make_pair(4, 4));
  // Frame 3 matches only itself: both references fall back on it.
  EXPECT_EQ(cv::countNonZero(run.candidates[3]->image), 0);
  EXPECT_EQ(run.candidates[5]->image.size(), cv::Size(65, 48));
  EXPECT_EQ(cv::countNonZero(run.candidates[5]->image), 0);
  // Frame 2: no earlier frame far enough (0 is not scanned), last match is 4;
  // the later scan skips 3 and takes 4 (2000 is not enough, so fallback 0).
  pairs = ReferencesOf(run, 2);
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0], std::make_pair(0, 4));
}

// 100 x 100 frames: a flat reference and a frame with `changed` pixels set.
void ChangedPixelsRun(FrameRun& run, int changed) {
  const cv::Mat reference(100, 100, CV_8UC1, cv::Scalar(100));
  cv::Mat image = reference.clone();
  for (int k = 0; k < changed; ++k) image.at<uchar>(k / 100, k % 100) = 200;
  run.Add(reference, 0);
  run.Add(image, 5000);
  run.Add(reference.clone(), 10000);
}

TEST(CandidateArea, ThreeQuartersChangedIsKeptOneMorePixelIsCompensatedAndBlanked) {
  ClubTracker tracker;
  {
    FrameRun run;
    ChangedPixelsRun(run, 7500);
    ASSERT_EQ(run.Find(tracker), 1);
    EXPECT_EQ(cv::countNonZero(run.candidates[1]->image), 7500);
  }
  {
    // Compensation scales the reference to 255, so the flat part differs
    // as well and the mask is blanked.
    FrameRun run;
    ChangedPixelsRun(run, 7501);
    ASSERT_EQ(run.Find(tracker), 1);
    EXPECT_EQ(cv::countNonZero(run.candidates[1]->image), 0);
    EXPECT_EQ(run.candidates[1]->image.size(), cv::Size(100, 100));
  }
}

TEST(CandidateArea, GlobalBrighteningIsCompensatedWithTheMasksOwnMedian) {
  // A textured scene; the middle frame is the scene scaled so that its median
  // is full scale (as the compensation expects), with a dark object covering
  // 40 % of it, so that the frame's own median is far from 255.
  cv::Mat scene(100, 100, CV_8UC1);
  for (int r = 0; r < 100; ++r) {
    for (int c = 0; c < 100; ++c) scene.at<uchar>(r, c) = static_cast<uchar>(60 + (r * 7 + c * 13) % 81);
  }
  std::vector<uchar> sorted(scene.datastart, scene.dataend);
  std::sort(sorted.begin(), sorted.end());
  const int sceneMedian = sorted[sorted.size() / 2];
  const float ratio = 255.0f / static_cast<float>(sceneMedian);
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

  cv::Mat expected = ExpectedMask(bright, scaled, scaled);
  EXPECT_TRUE(SameMask(run.candidates[1]->image, expected));
  cv::Mat objectMask = cv::Mat::zeros(100, 100, CV_8UC1);
  objectMask(object).setTo(cv::Scalar(255));
  EXPECT_TRUE(SameMask(run.candidates[1]->image, objectMask));
}

TEST(CandidateArea, ABrightnessShiftThatScalingCannotUndoIsBlanked) {
  cv::Mat scene(60, 80, CV_8UC1);
  cv::RNG rng(5);
  rng.fill(scene, cv::RNG::UNIFORM, 40, 120);
  ClubTracker tracker;
  FrameRun run;
  run.Add(scene, 0);
  run.Add(scene + 40, 5000);
  run.Add(scene.clone(), 10000);
  ASSERT_EQ(run.Find(tracker), 1);
  EXPECT_EQ(cv::countNonZero(run.candidates[1]->image), 0);
}

struct BallCase {
  float x, y, radius;
  cv::Point centre;  // expected painted disc
  int paintedRadius;  // -1 = nothing painted
};

void PrintTo(const BallCase& c, std::ostream* os) { *os << "ball (" << c.x << ", " << c.y << ") radius " << c.radius; }

class BallDisc : public ::testing::TestWithParam<BallCase> {};

TEST_P(BallDisc, IsPaintedWithTruncatedRadiusAndRoundedCentre) {
  const BallCase& param = GetParam();
  // Frame 1 differs from both neighbours in a 60 x 60 square.
  const cv::Mat flat(100, 100, CV_8UC1, cv::Scalar(100));
  cv::Mat moved = flat.clone();
  const cv::Rect square(10, 10, 60, 60);
  moved(square).setTo(cv::Scalar(180));
  ClubTracker tracker;
  FrameRun run;
  run.Add(flat, 0);
  run.Add(moved, 5000);
  run.Add(flat.clone(), 10000);
  run.frames[1]->ballX = param.x;
  run.frames[1]->ballY = param.y;
  run.frames[1]->ballRadius = param.radius;
  ASSERT_EQ(run.Find(tracker), 1);

  cv::Mat expected = cv::Mat::zeros(100, 100, CV_8UC1);
  expected(square).setTo(cv::Scalar(255));
  if (param.paintedRadius >= 0) {
    cv::circle(expected, param.centre, param.paintedRadius, cv::Scalar(0), cv::FILLED, cv::LINE_8);
  }
  EXPECT_TRUE(SameMask(run.candidates[1]->image, expected));
  EXPECT_EQ(run.candidates[1]->ballRadius, param.radius);
}

INSTANTIATE_TEST_SUITE_P(
    Discs, BallDisc,
    ::testing::Values(BallCase{40.5f, 30.4f, 10.7f, {41, 30}, 10},   // halves round away from 0
                      BallCase{39.49f, 30.6f, 10.0f, {39, 31}, 10},
                      BallCase{20.0f, 20.0f, 0.9f, {20, 20}, 0},      // truncated to a dot
                      BallCase{40.0f, 30.0f, 0.0f, {0, 0}, -1},       // no radius, no disc
                      BallCase{40.0f, 30.0f, -3.0f, {0, 0}, -1}));

}  // namespace
