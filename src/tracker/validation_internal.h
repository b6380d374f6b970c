// The parts of the input checks that Find and the region cut use on their own.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "clubtracker/validation.h"

namespace clubtracker {

// Whether the setting's region of interest lies within a width x height frame,
// computed without overflow.
bool RegionWithin(const ClubTrackerSetting& setting, uint64_t width, uint64_t height);

// Raises OpenCV's range error (cv::Exception) naming the region and the frame size when the region
// leaves the frame.
void RequireRegionWithin(const ClubTrackerSetting& setting, int width, int height);

// Region of interest (also against each camera's frames), intervals and axes.
bool CheckGeometry(const ClubTrackerSetting& setting, const std::vector<ClubImage*>& cam1,
                   const std::vector<ClubImage*>& cam2, std::vector<std::string>& problems);

// Both cameras' calibration.
bool CheckCalibration(const ClubTrackerSetting& setting, std::vector<std::string>& problems);

}  // namespace clubtracker
