// Offline replay: run and camera option files, frame files, whole recordings.
#include "harness/offline.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <memory>
#include <system_error>

#include <unistd.h>

#include <opencv2/imgcodecs.hpp>

#include "harness/frame_files.h"
#include "harness/profile.h"
#include "tracker/validation_internal.h"

namespace fs = std::filesystem;

namespace {

const char* const kCameraFolders[2] = {"/Master/", "/Slave/"};
const char* const kCameraOptionFiles[2] = {"MasterOption.ini", "SlaveOption.ini"};

// The 21 reads of a camera option file, in order.
struct CalibrationKey {
  const char* section;
  const char* key;
};
constexpr CalibrationKey kCalibrationKeys[21] = {
    {"IntrinsicCal", "11"}, {"IntrinsicCal", "12"}, {"IntrinsicCal", "13"},
    {"IntrinsicCal", "21"}, {"IntrinsicCal", "22"}, {"IntrinsicCal", "23"},
    {"IntrinsicCal", "31"}, {"IntrinsicCal", "32"}, {"IntrinsicCal", "33"},
    {"ExtrinsicCal", "11"}, {"ExtrinsicCal", "12"}, {"ExtrinsicCal", "13"},
    {"ExtrinsicCal", "14"}, {"ExtrinsicCal", "21"}, {"ExtrinsicCal", "22"},
    {"ExtrinsicCal", "23"}, {"ExtrinsicCal", "24"}, {"ExtrinsicCal", "31"},
    {"ExtrinsicCal", "32"}, {"ExtrinsicCal", "33"}, {"ExtrinsicCal", "34"}};

// The integer keys of the run option file.
struct IntegerKey {
  const char* section;
  const char* key;
};
constexpr IntegerKey kRunIntegerKeys[7] = {
    {"ROI", "X"},
    {"ROI", "Y"},
    {"ROI", "Width"},
    {"ROI", "Height"},
    {"Info", "TimeStampIntervalBeforeImpact"},
    {"Info", "TimeStampIntervalAfterImpact"},
    {"Info", "ImpactIndex"}};

void SetError(std::string* error, std::string text) {
  if (error != nullptr) *error = std::move(text);
}

std::string Quoted(const fs::path& path) {
  std::string text(1, '"');
  text += path.string();
  text += '"';
  return text;
}

bool FitsInt(const std::string& text) {
  const std::string_view view(text);
  size_t begin = view.find_first_not_of(" \t");
  size_t end = view.find_last_not_of(" \t");
  if (begin == std::string_view::npos) return false;
  if (view[begin] == '+') ++begin;
  long long value = 0;
  const auto [ptr, ec] = std::from_chars(view.data() + begin, view.data() + end + 1, value);
  return ec == std::errc() && ptr == view.data() + end + 1 && value >= INT32_MIN &&
         value <= INT32_MAX;
}

}  // namespace

RunOptions ReadRunOptions(const fs::path& runFile) {
  const ProfileFile file(runFile);
  RunOptions options;
  InitClubTrackerSetting(options.setting);
  options.setting.logContext = nullptr;
  options.setting.roiX = file.GetInt("ROI", "X", 0);
  options.setting.roiY = file.GetInt("ROI", "Y", 0);
  options.setting.roiWidth = file.GetInt("ROI", "Width", 0);
  options.setting.roiHeight = file.GetInt("ROI", "Height", 0);
  options.folderPath = file.GetString("Info", "FolderPath", L"");
  options.setting.timeStampIntervalBeforeImpact =
      file.GetInt("Info", "TimeStampIntervalBeforeImpact", 2000);
  options.setting.timeStampIntervalAfterImpact =
      file.GetInt("Info", "TimeStampIntervalAfterImpact", 2000);
  options.impactIndex = file.GetInt("Info", "ImpactIndex", 10);
  if (!options.folderPath.empty()) {
    const fs::path written(WideToUtf8(options.folderPath));
    const fs::path base = runFile.parent_path();
    options.folder = (written.is_relative() && !base.empty()) ? base / written : written;
  }
  return options;
}

void ReadCalibrationFile(const fs::path& path, double* values) {
  const ProfileFile file(path);
  for (size_t i = 0; i < 21; ++i) {
    values[i] = WideToDouble(file.GetString(kCalibrationKeys[i].section,
                                            kCalibrationKeys[i].key, L"0"));
  }
}

void ReadCalibration(std::wstring path, double* values) {
  ReadCalibrationFile(fs::path(WideToUtf8(path)), values);
}

fs::path CameraFolder(const fs::path& folder, int camera) {
  return fs::path(folder.native() + kCameraFolders[camera == 0 ? 0 : 1]);
}

fs::path CameraOptionFile(const fs::path& folder, int camera) {
  return fs::path(CameraFolder(folder, camera).native() + kCameraOptionFiles[camera == 0 ? 0 : 1]);
}

void ParseFrameFileName(const std::wstring& fileName, ClubImage& image) {
  std::vector<std::wstring_view> tokens;
  const std::wstring_view name(fileName);
  size_t start = 0;
  while (true) {
    const size_t underscore = name.find(L'_', start);
    if (underscore == std::wstring_view::npos) {
      tokens.push_back(name.substr(start));
      break;
    }
    tokens.push_back(name.substr(start, underscore - start));
    start = underscore + 1;
  }
  const auto token = [&](size_t i) { return i < tokens.size() ? tokens[i] : std::wstring_view(); };
  const auto has = [&](size_t i) { return i < tokens.size(); };

  if (token(0) != L"ClubHeadOriginal") {
    if (has(0)) image.timeStamp = static_cast<uint64_t>(WideToInt64(token(0)));
    if (has(1)) image.sensorOffsetX = WideToInt(token(1));
    if (has(2)) image.sensorOffsetY = WideToInt(token(2));
    if (has(3)) image.ballX = static_cast<float>(WideToDouble(token(3)));
    if (has(4)) image.ballY = static_cast<float>(WideToDouble(token(4)));
    return;
  }
  // Head-image layout: token 1 is not used; tokens 3 and 4 hold a two-character
  // prefix, a number, ',' and a second number.
  const auto afterPrefix = [](std::wstring_view text) {
    return text.size() > 2 ? text.substr(2) : std::wstring_view();
  };
  const auto afterComma = [](std::wstring_view text) {
    const size_t comma = text.find(L',');
    return comma == std::wstring_view::npos ? std::wstring_view() : text.substr(comma + 1);
  };
  if (has(2)) image.timeStamp = static_cast<uint64_t>(WideToInt64(token(2)));
  if (has(3)) {
    image.sensorOffsetX = WideToInt(afterPrefix(token(3)));
    image.sensorOffsetY = WideToInt(afterComma(token(3)));
  }
  if (has(4)) {
    image.ballX = static_cast<float>(WideToDouble(afterPrefix(token(4))));
    image.ballY = static_cast<float>(WideToDouble(afterComma(token(4))));
  }
}

std::vector<ClubImage*> LoadCameraFrames(const fs::path& folder, int impactIndex) {
  return LoadCameraFrames(folder, impactIndex, FrameLoadLimits{}, nullptr);
}

void FreeFrames(std::vector<ClubImage*>& frames) {
  for (ClubImage*& frame : frames) {
    if (frame != nullptr) delete[] frame->pixels;
    delete frame;
    frame = nullptr;
  }
  frames.clear();
}

LoadedRecording::~LoadedRecording() {
  FreeFrames(cam1);
  FreeFrames(cam2);
}

bool ResolveRunFile(const fs::path& recording, fs::path& runFile, std::string* error) {
  std::error_code ec;
  const fs::file_status status = fs::status(recording, ec);
  if (recording.empty() || !fs::exists(status)) {
    SetError(error, "no such file or folder: " + Quoted(recording));
    return false;
  }
  if (fs::is_directory(status)) {
    runFile = recording / "run.ini";
    if (!fs::is_regular_file(runFile, ec)) {
      SetError(error, "the folder " + Quoted(recording) + " holds no run.ini");
      return false;
    }
    return true;
  }
  runFile = recording;
  return true;
}

bool CheckRecording(const fs::path& runFile, RunOptions& options, std::string* error) {
  const ProfileFile run(runFile);
  if (!run.Found()) {
    SetError(error, "cannot read the run option file " + Quoted(runFile) + ": it " + run.Problem());
    return false;
  }
  for (const IntegerKey& entry : kRunIntegerKeys) {
    const std::string* value = run.Find(entry.section, entry.key);
    if (value != nullptr && !value->empty() && (!IsWholeInteger(*value) || !FitsInt(*value))) {
      SetError(error, runFile.string() + ": [" + entry.section + "] " + entry.key + " = \"" +
                          *value + "\" is not a whole number");
      return false;
    }
  }
  RunOptions read = ReadRunOptions(runFile);
  if (read.folderPath.empty()) {
    SetError(error, runFile.string() + ": [Info] FolderPath is missing or empty");
    return false;
  }
  for (int camera = 0; camera < 2; ++camera) {
    std::error_code ec;
    const fs::path folder = CameraFolder(read.folder, camera);
    if (!fs::is_directory(folder, ec)) {
      SetError(error, "camera folder not found: " + Quoted(folder) + " (FolderPath in " +
                          runFile.string() + ")");
      return false;
    }
    const fs::path optionFile = CameraOptionFile(read.folder, camera);
    const ProfileFile calibration(optionFile);
    if (!calibration.Found()) {
      SetError(error, "cannot read the camera option file " + Quoted(optionFile) + ": it " +
                          calibration.Problem());
      return false;
    }
    double values[21];
    for (size_t i = 0; i < 21; ++i) {
      const std::string* value =
          calibration.Find(kCalibrationKeys[i].section, kCalibrationKeys[i].key);
      if (value != nullptr && !IsWholeNumber(*value)) {
        SetError(error, optionFile.string() + ": [" + kCalibrationKeys[i].section + "] " +
                            kCalibrationKeys[i].key + " = \"" + *value + "\" is not a number");
        return false;
      }
      values[i] = value == nullptr ? 0.0 : WideToDouble(Utf8ToWide(*value));
      if (!std::isfinite(values[i])) {
        SetError(error, optionFile.string() + ": [" + kCalibrationKeys[i].section + "] " +
                            kCalibrationKeys[i].key + " = \"" + *value + "\" is out of range");
        return false;
      }
    }
    const cv::Matx33d intrinsic(values);
    const double determinant = cv::determinant(intrinsic);
    if (!(std::fabs(determinant) > 0.0) || !std::isfinite(determinant)) {
      SetError(error, optionFile.string() +
                          ": the intrinsic calibration [IntrinsicCal] is missing or not invertible");
      return false;
    }
    bool hasImage = false;
    std::string unreadable;
    for (const fs::path& file : FilesOf(folder)) {
      if (!HasImageExtension(file) && !cv::haveImageReader(file.string())) continue;
      if (::access(file.c_str(), R_OK) == 0) {
        hasImage = true;
        break;
      }
      if (unreadable.empty()) unreadable = file.string();
    }
    if (!hasImage) {
      SetError(error, unreadable.empty()
                          ? "no frame images in the camera folder " + Quoted(folder)
                          : "the frame files in the camera folder " + Quoted(folder) +
                                " cannot be read (permission denied), e.g. " + unreadable);
      return false;
    }
  }
  options = std::move(read);
  return true;
}

namespace {

// The run file's settings against the loaded frames: a region of interest that
// leaves them is refused (the tracker could only fail); zero or negative
// intervals and axes out of range are warnings.
bool CheckRunSetting(const fs::path& runFile, LoadedRecording& out, std::string* error) {
  std::vector<std::string> problems;
  clubtracker::CheckGeometry(out.setting, out.cam1, out.cam2, problems);
  for (std::string& problem : problems) {
    if (problem.rfind("the region of interest", 0) == 0) {
      SetError(error, runFile.string() + ": [ROI] " + problem.substr(4));
      return false;
    }
    out.warnings.push_back(runFile.string() + ": " + problem);
  }
  return true;
}

}  // namespace

bool LoadRecording(const fs::path& recording, LoadedRecording& out, std::string* error,
                   const FrameLoadLimits& limits) {
  try {
    fs::path runFile;
    if (!ResolveRunFile(recording, runFile, error)) return false;
    if (!CheckRecording(runFile, out.options, error)) return false;
    out.setting = out.options.setting;
    double values[21];
    ReadCalibrationFile(CameraOptionFile(out.options.folder, 0), values);
    std::copy(values, values + 9, out.setting.cam1Intrinsic);
    std::copy(values + 9, values + 21, out.setting.cam1Extrinsic);
    ReadCalibrationFile(CameraOptionFile(out.options.folder, 1), values);
    std::copy(values, values + 9, out.setting.cam2Intrinsic);
    std::copy(values + 9, values + 21, out.setting.cam2Extrinsic);
    FreeFrames(out.cam1);
    FreeFrames(out.cam2);
    out.warnings.clear();
    for (int camera = 0; camera < 2; ++camera) {
      std::vector<ClubImage*>& frames = camera == 0 ? out.cam1 : out.cam2;
      const fs::path folder = CameraFolder(out.options.folder, camera);
      frames = LoadCameraFrames(folder, out.options.impactIndex, limits, &out.warnings);
      if (frames.empty()) {
        SetError(error, "no file in the camera folder " + Quoted(folder) + " decodes as an image" +
                            (out.warnings.empty() ? "" : ": " + out.warnings.back()));
        return false;
      }
    }
    return CheckRunSetting(runFile, out, error);
  } catch (const std::exception& e) {
    SetError(error, std::string("cannot load the recording: ") + e.what());
    return false;
  }
}
