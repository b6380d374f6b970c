#include "reconstruction/ranking.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <utility>
#include <vector>

namespace {

constexpr int kDigitBits = 11;
constexpr uint32_t kDigits = 1u << kDigitBits;
constexpr int kPasses = (64 + kDigitBits - 1) / kDigitBits;

// Stable least-significant-digit radix sort of order[0] by keys[0], ascending;
// the result is left in index 0 of both.
void RadixSort(RankScratch& s) {
  const size_t n = s.keys[0].size();
  std::vector<std::array<uint32_t, kDigits>> counts(kPasses);
  for (auto& c : counts) c.fill(0);
  for (const uint64_t key : s.keys[0]) {
    for (int p = 0; p < kPasses; ++p) ++counts[p][(key >> (p * kDigitBits)) & (kDigits - 1)];
  }
  s.keys[1].resize(n);
  s.order[1].resize(n);
  for (int p = 0; p < kPasses; ++p) {
    auto& c = counts[p];
    const uint64_t first = (s.keys[0][0] >> (p * kDigitBits)) & (kDigits - 1);
    if (c[first] == n) continue;  // one digit for all: nothing moves
    uint32_t sum = 0;
    for (uint32_t& v : c) sum += std::exchange(v, sum);
    for (size_t i = 0; i < n; ++i) {
      const uint64_t key = s.keys[0][i];
      const uint32_t to = c[(key >> (p * kDigitBits)) & (kDigits - 1)]++;
      s.keys[1][to] = key;
      s.order[1][to] = s.order[0][i];
    }
    s.keys[0].swap(s.keys[1]);
    s.order[0].swap(s.order[1]);
  }
}

}  // namespace

void RankHypotheses(std::vector<SortEntry>& list, RankScratch& s) {
  const size_t n = list.size();
  bool unique = n < (size_t{1} << 32);
  // Descending magnitude is ascending in the complement of its bits (the
  // magnitudes are never negative); more inliers rank first.
  s.keys[0].resize(n);
  s.order[0].resize(n);
  for (size_t i = 0; i < n && unique; ++i) {
    const double m = list[i].magnitude;
    unique = !std::isnan(m) && !std::signbit(m);
    s.keys[0][i] = ~std::bit_cast<uint64_t>(m);
    s.order[0][i] = static_cast<uint32_t>(i);
  }
  if (unique && n > 1) {
    RadixSort(s);
    // Then by inliers, descending, keeping the magnitude order within each.
    s.sorted.resize(n);
    uint32_t most = 0;
    for (const SortEntry& e : list) most = std::max(most, e.inliers);
    if (most < n) {
      std::vector<uint32_t> start(static_cast<size_t>(most) + 2, 0);
      for (const SortEntry& e : list) ++start[most - e.inliers + 1];
      for (size_t k = 1; k < start.size(); ++k) start[k] += start[k - 1];
      for (const uint32_t i : s.order[0]) s.sorted[start[most - list[i].inliers]++] = list[i];
    } else {
      std::stable_sort(s.order[0].begin(), s.order[0].end(),
                       [&](uint32_t l, uint32_t r) { return list[l].inliers > list[r].inliers; });
      for (size_t k = 0; k < n; ++k) s.sorted[k] = list[s.order[0][k]];
    }
    for (size_t k = 1; k < n && unique; ++k) {
      unique = s.sorted[k - 1].inliers != s.sorted[k].inliers ||
               s.sorted[k - 1].magnitude != s.sorted[k].magnitude;
    }
    if (unique) {
      list.swap(s.sorted);
      return;
    }
  }
  std::sort(list.begin(), list.end(), RanksBefore);
}
