// Shaft-line candidates of one frame: morphology, Canny edges and the
// standard Hough transform on the candidate mask.
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"

namespace {

// Lines within 22.5 degrees of horizontal cannot be the shaft. The bound is
// pi/8 as it comes out of single-precision pi.
constexpr double kHalfPi = CV_PI / 2.0;
constexpr double kNearHorizontal = static_cast<double>(static_cast<float>(CV_PI) / 8.0f);

// Truncation toward zero; 0 for values an int cannot hold (NaN included).
int TruncateToInt(float value) {
  if (!(value > -2147483648.0f && value < 2147483648.0f)) return 0;
  return static_cast<int>(value);
}

}  // namespace

void ComputeShaftEdges(const cv::Mat& mask, cv::Mat& edges) {
  if (mask.empty() || mask.type() != CV_8UC1) {
    edges.release();
    return;
  }
  cv::Mat work;
  MorphologyChain(mask, work,
                  {{cv::MORPH_OPEN, cv::MORPH_RECT, 3},
                   {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
                   {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7}});
  cv::Canny(work, edges, 30.0, 40.0, 3, true);
}

int ExtractCandidatesFromEdges(CandidateAreaImage* candidate, const cv::Mat& edges,
                               int voteThreshold) {
  if (candidate == nullptr || voteThreshold <= 0) return 0;
  if (edges.empty()) return 1;  // nothing to vote for

  std::vector<cv::Vec2f> found;
  cv::HoughLines(edges, found, 1.0, CV_PI / 180.0, voteThreshold, 0, 0);

  const float offsetX = static_cast<float>(candidate->sensorOffsetX);
  const float offsetY = static_cast<float>(candidate->sensorOffsetY);
  for (const cv::Vec2f& line : found) {
    const float theta = line[1];
    if (std::fabs(static_cast<double>(theta) - kHalfPi) < kNearHorizontal) continue;
    // Same line in full-sensor coordinates, in single precision.
    const float rho = (offsetY * std::sin(theta) + offsetX * std::cos(theta)) + line[0];
    candidate->lines.emplace_back(rho, theta);
  }
  return 1;
}

int ClubTracker::GetLineThreshold(CandidateAreaImage* candidate, float divisor) {
  if (candidate == nullptr) return 0;
  const float below = static_cast<float>(candidate->image.rows) - candidate->ballY;
  const float reach = candidate->ballY > below ? candidate->ballY : below;
  const float scaled = static_cast<float>(TruncateToInt(reach)) / divisor;
  return TruncateToInt(scaled);
}

int ClubTracker::ExtractCandidates(CandidateAreaImage* candidate, int voteThreshold) {
  if (candidate == nullptr) return 0;
  cv::Mat edges;
  ComputeShaftEdges(candidate->image, edges);
  if (voteThreshold <= 0) return 0;
  return ExtractCandidatesFromEdges(candidate, edges, voteThreshold);
}
