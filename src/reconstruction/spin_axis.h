// The spin-axis search behind ClubTracker::FindClubSpinAxis and
// ClubTracker::SelectSpinAxisInliers.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

#include "reconstruction/plane_cache.h"
#include "tracker/records.h"

// An accepted line pair: its slot in the batch, its frames, the indexes of its
// four lines in the frames' line lists, its pivot and four-plane residual.
struct PairHypothesis {
  uint32_t slot;
  int32_t firstFrame;
  int32_t secondFrame;
  int32_t firstCam1;   // camera 1, first frame
  int32_t secondCam1;  // camera 1, second frame
  int32_t firstCam2;   // camera 2, first frame
  int32_t secondCam2;  // camera 2, second frame
  double pivot[3];
  float fitResidual;
};

// One supporting frame by line indexes.
struct InlierLines {
  int32_t frame;
  int32_t cam1;
  int32_t cam2;
  bool operator==(const InlierLines&) const = default;
  auto operator<=>(const InlierLines&) const = default;
};

// The supporting frames of every hypothesis, each list in ascending frame
// order, found in parallel over blocks of hypotheses.
class HypothesisInliers {
 public:
  // usable[j]: frame j counts towards a refit (before the impact in both
  // cameras).
  void Collect(const InlierScanner& scanner, const std::vector<PairHypothesis>& hypotheses,
               const std::vector<char>& usable);
  uint32_t Count(size_t hypothesis) const { return where_[hypothesis].count; }
  std::span<const InlierLines> Lines(size_t hypothesis) const {
    const Where& w = where_[hypothesis];
    return {blocks_[hypothesis / kBlock].data() + w.offset, w.count};
  }
  // How many of the lines are of usable frames.
  uint32_t Usable(size_t hypothesis) const { return where_[hypothesis].usable; }
  // A hash of the lines (equal lists, equal hashes).
  uint64_t Hash(size_t hypothesis) const { return where_[hypothesis].hash; }

 private:
  static constexpr size_t kBlock = 256;
  struct Where {
    uint32_t offset;  // in the hypothesis's block
    uint32_t count;
    uint32_t usable;
    uint64_t hash;
  };
  std::vector<std::vector<InlierLines>> blocks_;
  std::vector<Where> where_;
};

// What one search went through.
struct SpinAxisSearchStats {
  uint64_t linePairs = 0;       // pairs formed
  uint64_t evaluatedPairs = 0;  // pairs whose four planes were solved
  uint64_t hypotheses = 0;      // entries of the hypothesis list
  uint64_t refits = 0;          // refits actually solved
  // Which way the fast paths went (they must carry nearly all of the work):
  uint64_t pairsSurelyRejected = 0;   // evaluated pairs dismissed without a solution
  uint64_t pairsSolvedByLibrary = 0;  // pairs the Jacobi solver left to cv::solve
  uint64_t refitsSurelyWorse = 0;     // refits dismissed without a solution
  uint64_t refitsSolvedByLibrary = 0; // refits the Jacobi solver left to cv::solve
  double refitResidual = 0.0;   // residual of the refit that gave the axis
};

// The search of FindClubSpinAxis after its start line: writes the ball's
// position to referencePoint when a frame shows it in both cameras, and `axis`
// when a refit is taken. Logs nothing. Throws std::invalid_argument for lists
// of different length, std::out_of_range for an axisIndex other than 0, 1 or
// 2, std::length_error for more hypotheses than a list can number, and what
// the allocations and the library throw.
void SearchClubSpinAxis(const ClubTrackerSetting& setting, double* referencePoint,
                        const std::vector<CandidateAreaImage*>& cam1Areas,
                        const std::vector<CandidateAreaImage*>& cam2Areas, ClubSpinAxis3D& axis,
                        SpinAxisSearchStats* stats);
