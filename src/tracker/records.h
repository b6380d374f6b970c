// Working records passed between the tracker's stages. Internal to the library.
#pragma once

#include <cstdint>
#include <vector>

#include <opencv2/core.hpp>

#include "clubtracker/ClubTracker.h"

// Copies the metadata block (sensorOffsetX .. ballRadius) field for field.
template <typename To, typename From>
inline void CopyMetadata(To& to, const From& from) {
  to.sensorOffsetX = from.sensorOffsetX;
  to.sensorOffsetY = from.sensorOffsetY;
  to.afterImpact = from.afterImpact;
  to.timeStamp = from.timeStamp;
  to.ballX = from.ballX;
  to.ballY = from.ballY;
  to.ballRadius = from.ballRadius;
}

// One paired frame after grey conversion, region cut and median filter.
struct PreprocessedImage {
  cv::Mat image;  // 8-bit single channel
  int32_t sensorOffsetX = 0;
  int32_t sensorOffsetY = 0;
  uint32_t afterImpact = 0;
  uint64_t timeStamp = 0;
  float ballX = 0.0f;
  float ballY = 0.0f;
  float ballRadius = 0.0f;
};

// One frame's moving-club mask and what the later stages found in it.
struct CandidateAreaImage {
  cv::Mat image;  // 8-bit single channel, 0 and 255 only
  int32_t sensorOffsetX = 0;
  int32_t sensorOffsetY = 0;
  uint32_t afterImpact = 0;
  uint64_t timeStamp = 0;
  float ballX = 0.0f;
  float ballY = 0.0f;
  float ballRadius = 0.0f;
  std::vector<cv::Vec2f> lines;  // (rho, theta), rho in full-sensor pixels
  int32_t headX = 0;
  int32_t headY = 0;
};

struct SpinAxisInlier {
  int32_t frame = 0;
  cv::Vec2f cam1Line;
  cv::Vec2f cam2Line;
};

// A spin-axis hypothesis or the chosen spin axis. pivot (0, 0, 0) = no axis.
struct ClubSpinAxis3D {
  int32_t id = 0;
  int32_t firstFrame;   // left unset by the constructor
  int32_t secondFrame;  // left unset by the constructor
  cv::Vec2f firstCam1Line;
  cv::Vec2f firstCam2Line;
  cv::Vec2f secondCam1Line;
  cv::Vec2f secondCam2Line;
  std::vector<SpinAxisInlier> inliers;
  double pivot[3] = {0.0, 0.0, 0.0};
  float fitResidual = 0.0f;

  ClubSpinAxis3D() {}
};

// Stateless helpers of the preprocessing stage.
int ConvertClubImage(const ClubImage* source, const ClubTrackerSetting* setting,
                     cv::Mat& target);
void RefineCandidateMask(const cv::Mat& candidateMask, cv::Mat& refinedMask,
                         int* blobPresent);
