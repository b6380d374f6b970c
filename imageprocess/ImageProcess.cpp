#include "imageprocess/ImageProcess.h"

#include <cmath>

namespace {

bool IsDouble(const cv::Mat& m, int rows, int cols) {
  return m.type() == CV_64FC1 && m.rows == rows && m.cols == cols;
}

cv::Vec3d AsVec3(const cv::Mat& m) {
  return {m.at<double>(0), m.at<double>(1), m.at<double>(2)};
}

cv::Matx33d AsMatx33(const cv::Mat& m) {
  cv::Matx33d out;
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c) out(r, c) = m.at<double>(r, c);
  return out;
}

// World direction of the ray through `pixel`.
bool RayDirection(const cv::Mat& intrinsic, const cv::Mat& rotationToWorld,
                  const cv::Mat& pixel, cv::Vec3d& direction) {
  bool ok = false;
  const cv::Matx33d k_inv = AsMatx33(intrinsic).inv(cv::DECOMP_LU, &ok);
  if (!ok) return false;
  direction = AsMatx33(rotationToWorld) * (k_inv * AsVec3(pixel));
  return std::isfinite(direction.dot(direction)) && direction.dot(direction) > 0.0;
}

}  // namespace

int ImageProcess::Coordinate2DTO3D(cv::Mat intrinsic1, cv::Mat rotationToWorld1,
                                   cv::Mat center1, cv::Mat pixel1,
                                   cv::Mat intrinsic2, cv::Mat rotationToWorld2,
                                   cv::Mat center2, cv::Mat pixel2,
                                   cv::Mat& worldPoint, float& quality) {
  if (!IsDouble(intrinsic1, 3, 3) || !IsDouble(rotationToWorld1, 3, 3) ||
      !IsDouble(center1, 3, 1) || !IsDouble(pixel1, 3, 1) ||
      !IsDouble(intrinsic2, 3, 3) || !IsDouble(rotationToWorld2, 3, 3) ||
      !IsDouble(center2, 3, 1) || !IsDouble(pixel2, 3, 1) ||
      !IsDouble(worldPoint, 3, 1)) {
    return 0;
  }

  cv::Vec3d d1, d2;
  if (!RayDirection(intrinsic1, rotationToWorld1, pixel1, d1) ||
      !RayDirection(intrinsic2, rotationToWorld2, pixel2, d2)) {
    return 0;
  }
  const cv::Vec3d c1 = AsVec3(center1);
  const cv::Vec3d c2 = AsVec3(center2);

  // Closest points c1 + s*d1 and c2 + t*d2: solve the 2x2 normal equations.
  const cv::Vec3d w = c1 - c2;
  const double a = d1.dot(d1), b = d1.dot(d2), c = d2.dot(d2);
  const double d = d1.dot(w), e = d2.dot(w);
  const double denom = a * c - b * b;
  // Parallel (or numerically parallel) rays have no unique closest approach.
  if (!(std::abs(denom) > 1e-12 * a * c)) return 0;

  const double s = (b * e - c * d) / denom;
  const double t = (a * e - b * d) / denom;
  const cv::Vec3d p1 = c1 + s * d1;
  const cv::Vec3d p2 = c2 + t * d2;
  const cv::Vec3d mid = 0.5 * (p1 + p2);

  double* out = worldPoint.ptr<double>();
  const size_t step = worldPoint.step[0] / sizeof(double);
  out[0] = mid[0];
  out[step] = mid[1];
  out[2 * step] = mid[2];
  quality = static_cast<float>(cv::norm(p1 - p2));
  return 1;
}
