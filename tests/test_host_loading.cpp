// A host program's view of the library: loaded at run time through the
// exported factory (settings, copies, record layout, exported symbols); the C
// interface from a program compiled as C; the installed package built against
// and run.
#include <dlfcn.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "clubtracker/ClubTracker.h"
#include "clubtracker/clubtracker_c.h"
#include "clubtracker/measure.h"
#include "support/log_capture.h"
#include "support/run_command.h"
#include "support/written_swing.h"
#include "synth/swing.h"

namespace fs = std::filesystem;

namespace {

// The defaults: ROI 0, both intervals 2000, axis indices 1 and 2, calibration
// zero, no log callback.
void ExpectDefaults(const ClubTrackerSetting& s) {
  EXPECT_EQ((std::vector<int32_t>{s.roiX, s.roiY, s.roiWidth, s.roiHeight,
                                  s.timeStampIntervalBeforeImpact, s.timeStampIntervalAfterImpact,
                                  s.axisIndex, s.axisNormIndex}),
            (std::vector<int32_t>{0, 0, 0, 0, 2000, 2000, 1, 2}));
  const char* calibration = reinterpret_cast<const char*>(&s.cam1Intrinsic);  // 42 doubles
  EXPECT_EQ(std::string(calibration, 42 * sizeof(double)), std::string(42 * sizeof(double), '\0'));
  EXPECT_EQ(s.logCallback, nullptr);
}

// Every byte set (no padding in the record), and the log callback.
ClubTrackerSetting Patterned() {
  ClubTrackerSetting s;
  auto* bytes = reinterpret_cast<unsigned char*>(&s);
  for (size_t i = 0; i < sizeof s; ++i) bytes[i] = static_cast<unsigned char>(i * 37 + 11);
  s.logCallback = &CaptureLog;
  s.logContext = &s;  // any pointer will do
  return s;
}

// The factory gives a default-configured tracker; a setting round-trips bit
// for bit through SetTrackerSetting, the constructor, copies and assignment,
// and copies log through the same callback and context.
TEST(HostLoading, FactoryTrackerSettingsAndCopies) {
  void* handle = dlopen(CLUBTRACKER_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  const auto allocate = reinterpret_cast<ClubTracker* (*)()>(dlsym(handle, "AllocateFunc"));
  ASSERT_NE(allocate, nullptr) << dlerror();
  std::unique_ptr<ClubTracker> tracker(allocate());  // deleted through the virtual destructor
  ASSERT_NE(tracker, nullptr);
  ExpectDefaults(tracker->setting);
  EXPECT_EQ(std::vector<double>(tracker->referencePoint, tracker->referencePoint + 3),
            std::vector<double>(3, 0.0));

  std::vector<std::string> log;
  ClubTrackerSetting s = Patterned();
  s.logContext = &log;
  tracker->referencePoint[1] = 21.35;
  tracker->SetTrackerSetting(s);
  EXPECT_EQ(std::memcmp(&tracker->setting, &s, sizeof s), 0);
  EXPECT_EQ(tracker->referencePoint[1], 21.35) << "SetTrackerSetting touches nothing else";
  ClubTracker copy(*tracker), constructed(s), assigned;
  assigned = copy;
  for (const ClubTracker* other : {&copy, &constructed, &assigned})
    EXPECT_EQ(std::memcmp(&other->setting, &s, sizeof s), 0);
  EXPECT_EQ(copy.referencePoint[1], 21.35);

  // Find logs its start line even with no frames.
  ClubTrackerResult result;
  copy.Find({}, {}, result, 0);
  tracker->Find({}, {}, result, 0);
  EXPECT_EQ(log, (std::vector<std::string>(2, "ClubTracker::Find start")));
  EXPECT_EQ(result.frameCount, 0);
  EXPECT_EQ(result.frames, nullptr);
  tracker.reset();
  dlclose(handle);

  int context = 0;
  ClubTrackerSetting fresh = Patterned();
  fresh.logContext = &context;
  InitClubTrackerSetting(fresh);
  EXPECT_EQ(fresh.logContext, &context) << "the initialiser leaves logContext alone";
  ExpectDefaults(fresh);
}

TEST(TrackerLayout, RecordsKeepTheirBinaryLayout) {
  // The calibration values of one camera are one contiguous run of 21 doubles.
  EXPECT_EQ(offsetof(ClubTrackerSetting, cam1Intrinsic), 32u);
  EXPECT_EQ(offsetof(ClubTrackerSetting, cam1Extrinsic), offsetof(ClubTrackerSetting, cam1Intrinsic) + 72);
  EXPECT_EQ(offsetof(ClubTrackerSetting, cam2Intrinsic), offsetof(ClubTrackerSetting, cam1Extrinsic) + 96);
  // The metadata block is 40 bytes from sensorOffsetX to the end of ClubImage.
  EXPECT_EQ(sizeof(ClubImage) - offsetof(ClubImage, sensorOffsetX), 40u);
  EXPECT_TRUE(std::is_trivially_copyable_v<ClubTrackerSetting>);
}

// The shared library exports exactly the host interface (the factories, the
// tracker, the records' special members, also defined inline in the header for
// plug-in hosts), the C interface and measure.h, nothing of its insides.
TEST(LibraryExports, ExactlyTheHostInterface) {
  const std::string command = std::string("nm -D --defined-only ") + CLUBTRACKER_LIBRARY_PATH;
  std::istringstream symbols(RunCommand(command).out);
  std::set<std::string> functions;
  for (std::string address, type, name; symbols >> address >> type >> name;)
    if (type == "T") functions.insert(name);
  const std::set<std::string> expected = {
      "AllocateFunc", "QTIFactoryFunc", "_Z22InitClubTrackerSettingR18ClubTrackerSetting",
      "_Z8DebugLogNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEEPv",
      "_ZN11ClubTracker14FindbyTemplateESt6vectorIP9ClubImageSaIS2_EES4_Rd",
      "_ZN11ClubTracker17SetTrackerSettingE18ClubTrackerSetting",
      "_ZN11ClubTracker20FindHeadAndCalculateERKSt6vectorIP9ClubImageSaIS2_EES6_R17ClubTrackerResult",
      "_ZN11ClubTracker4FindESt6vectorIP9ClubImageSaIS2_EES4_R17ClubTrackerResultj",
      "_ZN11ClubTrackerC1E18ClubTrackerSetting", "_ZN11ClubTrackerC1ERKS_", "_ZN11ClubTrackerC1Ev",
      "_ZN11ClubTrackerC2E18ClubTrackerSetting", "_ZN11ClubTrackerC2ERKS_", "_ZN11ClubTrackerC2Ev",
      "_ZN11ClubTrackerD0Ev", "_ZN11ClubTrackerD1Ev", "_ZN11ClubTrackerD2Ev", "_ZN11ClubTrackeraSERKS_",
      "_ZN15ClubFrameResultC1Ev", "_ZN15ClubFrameResultC2Ev", "_ZN15ClubFrameResultD1Ev",
      "_ZN15ClubFrameResultD2Ev", "_ZN17ClubTrackerResult13ReleaseFramesEv",
      "_ZN17ClubTrackerResultC1EOS_", "_ZN17ClubTrackerResultC1Ev", "_ZN17ClubTrackerResultC2EOS_",
      "_ZN17ClubTrackerResultC2Ev", "_ZN17ClubTrackerResultD1Ev", "_ZN17ClubTrackerResultD2Ev",
      "_ZN17ClubTrackerResultaSEOS_",
      // The C interface.
      "clubtracker_default_options", "clubtracker_measure_frames", "clubtracker_measure_recording",
      "clubtracker_status_text", "clubtracker_version"};
  // The C++ interface of measure.h sits beside the host interface.
  std::erase_if(functions, [](const std::string& name) {
    for (const char* prefix : {"_ZN11clubtracker", "_ZNK11clubtracker"}) {
      if (name.rfind(prefix, 0) == 0) return true;
    }
    return false;
  });
  EXPECT_EQ(functions, expected) << command;
}

// ------------------------------------------------------------ the C interface

// The C interface: a program compiled as C resolves it with dlsym and measures
// a synthetic recording, with the numbers of `clubtrack run --json`; the
// frames-based call gives the same on the same frames; bad calls give a
// status, its text and a reason.

// "key value" lines of a command's standard output.
std::map<std::string, std::string> KeyValues(const std::string& command) {
  std::map<std::string, std::string> values;
  std::istringstream lines(RunCommand(command).out);
  for (std::string text; std::getline(lines, text);) {
    const size_t space = text.find(' ');
    values[text.substr(0, space)] = space == std::string::npos ? "" : text.substr(space + 1);
  }
  return values;
}

clubtracker_frame ToFrame(const ClubImage& image) {
  return {image.width,         image.height,        image.channels,   image.pixels,
          image.sensorOffsetX, image.sensorOffsetY, image.afterImpact, image.timeStamp,
          image.ballX,         image.ballY,         image.ballRadius};
}

// A short swing, enough for a line-based speed, written once.
const WrittenSwing& Short() {
  static const WrittenSwing swing({.frames = 16, .impactIndex = 10});
  return swing;
}

TEST(CApi, FromCAsTheToolMeasuresAndFromFramesAsFromTheRecording) {
  const fs::path& swing = Short().path;
  const CommandRun run =
      RunCommand(Quote(CLUBTRACK_TOOL_PATH) + " run " + Quote(swing.string()) + " --quiet --json -");
  ASSERT_EQ(run.status, 0) << run.err;
  const nlohmann::json tool = nlohmann::json::parse(run.out);
  std::map<std::string, std::string> c = KeyValues(std::string(C_API_HOST_PATH) + " " +
                                                   CLUBTRACKER_LIBRARY_PATH + " '" +
                                                   swing.string() + "'");
  ASSERT_EQ(c["status"], "0") << c["message"];
  EXPECT_EQ(c["status_text"], "ok");
  EXPECT_EQ(c["version"], clubtracker_version());
  const auto number = [&](const std::string& key) { return std::stod(c[key]); };
  EXPECT_GT(number("club_head_speed_mps"), 0.0);
  EXPECT_DOUBLE_EQ(number("club_head_speed_mps"), tool["clubHeadSpeedMps"].get<double>());
  EXPECT_DOUBLE_EQ(number("head_tracking_speed_mps"), tool["headTrackingSpeedMps"].get<double>());
  const char* counts[][2] = {
      {"paired_frames", "pairedFrames"}, {"cam1_frames", "cam1Frames"}, {"cam2_frames", "cam2Frames"}};
  for (const auto& [name, key] : counts) EXPECT_EQ(number(name), tool[key].get<int>()) << key;
  EXPECT_GT(number("processing_time_ms"), 0.0);
  EXPECT_EQ(number("warning_count"), tool["warnings"].size());
  const nlohmann::json& data = tool["clubData"];
  const char* delivery[][3] = {{"has_club_speed", "club_speed_mps", "speedMps"},
                               {"has_attack_angle", "attack_angle_deg", "attackAngleDeg"},
                               {"has_path", "path_deg", "pathDeg"},
                               {"has_swing_plane", "swing_plane_deg", "swingPlaneDeg"},
                               {"has_swing_direction", "swing_direction_deg", "swingDirectionDeg"},
                               {"has_low_point_ahead", "low_point_ahead_mm", "lowPointAheadMm"},
                               {"has_low_point_height", "low_point_height_mm", "lowPointHeightMm"},
                               {"has_low_point_side", "low_point_side_mm", "lowPointSideMm"}};
  for (const auto& [flag, value, key] : delivery) {
    const bool present = data.contains(key);
    EXPECT_EQ(c[flag], present ? "1" : "0") << key;
    if (!present) continue;
    EXPECT_DOUBLE_EQ(number(value), data[key].get<double>()) << key;
    EXPECT_DOUBLE_EQ(number(std::string(value) + "_std_err"), data["stdErr"][key].get<double>());
  }

  // Bad calls: status, its text, a reason.
  EXPECT_EQ(c["bad_options"], "2 bad options: invalid options: up has length 2, not 1");
  EXPECT_EQ(c["bad_recording"].rfind("3 bad recording: ", 0), 0u) << c["bad_recording"];
  EXPECT_GT(c["bad_recording"].size(), std::string("3 bad recording: ").size());
  EXPECT_EQ(c["bad_argument"], "1 bad argument: camera 1 has no frames");
  EXPECT_EQ(c["null_report"], "1");
  EXPECT_EQ(c["unknown_status"], "unknown status");

  // The frames-based call on the recording's frames and calibration.
  clubtracker::Recording loaded;
  std::string why;
  ASSERT_TRUE(clubtracker::LoadRecording(swing, loaded, &why)) << why;
  std::vector<clubtracker_frame> cam1, cam2;
  for (const ClubImage& image : loaded.cam1) cam1.push_back(ToFrame(image));
  for (const ClubImage& image : loaded.cam2) cam2.push_back(ToFrame(image));
  // The synthetic recording keeps the default options; its 42 calibration
  // values lie in the setting in the order the call takes them.
  const ClubTrackerSetting& s = loaded.setting;
  clubtracker_report report;
  ASSERT_EQ(clubtracker_measure_frames(cam1.data(), cam1.size(), cam2.data(), cam2.size(),
                                       s.cam1Intrinsic, nullptr, &report),
            CLUBTRACKER_OK)
      << report.message;
  EXPECT_DOUBLE_EQ(report.club_head_speed_mps, number("club_head_speed_mps"));
  EXPECT_DOUBLE_EQ(report.head_tracking_speed_mps, number("head_tracking_speed_mps"));
  EXPECT_DOUBLE_EQ(report.club_speed_mps, number("club_speed_mps"));
  EXPECT_EQ(report.paired_frames, number("paired_frames"));
}

// ------------------------------------------------------- the installed package

// The installed package stays usable: cmake --install into a fresh prefix,
// the example plug-in host configured with find_package(clubtracker CONFIG) and
// built with its headers only (no link to the library, which it loads with
// dlopen), then run on a synthetic recording; pkg-config finds the library.

// Runs a shell command with its output in `output`; returns the exit status.
int Shell(const std::string& command, std::string* output) {
  const CommandRun run = RunCommand(command);
  *output = run.out + run.err;
  return run.status;
}

fs::path FindFile(const fs::path& root, const std::string& name) {
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (entry.path().filename() == name) return entry.path();
  }
  return {};
}

TEST(InstallPackage, HostBuildsAgainstTheInstalledPackageAndRuns) {
  TempFolder temp("clubtracker-install");
  const fs::path prefix = temp.path / "prefix";
  std::string output;

  ASSERT_EQ(Shell("cmake --install " + Quote(CLUBTRACKER_BINARY_DIR) + " --prefix " +
                      Quote(prefix.string()), &output), 0) << output;
  for (const char* header : {"clubtracker/ClubTracker.h", "clubtracker/QuarvelTestingInterface.h",
                             "clubtracker/measure.h", "imageprocess/ImageProcess.h"}) {
    EXPECT_TRUE(fs::exists(prefix / "include" / header)) << header;
  }
  EXPECT_TRUE(fs::exists(prefix / "bin" / "clubtrack"));
  const fs::path library = FindFile(prefix, "libclubtracker.so");
  ASSERT_FALSE(library.empty());
  EXPECT_TRUE(fs::exists(library.parent_path() / "libimageprocess.so"));
  EXPECT_FALSE(FindFile(prefix, "clubtrackerConfig.cmake").empty());
  EXPECT_FALSE(FindFile(prefix, "clubtrackerConfigVersion.cmake").empty());
  const fs::path pcFile = FindFile(prefix, "clubtracker.pc");
  ASSERT_FALSE(pcFile.empty());

  // pkg-config: the .pc file finds its prefix from where it lies.
  ASSERT_EQ(Shell("PKG_CONFIG_PATH=" + Quote(pcFile.parent_path().string()) +
                      " pkg-config --cflags --libs clubtracker", &output), 0) << output;
  EXPECT_NE(output.find("-lclubtracker"), std::string::npos) << output;
  EXPECT_NE(output.find("-limageprocess"), std::string::npos) << output;
  const std::smatch include = [&] {
    std::smatch m;
    std::regex_search(output, m, std::regex("-I(\\S+)"));
    return m;
  }();
  ASSERT_FALSE(include.empty()) << output;
  EXPECT_TRUE(fs::exists(fs::path(include[1].str()) / "clubtracker" / "ClubTracker.h"))
      << include[1].str();

  std::string flags;
#if defined(__SANITIZE_ADDRESS__)
  // The installed library is instrumented; the host must load the runtime first.
  // A plug-in host has no type information of the library's classes to check
  // virtual calls against, so the vptr check stays off.
  flags = " '-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined -fno-sanitize=vptr'"
          " -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined";
#endif
  // The examples, configured and built against the installed package only.
  const auto buildExample = [&](const std::string& name) {
    const fs::path build = temp.path / (name + "-build");
    EXPECT_EQ(Shell("cmake -S " + Quote(std::string(CLUBTRACKER_SOURCE_DIR) + "/examples/" + name) +
                        " -B " + Quote(build.string()) + " -DCMAKE_BUILD_TYPE=Release" +
                        " -DCMAKE_PREFIX_PATH=" + Quote(prefix.string()) + flags +
                        " && cmake --build " + Quote(build.string()), &output), 0) << output;
    return build;
  };
  const fs::path hostBuild = buildExample("host");
  const fs::path measureBuild = buildExample("measure");
  ASSERT_EQ(Shell("readelf -d " + Quote((hostBuild / "clubtracker_host").string()), &output), 0);
  EXPECT_EQ(output.find("libclubtracker"), std::string::npos) << "a plug-in host links no library:\n"
                                                              << output;
  EXPECT_EQ(output.find("libimageprocess"), std::string::npos) << output;

  const synth::Recording& recording = Short().recording;
  const fs::path& swing = Short().path;

  const int status = Shell(Quote((hostBuild / "clubtracker_host").string()) + " " +
                               Quote(swing.string()) + " " + Quote(library.string()),
                           &output);
  ASSERT_EQ(status, 0) << output;
  std::smatch speed;
  ASSERT_TRUE(std::regex_search(output, speed, std::regex("club-head speed: (\\S+) mm/us")))
      << output;
  const double measured = std::stod(speed[1].str());
  EXPECT_GT(measured, 0.0);
  EXPECT_LT(std::fabs(measured / recording.truth.clubHeadSpeed - 1.0), 1.0)
      << "measured " << measured << ", truth " << recording.truth.clubHeadSpeed;
  EXPECT_NE(output.find("paired frames: 16"), std::string::npos) << output;

  // measure.h from the installed headers, linked to the installed library.
  ASSERT_EQ(Shell("LD_LIBRARY_PATH=" + Quote(library.parent_path().string()) + " " +
                      Quote((measureBuild / "clubtracker_measure").string()) + " " +
                      Quote(swing.string()), &output), 0) << output;
  EXPECT_NE(output.find("head-tracking speed"), std::string::npos) << output;
  EXPECT_NE(output.find("attack angle"), std::string::npos) << output;

  // The installed tool runs from its own prefix.
  ASSERT_EQ(Shell(Quote((prefix / "bin" / "clubtrack").string()) + " --help", &output), 0) << output;
  EXPECT_NE(output.find("run"), std::string::npos);
}

}  // namespace
