// Inliers of spin-axis hypotheses: the frames whose lines, in both cameras,
// sweep planes passing close to a hypothesis's pivot.
#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <exception>
#include <limits>
#include <utility>
#include <vector>

#include "reconstruction/geometry.h"
#include "reconstruction/plane_cache.h"
#include "reconstruction/spin_axis.h"
#include "tracker/records.h"

namespace {

// Task body of SelectSpinAxisInliers: scores hypothesis `index` into its own
// result slot. The hypothesis's own two frames always count, with the lines it
// was made from.
struct CollectSpinAxisInliers {
  const std::vector<ClubSpinAxis3D>& axes;
  const std::vector<CandidateAreaImage*>& cam1Areas;
  const std::vector<CandidateAreaImage*>& cam2Areas;
  const InlierScanner& scanner;
  std::vector<std::vector<SpinAxisInlier>>& result;

  void operator()(const tbb::blocked_range<int>& range) const {
    InlierScanner::Scratch scratch;
    for (int index = range.begin(); index != range.end(); ++index) Collect(index, scratch);
  }

  void Collect(int index, InlierScanner::Scratch& scratch) const {
    const ClubSpinAxis3D& h = axes[index];
    std::vector<SpinAxisInlier>& list = result[index];
    scanner.Measure(h.pivot, scratch);
    for (int j = 0; j < scanner.FrameCount(); ++j) {
      SpinAxisInlier inlier;
      inlier.frame = j;
      int k1 = 0;
      int k2 = 0;
      if (j == h.firstFrame) {
        inlier.cam1Line = h.firstCam1Line;
        inlier.cam2Line = h.firstCam2Line;
      } else if (j == h.secondFrame) {
        inlier.cam1Line = h.secondCam1Line;
        inlier.cam2Line = h.secondCam2Line;
      } else if (scanner.Supports(j, scratch, k1, k2)) {
        inlier.cam1Line = cam1Areas[j]->lines[k1];
        inlier.cam2Line = cam2Areas[j]->lines[k2];
      } else {
        continue;
      }
      list.push_back(inlier);
    }
  }
};

}  // namespace

void HypothesisInliers::Collect(const InlierScanner& scanner,
                                const std::vector<PairHypothesis>& hypotheses,
                                const std::vector<char>& usable) {
  where_.assign(hypotheses.size(), Where{0, 0, 0, 0});
  const size_t blocks = (hypotheses.size() + kBlock - 1) / kBlock;
  if (blocks_.size() < blocks) blocks_.resize(blocks);
  tbb::parallel_for(size_t{0}, blocks, [&](size_t block) {
    thread_local InlierScanner::Scratch scratch;
    std::vector<InlierLines>& lines = blocks_[block];
    lines.clear();
    const size_t end = std::min(hypotheses.size(), (block + 1) * kBlock);
    for (size_t index = block * kBlock; index < end; ++index) {
      const PairHypothesis& h = hypotheses[index];
      const size_t offset = lines.size();
      scanner.Measure(h.pivot, scratch);
      for (int j = 0; j < scanner.FrameCount(); ++j) {
        int k1 = 0;
        int k2 = 0;
        if (j == h.firstFrame) {
          lines.push_back({j, h.firstCam1, h.firstCam2});
        } else if (j == h.secondFrame) {
          lines.push_back({j, h.secondCam1, h.secondCam2});
        } else if (scanner.Supports(j, scratch, k1, k2)) {
          lines.push_back({j, k1, k2});
        }
      }
      // A block holds at most kBlock lists of at most FrameCount() entries.
      Where& where = where_[index];
      where = {static_cast<uint32_t>(offset), static_cast<uint32_t>(lines.size() - offset), 0,
               1469598103934665603ull};
      for (size_t k = offset; k < lines.size(); ++k) {
        const InlierLines& in = lines[k];
        where.usable += usable[static_cast<size_t>(in.frame)] != 0 ? 1 : 0;
        for (const int32_t v : {in.frame, in.cam1, in.cam2}) {
          where.hash ^= static_cast<uint32_t>(v);
          where.hash *= 1099511628211ull;
        }
      }
    }
  });
}

int ClubTracker::SelectSpinAxisInliers(const std::vector<CandidateAreaImage*>& cam1Areas,
                                       const std::vector<CandidateAreaImage*>& cam2Areas,
                                       std::vector<ClubSpinAxis3D>& axes) {
  try {
    if (cam1Areas.size() != cam2Areas.size()) {
      Log("SelectSpinAxisInliers: camera lists of %zu and %zu frames; frames missing in one "
          "camera never count.",
          cam1Areas.size(), cam2Areas.size());
    }
    if (axes.size() > static_cast<size_t>(std::numeric_limits<int>::max())) {
      Log("SelectSpinAxisInliers: too many hypotheses (%zu).", axes.size());
      return 1;
    }
    const CameraGeometry camera1 = MakeCameraGeometry(setting.cam1Intrinsic, setting.cam1Extrinsic);
    const CameraGeometry camera2 = MakeCameraGeometry(setting.cam2Intrinsic, setting.cam2Extrinsic);
    PlaneCache planes1;
    PlaneCache planes2;
    planes1.Build(cam1Areas, camera1);
    planes2.Build(cam2Areas, camera2);
    const InlierScanner scanner(planes1, planes2);

    std::vector<std::vector<SpinAxisInlier>> result(axes.size());
    const CollectSpinAxisInliers body{axes, cam1Areas, cam2Areas, scanner, result};
    if (!axes.empty()) {
      tbb::parallel_for(tbb::blocked_range<int>(0, static_cast<int>(axes.size()), 1), body);
    }
    for (size_t i = 0; i < axes.size(); ++i) axes[i].inliers = std::move(result[i]);
  } catch (const std::exception& e) {
    Log("SelectSpinAxisInliers failed: %s", e.what());
  }
  return 1;
}
