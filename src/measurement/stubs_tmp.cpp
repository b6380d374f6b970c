#include "tracker/records.h"
int ClubTracker::FindShaftAndHead(const std::vector<CandidateAreaImage*>&, const std::vector<CandidateAreaImage*>&, const ClubSpinAxis3D&, ClubTrackerResult&) { return 0; }
