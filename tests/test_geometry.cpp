// Camera geometry: the plane through an image line, two-view triangulation.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <vector>

#include "imageprocess/ImageProcess.h"
#include "reconstruction/geometry.h"
#include "support/reference_spin_axis.h"
#include "tracker/records.h"

namespace {

bool SameBits(const cv::Mat& a, const cv::Mat& b) {
  return a.type() == b.type() && a.size() == b.size() && a.isContinuous() && b.isContinuous() &&
         std::memcmp(a.data, b.data, a.total() * a.elemSize()) == 0;
}

struct Calibration {
  double intrinsic[9];
  double extrinsic[12];
};

Calibration MakeCalibration(const cv::Matx33d& K, const cv::Matx33d& R, const cv::Vec3d& t) {
  Calibration c;
  for (int i = 0; i < 9; ++i) c.intrinsic[i] = K.val[i];
  for (int r = 0; r < 3; ++r) {
    for (int col = 0; col < 3; ++col) c.extrinsic[r * 4 + col] = R(r, col);
    c.extrinsic[r * 4 + 3] = t[r];
  }
  return c;
}

const cv::Matx33d kK(1800.0, 0.0, 1024.5, 0.0, 1790.0, 540.25, 0.0, 0.0, 1.0);

cv::Matx33d Rotation(const cv::Vec3d& v) {
  cv::Matx33d R;
  cv::Rodrigues(v, R);
  return R;
}

CandidateAreaImage Area(int top, int rows) {
  CandidateAreaImage area;
  area.image = cv::Mat::zeros(rows, 640, CV_8UC1);
  area.sensorOffsetY = top;
  return area;
}

// The plane of a line holds its image rays and is the literal version's, bit
// for bit (a vertical line x = rho taken through the area's rows top and
// top + height).
TEST(LinePlane, ContainsTheImageLine) {
  const Calibration c = MakeCalibration(kK, Rotation({0.2, 0.9, -0.1}), {40.0, -700.0, 2100.0});
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  for (const auto& [top, rows] : {std::pair{362, 208}, std::pair{0, 480}, std::pair{871, 208}}) {
    CandidateAreaImage area = Area(top, rows);
    std::vector<CandidateAreaImage*> areas{&area, &area};
    for (const cv::Vec2f& line : {cv::Vec2f(700.0f, 0.0f), cv::Vec2f(512.5f, 0.35f),
                                 cv::Vec2f(-80.0f, 2.7f), cv::Vec2f(0.0f, 0.0001f)}) {
      SCOPED_TRACE(::testing::Message() << line << " top " << top << " rows " << rows);
      cv::Mat normal;
      ImageLineToPlane(normal, areas, 1, line, camera);
      EXPECT_NEAR(cv::norm(normal), 1.0, 1e-15);
      cv::Mat literal;
      reference::ImageLineToPlane(literal, areas, 1, line, camera.rayMatrix);
      EXPECT_TRUE(SameBits(normal, literal));
      const double rho = line[0];
      const double theta = line[1];
      for (const double y : {0.0, 362.0, 466.0, 570.0, 1500.0}) {
        const double x = (rho - y * std::sin(theta)) / std::cos(theta);
        const cv::Mat ray = camera.rayMatrix * (cv::Mat_<double>(3, 1) << x, y, 1.0);
        EXPECT_LT(std::abs(normal.dot(ray)) / cv::norm(ray), 1e-9) << "y " << y;
      }
    }
  }
}

// No float angle has a cosine of exactly 0: a line at the float nearest pi/2
// gets its own plane.
TEST(LinePlaneRows, NearlyHorizontalLine) {
  const Calibration c = MakeCalibration(kK, cv::Matx33d::eye(), {0.0, 0.0, 1000.0});
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  CandidateAreaImage area = Area(400, 208);
  std::vector<CandidateAreaImage*> areas{&area};
  const float theta = static_cast<float>(CV_PI / 2.0);  // the line y = rho, nearly
  cv::Mat normal;
  ImageLineToPlane(normal, areas, 0, cv::Vec2f(500.0f, theta), camera);
  for (const double x : {0.0, 700.0, 2000.0}) {
    const double y =
        (500.0 - x * std::cos(static_cast<double>(theta))) / std::sin(static_cast<double>(theta));
    const cv::Mat ray = camera.rayMatrix * (cv::Mat_<double>(3, 1) << x, y, 1.0);
    EXPECT_LT(std::abs(normal.dot(ray)) / cv::norm(ray), 1e-6);
  }
}

// ------------------------------------ two-view triangulation of the base library

struct RigCamera {
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

// Two cameras 400 apart looking at the origin region from about 800 away.
std::pair<RigCamera, RigCamera> Rig() {
  const cv::Matx33d K(1000, 0, 640, 0, 1000, 512, 0, 0, 1);
  RigCamera a{K, Rotation({0.05, 0.25, 0.01}), {-100, 20, 800}};
  RigCamera b{K, Rotation({-0.03, -0.2, 0.02}), {150, -10, 820}};
  return {a, b};
}

int Triangulate(const RigCamera& a, const RigCamera& b, const cv::Mat& pa, const cv::Mat& pb,
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
