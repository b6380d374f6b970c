// Checks of a setting and of a swing's frames, in words. Find logs them; the
// region cut of preprocessing refuses a rectangle that leaves the frame.
#include "clubtracker/validation.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include <opencv2/core.hpp>

#include "tracker/validation_internal.h"

namespace {

using clubtracker::ValidateFrames;

std::string Region(const ClubTrackerSetting& s) {
  return "the region of interest (x " + std::to_string(s.roiX) + ", y " + std::to_string(s.roiY) +
         ", width " + std::to_string(s.roiWidth) + ", height " + std::to_string(s.roiHeight) + ")";
}

std::string Size(uint64_t width, uint64_t height) {
  return std::to_string(width) + " x " + std::to_string(height);
}

bool RegionUsed(const ClubTrackerSetting& s) { return s.roiWidth != 0 && s.roiHeight != 0; }

// A problem found at some frames of a camera: the first one in words, and how
// many more frames have it.
class FrameProblem {
 public:
  void Add(std::string first) {
    if (count_++ == 0) first_ = std::move(first);
  }
  void Report(int camera, std::vector<std::string>& problems) const {
    if (count_ == 0) return;
    std::string line = "camera " + std::to_string(camera) + ": " + first_;
    if (count_ > 1) line += " (and " + std::to_string(count_ - 1) + " more frames)";
    problems.push_back(std::move(line));
  }

 private:
  size_t count_ = 0;
  std::string first_;
};

void CheckCamera(const std::vector<ClubImage*>& frames, int camera,
                 std::vector<std::string>& problems) {
  FrameProblem null, noPixels, empty, huge, depth, channels, size, order;
  const ClubImage* sized = nullptr;  // the first frame with a size, the camera's size
  const ClubImage* previous = nullptr;
  size_t previousIndex = 0;
  for (size_t k = 0; k < frames.size(); ++k) {
    const ClubImage* f = frames[k];
    const std::string frame = "frame " + std::to_string(k);
    if (f == nullptr) {
      null.Add(frame + " is null");
      continue;
    }
    if (f->width == 0 || f->height == 0) {
      empty.Add(frame + " is " + Size(f->width, f->height) + " pixels");
    } else if (f->width > static_cast<uint32_t>(std::numeric_limits<int>::max()) ||
               f->height > static_cast<uint32_t>(std::numeric_limits<int>::max())) {
      huge.Add(frame + " is " + Size(f->width, f->height) + " pixels, more than a frame can hold");
    } else if (sized == nullptr) {
      sized = f;
    } else if (f->width != sized->width || f->height != sized->height) {
      size.Add(frame + " is " + Size(f->width, f->height) + " pixels, the camera's first frame " +
               Size(sized->width, sized->height));
    }
    if (f->pixels == nullptr) noPixels.Add(frame + " has no pixels");
    if (f->bytesPerChannel != 1) {
      depth.Add(frame + " has " + std::to_string(f->bytesPerChannel) +
                " bytes per channel; only 8-bit frames can be read");
    }
    if (f->channels != 1 && f->channels != 3 && f->channels != 4) {
      channels.Add(frame + " has " + std::to_string(f->channels) +
                   " channels; 1 (grey), 3 (BGR) or 4 (BGRA) can be read");
    }
    if (previous != nullptr && f->timeStamp <= previous->timeStamp) {
      order.Add("time stamps do not increase: frame " + std::to_string(k) + " has " +
                std::to_string(f->timeStamp) + " after " + std::to_string(previous->timeStamp) +
                " at frame " + std::to_string(previousIndex) +
                (f->timeStamp == previous->timeStamp
                     ? "; a speed over equal time stamps is infinite"
                     : "; frames must come in capture order"));
    }
    previous = f;
    previousIndex = k;
  }
  for (const FrameProblem* p : {&null, &noPixels, &empty, &huge, &depth, &channels, &size, &order}) {
    p->Report(camera, problems);
  }
}

void CheckRegion(const ClubTrackerSetting& s, std::vector<std::string>& problems) {
  if (!RegionUsed(s)) return;
  if (s.roiX < 0 || s.roiY < 0 || s.roiWidth < 0 || s.roiHeight < 0) {
    problems.push_back(Region(s) + " has a negative value");
    return;
  }
  const int64_t right = static_cast<int64_t>(s.roiX) + s.roiWidth;
  const int64_t bottom = static_cast<int64_t>(s.roiY) + s.roiHeight;
  if (right > std::numeric_limits<int>::max() || bottom > std::numeric_limits<int>::max()) {
    problems.push_back(Region(s) + " ends beyond the largest possible frame (x + width = " +
                       std::to_string(right) + ", y + height = " + std::to_string(bottom) + ")");
  }
}

// The size of a camera's first frame that has one; false when none has.
bool FirstSize(const std::vector<ClubImage*>& frames, uint64_t& width, uint64_t& height) {
  for (const ClubImage* f : frames) {
    if (f == nullptr || f->width == 0 || f->height == 0) continue;
    width = f->width;
    height = f->height;
    return true;
  }
  return false;
}

void CheckRegionInFrames(const ClubTrackerSetting& s, const std::vector<ClubImage*>& cam1,
                         const std::vector<ClubImage*>& cam2, std::vector<std::string>& problems) {
  if (!RegionUsed(s) || s.roiX < 0 || s.roiY < 0 || s.roiWidth < 0 || s.roiHeight < 0) return;
  uint64_t width[2] = {0, 0};
  uint64_t height[2] = {0, 0};
  bool left[2] = {false, false};
  for (int c = 0; c < 2; ++c) {
    left[c] = FirstSize(c == 0 ? cam1 : cam2, width[c], height[c]) &&
              !clubtracker::RegionWithin(s, width[c], height[c]);
  }
  if (left[0] && left[1] && width[0] == width[1] && height[0] == height[1]) {
    problems.push_back(Region(s) + " leaves both cameras' " + Size(width[0], height[0]) +
                       " frames");
    return;
  }
  for (int c = 0; c < 2; ++c) {
    if (left[c]) {
      problems.push_back(Region(s) + " leaves camera " + std::to_string(c + 1) + "'s " +
                         Size(width[c], height[c]) + " frames");
    }
  }
}

void CheckIntervals(const ClubTrackerSetting& s, std::vector<std::string>& problems) {
  const std::pair<const char*, int32_t> intervals[2] = {
      {"timeStampIntervalBeforeImpact", s.timeStampIntervalBeforeImpact},
      {"timeStampIntervalAfterImpact", s.timeStampIntervalAfterImpact}};
  for (const auto& [name, value] : intervals) {
    if (value == 0) {
      problems.push_back(std::string(name) +
                         " is 0: every frame is compared with its direct neighbour, which "
                         "shows the club twice; a positive time-stamp span is needed (default 2000)");
    } else if (value < 0) {
      problems.push_back(std::string(name) + " is " + std::to_string(value) +
                         ": read as unsigned, no frame is ever far enough from another; a "
                         "positive time-stamp span is needed (default 2000)");
    }
  }
}

void CheckAxes(const ClubTrackerSetting& s, std::vector<std::string>& problems) {
  const std::pair<const char*, int32_t> axes[2] = {{"axisIndex", s.axisIndex},
                                                   {"axisNormIndex", s.axisNormIndex}};
  for (const auto& [name, value] : axes) {
    if (value < 0 || value > 2) {
      problems.push_back(std::string(name) + " is " + std::to_string(value) +
                         ": a world coordinate is 0, 1 or 2");
    }
  }
}

bool AllZero(const double* values, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (values[i] != 0.0) return false;
  }
  return true;
}

void CheckCamera(const double* intrinsic, const double* extrinsic, int camera,
                 std::vector<std::string>& problems) {
  const std::string who = "camera " + std::to_string(camera) + "'s ";
  for (size_t i = 0; i < 21; ++i) {
    const double v = i < 9 ? intrinsic[i] : extrinsic[i - 9];
    if (!std::isfinite(v)) {
      problems.push_back(who + (i < 9 ? "intrinsic" : "extrinsic") + " calibration element " +
                         std::to_string(i < 9 ? i : i - 9) + " is not a finite number");
      return;
    }
  }
  if (AllZero(intrinsic, 9)) {
    problems.push_back(who + "intrinsic calibration is all zero: no calibration was given");
    return;
  }
  const double determinant = cv::determinant(cv::Matx33d(intrinsic));
  if (!std::isfinite(determinant) || determinant == 0.0) {
    problems.push_back(who + "intrinsic calibration matrix is not invertible (determinant " +
                       std::to_string(determinant) + ")");
  }
  const cv::Matx33d rotation(extrinsic[0], extrinsic[1], extrinsic[2], extrinsic[4], extrinsic[5],
                             extrinsic[6], extrinsic[8], extrinsic[9], extrinsic[10]);
  const double rotationDeterminant = cv::determinant(rotation);
  if (!std::isfinite(rotationDeterminant) || rotationDeterminant == 0.0) {
    problems.push_back(who + "extrinsic rotation is not invertible (determinant " +
                       std::to_string(rotationDeterminant) + ")");
  }
}

}  // namespace

namespace clubtracker {

bool RegionWithin(const ClubTrackerSetting& s, uint64_t width, uint64_t height) {
  if (s.roiX < 0 || s.roiY < 0 || s.roiWidth < 0 || s.roiHeight < 0) return false;
  return static_cast<uint64_t>(s.roiX) + static_cast<uint64_t>(s.roiWidth) <= width &&
         static_cast<uint64_t>(s.roiY) + static_cast<uint64_t>(s.roiHeight) <= height;
}

void RequireRegionWithin(const ClubTrackerSetting& s, int width, int height) {
  if (RegionWithin(s, static_cast<uint64_t>(width < 0 ? 0 : width),
                   static_cast<uint64_t>(height < 0 ? 0 : height))) {
    return;
  }
  // The range error OpenCV's region constructor would raise, in words.
  cv::error(cv::Error::StsOutOfRange,
            Region(s) + " leaves the " + Size(width < 0 ? 0 : width, height < 0 ? 0 : height) +
                " frame",
            "ConvertClubImage", __FILE__, __LINE__);
}

bool CheckGeometry(const ClubTrackerSetting& setting, const std::vector<ClubImage*>& cam1,
                   const std::vector<ClubImage*>& cam2, std::vector<std::string>& problems) {
  const size_t before = problems.size();
  CheckRegion(setting, problems);
  if (problems.size() == before) CheckRegionInFrames(setting, cam1, cam2, problems);
  CheckIntervals(setting, problems);
  CheckAxes(setting, problems);
  return problems.size() == before;
}

bool CheckCalibration(const ClubTrackerSetting& setting, std::vector<std::string>& problems) {
  const size_t before = problems.size();
  CheckCamera(setting.cam1Intrinsic, setting.cam1Extrinsic, 1, problems);
  CheckCamera(setting.cam2Intrinsic, setting.cam2Extrinsic, 2, problems);
  return problems.size() == before;
}

bool ValidateSetting(const ClubTrackerSetting& setting, std::vector<std::string>& problems) {
  return ValidateSetting(setting, {}, {}, problems);
}

bool ValidateSetting(const ClubTrackerSetting& setting, const std::vector<ClubImage*>& cam1,
                     const std::vector<ClubImage*>& cam2, std::vector<std::string>& problems) {
  try {
    const bool geometry = CheckGeometry(setting, cam1, cam2, problems);
    return CheckCalibration(setting, problems) && geometry;
  } catch (...) {
    return false;  // out of memory: what was found so far stands
  }
}

bool ValidateFrames(const std::vector<ClubImage*>& cam1, const std::vector<ClubImage*>& cam2,
                    std::vector<std::string>& problems) {
  try {
    const size_t before = problems.size();
    CheckCamera(cam1, 1, problems);
    CheckCamera(cam2, 2, problems);
    return problems.size() == before;
  } catch (...) {
    return false;
  }
}

}  // namespace clubtracker
