// The presence test as first written: the cleaning chain through
// cv::morphologyEx, the outer frame cleared, the s x s erosion and the sum.
#pragma once

#include <algorithm>

#include <opencv2/imgproc.hpp>

#include "analysis/binary_morphology.h"

// Writes the refined mask; returns 1 when a blob is present.
inline int LiteralPresence(const cv::Mat& candidateMask, cv::Mat& refined) {
  MorphologyChainLiteral(candidateMask, refined,
                         {{cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 3},
                          {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
                          {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7},
                          {cv::MORPH_CLOSE, cv::MORPH_ELLIPSE, 31}});
  const int m = std::min(refined.rows, refined.cols);
  cv::Mat test = refined.clone();
  test.row(0).setTo(0);
  test.row(test.rows - 1).setTo(0);
  test.col(0).setTo(0);
  test.col(test.cols - 1).setTo(0);
  MorphologyChainLiteral(test, test, {{cv::MORPH_ERODE, cv::MORPH_RECT, 2 * ((m / 4) / 2) + 1}});
  return cv::sum(test)[0] > 0.0 ? 1 : 0;
}
