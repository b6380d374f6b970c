#include "delivery/delivery.h"

namespace clubtracker {

ClubDelivery EstimateDelivery(const std::vector<ClubImage*>& cam1,
                              const std::vector<ClubImage*>& cam2,
                              const ClubTrackerSetting& setting, const MeasureOptions& options) {
  (void)cam1;
  (void)cam2;
  (void)setting;
  (void)options;
  ClubDelivery delivery;
  delivery.notes.push_back("club delivery: not measured by this build");
  return delivery;
}

}  // namespace clubtracker
