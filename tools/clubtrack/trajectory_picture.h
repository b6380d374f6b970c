// The club delivery's picture on the contact sheet.
#pragma once

#include <opencv2/core.hpp>

#include "clubtracker/measure.h"

// The head centre's tracked positions with the fitted arc, its low point, the
// ball and the target line, from above and from the side (BGR). Empty when
// the head was not tracked.
cv::Mat TrajectoryPicture(const clubtracker::ClubDelivery& delivery,
                          const clubtracker::MeasureOptions& options);

// `bottom` under `top` (both BGR), on the sheet's background.
cv::Mat AppendBelow(const cv::Mat& top, const cv::Mat& bottom);
