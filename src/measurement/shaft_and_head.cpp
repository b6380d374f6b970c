// Shaft directions, spin-axis direction, head positions, annotated result
// images and the club-head speed, from the spin axis of the swing.
//
// All geometry runs on 3x1 cv::Mat in double precision with OpenCV's own
// arithmetic (Mat::dot, cv::norm, Mat::cross, matrix expressions), so that the
// stored values are those of the matrix library. The stage runs once per swing
// on a few tens of vectors; it is not a hot path.
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <utility>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <tbb/parallel_for.h>

#include "reconstruction/geometry.h"
#include "tracker/records.h"

namespace {

// Scales `v` to unit length: divided by the square root of its dot product
// with itself, as a scaling conversion and without an epsilon guard.
void Normalise(cv::Mat& v) { v.convertTo(v, -1, 1.0 / std::sqrt(v.dot(v)), 0.0); }

cv::Mat Column(const double xyz[3]) {
  return (cv::Mat_<double>(3, 1) << xyz[0], xyz[1], xyz[2]);
}

// Truncation toward zero; values that do not fit (and NaN) give INT_MIN, as
// the processor's truncating conversion does.
int TruncToInt(double x) {
  if (!(x > -2147483649.0 && x < 2147483648.0)) return INT32_MIN;
  return static_cast<int>(x);
}

// a - b on 32-bit ints with two's-complement wrap-around.
int WrapSub(int a, int b) {
  return static_cast<int>(static_cast<int64_t>(a) - static_cast<int64_t>(b));
}

// Image point of the Hough line (rho, theta) at 1000 pixels from its foot
// point: cosine and sine in single precision, the point in double.
cv::Mat LinePoint(cv::Vec2f line) {
  const float c = cosf(line[1]);
  const float s = sinf(line[1]);
  const double rho = line[0];
  const double cd = c;
  const double sd = s;
  return (cv::Mat_<double>(3, 1) << rho * cd - 1000.0 * sd, rho * sd + 1000.0 * cd, 1.0);
}

// Unit normal of the plane through the camera centre, the pivot (offset
// `toPivot` = pivot - centre) and the back-projected line point.
cv::Mat ShaftPlaneNormal(const cv::Mat& toPivot, const cv::Mat& rayMatrix, cv::Vec2f line) {
  const cv::Mat ray = rayMatrix * LinePoint(line);
  cv::Mat normal = toPivot.cross(ray);
  Normalise(normal);
  return normal;
}

// Draws one inlier's shaft line and projected head into a result image and
// returns the projected head (full-sensor pixel x, y and the third component).
cv::Mat DrawInlier(cv::Mat& canvas, cv::Vec2f line, const cv::Mat& head,
                   const CameraGeometry& camera, const CandidateAreaImage& area) {
  const float c = cosf(line[1]);
  const float s = sinf(line[1]);
  const double rho = line[0];
  const double cd = c;
  const double sd = s;
  const cv::Point end1(WrapSub(cvRound(-1000.0 * sd + rho * cd), area.sensorOffsetX),
                       WrapSub(cvRound(1000.0 * cd + rho * sd), area.sensorOffsetY));
  const cv::Point end2(WrapSub(cvRound(rho * cd + 1000.0 * sd), area.sensorOffsetX),
                       WrapSub(cvRound(rho * sd - 1000.0 * cd), area.sensorOffsetY));
  cv::line(canvas, end1, end2, cv::Scalar(0, 0, 255), 1, 8, 0);

  cv::Mat q = camera.intrinsic * camera.rotationToWorld.t() * (head - camera.center);
  q = q / q.at<double>(2);
  const cv::Point centre(TruncToInt(q.at<double>(0) - area.sensorOffsetX),
                         TruncToInt(q.at<double>(1) - area.sensorOffsetY));
  cv::circle(canvas, centre, 2, cv::Scalar(0, 255, 0), 1, 8, 0);
  return q;
}

// The inputs that Find hands over always fit together; anything else is
// refused before the result is touched.
bool InputsConsistent(const std::vector<CandidateAreaImage*>& cam1,
                      const std::vector<CandidateAreaImage*>& cam2,
                      const ClubSpinAxis3D& axis) {
  if (cam1.size() != cam2.size()) return false;
  for (size_t j = 0; j < cam1.size(); ++j) {
    if (cam1[j] == nullptr || cam2[j] == nullptr) return false;
  }
  if (axis.inliers.size() > cam1.size()) return false;
  for (const SpinAxisInlier& inlier : axis.inliers) {
    if (inlier.frame < 0 || static_cast<size_t>(inlier.frame) >= cam1.size()) return false;
  }
  return true;
}

// Pixel buffers of an entry of the previous result, kept for the entry of the
// same index when its image has the same size (the buffers are array-new and
// stay owned by the result).
struct KeptBuffers {
  std::unique_ptr<unsigned char[]> image;
  size_t imageBytes = 0;
  std::unique_ptr<unsigned char[]> raw;  // image width * height
  uint32_t width = 0, height = 0;
};

std::vector<KeptBuffers> TakeBuffers(ClubTrackerResult& result) {
  std::vector<KeptBuffers> kept;
  if (result.frames == nullptr || result.frameCount <= 0) return kept;
  kept.resize(static_cast<size_t>(result.frameCount));
  for (int e = 0; e < result.frameCount; ++e) {
    ClubFrameResult& entry = result.frames[e];
    KeptBuffers& buffers = kept[static_cast<size_t>(e)];
    buffers.width = entry.image.width;
    buffers.height = entry.image.height;
    buffers.imageBytes = static_cast<size_t>(entry.image.width) * entry.image.height *
                         entry.image.channels * entry.image.bytesPerChannel;
    buffers.image.reset(std::exchange(entry.image.pixels, nullptr));
    buffers.raw.reset(std::exchange(entry.rawPixels, nullptr));
  }
  return kept;
}

void CopyFrameImage(const CandidateAreaImage& area, ClubFrameResult& entry,
                    std::vector<KeptBuffers>& kept, size_t index) {
  KeptBuffers* old = index < kept.size() ? &kept[index] : nullptr;
  const cv::Mat& grey = area.image;
  const size_t bytes = grey.total() * 3;
  if (old != nullptr && old->image && old->imageBytes == bytes && grey.type() == CV_8UC1 &&
      !grey.empty()) {
    // Same size as before: the colour copy is written straight into the kept
    // buffer.
    cv::Mat bgr(grey.rows, grey.cols, CV_8UC3, old->image.get());
    cv::cvtColor(grey, bgr, cv::COLOR_GRAY2BGR, 0);
    if (bgr.data != old->image.get()) std::memcpy(old->image.get(), bgr.data, bytes);
    entry.image.pixels = old->image.release();
    entry.image.width = static_cast<uint32_t>(grey.cols);
    entry.image.height = static_cast<uint32_t>(grey.rows);
  } else {
    cv::Mat bgr;
    cv::cvtColor(grey, bgr, cv::COLOR_GRAY2BGR, 0);
    entry.image.width = static_cast<uint32_t>(bgr.cols);
    entry.image.height = static_cast<uint32_t>(bgr.rows);
    const size_t size = static_cast<size_t>(bgr.cols) * static_cast<size_t>(bgr.rows) * 3;
    // The result owns the buffer and releases it with array delete.
    entry.image.pixels = new unsigned char[size];
    if (size > 0) std::memcpy(entry.image.pixels, bgr.data, size);
  }
  entry.image.bytesPerChannel = 1;
  entry.image.channels = 3;
  CopyMetadata(entry.image, area);
  // Find refills the raw pixels; a kept buffer of the same size serves it.
  if (old != nullptr && old->raw && old->width == entry.image.width &&
      old->height == entry.image.height) {
    entry.rawPixels = old->raw.release();
  }
}

void StoreHead(float head[3], const cv::Mat& point) {
  for (int i = 0; i < 3; ++i) head[i] = static_cast<float>(point.at<double>(i));
}

}  // namespace

int ClubTracker::FindShaftAndHead(const std::vector<CandidateAreaImage*>& cam1,
                                  const std::vector<CandidateAreaImage*>& cam2,
                                  const ClubSpinAxis3D& axis, ClubTrackerResult& result) {
  Log("FindShaftAndHead start");
  if (referencePoint[0] == 0.0 && referencePoint[1] == 0.0 && referencePoint[2] == 0.0) {
    return 0;
  }
  if (!InputsConsistent(cam1, cam2, axis)) {
    Log("FindShaftAndHead: frame lists and spin-axis inliers do not match");
    return 0;
  }

  const cv::Mat pivot = Column(axis.pivot);
  const cv::Mat reference = Column(referencePoint);
  const double radius = cv::norm(cv::Mat(pivot - reference));

  // Step 1: camera geometry.
  const CameraGeometry camera1 = MakeCameraGeometry(setting.cam1Intrinsic, setting.cam1Extrinsic);
  const CameraGeometry camera2 = MakeCameraGeometry(setting.cam2Intrinsic, setting.cam2Extrinsic);
  const cv::Mat toPivot1 = pivot - camera1.center;
  const cv::Mat toPivot2 = pivot - camera2.center;

  // Step 2: the result frames, rebuilt with a colour copy of every area image.
  const size_t count1 = cam1.size();
  const size_t count2 = cam2.size();
  std::vector<KeptBuffers> kept = TakeBuffers(result);
  result.ReleaseFrames();
  result.frames = new ClubFrameResult[count1 + count2];
  result.frameCount = static_cast<int32_t>(count1 + count2);
  // Entries spread over the cores: each touches only its own entry and kept
  // buffers.
  tbb::parallel_for(size_t{0}, count1 + count2, [&](size_t e) {
    ClubFrameResult& entry = result.frames[e];
    entry.frameNumber = static_cast<int32_t>(e);
    if (e < count1) {
      CopyFrameImage(*cam1[e], entry, kept, e);
    } else {
      entry.camera = 1;
      CopyFrameImage(*cam2[e - count1], entry, kept, e);
    }
  });

  // Step 3: one shaft direction per inlier.
  const std::vector<SpinAxisInlier>& inliers = axis.inliers;
  const int count = static_cast<int>(inliers.size());
  cv::Mat directions(count, 3, CV_64F);
  for (int k = 0; k < count; ++k) {
    const cv::Mat n1 = ShaftPlaneNormal(toPivot1, camera1.rayMatrix, inliers[k].cam1Line);
    const cv::Mat n2 = ShaftPlaneNormal(toPivot2, camera2.rayMatrix, inliers[k].cam2Line);
    cv::Mat d = n1.cross(n2);
    Normalise(d);
    for (int i = 0; i < 3; ++i) directions.at<double>(k, i) = d.at<double>(i);
  }

  // Step 4: the axis direction.
  if (count < 2) return 0;
  cv::Mat axisDirection;
  if (count == 2) {
    axisDirection = directions.row(0).cross(directions.row(1));
  } else {
    const cv::SVD svd(directions, cv::SVD::FULL_UV);
    axisDirection = svd.vt.row(svd.vt.rows - 1).clone();
  }
  axisDirection = axisDirection.reshape(1, 3);
  Normalise(axisDirection);
  const int normIndex = setting.axisNormIndex;
  if (normIndex < 0 || normIndex > 2 || std::fabs(axisDirection.at<double>(normIndex)) < 0.5) {
    Log("Invalid axis norm");
    return 0;
  }
  Log("Axis pos: %f, %f, %f, norm: %f, %f, %f\n", axis.pivot[0], axis.pivot[1], axis.pivot[2],
      axisDirection.at<double>(0), axisDirection.at<double>(1), axisDirection.at<double>(2));
  for (int i = 0; i < 3; ++i) {
    result.axisDirection[i] = static_cast<float>(axisDirection.at<double>(i));
    result.axisPosition[i] = static_cast<float>(axis.pivot[i]);
  }

  // Step 5: frames that carry a shaft.
  for (const SpinAxisInlier& inlier : inliers) {
    result.frames[inlier.frame].hasShaft = 1;
    result.frames[count1 + inlier.frame].hasShaft = 1;
  }

  // Step 6: head point per inlier, at the ball's radius from the pivot, on the
  // pivot's ball side.
  const cv::Mat pivotToBall = pivot - reference;
  std::vector<cv::Mat> heads;
  heads.reserve(inliers.size());
  for (int k = 0; k < count; ++k) {
    const cv::Mat shaft = directions.row(k).t();
    const cv::Mat across = shaft - (shaft.dot(axisDirection) / axisDirection.dot(axisDirection)) *
                                       axisDirection;
    cv::Mat offset = across * (radius / cv::norm(across));
    const cv::Mat plus = pivotToBall + offset;
    const cv::Mat minus = pivotToBall - offset;
    if (plus.dot(plus) > minus.dot(minus)) offset = offset * -1.0;
    cv::Mat head = pivot + offset;
    const int f = inliers[k].frame;
    StoreHead(result.frames[f].head, head);
    StoreHead(result.frames[count1 + f].head, head);
    heads.push_back(std::move(head));
  }

  // Step 7: camera-1 overlays.
  for (size_t j = 0; j < count1; ++j) {
    ClubFrameResult& entry = result.frames[j];
    cv::Mat canvas(static_cast<int>(entry.image.height), static_cast<int>(entry.image.width),
                   CV_8UC3, entry.image.pixels);
    if (entry.hasShaft != 1) continue;
    for (int k = 0; k < count; ++k) {
      DrawInlier(canvas, inliers[k].cam1Line, heads[k], camera1, *cam1[j]);
    }
  }

  // Step 8: camera-2 overlays; the entry's head ends as the last inlier's
  // projected head in full-sensor pixels, as it has always been reported.
  for (size_t j = 0; j < count2; ++j) {
    ClubFrameResult& entry = result.frames[count1 + j];
    cv::Mat canvas(static_cast<int>(entry.image.height), static_cast<int>(entry.image.width),
                   CV_8UC3, entry.image.pixels);
    if (entry.hasShaft != 1) continue;
    for (int k = 0; k < count; ++k) {
      const cv::Mat q = DrawInlier(canvas, inliers[k].cam2Line, heads[k], camera2, *cam2[j]);
      StoreHead(entry.head, q);
    }
  }

  // Step 9: angular velocity between consecutive heads. The cameras' lists
  // are indexed by the head index here, and only camera 1's clock is used.
  double sum = 0.0;
  double sumSquares = 0.0;
  std::vector<double> angularVelocities;
  angularVelocities.reserve(heads.size());
  for (size_t i = 1; i < heads.size(); ++i) {
    if (cam1[i]->afterImpact == 1 || cam2[i]->afterImpact == 1) continue;
    const cv::Mat u = heads[i - 1] - pivot;
    const cv::Mat v = heads[i] - pivot;
    const cv::Mat e = v - u;
    const double angle =
        std::acos(((v.dot(v) + u.dot(u)) - e.dot(e)) / ((2.0 * cv::norm(u)) * cv::norm(v)));
    const uint32_t later = static_cast<uint32_t>(cam1[inliers[i].frame]->timeStamp);
    const uint32_t earlier = static_cast<uint32_t>(cam1[inliers[i - 1].frame]->timeStamp);
    const double interval = static_cast<double>(static_cast<uint32_t>(later - earlier));
    const double omega = angle / interval;
    sum += omega;
    sumSquares += omega * omega;
    angularVelocities.push_back(omega);
  }

  // Step 10: samples more than two deviations from the mean become 0.0.
  const double samples = static_cast<double>(angularVelocities.size());
  const double mean = sum / samples;
  const double deviation = std::sqrt(sumSquares / samples - mean * mean);
  for (double& omega : angularVelocities) {
    if (std::fabs(omega - mean) > 2.0 * deviation) omega = 0.0;
  }

  // Step 11: the latest interval before the impact (head index 1 always
  // qualifies). The sample index counts kept samples only, as it always has.
  for (size_t i = heads.size(); i-- > 0;) {
    const int f = inliers[i].frame;
    const bool beforeImpact = cam1[f]->afterImpact == 0 && cam2[f]->afterImpact == 0;
    if (!((beforeImpact || i == 1) && i >= 1 && i - 1 < angularVelocities.size())) continue;
    double omega = angularVelocities[i - 1];
    if (omega == 0.0) {
      double nonZeroSum = 0.0;
      int nonZeroCount = 0;
      for (const double value : angularVelocities) {
        if (value != 0.0) {
          nonZeroSum += value;
          ++nonZeroCount;
        }
      }
      omega = nonZeroCount > 0 ? nonZeroSum / nonZeroCount : 0.0;
    }
    result.clubHeadSpeed = omega * radius;
    result.angularVelocity = static_cast<float>(omega);
    result.headRadius = static_cast<float>(radius);
    result.speedFrameFrom = inliers[i - 1].frame;
    result.speedFrameTo = inliers[i].frame;
    break;
  }

  Log("FindShaftAndHead end");
  return 1;
}
