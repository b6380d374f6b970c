// The template tracking path.
#include "tracker/records.h"

int ClubTracker::FindbyTemplate(std::vector<ClubImage*> cam1Images,
                                std::vector<ClubImage*> cam2Images, double& clubHeadSpeed) {
  (void)cam1Images;
  (void)cam2Images;
  clubHeadSpeed = 0.0;
  return 0;
}

int ClubTracker::FindHeadAndCalculate(const std::vector<ClubImage*>& cam1Images,
                                      const std::vector<ClubImage*>& cam2Images,
                                      ClubTrackerResult& result) {
  (void)cam1Images;
  (void)cam2Images;
  (void)result;
  return 0;
}
