// The adaptive shaft-line extraction of the Find driver: each camera's line
// size is tuned over up to ten passes until both cameras give between 2n and
// 4n lines for n frames and at least three frames before the impact have lines
// in both cameras.
#pragma once

#include <functional>
#include <vector>

#include <opencv2/core.hpp>

#include "analysis/binary_morphology.h"
#include "analysis/hough.h"
#include "tracker/records.h"

// The Hough vote threshold of a frame for a line size (the tracker's
// GetLineThreshold).
using LineThreshold = std::function<int(CandidateAreaImage*, float)>;
// Another way to extract one frame's lines for a vote threshold (appending
// to its record), run in each pass instead of the frame's votes.
using LineExtractor = std::function<void(CandidateAreaImage*, int)>;

class LinePasses {
 public:
  static constexpr int kMaxPasses = 10;
  static constexpr float kInitialLineSize = 4.5f;
  static constexpr double kSizeGrowth = 1.1;  // for too few lines or pairs

  // The masks of `cam1` and `cam2` (equal lengths) must not change while the
  // passes run: each frame's edge map and its Hough votes are made here, once,
  // and serve every pass. With `extract` given, each pass calls it for every
  // frame of a camera it redoes instead.
  LinePasses(LineThreshold threshold, const std::vector<CandidateAreaImage*>& cam1,
             const std::vector<CandidateAreaImage*>& cam2, LineExtractor extract = nullptr);

  // One pass: extracts the lines of each camera marked for it, then counts.
  void Extract();
  // Marks the cameras to redo and adapts their line sizes (emptying their
  // lines); after the last pass keeps foundPair only when both counts are in
  // range.
  void Decide();
  bool Again() const { return redo_[0] != 0 || redo_[1] != 0; }

  int pass() const { return pass_; }
  float lineSize(int camera) const { return lineSize_[camera]; }
  int lineCount(int camera) const { return lineCount_[camera]; }
  int foundPair() const { return foundPair_; }

  // The masks of a camera as bit planes, packed when the votes were made
  // (made[k] 0 for a mask that is not 0/255, and for all of them when an
  // extractor was given): moved out into `planes` and `made`.
  void TakePlanes(int camera, std::vector<BitMask>& planes, std::vector<char>& made);

 private:
  LineThreshold threshold_;
  LineExtractor extract_;
  const std::vector<CandidateAreaImage*>* areas_[2];
  std::vector<HoughVotes> votes_[2];  // of each frame's edge map
  std::vector<BitMask> planes_[2];     // of each frame's mask
  std::vector<char> planeMade_[2];
  std::vector<int> thresholds_;  // of each frame in the current pass
  int frames_ = 0;
  int pass_ = 0;
  float lineSize_[2] = {kInitialLineSize, kInitialLineSize};
  int redo_[2] = {1, 1};
  int lineCount_[2] = {0, 0};
  int foundPair_ = 0;
};
