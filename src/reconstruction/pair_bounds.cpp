#include "reconstruction/pair_bounds.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <limits>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

// The products and sums below round one by one, in the written order
// (compiled with -ffp-contract=off, set in src/CMakeLists.txt), so that the
// four-pair form decides lane by lane as the one-pair form.

namespace {

bool UnitPlane(const double* n, double d) {
  const double norm = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
  return std::abs(norm - 1.0) <= 1e-9 && std::isfinite(d);
}

// The normal-equation solution from the summed terms (m: upper triangle of
// A^T A as in PlaneNormalTerms, b = A^T d) of a well-conditioned system of
// `rows` unit planes: condition number at most about 1000. False for
// anything else.
bool SolveNormalEquations(const double* m6, const double* b, int rows, double* x) {
  const double m[3][3] = {{m6[0], m6[1], m6[2]}, {0.0, m6[3], m6[4]}, {0.0, 0.0, m6[5]}};
  const double c00 = m[1][1] * m[2][2] - m[1][2] * m[1][2];
  const double c01 = m[0][2] * m[1][2] - m[0][1] * m[2][2];
  const double c02 = m[0][1] * m[1][2] - m[0][2] * m[1][1];
  const double c11 = m[0][0] * m[2][2] - m[0][2] * m[0][2];
  const double c12 = m[0][1] * m[0][2] - m[0][0] * m[1][2];
  const double c22 = m[0][0] * m[1][1] - m[0][1] * m[0][1];
  const double det = m[0][0] * c00 + m[0][1] * c01 + m[0][2] * c02;
  // The eigenvalues of A^T A lie in [0, rows]; with det >= 1e-6 rows^3 the
  // smallest is at least 1e-6 rows and the condition number of A at most 1000.
  const double scale = static_cast<double>(rows);
  if (!(det >= 1e-6 * scale * scale * scale)) return false;
  x[0] = (c00 * b[0] + c01 * b[1] + c02 * b[2]) / det;
  x[1] = (c01 * b[0] + c11 * b[1] + c12 * b[2]) / det;
  x[2] = (c02 * b[0] + c12 * b[1] + c22 * b[2]) / det;
  return std::isfinite(x[0]) && std::isfinite(x[1]) && std::isfinite(x[2]);
}

}  // namespace

PlaneNormalTerms NormalTerms(const double* n, double d) {
  PlaneNormalTerms t;
  int k = 0;
  for (int r = 0; r < 3; ++r) {
    for (int c = r; c < 3; ++c) t.nn[k++] = n[r] * n[c];
    t.nd[r] = n[r] * d;
  }
  t.usable = UnitPlane(n, d);
  return t;
}

bool PairSurelyRejected(const double* a, const double* d, const PlaneNormalTerms* const* terms,
                        const double* reference, int axisIndex, const PairWindows& windows) {
  if (!(terms[0]->usable && terms[1]->usable && terms[2]->usable && terms[3]->usable)) {
    return false;
  }
  double m[6];
  double b[3];
  for (int k = 0; k < 6; ++k) {
    m[k] = ((terms[0]->nn[k] + terms[1]->nn[k]) + terms[2]->nn[k]) + terms[3]->nn[k];
  }
  for (int r = 0; r < 3; ++r) {
    b[r] = ((terms[0]->nd[r] + terms[1]->nd[r]) + terms[2]->nd[r]) + terms[3]->nd[r];
  }
  double x[3];
  if (!SolveNormalEquations(m, b, 4, x)) return false;
  double residual = 0.0;
  for (int i = 0; i < 4; ++i) {
    const double* n = a + 3 * i;
    const double r = n[0] * x[0] + n[1] * x[1] + n[2] * x[2] - d[i];
    residual += r * r;
  }
  residual /= 4;
  if (!std::isfinite(residual)) return false;

  // For a condition number up to 1000 the library's SVD solution and the
  // normal-equation one both lie within about 1e-8 |X| + 1e-4 of the exact
  // least-squares point: the margin is a hundred times wider. Any point's
  // residual is at least the minimum, which lies within margin^2 of this one.
  double size = 0.0;
  for (int i = 0; i < 3; ++i) size += std::abs(x[i]) + std::abs(reference[i]);
  const double margin = 1e-2 + 1e-6 * size;
  if (residual - (margin * margin + 1e-6 * (1.0 + residual)) > windows.maxResidual) return true;

  const double offset[3] = {x[0] - reference[0], x[1] - reference[1], x[2] - reference[2]};
  const double along = std::abs(offset[axisIndex]);
  if (along + margin < windows.minAlong || along - margin > windows.maxAlong) return true;
  const double distance =
      std::sqrt(offset[0] * offset[0] + offset[1] * offset[1] + offset[2] * offset[2]);
  return distance + margin < windows.minDistance || distance - margin > windows.maxDistance;
}

namespace {

uint64_t PairsSurelyRejectedScalar(const double* a3, const double* d3,
                                   const PlaneNormalTerms* const* first,
                                   const PlaneTermColumns& last, int count,
                                   const double* reference, int axisIndex,
                                   const PairWindows& windows) {
  double a[12];
  double d[4];
  std::memcpy(a, a3, 9 * sizeof(double));
  std::memcpy(d, d3, 3 * sizeof(double));
  PlaneNormalTerms t;
  const PlaneNormalTerms* terms[4] = {first[0], first[1], first[2], &t};
  uint64_t bits = 0;
  for (int k = 0; k < count; ++k) {
    for (int i = 0; i < 3; ++i) a[9 + i] = last.normal[i][k];
    d[3] = last.offset[k];
    for (int i = 0; i < 6; ++i) t.nn[i] = last.nn[i][k];
    for (int i = 0; i < 3; ++i) t.nd[i] = last.nd[i][k];
    t.usable = last.usable[k] == 1.0;
    if (PairSurelyRejected(a, d, terms, reference, axisIndex, windows)) bits |= uint64_t{1} << k;
  }
  return bits;
}

#if defined(__x86_64__) || defined(__i386__)
#define AVX2_INLINE __attribute__((target("avx2"), always_inline)) inline
AVX2_INLINE __m256d Mul(__m256d x, __m256d y) { return _mm256_mul_pd(x, y); }
AVX2_INLINE __m256d Add(__m256d x, __m256d y) { return _mm256_add_pd(x, y); }
AVX2_INLINE __m256d Sub(__m256d x, __m256d y) { return _mm256_sub_pd(x, y); }
AVX2_INLINE __m256d All(double v) { return _mm256_set1_pd(v); }
AVX2_INLINE __m256d Abs(__m256d v) {
  return _mm256_and_pd(v, _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FFFFFFFFFFFFFFFll)));
}
AVX2_INLINE __m256d Finite(__m256d v) {
  return _mm256_cmp_pd(Abs(v), All(std::numeric_limits<double>::infinity()), _CMP_LT_OQ);
}
#undef AVX2_INLINE

// Four fourth planes at a time; every lane performs PairSurelyRejected's
// operations in its order (no fused multiply-adds), so lane k decides as the
// one-pair form does for plane k. The columns are read in whole groups of
// four.
__attribute__((target("avx2"))) uint64_t PairsSurelyRejectedAvx2(
    const double* a3, const double* d3, const PlaneNormalTerms* const* first,
    const PlaneTermColumns& last, int count, const double* reference, int axisIndex,
    const PairWindows& windows) {
  uint64_t bits = 0;
  if (first[0]->usable && first[1]->usable && first[2]->usable) {
    double m3[6];
    double b3[3];
    for (int k = 0; k < 6; ++k) m3[k] = (first[0]->nn[k] + first[1]->nn[k]) + first[2]->nn[k];
    for (int r = 0; r < 3; ++r) b3[r] = (first[0]->nd[r] + first[1]->nd[r]) + first[2]->nd[r];
    for (int k = 0; k < count; k += 4) {
      __m256d m[6];
      __m256d b[3];
      for (int i = 0; i < 6; ++i) m[i] = Add(All(m3[i]), _mm256_loadu_pd(last.nn[i] + k));
      for (int i = 0; i < 3; ++i) b[i] = Add(All(b3[i]), _mm256_loadu_pd(last.nd[i] + k));
      // SolveNormalEquations, rows = 4.
      const __m256d c00 = Sub(Mul(m[3], m[5]), Mul(m[4], m[4]));
      const __m256d c01 = Sub(Mul(m[2], m[4]), Mul(m[1], m[5]));
      const __m256d c02 = Sub(Mul(m[1], m[4]), Mul(m[2], m[3]));
      const __m256d c11 = Sub(Mul(m[0], m[5]), Mul(m[2], m[2]));
      const __m256d c12 = Sub(Mul(m[1], m[2]), Mul(m[0], m[4]));
      const __m256d c22 = Sub(Mul(m[0], m[3]), Mul(m[1], m[1]));
      const __m256d det = Add(Add(Mul(m[0], c00), Mul(m[1], c01)), Mul(m[2], c02));
      __m256d sure = _mm256_cmp_pd(det, All(1e-6 * 4.0 * 4.0 * 4.0), _CMP_GE_OQ);
      sure = _mm256_and_pd(sure, _mm256_cmp_pd(_mm256_loadu_pd(last.usable + k), All(1.0),
                                               _CMP_EQ_OQ));
      __m256d x[3];
      x[0] = _mm256_div_pd(Add(Add(Mul(c00, b[0]), Mul(c01, b[1])), Mul(c02, b[2])), det);
      x[1] = _mm256_div_pd(Add(Add(Mul(c01, b[0]), Mul(c11, b[1])), Mul(c12, b[2])), det);
      x[2] = _mm256_div_pd(Add(Add(Mul(c02, b[0]), Mul(c12, b[1])), Mul(c22, b[2])), det);
      sure = _mm256_and_pd(sure, _mm256_and_pd(Finite(x[0]), _mm256_and_pd(Finite(x[1]),
                                                                             Finite(x[2]))));
      __m256d residual = _mm256_setzero_pd();
      for (int i = 0; i < 4; ++i) {
        __m256d n0, n1, n2, di;
        if (i < 3) {
          n0 = All(a3[3 * i]);
          n1 = All(a3[3 * i + 1]);
          n2 = All(a3[3 * i + 2]);
          di = All(d3[i]);
        } else {
          n0 = _mm256_loadu_pd(last.normal[0] + k);
          n1 = _mm256_loadu_pd(last.normal[1] + k);
          n2 = _mm256_loadu_pd(last.normal[2] + k);
          di = _mm256_loadu_pd(last.offset + k);
        }
        const __m256d r = Sub(Add(Add(Mul(n0, x[0]), Mul(n1, x[1])), Mul(n2, x[2])), di);
        residual = Add(residual, Mul(r, r));
      }
      residual = _mm256_div_pd(residual, All(4.0));
      sure = _mm256_and_pd(sure, Finite(residual));

      __m256d size = _mm256_setzero_pd();
      for (int i = 0; i < 3; ++i) size = Add(size, Add(Abs(x[i]), All(std::abs(reference[i]))));
      const __m256d margin = Add(All(1e-2), Mul(All(1e-6), size));
      const __m256d excess =
          Sub(residual, Add(Mul(margin, margin), Mul(All(1e-6), Add(All(1.0), residual))));
      __m256d reject = _mm256_cmp_pd(excess, All(windows.maxResidual), _CMP_GT_OQ);

      __m256d offset[3];
      for (int i = 0; i < 3; ++i) offset[i] = Sub(x[i], All(reference[i]));
      const __m256d along = Abs(offset[axisIndex]);
      reject = _mm256_or_pd(reject, _mm256_cmp_pd(Add(along, margin), All(windows.minAlong),
                                                   _CMP_LT_OQ));
      reject = _mm256_or_pd(reject, _mm256_cmp_pd(Sub(along, margin), All(windows.maxAlong),
                                                   _CMP_GT_OQ));
      const __m256d distance = _mm256_sqrt_pd(
          Add(Add(Mul(offset[0], offset[0]), Mul(offset[1], offset[1])), Mul(offset[2], offset[2])));
      reject = _mm256_or_pd(reject, _mm256_cmp_pd(Add(distance, margin), All(windows.minDistance),
                                                   _CMP_LT_OQ));
      reject = _mm256_or_pd(reject, _mm256_cmp_pd(Sub(distance, margin), All(windows.maxDistance),
                                                   _CMP_GT_OQ));
      bits |= static_cast<uint64_t>(_mm256_movemask_pd(_mm256_and_pd(sure, reject))) << k;
    }
  }
  // The lanes past the last plane read the padding and are dropped.
  return count == 64 ? bits : bits & ((uint64_t{1} << count) - 1);
}
#endif

}  // namespace

uint64_t PairsSurelyRejected(const double* a, const double* d,
                             const PlaneNormalTerms* const* first, const PlaneTermColumns& last,
                             int count, const double* reference, int axisIndex,
                             const PairWindows& windows) {
#if defined(__x86_64__) || defined(__i386__)
  static const bool avx2 = __builtin_cpu_supports("avx2");
  if (avx2) {
    return PairsSurelyRejectedAvx2(a, d, first, last, count, reference, axisIndex, windows);
  }
#endif
  return PairsSurelyRejectedScalar(a, d, first, last, count, reference, axisIndex, windows);
}

double ResidualSurelyAbove(const PlaneRow* rows, int count) {
  constexpr double kNone = std::numeric_limits<double>::quiet_NaN();
  if (count < 3) return kNone;
  double m[6] = {0.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  double b[3] = {0.0, 0.0, 0.0};
  for (int i = 0; i < count; ++i) {
    const PlaneNormalTerms& t = *rows[i].terms;
    if (!t.usable) return kNone;
    for (int k = 0; k < 6; ++k) m[k] += t.nn[k];
    for (int r = 0; r < 3; ++r) b[r] += t.nd[r];
  }
  double x[3];
  if (!SolveNormalEquations(m, b, count, x)) return kNone;
  double residual = 0.0;
  for (int i = 0; i < count; ++i) {
    const double* n = rows[i].normal;
    const double r = n[0] * x[0] + n[1] * x[1] + n[2] * x[2] - rows[i].offset;
    residual += r * r;
  }
  residual /= count;
  if (!std::isfinite(residual)) return kNone;
  // Any point's residual is at least the minimum; the library's solution lies
  // within `margin` of the minimising point, which moves the mean squared
  // residual by less than margin^2 (A^T A / rows has norm at most 1).
  const double margin = 1e-2 + 1e-6 * (std::abs(x[0]) + std::abs(x[1]) + std::abs(x[2]));
  return residual - (margin * margin + 1e-6 * (1.0 + residual));
}
