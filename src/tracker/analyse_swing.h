// The analysis of one swing from the paired frames to the shaft and head:
// preprocessing, candidate areas, presence test, head sizes and head
// deletion, the adaptive line passes, the spin axis, shaft and head. Find
// drives it; the tests and benchmarks call it with their own hooks.
#pragma once

#include <functional>
#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "tracker/records.h"

class FrameBuffers;
struct RefinedMasks;

// The tracker's own stages, reached through an access type with static
// forwarding functions (see StagesOf). The optional members replace a stage
// by another version of it: null keeps the library's.
struct SwingStages {
  int (*preprocessing)(ClubTracker&, ClubImage*, PreprocessedImage*);
  int (*findCandidateArea)(ClubTracker&, const std::vector<PreprocessedImage*>&,
                           std::vector<CandidateAreaImage*>&);
  int (*getLineThreshold)(ClubTracker&, CandidateAreaImage*, float);
  int (*deleteDriverHeadArea)(ClubTracker&, CandidateAreaImage*, int);
  int (*findClubSpinAxis)(ClubTracker&, const std::vector<CandidateAreaImage*>&,
                          const std::vector<CandidateAreaImage*>&, ClubSpinAxis3D&);
  int (*findShaftAndHead)(ClubTracker&, const std::vector<CandidateAreaImage*>&,
                          const std::vector<CandidateAreaImage*>&, const ClubSpinAxis3D&,
                          ClubTrackerResult&);
  // The presence test of one mask: writes the refined mask, returns 1 for a blob.
  int (*presence)(const cv::Mat& candidateMask, cv::Mat& refined) = nullptr;
  // One frame's lines for a vote threshold, appended to its record; every
  // pass calls it again for each frame of a camera it redoes.
  int (*extractLines)(ClubTracker&, CandidateAreaImage*, int voteThreshold) = nullptr;
};

template <typename Access>
SwingStages StagesOf() {
  return {&Access::Preprocessing,        &Access::FindCandidateArea,
          &Access::GetLineThreshold,     &Access::DeleteDriverHeadArea,
          &Access::FindClubSpinAxis,     &Access::FindShaftAndHead};
}

// The points at which the analysis calls its hook, in their order.
enum class SwingStage {
  kPreprocessed,
  kCandidateAreas,     // failedCamera tells which camera found none, if one did
  kPresence,           // presence flags made, masks untouched
  kHeadsDeleted,       // head sizes agreed, head disc painted out of every mask
  kLinePass,           // after each pass's extraction, before its decision
  kLinesDone,          // foundPair is final
  kSpinAxis,           // axis searched
  kShaftAndHead,       // result filled
};

// What the analysis made, stage by stage. Owns its records.
struct SwingAnalysis {
  std::vector<std::unique_ptr<PreprocessedImage>> ownedPre;
  std::vector<std::unique_ptr<CandidateAreaImage>> ownedCand;
  std::vector<PreprocessedImage*> pre[2];
  std::vector<CandidateAreaImage*> cand[2];
  int failedCamera = 0;  // 1 or 2 when that camera's candidate areas failed
  // When set, the preprocessed images take buffers of this set (see
  // FrameBuffers; the candidate-area stage may then give them back), and
  // while the spin axis is searched the masks wait as bit planes: that stage
  // sees each 0/255 mask as a rows x 0 image. The hooks must then leave the
  // masks as they are from the line passes on (the planes are packed there).
  FrameBuffers* frameBuffers = nullptr;
  // Refined masks of the presence test (see RefinedMasks::Mask): the calling
  // thread's, valid until the thread's next analysis.
  const RefinedMasks* refined[2] = {nullptr, nullptr};
  std::vector<int> present[2];
  int bothPresent = 0;
  int headValue[2] = {0, 0};
  // The current line pass.
  int pass = 0;
  float lineSize[2] = {0.0f, 0.0f};
  int lineCount[2] = {0, 0};
  int foundPair = 0;
  ClubSpinAxis3D axis;
  int axisFound = 0;

  SwingAnalysis() {
    axis.firstFrame = 0;
    axis.secondFrame = 0;
  }
};

// Called after each stage; false stops the analysis there.
using SwingHook = std::function<bool(SwingStage, const SwingAnalysis&)>;

// Runs the stages on the paired frames (equal lengths). Returns false when it
// stopped before its end: a camera without candidate areas, unequal candidate
// lists, a camera without a head size while the head is measured, or the
// hook. Returns true when the lines gave fewer than three pairs (no spin axis
// is searched) or when the shaft and head filled `result`; a null result
// stops after the spin axis.
bool AnalyseSwing(ClubTracker& tracker, const SwingStages& stages,
                  const std::vector<ClubImage*>& pairs1, const std::vector<ClubImage*>& pairs2,
                  ClubTrackerResult* result, const SwingHook& hook, SwingAnalysis& out);
