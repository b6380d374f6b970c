// The Find pipeline driver.
#include "tracker/records.h"

int ClubTracker::Find(std::vector<ClubImage*> cam1Images, std::vector<ClubImage*> cam2Images,
                      ClubTrackerResult& result, unsigned int timeLimit) {
  (void)cam1Images;
  (void)cam2Images;
  (void)result;
  (void)timeLimit;
  return 0;
}
