// Exact Euclidean distances to the background of a mask, without the parallel
// loop's overhead on small regions. Internal to src/template.
#pragma once

#include <opencv2/core.hpp>

namespace headtrack::detail {

// cv::distanceTransform(mask, distance, DIST_L2, DIST_MASK_PRECISE), to the
// bit, for a CV_8UC1 mask; `distance` may be a view of the right size.
void PreciseDistances(const cv::Mat& mask, cv::Mat& distance);

}  // namespace headtrack::detail
