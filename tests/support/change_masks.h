// One camera's candidate-area masks (change masks) of a recording, from the
// tracker's own first two stages.
#pragma once

#include <memory>
#include <vector>

#include <opencv2/core.hpp>

#include "support/access.h"
#include "synth/swing.h"

inline std::vector<cv::Mat> CameraChangeMasks(synth::Recording& recording, int camera) {
  ClubTracker tracker(recording.setting);
  std::vector<std::unique_ptr<PreprocessedImage>> owned;
  std::vector<PreprocessedImage*> preprocessed;
  for (ClubImage* frame : camera == 0 ? recording.Cam1() : recording.Cam2()) {
    owned.push_back(std::make_unique<PreprocessedImage>());
    ClubTrackerTestAccess::Preprocessing(tracker, frame, owned.back().get());
    preprocessed.push_back(owned.back().get());
  }
  std::vector<CandidateAreaImage*> candidates;
  ClubTrackerTestAccess::FindCandidateArea(tracker, preprocessed, candidates);
  std::vector<cv::Mat> masks;
  for (CandidateAreaImage* area : candidates) {
    const std::unique_ptr<CandidateAreaImage> release(area);
    masks.push_back(area->image);
  }
  return masks;
}
