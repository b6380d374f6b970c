#include "reconstruction/plane_cache.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

// The hand-written products below must round exactly like the library's:
// no contraction into fused multiply-adds except where written out (the file
// is compiled with -ffp-contract=off, set in src/CMakeLists.txt).

void PlaneCache::Build(const std::vector<CandidateAreaImage*>& areas,
                       const CameraGeometry& camera) {
  planes_.clear();
  start_.assign(1, 0);
  size_t total = 0;
  for (const CandidateAreaImage* area : areas) {
    if (area != nullptr) total += area->lines.size();
  }
  planes_.reserve(total);
  for (std::vector<double>* column :
       {&nx_, &ny_, &nz_, &offset_, &length_, &nn_[0], &nn_[1], &nn_[2], &nn_[3], &nn_[4],
        &nn_[5], &nd_[0], &nd_[1], &nd_[2], &usable_}) {
    column->clear();
    column->reserve(total + kColumnPadding);
  }
  start_.reserve(areas.size() + 1);

  cv::Mat normal;
  cv::Mat refit;
  for (size_t j = 0; j < areas.size(); ++j) {
    const CandidateAreaImage* area = areas[j];
    if (area != nullptr) {
      for (const cv::Vec2f& line : area->lines) {
        ImageLineToPlane(normal, areas, static_cast<int>(j), line, camera);
        LinePlane plane;
        for (int i = 0; i < 3; ++i) plane.normal[i] = normal.at<double>(i);
        plane.offset = normal.dot(camera.center);
        plane.length = std::sqrt(normal.dot(normal));
        refit = normal * (1.0 / cv::norm(normal));
        for (int i = 0; i < 3; ++i) plane.refitNormal[i] = refit.at<double>(i);
        plane.refitOffset = refit.dot(camera.center);
        plane.terms = NormalTerms(plane.normal, plane.offset);
        plane.refitTerms = NormalTerms(plane.refitNormal, plane.refitOffset);
        planes_.push_back(plane);
        nx_.push_back(plane.normal[0]);
        ny_.push_back(plane.normal[1]);
        nz_.push_back(plane.normal[2]);
        offset_.push_back(plane.offset);
        length_.push_back(plane.length);
        for (int i = 0; i < 6; ++i) nn_[i].push_back(plane.terms.nn[i]);
        for (int i = 0; i < 3; ++i) nd_[i].push_back(plane.terms.nd[i]);
        usable_.push_back(plane.terms.usable ? 1.0 : 0.0);
      }
    }
    start_.push_back(static_cast<int>(planes_.size()));
  }
  // Padding for the readers that take four planes at a time (never usable).
  for (std::vector<double>* column :
       {&nx_, &ny_, &nz_, &offset_, &length_, &nn_[0], &nn_[1], &nn_[2], &nn_[3], &nn_[4],
        &nn_[5], &nd_[0], &nd_[1], &nd_[2], &usable_}) {
    column->insert(column->end(), kColumnPadding, 0.0);
  }
}

namespace {

inline double FusedDot3(const double* a, const double* b) {
  return std::fma(a[2], b[2], std::fma(a[1], b[1], a[0] * b[0]));
}

inline double PlainDot3(const double* a, const double* b) {
  const double p0 = a[0] * b[0];
  const double p1 = a[1] * b[1];
  const double p2 = a[2] * b[2];
  return (p0 + p1) + p2;
}

inline double FusedSquaredNorm4(const double* v) {
  return std::fma(v[3], v[3], std::fma(v[2], v[2], std::fma(v[0], v[0], v[1] * v[1])));
}

inline double PlainSquaredNorm4(const double* v) {
  const double p0 = v[0] * v[0];
  const double p1 = v[1] * v[1];
  const double p2 = v[2] * v[2];
  const double p3 = v[3] * v[3];
  return ((p0 + p1) + p2) + p3;
}

inline double LibrarySquaredNorm4(const double* v) {
  const cv::Mat m(4, 1, CV_64F, const_cast<double*>(v));
  return m.dot(m);
}

inline double LibraryDot3(const double* a, const double* b) {
  const cv::Mat ma(3, 1, CV_64F, const_cast<double*>(a));
  const cv::Mat mb(3, 1, CV_64F, const_cast<double*>(b));
  return ma.dot(mb);
}

// Bit k of `within` for the distance out[k] (the word already holds the bits
// below k).
inline void SetWithin(const double* out, int k, uint64_t* within) {
  within[k >> 6] |= static_cast<uint64_t>(kInlierDistance > out[k]) << (k & 63);
}

inline void ClearWithin(int count, uint64_t* within) {
  for (int w = 0; w < (count + 63) / 64; ++w) within[w] = 0;
}

template <double (*Dot)(const double*, const double*)>
inline void Distances(const PlaneColumns& planes, int count, const double* x, double* out,
                      uint64_t* within) {
  ClearWithin(count, within);
  for (int k = 0; k < count; ++k) {
    const double normal[3] = {planes.nx[k], planes.ny[k], planes.nz[k]};
    out[k] = std::fabs((Dot(normal, x) - planes.offset[k]) / planes.length[k]);
    SetWithin(out, k, within);
  }
}

void DistancesFused(const PlaneColumns& planes, int count, const double* x, double* out,
                    uint64_t* within) {
  Distances<FusedDot3>(planes, count, x, out, within);
}

#if defined(__x86_64__) || defined(__i386__)
// Four planes at a time: every lane is the same fused multiply-adds,
// subtraction, division and sign clearing as the one-plane form.
__attribute__((target("avx2,fma"))) void DistancesFusedAvx2(const PlaneColumns& planes,
                                                            int count, const double* x,
                                                            double* out, uint64_t* within) {
  ClearWithin(count, within);
  const __m256d limit = _mm256_set1_pd(static_cast<double>(kInlierDistance));
  const __m256d x0 = _mm256_set1_pd(x[0]);
  const __m256d x1 = _mm256_set1_pd(x[1]);
  const __m256d x2 = _mm256_set1_pd(x[2]);
  const __m256d signless = _mm256_castsi256_pd(_mm256_set1_epi64x(0x7FFFFFFFFFFFFFFFll));
  int k = 0;
  for (; k + 4 <= count; k += 4) {
    const __m256d dot =
        _mm256_fmadd_pd(_mm256_loadu_pd(planes.nz + k), x2,
                        _mm256_fmadd_pd(_mm256_loadu_pd(planes.ny + k), x1,
                                        _mm256_mul_pd(_mm256_loadu_pd(planes.nx + k), x0)));
    const __m256d num = _mm256_sub_pd(dot, _mm256_loadu_pd(planes.offset + k));
    const __m256d len = _mm256_loadu_pd(planes.length + k);
    const __m256d distance = _mm256_and_pd(_mm256_div_pd(num, len), signless);
    _mm256_storeu_pd(out + k, distance);
    // limit > distance, false for NaN.
    const int bits = _mm256_movemask_pd(_mm256_cmp_pd(limit, distance, _CMP_GT_OQ));
    within[k >> 6] |= static_cast<uint64_t>(bits) << (k & 63);  // never straddles a word
  }
  for (; k < count; ++k) {
    const double normal[3] = {planes.nx[k], planes.ny[k], planes.nz[k]};
    out[k] = std::fabs((FusedDot3(normal, x) - planes.offset[k]) / planes.length[k]);
    SetWithin(out, k, within);
  }
}
#endif

void DistancesPlain(const PlaneColumns& planes, int count, const double* x, double* out,
                    uint64_t* within) {
  Distances<PlainDot3>(planes, count, x, out, within);
}

void DistancesLibrary(const PlaneColumns& planes, int count, const double* x, double* out,
                      uint64_t* within) {
  Distances<LibraryDot3>(planes, count, x, out, within);
}

// Deterministic probe values spread over the magnitudes the stages see.
void ProbeValues(uint64_t& state, double* v, int n, double scale) {
  for (int i = 0; i < n; ++i) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    const double unit = static_cast<double>(state >> 11) * (1.0 / 9007199254740992.0);
    v[i] = (2.0 * unit - 1.0) * scale;
  }
}

}  // namespace

MatRounding MatRounding::Probe() {
  constexpr int kSamples = 512;
  uint64_t state = 0x2545F4914F6CDD1Dull;
  bool fused = true;
  bool plain = true;
  bool fused4 = true;
  bool plain4 = true;
  bool gemm = true;
  bool norm = true;
  for (int s = 0; s < kSamples; ++s) {
    const double scale = (s % 3 == 0) ? 1.0 : (s % 3 == 1 ? 1000.0 : 1e-3);
    double a[12];
    double x[3];
    double d[4];
    ProbeValues(state, a, 12, 1.0);
    ProbeValues(state, x, 3, scale * 1000.0);
    ProbeValues(state, d, 4, scale * 1000.0);

    const double library4 = LibrarySquaredNorm4(d);
    fused4 = fused4 && library4 == FusedSquaredNorm4(d);
    plain4 = plain4 && library4 == PlainSquaredNorm4(d);

    const double library = LibraryDot3(a, x);
    fused = fused && library == FusedDot3(a, x);
    plain = plain && library == PlainDot3(a, x);

    double r[4];
    const cv::Mat ma(4, 3, CV_64F, a);
    const cv::Mat mx(3, 1, CV_64F, x);
    const cv::Mat md(4, 1, CV_64F, d);
    cv::Mat mr(4, 1, CV_64F, r);
    cv::gemm(ma, mx, 1.0, md, -1.0, mr);
    for (int i = 0; i < 4; ++i) {
      const double p0 = a[3 * i] * x[0];
      const double p1 = a[3 * i + 1] * x[1];
      const double p2 = a[3 * i + 2] * x[2];
      gemm = gemm && mr.at<double>(i) == ((p0 + p1) + p2) - d[i];
    }

    const double q0 = x[0] * x[0];
    const double q1 = x[1] * x[1];
    const double q2 = x[2] * x[2];
    norm = norm && cv::norm(mx) == std::sqrt((q0 + q1) + q2);
  }
  MatRounding rounding;
  rounding.dot3 = fused ? Dot3::kFused : (plain ? Dot3::kPlain : Dot3::kLibrary);
  rounding.dot4 = fused4 ? Dot3::kFused : (plain4 ? Dot3::kPlain : Dot3::kLibrary);
  rounding.gemmPlain = gemm;
  rounding.normPlain = norm;
  return rounding;
}

const MatRounding& MatRounding::Get() {
  static const MatRounding rounding = Probe();
  return rounding;
}

PlaneDistancesFn SelectPlaneDistances(const MatRounding& rounding) {
  switch (rounding.dot3) {
    case MatRounding::Dot3::kFused:
#if defined(__x86_64__) || defined(__i386__)
      if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
        return DistancesFusedAvx2;
      }
#endif
      return DistancesFused;
    case MatRounding::Dot3::kPlain:
      return DistancesPlain;
    case MatRounding::Dot3::kLibrary:
      break;
  }
  return DistancesLibrary;
}

void PlaneResiduals(const MatRounding& rounding, const double* a, const double* x, const double* d,
                    double* r, int rows) {
  if (rounding.gemmPlain) {
    for (int i = 0; i < rows; ++i) {
      const double p0 = a[3 * i] * x[0];
      const double p1 = a[3 * i + 1] * x[1];
      const double p2 = a[3 * i + 2] * x[2];
      r[i] = ((p0 + p1) + p2) - d[i];
    }
    return;
  }
  const cv::Mat ma(rows, 3, CV_64F, const_cast<double*>(a));
  const cv::Mat mx(3, 1, CV_64F, const_cast<double*>(x));
  const cv::Mat md(rows, 1, CV_64F, const_cast<double*>(d));
  cv::Mat mr(rows, 1, CV_64F, r);
  cv::gemm(ma, mx, 1.0, md, -1.0, mr);
  if (mr.data != reinterpret_cast<uchar*>(r)) {
    for (int i = 0; i < rows; ++i) r[i] = mr.at<double>(i);
  }
}

double Norm3(const MatRounding& rounding, const double* v) {
  if (rounding.normPlain) {
    const double q0 = v[0] * v[0];
    const double q1 = v[1] * v[1];
    const double q2 = v[2] * v[2];
    return std::sqrt((q0 + q1) + q2);
  }
  return cv::norm(cv::Mat(3, 1, CV_64F, const_cast<double*>(v)));
}

double Dot3(const MatRounding& rounding, const double* a, const double* b) {
  switch (rounding.dot3) {
    case MatRounding::Dot3::kFused:
      return FusedDot3(a, b);
    case MatRounding::Dot3::kPlain:
      return PlainDot3(a, b);
    case MatRounding::Dot3::kLibrary:
      break;
  }
  return LibraryDot3(a, b);
}

double SquaredNorm4(const MatRounding& rounding, const double* v) {
  switch (rounding.dot4) {
    case MatRounding::Dot3::kFused:
      return FusedSquaredNorm4(v);
    case MatRounding::Dot3::kPlain:
      return PlainSquaredNorm4(v);
    case MatRounding::Dot3::kLibrary:
      break;
  }
  return LibrarySquaredNorm4(v);
}

InlierScanner::InlierScanner(const PlaneCache& cam1, const PlaneCache& cam2)
    : cam1_(cam1),
      cam2_(cam2),
      frames_(cam1.FrameCount()),
      distances_(SelectPlaneDistances(MatRounding::Get())) {
  for (int j = 0; j < frames_ && j < cam2_.FrameCount(); ++j) {
    bits_.push_back({MakeRun(cam1_.FirstPlane(j), cam1_.LineCount(j)),
                     MakeRun(cam2_.FirstPlane(j), cam2_.LineCount(j))});
  }
}

InlierScanner::Run InlierScanner::MakeRun(int first, int count) {
  Run run{first, count, 0, 0, 0, 0};
  if (count == 0 || count > 64) return run;
  // Bits first .. first + count - 1: the first word from `first` on, the rest
  // (if any) at the bottom of the next.
  const int offset = first & 63;
  run.word0 = first >> 6;
  run.word1 = run.word0;
  const int inFirst = std::min(count, 64 - offset);
  run.mask0 = (inFirst == 64 ? ~uint64_t{0} : (uint64_t{1} << inFirst) - 1) << offset;
  if (count > inFirst) {
    run.word1 = run.word0 + 1;
    run.mask1 = (uint64_t{1} << (count - inFirst)) - 1;
  }
  return run;
}

void InlierScanner::Measure(const double* x, Scratch& scratch) const {
  const PlaneDistancesFn measure = distances_;
  const int count1 = cam1_.PlaneCount();
  const int count2 = cam2_.PlaneCount();
  scratch.cam1.resize(static_cast<size_t>(count1));
  scratch.cam2.resize(static_cast<size_t>(count2));
  scratch.within1.resize(static_cast<size_t>(count1 + 63) / 64);
  scratch.within2.resize(static_cast<size_t>(count2 + 63) / 64);
  if (count1 > 0) measure(cam1_.Columns(0), count1, x, scratch.cam1.data(), scratch.within1.data());
  if (count2 > 0) measure(cam2_.Columns(0), count2, x, scratch.cam2.data(), scratch.within2.data());
}

