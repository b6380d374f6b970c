// The club delivery at impact from the head's tracked path: impact instant,
// velocity, swing plane, low point, with their standard errors.
#pragma once

#include <vector>

#include "clubtracker/ClubTracker.h"
#include "clubtracker/measure.h"
#include "template/head_tracker.h"

namespace clubtracker {

// The delivery of the swing whose head `head` measured (with the calibration
// of `setting`). A value that cannot be measured is left empty with a note
// saying why.
ClubDelivery EstimateDelivery(const headtrack::HeadMeasurement& head,
                              const ClubTrackerSetting& setting, const MeasureOptions& options);

}  // namespace clubtracker
