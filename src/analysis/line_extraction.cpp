// Shaft-line candidates of one frame: morphology, Canny edges and the
// standard Hough transform on the candidate mask.
#include <cmath>
#include <utility>

#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"
#include "analysis/hough.h"

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

namespace {

// The three cleaning operations before the edge detection.
constexpr std::initializer_list<MorphStep> kCleanSteps = {
    {cv::MORPH_OPEN, cv::MORPH_RECT, 3},
    {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
    {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7},
};

// Canny's reach around a set pixel: the 3 x 3 Sobel, the non-maximum
// suppression and the hysteresis each look one pixel further.
constexpr int kEdgeMargin = 3;

void Canny(const cv::Mat& cleaned, cv::Mat& edges) { cv::Canny(cleaned, edges, 30.0, 40.0, 3, true); }

// Appends the kept lines of `found` (frame coordinates) to the candidate.
void AppendLines(CandidateAreaImage* candidate, const std::vector<cv::Vec2f>& found) {
  const float offsetX = static_cast<float>(candidate->sensorOffsetX);
  const float offsetY = static_cast<float>(candidate->sensorOffsetY);
  for (const cv::Vec2f& line : found) {
    const float theta = line[1];
    if (std::fabs(static_cast<double>(theta) - kHalfPi) < kNearHorizontal) continue;
    // Same line in full-sensor coordinates, in single precision.
    const float rho = (offsetY * std::sin(theta) + offsetX * std::cos(theta)) + line[0];
    candidate->lines.emplace_back(rho, theta);
  }
}

}  // namespace

void ComputeShaftEdges(const cv::Mat& mask, cv::Mat& edges) {
  if (mask.empty() || mask.type() != CV_8UC1) {
    edges.release();
    return;
  }
  cv::Mat work;
  MorphologyChain(mask, work, kCleanSteps);
  Canny(work, edges);
}

namespace {

// ComputeShaftEdgeBox, also copying the packed mask into `plane` (when given
// and the mask is 0/255; `planeMade` tells).
cv::Rect EdgeBox(const cv::Mat& mask, cv::Mat& edges, BitMask* plane, bool& planeMade) {
  planeMade = false;
  if (mask.empty() || mask.type() != CV_8UC1) {
    edges.release();
    return cv::Rect();
  }
  thread_local cv::Mat work, part;
  // A 0/255 mask is cleaned on bit planes and only the part Canny needs is
  // unpacked.
  BitMask& bits = ThreadBitMask();
  bool packed = true;
  for (const MorphStep& step : kCleanSteps) packed = packed && bits.Supports(step);
  packed = packed && bits.Pack(mask);
  cv::Rect box;
  if (packed) {
    if (plane != nullptr) {
      bits.CopyTo(*plane);
      planeMade = true;
    }
    for (const MorphStep& step : kCleanSteps) bits.Apply(step);
    box = bits.Bounds();
  } else {
    MorphologyChainLiteral(mask, work, kCleanSteps);
    box = MaskBounds(work);
  }
  if (box.empty()) {
    edges.release();
    return cv::Rect();
  }
  // Outside the box widened by the margin the cleaned mask is zero and so are
  // its edges; inside, Canny sees what it sees on the whole frame.
  box = cv::Rect(box.x - kEdgeMargin, box.y - kEdgeMargin, box.width + 2 * kEdgeMargin,
                 box.height + 2 * kEdgeMargin) &
        cv::Rect(0, 0, mask.cols, mask.rows);
  if (packed) {
    bits.Unpack(part, box);
    BinaryCanny(part, edges);
  } else {
    work(box).copyTo(part);
    Canny(part, edges);
  }
  return box;
}

}  // namespace

cv::Rect ComputeShaftEdgeBox(const cv::Mat& mask, cv::Mat& edges) {
  bool planeMade = false;
  return EdgeBox(mask, edges, nullptr, planeMade);
}

// The angle rows (degrees) of near-horizontal lines, which AppendLines drops,
// without the first and the last: rows no kept line's maxima test reads.
std::pair<int, int> UnreadNearHorizontalRows() {
  const float step = static_cast<float>(CV_PI / 180.0);
  int first = -1, last = -2;
  for (int n = 0; n < 180; ++n) {
    const float theta = 0.0f + static_cast<float>(n) * step;  // as the lines give it
    if (std::fabs(static_cast<double>(theta) - kHalfPi) < kNearHorizontal) {
      if (first < 0) first = n;
      last = n;
    }
  }
  return {first + 1, last - 1};
}

bool ComputeShaftVotes(const cv::Mat& mask, HoughVotes& votes, int floor, BitMask* plane) {
  thread_local cv::Mat edges;
  bool planeMade = false;
  const cv::Rect box = EdgeBox(mask, edges, plane, planeMade);
  if (box.empty()) {
    votes.Clear();
    return planeMade;
  }
  static const std::pair<int, int> unread = UnreadNearHorizontalRows();
  votes.Vote(edges, box.tl(), mask.size(), unread.first, unread.second, floor);
  return planeMade;
}

int ExtractCandidatesFromEdges(CandidateAreaImage* candidate, const cv::Mat& edges,
                               int voteThreshold) {
  if (candidate == nullptr || voteThreshold <= 0) return 0;
  if (edges.empty()) return 1;  // nothing to vote for

  std::vector<cv::Vec2f> found;
  cv::HoughLines(edges, found, 1.0, CV_PI / 180.0, voteThreshold, 0, 0);
  AppendLines(candidate, found);
  return 1;
}

int ExtractCandidatesFromVotes(CandidateAreaImage* candidate, const HoughVotes& votes,
                               int voteThreshold) {
  if (candidate == nullptr || voteThreshold <= 0) return 0;
  thread_local std::vector<cv::Vec2f> found;
  found.clear();
  if (!votes.Lines(voteThreshold, found)) return 0;
  AppendLines(candidate, found);
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
