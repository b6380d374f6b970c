// Driver-head area: erosion thickness, core centre, the 75 % rule, the head disc.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "analysis/analysis.h"
#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

struct Measure {
  int result = -1, thickness = -1, headX = -1, headY = -1;
};

Measure MeasureMask(const cv::Mat& mask, int presetThickness = 0, int presetX = 0,
                    int presetY = 0) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = mask;
  candidate.headX = presetX;
  candidate.headY = presetY;
  Measure m{0, presetThickness, 0, 0};
  m.result = Access::ExtractDriverHeadArea(tracker, &candidate, m.thickness);
  return {m.result, m.thickness, candidate.headX, candidate.headY};
}

// The erosion loop as written out step by step on the whole mask: the stage
// works on a shrinking window around the blob and must give the same numbers.
Measure LiteralMeasure(const cv::Mat& mask) {
  cv::Mat a = mask.clone(), b;
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(5, 5));
  Measure m{1, 0, 0, 0};
  for (;;) {
    m.thickness += 2;
    cv::morphologyEx(a, b, cv::MORPH_ERODE, kernel, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT,
                     cv::morphologyDefaultBorderValue());
    if (static_cast<uint64_t>(cv::sum(b)[0]) == 0) break;
    b.copyTo(a);
  }
  std::vector<cv::Point> points;
  cv::findNonZero(a, points);
  if (points.empty()) return {0, m.thickness, 0, 0};
  const size_t n = points.size();
  std::vector<int> xs, ys;
  for (const cv::Point& p : points) {
    xs.push_back(p.x);
    ys.push_back(p.y);
  }
  std::sort(xs.begin(), xs.end());
  std::sort(ys.begin(), ys.end());
  m.headX = (xs[n / 2] + xs[(n - 1) / 2]) / 2;
  m.headY = (ys[n / 2] + ys[(n - 1) / 2]) / 2;
  return m;
}

// A one-pixel blob (thickness 2, its own core), a disc with a line (core at
// the disc's centre) and random blobs, some on or beyond the frame edge where
// the border keeps them from eroding: the same numbers as the literal loop,
// the measured mask left as it was.
TEST(ExtractDriverHeadArea, SameAsTheLiteralLoop) {
  cv::Mat dot = cv::Mat::zeros(60, 80, CV_8UC1);
  dot.at<uchar>(20, 30) = 255;
  cv::Mat disc = cv::Mat::zeros(100, 120, CV_8UC1);
  cv::circle(disc, cv::Point(50, 40), 10, cv::Scalar(255), cv::FILLED);
  cv::line(disc, cv::Point(60, 40), cv::Point(115, 90), cv::Scalar(255), 3);
  const Measure dotMeasure = MeasureMask(dot);
  EXPECT_EQ(dotMeasure.thickness, 2);
  EXPECT_EQ(dotMeasure.headX, 30);
  EXPECT_EQ(dotMeasure.headY, 20);
  const Measure discMeasure = MeasureMask(disc);
  EXPECT_GE(discMeasure.thickness, 8);
  EXPECT_EQ(discMeasure.headX, 50);
  EXPECT_EQ(discMeasure.headY, 40);

  std::vector<cv::Mat> masks{dot, disc};
  cv::RNG rng(11);
  for (int i = 0; i < 40; ++i) {
    masks.push_back(cv::Mat::zeros(120, 160, CV_8UC1));
    for (int k = 0; k < 3; ++k) {
      const cv::Point centre(rng.uniform(-10, 170), rng.uniform(-10, 130));
      cv::ellipse(masks.back(), centre, cv::Size(rng.uniform(2, 40), rng.uniform(2, 30)),
                  rng.uniform(0, 180), 0, 360, cv::Scalar(255), cv::FILLED);
    }
  }
  for (size_t i = 0; i < masks.size(); ++i) {
    SCOPED_TRACE(i);
    const cv::Mat before = masks[i].clone();
    const Measure fast = MeasureMask(masks[i]);
    const Measure literal = LiteralMeasure(masks[i]);
    EXPECT_EQ(fast.thickness, literal.thickness);
    EXPECT_EQ(fast.headX, literal.headX);
    EXPECT_EQ(fast.headY, literal.headY);
    EXPECT_EQ(cv::countNonZero(masks[i] != before), 0) << "the measured mask stays as it was";
  }
}

TEST(ExtractDriverHeadArea, MoreThanThreeQuartersFullIsLeftAlone) {
  cv::Mat mask = cv::Mat::zeros(100, 100, CV_8UC1);
  for (int k = 0; k < 7501; ++k) mask.at<uchar>(k / 100, k % 100) = 255;
  Measure m = MeasureMask(mask, 77, 5, 6);
  EXPECT_EQ(m.result, 0);
  EXPECT_EQ(m.thickness, 77);
  EXPECT_EQ(m.headX, 5);
  EXPECT_EQ(m.headY, 6);

  mask.at<uchar>(75, 0) = 0;  // exactly three quarters: measured
  m = MeasureMask(mask, 77, 5, 6);
  EXPECT_NE(m.thickness, 77);
  EXPECT_EQ(m.headX, 49);  // full rows survive: columns 49 and 50 in the middle
}

TEST(DeleteDriverHeadArea, PaintsTheDiscAtTheHeadCentre) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = cv::Mat(50, 60, CV_8UC1, cv::Scalar(255));
  candidate.headX = 20;
  candidate.headY = 30;
  EXPECT_NE(Access::DeleteDriverHeadArea(tracker, &candidate, 0), 0);
  EXPECT_EQ(cv::countNonZero(candidate.image), 50 * 60 - 1);
  EXPECT_EQ(candidate.image.at<uchar>(30, 20), 0);

  cv::Mat expected(50, 60, CV_8UC1, cv::Scalar(255));
  cv::circle(expected, cv::Point(20, 30), 7, cv::Scalar(0), cv::FILLED, cv::LINE_8);
  candidate.image.setTo(cv::Scalar(255));
  Access::DeleteDriverHeadArea(tracker, &candidate, 7);
  EXPECT_EQ(cv::countNonZero(candidate.image != expected), 0);
  EXPECT_EQ(Access::DeleteDriverHeadArea(tracker, nullptr, 7), 0);
}

// Own masks differ from the refined ones, so the measurement shows which it used; the parallel
// measurement equals the single-frame one, with the refined masks unpacked or as bit planes.
TEST(MeasureHeadSizes, MeasuresEveryFrameOnItsRefinedMaskAndKeepsItsOwnMask) {
  ClubTracker tracker;
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  std::vector<CandidateAreaImage*> candidates;
  std::vector<cv::Mat> refined, own;
  cv::RNG rng(31);
  for (int k = 0; k < 23; ++k) {
    owned.push_back(std::make_unique<CandidateAreaImage>());
    candidates.push_back(owned.back().get());
    candidates.back()->image = cv::Mat::zeros(90, 120, CV_8UC1);
    candidates.back()->image.row(k % 90).setTo(cv::Scalar(255));
    own.push_back(candidates.back()->image.clone());
    refined.push_back(cv::Mat::zeros(90, 120, CV_8UC1));
    if (k % 5 != 4)  // every fifth refined mask is empty
      cv::circle(refined.back(), cv::Point(rng.uniform(20, 100), rng.uniform(20, 70)),
                 rng.uniform(2, 18), cv::Scalar(255), cv::FILLED);
  }
  // The same masks with every other one kept as a bit plane, unpacked when measured.
  RefinedMasks mixed;
  mixed.masks = refined;
  mixed.packed.resize(refined.size());
  mixed.isPacked.assign(refined.size(), 0);
  for (size_t k = 0; k < refined.size(); k += 2) {
    ASSERT_TRUE(mixed.packed[k].Pack(refined[k]));
    mixed.isPacked[k] = 1;
    mixed.masks[k] = cv::Mat();
  }
  for (const bool packed : {false, true}) {
    SCOPED_TRACE(packed ? "partly packed" : "unpacked");
    std::vector<int> sizes(3, -1);
    if (packed) {
      MeasureHeadSizes(tracker, candidates, mixed, sizes);
    } else {
      MeasureHeadSizes(tracker, candidates, refined, sizes);
    }
    ASSERT_EQ(sizes.size(), 23u);
    for (size_t k = 0; k < sizes.size(); ++k) {
      const Measure expected = MeasureMask(refined[k]);
      EXPECT_EQ(sizes[k], expected.thickness) << "frame " << k;
      EXPECT_EQ(candidates[k]->headX, expected.headX) << "frame " << k;
      EXPECT_EQ(candidates[k]->headY, expected.headY) << "frame " << k;
      EXPECT_EQ(cv::countNonZero(candidates[k]->image != own[k]), 0);
      EXPECT_NE(candidates[k]->image.data, refined[k].data);
      candidates[k]->headX = candidates[k]->headY = -1;
    }
  }
}

}  // namespace
