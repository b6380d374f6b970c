// Offline replay of a recorded swing: option files, frame files and the
// testing object's helpers.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "clubtracker/ClubTracker.h"
#include "harness/frame_files.h"
#include "tracker/frame_pairing.h"

// What the run option file holds (calibration is read separately).
struct RunOptions {
  ClubTrackerSetting setting{};     // ROI and intervals filled; other fields default
  std::wstring folderPath;          // as written in the file
  std::filesystem::path folder;     // resolved against the run file's folder; empty if none
  int impactIndex = 10;
};

// Reads the run option file; missing file, section or key gives the default.
RunOptions ReadRunOptions(const std::filesystem::path& runFile);

// Reads the 21 calibration values (9 intrinsic, 12 extrinsic) of one camera
// option file into `values`. Missing items give 0.0.
void ReadCalibration(std::wstring path, double* values);
void ReadCalibrationFile(const std::filesystem::path& path, double* values);

// A camera's folder: the recording folder + "/Master/" (camera 0) or
// "/Slave/" (camera 1), joined as plain text, so a trailing separator doubles.
std::filesystem::path CameraFolder(const std::filesystem::path& folder, int camera);

// A camera's option file: its folder + "MasterOption.ini" / "SlaveOption.ini".
std::filesystem::path CameraOptionFile(const std::filesystem::path& folder, int camera);

// LoadCameraFrames (frame_files.h) with the default limits and no warnings.
std::vector<ClubImage*> LoadCameraFrames(const std::filesystem::path& folder, int impactIndex);

// Fills the metadata of `image` from a frame file name (both layouts).
void ParseFrameFileName(const std::wstring& fileName, ClubImage& image);

// Releases frames made by LoadCameraFrames and empties the list.
void FreeFrames(std::vector<ClubImage*>& frames);


// RECORDING is a run option file or a folder holding "run.ini". Returns false
// with a one-line reason when neither is there.
bool ResolveRunFile(const std::filesystem::path& recording, std::filesystem::path& runFile,
                    std::string* error);

// Checks, without decoding frames, what a user's replay needs and the lenient
// reading would paper over: a readable run option file whose numbers are
// numbers, a FolderPath, both camera folders with a readable option file of
// well-formed, finite values and an invertible intrinsic matrix, and at least
// one image file per camera. Fills `options` on success.
bool CheckRecording(const std::filesystem::path& runFile, RunOptions& options,
                    std::string* error);

// A whole recording in memory: setting with calibration and both cameras'
// frames. Frees its frames when destroyed.
struct LoadedRecording {
  RunOptions options;
  ClubTrackerSetting setting{};
  std::vector<ClubImage*> cam1;
  std::vector<ClubImage*> cam2;
  std::vector<std::string> warnings;  // what the reading noticed, one line each

  LoadedRecording() = default;
  ~LoadedRecording();
  LoadedRecording(const LoadedRecording&) = delete;
  LoadedRecording& operator=(const LoadedRecording&) = delete;
};

// RECORDING is a run option file or a folder holding "run.ini". Returns false
// with a one-line reason in `error` when it cannot be read (ResolveRunFile and
// CheckRecording's reasons, a region of interest that leaves the frames, or a
// camera none of whose files decodes). What loads but looks wrong (skipped
// frame files, sizes differing within a camera, time stamps that do not
// increase, a zero time-stamp interval) is named in out.warnings.
bool LoadRecording(const std::filesystem::path& recording, LoadedRecording& out,
                   std::string* error, const FrameLoadLimits& limits = {});
