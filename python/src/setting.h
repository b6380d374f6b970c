// The tracker's setting as a Python dict keyed by the ClubTrackerSetting
// field names, both ways.
#pragma once

#include <pybind11/pybind11.h>

#include "clubtracker/ClubTracker.h"

namespace clubtracker_python {

// The defaults of InitClubTrackerSetting with the dict's keys applied. Raises
// ValueError for an unknown key, a wrong count or a value that is not a
// finite number.
ClubTrackerSetting SettingFromDict(const pybind11::dict& values);

// Every field except the log callback.
pybind11::dict SettingToDict(const ClubTrackerSetting& setting);

}  // namespace clubtracker_python
