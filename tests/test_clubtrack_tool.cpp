// The clubtrack tool as a user runs it: run with JSON, pictures and the summary, errors.
#include <sys/wait.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "synth/swing.h"
#include "support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

std::string ReadAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

struct ToolRun {
  int status = -1;
  std::string out, err;
};

// Runs the tool with `arguments` (already quoted) in `workDir`.
ToolRun RunTool(const std::string& arguments, const fs::path& workDir) {
  const fs::path outFile = workDir / ".stdout", errFile = workDir / ".stderr";
  const std::string command = "cd " + Quote(workDir.string()) + " && " +
                              Quote(CLUBTRACK_TOOL_PATH) + " " + arguments + " >" +
                              Quote(outFile.string()) + " 2>" + Quote(errFile.string());
  const int raw = std::system(command.c_str());
  ToolRun run{WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadAll(outFile), ReadAll(errFile)};
  fs::remove(outFile);
  fs::remove(errFile);
  return run;
}

// The default swing written once for the suite.
struct DefaultRecording {
  TempFolder folder;
  synth::SwingTruth truth;
  fs::path recording;
  DefaultRecording() {
    const synth::Recording rendered = synth::Render(synth::SwingScene{});
    truth = rendered.truth;
    recording = folder.path / "swing";
    synth::WriteRecording(rendered, recording);
  }
};

const DefaultRecording& Default() {
  static const DefaultRecording recording;
  return recording;
}

}  // namespace

TEST(ClubtrackRun, JsonOnStandardOutputWithTheStableKeys) {
  const DefaultRecording& rec = Default();
  const ToolRun run = RunTool("run " + Quote(rec.recording.string()) + " --json -", rec.folder.path);
  ASSERT_EQ(run.status, 0) << run.err;
  nlohmann::json json;
  ASSERT_NO_THROW(json = nlohmann::json::parse(run.out)) << run.out;
  for (const char* key : {"clubHeadSpeed", "clubHeadSpeedMps", "angularVelocity", "headRadius",
                          "speedFrameFrom", "speedFrameTo", "frameCount", "pairedFrames",
                          "processingTimeMs", "headTrackingSpeed", "headTrackingSpeedMps"}) {
    ASSERT_TRUE(json.contains(key)) << key;
    EXPECT_TRUE(json[key].is_number()) << key;
  }
  for (const char* key : {"axisDirection", "axisPosition"}) {
    ASSERT_TRUE(json[key].is_array()) << key;
    EXPECT_EQ(json[key].size(), 3u) << key;
  }
  ASSERT_TRUE(json["log"].is_array());
  ASSERT_FALSE(json["log"].empty());
  EXPECT_EQ(json["log"][0], "ClubTracker::Find start");
  for (const auto& line : json["log"]) EXPECT_EQ(line.get<std::string>().find('\n'), std::string::npos) << line;
  EXPECT_EQ(json["frameCount"], 48);
  EXPECT_EQ(json["pairedFrames"], 24);
  const double speed = json["clubHeadSpeed"];
  EXPECT_DOUBLE_EQ(json["clubHeadSpeedMps"].get<double>(), speed * 1000.0);
  EXPECT_DOUBLE_EQ(json["headTrackingSpeedMps"].get<double>(),
                   json["headTrackingSpeed"].get<double>() * 1000.0);
  // Line-based speed: off by tens of percent (docs/accuracy.md), bounded by a factor of 2.
  EXPECT_GT(speed, 0.0);
  EXPECT_LT(std::fabs(speed / rec.truth.clubHeadSpeed - 1.0), 1.0)
      << "measured " << speed << ", truth " << rec.truth.clubHeadSpeed;
  // Head-tracking speed: within 2 % on the default swing.
  const double headSpeed = json["headTrackingSpeed"];
  EXPECT_LT(std::fabs(headSpeed / rec.truth.clubHeadSpeed - 1.0), 0.02)
      << "head tracking " << headSpeed << ", truth " << rec.truth.clubHeadSpeed;
  EXPECT_NE(run.err.find("Club-head speed"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("  ClubTracker::Find start"), std::string::npos) << run.err;
}

TEST(ClubtrackRun, QuietRunWritesJsonFileAnnotatedFramesAndSheet) {
  const DefaultRecording& rec = Default();
  TempFolder out;
  const ToolRun run =
      RunTool("run " + Quote((rec.recording / "run.ini").string()) + " --quiet --json result.json" +
                  " --annotated frames --sheet sheet.png",
              out.path);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.err, "");

  nlohmann::json json = nlohmann::json::parse(ReadAll(out.path / "result.json"));
  EXPECT_EQ(json["pairedFrames"], 24);

  int candidates = 0, raws = 0;
  for (const auto& entry : fs::directory_iterator(out.path / "frames")) {
    const std::string name = entry.path().filename().string();
    candidates += name.find("_candidates.png") != std::string::npos ? 1 : 0;
    raws += name.find("_raw.png") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(candidates, 48);
  EXPECT_EQ(raws, 48);
  const cv::Mat raw = cv::imread((out.path / "frames" / "cam2_frame07_raw.png").string());
  ASSERT_FALSE(raw.empty());
  EXPECT_EQ(raw.cols, 640);
  EXPECT_EQ(raw.rows, 208);

  const cv::Mat sheet = cv::imread((out.path / "sheet.png").string());
  ASSERT_FALSE(sheet.empty());
  EXPECT_GT(sheet.cols, 2 * 400);    // two cameras side by side
  EXPECT_GT(sheet.rows, 24 * 150);  // one row per paired frame
}

// Errors a user makes, on a copy of the default recording after `prepare` (shell) ran on it.
struct UserError {
  const char* name;
  const char* prepare;
  const char* arguments;
};

class ClubtrackUserErrors : public ::testing::TestWithParam<UserError> {};

TEST_P(ClubtrackUserErrors, OneLineAndNonZeroStatus) {
  TempFolder work;
  fs::copy(Default().recording, work.path / "rec", fs::copy_options::recursive);
  const std::string prepare = "cd " + Quote(work.path.string()) + " && " + GetParam().prepare;
  ASSERT_EQ(std::system(prepare.c_str()), 0) << prepare;
  const ToolRun run = RunTool(GetParam().arguments, work.path);
  EXPECT_NE(run.status, 0);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
  EXPECT_EQ(run.err.rfind("clubtrack", 0), 0u) << run.err;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ClubtrackUserErrors,
    ::testing::Values(
        UserError{"MissingRecording", "true", "run no-such-rec"},
        UserError{"FolderWithoutRunFile", "rm rec/run.ini", "run rec"},
        UserError{"NoFramesInOneCamera", "rm rec/Slave/*.bmp", "run rec"},
        UserError{"GarbageInteger", "grep -q ImpactIndex= rec/run.ini && sed -i 's/ImpactIndex=/ImpactIndex=ten/' rec/run.ini",
                  "run rec/run.ini"},
        UserError{"MissingCalibration", "rm rec/Slave/SlaveOption.ini", "run rec"},
        UserError{"EmptyFolderPath", "printf '[Info]\\nFolderPath=\\n' > rec/run.ini", "run rec"},
        UserError{"JsonIntoAMissingFolder", "true", "run rec --json no/such/dir/out.json"},
        UserError{"UnknownOption", "true", "run rec --fast"}),
    [](const ::testing::TestParamInfo<UserError>& info) { return std::string(info.param.name); });
