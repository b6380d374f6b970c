#include "tracker/analyse_swing.h"

#include <algorithm>
#include <cstdint>

#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"
#include "analysis/frame_buffers.h"
#include "tracker/find_lines.h"

namespace {

// Takes the records that a stage appended to `made` into `owned`. Every record
// is owned once this returns or throws.
template <typename T>
void Adopt(const std::vector<T*>& made, std::vector<std::unique_ptr<T>>& owned) {
  try {
    owned.reserve(owned.size() + made.size());
  } catch (...) {
    for (T* record : made) std::unique_ptr<T> release(record);
    throw;
  }
  for (T* record : made) owned.emplace_back(record);  // capacity reserved: cannot throw
}

// The head size a camera's frames agree on: the element at two thirds of the
// sorted positive sizes; 0 when no frame gave one.
int AgreedHeadSize(const std::vector<int>& sizes) {
  std::vector<int> positive;
  positive.reserve(sizes.size());
  for (const int size : sizes) {
    if (size > 0) positive.push_back(size);
  }
  if (positive.empty()) return 0;
  std::sort(positive.begin(), positive.end());
  return positive[(2 * positive.size()) / 3];
}

// Frames larger than this (a quarter of a gigapixel) take no lent buffer.
constexpr uint64_t kMostLentPixels = uint64_t{1} << 28;

// The refined masks of the presence test stay with the thread between calls,
// so a later swing of the same frame size writes into pages already mapped.
RefinedMasks& ThreadMasks(int camera) {
  thread_local RefinedMasks masks[2];
  return masks[camera];
}

bool AnalyseOnThisThread(ClubTracker& tracker, const SwingStages& stages,
                         const std::vector<ClubImage*>& pairs1,
                         const std::vector<ClubImage*>& pairs2, ClubTrackerResult* result,
                         const SwingHook& hook, SwingAnalysis& out);

// The spin-axis search reads no mask's pixels, only each image's height, so
// while it runs the masks wait as bit planes (most packed by the line passes
// already: planes[c][k] where made[c][k] is set): a packed mask's image is
// rows x 0 (its height kept), and the set lets its free buffers and each
// packed mask's buffer go, leaving their memory to the search's lists.
// Restore brings every mask back, pixel for pixel, into a lent buffer, and
// the set back to as many buffers as it held at its most (taking the memory
// the lists have just left, not fresh pages). Masks that are not 0/255 stay
// as they are.
class MasksSetAside {
 public:
  MasksSetAside(SwingAnalysis& analysis, FrameBuffers& buffers, std::vector<BitMask> (&planes)[2],
                const std::vector<char> (&made)[2])
      : analysis_(analysis), buffers_(buffers) {
    const size_t n = analysis.cand[0].size();
    planes_.resize(2 * n);
    packed_.assign(2 * n, 0);
    std::vector<char> ready(2 * n, 0);  // planes_[k] holds the passes' plane
    for (int c = 0; c < 2; ++c) {
      for (size_t k = 0; k < n && k < planes[c].size() && k < made[c].size(); ++k) {
        if (made[c][k] == 0) continue;
        std::swap(planes_[c * n + k], planes[c][k]);
        ready[c * n + k] = 1;
      }
    }
    buffers_.ReleaseFree();
    try {
      tbb::parallel_for(size_t{0}, 2 * n, [&](size_t k) {
        CandidateAreaImage* area = Area(k);
        if (area == nullptr || area->image.total() > kMostLentPixels ||
            !(ready[k] != 0 || planes_[k].Pack(area->image))) {
          return;
        }
        const int rows = area->image.rows;
        buffers_.Drop(area->image);
        area->image = cv::Mat(rows, 0, CV_8UC1);
        packed_[k] = 1;
      });
    } catch (...) {
      Restore();  // the masks packed before the failure
      throw;
    }
  }

  void Restore() {
    tbb::parallel_for(size_t{0}, planes_.size(), [&](size_t k) {
      if (packed_[k] == 0) return;
      CandidateAreaImage* area = Area(k);
      buffers_.Lend(area->image, cv::Size(planes_[k].cols(), planes_[k].rows()));
      planes_[k].Unpack(area->image);
    });
    // The buffers the candidate areas took beyond the frames come back too,
    // for the next swing's candidate areas.
    cv::Size size;
    for (size_t k = 0; k < planes_.size() && size.empty(); ++k) {
      if (packed_[k] != 0) size = Area(k)->image.size();
    }
    packed_.assign(packed_.size(), 0);
    planes_ = std::vector<BitMask>();
    if (!size.empty()) buffers_.Refill(size);
  }

 private:
  CandidateAreaImage* Area(size_t k) const {
    const size_t n = analysis_.cand[0].size();
    return k < n ? analysis_.cand[0][k] : analysis_.cand[1][k - n];
  }

  SwingAnalysis& analysis_;
  FrameBuffers& buffers_;
  std::vector<BitMask> planes_;
  std::vector<char> packed_;
};

}  // namespace

// The analysis keeps storage of the calling thread from one stage to the next
// (the refined masks); isolated, a thread that waits for the analysis' tasks
// takes none from outside it (such as another swing's analysis that a host
// runs beside this one).
bool AnalyseSwing(ClubTracker& tracker, const SwingStages& stages,
                  const std::vector<ClubImage*>& pairs1, const std::vector<ClubImage*>& pairs2,
                  ClubTrackerResult* result, const SwingHook& hook, SwingAnalysis& out) {
  return tbb::this_task_arena::isolate(
      [&] { return AnalyseOnThisThread(tracker, stages, pairs1, pairs2, result, hook, out); });
}

namespace {

bool AnalyseOnThisThread(ClubTracker& tracker, const SwingStages& stages,
                         const std::vector<ClubImage*>& pairs1,
                         const std::vector<ClubImage*>& pairs2, ClubTrackerResult* result,
                         const SwingHook& hook, SwingAnalysis& out) {
  const auto reached = [&](SwingStage stage) { return !hook || hook(stage, out); };

  const std::vector<ClubImage*>* pairs[2] = {&pairs1, &pairs2};
  out.ownedPre.reserve(out.ownedPre.size() + pairs1.size() + pairs2.size());
  for (int c = 0; c < 2; ++c) {
    out.pre[c].reserve(pairs[c]->size());
    for (size_t k = 0; k < pairs[c]->size(); ++k) {
      out.ownedPre.push_back(std::make_unique<PreprocessedImage>());
      out.pre[c].push_back(out.ownedPre.back().get());
    }
  }
  // Frames spread over the cores: each writes only its own record (into a
  // lent buffer of the frame's size when the frame is filtered as it lies).
  if (out.frameBuffers != nullptr) out.frameBuffers->Start();
  const int frames1 = static_cast<int>(pairs1.size());
  tbb::parallel_for(0, frames1 + static_cast<int>(pairs2.size()), [&](int k) {
    const int c = k < frames1 ? 0 : 1;
    const size_t i = static_cast<size_t>(c == 0 ? k : k - frames1);
    ClubImage* source = (*pairs[c])[i];
    PreprocessedImage* record = out.pre[c][i];
    const bool lent = out.frameBuffers != nullptr && source != nullptr &&
                      PreprocessesWholeFrame(source, tracker.setting) &&
                      uint64_t{source->width} * source->height <= kMostLentPixels;
    if (lent) {
      out.frameBuffers->Lend(record->image, cv::Size(static_cast<int>(source->width),
                                                     static_cast<int>(source->height)));
    }
    if (stages.preprocessing(tracker, source, record) == 0 && lent) {
      out.frameBuffers->GiveBack(record->image);  // a refused frame's record stays empty
    }
  });
  if (!reached(SwingStage::kPreprocessed)) return false;

  for (int c = 0; c < 2 && out.failedCamera == 0; ++c) {
    int found = 0;
    try {
      found = stages.findCandidateArea(tracker, out.pre[c], out.cand[c]);
    } catch (...) {
      Adopt(out.cand[c], out.ownedCand);
      throw;
    }
    Adopt(out.cand[c], out.ownedCand);
    if (found == 0) out.failedCamera = c + 1;
  }
  if (!reached(SwingStage::kCandidateAreas) || out.failedCamera != 0) return false;
  // The buffers only the candidate areas needed (the frames still read while
  // the first masks were made).
  if (out.frameBuffers != nullptr) out.frameBuffers->ReleaseFree();
  if (out.cand[0].size() != out.cand[1].size()) return false;
  const int n = static_cast<int>(out.cand[0].size());

  // Presence test, frames spread over the cores (each touches only its own
  // slots).
  // The refined masks stay packed: the head sizes unpack one frame at a time.
  RefinedMasks* refined[2] = {&ThreadMasks(0), &ThreadMasks(1)};
  for (int c = 0; c < 2; ++c) {
    refined[c]->packed.resize(static_cast<size_t>(n));
    refined[c]->isPacked.assign(static_cast<size_t>(n), 0);
    refined[c]->masks.resize(static_cast<size_t>(n));
    out.refined[c] = refined[c];
    out.present[c].assign(static_cast<size_t>(n), 0);
  }
  tbb::parallel_for(0, n, [&](int k) {
    for (int c = 0; c < 2; ++c) {
      const cv::Mat& mask = out.cand[c][k]->image;
      cv::Mat& unpacked = refined[c]->masks[k];
      if (stages.presence != nullptr) {
        out.present[c][k] = stages.presence(mask, unpacked);
      } else {
        refined[c]->isPacked[k] =
            RefineCandidateMaskPacked(mask, &refined[c]->packed[k], unpacked, &out.present[c][k]);
        if (refined[c]->isPacked[k] != 0) unpacked.release();  // an earlier swing's
      }
    }
  });
  out.bothPresent = 0;
  for (int k = 0; k < n; ++k) {
    if (out.present[0][k] == 1 && out.present[1][k] == 1) ++out.bothPresent;
  }
  if (!reached(SwingStage::kPresence)) return false;

  // Driver-head size, measured in parallel over each camera's frames.
  out.headValue[0] = out.headValue[1] = 0;
  if (out.bothPresent > 10) {
    std::vector<int> sizes;
    for (int c = 0; c < 2; ++c) {
      MeasureHeadSizes(tracker, out.cand[c], *refined[c], sizes);
      out.headValue[c] = AgreedHeadSize(sizes);
    }
    if (out.headValue[0] <= 0 || out.headValue[1] <= 0) return false;
  }
  for (int k = 0; k < n; ++k) {
    for (int c = 0; c < 2; ++c) {
      stages.deleteDriverHeadArea(tracker, out.cand[c][k], out.headValue[c]);
    }
  }
  if (!reached(SwingStage::kHeadsDeleted)) return false;

  // Adaptive line extraction. The masks stay as they are from here on, so
  // each frame's edge map is made once and serves every pass (and the bit
  // planes packed for it hold the masks while the spin axis is searched).
  std::vector<BitMask> planes[2];
  std::vector<char> planeMade[2];
  {
    LineExtractor extract;
    if (stages.extractLines != nullptr) {
      extract = [&](CandidateAreaImage* area, int threshold) {
        stages.extractLines(tracker, area, threshold);
      };
    }
    LinePasses passes(
        [&](CandidateAreaImage* area, float lineSize) {
          return stages.getLineThreshold(tracker, area, lineSize);
        },
        out.cand[0], out.cand[1], std::move(extract));
    do {
      passes.Extract();
      out.pass = passes.pass();
      out.foundPair = passes.foundPair();
      for (int c = 0; c < 2; ++c) {
        out.lineSize[c] = passes.lineSize(c);
        out.lineCount[c] = passes.lineCount(c);
      }
      if (!reached(SwingStage::kLinePass)) return false;
      passes.Decide();
    } while (passes.Again());
    out.foundPair = passes.foundPair();
    if (out.frameBuffers != nullptr) {
      for (int c = 0; c < 2; ++c) passes.TakePlanes(c, planes[c], planeMade[c]);
    }
  }
  if (!reached(SwingStage::kLinesDone)) return false;
  if (out.foundPair < 3) return true;

  if (out.frameBuffers != nullptr) {
    MasksSetAside masks(out, *out.frameBuffers, planes, planeMade);
    try {
      out.axisFound = stages.findClubSpinAxis(tracker, out.cand[0], out.cand[1], out.axis);
    } catch (...) {
      masks.Restore();
      throw;
    }
    masks.Restore();
  } else {
    out.axisFound = stages.findClubSpinAxis(tracker, out.cand[0], out.cand[1], out.axis);
  }
  if (!reached(SwingStage::kSpinAxis) || result == nullptr) return false;
  stages.findShaftAndHead(tracker, out.cand[0], out.cand[1], out.axis, *result);
  return reached(SwingStage::kShaftAndHead);
}

}  // namespace
