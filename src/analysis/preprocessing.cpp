// Frame preprocessing and the presence test on a candidate mask.
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"
#include "tracker/records.h"
#include "tracker/validation_internal.h"

int ClubTracker::Preprocessing(ClubImage* source, PreprocessedImage* target) {
  if (source == nullptr || target == nullptr) return 0;
  const ClubTrackerSetting copy = setting;
  const int channels = static_cast<int>(source->channels);
  if (PreprocessesWholeFrame(source, copy)) {
    // The whole frame, read where it lies: the filters write their own
    // output, as they do when they run in place on a copy.
    const cv::Mat frame(static_cast<int>(source->height), static_cast<int>(source->width),
                        CV_8UC(channels), source->pixels);
    if (channels == 1) {
      MedianBlur3(frame, target->image);
    } else {
      thread_local cv::Mat grey;
      cv::cvtColor(frame, grey, cv::COLOR_BGR2GRAY);
      MedianBlur3(grey, target->image);
    }
  } else {
    if (ConvertClubImage(source, &copy, target->image) == 0) return 0;
    MedianBlur3(target->image, target->image);
  }
  CopyMetadata(*target, *source);
  return 1;
}

bool PreprocessesWholeFrame(const ClubImage* source, const ClubTrackerSetting& setting) {
  const uint32_t channels = source->channels;
  return source->pixels != nullptr && source->bytesPerChannel == 1 && source->width > 0 &&
         source->height > 0 && (channels == 1 || channels == 3 || channels == 4) &&
         (setting.roiWidth == 0 || setting.roiHeight == 0);
}

int ConvertClubImage(const ClubImage* source, const ClubTrackerSetting* setting,
                     cv::Mat& target) {
  if (source == nullptr || setting == nullptr) return 0;
  if (source->pixels == nullptr || source->bytesPerChannel != 1) return 0;
  if (source->channels == 0) return 0;

  const int type = static_cast<int>((source->channels * 8 - 8) & 0xFFF);
  target = cv::Mat(static_cast<int>(source->height), static_cast<int>(source->width), type);
  const size_t bytes = static_cast<size_t>(source->width) * source->height *
                       source->bytesPerChannel * source->channels;
  const size_t capacity = target.total() * target.elemSize();
  if (bytes > 0 && capacity > 0) {
    std::memcpy(target.data, source->pixels, bytes < capacity ? bytes : capacity);
  }

  if (source->channels > 1) cv::cvtColor(target, target, cv::COLOR_BGR2GRAY);
  if (setting->roiWidth != 0 && setting->roiHeight != 0) {
    // Checked in 64 bits: x + width wraps around in int.
    clubtracker::RequireRegionWithin(*setting, target.cols, target.rows);
    const cv::Rect roi(setting->roiX, setting->roiY, setting->roiWidth, setting->roiHeight);
    target = cv::Mat(target, roi).clone();
  }
  return 1;
}

namespace {

// The four cleaning operations of the presence test.
constexpr std::initializer_list<MorphStep> kRefineSteps = {
    {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 3},
    {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
    {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7},
    {cv::MORPH_CLOSE, cv::MORPH_ELLIPSE, 31},
};

// Side of the square the presence test looks for: odd, about a quarter of the
// mask's shorter side.
int PresenceSize(const cv::Mat& mask) {
  const int m = mask.rows <= mask.cols ? mask.rows : mask.cols;
  return 2 * ((m / 4) / 2) + 1;
}

}  // namespace

void RefineCandidateMask(const cv::Mat& candidateMask, cv::Mat& refinedMask,
                         int* blobPresent) {
  RefineCandidateMaskPacked(candidateMask, nullptr, refinedMask, blobPresent);
}

bool RefineCandidateMaskPacked(const cv::Mat& candidateMask, BitMask* packed,
                               cv::Mat& refinedMask, int* blobPresent) {
  // A 0/255 mask goes through the bit planes, which give the pixels of the
  // cv::morphologyEx chain below.
  BitMask& bits = ThreadBitMask();
  bool exact = true;
  for (const MorphStep& step : kRefineSteps) exact = exact && bits.Supports(step);
  if (exact && bits.Pack(candidateMask)) {
    for (const MorphStep& step : kRefineSteps) bits.Apply(step);
    const MorphStep presence{cv::MORPH_ERODE, cv::MORPH_RECT, PresenceSize(candidateMask)};
    const bool keepPacked = packed != nullptr && bits.Supports(presence);
    if (keepPacked) {
      bits.CopyTo(*packed);
    } else {
      bits.Unpack(refinedMask);
    }
    if (bits.Supports(presence)) {
      bits.ClearFrame();
      bits.Apply(presence);
      *blobPresent = bits.Any() ? 1 : 0;
      return keepPacked;
    }
  } else {
    MorphologyChainLiteral(candidateMask, refinedMask, kRefineSteps);
  }
  const int s = PresenceSize(refinedMask);

  cv::Mat test = refinedMask.clone();
  // Clear the outer one-pixel frame: a square touching the frame does not
  // count.
  if (test.rows > 0 && test.cols > 0 && test.isContinuous() && test.type() == CV_8UC1) {
    unsigned char* p = test.data;
    const int rows = test.rows, cols = test.cols;
    std::memset(p, 0, static_cast<size_t>(cols));
    std::memset(p + static_cast<size_t>(rows - 1) * cols, 0, static_cast<size_t>(cols));
    for (int r = 1; r < rows; ++r) {
      p[static_cast<size_t>(r) * cols] = 0;
      p[static_cast<size_t>(r) * cols + cols - 1] = 0;
    }
  }
  MorphologyChainLiteral(test, test, {{cv::MORPH_ERODE, cv::MORPH_RECT, s}});
  *blobPresent = cv::sum(test)[0] > 0.0 ? 1 : 0;
  return false;
}
