// Candidate-area masks (change masks) from the tracker's own first two
// stages: of one camera of a recording, and of both cameras of the near and
// the far synthetic swing (rendered once per test binary; real inputs for the
// identity tests of the exact image operations).
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

inline const std::vector<cv::Mat>& SwingChangeMasks() {
  static const std::vector<cv::Mat> masks = [] {
    std::vector<cv::Mat> out;
    for (const synth::Placement placement : {synth::Placement::kNear, synth::Placement::kFar}) {
      synth::Recording recording = synth::Render({.placement = placement});
      for (int camera = 0; camera < 2; ++camera) {
        for (cv::Mat& mask : CameraChangeMasks(recording, camera)) out.push_back(mask);
      }
    }
    return out;
  }();
  return masks;
}
