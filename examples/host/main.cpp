// clubtracker_host: the smallest complete host of the club tracker.
//
//   clubtracker_host RECORDING_FOLDER [LIBRARY]
//
// A plug-in host: it includes the public header but does not link the library.
// It loads the library with dlopen, resolves AllocateFunc, configures the tracker
// with the calibration of a recording on disk (run.ini, Master/, Slave/, as
// `clubtrack synth` writes it), hands it both cameras' frames, and prints the
// club-head speed. The result record is created and destroyed here, with the
// special members the header defines inline. A real host has its frames from
// the cameras instead.
#include <dlfcn.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/imgcodecs.hpp>

#include "clubtracker/ClubTracker.h"

namespace fs = std::filesystem;

namespace {

// section -> key -> value of a simple initialisation file.
using IniFile = std::map<std::string, std::map<std::string, std::string>>;

std::string Trim(const std::string& text) {
  const size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

IniFile ReadIni(const fs::path& path) {
  IniFile ini;
  std::ifstream in(path);
  std::string line;
  std::string section;
  while (std::getline(in, line)) {
    line = Trim(line);
    if (line.empty() || line[0] == ';' || line[0] == '#') continue;
    if (line[0] == '[') {
      section = Trim(line.substr(1, line.find(']') - 1));
    } else if (const size_t eq = line.find('='); eq != std::string::npos) {
      ini[section].emplace(Trim(line.substr(0, eq)), Trim(line.substr(eq + 1)));
    }
  }
  return ini;
}

double Number(const IniFile& ini, const std::string& section, const std::string& key) {
  const auto s = ini.find(section);
  if (s == ini.end()) return 0.0;
  const auto k = s->second.find(key);
  return k == s->second.end() ? 0.0 : std::strtod(k->second.c_str(), nullptr);
}

// One camera's frames and their pixel storage.
struct CameraFrames {
  std::vector<ClubImage> images;
  std::vector<cv::Mat> pixels;

  std::vector<ClubImage*> Pointers() {
    std::vector<ClubImage*> list;
    for (ClubImage& image : images) list.push_back(&image);
    return list;
  }
};

// Frames named timeStamp_offsetX_offsetY_ballX_ballY.ext, in name order.
CameraFrames LoadFrames(const fs::path& folder, int impactIndex) {
  std::vector<fs::path> files;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  CameraFrames frames;
  frames.pixels.reserve(files.size());
  for (const fs::path& file : files) {
    cv::Mat grey = cv::imread(file.string(), cv::IMREAD_GRAYSCALE);
    if (grey.empty()) continue;  // the option file
    frames.pixels.push_back(grey);
    ClubImage image{};
    image.width = static_cast<uint32_t>(grey.cols);
    image.height = static_cast<uint32_t>(grey.rows);
    image.bytesPerChannel = 1;
    image.channels = 1;
    image.pixels = frames.pixels.back().data;
    const std::string name = file.filename().string();
    const char* p = name.c_str();
    char* end = nullptr;
    image.timeStamp = std::strtoull(p, &end, 10);
    if (*end == '_') image.sensorOffsetX = static_cast<int32_t>(std::strtol(end + 1, &end, 10));
    if (*end == '_') image.sensorOffsetY = static_cast<int32_t>(std::strtol(end + 1, &end, 10));
    if (*end == '_') image.ballX = static_cast<float>(std::strtod(end + 1, &end));
    if (*end == '_') image.ballY = static_cast<float>(std::strtod(end + 1, &end));
    image.afterImpact = static_cast<int>(frames.images.size()) >= impactIndex ? 1 : 0;
    frames.images.push_back(image);
  }
  return frames;
}

void PrintLogLine(std::wstring line, void* /*context*/) {
  std::string text(line.begin(), line.end());
  if (text.empty() || text.back() != '\n') text.push_back('\n');
  std::fputs(("  log: " + text).c_str(), stderr);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s RECORDING_FOLDER [LIBRARY]\n", argv[0]);
    return 2;
  }
  const fs::path recording = argv[1];
  const char* libraryPath = argc > 2 ? argv[2] : CLUBTRACKER_LIBRARY;

  void* library = dlopen(libraryPath, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    std::fprintf(stderr, "cannot load %s: %s\n", libraryPath, dlerror());
    return 1;
  }
  using Allocate = ClubTracker* (*)();
  auto allocate = reinterpret_cast<Allocate>(dlsym(library, "AllocateFunc"));
  if (allocate == nullptr) {
    std::fprintf(stderr, "AllocateFunc not found in %s\n", libraryPath);
    dlclose(library);
    return 1;
  }

  int status = 1;
  {
    std::unique_ptr<ClubTracker> tracker(allocate());
    if (tracker == nullptr) {
      std::fprintf(stderr, "AllocateFunc returned no tracker\n");
      dlclose(library);
      return 1;
    }
    const IniFile run = ReadIni(recording / "run.ini");
    const int impactIndex = run.count("Info") && run.at("Info").count("ImpactIndex")
                                ? std::atoi(run.at("Info").at("ImpactIndex").c_str())
                                : 10;
    ClubTrackerSetting setting = tracker->setting;  // the defaults
    setting.logCallback = &PrintLogLine;
    setting.logContext = nullptr;
    const char* sections[2] = {"IntrinsicCal", "ExtrinsicCal"};
    const fs::path optionFiles[2] = {recording / "Master" / "MasterOption.ini",
                                     recording / "Slave" / "SlaveOption.ini"};
    for (int camera = 0; camera < 2; ++camera) {
      const IniFile calibration = ReadIni(optionFiles[camera]);
      double* intrinsic = camera == 0 ? setting.cam1Intrinsic : setting.cam2Intrinsic;
      double* extrinsic = camera == 0 ? setting.cam1Extrinsic : setting.cam2Extrinsic;
      for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 4; ++c) {
          const std::string key = std::to_string(r + 1) + std::to_string(c + 1);
          if (c < 3) intrinsic[r * 3 + c] = Number(calibration, sections[0], key);
          extrinsic[r * 4 + c] = Number(calibration, sections[1], key);
        }
      }
    }
    tracker->SetTrackerSetting(setting);

    CameraFrames master = LoadFrames(recording / "Master", impactIndex);
    CameraFrames slave = LoadFrames(recording / "Slave", impactIndex);
    std::printf("frames: %zu + %zu\n", master.images.size(), slave.images.size());

    ClubTrackerResult result;
    tracker->Find(master.Pointers(), slave.Pointers(), result, 0);
    std::printf("paired frames: %d\n", result.frameCount / 2);
    std::printf("club-head speed: %.9g mm/us = %.3f m/s\n", result.clubHeadSpeed,
                result.clubHeadSpeed * 1000.0);
    status = result.clubHeadSpeed > 0.0 ? 0 : 3;
  }
  dlclose(library);
  return status;
}
