// Triangulating the head's positions in both cameras.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>

#include "reconstruction/geometry.h"

#include "template/head_common.h"

namespace headtrack {

using namespace detail;

StereoRig MakeStereoRig(const ClubTrackerSetting& setting) {
  StereoRig rig;
  MakeCameraMatrices(setting.cam1Intrinsic, setting.cam1Extrinsic, rig.intrinsic[0],
                     rig.rotationToWorld[0], rig.center[0]);
  MakeCameraMatrices(setting.cam2Intrinsic, setting.cam2Extrinsic, rig.intrinsic[1],
                     rig.rotationToWorld[1], rig.center[1]);
  return rig;
}

bool Triangulate(const StereoRig& rig, const cv::Point2d& pixel1, const cv::Point2d& pixel2,
                 cv::Vec3d& world, double& rayGap) {
  double p1[3] = {pixel1.x, pixel1.y, 1.0};
  double p2[3] = {pixel2.x, pixel2.y, 1.0};
  double out[3] = {0.0, 0.0, 0.0};
  cv::Mat point1(3, 1, CV_64F, p1);
  cv::Mat point2(3, 1, CV_64F, p2);
  cv::Mat result(3, 1, CV_64F, out);
  float quality = 0.0f;
  const int ok = ImageProcess::Coordinate2DTO3D(
      rig.intrinsic[0], rig.rotationToWorld[0], rig.center[0], point1, rig.intrinsic[1],
      rig.rotationToWorld[1], rig.center[1], point2, result, quality);
  if (ok == 0) return false;
  if (!std::isfinite(out[0]) || !std::isfinite(out[1]) || !std::isfinite(out[2])) return false;
  world = cv::Vec3d(out[0], out[1], out[2]);
  rayGap = quality;
  return true;
}

std::vector<HeadSample> TriangulateTrack(const StereoRig& rig,
                                         const std::vector<CameraFrame>& frames1,
                                         const std::vector<CameraFrame>& frames2,
                                         const std::vector<int>& list, const CameraTrack& track1,
                                         const CameraTrack& track2) {
  std::vector<HeadSample> samples;
  const int n = static_cast<int>(list.size());
  for (int j = 0; j < n; ++j) {
    if (!track1.tracked[j] || !track2.tracked[j]) continue;
    const CameraFrame& f1 = frames1[list[j]];
    const CameraFrame& f2 = frames2[list[j]];
    // Camera 2's image velocity from its neighbouring tracked frames.
    const int before = j > 0 && track2.tracked[j - 1] ? j - 1 : j;
    const int after = j + 1 < n && track2.tracked[j + 1] ? j + 1 : j;
    cv::Point2d position2 = track2.position[j];
    if (after != before) {
      const double dt = frames2[list[after]].time - frames2[list[before]].time;
      if (dt != 0.0) {
        position2 += (track2.position[after] - track2.position[before]) *
                     ((f1.time - f2.time) / dt);
      }
    }
    HeadSample sample;
    if (!Triangulate(rig, f1.origin + track1.position[j], f2.origin + position2, sample.point,
                     sample.rayGap)) {
      continue;
    }
    sample.pair = list[j];
    sample.quality = std::min(track1.quality[j], track2.quality[j]);
    sample.time = f1.time;
    samples.push_back(sample);
  }
  return samples;
}

}  // namespace headtrack
