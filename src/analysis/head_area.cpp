// Driver-head area: thickness and core of the club blob by iterated erosion,
// measured for every frame in parallel, and the head disc painted out.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

#include <opencv2/imgproc.hpp>
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"

// Body of the parallel head-size loop: measures frame i on its refined mask.
// The record lends its mask slot to the refined mask for the duration of the
// measurement and gets its own mask back afterwards (the measurement only
// reads the mask). Each index touches only its own record and result slot; a
// packed mask is unpacked into the thread's buffer, which serves one frame at
// a time: isolated, a thread that waits inside the measurement (a library
// call that runs in parallel) takes no other frame meanwhile.
struct HeadAreaTask {
  ClubTracker* tracker;
  const std::vector<CandidateAreaImage*>* candidates;
  const std::vector<cv::Mat>* refined;
  int* result;
  const RefinedMasks* packed = nullptr;  // when set, the masks' source

  void operator()(const tbb::blocked_range<int>& range) const {
    thread_local cv::Mat unpacked;
    for (int i = range.begin(); i != range.end(); ++i) {
      int thickness = 0;
      CandidateAreaImage* candidate = (*candidates)[i];
      if (candidate != nullptr) {
        const cv::Mat own = candidate->image;
        struct Restore {
          CandidateAreaImage* record;
          const cv::Mat& mask;
          ~Restore() { record->image = mask; }
        } restore{candidate, own};
        const size_t k = static_cast<size_t>(i);
        if (packed != nullptr) {
          candidate->image = packed->Mask(k, unpacked);
          tbb::this_task_arena::isolate(
              [&] { tracker->ExtractDriverHeadArea(candidate, thickness); });
        } else {
          candidate->image = (*refined)[k];
          tracker->ExtractDriverHeadArea(candidate, thickness);
        }
      }
      result[i] = thickness;
    }
  }
};

const cv::Mat& RefinedMasks::Mask(size_t k, cv::Mat& scratch) const {
  if (k < isPacked.size() && isPacked[k] != 0 && k < packed.size()) {
    packed[k].Unpack(scratch);
    return scratch;
  }
  return masks[k];
}

namespace {

constexpr int kKernelReach = 2;  // half the 5 x 5 erosion kernel

// Replaces `mask` by a compact copy of its part around `blob` (a rectangle
// in the mask's coordinates) widened by the kernel's reach and kept inside the
// mask; `origin` follows the cut.
void CutToBlob(cv::Mat& mask, const cv::Rect& blob, cv::Point& origin) {
  cv::Rect box(blob.x - kKernelReach, blob.y - kKernelReach, blob.width + 2 * kKernelReach,
               blob.height + 2 * kKernelReach);
  box &= cv::Rect(0, 0, mask.cols, mask.rows);
  mask = mask(box).clone();
  origin += box.tl();
}

// Launches the loop over the first n frames (grain 1, the default partitioner).
void MeasureEach(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& candidates,
                 const std::vector<cv::Mat>& masks, const RefinedMasks* packed,
                 std::vector<int>& sizes) {
  sizes.assign(candidates.size(), 0);
  // A frame without a refined mask is not measured and keeps size 0.
  const int n = static_cast<int>(std::min(candidates.size(), masks.size()));
  const HeadAreaTask task{&tracker, &candidates, &masks, sizes.data(), packed};
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), task);
}

}  // namespace

void MeasureHeadSizes(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& candidates,
                      const std::vector<cv::Mat>& refinedMasks, std::vector<int>& sizes) {
  MeasureEach(tracker, candidates, refinedMasks, nullptr, sizes);
}

void MeasureHeadSizes(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& candidates,
                      const RefinedMasks& refinedMasks, std::vector<int>& sizes) {
  MeasureEach(tracker, candidates, refinedMasks.masks, &refinedMasks, sizes);
}

int ClubTracker::ExtractDriverHeadArea(CandidateAreaImage* candidate, int& thickness) {
  if (candidate == nullptr) return 0;

  // The mask, read only: the working copy is its part around the blob, cut
  // below before the first erosion.
  cv::Mat a = candidate->image;
  if (a.empty()) {
    // What the erosion loop gives for a mask without a pixel.
    thickness = 2;
    candidate->headX = 0;
    candidate->headY = 0;
    return 0;
  }
  if (a.type() != CV_8UC1) return 0;

  const uint32_t count = static_cast<uint32_t>(cv::sum(a)[0] / 255.0);
  const int64_t limit = (3 * static_cast<int64_t>(a.rows) * a.cols) / 4;
  if (count > static_cast<uint32_t>(limit)) return 0;  // too full for a blob

  // Nothing to erode: the erosion loop would stop at once.
  cv::Rect blob = MaskBounds(a);
  if (blob.area() == 0) {
    thickness = 2;
    candidate->headX = 0;
    candidate->headY = 0;
    return 0;
  }

  // The erosions work on the part of the mask around the blob: its bounding
  // box widened by the kernel's reach, or less where the frame ends. They
  // give the same pixels as on the whole mask: the widening is zero and stays
  // zero, a side cut at the frame's edge keeps the constant border, and
  // outside the box the mask is and stays zero. As the blob shrinks (an
  // erosion never adds a pixel), the working part is cut down again.
  cv::Point origin(0, 0);  // frame position of a's top-left pixel
  CutToBlob(a, blob, origin);

  thickness = 0;
  // A 0/255 window erodes on bit planes, which give cv::morphologyEx's pixels;
  // the window is not cut down further there (the cut does not change them).
  const MorphStep erosion{cv::MORPH_ERODE, cv::MORPH_ELLIPSE, 5};
  BitMask& bits = ThreadBitMask();
  thread_local BitMask survivor;
  const bool packed = bits.Supports(erosion) && bits.Pack(a);
  std::vector<cv::Point> points;  // the core
  while (packed) {
    thickness += 2;
    bits.CopyTo(survivor);
    bits.Apply(erosion);
    if (!bits.Any()) {
      survivor.SetPixels(points);
      break;
    }
  }

  const cv::Mat kernel =
      cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(5, 5), cv::Point(-1, -1));
  cv::Mat b;
  for (; !packed;) {
    thickness += 2;
    cv::morphologyEx(a, b, cv::MORPH_ERODE, kernel, cv::Point(-1, -1), 1, cv::BORDER_CONSTANT,
                     cv::morphologyDefaultBorderValue());
    blob = MaskBounds(b);
    if (blob.area() == 0) break;  // the erosion emptied the blob
    // b is the new surviving blob; the old one's buffer takes the next erosion.
    cv::swap(a, b);
    if (2 * (blob.width + 2 * kKernelReach) * (blob.height + 2 * kKernelReach) < a.cols * a.rows) {
      CutToBlob(a, blob, origin);
    }
  }

  // Core: the last non-empty erosion result, scanned row by row.
  if (!packed) cv::findNonZero(a, points);
  if (points.empty()) {
    candidate->headX = 0;
    candidate->headY = 0;
    return 0;
  }
  for (cv::Point& point : points) point += origin;
  const size_t n = points.size();
  std::vector<int> values(n);
  for (size_t k = 0; k < n; ++k) values[k] = points[k].x;
  std::sort(values.begin(), values.end());
  candidate->headX = (values[n / 2] + values[(n - 1) / 2]) / 2;
  for (size_t k = 0; k < n; ++k) values[k] = points[k].y;
  std::sort(values.begin(), values.end());
  candidate->headY = (values[n / 2] + values[(n - 1) / 2]) / 2;
  return 1;
}

int ClubTracker::DeleteDriverHeadArea(CandidateAreaImage* candidate, int radius) {
  if (candidate == nullptr) return 0;
  if (radius < 0) return 0;  // no disc to paint
  const cv::Point centre(static_cast<int>(std::round(static_cast<double>(candidate->headX))),
                         static_cast<int>(std::round(static_cast<double>(candidate->headY))));
  cv::circle(candidate->image, centre, radius, cv::Scalar(0, 0, 0, 0), -1, 8, 0);
  return 1;
}
