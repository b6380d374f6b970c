// The inputs of the spin-axis search: Find's analysis of a swing up to the
// last line pass, and candidate areas carrying a synthetic swing's truth.
#pragma once

#include <functional>
#include <memory>
#include <opencv2/core.hpp>
#include <vector>

#include "support/access.h"
#include "synth/swing.h"
#include "tracker/analyse_swing.h"
#include "tracker/frame_pairing.h"
#include "tracker/records.h"

namespace reference {

using StageWatch = std::function<void(SwingStage, const SwingAnalysis&)>;

// Find's analysis of the paired frames, shown to `watch` after each stage and
// stopped where `last` is reached (a null `result` stops after the spin axis
// at the latest). Returns the analysis's answer, false when stopped early.
inline bool AnalyseUpTo(ClubTracker& tracker, const std::vector<ClubImage*>& images1,
                        const std::vector<ClubImage*>& images2, SwingStage last,
                        SwingAnalysis& out, const StageWatch& watch = nullptr,
                        ClubTrackerResult* result = nullptr,
                        const SwingStages& stages = StagesOf<ClubTrackerTestAccess>()) {
  std::vector<ClubImage*> pairs[2];
  PairFrames(images1, images2, pairs[0], pairs[1]);
  return AnalyseSwing(tracker, stages, pairs[0], pairs[1], result,
                      [&](SwingStage stage, const SwingAnalysis& analysis) {
                        if (watch) watch(stage, analysis);
                        return stage != last || stage == SwingStage::kShaftAndHead;
                      },
                      out);
}

// The lines of the last pass; false when Find would stop before the spin axis.
inline bool ExtractLines(ClubTracker& tracker, const std::vector<ClubImage*>& images1,
                         const std::vector<ClubImage*>& images2, SwingAnalysis& out) {
  AnalyseUpTo(tracker, images1, images2, SwingStage::kLinesDone, out);
  return out.foundPair >= 3;
}

// A record of frame `frame` of `camera` carrying the synthetic swing's window,
// impact flag and ball, with no lines yet; `owned` keeps it.
inline CandidateAreaImage* AddTruthArea(const synth::SwingTruth& truth, int camera, int frame,
                                        std::vector<std::unique_ptr<CandidateAreaImage>>& owned) {
  const synth::CameraModel& model = truth.cameras[camera];
  owned.push_back(std::make_unique<CandidateAreaImage>());
  CandidateAreaImage* area = owned.back().get();
  area->image = cv::Mat::zeros(model.height, 4, CV_8UC1);
  area->sensorOffsetX = model.sensorOffsetX;
  area->sensorOffsetY = model.sensorOffsetY;
  area->afterImpact = frame >= truth.impactIndex ? 1u : 0u;
  const cv::Vec2d ball = truth.BallInWindow(camera);
  area->ballX = static_cast<float>(ball[0]);
  area->ballY = static_cast<float>(ball[1]);
  return area;
}

}  // namespace reference
