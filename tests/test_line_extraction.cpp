// Shaft-line extraction: vote threshold, near-horizontal filter, shift to
// full-sensor coordinates, morphology, and the reuse of the edge map.
#include <gtest/gtest.h>

#include <cmath>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "analysis/analysis.h"
#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

constexpr double kDegree = CV_PI / 180.0;

// The longer reach from the ball row over the divisor, each truncated.
TEST(LineThreshold, ScalesTheLongerReachFromTheBall) {
  const struct {
    int rows;
    float ballY, divisor;
    int expected;
  } cases[] = {
      {480, 300.0f, 3.0f, 100},  // reach 300 (above)
      {480, 100.0f, 1.0f, 380},  // reach 380 (below)
      {480, 100.0f, 3.0f, 126},  // 126.67 truncated
      {480, 300.9f, 0.3f, 999},  // reach truncated first
      {480, -20.0f, 1.0f, 500},  // ball above the picture
      {100, 50.0f, 0.0f, 0},     // no divisor: refused
  };
  ClubTracker tracker;
  for (const auto& c : cases) {
    CandidateAreaImage candidate;
    candidate.image = cv::Mat::zeros(c.rows, 16, CV_8UC1);
    candidate.ballY = c.ballY;
    EXPECT_EQ(Access::GetLineThreshold(tracker, &candidate, c.divisor), c.expected) << c.ballY;
  }
}

// A band `width` pixels wide through `through`, Hough normal at `degrees`.
cv::Mat Band(cv::Size size, double degrees, cv::Point2d through, int width) {
  cv::Mat mask = cv::Mat::zeros(size, CV_8UC1);
  const double theta = degrees * kDegree;
  const cv::Point2d direction(-std::sin(theta), std::cos(theta));
  cv::line(mask, through - 1000 * direction, through + 1000 * direction, cv::Scalar(255), width,
           cv::LINE_8);
  return mask;
}

bool NearHorizontal(float theta) {
  return std::fabs(static_cast<double>(theta) - CV_PI / 2) < 0.39269909262657166;
}

// 23 degrees from horizontal is kept, 22 is not.
TEST(HorizontalBound, DropsLinesWithin22Point5DegreesOfHorizontal) {
  for (const int degrees : {0, 67, 68, 90, 112, 113, 179}) {
    SCOPED_TRACE(degrees);
    CandidateAreaImage candidate;
    ASSERT_EQ(ExtractCandidatesFromEdges(&candidate, Band({400, 400}, degrees, {200, 200}, 1), 120),
              1);
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
}

TEST(LineShift, RhoIsShiftedInSinglePrecision) {
  cv::Mat edges = cv::Mat::zeros(400, 400, CV_8UC1);
  for (int degrees = 0; degrees < 180; degrees += 7)
    edges |= Band({400, 400}, degrees + 0.3, {200, 200}, 1);
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
                             333.0 * std::cos(static_cast<double>(theta))) +
                            rho;
    if (static_cast<float>(inDouble) != expected) ++differsInDouble;
  }
  EXPECT_GT(differsInDouble, 0) << "the angles chosen tell single from double precision";
}

TEST(ExtractCandidates, EmptyMaskGivesNoLinesAndStillSucceeds) {
  ClubTracker tracker;
  CandidateAreaImage candidate;
  candidate.image = cv::Mat::zeros(120, 160, CV_8UC1);
  EXPECT_EQ(Access::ExtractCandidates(tracker, &candidate, 1), 1);
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
  for (size_t k = 0; k < first.size(); ++k) EXPECT_EQ(candidate.lines[first.size() + k], first[k]);
}

TEST(ExtractCandidates, CachedEdgeMapGivesTheLinesOfTheFullExtraction) {
  ClubTracker tracker;
  cv::RNG rng(11);
  for (int shape = 0; shape < 6; ++shape) {
    cv::Mat mask =
        Band(cv::Size(320, 240), rng.uniform(-40.0, 40.0), {160, 120}, rng.uniform(8, 30));
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
