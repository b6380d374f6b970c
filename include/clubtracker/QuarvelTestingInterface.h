// clubtracker offline replay: the testing object that plays a recorded swing
// from image files on disk through a ClubTracker.
//
// A recording is a run option file (ROI, FolderPath, the two time-stamp
// intervals, ImpactIndex) and a recording folder holding "Master/" and
// "Slave/", each with its camera option file ("MasterOption.ini",
// "SlaveOption.ini": the camera's calibration) and its frame images named
// timeStamp_offsetX_offsetY_ballX_ballY.ext. A relative FolderPath is taken
// relative to the folder of the run option file.
//
// Usage from a host that loads the library at run time:
//
//   auto factory = reinterpret_cast<QuarvelTestingInterface* (*)()>(
//       dlsym(handle, "QTIFactoryFunc"));
//   std::unique_ptr<QuarvelTestingInterface> tester(factory());
//   std::vector<std::unique_ptr<OfflineResultImage>> images;
//   OfflineRunReport report;
//   tester->RunOfflineTest("recording/run.ini", images, &report);
//   // report.clubHeadSpeed, report.log, images[k]->pixels ...
//
// Ownership: the output records belong to the caller's list and free their
// pixel storage themselves; the testing object is released with delete
// (through the virtual destructor), or held in a std::unique_ptr.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "clubtracker/ClubTracker.h"

// One entry of the tracker's result frames, copied out of the result with
// storage of its own.
struct OfflineResultImage {
  int32_t camera = 0;       // 0 = camera 1 (master), 1 = camera 2 (slave)
  int32_t frameNumber = 0;  // index in the combined list: camera 1's frames first
  int32_t hasShaft = 0;     // 1 when an inlier of the spin axis refers to the frame
  int32_t spare = 0;
  float head[3] = {0.0f, 0.0f, 0.0f};  // 3D head point (camera 2: projected pixel x, y, 1)

  // The annotated candidate image: width x height x channels bytes, packed rows
  // (channels is 3, BGR: mask in white, shaft lines red, head points green).
  uint32_t width = 0;
  uint32_t height = 0;
  uint32_t bytesPerChannel = 0;
  uint32_t channels = 0;
  std::vector<unsigned char> pixels;

  // The frame's metadata block.
  int32_t sensorOffsetX = 0;
  int32_t sensorOffsetY = 0;
  uint32_t afterImpact = 0;
  uint64_t timeStamp = 0;
  float ballX = 0.0f;
  float ballY = 0.0f;
  float ballRadius = 0.0f;

  // The frame's own 8-bit grey pixels, width x height; empty when the result
  // carried none (a region of interest smaller than the frame).
  std::vector<unsigned char> rawPixels;
};

// What one run measured, for hosts that want more than the images. Pass one
// to RunOfflineTest to receive it; without it the log goes to standard error.
struct OfflineRunReport {
  // Set by the caller before the run: also measure the club-head speed with
  // the tracker's template path (FindbyTemplate) on the same paired frames.
  bool headTracking = false;

  // Filled by the run.
  int cam1FrameCount = 0;  // frames loaded from "Master/"
  int cam2FrameCount = 0;  // frames loaded from "Slave/"
  int frameCount = 0;      // result entries (both cameras)
  int pairedFrames = 0;    // frameCount / 2
  double clubHeadSpeed = 0.0;  // calibration units per time-stamp unit; 0.0 = none
  float angularVelocity = 0.0f;
  float headRadius = 0.0f;
  float axisDirection[3] = {0.0f, 0.0f, 0.0f};
  float axisPosition[3] = {0.0f, 0.0f, 0.0f};
  int speedFrameFrom = 0;
  int speedFrameTo = 0;
  double processingTimeMs = 0.0;  // wall-clock time of the Find call
  std::vector<std::string> log;   // Find's log lines, UTF-8, without line breaks

  double headTrackingSpeed = 0.0;           // FindbyTemplate's speed; 0.0 = none
  std::vector<std::string> headTrackingLog;  // its log lines
};

// The testing interface that QTIFactoryFunc hands out.
class CLUBTRACKER_API QuarvelTestingInterface {
 public:
  virtual ~QuarvelTestingInterface() = default;

  // Replays the recording described by the run option file `optionFilePath`:
  // reads the option files, loads both cameras' frames, configures the
  // tracker, calls Find once (no time limit), frees the frames and appends one
  // record per result entry, in entry order, to `outputList`.
  //
  // Missing files, sections, keys and folders fall back to their defaults, as
  // the option files have always been read; nothing is reported as an error.
  // With `report` the log lines and the result numbers are collected there;
  // without it every log line goes to standard error (DebugLog).
  //
  // Returns 1 when it has run; 0 only when the object has no tracker or the
  // run could not complete (out of memory and the like, logged).
  //
  // The path is a file-system path: a narrow string is taken byte for byte; a
  // wide string is converted by the standard library under the current
  // locale. FolderPath inside the file is read as UTF-8.
  virtual int RunOfflineTest(const std::filesystem::path& optionFilePath,
                             std::vector<std::unique_ptr<OfflineResultImage>>& outputList,
                             OfflineRunReport* report = nullptr) = 0;

 protected:
  QuarvelTestingInterface() = default;
  QuarvelTestingInterface(const QuarvelTestingInterface&) = default;
  QuarvelTestingInterface& operator=(const QuarvelTestingInterface&) = default;
};

// The log function of an offline run: writes the line and then "\n" to
// standard error. `context` is ignored.
CLUBTRACKER_API void DebugLog(std::wstring message, void* context);

// Creates the testing object with a tracker of its own (default setting);
// null when out of memory. Release it with delete.
extern "C" CLUBTRACKER_API QuarvelTestingInterface* QTIFactoryFunc();
