// Fitting the head's path, speed and angular velocity.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>

#include "template/head_common.h"

namespace headtrack {

using namespace detail;

cv::Vec3d PathFit::Position(double t) const {
  const double tau = t - t0;
  return a + b * tau + c * (tau * tau);
}

cv::Vec3d PathFit::Velocity(double t) const { return b + c * (2.0 * (t - t0)); }

bool FitPath(const std::vector<HeadSample>& samples, int window, int quadraticFrom,
             PathFit& fit) {
  const int n = std::min(static_cast<int>(samples.size()), window);
  if (n < 3) return false;
  const int first = static_cast<int>(samples.size()) - n;
  fit = PathFit();
  fit.samples = n;
  fit.quadratic = n >= quadraticFrom;
  double t0 = 0.0;
  for (int i = first; i < first + n; ++i) t0 += samples[i].time;
  t0 /= n;
  fit.t0 = t0;
  // Times scaled to about one unit per sample keep the normal system well
  // conditioned.
  const double scale = (samples.back().time - samples[first].time) / (n - 1);
  if (!(scale > 0.0)) return false;
  const int terms = fit.quadratic ? 3 : 2;
  cv::Matx33d normal = cv::Matx33d::zeros();
  cv::Matx33d rhs = cv::Matx33d::zeros();  // column k: coordinate k
  for (int i = first; i < first + n; ++i) {
    const double u = (samples[i].time - t0) / scale;
    const double basis[3] = {1.0, u, u * u};
    for (int r = 0; r < terms; ++r) {
      for (int c = 0; c < terms; ++c) normal(r, c) += basis[r] * basis[c];
      for (int k = 0; k < 3; ++k) rhs(r, k) += basis[r] * samples[i].point[k];
    }
  }
  if (!fit.quadratic) normal(2, 2) = 1.0;
  cv::Matx33d coefficients;
  if (!cv::solve(normal, rhs, coefficients, cv::DECOMP_CHOLESKY)) return false;
  for (int k = 0; k < 3; ++k) {
    fit.a[k] = coefficients(0, k);
    fit.b[k] = coefficients(1, k) / scale;
    fit.c[k] = fit.quadratic ? coefficients(2, k) / (scale * scale) : 0.0;
  }
  double sum = 0.0;
  for (int i = first; i < first + n; ++i) {
    const cv::Vec3d r = samples[i].point - fit.Position(samples[i].time);
    sum += r.dot(r);
  }
  fit.rmsResidual = std::sqrt(sum / n);
  fit.span = cv::norm(samples.back().point - samples[first].point);

  const double speed = cv::norm(fit.b);
  if (fit.quadratic && n > 3 && speed > 0.0) {
    const cv::Vec3d along = fit.b * (1.0 / speed);
    double alongSum = 0.0;
    for (int i = first; i < first + n; ++i) {
      const double r = (samples[i].point - fit.Position(samples[i].time)).dot(along);
      alongSum += r * r;
    }
    const double variance = alongSum / (n - 3);
    const cv::Matx33d inverse = normal.inv(cv::DECOMP_CHOLESKY);
    fit.tangentialAcceleration = 2.0 * fit.c.dot(along);
    fit.tangentialAccelerationError =
        2.0 * std::sqrt(variance * inverse(2, 2)) / (scale * scale);
  }
  return true;
}

bool FitAngularVelocity(const std::vector<HeadSample>& samples, int window,
                        const cv::Vec3d& pivot, const cv::Vec3d& axis, double at,
                        double& omega) {
  const int n = std::min(static_cast<int>(samples.size()), window);
  const double length = cv::norm(axis);
  if (n < 3 || !(length > 0.0)) return false;
  const cv::Vec3d unit = axis * (1.0 / length);
  const int first = static_cast<int>(samples.size()) - n;
  // Angles of the head about the axis, measured from the first sample's
  // direction in the plane across the axis.
  auto across = [&](const cv::Vec3d& point) {
    const cv::Vec3d r = point - pivot;
    return r - unit * r.dot(unit);
  };
  const cv::Vec3d start = across(samples[first].point);
  const double startLength = cv::norm(start);
  if (!(startLength > 0.0)) return false;
  const cv::Vec3d e1 = start * (1.0 / startLength);
  const cv::Vec3d e2 = unit.cross(e1);
  std::vector<double> angles;
  double previous = 0.0;
  for (int i = first; i < first + n; ++i) {
    const cv::Vec3d r = across(samples[i].point);
    double angle = std::atan2(r.dot(e2), r.dot(e1));
    while (angle - previous > CV_PI) angle -= 2.0 * CV_PI;
    while (angle - previous < -CV_PI) angle += 2.0 * CV_PI;
    angles.push_back(angle);
    previous = angle;
  }
  // The same polynomial as for the path: a straight line in time, with a
  // quadratic term when there are enough samples, taken into account at `at`
  // only when it stands out of its standard error.
  double t0 = 0.0;
  for (int i = first; i < first + n; ++i) t0 += samples[i].time;
  t0 /= n;
  const double scale = (samples.back().time - samples[first].time) / (n - 1);
  if (!(scale > 0.0)) return false;
  const bool quadratic = n >= kQuadraticFrom;
  const int terms = quadratic ? 3 : 2;
  cv::Matx33d normal = cv::Matx33d::zeros();
  cv::Vec3d rhs(0.0, 0.0, 0.0);
  for (int i = first; i < first + n; ++i) {
    const double u = (samples[i].time - t0) / scale;
    const double basis[3] = {1.0, u, u * u};
    for (int r = 0; r < terms; ++r) {
      for (int c = 0; c < terms; ++c) normal(r, c) += basis[r] * basis[c];
      rhs[r] += basis[r] * angles[i - first];
    }
  }
  if (!quadratic) normal(2, 2) = 1.0;
  cv::Vec3d coefficients;
  if (!cv::solve(normal, rhs, coefficients, cv::DECOMP_CHOLESKY)) return false;
  omega = coefficients[1] / scale;
  if (quadratic && n > 3) {
    double sum = 0.0;
    for (int i = first; i < first + n; ++i) {
      const double u = (samples[i].time - t0) / scale;
      const double r =
          angles[i - first] - (coefficients[0] + coefficients[1] * u + coefficients[2] * u * u);
      sum += r * r;
    }
    const double error = std::sqrt(sum / (n - 3) * normal.inv(cv::DECOMP_CHOLESKY)(2, 2));
    if (std::abs(coefficients[2]) > kAccelerationSignificance * error) {
      omega += 2.0 * coefficients[2] / (scale * scale) * (at - t0);
    }
  }
  omega = std::abs(omega);
  return std::isfinite(omega);
}

double PathFit::Speed(double t, double significance) const {
  double speed = cv::norm(b);
  if (quadratic && std::abs(tangentialAcceleration) > significance * tangentialAccelerationError) {
    speed += tangentialAcceleration * (t - t0);
  }
  return speed;
}

}  // namespace headtrack
