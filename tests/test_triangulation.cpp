// Two-view triangulation of the base library.
#include <gtest/gtest.h>

#include <opencv2/calib3d.hpp>

#include "imageprocess/ImageProcess.h"

namespace {

struct Camera {
  cv::Matx33d K;
  cv::Matx33d R;  // world to camera
  cv::Vec3d t;

  cv::Mat Intrinsic() const { return cv::Mat(K, true); }
  cv::Mat RotationToWorld() const { return cv::Mat(R.t(), true); }
  cv::Mat Center() const { return cv::Mat(-(R.t() * t), true); }
  cv::Mat Pixel(const cv::Vec3d& world) const {
    const cv::Vec3d q = K * (R * world + t);
    return (cv::Mat_<double>(3, 1) << q[0] / q[2], q[1] / q[2], 1.0);
  }
};

cv::Matx33d RotationFromVector(const cv::Vec3d& v) {
  cv::Matx33d R;
  cv::Rodrigues(v, R);
  return R;
}

// Two cameras 400 apart looking at the origin region from about 800 away.
std::pair<Camera, Camera> Rig() {
  const cv::Matx33d K(1000, 0, 640, 0, 1000, 512, 0, 0, 1);
  Camera a{K, RotationFromVector({0.05, 0.25, 0.01}), {-100, 20, 800}};
  Camera b{K, RotationFromVector({-0.03, -0.2, 0.02}), {150, -10, 820}};
  return {a, b};
}

int Triangulate(const Camera& a, const Camera& b, const cv::Mat& pa, const cv::Mat& pb,
                double out[3], float& quality) {
  cv::Mat header(3, 1, CV_64F, out);
  const int ok = ImageProcess::Coordinate2DTO3D(a.Intrinsic(), a.RotationToWorld(), a.Center(), pa,
                                                b.Intrinsic(), b.RotationToWorld(), b.Center(), pb,
                                                header, quality);
  EXPECT_EQ(header.data, reinterpret_cast<uchar*>(out)) << "output must not be reallocated";
  return ok;
}

TEST(Triangulation, RecoversKnownPoints) {
  const auto [a, b] = Rig();
  for (const cv::Vec3d& X : {cv::Vec3d(0, 21.35, 0), cv::Vec3d(-150, 80, 40),
                             cv::Vec3d(120, -30, -60), cv::Vec3d(3, 1500, 800)}) {
    double out[3] = {0, 0, 0};
    float quality = -1.0f;
    ASSERT_EQ(Triangulate(a, b, a.Pixel(X), b.Pixel(X), out, quality), 1);
    EXPECT_LE(cv::norm(cv::Vec3d(out) - X, cv::NORM_INF), 1e-9 * (1 + cv::norm(X)));
    EXPECT_NEAR(quality, 0.0f, 1e-6f);
  }
}

// Skew rays give their midpoint and distance; parallel rays and bad shapes
// give 0 and leave the output untouched.
TEST(Triangulation, SkewParallelAndBadRays) {
  // Ray 1 along x through the origin; ray 2 along y through (0, 0, 2).
  const cv::Mat I = cv::Mat::eye(3, 3, CV_64F);
  const cv::Mat c1 = cv::Mat::zeros(3, 1, CV_64F);
  const cv::Mat c2 = (cv::Mat_<double>(3, 1) << 0, 0, 2);
  const cv::Mat d1 = (cv::Mat_<double>(3, 1) << 1, 0, 0);
  const cv::Mat d2 = (cv::Mat_<double>(3, 1) << 0, 1, 0);
  double out[3];
  cv::Mat header(3, 1, CV_64F, out);
  float quality = 0.0f;
  ASSERT_EQ(ImageProcess::Coordinate2DTO3D(I, I, c1, d1, I, I, c2, d2, header, quality), 1);
  EXPECT_DOUBLE_EQ(out[0], 0.0);
  EXPECT_DOUBLE_EQ(out[1], 0.0);
  EXPECT_DOUBLE_EQ(out[2], 1.0);
  EXPECT_FLOAT_EQ(quality, 2.0f);

  const cv::Mat c3 = (cv::Mat_<double>(3, 1) << 5, 0, 0);
  const cv::Mat d = (cv::Mat_<double>(3, 1) << 0, 0, 1);
  out[0] = 7, out[1] = 8, out[2] = 9;
  quality = 42.0f;
  EXPECT_EQ(ImageProcess::Coordinate2DTO3D(I, I, c1, d, I, I, c3, d, header, quality), 0);
  EXPECT_EQ(out[0], 7.0);
  EXPECT_EQ(out[2], 9.0);
  EXPECT_EQ(quality, 42.0f);
  const cv::Mat wrongType = cv::Mat::eye(3, 3, CV_32F);
  EXPECT_EQ(ImageProcess::Coordinate2DTO3D(wrongType, I, c1, d, I, I, c3, d, header, quality), 0);
  cv::Mat wrongOut(4, 1, CV_64F, cv::Scalar(1));
  EXPECT_EQ(ImageProcess::Coordinate2DTO3D(I, I, c1, d, I, I, c3, d, wrongOut, quality), 0);
  const cv::Mat singular = cv::Mat::zeros(3, 3, CV_64F);
  EXPECT_EQ(ImageProcess::Coordinate2DTO3D(singular, I, c1, d, I, I, c3, d, header, quality), 0);
  EXPECT_EQ(out[1], 8.0);
}

}  // namespace
