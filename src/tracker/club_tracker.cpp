// The tracker object, its records and the exported factory.
#include <cstdarg>
#include <cstdio>
#include <new>
#include <utility>

#include "tracker/records.h"

void InitClubTrackerSetting(ClubTrackerSetting& setting) {
  setting.roiX = 0;
  setting.roiY = 0;
  setting.roiWidth = 0;
  setting.roiHeight = 0;
  setting.timeStampIntervalBeforeImpact = 2000;
  setting.timeStampIntervalAfterImpact = 2000;
  setting.axisIndex = 1;
  setting.axisNormIndex = 2;
  for (double& v : setting.cam1Intrinsic) v = 0.0;
  for (double& v : setting.cam1Extrinsic) v = 0.0;
  for (double& v : setting.cam2Intrinsic) v = 0.0;
  for (double& v : setting.cam2Extrinsic) v = 0.0;
  setting.logCallback = nullptr;
}

// The records' special members, compiled here once and exported.
#define CLUBTRACKER_RECORD_INLINE
#include "clubtracker/ClubTrackerRecords.h"

ClubTracker::ClubTracker() : referencePoint{0.0, 0.0, 0.0} {
  InitClubTrackerSetting(setting);
}

ClubTracker::ClubTracker(ClubTrackerSetting newSetting) : referencePoint{0.0, 0.0, 0.0} {
  InitClubTrackerSetting(setting);
  setting = newSetting;
}

ClubTracker::ClubTracker(const ClubTracker& other)
    : ImageProcess(other), setting(other.setting),
      referencePoint{other.referencePoint[0], other.referencePoint[1], other.referencePoint[2]} {}

ClubTracker& ClubTracker::operator=(const ClubTracker& other) {
  ImageProcess::operator=(other);
  setting = other.setting;
  for (int i = 0; i < 3; ++i) referencePoint[i] = other.referencePoint[i];
  return *this;
}

ClubTracker::~ClubTracker() = default;

void ClubTracker::SetTrackerSetting(ClubTrackerSetting newSetting) { setting = newSetting; }

void ClubTracker::Log(const char* format, ...) const {
  if (setting.logCallback == nullptr) return;
  va_list args;
  va_start(args, format);
  va_list copy;
  va_copy(copy, args);
  char small[512];
  const int length = std::vsnprintf(small, sizeof small, format, args);
  va_end(args);
  std::string text;
  if (length < 0) {
    text = format;
  } else if (static_cast<size_t>(length) < sizeof small) {
    text.assign(small, static_cast<size_t>(length));
  } else {
    text.resize(static_cast<size_t>(length) + 1);
    std::vsnprintf(text.data(), text.size(), format, copy);
    text.resize(static_cast<size_t>(length));
  }
  va_end(copy);
  // The texts are ASCII; widen them byte for byte.
  std::wstring line(text.begin(), text.end());
  setting.logCallback(std::move(line), setting.logContext);
}

extern "C" ClubTracker* AllocateFunc() { return new (std::nothrow) ClubTracker(); }
