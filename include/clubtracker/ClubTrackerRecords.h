// Special members of ClubFrameResult and ClubTrackerResult; ClubTracker.h
// includes this file. A host sees them inline, so one that only loads the
// library with dlopen() can create, move and destroy results. The library
// compiles the same definitions once out of line (CLUBTRACKER_RECORD_INLINE
// empty) and exports them, so hosts linked against it keep resolving them.
//
// Memory rule shared by both sides: `frames` is made with array new, each
// entry's image.pixels and rawPixels with array new of unsigned char.
#pragma once

#include <utility>

#include "clubtracker/ClubTracker.h"

#ifndef CLUBTRACKER_RECORD_INLINE
#define CLUBTRACKER_RECORD_INLINE inline
#endif

CLUBTRACKER_RECORD_INLINE ClubFrameResult::ClubFrameResult()
    : camera(0), frameNumber(0), hasShaft(0), spare(0), head{0.0f, 0.0f, 0.0f},
      image{}, rawPixels(nullptr) {}

CLUBTRACKER_RECORD_INLINE ClubFrameResult::~ClubFrameResult() { delete[] rawPixels; }

CLUBTRACKER_RECORD_INLINE ClubTrackerResult::ClubTrackerResult()
    : frameCount(0), frames(nullptr), headRadius(0.0f), angularVelocity(0.0f),
      axisDirection{0.0f, 0.0f, 0.0f}, axisPosition{0.0f, 0.0f, 0.0f},
      speedFrameFrom(0), speedFrameTo(0), clubHeadSpeed(0.0) {}

CLUBTRACKER_RECORD_INLINE ClubTrackerResult::~ClubTrackerResult() { ReleaseFrames(); }

CLUBTRACKER_RECORD_INLINE ClubTrackerResult::ClubTrackerResult(ClubTrackerResult&& other) noexcept
    : ClubTrackerResult() {
  *this = std::move(other);
}

CLUBTRACKER_RECORD_INLINE ClubTrackerResult& ClubTrackerResult::operator=(
    ClubTrackerResult&& other) noexcept {
  if (this == &other) return *this;
  ReleaseFrames();
  frameCount = std::exchange(other.frameCount, 0);
  frames = std::exchange(other.frames, nullptr);
  headRadius = other.headRadius;
  angularVelocity = other.angularVelocity;
  for (int i = 0; i < 3; ++i) {
    axisDirection[i] = other.axisDirection[i];
    axisPosition[i] = other.axisPosition[i];
  }
  speedFrameFrom = other.speedFrameFrom;
  speedFrameTo = other.speedFrameTo;
  clubHeadSpeed = other.clubHeadSpeed;
  return *this;
}

CLUBTRACKER_RECORD_INLINE void ClubTrackerResult::ReleaseFrames() {
  if (frames != nullptr) {
    // The array was made with array new, so its element count is known to the
    // allocator; frameCount may have been changed by the caller.
    for (ClubFrameResult* f = frames; frameCount > 0 && f != frames + frameCount; ++f) {
      delete[] f->image.pixels;
      f->image.pixels = nullptr;
    }
    delete[] frames;
  }
  frames = nullptr;
  frameCount = 0;
}
