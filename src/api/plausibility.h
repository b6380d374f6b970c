// What makes a measured number suspect, in words for a report's warnings.
#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "clubtracker/measure.h"

namespace clubtracker {

// Plausible club-head speeds, m/s: below a putt's and above any golfer's.
inline constexpr double kPlausibleSpeedMinMps = 5.0;
inline constexpr double kPlausibleSpeedMaxMps = 100.0;

// Appends a warning for each speed of the report that is not finite or lies
// outside the plausible range (a speed of 0.0 means none and is not flagged).
void AddPlausibilityWarnings(SwingReport& report);

// Whether a speed in world units per time-stamp unit is suspect; `why` says
// how, e.g. "230.12 m/s is outside the plausible 5 to 100 m/s".
bool SuspectSpeed(double speed, std::string* why);

// Appends a warning for every number of `json` that is not finite (JSON writes
// it as null), naming its key path.
void NoteNonFiniteNumbers(const nlohmann::json& json, std::vector<std::string>& warnings);

}  // namespace clubtracker
