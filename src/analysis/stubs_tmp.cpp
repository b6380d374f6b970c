#include "tracker/records.h"
int ClubTracker::FindCandidateArea(const std::vector<PreprocessedImage*>&, std::vector<CandidateAreaImage*>&) { return 1; }
int ClubTracker::GetLineThreshold(CandidateAreaImage*, float) { return 0; }
int ClubTracker::ExtractCandidates(CandidateAreaImage*, int) { return 0; }
int ClubTracker::ExtractDriverHeadArea(CandidateAreaImage*, int&) { return 0; }
int ClubTracker::DeleteDriverHeadArea(CandidateAreaImage*, int) { return 0; }
