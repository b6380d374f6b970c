#include "reconstruction/geometry.h"

#include <cmath>

void MakeCameraMatrices(const double intrinsicValues[9], const double extrinsicValues[12],
                        cv::Mat& intrinsic, cv::Mat& rotationToWorld, cv::Mat& center) {
  intrinsic.create(3, 3, CV_64F);
  for (int i = 0; i < 9; ++i) intrinsic.at<double>(i / 3, i % 3) = intrinsicValues[i];

  cv::Mat r(3, 3, CV_64F);
  cv::Mat t(3, 1, CV_64F);
  for (int row = 0; row < 3; ++row) {
    for (int col = 0; col < 3; ++col) r.at<double>(row, col) = extrinsicValues[row * 4 + col];
    t.at<double>(row) = extrinsicValues[row * 4 + 3];
  }
  r = r.t();
  t = -r * t;
  rotationToWorld = r;
  center = t;
}

CameraGeometry MakeCameraGeometry(const double intrinsicValues[9],
                                  const double extrinsicValues[12]) {
  CameraGeometry camera;
  MakeCameraMatrices(intrinsicValues, extrinsicValues, camera.intrinsic,
                     camera.rotationToWorld, camera.center);
  camera.rayMatrix = camera.rotationToWorld * camera.intrinsic.inv();
  return camera;
}

void ImageLineToPlane(cv::Mat& normal, const std::vector<CandidateAreaImage*>& areas,
                      int frame, cv::Vec2f line, const CameraGeometry& camera) {
  const double rho = line[0];
  const double theta = line[1];
  cv::Mat p1(3, 1, CV_64F);
  cv::Mat p2(3, 1, CV_64F);
  if (std::cos(theta) == 0.0) {
    // Special points for an exactly horizontal line, kept as they have always been.
    p1.at<double>(0) = 0.0;
    p1.at<double>(1) = rho;
    p2.at<double>(0) = rho;
    p2.at<double>(1) = 100.0;
  } else {
    const CandidateAreaImage* area = areas[frame];
    const double y1 = area->sensorOffsetY;
    const double y2 = area->sensorOffsetY + area->image.rows;
    p1.at<double>(0) = rho / std::cos(theta) - std::tan(theta) * y1;
    p1.at<double>(1) = y1;
    p2.at<double>(0) = rho / std::cos(theta) - std::tan(theta) * y2;
    p2.at<double>(1) = y2;
  }
  p1.at<double>(2) = 1.0;
  p2.at<double>(2) = 1.0;

  const cv::Mat d1 = camera.rayMatrix * p1;
  const cv::Mat d2 = camera.rayMatrix * p2;
  normal = d1.cross(d2);
  normal.convertTo(normal, -1, 1.0 / std::sqrt(normal.dot(normal)), 0.0);
}
