#include "reconstruction/plane_solve.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <opencv2/core.hpp>
#include <utility>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

// Every product and sum below must round on its own, in the written order
// (compiled with -ffp-contract=off, set in src/CMakeLists.txt).

namespace {

constexpr int kColumns = 3;

// sqrt(a^2 + b^2) as the library's SVD forms it (not std::hypot).
inline double ScaledHypot(double a, double b) {
  a = std::abs(a);
  b = std::abs(b);
  if (a > b) {
    b /= a;
    return a * std::sqrt(1 + b * b);
  }
  if (b > 0) {
    a /= b;
    return b * std::sqrt(1 + a * a);
  }
  return 0;
}

}  // namespace

namespace {

// The solve for `rows` rows; kRows > 0 fixes the count at compile time (the
// same operations in the same order, unrolled).
template <int kRows>
bool SolveJacobi(const double* a, const double* d, int rows, double* x) {
  const int m = kRows > 0 ? kRows : rows;
  const int n = kColumns;
  if (m < n || m > kJacobiSolveMaxRows) return false;
  for (int i = 0; i < m * n; ++i) {
    if (!std::isfinite(a[i])) return false;
  }
  for (int i = 0; i < m; ++i) {
    if (!std::isfinite(d[i])) return false;
  }

  // The columns of A as rows (A's transpose), their squared norms, and V^T.
  double at[kColumns][kJacobiSolveMaxRows];
  double w[kColumns];
  double vt[kColumns][kColumns];
  for (int i = 0; i < n; ++i) {
    for (int k = 0; k < m; ++k) at[i][k] = a[k * n + i];
  }
  for (int i = 0; i < n; ++i) {
    double sd = 0;
    for (int k = 0; k < m; ++k) {
      const double t = at[i][k];
      sd += t * t;
    }
    w[i] = sd;
    for (int k = 0; k < n; ++k) vt[i][k] = 0;
    vt[i][i] = 1;
  }

  // One-sided Jacobi rotations until no pair of columns is rotated.
  const double eps = DBL_EPSILON * 10;
  const int maxIter = std::max(m, 30);
  for (int iter = 0; iter < maxIter; ++iter) {
    bool changed = false;
    for (int i = 0; i < n - 1; ++i) {
      for (int j = i + 1; j < n; ++j) {
        double* ai = at[i];
        double* aj = at[j];
        double wa = w[i];
        double p = 0;
        double wb = w[j];
        for (int k = 0; k < m; ++k) p += ai[k] * aj[k];
        if (std::abs(p) <= eps * std::sqrt(wa * wb)) continue;

        p *= 2;
        const double beta = wa - wb;
        const double gamma = ScaledHypot(p, beta);
        double c;
        double s;
        if (beta < 0) {
          const double delta = (gamma - beta) * 0.5;
          s = std::sqrt(delta / gamma);
          c = p / (gamma * s * 2);
        } else {
          c = std::sqrt((gamma + beta) / (gamma * 2));
          s = p / (gamma * c * 2);
        }

        wa = 0;
        wb = 0;
        for (int k = 0; k < m; ++k) {
          const double t0 = c * ai[k] + s * aj[k];
          const double t1 = -s * ai[k] + c * aj[k];
          ai[k] = t0;
          aj[k] = t1;
          wa += t0 * t0;
          wb += t1 * t1;
        }
        w[i] = wa;
        w[j] = wb;
        changed = true;

        double* vi = vt[i];
        double* vj = vt[j];
        for (int k = 0; k < n; ++k) {
          const double t0 = c * vi[k] + s * vj[k];
          const double t1 = -s * vi[k] + c * vj[k];
          vi[k] = t0;
          vj[k] = t1;
        }
      }
    }
    if (!changed) break;
  }

  // Singular values, in descending order with their vectors.
  for (int i = 0; i < n; ++i) {
    double sd = 0;
    for (int k = 0; k < m; ++k) {
      const double t = at[i][k];
      sd += t * t;
    }
    w[i] = std::sqrt(sd);
  }
  for (int i = 0; i < n - 1; ++i) {
    int j = i;
    for (int k = i + 1; k < n; ++k) {
      if (w[j] < w[k]) j = k;
    }
    if (i != j) {
      std::swap(w[i], w[j]);
      for (int k = 0; k < m; ++k) std::swap(at[i][k], at[j][k]);
      for (int k = 0; k < n; ++k) std::swap(vt[i][k], vt[j][k]);
    }
  }

  // Back-substitution, x = V diag(1 / w) U^T d over the singular values above
  // the threshold.
  double threshold = 0;
  for (int i = 0; i < n; ++i) threshold += w[i];
  threshold *= DBL_EPSILON * 2;
  for (int i = 0; i < n; ++i) {
    // A vanishing singular value gets a made-up left vector in the library;
    // it is only harmless when the back-substitution drops it.
    if (w[i] <= DBL_MIN && !(std::abs(w[i]) <= threshold)) return false;
  }
  double u[kColumns][kJacobiSolveMaxRows];
  for (int i = 0; i < n; ++i) {
    if (w[i] <= DBL_MIN) continue;
    const double scale = 1 / w[i];
    for (int k = 0; k < m; ++k) u[i][k] = at[i][k] * scale;
  }
  double out[kColumns] = {0, 0, 0};
  for (int i = 0; i < n; ++i) {
    double wi = w[i];
    if (std::abs(wi) <= threshold) continue;
    wi = 1 / wi;
    double s = 0;
    for (int j = 0; j < m; ++j) s += u[i][j] * d[j];
    s *= wi;
    for (int j = 0; j < n; ++j) out[j] = out[j] + s * vt[i][j];
  }
  std::memcpy(x, out, sizeof out);
  return true;
}

}  // namespace

bool SolvePlanesJacobi(const double* a, const double* d, int rows, double* x) {
  // Four rows: the planes of a line pair.
  return rows == 4 ? SolveJacobi<4>(a, d, rows, x) : SolveJacobi<0>(a, d, rows, x);
}

namespace {

#if defined(__x86_64__) || defined(__i386__)
#define JACOBI_AVX2 __attribute__((target("avx2"), always_inline)) inline
JACOBI_AVX2 __m256d Lanes(const double* const* p, int i) {
  return _mm256_set_pd(p[3][i], p[2][i], p[1][i], p[0][i]);
}
JACOBI_AVX2 __m256d Pick(__m256d off, __m256d on, __m256d mask) {
  return _mm256_blendv_pd(off, on, mask);
}
JACOBI_AVX2 __m256d Magnitude(__m256d v) {
  return _mm256_and_pd(v, _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FFFFFFFFFFFFFFFll)));
}
JACOBI_AVX2 __m256d Negated(__m256d v) {
  return _mm256_xor_pd(v, _mm256_castsi256_pd(_mm256_set1_epi64x(
                              static_cast<long long>(0x8000000000000000ull))));
}
// Swaps u and v in the lanes of `mask`.
JACOBI_AVX2 void Exchange(__m256d& u, __m256d& v, __m256d mask) {
  const __m256d old = u;
  u = Pick(u, v, mask);
  v = Pick(v, old, mask);
}
// The pair rotated, t0 = c u + s v and t1 = -s u + c v, written back to u and
// v in the lanes of `mask`.
JACOBI_AVX2 void Rotate(__m256d c, __m256d s, __m256d minusS, __m256d mask, __m256d& u,
                        __m256d& v, __m256d& t0, __m256d& t1) {
  t0 = _mm256_add_pd(_mm256_mul_pd(c, u), _mm256_mul_pd(s, v));
  t1 = _mm256_add_pd(_mm256_mul_pd(minusS, u), _mm256_mul_pd(c, v));
  u = Pick(u, t0, mask);
  v = Pick(v, t1, mask);
}
#undef JACOBI_AVX2

// SolveJacobi<4> on four systems, one per lane: every branch of the one-lane
// form is taken by blending both of its outcomes.
__attribute__((target("avx2"))) unsigned SolveJacobi4Avx2(const double* const* a,
                                                          const double* const* d,
                                                          double (*x)[3]) {
  constexpr int m = 4;
  constexpr int n = kColumns;
  const __m256d zero = _mm256_setzero_pd();
  const __m256d one = _mm256_set1_pd(1.0);
  const __m256d two = _mm256_set1_pd(2.0);
  const __m256d half = _mm256_set1_pd(0.5);
  const __m256d infinity = _mm256_set1_pd(std::numeric_limits<double>::infinity());
  __m256d ok = _mm256_castsi256_pd(_mm256_set1_epi64x(-1));
  __m256d at[n][m];
  __m256d dv[m];
  for (int k = 0; k < m; ++k) {
    for (int i = 0; i < n; ++i) {
      at[i][k] = Lanes(a, k * n + i);
      ok = _mm256_and_pd(ok, _mm256_cmp_pd(Magnitude(at[i][k]), infinity, _CMP_LT_OQ));
    }
    dv[k] = Lanes(d, k);
    ok = _mm256_and_pd(ok, _mm256_cmp_pd(Magnitude(dv[k]), infinity, _CMP_LT_OQ));
  }
  __m256d w[n];
  __m256d vt[n][n];
  for (int i = 0; i < n; ++i) {
    __m256d sd = zero;
    for (int k = 0; k < m; ++k) sd = _mm256_add_pd(sd, _mm256_mul_pd(at[i][k], at[i][k]));
    w[i] = sd;
    for (int k = 0; k < n; ++k) vt[i][k] = i == k ? one : zero;
  }

  const __m256d eps = _mm256_set1_pd(DBL_EPSILON * 10);
  const int maxIter = std::max(m, 30);
  for (int iter = 0; iter < maxIter; ++iter) {
    __m256d changed = zero;
    for (int i = 0; i < n - 1; ++i) {
      for (int j = i + 1; j < n; ++j) {
        const __m256d wa0 = w[i];
        const __m256d wb0 = w[j];
        __m256d p = zero;
        for (int k = 0; k < m; ++k) p = _mm256_add_pd(p, _mm256_mul_pd(at[i][k], at[j][k]));
        // Rotated unless |p| <= eps sqrt(wa wb) (NaN rotates).
        const __m256d rotate = _mm256_cmp_pd(
            Magnitude(p), _mm256_mul_pd(eps, _mm256_sqrt_pd(_mm256_mul_pd(wa0, wb0))),
            _CMP_NLE_UQ);
        if (_mm256_movemask_pd(rotate) == 0) continue;

        p = _mm256_mul_pd(p, two);
        const __m256d beta = _mm256_sub_pd(wa0, wb0);
        // ScaledHypot(p, beta).
        const __m256d pa = Magnitude(p);
        const __m256d pb = Magnitude(beta);
        const __m256d ratio1 = _mm256_div_pd(pb, pa);
        const __m256d first =
            _mm256_mul_pd(pa, _mm256_sqrt_pd(_mm256_add_pd(one, _mm256_mul_pd(ratio1, ratio1))));
        const __m256d ratio2 = _mm256_div_pd(pa, pb);
        const __m256d second =
            _mm256_mul_pd(pb, _mm256_sqrt_pd(_mm256_add_pd(one, _mm256_mul_pd(ratio2, ratio2))));
        const __m256d gamma =
            Pick(Pick(zero, second, _mm256_cmp_pd(pb, zero, _CMP_GT_OQ)), first,
                 _mm256_cmp_pd(pa, pb, _CMP_GT_OQ));
        // beta < 0: s from the difference; otherwise c from the sum.
        const __m256d delta = _mm256_mul_pd(_mm256_sub_pd(gamma, beta), half);
        const __m256d sNegative = _mm256_sqrt_pd(_mm256_div_pd(delta, gamma));
        const __m256d cNegative =
            _mm256_div_pd(p, _mm256_mul_pd(_mm256_mul_pd(gamma, sNegative), two));
        const __m256d cPositive = _mm256_sqrt_pd(
            _mm256_div_pd(_mm256_add_pd(gamma, beta), _mm256_mul_pd(gamma, two)));
        const __m256d sPositive =
            _mm256_div_pd(p, _mm256_mul_pd(_mm256_mul_pd(gamma, cPositive), two));
        const __m256d negative = _mm256_cmp_pd(beta, zero, _CMP_LT_OQ);
        const __m256d c = Pick(cPositive, cNegative, negative);
        const __m256d s = Pick(sPositive, sNegative, negative);
        const __m256d minusS = Negated(s);

        __m256d wa = zero;
        __m256d wb = zero;
        for (int k = 0; k < m; ++k) {
          __m256d t0, t1;
          Rotate(c, s, minusS, rotate, at[i][k], at[j][k], t0, t1);
          wa = _mm256_add_pd(wa, _mm256_mul_pd(t0, t0));
          wb = _mm256_add_pd(wb, _mm256_mul_pd(t1, t1));
        }
        w[i] = Pick(wa0, wa, rotate);
        w[j] = Pick(wb0, wb, rotate);
        changed = _mm256_or_pd(changed, rotate);
        for (int k = 0; k < n; ++k) {
          __m256d t0, t1;
          Rotate(c, s, minusS, rotate, vt[i][k], vt[j][k], t0, t1);
        }
      }
    }
    // A lane whose sweep rotated nothing would rotate nothing again.
    if (_mm256_movemask_pd(changed) == 0) break;
  }

  for (int i = 0; i < n; ++i) {
    __m256d sd = zero;
    for (int k = 0; k < m; ++k) sd = _mm256_add_pd(sd, _mm256_mul_pd(at[i][k], at[i][k]));
    w[i] = _mm256_sqrt_pd(sd);
  }
  // Descending order: row i swaps with the first largest of the rows below.
  for (int i = 0; i < n - 1; ++i) {
    __m256d largest = w[i];
    __m256d to[n];
    for (int k = 0; k < n; ++k) to[k] = zero;
    for (int k = i + 1; k < n; ++k) {
      const __m256d larger = _mm256_cmp_pd(largest, w[k], _CMP_LT_OQ);
      largest = Pick(largest, w[k], larger);
      for (int q = i + 1; q < k; ++q) to[q] = _mm256_andnot_pd(larger, to[q]);
      to[k] = larger;
    }
    for (int k = i + 1; k < n; ++k) {
      const __m256d swap = to[k];
      Exchange(w[i], w[k], swap);
      for (int q = 0; q < m; ++q) Exchange(at[i][q], at[k][q], swap);
      for (int q = 0; q < n; ++q) Exchange(vt[i][q], vt[k][q], swap);
    }
  }

  __m256d threshold = zero;
  for (int i = 0; i < n; ++i) threshold = _mm256_add_pd(threshold, w[i]);
  threshold = _mm256_mul_pd(threshold, _mm256_set1_pd(DBL_EPSILON * 2));
  const __m256d smallest = _mm256_set1_pd(DBL_MIN);
  __m256d out[n] = {zero, zero, zero};
  for (int i = 0; i < n; ++i) {
    const __m256d tiny = _mm256_cmp_pd(w[i], smallest, _CMP_LE_OQ);
    const __m256d dropped = _mm256_cmp_pd(Magnitude(w[i]), threshold, _CMP_LE_OQ);
    ok = _mm256_andnot_pd(_mm256_andnot_pd(dropped, tiny), ok);
    const __m256d scale = _mm256_div_pd(one, w[i]);
    __m256d sum = zero;
    for (int k = 0; k < m; ++k) sum = _mm256_add_pd(sum, _mm256_mul_pd(_mm256_mul_pd(at[i][k], scale), dv[k]));
    sum = _mm256_mul_pd(sum, _mm256_div_pd(one, w[i]));
    for (int k = 0; k < n; ++k) {
      out[k] = Pick(_mm256_add_pd(out[k], _mm256_mul_pd(sum, vt[i][k])), out[k], dropped);
    }
  }
  double lanes[n][4];
  for (int k = 0; k < n; ++k) _mm256_storeu_pd(lanes[k], out[k]);
  for (int lane = 0; lane < 4; ++lane) {
    for (int k = 0; k < n; ++k) x[lane][k] = lanes[k][lane];
  }
  return static_cast<unsigned>(_mm256_movemask_pd(ok));
}
#endif

}  // namespace

unsigned SolvePlanesJacobi4(const double* const* a, const double* const* d, double (*x)[3]) {
#if defined(__x86_64__) || defined(__i386__)
  static const bool avx2 = __builtin_cpu_supports("avx2");
  if (avx2) return SolveJacobi4Avx2(a, d, x);
#endif
  unsigned solved = 0;
  for (int i = 0; i < 4; ++i) solved |= SolveJacobi<4>(a[i], d[i], 4, x[i]) ? 1u << i : 0u;
  return solved;
}

namespace {

struct ProbeRandom {
  uint64_t state = 0x9E3779B97F4A7C15ull;
  double Next() {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<double>(state >> 11) * (2.0 / 9007199254740992.0) - 1.0;
  }
};

void UnitRow(ProbeRandom& random, double* row, const double* near, double spread) {
  double v[3];
  for (int c = 0; c < 3; ++c) v[c] = (near != nullptr ? near[c] : 0.0) + spread * random.Next();
  const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
  for (int c = 0; c < 3; ++c) row[c] = v[c] / length;
}

bool ProbeMatches() {
  ProbeRandom random;
  for (const int rows : {3, 4, 5, 8, 12, 24}) {
    for (int sample = 0; sample < 96; ++sample) {
      double a[kJacobiSolveMaxRows * 3] = {};
      double d[kJacobiSolveMaxRows] = {};
      const int kind = sample % 6;
      for (int r = 0; r < rows; ++r) {
        UnitRow(random, a + 3 * r, kind == 4 && r > 0 ? a : nullptr, kind == 4 ? 0.01 : 1.0);
        d[r] = 2000.0 * random.Next();
      }
      if (kind == 1) {  // a repeated plane
        std::memcpy(a + 3, a, 3 * sizeof(double));
        d[1] = d[0];
      } else if (kind == 2 && rows >= 4) {  // two repeated planes: rank two
        std::memcpy(a + 3, a, 3 * sizeof(double));
        std::memcpy(a + 9, a + 6, 3 * sizeof(double));
        d[1] = d[0];
        d[3] = d[2];
      } else if (kind == 3) {  // an opposite plane
        for (int c = 0; c < 3; ++c) a[3 + c] = -a[c];
        d[1] = -d[0];
      } else if (kind == 5) {  // all planes alike
        for (int r = 1; r < rows; ++r) std::memcpy(a + 3 * r, a, 3 * sizeof(double));
      }
      double x[3];
      if (!SolvePlanesJacobi(a, d, rows, x)) continue;
      double y[3];
      const cv::Mat ma(rows, 3, CV_64F, a);
      const cv::Mat md(rows, 1, CV_64F, d);
      cv::Mat mx(3, 1, CV_64F, y);
      cv::solve(ma, md, mx, cv::DECOMP_SVD);
      if (mx.data != reinterpret_cast<uchar*>(y)) return false;
      if (std::memcmp(x, y, sizeof x) != 0) return false;
    }
  }
  return true;
}

}  // namespace

bool JacobiSolveMatchesLibrary() {
  static const bool matches = [] {
    try {
      return ProbeMatches();
    } catch (...) {
      return false;
    }
  }();
  return matches;
}
