// The club delivery at impact from the head's tracked path: impact instant,
// velocity, swing plane, low point, with their standard errors.
#pragma once

#include <vector>

#include "clubtracker/ClubTracker.h"
#include "clubtracker/measure.h"

namespace clubtracker {

// The delivery of the swing in the paired frames `cam1`, `cam2`. A value that
// cannot be measured is left empty with a note saying why.
ClubDelivery EstimateDelivery(const std::vector<ClubImage*>& cam1,
                              const std::vector<ClubImage*>& cam2,
                              const ClubTrackerSetting& setting, const MeasureOptions& options);

}  // namespace clubtracker
