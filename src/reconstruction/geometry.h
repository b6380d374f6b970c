// Camera model and plane helpers of the stereo stages.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

#include "tracker/records.h"

// One camera derived from its calibration.
struct CameraGeometry {
  cv::Mat intrinsic;        // K, 3x3
  cv::Mat rotationToWorld;  // R^T, 3x3
  cv::Mat center;           // -R^T t, 3x1
  cv::Mat rayMatrix;        // rotationToWorld * K^-1 (LU inverse)
};

// K, R^T and the camera centre from 9 intrinsic and 12 extrinsic ([R|t]) values.
void MakeCameraMatrices(const double intrinsicValues[9], const double extrinsicValues[12],
                        cv::Mat& intrinsic, cv::Mat& rotationToWorld, cv::Mat& center);

// MakeCameraMatrices plus rayMatrix.
CameraGeometry MakeCameraGeometry(const double intrinsicValues[9],
                                  const double extrinsicValues[12]);

// Unit normal of the plane through the camera centre and the image line
// (rho, theta) of frame `frame` of `areas`.
void ImageLineToPlane(cv::Mat& normal, const std::vector<CandidateAreaImage*>& areas,
                      int frame, cv::Vec2f line, const CameraGeometry& camera);
