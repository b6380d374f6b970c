#include "reconstruction/line_pairs.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdint>
#include <limits>
#include <opencv2/core.hpp>
#include <stdexcept>
#include <vector>

namespace {

size_t LineCount(const std::vector<CandidateAreaImage*>& areas, int frame) {
  const CandidateAreaImage* area = areas[frame];
  return area != nullptr ? area->lines.size() : 0;
}

}  // namespace

LinePairs::LinePairs(const std::vector<CandidateAreaImage*>& cam1Areas,
                     const std::vector<CandidateAreaImage*>& cam2Areas) {
  const int n = static_cast<int>(cam1Areas.size());
  for (int a = 0; a < n; ++a) {
    for (int b = a + 1; b < n; ++b) {
      FramePair p{a,
                  b,
                  static_cast<uint32_t>(LineCount(cam1Areas, a)),
                  static_cast<uint32_t>(LineCount(cam1Areas, b)),
                  static_cast<uint32_t>(LineCount(cam2Areas, a)),
                  static_cast<uint32_t>(LineCount(cam2Areas, b)),
                  count_};
      const uint64_t combinations =
          static_cast<uint64_t>(p.lines1a) * p.lines1b * p.lines2a * p.lines2b;
      if (combinations == 0) continue;
      if (combinations > std::numeric_limits<uint64_t>::max() - count_) {
        throw std::length_error("too many line pairs");
      }
      framePairs_.push_back(p);
      count_ += combinations;
    }
  }
}

LinePairs::Cursor LinePairs::Seek(uint64_t g) const {
  const auto it =
      std::upper_bound(framePairs_.begin(), framePairs_.end(), g,
                       [](uint64_t value, const FramePair& p) { return value < p.first; });
  const size_t index = static_cast<size_t>(it - framePairs_.begin()) - 1;
  const FramePair& p = framePairs_[index];
  uint64_t rest = g - p.first;
  Cursor c;
  c.framePair = index;
  c.line2b = static_cast<uint32_t>(rest % p.lines2b);
  rest /= p.lines2b;
  c.line2a = static_cast<uint32_t>(rest % p.lines2a);
  rest /= p.lines2a;
  c.line1b = static_cast<uint32_t>(rest % p.lines1b);
  c.line1a = static_cast<uint32_t>(rest / p.lines1b);
  return c;
}

namespace {

// Task body: evaluates the line pairs of the chunks of its range. Chunk c of
// the first batch covers positions [c * chunk, (c + 1) * chunk); every
// accepted pair goes to the chunk's own list, in position order.
struct EvaluateChunks {
  const LinePairs& pairs;
  const PairSearch& search;
  uint64_t chunk;
  std::vector<PairHypothesis>* accepted;  // one list per chunk
  ChunkPaths* paths;                      // one per chunk

  // A pair that needs its exact solution, with its planes.
  struct Pending {
    uint64_t slot;
    int frameA, frameB;
    uint32_t line1a, line1b, line2a, line2b;
    double a[12];
    double d[4];
  };

  void operator()(const tbb::blocked_range<int>& range) const {
    Pending pending[4];
    for (int c = range.begin(); c != range.end(); ++c) {
      std::vector<PairHypothesis>& out = accepted[c];
      ChunkPaths& path = paths[c];
      if (chunk == 0) continue;
      uint64_t g = chunk * static_cast<uint64_t>(c);
      const uint64_t end = g + chunk;
      LinePairs::Cursor cursor = pairs.Seek(g);
      int waiting = 0;
      while (g < end) {
        // The pairs that differ only in camera 2's line of the second frame,
        // up to 64 at a time: those whose point is far outside the windows
        // need no exact solution.
        const LinePairs::FramePair& frames = pairs.Frames(cursor);
        const int run = static_cast<int>(
            std::min<uint64_t>({frames.lines2b - cursor.line2b, end - g, uint64_t{64}}));
        const LinePlane* fixed[3] = {&search.planes1.At(frames.a, static_cast<int>(cursor.line1a)),
                                     &search.planes1.At(frames.b, static_cast<int>(cursor.line1b)),
                                     &search.planes2.At(frames.a, static_cast<int>(cursor.line2a))};
        double a[9];
        double d[3];
        for (int i = 0; i < 3; ++i) {
          a[3 * i] = fixed[i]->normal[0];
          a[3 * i + 1] = fixed[i]->normal[1];
          a[3 * i + 2] = fixed[i]->normal[2];
          d[i] = fixed[i]->offset;
        }
        const PlaneNormalTerms* terms[3] = {&fixed[0]->terms, &fixed[1]->terms, &fixed[2]->terms};
        const uint64_t rejected = PairsSurelyRejected(
            a, d, terms, search.planes2.TermColumns(frames.b, static_cast<int>(cursor.line2b)), run,
            search.referencePoint, search.axisIndex, search.windows);
        path.surelyRejected += static_cast<uint64_t>(std::popcount(rejected));
        for (int k = 0; k < run; ++k, ++g, pairs.Next(cursor)) {
          if ((rejected >> k) & 1) continue;
          Pending& p = pending[waiting++];
          p.slot = g;
          p.frameA = frames.a;
          p.frameB = frames.b;
          p.line1a = cursor.line1a;
          p.line1b = cursor.line1b;
          p.line2a = cursor.line2a;
          p.line2b = cursor.line2b;
          std::copy(a, a + 9, p.a);
          std::copy(d, d + 3, p.d);
          const LinePlane& last = search.planes2.At(frames.b, static_cast<int>(cursor.line2b));
          std::copy(last.normal, last.normal + 3, p.a + 9);
          p.d[3] = last.offset;
          if (waiting == 4) {
            Evaluate(pending, waiting, out, path);
            waiting = 0;
          }
        }
      }
      Evaluate(pending, waiting, out, path);
    }
  }

  // The exact solutions of `count` pairs and their acceptance, in order.
  void Evaluate(Pending* pending, int count, std::vector<PairHypothesis>& out,
                ChunkPaths& path) const {
    double x[4][3];
    unsigned solved = 0;
    if (search.jacobi && count == 4) {
      const double* const as[4] = {pending[0].a, pending[1].a, pending[2].a, pending[3].a};
      const double* const ds[4] = {pending[0].d, pending[1].d, pending[2].d, pending[3].d};
      solved = SolvePlanesJacobi4(as, ds, x);
    } else if (search.jacobi) {
      for (int i = 0; i < count; ++i) {
        solved |= SolvePlanesJacobi(pending[i].a, pending[i].d, 4, x[i]) ? 1u << i : 0u;
      }
    }
    for (int i = 0; i < count; ++i) {
      Pending& p = pending[i];
      if (((solved >> i) & 1) == 0) {
        // The pseudo-inverse solution as the library evaluates
        // A.inv(DECOMP_SVD) * d.
        ++path.solvedByLibrary;
        const cv::Mat matA(4, 3, CV_64F, p.a);
        const cv::Mat matD(4, 1, CV_64F, p.d);
        cv::Mat matX(3, 1, CV_64F, x[i]);
        cv::solve(matA, matD, matX, cv::DECOMP_SVD);
        if (matX.data != reinterpret_cast<uchar*>(x[i])) {
          for (int k = 0; k < 3; ++k) x[i][k] = matX.at<double>(k);
        }
      }
      Accept(p, x[i], out);
    }
  }

  void Accept(const Pending& p, const double* x, std::vector<PairHypothesis>& out) const {
    double r[4];
    PlaneResiduals(search.rounding, p.a, x, p.d, r, 4);
    const double residual = SquaredNorm4(search.rounding, r) / 4;
    const double along = std::abs(x[search.axisIndex] - search.referencePoint[search.axisIndex]);
    const double* reference = search.referencePoint;
    const double offset[3] = {x[0] - reference[0], x[1] - reference[1], x[2] - reference[2]};
    const double distance = Norm3(search.rounding, offset);
    // Rejected only by a comparison that holds: NaN passes.
    const PairWindows& w = search.windows;
    if (residual > w.maxResidual) return;
    if (along < w.minAlong || along > w.maxAlong) return;
    if (distance < w.minDistance || distance > w.maxDistance) return;
    out.push_back(PairHypothesis{static_cast<uint32_t>(p.slot),
                                 p.frameA,
                                 p.frameB,
                                 static_cast<int32_t>(p.line1a),
                                 static_cast<int32_t>(p.line1b),
                                 static_cast<int32_t>(p.line2a),
                                 static_cast<int32_t>(p.line2b),
                                 {x[0], x[1], x[2]},
                                 static_cast<float>(residual)});
  }
};

}  // namespace

void EvaluateLinePairs(const LinePairs& pairs, const PairSearch& search, uint64_t chunk, int chunks,
                       std::vector<PairHypothesis>* accepted, ChunkPaths* paths) {
  tbb::parallel_for(tbb::blocked_range<int>(0, chunks, 1),
                    EvaluateChunks{pairs, search, chunk, accepted, paths});
}
