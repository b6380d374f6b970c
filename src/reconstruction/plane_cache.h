// Planes of the shaft-line candidates, made once per call of the spin-axis
// stages, and the few small products of the hot loops formed with exactly the
// rounding of the cv::Mat operations they stand for.
#pragma once

#include <bit>
#include <cstdint>
#include <limits>
#include <opencv2/core.hpp>
#include <vector>

#include "reconstruction/geometry.h"
#include "reconstruction/pair_bounds.h"
#include "reconstruction/plane_solve.h"
#include "tracker/records.h"

// The plane that one image line sweeps from its camera centre, with every
// value that the hypothesis, inlier and refit steps derive from it.
struct LinePlane {
  double normal[3];       // unit normal from ImageLineToPlane
  double offset;          // normal . centre (cv::Mat::dot)
  double length;          // sqrt(normal . normal)
  double refitNormal[3];  // normal * (1.0 / cv::norm(normal)), as the refit stores it
  double refitOffset;     // refitNormal . centre
  PlaneNormalTerms terms;  // of normal and offset
  PlaneNormalTerms refitTerms;  // of refitNormal and refitOffset
};

// The inlier test's values of a run of planes, one array per value.
struct PlaneColumns {
  const double* nx;
  const double* ny;
  const double* nz;
  const double* offset;
  const double* length;
};

// One camera's planes, frame by frame, in the order of each frame's lines.
// Every column holds kColumnPadding unusable entries past the last plane.
class PlaneCache {
 public:
  // A null area or one without lines contributes no plane.
  void Build(const std::vector<CandidateAreaImage*>& areas, const CameraGeometry& camera);

  int FrameCount() const { return static_cast<int>(start_.size()) - 1; }
  int PlaneCount() const { return static_cast<int>(planes_.size()); }
  int FirstPlane(int frame) const { return start_[frame]; }
  int LineCount(int frame) const { return start_[frame + 1] - start_[frame]; }
  const LinePlane& At(int frame, int line) const { return planes_[start_[frame] + line]; }
  // The run of frame j's planes from line `line` on.
  PlaneTermColumns TermColumns(int frame, int line) const {
    const size_t first = static_cast<size_t>(start_[frame] + line);
    PlaneTermColumns c;
    for (int i = 0; i < 6; ++i) c.nn[i] = nn_[i].data() + first;
    for (int i = 0; i < 3; ++i) c.nd[i] = nd_[i].data() + first;
    c.usable = usable_.data() + first;
    c.normal[0] = nx_.data() + first;
    c.normal[1] = ny_.data() + first;
    c.normal[2] = nz_.data() + first;
    c.offset = offset_.data() + first;
    return c;
  }
  PlaneColumns Columns(int frame) const {
    const size_t first = static_cast<size_t>(start_[frame]);
    return {nx_.data() + first, ny_.data() + first, nz_.data() + first, offset_.data() + first,
            length_.data() + first};
  }

 private:
  std::vector<LinePlane> planes_;
  static constexpr size_t kColumnPadding = 3;
  std::vector<double> nx_, ny_, nz_, offset_, length_;
  std::vector<double> nn_[6], nd_[3], usable_;  // of each plane's NormalTerms
  std::vector<int> start_{0};  // planes of frame j: [start_[j], start_[j + 1])
};

// The inlier distance, compared as a double.
constexpr int kInlierDistance = 10;

// How this OpenCV build rounds the products that the hot loops form by hand.
// Found once per process by comparing the library's own results on probe
// values with the candidate formulas; anything that matches none of them is
// left to the library call itself.
struct MatRounding {
  enum class Dot3 { kFused, kPlain, kLibrary };  // cv::Mat::dot of two 3x1 matrices
  Dot3 dot3 = Dot3::kLibrary;
  bool gemmPlain = false;  // rows of cv::gemm(A, x, 1, d, -1): ((a0 x0 + a1 x1) + a2 x2) - d
  bool normPlain = false;  // cv::norm of a 3x1 matrix: sqrt((v0 v0 + v1 v1) + v2 v2)
  // cv::Mat::dot of a 4x1 matrix with itself: kFused rounds the second
  // product and adds the first, third and fourth by fused multiply-adds in
  // that order; kPlain adds the rounded products in order.
  Dot3 dot4 = Dot3::kLibrary;

  static const MatRounding& Get();
  static MatRounding Probe();
};

// Distances from a point to `count` planes, as the inlier test forms them:
// out[k] = |(normal_k . x - offset_k) / length_k|, and bit k of `within`
// ((count + 63) / 64 words, all written) set when out[k] lies strictly within
// the inlier distance.
using PlaneDistancesFn = void (*)(const PlaneColumns& planes, int count, const double* x,
                                  double* out, uint64_t* within);
PlaneDistancesFn SelectPlaneDistances(const MatRounding& rounding);

// r = A x - d for `rows` rows of A (row-major, 3 columns), as cv::gemm forms it.
void PlaneResiduals(const MatRounding& rounding, const double* a, const double* x, const double* d,
                    double* r, int rows);

// cv::norm of the 3-vector v.
double Norm3(const MatRounding& rounding, const double* v);

// cv::Mat::dot of two 3-vectors.
double Dot3(const MatRounding& rounding, const double* a, const double* b);

// cv::Mat::dot of the 4-vector v with itself.
double SquaredNorm4(const MatRounding& rounding, const double* v);

// The frames that support a pivot: both cameras have a line whose plane passes
// strictly within the inlier distance of it.
class InlierScanner {
 public:
  InlierScanner(const PlaneCache& cam1, const PlaneCache& cam2);

  // Distances of every plane of both cameras from one point; one per worker.
  struct Scratch {
    std::vector<double> cam1;
    std::vector<double> cam2;
    // Bit k: plane k lies strictly within the inlier distance.
    std::vector<uint64_t> within1;
    std::vector<uint64_t> within2;
  };

  int FrameCount() const { return frames_; }
  // Measures every plane's distance from x into `scratch`, for Supports.
  void Measure(const double* x, Scratch& scratch) const;
  // True when frame j supports the point last measured into `scratch`; k1,
  // k2 are then its nearest lines in each camera (the first of equal
  // distances).
  bool Supports(int frame, const Scratch& scratch, int& k1, int& k2) const;

 private:
  // A frame's planes of one camera as bits of at most two words (runs of
  // more than 64 planes are read bit by bit).
  struct Run {
    int first, count;
    int word0, word1;
    uint64_t mask0, mask1;
  };
  struct FrameBits {
    Run cam1, cam2;
  };
  static Run MakeRun(int first, int count);
  // The run's bits (count <= 64) from bit 0 on.
  static uint64_t Window(const Run& run, const uint64_t* bits) {
    const uint64_t low = (bits[run.word0] & run.mask0) >> (run.first & 63);
    const uint64_t high = bits[run.word1] & run.mask1;
    // high is zero unless the run continues into a second word.
    return low | (high << ((64 - (run.first & 63)) & 63));
  }
  // The nearest plane of the run among those within the inlier distance (the
  // first of equal distances, as a scan of all of them finds it), where
  // distance[k] is the distance of the run's plane k: false when none is
  // within.
  static bool NearestWithin(const Run& run, const uint64_t* bits, const double* distance,
                            int& nearest);

  const PlaneCache& cam1_;
  const PlaneCache& cam2_;
  int frames_;
  PlaneDistancesFn distances_;
  std::vector<FrameBits> bits_;  // of the frames both cameras have
};

inline bool InlierScanner::NearestWithin(const Run& run, const uint64_t* bits,
                                         const double* distance, int& nearest) {
  if (run.count == 0) return false;
  if (run.count > 64) {
    double best = std::numeric_limits<double>::max();
    for (int k = 0; k < run.count; ++k) {
      if ((bits[(run.first + k) >> 6] >> ((run.first + k) & 63)) & 1) {
        const double value = distance[k];
        if (value < best) {
          best = value;
          nearest = k;
        }
      }
    }
    return best < std::numeric_limits<double>::max();
  }
  // Planes outside the inlier distance (NaN included) can never be the
  // nearest of a run that has one within it: only those within are compared,
  // in the same order, keeping the first of equal distances.
  uint64_t window = Window(run, bits);
  if (window == 0) return false;
  int index = std::countr_zero(window);
  window &= window - 1;
  if (window != 0) {
    double best = distance[index];
    for (; window != 0; window &= window - 1) {
      const int k = std::countr_zero(window);
      const double value = distance[k];
      if (value < best) {
        best = value;
        index = k;
      }
    }
  }
  nearest = index;
  return true;
}

inline bool InlierScanner::Supports(int frame, const Scratch& scratch, int& k1, int& k2) const {
  if (frame >= cam2_.FrameCount()) return false;
  const FrameBits& b = bits_[static_cast<size_t>(frame)];
  const double* d1 = scratch.cam1.data() + b.cam1.first;
  const double* d2 = scratch.cam2.data() + b.cam2.first;
  return NearestWithin(b.cam1, scratch.within1.data(), d1, k1) &&
         NearestWithin(b.cam2, scratch.within2.data(), d2, k2);
}
