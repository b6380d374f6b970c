// Checks of a tracker setting and of a swing's frames, as plain-language
// reasons. Find logs these same lines ("ClubTracker::Find: <reason>") before
// it goes on; a host can run them first to refuse bad input itself.
#pragma once

#include <string>
#include <vector>

#include "clubtracker/ClubTracker.h"

namespace clubtracker {

// The setting alone: region of interest (non-negative, within the int range),
// time-stamp intervals (positive), axisIndex and axisNormIndex (0..2), and both
// cameras' calibration (finite values, invertible intrinsic matrix). Appends one
// line per problem to `problems`; returns true when it found none. Never throws.
CLUBTRACKER_API bool ValidateSetting(const ClubTrackerSetting& setting,
                                     std::vector<std::string>& problems);

// The same, and the region of interest against each camera's frame size (the
// size of the camera's first frame with one).
CLUBTRACKER_API bool ValidateSetting(const ClubTrackerSetting& setting,
                                     const std::vector<ClubImage*>& cam1,
                                     const std::vector<ClubImage*>& cam2,
                                     std::vector<std::string>& problems);

// Both cameras' frames: no null frame, pixels present, width and height above
// 0, 1 byte per channel, 1, 3 or 4 channels, one size per camera and strictly
// increasing time stamps per camera. Appends one line per problem; returns true
// when it found none. Never throws.
CLUBTRACKER_API bool ValidateFrames(const std::vector<ClubImage*>& cam1,
                                    const std::vector<ClubImage*>& cam2,
                                    std::vector<std::string>& problems);

}  // namespace clubtracker
