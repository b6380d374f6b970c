// Least-squares fits of the delivery with the covariance of their parameters,
// scaled by the residuals (the data's own scatter, not an assumed one).
#pragma once

#include <vector>

#include <opencv2/core.hpp>

namespace clubtracker::delivery {

// x(t) = sum_k coef[k] (t - t0)^k per coordinate, k up to the degree (1 or 2).
struct PolyFit {
  double t0 = 0.0;
  int degree = 1;
  cv::Vec3d coef[3];
  cv::Matx33d inverse;  // (X^T X)^-1 of the design (unused rows and columns 0)
  double sigma = 0.0;   // residual standard deviation per coordinate

  cv::Vec3d Position(double t) const;
  cv::Vec3d Derivative(double t) const;
  // Variance of coefficient k (per coordinate).
  double CoefficientVariance(int k) const;
  // Variance (per coordinate) of the position and of the derivative at t.
  double PositionVariance(double t) const;
  double DerivativeVariance(double t) const;
};

// Fits `points` at `times` (at least degree + 1 of them). With exactly
// degree + 1 points the residual says nothing, and sigma stays 0.
PolyFit FitPolynomial(const std::vector<double>& times, const std::vector<cv::Vec3d>& points,
                      int degree);

// y = intercept + slope (t - tm), tm the mean time.
struct LineFit {
  double tm = 0.0;
  double intercept = 0.0;
  double slope = 0.0;
  double sigma = 0.0;       // residual standard deviation
  double sumSquares = 0.0;  // of t - tm
  int count = 0;
  double slopeError = 0.0;

  double At(double t) const { return intercept + slope * (t - tm); }
  double ErrorAt(double t) const;
};

LineFit FitLine(const std::vector<double>& times, const std::vector<double>& values);

}  // namespace clubtracker::delivery
