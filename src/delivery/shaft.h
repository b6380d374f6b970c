// The shaft's direction next to the head: its centre line in each camera,
// measured to sub-pixel precision on the pixels that differ from the static
// scene, and the 3D direction where the two cameras' planes of it meet.
#pragma once

#include <opencv2/core.hpp>

#include "template/head_tracker.h"

namespace clubtracker::delivery {

// A line in full-sensor pixels.
struct ImageLine {
  cv::Point2d point;
  cv::Point2d direction;  // unit
  int pixels = 0;         // pixels the line was fitted to
};

// The shaft's centre line leaving the head whose outline is `head` (grey
// coordinates) in `frame`. The head itself (its outline grown by a fifth) is
// left out; the shaft is the strongest straight run of changed pixels within
// four head sizes of its centre. False when no such run is found (a shaft as
// dark or bright as what lies behind it, a shaft outside the frame).
bool MeasureShaftLine(const headtrack::CameraFrame& frame, const cv::Mat& background,
                      const headtrack::HeadOutline& head, ImageLine& line);

// The 3D direction of a line seen as `line1` by camera 1 and `line2` by
// camera 2: the intersection of the planes through each camera's centre and
// its image line. Unit, with `orient` . direction >= 0. False when the planes
// are (nearly) the same.
bool LineDirection(const headtrack::StereoRig& rig, const ImageLine& line1,
                   const ImageLine& line2, const cv::Vec3d& orient, cv::Vec3d& direction);

}  // namespace clubtracker::delivery
