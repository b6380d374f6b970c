// Test-only access to the tracker's private stages.
#pragma once

#include <vector>

#include "tracker/records.h"

struct ClubTrackerTestAccess {
  static int Preprocessing(ClubTracker& t, ClubImage* s, PreprocessedImage* p) {
    return t.Preprocessing(s, p);
  }
  static int FindCandidateArea(ClubTracker& t, const std::vector<PreprocessedImage*>& f,
                               std::vector<CandidateAreaImage*>& c) {
    return t.FindCandidateArea(f, c);
  }
  static int GetLineThreshold(ClubTracker& t, CandidateAreaImage* c, float divisor) {
    return t.GetLineThreshold(c, divisor);
  }
  static int ExtractCandidates(ClubTracker& t, CandidateAreaImage* c, int threshold) {
    return t.ExtractCandidates(c, threshold);
  }
  static int ExtractDriverHeadArea(ClubTracker& t, CandidateAreaImage* c, int& thickness) {
    return t.ExtractDriverHeadArea(c, thickness);
  }
  static int DeleteDriverHeadArea(ClubTracker& t, CandidateAreaImage* c, int radius) {
    return t.DeleteDriverHeadArea(c, radius);
  }
  static int SelectSpinAxisInliers(ClubTracker& t, const std::vector<CandidateAreaImage*>& a,
                                   const std::vector<CandidateAreaImage*>& b,
                                   std::vector<ClubSpinAxis3D>& axes) {
    return t.SelectSpinAxisInliers(a, b, axes);
  }
  static int FindClubSpinAxis(ClubTracker& t, const std::vector<CandidateAreaImage*>& a,
                              const std::vector<CandidateAreaImage*>& b, ClubSpinAxis3D& axis) {
    return t.FindClubSpinAxis(a, b, axis);
  }
  static int FindShaftAndHead(ClubTracker& t, const std::vector<CandidateAreaImage*>& a,
                              const std::vector<CandidateAreaImage*>& b,
                              const ClubSpinAxis3D& axis, ClubTrackerResult& result) {
    return t.FindShaftAndHead(a, b, axis, result);
  }
  static int FindHeadAndCalculate(ClubTracker& t, const std::vector<ClubImage*>& a,
                                  const std::vector<ClubImage*>& b, ClubTrackerResult& r) {
    return t.FindHeadAndCalculate(a, b, r);
  }
};
