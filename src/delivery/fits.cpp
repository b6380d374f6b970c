#include "delivery/fits.h"

#include <cmath>

namespace clubtracker::delivery {

namespace {

cv::Vec3d Basis(int degree, double tau) {
  return {1.0, tau, degree >= 2 ? tau * tau : 0.0};
}

}  // namespace

cv::Vec3d PolyFit::Position(double t) const {
  const double tau = t - t0;
  return coef[0] + coef[1] * tau + coef[2] * (tau * tau);
}

cv::Vec3d PolyFit::Derivative(double t) const { return coef[1] + coef[2] * (2.0 * (t - t0)); }

double PolyFit::CoefficientVariance(int k) const { return sigma * sigma * inverse(k, k); }

double PolyFit::PositionVariance(double t) const {
  const cv::Vec3d b = Basis(degree, t - t0);
  return sigma * sigma * b.dot(inverse * b);
}

double PolyFit::DerivativeVariance(double t) const {
  const cv::Vec3d b(0.0, 1.0, degree >= 2 ? 2.0 * (t - t0) : 0.0);
  return sigma * sigma * b.dot(inverse * b);
}

PolyFit FitPolynomial(const std::vector<double>& times, const std::vector<cv::Vec3d>& points,
                      int degree) {
  PolyFit fit;
  fit.degree = degree;
  const size_t n = times.size();
  for (double t : times) fit.t0 += t / static_cast<double>(n);
  const int p = degree + 1;
  cv::Matx33d normal = cv::Matx33d::zeros();
  cv::Matx33d rhs = cv::Matx33d::zeros();  // column c: coordinate c
  for (size_t i = 0; i < n; ++i) {
    const cv::Vec3d b = Basis(degree, times[i] - fit.t0);
    for (int r = 0; r < 3; ++r) {
      for (int c = 0; c < 3; ++c) {
        normal(r, c) += b[r] * b[c];
        rhs(r, c) += b[r] * points[i][c];
      }
    }
  }
  if (degree < 2) normal(2, 2) = 1.0;  // keeps the unused coefficient at 0
  fit.inverse = normal.inv(cv::DECOMP_SVD);
  if (degree < 2) fit.inverse(2, 2) = 0.0;
  const cv::Matx33d solution = fit.inverse * rhs;
  for (int k = 0; k < 3; ++k) {
    fit.coef[k] = cv::Vec3d(solution(k, 0), solution(k, 1), solution(k, 2));
  }
  double sum = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const cv::Vec3d r = points[i] - fit.Position(times[i]);
    sum += r.dot(r);
  }
  const double dof = 3.0 * (static_cast<double>(n) - p);
  fit.sigma = dof > 0.0 ? std::sqrt(sum / dof) : 0.0;
  return fit;
}

double LineFit::ErrorAt(double t) const {
  if (count < 1 || !(sumSquares > 0.0)) return 0.0;
  const double tau = t - tm;
  return sigma * std::sqrt(1.0 / count + tau * tau / sumSquares);
}

LineFit FitLine(const std::vector<double>& times, const std::vector<double>& values) {
  LineFit fit;
  fit.count = static_cast<int>(times.size());
  if (fit.count < 2) return fit;
  for (double t : times) fit.tm += t / fit.count;
  double sy = 0.0, sty = 0.0;
  for (size_t i = 0; i < times.size(); ++i) {
    const double tau = times[i] - fit.tm;
    fit.sumSquares += tau * tau;
    sy += values[i];
    sty += tau * values[i];
  }
  fit.intercept = sy / fit.count;
  fit.slope = fit.sumSquares > 0.0 ? sty / fit.sumSquares : 0.0;
  double sum = 0.0;
  for (size_t i = 0; i < times.size(); ++i) sum += std::pow(values[i] - fit.At(times[i]), 2);
  fit.sigma = fit.count > 2 ? std::sqrt(sum / (fit.count - 2)) : 0.0;
  fit.slopeError = fit.sumSquares > 0.0 ? fit.sigma / std::sqrt(fit.sumSquares) : 0.0;
  return fit;
}

}  // namespace clubtracker::delivery
