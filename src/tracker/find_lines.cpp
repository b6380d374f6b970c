#include "tracker/find_lines.h"

#include <algorithm>
#include <utility>

#include <tbb/parallel_for.h>

#include "analysis/analysis.h"

namespace {

void ClearLines(const std::vector<CandidateAreaImage*>& areas) {
  for (CandidateAreaImage* area : areas) area->lines.clear();
}

}  // namespace

LinePasses::LinePasses(LineThreshold threshold, const std::vector<CandidateAreaImage*>& cam1,
                       const std::vector<CandidateAreaImage*>& cam2, LineExtractor extract)
    : threshold_(std::move(threshold)), extract_(std::move(extract)), areas_{&cam1, &cam2} {
  frames_ = static_cast<int>(cam1.size());
  if (extract_) return;
  // The line size only grows by the factor of Decide, so no pass asks for a
  // threshold below the one of the largest size it can reach; the votes need
  // not keep the many weaker cells.
  float largest = kInitialLineSize;
  for (int pass = 1; pass < kMaxPasses; ++pass) {
    largest = static_cast<float>(static_cast<double>(largest) * kSizeGrowth);
  }
  int floor[2] = {0, 0};
  for (int c = 0; c < 2; ++c) {
    votes_[c].resize(areas_[c]->size());
    planes_[c].resize(areas_[c]->size());
    planeMade_[c].assign(areas_[c]->size(), 0);
    for (size_t k = 0; k < areas_[c]->size(); ++k) {
      const int t = threshold_((*areas_[c])[k], largest);
      floor[c] = k == 0 ? t : std::min(floor[c], t);
    }
  }
  // Both cameras' frames in one loop over the cores.
  const size_t first = cam1.size();
  tbb::parallel_for(size_t{0}, first + cam2.size(), [&](size_t k) {
    const int c = k < first ? 0 : 1;
    const size_t i = c == 0 ? k : k - first;
    planeMade_[c][i] =
        ComputeShaftVotes((*areas_[c])[i]->image, votes_[c][i], floor[c], &planes_[c][i]) ? 1 : 0;
  });
}

void LinePasses::TakePlanes(int camera, std::vector<BitMask>& planes, std::vector<char>& made) {
  planes = std::move(planes_[camera]);
  made = std::move(planeMade_[camera]);
  planeMade_[camera].clear();
  made.resize(areas_[camera]->size(), 0);
  planes.resize(areas_[camera]->size());
}

void LinePasses::Extract() {
  ++pass_;
  foundPair_ = 0;
  for (int c = 0; c < 2; ++c) {
    if (redo_[c] != 1) continue;
    // Frames before the impact share the first frame's threshold; frames
    // after it share the threshold of the first after-impact frame that
    // gives a positive one.
    const std::vector<CandidateAreaImage*>& areas = *areas_[c];
    const int before = threshold_(areas.empty() ? nullptr : areas[0], lineSize_[c]);
    int after = 0;
    thresholds_.resize(areas.size());
    for (size_t k = 0; k < areas.size(); ++k) {
      if (areas[k]->afterImpact == 1) {
        if (after <= 0) after = threshold_(areas[k], lineSize_[c]);
        thresholds_[k] = after;
      } else {
        thresholds_[k] = before;
      }
    }
    if (extract_) {
      for (size_t k = 0; k < areas.size(); ++k) extract_(areas[k], thresholds_[k]);
      continue;
    }
    // Each frame appends only to its own record.
    tbb::parallel_for(size_t{0}, areas.size(), [&](size_t k) {
      // A threshold below the votes' floor (a line size the factor did not
      // foresee) gets the frame's whole votes.
      if (thresholds_[k] > 0 && thresholds_[k] < votes_[c][k].floor()) {
        ComputeShaftVotes(areas[k]->image, votes_[c][k]);
      }
      ExtractCandidatesFromVotes(areas[k], votes_[c][k], thresholds_[k]);
    });
  }
  redo_[0] = 0;
  redo_[1] = 0;

  for (int c = 0; c < 2; ++c) {
    size_t total = 0;
    for (const CandidateAreaImage* area : *areas_[c]) total += area->lines.size();
    lineCount_[c] = static_cast<int>(total);
  }
  const std::vector<CandidateAreaImage*>& cam1 = *areas_[0];
  const std::vector<CandidateAreaImage*>& cam2 = *areas_[1];
  for (size_t k = 0; k < cam1.size() && k < cam2.size(); ++k) {
    if (!cam1[k]->lines.empty() && !cam2[k]->lines.empty() && cam1[k]->afterImpact == 0 &&
        cam2[k]->afterImpact == 0) {
      ++foundPair_;
    }
  }
}

void LinePasses::Decide() {
  const int n = frames_;
  if (pass_ >= kMaxPasses) {
    const auto within = [n](int count) { return count >= 2 * n && count <= 4 * n; };
    if (!(within(lineCount_[0]) && within(lineCount_[1]))) foundPair_ = 0;
    return;
  }
  for (int c = 0; c < 2; ++c) {
    // Size arithmetic in double, stored as float.
    if (foundPair_ >= 3 && lineCount_[c] >= 2 * n) {
      if (lineCount_[c] > 4 * n) {  // too many lines
        redo_[c] = 1;
        lineSize_[c] = static_cast<float>(static_cast<double>(lineSize_[c]) - 0.2);
        ClearLines(*areas_[c]);
      }
    } else {  // too few pairs or too few lines
      redo_[c] = 1;
      lineSize_[c] = static_cast<float>(static_cast<double>(lineSize_[c]) * kSizeGrowth);
      ClearLines(*areas_[c]);
    }
  }
}
