// The testing object: replays a recorded swing from disk through a tracker.
#include "harness/testing_object.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <new>

#include "harness/offline.h"
#include "harness/profile.h"

namespace {


void CopyNumbers(const ClubTrackerResult& result, OfflineRunReport& report) {
  report.frameCount = result.frameCount;
  report.pairedFrames = result.frameCount / 2;
  report.clubHeadSpeed = result.clubHeadSpeed;
  report.angularVelocity = result.angularVelocity;
  report.headRadius = result.headRadius;
  std::copy(result.axisDirection, result.axisDirection + 3, report.axisDirection);
  std::copy(result.axisPosition, result.axisPosition + 3, report.axisPosition);
  report.speedFrameFrom = result.speedFrameFrom;
  report.speedFrameTo = result.speedFrameTo;
}

// Frees both frame lists on every way out of a run.
struct FrameLists {
  std::vector<ClubImage*> cam1;
  std::vector<ClubImage*> cam2;
  ~FrameLists() {
    FreeFrames(cam1);
    FreeFrames(cam2);
  }
};

}  // namespace

std::unique_ptr<OfflineResultImage> CopyResultEntry(const ClubFrameResult& entry) {
  auto record = std::make_unique<OfflineResultImage>();
  record->camera = entry.camera;
  record->frameNumber = entry.frameNumber;
  record->hasShaft = entry.hasShaft;
  record->spare = entry.spare;
  std::copy(entry.head, entry.head + 3, record->head);
  const ClubImage& image = entry.image;
  record->width = image.width;
  record->height = image.height;
  record->bytesPerChannel = image.bytesPerChannel;
  record->channels = image.channels;
  if (image.pixels != nullptr) {
    const size_t bytes = static_cast<size_t>(image.width) * image.height *
                         image.bytesPerChannel * image.channels;
    record->pixels.assign(image.pixels, image.pixels + bytes);
  }
  record->sensorOffsetX = image.sensorOffsetX;
  record->sensorOffsetY = image.sensorOffsetY;
  record->afterImpact = image.afterImpact;
  record->timeStamp = image.timeStamp;
  record->ballX = image.ballX;
  record->ballY = image.ballY;
  record->ballRadius = image.ballRadius;
  if (entry.rawPixels != nullptr) {
    const size_t bytes = static_cast<size_t>(image.width) * image.height;
    record->rawPixels.assign(entry.rawPixels, entry.rawPixels + bytes);
  }
  return record;
}

void DebugLog(std::wstring message, void* context) {
  (void)context;
  const std::string text = WideToUtf8(message);
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fwrite("\n", 1, 1, stderr);
}

QuarvelOstrin::QuarvelOstrin() : tracker(nullptr) {
  tracker = new (std::nothrow) ClubTracker();
}

QuarvelOstrin::~QuarvelOstrin() { delete tracker; }

int QuarvelOstrin::RunOfflineTest(const std::filesystem::path& optionFilePath,
                                  std::vector<std::unique_ptr<OfflineResultImage>>& outputList,
                                  OfflineRunReport* report) {
  if (tracker == nullptr) return 0;
  ClubTrackerSetting setting;
  InitClubTrackerSetting(setting);
  if (report != nullptr) {
    setting.logCallback = &CollectLogLine;
    setting.logContext = &report->log;
  } else {
    setting.logCallback = &DebugLog;
    setting.logContext = nullptr;
  }
  try {
    const RunOptions options = ReadRunOptions(optionFilePath);
    setting.roiX = options.setting.roiX;
    setting.roiY = options.setting.roiY;
    setting.roiWidth = options.setting.roiWidth;
    setting.roiHeight = options.setting.roiHeight;
    setting.timeStampIntervalBeforeImpact = options.setting.timeStampIntervalBeforeImpact;
    setting.timeStampIntervalAfterImpact = options.setting.timeStampIntervalAfterImpact;

    FrameLists frames;
    std::vector<std::string> warnings;  // frame files skipped, odd frames
    if (!options.folderPath.empty()) {
      double values[21];
      ReadCalibrationFile(CameraOptionFile(options.folder, 0), values);
      std::copy(values, values + 9, setting.cam1Intrinsic);
      std::copy(values + 9, values + 21, setting.cam1Extrinsic);
      frames.cam1 = LoadCameraFrames(CameraFolder(options.folder, 0), options.impactIndex,
                                     FrameLoadLimits{}, &warnings);
      ReadCalibrationFile(CameraOptionFile(options.folder, 1), values);
      std::copy(values, values + 9, setting.cam2Intrinsic);
      std::copy(values + 9, values + 21, setting.cam2Extrinsic);
      frames.cam2 = LoadCameraFrames(CameraFolder(options.folder, 1), options.impactIndex,
                                     FrameLoadLimits{}, &warnings);
    }

    for (const std::string& warning : warnings) {
      setting.logCallback(Utf8ToWide("RunOfflineTest: " + warning), setting.logContext);
    }
    tracker->SetTrackerSetting(setting);
    ClubTrackerResult result;
    const auto start = std::chrono::steady_clock::now();
    tracker->Find(frames.cam1, frames.cam2, result, 0);
    const std::chrono::duration<double, std::milli> elapsed =
        std::chrono::steady_clock::now() - start;

    if (report != nullptr) {
      report->cam1FrameCount = static_cast<int>(frames.cam1.size());
      report->cam2FrameCount = static_cast<int>(frames.cam2.size());
      report->processingTimeMs = elapsed.count();
      CopyNumbers(result, *report);
      if (report->headTracking) {
        std::vector<ClubImage*> pairs1;
        std::vector<ClubImage*> pairs2;
        PairFrames(frames.cam1, frames.cam2, pairs1, pairs2);
        ClubTrackerSetting headSetting = setting;
        headSetting.logContext = &report->headTrackingLog;
        tracker->SetTrackerSetting(headSetting);
        double speed = 0.0;
        tracker->FindbyTemplate(pairs1, pairs2, speed);
        report->headTrackingSpeed = std::isnan(speed) ? 0.0 : speed;
        tracker->SetTrackerSetting(setting);
      }
    }

    FreeFrames(frames.cam1);
    FreeFrames(frames.cam2);
    if (result.frames != nullptr && result.frameCount >= 1) {
      outputList.reserve(outputList.size() + static_cast<size_t>(result.frameCount));
      for (int e = 0; e < result.frameCount; ++e) {
        outputList.push_back(CopyResultEntry(result.frames[e]));
      }
    }
    return 1;
  } catch (const std::exception& e) {
    try {
      setting.logCallback(Utf8ToWide(std::string("RunOfflineTest stopped: ") + e.what()),
                          setting.logContext);
    } catch (...) {
    }
    return 0;
  } catch (...) {
    return 0;
  }
}

extern "C" QuarvelTestingInterface* QTIFactoryFunc() {
  return new (std::nothrow) QuarvelOstrin();
}
