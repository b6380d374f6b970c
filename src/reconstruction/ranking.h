// The order in which the spin-axis search refits its hypotheses.
#pragma once

#include <cstdint>
#include <vector>

// One entry of the hypothesis list as the ranking sees it.
struct SortEntry {
  uint32_t inliers;
  int32_t hypothesis;  // index into the accepted pairs
  int32_t position;    // position in the list before the ranking: the id
  double magnitude;    // |pivot[axisIndex]|
};

// Whether l ranks before r: more inliers first, then the larger magnitude.
inline bool RanksBefore(const SortEntry& l, const SortEntry& r) {
  if (l.inliers != r.inliers) return l.inliers > r.inliers;
  return l.magnitude > r.magnitude;
}

// Sorts `list` exactly as std::sort with RanksBefore does. When no two
// entries share both keys (and no magnitude is NaN) that order is the only
// one, and a radix sort finds it; otherwise std::sort itself decides how the
// equal entries fall. `scratch` holds the sort's buffers.
struct RankScratch {
  std::vector<uint64_t> keys[2];
  std::vector<uint32_t> order[2];
  std::vector<SortEntry> sorted;
};
void RankHypotheses(std::vector<SortEntry>& list, RankScratch& scratch);
