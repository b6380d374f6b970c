// The C interface: a program compiled as C resolves it with dlsym and measures
// a synthetic recording, with the numbers of `clubtrack run --json`; the
// frames-based call gives the same on the same frames; bad calls give a
// status, its text and a reason.
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "clubtracker/clubtracker_c.h"
#include "clubtracker/measure.h"
#include "support/run_command.h"
#include "synth/swing.h"

namespace fs = std::filesystem;

namespace {

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

}  // namespace

TEST(CApi, FromCAsTheToolMeasuresAndFromFramesAsFromTheRecording) {
  TempFolder temp("clubtracker-capi");
  synth::SwingScene scene;
  scene.frames = 16;
  scene.impactIndex = 10;
  const fs::path swing = temp.path / "swing";
  synth::WriteRecording(synth::Render(scene), swing);

  const fs::path jsonFile = temp.path / "run.json";
  ASSERT_EQ(RunCommand(Quote(CLUBTRACK_TOOL_PATH) + " run " + Quote(swing.string()) +
                       " --quiet --json " + Quote(jsonFile.string())).status, 0);
  const nlohmann::json tool = nlohmann::json::parse(std::ifstream(jsonFile));
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
