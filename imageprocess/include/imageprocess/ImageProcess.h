// ImageProcess: base library of the club tracker. It provides the two-view
// triangulation that the stereo stages use.
#pragma once

#include <opencv2/core.hpp>

#define IMAGEPROCESS_API __attribute__((visibility("default")))

class IMAGEPROCESS_API ImageProcess {
 public:
  // Triangulates one point seen by two calibrated cameras.
  //
  // For each camera: `intrinsic` K (3x3), `rotationToWorld` (3x3, camera to
  // world), `center` (3x1, camera centre in world coordinates) and `pixel`, the
  // homogeneous full-sensor pixel (u, v, 1) (3x1). All CV_64F.
  //
  // The world point is the midpoint of the common perpendicular of the two rays
  // center + s * rotationToWorld * K^-1 * pixel. It is written into the storage
  // of `worldPoint`, which must be a 3x1 CV_64F matrix (typically a header over
  // the caller's three doubles); the matrix is never reallocated. `quality` is
  // the distance between the rays at their closest approach.
  //
  // Returns 1 on success; 0 when the rays are parallel or an argument has the
  // wrong shape or type, in which case `worldPoint` and `quality` are untouched.
  static int Coordinate2DTO3D(cv::Mat intrinsic1, cv::Mat rotationToWorld1,
                              cv::Mat center1, cv::Mat pixel1,
                              cv::Mat intrinsic2, cv::Mat rotationToWorld2,
                              cv::Mat center2, cv::Mat pixel2,
                              cv::Mat& worldPoint, float& quality);
};
