// The inputs of the spin-axis search: Find's stages from the pairing of the
// frames to the last pass of the line extraction, driven through the test
// access, and candidate areas carrying a synthetic swing's truth.
#pragma once

#include <algorithm>
#include <memory>
#include <opencv2/core.hpp>
#include <vector>

#include "analysis/analysis.h"
#include "harness/offline.h"
#include "support/access.h"
#include "synth/swing.h"
#include "tracker/find_lines.h"
#include "tracker/records.h"

namespace reference {

// The candidate areas of both cameras after Find's line extraction, owned.
struct Candidates {
  std::vector<std::unique_ptr<PreprocessedImage>> pre;
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  std::vector<CandidateAreaImage*> cam1;
  std::vector<CandidateAreaImage*> cam2;
  int passes = 0;
};

inline int AgreedHeadSize(const std::vector<int>& sizes) {
  std::vector<int> positive;
  for (const int size : sizes) {
    if (size > 0) positive.push_back(size);
  }
  if (positive.empty()) return 0;
  std::sort(positive.begin(), positive.end());
  return positive[(2 * positive.size()) / 3];
}

// The line passes' bookkeeping as the driver states it, for the literal chain.
inline int CountLines(const std::vector<CandidateAreaImage*>& areas) {
  size_t total = 0;
  for (const CandidateAreaImage* area : areas) total += area->lines.size();
  return static_cast<int>(total);
}

inline void AdaptLineSize(int foundPair, int lineCount, int frames, float& lineSize, int& redo,
                          const std::vector<CandidateAreaImage*>& areas) {
  if (foundPair >= 3 && lineCount >= 2 * frames) {
    if (lineCount <= 4 * frames) return;
    lineSize = static_cast<float>(static_cast<double>(lineSize) - 0.2);
  } else {
    lineSize = static_cast<float>(static_cast<double>(lineSize) * 1.1);
  }
  redo = 1;
  for (CandidateAreaImage* area : areas) area->lines.clear();
}

// Find's stages from the pairing to the last pass of the line extraction.
// False when Find would stop before the spin axis.
inline bool ExtractLines(ClubTracker& tracker, const std::vector<ClubImage*>& images1,
                         const std::vector<ClubImage*>& images2, Candidates& out) {
  std::vector<ClubImage*> pairs1;
  std::vector<ClubImage*> pairs2;
  PairFrames(images1, images2, pairs1, pairs2);
  std::vector<PreprocessedImage*> pre[2];
  for (int c = 0; c < 2; ++c) {
    for (ClubImage* image : c == 0 ? pairs1 : pairs2) {
      out.pre.push_back(std::make_unique<PreprocessedImage>());
      ClubTrackerTestAccess::Preprocessing(tracker, image, out.pre.back().get());
      pre[c].push_back(out.pre.back().get());
    }
  }
  for (int c = 0; c < 2; ++c) {
    std::vector<CandidateAreaImage*>& cand = c == 0 ? out.cam1 : out.cam2;
    const int found = ClubTrackerTestAccess::FindCandidateArea(tracker, pre[c], cand);
    for (CandidateAreaImage* area : cand) out.owned.emplace_back(area);
    if (found == 0) return false;
  }
  if (out.cam1.size() != out.cam2.size() || out.cam1.empty()) return false;
  const int n = static_cast<int>(out.cam1.size());

  std::vector<cv::Mat> masks[2] = {std::vector<cv::Mat>(n), std::vector<cv::Mat>(n)};
  int bothPresent = 0;
  for (int k = 0; k < n; ++k) {
    int present1 = 0;
    int present2 = 0;
    RefineCandidateMask(out.cam1[k]->image, masks[0][k], &present1);
    RefineCandidateMask(out.cam2[k]->image, masks[1][k], &present2);
    if (present1 == 1 && present2 == 1) ++bothPresent;
  }
  int head[2] = {0, 0};
  if (bothPresent > 10) {
    for (int c = 0; c < 2; ++c) {
      std::vector<int> sizes(n, 0);
      MeasureHeadSizes(tracker, c == 0 ? out.cam1 : out.cam2, masks[c], sizes);
      head[c] = AgreedHeadSize(sizes);
    }
    if (head[0] <= 0 || head[1] <= 0) return false;
  }
  for (int k = 0; k < n; ++k) {
    ClubTrackerTestAccess::DeleteDriverHeadArea(tracker, out.cam1[k], head[0]);
    ClubTrackerTestAccess::DeleteDriverHeadArea(tracker, out.cam2[k], head[1]);
  }

  LinePasses passes(
      [&tracker](CandidateAreaImage* area, float lineSize) {
        return ClubTrackerTestAccess::GetLineThreshold(tracker, area, lineSize);
      },
      out.cam1, out.cam2);
  do {
    passes.Extract();
    passes.Decide();
  } while (passes.Again());
  out.passes = passes.pass();
  return passes.foundPair() >= 3;
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
