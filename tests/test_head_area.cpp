// Driver-head area: erosion thickness, core centre, the 75 % rule, the head
// disc, and the parallel per-frame measurement.
#include <algorithm>
#include <cstring>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

struct Measure {
  int result = -1;
  int thickness = -1;
  int headX = -1;
  int headY = -1;
};

Measure MeasureMask(const cv::Mat& mask, int presetThickness = 0, int presetX = 0,
                    int presetY = 0) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = mask;
  candidate.headX = presetX;
  candidate.headY = presetY;
  Measure m;
  m.thickness = presetThickness;
  m.result = Access::ExtractDriverHeadArea(tracker, &candidate, m.thickness);
  m.headX = candidate.headX;
  m.headY = candidate.headY;
  return m;
}

// The measurement written out step by step as it has always run: two buffers,
// bytes of the eroded one copied back over the other, sum tests, and the
// points sorted by x and then by y.
Measure LiteralMeasure(const cv::Mat& mask, int presetThickness, int presetX, int presetY) {
  Measure m{0, presetThickness, presetX, presetY};
  cv::Mat copy = mask.clone();
  const unsigned count = static_cast<unsigned>(cv::sum(copy)[0] / 255.0);
  const unsigned limit = static_cast<unsigned>((3 * copy.rows * copy.cols) / 4);
  if (count > limit) return m;
  cv::Mat a = copy.clone();
  cv::Mat b;
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(5, 5));
  m.thickness = 0;
  for (;;) {
    m.thickness += 2;
    cv::morphologyEx(a, b, cv::MORPH_ERODE, kernel, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT,
                     cv::morphologyDefaultBorderValue());
    if (static_cast<unsigned long long>(cv::sum(b)[0]) == 0) break;
    std::memcpy(a.data, b.data, static_cast<size_t>(a.rows) * a.cols);
  }
  std::vector<cv::Point> points;
  for (int r = 0; r < a.rows; ++r) {
    for (int c = 0; c < a.cols; ++c) {
      if (a.at<uchar>(r, c) != 0) points.emplace_back(c, r);
    }
  }
  if (points.empty()) {
    m.headX = m.headY = 0;
    return m;
  }
  const size_t n = points.size();
  std::sort(points.begin(), points.end(), [](auto& p, auto& q) { return p.x < q.x; });
  m.headX = (points[n / 2].x + points[(n - 1) / 2].x) / 2;
  std::sort(points.begin(), points.end(), [](auto& p, auto& q) { return p.y < q.y; });
  m.headY = (points[n / 2].y + points[(n - 1) / 2].y) / 2;
  m.result = 1;
  return m;
}

TEST(ExtractDriverHeadArea, OnePixelBlobHasThicknessTwoAndIsItsOwnCore) {
  cv::Mat mask = cv::Mat::zeros(60, 80, CV_8UC1);
  mask.at<uchar>(20, 30) = 255;
  const Measure m = MeasureMask(mask);
  EXPECT_EQ(m.thickness, 2);
  EXPECT_EQ(m.headX, 30);
  EXPECT_EQ(m.headY, 20);
}

TEST(ExtractDriverHeadArea, CoreMediansAreTakenPerAxis) {
  cv::Mat mask = cv::Mat::zeros(60, 80, CV_8UC1);
  // Three separate dots: the medians (20, 20) are none of them.
  mask.at<uchar>(10, 10) = 255;
  mask.at<uchar>(30, 20) = 255;
  mask.at<uchar>(20, 30) = 255;
  Measure m = MeasureMask(mask);
  EXPECT_EQ(m.thickness, 2);
  EXPECT_EQ(m.headX, 20);
  EXPECT_EQ(m.headY, 20);

  // Two dots: the mean of the two middle values, truncated.
  mask.setTo(cv::Scalar(0));
  mask.at<uchar>(10, 10) = 255;
  mask.at<uchar>(31, 21) = 255;
  m = MeasureMask(mask);
  EXPECT_EQ(m.headX, 15);
  EXPECT_EQ(m.headY, 20);
}

TEST(ExtractDriverHeadArea, DiscCoreIsItsCentreAndThicknessCountsEveryErosion) {
  cv::Mat mask = cv::Mat::zeros(100, 120, CV_8UC1);
  cv::circle(mask, cv::Point(50, 40), 10, cv::Scalar(255), cv::FILLED);
  // A thin tail that erodes away long before the disc.
  cv::line(mask, cv::Point(60, 40), cv::Point(115, 90), cv::Scalar(255), 3);
  const cv::Mat before = mask.clone();
  const Measure m = MeasureMask(mask);
  EXPECT_EQ(m.headX, 50);
  EXPECT_EQ(m.headY, 40);
  // Erosions until the disc is gone, the emptying one included, counted here
  // with the library's own repeated erosion.
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(5, 5));
  int erosions = 1;
  for (cv::Mat e; ; ++erosions) {
    cv::erode(mask, e, kernel, cv::Point(-1, -1), erosions);
    if (cv::countNonZero(e) == 0) break;
  }
  EXPECT_EQ(m.thickness, 2 * erosions);
  EXPECT_GE(m.thickness, 8);
  EXPECT_EQ(cv::countNonZero(mask != before), 0) << "the measured mask stays as it was";
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

TEST(ExtractDriverHeadArea, EmptyMaskGivesTwoAndCentreZero) {
  Measure m = MeasureMask(cv::Mat::zeros(40, 50, CV_8UC1), 9, 5, 6);
  EXPECT_EQ(m.result, 0);
  EXPECT_EQ(m.thickness, 2);
  EXPECT_EQ(m.headX, 0);
  EXPECT_EQ(m.headY, 0);
  m = MeasureMask(cv::Mat(), 9, 5, 6);  // no mask at all behaves the same
  EXPECT_EQ(m.thickness, 2);
  EXPECT_EQ(m.headX, 0);
  EXPECT_EQ(m.headY, 0);
}

TEST(ExtractDriverHeadArea, NullIsRefused) {
  ClubTracker tracker;
  int thickness = 5;
  EXPECT_EQ(Access::ExtractDriverHeadArea(tracker, nullptr, thickness), 0);
  EXPECT_EQ(thickness, 5);
}

// Blobs of every kind, at the edges of the frame too (the constant border does
// not erode): the measurement equals the step-by-step version.
TEST(ExtractDriverHeadArea, MatchesTheStepByStepMeasurement) {
  cv::RNG rng(23);
  for (int shape = 0; shape < 80; ++shape) {
    cv::Mat mask = cv::Mat::zeros(rng.uniform(30, 120), rng.uniform(30, 160), CV_8UC1);
    const int blobs = rng.uniform(0, 4);
    for (int k = 0; k < blobs; ++k) {
      const cv::Point centre(rng.uniform(-10, mask.cols + 10), rng.uniform(-10, mask.rows + 10));
      const int kind = rng.uniform(0, 3);
      if (kind == 0) {
        cv::circle(mask, centre, rng.uniform(1, 25), cv::Scalar(255), cv::FILLED);
      } else if (kind == 1) {
        cv::ellipse(mask, centre, cv::Size(rng.uniform(5, 40), rng.uniform(3, 20)),
                    rng.uniform(0.0, 180.0), 0.0, 360.0, cv::Scalar(255), cv::FILLED);
      } else {
        const cv::Point end(rng.uniform(0, mask.cols), rng.uniform(0, mask.rows));
        cv::line(mask, centre, end, cv::Scalar(255), rng.uniform(1, 15));
      }
    }
    if (shape % 10 == 9) mask.setTo(cv::Scalar(255));  // full: refused
    const int preset = rng.uniform(0, 50);
    const Measure expected = LiteralMeasure(mask, preset, 3, 4);
    const Measure actual = MeasureMask(mask, preset, 3, 4);
    EXPECT_EQ(actual.thickness, expected.thickness) << "shape " << shape;
    EXPECT_EQ(actual.headX, expected.headX) << "shape " << shape;
    EXPECT_EQ(actual.headY, expected.headY) << "shape " << shape;
    EXPECT_EQ(actual.result != 0, expected.result != 0) << "shape " << shape;
  }
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

// Frames of one camera: the candidate's own mask differs from its refined
// mask, so the measurement shows which one it used.
struct Frames {
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  std::vector<CandidateAreaImage*> candidates;
  std::vector<cv::Mat> refined;
  std::vector<cv::Mat> own;

  explicit Frames(int n) {
    cv::RNG rng(31);
    for (int k = 0; k < n; ++k) {
      owned.push_back(std::make_unique<CandidateAreaImage>());
      CandidateAreaImage* c = owned.back().get();
      c->image = cv::Mat::zeros(90, 120, CV_8UC1);
      c->image.row(k % 90).setTo(cv::Scalar(255));
      own.push_back(c->image.clone());
      candidates.push_back(c);
      cv::Mat mask = cv::Mat::zeros(90, 120, CV_8UC1);
      if (k % 5 != 4) {  // every fifth refined mask is empty
        cv::circle(mask, cv::Point(rng.uniform(20, 100), rng.uniform(20, 70)), rng.uniform(2, 18),
                   cv::Scalar(255), cv::FILLED);
      }
      refined.push_back(mask);
    }
  }
};

TEST(MeasureHeadSizes, MeasuresEveryFrameOnItsRefinedMaskAndKeepsItsOwnMask) {
  ClubTracker tracker;
  Frames frames(23);
  std::vector<int> sizes(3, -1);
  MeasureHeadSizes(tracker, frames.candidates, frames.refined, sizes);
  ASSERT_EQ(sizes.size(), 23u);
  for (size_t k = 0; k < sizes.size(); ++k) {
    const Measure expected = LiteralMeasure(frames.refined[k], 0, 0, 0);
    EXPECT_EQ(sizes[k], expected.thickness) << "frame " << k;
    EXPECT_EQ(frames.candidates[k]->headX, expected.headX) << "frame " << k;
    EXPECT_EQ(frames.candidates[k]->headY, expected.headY) << "frame " << k;
    EXPECT_EQ(cv::countNonZero(frames.candidates[k]->image != frames.own[k]), 0);
    EXPECT_NE(frames.candidates[k]->image.data, frames.refined[k].data);
  }
}

TEST(MeasureHeadSizes, NullRecordsAndMissingMasksGiveZero) {
  ClubTracker tracker;
  Frames frames(6);
  frames.candidates[2] = nullptr;
  frames.refined.resize(4);
  std::vector<int> sizes;
  MeasureHeadSizes(tracker, frames.candidates, frames.refined, sizes);
  ASSERT_EQ(sizes.size(), 6u);
  EXPECT_GT(sizes[0], 0);
  EXPECT_EQ(sizes[2], 0);
  EXPECT_EQ(sizes[4], 0);
  EXPECT_EQ(sizes[5], 0);
  MeasureHeadSizes(tracker, {}, {}, sizes);
  EXPECT_TRUE(sizes.empty());
}

}  // namespace
