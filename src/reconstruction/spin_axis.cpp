// The club's spin axis: four-plane hypotheses from pairs of frames, scored by
// their inliers, the best refitted over all of their planes.
#include "reconstruction/spin_axis.h"

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <limits>
#include <span>
#include <opencv2/core.hpp>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "reconstruction/geometry.h"
#include "reconstruction/line_pairs.h"
#include "reconstruction/plane_cache.h"
#include "reconstruction/pair_bounds.h"
#include "reconstruction/plane_solve.h"
#include "reconstruction/ranking.h"
#include "tracker/records.h"

namespace {

// Hypotheses are evaluated in batches of this many line pairs, each split into
// eight chunks.
constexpr uint64_t kBatchSize = 262144;
constexpr int kChunksPerBatch = 8;

// Acceptance of a four-plane hypothesis (every bound inclusive).
constexpr double kMaxPairResidual = 10.0;
constexpr double kMinAlongAxis = 700.0;
constexpr double kMaxAlongAxis = 2000.0;
constexpr double kMinDistance = 700.0;
constexpr double kMaxDistance = 2800.0;

constexpr PairWindows kPairWindows{kMaxPairResidual, kMinAlongAxis, kMaxAlongAxis, kMinDistance,
                                   kMaxDistance};

constexpr uint32_t kMinInliers = 2;
constexpr uint32_t kMinUsableInliers = 2;
constexpr double kInitialBestRefit = 1000.0;
constexpr double kEarlyStopRefit = 3.0;

// The ball's position from the first frame that shows it before the impact in
// both cameras; referencePoint keeps its value when there is none.
void LocateBall(const CameraGeometry& camera1, const CameraGeometry& camera2,
                const std::vector<CandidateAreaImage*>& cam1Areas,
                const std::vector<CandidateAreaImage*>& cam2Areas, double* referencePoint) {
  for (size_t k = 0; k < cam1Areas.size(); ++k) {
    const CandidateAreaImage* a1 = cam1Areas[k];
    const CandidateAreaImage* a2 = cam2Areas[k];
    if (a1 == nullptr || a2 == nullptr) continue;
    if (a1->afterImpact == 1 || (a1->ballX == 0 && a1->ballY == 0)) continue;
    if (a2->afterImpact == 1 || (a2->ballX == 0 && a2->ballY == 0)) continue;
    // Full-sensor pixels, formed in single precision.
    const float u1 = a1->sensorOffsetX + a1->ballX;
    const float v1 = a1->sensorOffsetY + a1->ballY;
    const float u2 = a2->sensorOffsetX + a2->ballX;
    const float v2 = a2->sensorOffsetY + a2->ballY;
    const cv::Mat pixel1 = (cv::Mat_<double>(3, 1) << u1, v1, 1.0);
    const cv::Mat pixel2 = (cv::Mat_<double>(3, 1) << u2, v2, 1.0);
    cv::Mat ball(3, 1, CV_64F, referencePoint);
    float quality = 0.0f;
    ImageProcess::Coordinate2DTO3D(camera1.intrinsic, camera1.rotationToWorld, camera1.center,
                                   pixel1, camera2.intrinsic, camera2.rotationToWorld,
                                   camera2.center, pixel2, ball, quality);
    return;
  }
}

// The distinct inlier lists met so far (an open-addressing table of them,
// sized for every hypothesis at the start). The set refers to the lists it
// is given, which must outlive its use.
class InlierListSet {
 public:
  // Empties the set, sized for `most` lists.
  void Reset(size_t most) {
    size_t size = 16;
    while (size < 2 * most) size *= 2;
    slots_.assign(size, 0);
    lists_.clear();
    lists_.reserve(most);
  }
  // Adds `list` unless an equal one is there; true when added.
  bool Insert(std::span<const InlierLines> list, uint64_t hash) {
    const size_t mask = slots_.size() - 1;
    for (size_t i = static_cast<size_t>(hash) & mask;; i = (i + 1) & mask) {
      const uint32_t slot = slots_[i];
      if (slot == 0) {
        lists_.push_back({list, hash});
        slots_[i] = static_cast<uint32_t>(lists_.size());
        return true;
      }
      const Kept& kept = lists_[slot - 1];
      if (kept.hash == hash && std::ranges::equal(kept.list, list)) return false;
    }
  }

 private:
  struct Kept {
    std::span<const InlierLines> list;
    uint64_t hash;
  };
  std::vector<uint32_t> slots_;  // position in lists_ + 1; 0 for an empty slot
  std::vector<Kept> lists_;
};

// Refit blocks: the first holds this many hypotheses, each next one twice as
// many up to the last size; a task prepares at least kRefitGrain of them.
constexpr size_t kFirstRefitBlock = 64;
constexpr size_t kLastRefitBlock = 2048;
constexpr size_t kRefitGrain = 16;

// A hypothesis of the refit loop and what the loop needs of it.
struct RefitCandidate {
  const SortEntry* entry = nullptr;
  std::span<const InlierLines> inliers;
  uint32_t usable = 0;     // inliers whose frames are before the impact in both cameras
  uint64_t hash = 0;       // a hash of the inlier lines
  bool first = false;      // the first hypothesis with these inlier lines
  double surelyAbove = 0.0;  // ResidualSurelyAbove of the inliers' planes, once first
};

// Task body: the residual bound of block[i]'s planes (every inlier's two
// planes, camera 1's rows first) for each first hypothesis i of its range.
struct BoundRefitResiduals {
  const PlaneCache& planes1;
  const PlaneCache& planes2;
  std::vector<RefitCandidate>& block;

  void operator()(const tbb::blocked_range<size_t>& range) const {
    thread_local std::vector<PlaneRow> rows;
    for (size_t i = range.begin(); i != range.end(); ++i) {
      RefitCandidate& candidate = block[i];
      if (!candidate.first) continue;
      const std::span<const InlierLines> inliers = candidate.inliers;
      const size_t m = inliers.size();
      rows.resize(2 * m);
      for (size_t k = 0; k < m; ++k) {
        const LinePlane& p1 = planes1.At(inliers[k].frame, inliers[k].cam1);
        const LinePlane& p2 = planes2.At(inliers[k].frame, inliers[k].cam2);
        rows[k] = {p1.refitNormal, p1.refitOffset, &p1.refitTerms};
        rows[m + k] = {p2.refitNormal, p2.refitOffset, &p2.refitTerms};
      }
      candidate.surelyAbove = ResidualSurelyAbove(rows.data(), static_cast<int>(2 * m));
    }
  }
};

}  // namespace

void SearchClubSpinAxis(const ClubTrackerSetting& setting, double* referencePoint,
                        const std::vector<CandidateAreaImage*>& cam1Areas,
                        const std::vector<CandidateAreaImage*>& cam2Areas, ClubSpinAxis3D& axis,
                        SpinAxisSearchStats* stats) {
  if (cam1Areas.size() != cam2Areas.size()) {
    throw std::invalid_argument("camera lists of different length");
  }
  const int axisIndex = setting.axisIndex;
  if (axisIndex < 0 || axisIndex > 2) {
    throw std::out_of_range("axisIndex " + std::to_string(axisIndex) + " is not 0, 1 or 2");
  }
  SpinAxisSearchStats ignored;
  if (stats == nullptr) stats = &ignored;
  *stats = SpinAxisSearchStats();

  const LinePairs pairs(cam1Areas, cam2Areas);
  stats->linePairs = pairs.Count();

  const CameraGeometry camera1 = MakeCameraGeometry(setting.cam1Intrinsic, setting.cam1Extrinsic);
  const CameraGeometry camera2 = MakeCameraGeometry(setting.cam2Intrinsic, setting.cam2Extrinsic);
  LocateBall(camera1, camera2, cam1Areas, cam2Areas, referencePoint);

  PlaneCache planes1;
  PlaneCache planes2;
  planes1.Build(cam1Areas, camera1);
  planes2.Build(cam2Areas, camera2);
  const MatRounding& rounding = MatRounding::Get();
  const bool jacobi = JacobiSolveMatchesLibrary();

  // Only the first batch evaluates pairs: every later batch compares its
  // positions with its own count and so skips them all, then collects its
  // first `count` slots once more as the first batch left them. Up to seven
  // trailing pairs of the first batch (all of a batch of fewer than eight)
  // are never evaluated. Kept as it has always behaved.
  const uint64_t total = pairs.Count();
  const uint64_t batches = total / kBatchSize + 1;
  const uint64_t firstCount = std::min(total, kBatchSize);
  const uint64_t chunk = firstCount / kChunksPerBatch;
  // The search's lists are megabytes for a swing; none is kept after it (while
  // it runs they take the memory the masks' buffers gave up, see the analysis).
  std::vector<PairHypothesis> chunkLists[kChunksPerBatch];
  ChunkPaths chunkPaths[kChunksPerBatch];
  if (chunk > 0) {
    const PairSearch search{planes1, planes2, rounding, jacobi, axisIndex, referencePoint,
                            kPairWindows};
    EvaluateLinePairs(pairs, search, chunk, kChunksPerBatch, chunkLists, chunkPaths);
  }
  stats->evaluatedPairs = chunk * kChunksPerBatch;
  for (const ChunkPaths& path : chunkPaths) {
    stats->pairsSurelyRejected += path.surelyRejected;
    stats->pairsSolvedByLibrary += path.solvedByLibrary;
  }

  std::vector<PairHypothesis> accepted;
  size_t acceptedCount = 0;
  for (int c = 0; c < kChunksPerBatch; ++c) acceptedCount += chunkLists[c].size();
  accepted.reserve(acceptedCount);
  for (int c = 0; c < kChunksPerBatch; ++c) {
    accepted.insert(accepted.end(), chunkLists[c].begin(), chunkLists[c].end());
    std::vector<PairHypothesis>().swap(chunkLists[c]);
  }

  // The hypothesis list: the accepted pairs, then for every later batch the
  // accepted pairs whose slot lies below that batch's count.
  const uint64_t lastCount = total % kBatchSize;
  const uint64_t lastPrefix = static_cast<uint64_t>(
      std::lower_bound(accepted.begin(), accepted.end(), lastCount,
                       [](const PairHypothesis& h, uint64_t count) { return h.slot < count; }) -
      accepted.begin());
  constexpr uint64_t kMaxListLength = static_cast<uint64_t>(std::numeric_limits<int32_t>::max());
  uint64_t listLength = accepted.size();
  if (batches >= 2 && !accepted.empty()) {
    if (batches - 2 > kMaxListLength / accepted.size()) {
      throw std::length_error("hypothesis list of more than " + std::to_string(kMaxListLength) +
                              " entries");
    }
    listLength += (batches - 2) * accepted.size() + lastPrefix;
  }
  stats->hypotheses = listLength;
  if (listLength == 0) return;
  if (listLength > kMaxListLength) {
    throw std::length_error("hypothesis list of " + std::to_string(listLength) + " entries");
  }

  // Inliers of every accepted pair (repeated entries share them).
  const InlierScanner scanner(planes1, planes2);
  std::vector<char> usable(cam1Areas.size(), 0);
  for (size_t j = 0; j < cam1Areas.size(); ++j) {
    const CandidateAreaImage* a1 = cam1Areas[j];
    const CandidateAreaImage* a2 = cam2Areas[j];
    usable[j] = a1 != nullptr && a2 != nullptr && a1->afterImpact == 0 && a2->afterImpact == 0;
  }
  HypothesisInliers inlierLists;
  inlierLists.Collect(scanner, accepted, usable);

  // The sort ranks by the axisIndex of the first tracker that got here in this
  // process, and keeps it for the process's life.
  static const int sortAxisIndex = setting.axisIndex;
  std::vector<SortEntry> list;
  list.reserve(static_cast<size_t>(listLength));
  const auto append = [&](uint64_t length) {
    for (uint64_t i = 0; i < length; ++i) {
      const PairHypothesis& h = accepted[static_cast<size_t>(i)];
      list.push_back(SortEntry{inlierLists.Count(static_cast<size_t>(i)), static_cast<int32_t>(i),
                               static_cast<int32_t>(list.size()),
                               std::abs(h.pivot[sortAxisIndex])});
    }
  };
  append(accepted.size());
  for (uint64_t b = 1; b < batches; ++b) append(b + 1 < batches ? accepted.size() : lastPrefix);
  RankScratch rank;
  RankHypotheses(list, rank);
  if (list.front().inliers < kMinInliers) return;

  // Refit over the hypotheses in rank order. A hypothesis whose inliers name
  // the same lines as one already refitted gives the same residual, which can
  // neither beat the best nor stop the search any more: it is skipped.
  // How low a hypothesis's residual can be depends on nothing the loop
  // changes; it is bounded in parallel for a block of hypotheses at a time,
  // the blocks growing from a few (the search may stop at once).
  double best = kInitialBestRefit;
  std::vector<char> visited(accepted.size(), 0);
  InlierListSet solved;
  solved.Reset(accepted.size());
  std::vector<RefitCandidate> block;
  cv::Mat matA;
  cv::Mat matD;
  double solution[3];
  cv::Mat matX(3, 1, CV_64F, solution);
  cv::Mat matR;
  size_t next = 0;
  size_t blockSize = kFirstRefitBlock;
  bool stop = false;
  while (!stop && next < list.size()) {
    size_t used = 0;
    while (next < list.size() && used < blockSize) {
      const SortEntry& entry = list[next++];
      if (entry.inliers < kMinInliers) continue;
      if (visited[entry.hypothesis] != 0) continue;
      visited[entry.hypothesis] = 1;
      if (block.size() == used) block.emplace_back();
      block[used++].entry = &entry;
    }
    blockSize = std::min(2 * blockSize, kLastRefitBlock);
    // Which hypotheses are the first with their lines does not depend on the
    // refits either: the set takes the whole block before any is decided.
    for (size_t c = 0; c < used; ++c) {
      RefitCandidate& candidate = block[c];
      const size_t h = static_cast<size_t>(candidate.entry->hypothesis);
      candidate.inliers = inlierLists.Lines(h);
      candidate.usable = inlierLists.Usable(h);
      candidate.hash = inlierLists.Hash(h);
      candidate.first = false;
      if (candidate.usable < kMinUsableInliers) continue;
      candidate.first = solved.Insert(candidate.inliers, candidate.hash);
    }
    tbb::parallel_for(tbb::blocked_range<size_t>(0, used, kRefitGrain),
                      BoundRefitResiduals{planes1, planes2, block});

    for (size_t c = 0; c < used && !stop; ++c) {
      const RefitCandidate& candidate = block[c];
      if (!candidate.first) continue;
      const std::span<const InlierLines> inliers = candidate.inliers;
      const SortEntry& entry = *candidate.entry;
      const PairHypothesis& h = accepted[entry.hypothesis];
      // A refit certainly no better than the best so far and not below the
      // early-stop residual changes nothing: it is not solved.
      if (candidate.surelyAbove >= std::max(best, kEarlyStopRefit)) {
        ++stats->refitsSurelyWorse;
        continue;
      }

      // Every inlier's planes, camera 1's rows first; the usable count above
      // only gates the refit.
      const int m = static_cast<int>(inliers.size());
      matA.create(2 * m, 3, CV_64F);
      matD.create(2 * m, 1, CV_64F);
      for (int k = 0; k < m; ++k) {
        const LinePlane& p1 = planes1.At(inliers[k].frame, inliers[k].cam1);
        const LinePlane& p2 = planes2.At(inliers[k].frame, inliers[k].cam2);
        double* row1 = matA.ptr<double>(k);
        double* row2 = matA.ptr<double>(m + k);
        for (int i = 0; i < 3; ++i) {
          row1[i] = p1.refitNormal[i];
          row2[i] = p2.refitNormal[i];
        }
        matD.at<double>(k) = p1.refitOffset;
        matD.at<double>(m + k) = p2.refitOffset;
      }
      if (!(jacobi && SolvePlanesJacobi(matA.ptr<double>(), matD.ptr<double>(), 2 * m, solution))) {
        ++stats->refitsSolvedByLibrary;
        cv::solve(matA, matD, matX, cv::DECOMP_SVD);
        if (matX.data != reinterpret_cast<uchar*>(solution)) {
          for (int i = 0; i < 3; ++i) solution[i] = matX.at<double>(i);
          matX = cv::Mat(3, 1, CV_64F, solution);
        }
      }
      cv::gemm(matA, matX, 1.0, matD, -1.0, matR);
      const double residual = matR.dot(matR) / matR.rows;
      ++stats->refits;

      if (residual < best) {
        best = residual;
        ClubSpinAxis3D chosen;
        chosen.id = entry.position;
        chosen.firstFrame = h.firstFrame;
        chosen.secondFrame = h.secondFrame;
        chosen.firstCam1Line = cam1Areas[h.firstFrame]->lines[h.firstCam1];
        chosen.firstCam2Line = cam2Areas[h.firstFrame]->lines[h.firstCam2];
        chosen.secondCam1Line = cam1Areas[h.secondFrame]->lines[h.secondCam1];
        chosen.secondCam2Line = cam2Areas[h.secondFrame]->lines[h.secondCam2];
        chosen.inliers.reserve(inliers.size());
        for (const InlierLines& in : inliers) {
          SpinAxisInlier inlier;
          inlier.frame = in.frame;
          inlier.cam1Line = cam1Areas[in.frame]->lines[in.cam1];
          inlier.cam2Line = cam2Areas[in.frame]->lines[in.cam2];
          chosen.inliers.push_back(inlier);
        }
        for (int i = 0; i < 3; ++i) chosen.pivot[i] = matX.at<double>(i);
        chosen.fitResidual = h.fitResidual;
        axis = std::move(chosen);
        stats->refitResidual = residual;
      }
      if (residual < kEarlyStopRefit) stop = true;
    }
  }
}

int ClubTracker::FindClubSpinAxis(const std::vector<CandidateAreaImage*>& cam1Areas,
                                  const std::vector<CandidateAreaImage*>& cam2Areas,
                                  ClubSpinAxis3D& axis) {
  Log("FindClubSpinAxis start");
  if (cam1Areas.size() != cam2Areas.size()) return 0;
  try {
    SearchClubSpinAxis(setting, referencePoint, cam1Areas, cam2Areas, axis, nullptr);
  } catch (const std::exception& e) {
    Log("FindClubSpinAxis: %s", e.what());
  }
  if (axis.pivot[0] == 0.0 && axis.pivot[1] == 0.0 && axis.pivot[2] == 0.0) {
    Log("Axis analysis failed.");
    return 0;
  }
  Log("FindClubSpinAxis end.");
  return 1;
}
