// Camera matrices from the calibration and the planes that image lines sweep.
#include <ostream>
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <opencv2/calib3d.hpp>
#include <opencv2/core.hpp>
#include <vector>

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

TEST(CameraMatrices, IdentityRotationAndZeroTranslation) {
  const Calibration c = MakeCalibration(kK, cv::Matx33d::eye(), {0.0, 0.0, 0.0});
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  EXPECT_EQ(cv::norm(camera.center, cv::NORM_INF), 0.0);
  EXPECT_TRUE(SameBits(camera.rayMatrix, cv::Mat(kK).inv()));
  EXPECT_TRUE(SameBits(camera.intrinsic, cv::Mat(kK)));
  EXPECT_EQ(camera.center.rows, 3);
  EXPECT_EQ(camera.center.cols, 1);
}

TEST(CameraMatrices, TranslationGivesTheNegatedCentre) {
  const Calibration c = MakeCalibration(kK, cv::Matx33d::eye(), {1.0, 2.0, 3.0});
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  EXPECT_EQ(camera.center.at<double>(0), -1.0);
  EXPECT_EQ(camera.center.at<double>(1), -2.0);
  EXPECT_EQ(camera.center.at<double>(2), -3.0);
}

TEST(CameraMatrices, RotatedCameraMatchesTheLiteralReading) {
  const cv::Matx33d R = Rotation({0.3, -1.1, 0.2});
  const cv::Vec3d t(-120.0, 45.5, 2300.0);
  const Calibration c = MakeCalibration(kK, R, t);
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  const reference::Camera literal = reference::MakeCamera(c.intrinsic, c.extrinsic);
  EXPECT_TRUE(SameBits(camera.intrinsic, literal.intrinsic));
  EXPECT_TRUE(SameBits(camera.rotationToWorld, literal.rotationToWorld));
  EXPECT_TRUE(SameBits(camera.center, literal.center));
  EXPECT_TRUE(SameBits(camera.rayMatrix, literal.rayMatrix));
  // And it is the camera it claims to be.
  const cv::Vec3d centre = -(R.t() * t);
  EXPECT_LT(cv::norm(cv::Mat(centre) - camera.center), 1e-9);
  EXPECT_EQ(cv::norm(cv::Mat(R.t()) - camera.rotationToWorld, cv::NORM_INF), 0.0);
}

// A frame whose mask is `rows` high, `top` rows down the sensor.
CandidateAreaImage Area(int top, int rows) {
  CandidateAreaImage area;
  area.image = cv::Mat::zeros(rows, 640, CV_8UC1);
  area.sensorOffsetY = top;
  area.sensorOffsetX = 333;  // never used for the plane
  return area;
}

struct PlaneCase {
  float rho;
  float theta;
};

void PrintTo(const PlaneCase& c, std::ostream* os) { *os << "rho " << c.rho << " theta " << c.theta; }

class LinePlane : public ::testing::TestWithParam<PlaneCase> {};

// The plane contains the camera centre and every point of the image line, has
// unit length, and is bit for bit what the literal matrix operations give.
TEST_P(LinePlane, ContainsTheImageLine) {
  const PlaneCase p = GetParam();
  const Calibration c = MakeCalibration(kK, Rotation({0.2, 0.9, -0.1}), {40.0, -700.0, 2100.0});
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  CandidateAreaImage area = Area(362, 208);
  std::vector<CandidateAreaImage*> areas{&area, &area};

  cv::Mat normal;
  ImageLineToPlane(normal, areas, 1, cv::Vec2f(p.rho, p.theta), camera);
  ASSERT_EQ(normal.type(), CV_64F);
  ASSERT_EQ(normal.total(), 3u);
  EXPECT_NEAR(cv::norm(normal), 1.0, 1e-15);

  cv::Mat literal;
  reference::ImageLineToPlane(literal, areas, 1, cv::Vec2f(p.rho, p.theta), camera.rayMatrix);
  EXPECT_TRUE(SameBits(normal, literal));

  // Points of the line, inside and outside the frame's rows.
  const double rho = p.rho;
  const double theta = p.theta;
  for (const double y : {0.0, 362.0, 466.0, 570.0, 1500.0}) {
    const double x = (rho - y * std::sin(theta)) / std::cos(theta);
    const cv::Mat pixel = (cv::Mat_<double>(3, 1) << x, y, 1.0);
    const cv::Mat ray = camera.rayMatrix * pixel;
    EXPECT_LT(std::abs(normal.dot(ray)) / cv::norm(ray), 1e-9) << "y " << y;
  }
}

INSTANTIATE_TEST_SUITE_P(Lines, LinePlane,
                         ::testing::Values(PlaneCase{700.0f, 0.0f}, PlaneCase{512.5f, 0.35f},
                                           PlaneCase{-80.0f, 2.7f}, PlaneCase{1200.0f, 1.0f},
                                           PlaneCase{300.0f, 1.9634954f},
                                           PlaneCase{0.0f, 0.0001f}));

// A vertical line x = rho is taken through the rows top and top + height.
TEST(LinePlaneRows, VerticalLineUsesTheFrameRows) {
  const Calibration c = MakeCalibration(kK, Rotation({-0.4, 0.3, 0.05}), {10.0, 20.0, 1800.0});
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  for (const int top : {0, 362, 871}) {
    for (const int rows : {208, 480}) {
      CandidateAreaImage area = Area(top, rows);
      std::vector<CandidateAreaImage*> areas{&area};
      const float rho = 655.5f;
      cv::Mat normal;
      ImageLineToPlane(normal, areas, 0, cv::Vec2f(rho, 0.0f), camera);

      const cv::Mat p1 = (cv::Mat_<double>(3, 1) << rho, top, 1.0);
      const cv::Mat p2 = (cv::Mat_<double>(3, 1) << rho, top + rows, 1.0);
      cv::Mat expected = (camera.rayMatrix * p1).cross(camera.rayMatrix * p2);
      expected.convertTo(expected, -1, 1.0 / std::sqrt(expected.dot(expected)), 0.0);
      EXPECT_TRUE(SameBits(normal, expected)) << "top " << top << " rows " << rows;
    }
  }
}

// The special points for a cosine of exactly 0 are never reached from a float
// angle: no float near pi/2 (or 3 pi/2) has a cosine of exactly 0, so a line
// there gets the plane of its own points.
TEST(LinePlaneRows, NoFloatAngleHasAZeroCosine) {
  for (const double centre : {CV_PI / 2.0, 3.0 * CV_PI / 2.0, -CV_PI / 2.0}) {
    float theta = static_cast<float>(centre - 1e-3);
    const float end = static_cast<float>(centre + 1e-3);
    int checked = 0;
    for (; theta <= end; theta = std::nextafter(theta, 10.0f), ++checked) {
      ASSERT_NE(std::cos(static_cast<double>(theta)), 0.0) << theta;
    }
    EXPECT_GT(checked, 1000);
  }
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

// Degenerate input is not guarded: a frame without rows gives two equal
// points and a NaN normal; a singular intrinsic matrix gives zero rays.
TEST(LinePlaneRows, DegenerateInputGivesNaN) {
  const Calibration c = MakeCalibration(kK, cv::Matx33d::eye(), {0.0, 0.0, 1000.0});
  const CameraGeometry camera = MakeCameraGeometry(c.intrinsic, c.extrinsic);
  CandidateAreaImage flat = Area(100, 1);
  flat.image = cv::Mat();
  std::vector<CandidateAreaImage*> areas{&flat};
  cv::Mat normal;
  ImageLineToPlane(normal, areas, 0, cv::Vec2f(300.0f, 0.2f), camera);
  EXPECT_TRUE(std::isnan(normal.at<double>(0)));

  const Calibration singular = MakeCalibration(cv::Matx33d::zeros(), cv::Matx33d::eye(), {});
  const CameraGeometry blind = MakeCameraGeometry(singular.intrinsic, singular.extrinsic);
  EXPECT_EQ(cv::norm(blind.rayMatrix, cv::NORM_INF), 0.0);
  CandidateAreaImage area = Area(100, 208);
  std::vector<CandidateAreaImage*> one{&area};
  ImageLineToPlane(normal, one, 0, cv::Vec2f(300.0f, 0.2f), blind);
  EXPECT_TRUE(std::isnan(normal.at<double>(2)));
}

}  // namespace
