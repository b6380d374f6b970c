// The least-squares meeting point of planes, X = A.inv(DECOMP_SVD) * d, formed
// with exactly the operations of the library's own small-matrix path
// (one-sided Jacobi SVD of A's transpose, then the back-substitution that
// drops singular values up to 2 eps times their sum), without its matrix
// headers, buffers and dispatch.
#pragma once

#include <cstdint>

// Rows up to which the library solves with its own Jacobi SVD; larger systems
// may go to an external LAPACK, whose rounding is not reproduced here.
constexpr int kJacobiSolveMaxRows = 24;

// a: `rows` x 3, row-major; d: `rows` values. Writes the solution to x and
// returns true, or returns false without touching x when the system is one
// the library treats differently (more than kJacobiSolveMaxRows rows, fewer
// than 3, a value that is not finite, or a vanishing singular value the
// back-substitution would keep); the caller then asks the library itself.
bool SolvePlanesJacobi(const double* a, const double* d, int rows, double* x);

// SolvePlanesJacobi of four systems of four rows at once (a[i]: 12 values,
// d[i]: 4): bit i of the result is set when x[i] holds system i's solution,
// clear where SolvePlanesJacobi(a[i], d[i], 4, .) would return false (x[i]
// then unspecified). Lane by lane the same operations in the same order.
unsigned SolvePlanesJacobi4(const double* const* a, const double* const* d, double (*x)[3]);

// Whether SolvePlanesJacobi gives the library's bits on this machine: checked
// once per process on probe systems (regular, repeated and opposite rows,
// nearly parallel planes) against cv::solve(DECOMP_SVD).
bool JacobiSolveMatchesLibrary();
