// Pairing of the two cameras' frames by time stamp.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "clubtracker/ClubTracker.h"

// Frames whose time stamps differ by at most this many units are one pair.
constexpr int64_t kFramePairTolerance = 10;

// Walks both cameras' frames in capture order and keeps the frames whose time
// stamps (signed 64-bit difference) lie within kFramePairTolerance of each
// other; the camera that is behind skips its frame. The lists end at the first
// exhausted camera; a null frame ends the pairing. `Image` is ClubImage or
// const ClubImage.
template <typename Image>
void PairFrames(const std::vector<ClubImage*>& cam1, const std::vector<ClubImage*>& cam2,
                std::vector<Image*>& pairs1, std::vector<Image*>& pairs2) {
  pairs1.clear();
  pairs2.clear();
  size_t i = 0;
  size_t j = 0;
  while (i < cam1.size() && j < cam2.size()) {
    ClubImage* a = cam1[i];
    ClubImage* b = cam2[j];
    if (a == nullptr || b == nullptr) break;
    // Both differences wrap like the signed difference and its negation, without
    // overflowing for the most negative one.
    const int64_t ahead = static_cast<int64_t>(a->timeStamp - b->timeStamp);
    const int64_t behind = static_cast<int64_t>(b->timeStamp - a->timeStamp);
    if (ahead > kFramePairTolerance) {
      ++j;  // camera 2 is behind
    } else if (behind > kFramePairTolerance) {
      ++i;  // camera 1 is behind
    } else {
      pairs1.push_back(a);
      pairs2.push_back(b);
      ++i;
      ++j;
    }
  }
}
