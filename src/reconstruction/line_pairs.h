// The line pairs of the spin-axis search: every combination of four lines
// from two frames, addressed by position, and their evaluation into
// four-plane hypotheses.
#pragma once

#include <cstdint>
#include <vector>

#include "reconstruction/plane_cache.h"
#include "reconstruction/pair_bounds.h"
#include "reconstruction/plane_solve.h"
#include "reconstruction/spin_axis.h"
#include "tracker/records.h"

// Every line pair in the order the search forms them (frame a, frame b > a,
// then camera 1's line of a, camera 1's line of b, camera 2's line of a,
// camera 2's line of b, the last running fastest), addressed by position
// without forming the list.
class LinePairs {
 public:
  struct FramePair {
    int a;
    int b;
    uint32_t lines1a;
    uint32_t lines1b;
    uint32_t lines2a;
    uint32_t lines2b;
    uint64_t first;  // position of the pair's first line combination
  };

  struct Cursor {
    size_t framePair;
    uint32_t line1a;
    uint32_t line1b;
    uint32_t line2a;
    uint32_t line2b;
  };

  // Throws std::length_error when the count overflows.
  LinePairs(const std::vector<CandidateAreaImage*>& cam1Areas,
            const std::vector<CandidateAreaImage*>& cam2Areas);

  uint64_t Count() const { return count_; }
  const FramePair& Frames(const Cursor& c) const { return framePairs_[c.framePair]; }

  // Cursor at position g (< Count()).
  Cursor Seek(uint64_t g) const;
  void Next(Cursor& c) const {
    const FramePair& p = framePairs_[c.framePair];
    if (++c.line2b < p.lines2b) return;
    c.line2b = 0;
    if (++c.line2a < p.lines2a) return;
    c.line2a = 0;
    if (++c.line1b < p.lines1b) return;
    c.line1b = 0;
    if (++c.line1a < p.lines1a) return;
    c.line1a = 0;
    ++c.framePair;
  }

 private:
  std::vector<FramePair> framePairs_;
  uint64_t count_ = 0;
};

// How a chunk's pairs were decided, kept per chunk (no sharing between workers).
struct ChunkPaths {
  uint64_t surelyRejected = 0;
  uint64_t solvedByLibrary = 0;
};

// What the evaluation of a pair needs besides its planes.
struct PairSearch {
  const PlaneCache& planes1;
  const PlaneCache& planes2;
  const MatRounding& rounding;
  bool jacobi;  // SolvePlanesJacobi gives the library's bits
  int axisIndex;
  const double* referencePoint;
  PairWindows windows;
};

// Evaluates `chunks` chunks of `chunk` positions in parallel, chunk c covering
// positions [c * chunk, (c + 1) * chunk): every accepted pair goes to the
// chunk's own list accepted[c], in position order.
void EvaluateLinePairs(const LinePairs& pairs, const PairSearch& search, uint64_t chunk, int chunks,
                       std::vector<PairHypothesis>* accepted, ChunkPaths* paths);
