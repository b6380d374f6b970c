// Shaft-line extraction: vote threshold, near-horizontal filter, shift to
// full-sensor coordinates, morphology, and the reuse of the edge map.
#include <ostream>
#include <cmath>
#include <limits>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

constexpr double kDegree = CV_PI / 180.0;

struct ThresholdCase {
  int rows;
  float ballY;
  float divisor;
  int expected;
};

void PrintTo(const ThresholdCase& c, std::ostream* os) { *os << c.rows << " rows, ball at row " << c.ballY << ", divisor " << c.divisor; }

class LineThreshold : public ::testing::TestWithParam<ThresholdCase> {};

TEST_P(LineThreshold, ScalesTheLongerReachFromTheBall) {
  const ThresholdCase& param = GetParam();
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = cv::Mat::zeros(param.rows, 16, CV_8UC1);
  candidate.ballY = param.ballY;
  EXPECT_EQ(Access::GetLineThreshold(tracker, &candidate, param.divisor), param.expected);
}

INSTANTIATE_TEST_SUITE_P(
    Reach, LineThreshold,
    ::testing::Values(ThresholdCase{480, 300.0f, 3.0f, 100},   // reach 300 (above)
                      ThresholdCase{480, 100.0f, 1.0f, 380},   // reach 380 (below)
                      ThresholdCase{480, 100.0f, 3.0f, 126},   // 126.67 truncated
                      ThresholdCase{480, 240.0f, 4.5f, 53},    // tie: the stretch below
                      // The reach is truncated before the division: 300 / 0.3f,
                      // not 300.9 / 0.3f (1003).
                      ThresholdCase{480, 300.9f, 0.3f, 999},
                      ThresholdCase{208, 147.52f, 4.5f, 32},
                      ThresholdCase{480, -20.0f, 1.0f, 500},   // ball above the picture
                      ThresholdCase{480, 500.0f, 1.0f, 500},   // ball below the picture
                      ThresholdCase{100, 50.0f, 60.0f, 0},     // divisor beyond the reach
                      ThresholdCase{100, 50.0f, 0.0f, 0},      // no divisor: refused
                      ThresholdCase{100, std::numeric_limits<float>::quiet_NaN(), 1.0f, 0}));

TEST(LineThreshold, NullCandidateGivesZero) {
  ClubTracker tracker;
  EXPECT_EQ(Access::GetLineThreshold(tracker, nullptr, 4.5f), 0);
}

// A 1-pixel line through (200, 200) whose Hough normal has angle `degrees`.
cv::Mat LineEdges(double degrees, cv::Size size = cv::Size(400, 400)) {
  cv::Mat edges = cv::Mat::zeros(size, CV_8UC1);
  const double theta = degrees * kDegree;
  const cv::Point2d centre(200, 200);
  const cv::Point2d direction(-std::sin(theta), std::cos(theta));
  cv::line(edges, centre - 400 * direction, centre + 400 * direction, cv::Scalar(255), 1,
           cv::LINE_8);
  return edges;
}

bool NearHorizontal(float theta) {
  return std::fabs(static_cast<double>(theta) - CV_PI / 2) < 0.39269909262657166;
}

class HorizontalBound : public ::testing::TestWithParam<int> {};

// On the 1-degree grid of the transform the bound falls between 67 and 68
// degrees (and 112 and 113): 23 degrees from horizontal is kept, 22 is not.
TEST_P(HorizontalBound, DropsLinesWithin22Point5DegreesOfHorizontal) {
  const int degrees = GetParam();
  CandidateAreaImage candidate;
  ASSERT_EQ(ExtractCandidatesFromEdges(&candidate, LineEdges(degrees), 120), 1);
  const bool kept = std::abs(degrees - 90) >= 23;
  bool drawnLineKept = false;
  for (const cv::Vec2f& line : candidate.lines) {
    EXPECT_FALSE(NearHorizontal(line[1])) << line[1] / kDegree << " degrees";
    if (std::fabs(line[1] - degrees * kDegree) < 0.5 * kDegree) drawnLineKept = true;
  }
  EXPECT_EQ(drawnLineKept, kept);
  if (!kept) {
    EXPECT_TRUE(candidate.lines.empty());
  }
}

INSTANTIATE_TEST_SUITE_P(Degrees, HorizontalBound,
                         ::testing::Values(0, 30, 66, 67, 68, 80, 90, 100, 112, 113, 114, 150, 179));

TEST(LineShift, VerticalLineMovesByTheSensorOffsetX) {
  cv::Mat edges = cv::Mat::zeros(200, 200, CV_8UC1);
  edges.col(50).setTo(cv::Scalar(255));
  CandidateAreaImage candidate;
  candidate.sensorOffsetX = 100;
  candidate.sensorOffsetY = 50;
  ASSERT_EQ(ExtractCandidatesFromEdges(&candidate, edges, 150), 1);
  ASSERT_FALSE(candidate.lines.empty());
  EXPECT_EQ(candidate.lines[0][0], 150.0f);
  EXPECT_EQ(candidate.lines[0][1], 0.0f);
}

TEST(LineShift, RhoIsShiftedInSinglePrecision) {
  // A star of lines at many angles, so that many thetas come out.
  cv::Mat edges = cv::Mat::zeros(400, 400, CV_8UC1);
  for (int degrees = 0; degrees < 180; degrees += 7) edges |= LineEdges(degrees + 0.3);
  CandidateAreaImage plain;
  ASSERT_EQ(ExtractCandidatesFromEdges(&plain, edges, 100), 1);
  CandidateAreaImage shifted;
  shifted.sensorOffsetX = 333;
  shifted.sensorOffsetY = -777;
  ASSERT_EQ(ExtractCandidatesFromEdges(&shifted, edges, 100), 1);
  ASSERT_EQ(plain.lines.size(), shifted.lines.size());
  ASSERT_GT(plain.lines.size(), 10u);

  int differsInDouble = 0;
  for (size_t k = 0; k < plain.lines.size(); ++k) {
    const float theta = plain.lines[k][1];
    const float rho = plain.lines[k][0];
    const float expected = (-777.0f * std::sin(theta) + 333.0f * std::cos(theta)) + rho;
    EXPECT_EQ(shifted.lines[k][1], theta);
    EXPECT_EQ(shifted.lines[k][0], expected) << "line " << k;
    const double inDouble = (-777.0 * std::sin(static_cast<double>(theta)) +
                             333.0 * std::cos(static_cast<double>(theta))) + rho;
    if (static_cast<float>(inDouble) != expected) ++differsInDouble;
  }
  EXPECT_GT(differsInDouble, 0) << "the angles chosen tell single from double precision";
}

// A band `width` pixels wide along the line of normal angle `degrees`
// through (x, y).
cv::Mat Band(cv::Size size, double degrees, cv::Point2d through, int width) {
  cv::Mat mask = cv::Mat::zeros(size, CV_8UC1);
  const double theta = degrees * kDegree;
  const cv::Point2d direction(-std::sin(theta), std::cos(theta));
  cv::line(mask, through - 1000 * direction, through + 1000 * direction, cv::Scalar(255), width,
           cv::LINE_8);
  return mask;
}

TEST(ExtractCandidates, ThickBandGivesLinesAlongItsEdges) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = cv::Mat::zeros(200, 200, CV_8UC1);
  candidate.image(cv::Rect(100, 0, 12, 200)).setTo(cv::Scalar(255));
  const cv::Mat before = candidate.image.clone();
  ASSERT_EQ(Access::ExtractCandidates(tracker, &candidate, 150), 1);
  ASSERT_FALSE(candidate.lines.empty());
  for (const cv::Vec2f& line : candidate.lines) {
    EXPECT_LT(std::fabs(line[1]), 1.5 * kDegree);
    EXPECT_GE(line[0], 98.0f);
    EXPECT_LE(line[0], 113.0f);
  }
  EXPECT_EQ(cv::countNonZero(candidate.image != before), 0) << "the mask stays as it was";
}

TEST(ExtractCandidates, BandsThinnerThanTheOpeningLeaveNoLine) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  // Away from the frame's edges, where the constant border would keep it.
  candidate.image = cv::Mat::zeros(300, 300, CV_8UC1);
  cv::line(candidate.image, cv::Point(100, 30), cv::Point(180, 270), cv::Scalar(255), 4);
  ASSERT_EQ(Access::ExtractCandidates(tracker, &candidate, 30), 1);
  EXPECT_TRUE(candidate.lines.empty());
}

TEST(ExtractCandidates, EmptyMaskGivesNoLinesAndStillSucceeds) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = cv::Mat::zeros(120, 160, CV_8UC1);
  EXPECT_EQ(Access::ExtractCandidates(tracker, &candidate, 1), 1);
  EXPECT_TRUE(candidate.lines.empty());
  CandidateAreaImage noImage;
  EXPECT_EQ(Access::ExtractCandidates(tracker, &noImage, 10), 1);
  EXPECT_TRUE(noImage.lines.empty());
}

TEST(ExtractCandidates, RefusesNullAndThresholdsNotAboveZero) {
  ClubTracker tracker;
  EXPECT_EQ(Access::ExtractCandidates(tracker, nullptr, 10), 0);
  CandidateAreaImage candidate;
  candidate.image = Band(cv::Size(200, 200), 10, {100, 100}, 15);
  EXPECT_EQ(Access::ExtractCandidates(tracker, &candidate, 0), 0);
  EXPECT_EQ(Access::ExtractCandidates(tracker, &candidate, -5), 0);
  EXPECT_TRUE(candidate.lines.empty());

  cv::Mat edges;
  ComputeShaftEdges(candidate.image, edges);
  EXPECT_EQ(ExtractCandidatesFromEdges(nullptr, edges, 10), 0);
  EXPECT_EQ(ExtractCandidatesFromEdges(&candidate, edges, 0), 0);
  EXPECT_TRUE(candidate.lines.empty());
  EXPECT_EQ(ExtractCandidatesFromEdges(&candidate, cv::Mat(), 10), 1);
  EXPECT_TRUE(candidate.lines.empty());
}

TEST(ExtractCandidates, TwoCallsAppendTwice) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = Band(cv::Size(200, 200), 15, {100, 100}, 15);
  candidate.sensorOffsetX = 12;
  ASSERT_EQ(Access::ExtractCandidates(tracker, &candidate, 60), 1);
  const std::vector<cv::Vec2f> first = candidate.lines;
  ASSERT_FALSE(first.empty());
  ASSERT_EQ(Access::ExtractCandidates(tracker, &candidate, 60), 1);
  ASSERT_EQ(candidate.lines.size(), 2 * first.size());
  for (size_t k = 0; k < first.size(); ++k) {
    EXPECT_EQ(candidate.lines[first.size() + k], first[k]);
  }
}

// One edge map serves every vote threshold: the lines are those of the full
// extraction, for every threshold the adaptive loop may try.
TEST(ExtractCandidates, CachedEdgeMapGivesTheLinesOfTheFullExtraction) {
  ClubTracker tracker;
  cv::RNG rng(11);
  for (int shape = 0; shape < 6; ++shape) {
    cv::Mat mask = Band(cv::Size(320, 240), rng.uniform(-40.0, 40.0), {160, 120},
                        rng.uniform(8, 30));
    cv::circle(mask, cv::Point(rng.uniform(40, 280), rng.uniform(40, 200)), rng.uniform(10, 40),
               cv::Scalar(255), cv::FILLED);
    for (int k = 0; k < 300; ++k) mask.at<uchar>(rng.uniform(0, 240), rng.uniform(0, 320)) ^= 255;
    cv::Mat edges;
    ComputeShaftEdges(mask, edges);
    for (int threshold = 1; threshold < 200; threshold += 9) {
      CandidateAreaImage full, cached;
      full.image = mask;
      cached.image = mask;
      full.sensorOffsetX = cached.sensorOffsetX = 17;
      full.sensorOffsetY = cached.sensorOffsetY = 301;
      ASSERT_EQ(Access::ExtractCandidates(tracker, &full, threshold), 1);
      ASSERT_EQ(ExtractCandidatesFromEdges(&cached, edges, threshold), 1);
      ASSERT_EQ(full.lines, cached.lines) << "shape " << shape << " threshold " << threshold;
    }
  }
}

}  // namespace
