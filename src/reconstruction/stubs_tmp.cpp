#include "tracker/records.h"
int ClubTracker::SelectSpinAxisInliers(const std::vector<CandidateAreaImage*>&, const std::vector<CandidateAreaImage*>&, std::vector<ClubSpinAxis3D>&) { return 1; }
int ClubTracker::FindClubSpinAxis(const std::vector<CandidateAreaImage*>&, const std::vector<CandidateAreaImage*>&, ClubSpinAxis3D&) { return 0; }
