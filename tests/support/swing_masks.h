// The candidate-area masks (change masks) of both cameras of the near and the
// far synthetic swing, rendered once per test binary: real inputs for the
// identity tests of the exact image operations.
#pragma once

#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "support/access.h"
#include "synth/swing.h"

inline const std::vector<cv::Mat>& SwingChangeMasks() {
  static const std::vector<cv::Mat> masks = [] {
    std::vector<cv::Mat> out;
    for (const synth::Placement placement : {synth::Placement::kNear, synth::Placement::kFar}) {
      synth::SwingScene scene;
      scene.placement = placement;
      synth::Recording recording = synth::Render(scene);
      ClubTracker tracker(recording.setting);
      for (const std::vector<ClubImage*>& frames : {recording.Cam1(), recording.Cam2()}) {
        std::vector<std::unique_ptr<PreprocessedImage>> owned;
        std::vector<PreprocessedImage*> pre;
        for (ClubImage* frame : frames) {
          owned.push_back(std::make_unique<PreprocessedImage>());
          ClubTrackerTestAccess::Preprocessing(tracker, frame, owned.back().get());
          pre.push_back(owned.back().get());
        }
        std::vector<CandidateAreaImage*> cand;
        ClubTrackerTestAccess::FindCandidateArea(tracker, pre, cand);
        for (CandidateAreaImage* area : cand) {
          const std::unique_ptr<CandidateAreaImage> release(area);
          out.push_back(area->image);
        }
      }
    }
    return out;
  }();
  return masks;
}
