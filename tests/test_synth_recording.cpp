// Synthetic recordings on disk: what the offline replay reads back from a
// written recording is what the generator holds in memory, and the synth
// subcommand of the tool validates its options.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "harness/offline.h"
#include "synth/swing.h"

namespace {

namespace fs = std::filesystem;

class TempDir {
 public:
  explicit TempDir(const std::string& tag)
      : path_(fs::temp_directory_path() /
              ("synth_" + tag + "_" + std::to_string(::getpid()))) {
    fs::remove_all(path_);
    fs::create_directories(path_);
  }
  ~TempDir() {
    std::error_code ec;
    fs::remove_all(path_, ec);
  }
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

size_t CountFrames(const fs::path& folder, const std::string& extension) {
  size_t count = 0;
  for (const auto& entry : fs::directory_iterator(folder)) {
    if (entry.path().extension() == extension) ++count;
  }
  return count;
}

// The replay reads back exactly the calibration, the metadata and the pixels
// of the recording in memory, for BMP and PNG frames and a dropped frame.
class SynthRoundTrip : public ::testing::TestWithParam<bool> {};

TEST_P(SynthRoundTrip, ReplayReadsWhatWasRendered) {
  const bool png = GetParam();
  synth::SwingScene scene;
  scene.seed = 61;
  scene.dropFrame = true;
  scene.frames = 14;
  scene.impactIndex = 6;
  const synth::Recording rec = synth::Render(scene);
  TempDir dir(png ? "png" : "bmp");
  std::string error;
  ASSERT_TRUE(synth::WriteRecording(rec, dir.path(), png, error)) << error;

  const RunOptions options = ReadRunOptions(dir.path() / "run.ini");
  EXPECT_EQ(options.folderPath, L".");
  EXPECT_EQ(options.impactIndex, 6);
  EXPECT_EQ(options.setting.timeStampIntervalBeforeImpact, 2000);
  EXPECT_EQ(options.setting.timeStampIntervalAfterImpact, 2000);
  EXPECT_EQ(options.setting.roiWidth, 0);
  EXPECT_EQ(options.setting.roiHeight, 0);
  ASSERT_FALSE(options.folder.empty());
  EXPECT_TRUE(fs::equivalent(options.folder, dir.path()));

  double calibration[2][21];
  ReadCalibrationFile(CameraOptionFile(options.folder, 0), calibration[0]);
  ReadCalibrationFile(CameraOptionFile(options.folder, 1), calibration[1]);
  EXPECT_EQ(std::memcmp(calibration[0], rec.setting.cam1Intrinsic, 9 * sizeof(double)), 0);
  EXPECT_EQ(std::memcmp(calibration[0] + 9, rec.setting.cam1Extrinsic, 12 * sizeof(double)), 0);
  EXPECT_EQ(std::memcmp(calibration[1], rec.setting.cam2Intrinsic, 9 * sizeof(double)), 0);
  EXPECT_EQ(std::memcmp(calibration[1] + 9, rec.setting.cam2Extrinsic, 12 * sizeof(double)), 0);

  EXPECT_EQ(rec.images[1].size(), rec.images[0].size() - 1);
  for (int c = 0; c < 2; ++c) {
    const fs::path folder = CameraFolder(options.folder, c);
    EXPECT_EQ(CountFrames(folder, png ? ".png" : ".bmp"), rec.images[c].size());
    EXPECT_EQ(CountFrames(folder, png ? ".bmp" : ".png"), 0u);
    std::vector<ClubImage*> frames = LoadCameraFrames(folder, options.impactIndex);
    ASSERT_EQ(frames.size(), rec.images[c].size());
    for (size_t k = 0; k < frames.size(); ++k) {
      const ClubImage& a = rec.images[c][k];
      const ClubImage& b = *frames[k];
      ASSERT_EQ(a.width, b.width);
      ASSERT_EQ(a.height, b.height);
      EXPECT_EQ(b.channels, 1u);
      EXPECT_EQ(std::memcmp(a.pixels, b.pixels, static_cast<size_t>(a.width) * a.height), 0)
          << "camera " << c << " frame " << k;
      EXPECT_EQ(a.timeStamp, b.timeStamp);
      EXPECT_EQ(a.sensorOffsetX, b.sensorOffsetX);
      EXPECT_EQ(a.sensorOffsetY, b.sensorOffsetY);
      EXPECT_EQ(a.afterImpact, b.afterImpact);
      EXPECT_EQ(a.ballX, b.ballX);
      EXPECT_EQ(a.ballY, b.ballY);
      EXPECT_EQ(b.ballRadius, 0.0f);
    }
    FreeFrames(frames);
  }

  // truth.json holds the exact values and names every written frame.
  std::ifstream file(dir.path() / "truth.json");
  const nlohmann::json truth = nlohmann::json::parse(file);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(truth["pivot"][i].get<double>(), rec.truth.pivot[i]);
    EXPECT_EQ(truth["axis"][i].get<double>(), rec.truth.axis[i]);
  }
  EXPECT_EQ(truth["omega0_rad_per_us"].get<double>(), rec.truth.omega0);
  EXPECT_EQ(truth["club_head_speed_mps"].get<double>(), rec.truth.clubHeadSpeedMps);
  EXPECT_EQ(truth["impact_index"].get<int>(), 6);
  EXPECT_EQ(truth["params"]["seed"].get<uint64_t>(), 61u);
  EXPECT_EQ(truth["dropped_frame"].get<int>(), rec.truth.droppedFrame);
  const char* folders[2] = {"Master", "Slave"};
  for (int c = 0; c < 2; ++c) {
    const auto& frames = truth["frames"][folders[c]];
    ASSERT_EQ(frames.size(), rec.images[c].size());
    for (const auto& f : frames) {
      EXPECT_TRUE(fs::exists(dir.path() / folders[c] / f["file"].get<std::string>()));
    }
    EXPECT_EQ(truth["cameras"][folders[c]]["Rt"][2][3].get<double>(), rec.truth.cameras[c].t[2]);
  }
}

INSTANTIATE_TEST_SUITE_P(Formats, SynthRoundTrip, ::testing::Values(false, true),
                         [](const auto& info) { return std::string(info.param ? "png" : "bmp"); });

TEST(SynthWriter, RewritingAFolderReplacesItsFramesAndFailuresAreReported) {
  TempDir dir("rewrite");
  synth::SwingScene first;
  first.seed = 71;
  first.frames = 12;
  first.impactIndex = 5;
  synth::WriteRecording(synth::Render(first), dir.path(), true);
  synth::SwingScene second = first;
  second.seed = 72;
  const synth::Recording rec = synth::Render(second);
  synth::WriteRecording(rec, dir.path());
  EXPECT_EQ(CountFrames(dir.path() / "Master", ".png"), 0u);
  EXPECT_EQ(CountFrames(dir.path() / "Master", ".bmp"), 12u);
  EXPECT_TRUE(fs::exists(dir.path() / "Master" / synth::FrameFileName(rec.images[0][0])));

  // A path below a plain file cannot be written.
  const fs::path blocker = dir.path() / "plain_file";
  std::ofstream(blocker) << "x";
  std::string error;
  EXPECT_FALSE(synth::WriteRecording(rec, blocker / "rec", false, error));
  EXPECT_NE(error.find("plain_file"), std::string::npos) << error;
  EXPECT_EQ(error.find('\n'), std::string::npos);
  EXPECT_THROW(synth::WriteRecording(rec, blocker / "rec"), std::runtime_error);
}

// ---------------------------------------------------------------------------
// The tool's synth subcommand.

struct ToolRun {
  int status = -1;
  std::string output;  // stdout and stderr together
};

ToolRun RunTool(const std::string& arguments) {
  ToolRun run;
  const std::string command = std::string(CLUBTRACK_TOOL_PATH) + " " + arguments + " 2>&1";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return run;
  char buffer[4096];
  size_t n = 0;
  while ((n = std::fread(buffer, 1, sizeof(buffer), pipe)) > 0) run.output.append(buffer, n);
  const int status = ::pclose(pipe);
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return run;
}

size_t Lines(const std::string& text) {
  size_t lines = 0;
  for (char ch : text) lines += ch == '\n';
  return lines;
}

TEST(SynthTool, WritesARecordingAndPrintsItsTruthInOneLine) {
  TempDir dir("tool");
  const ToolRun run =
      RunTool("synth " + dir.path().string() + " --seed 5 --frames 12 --impact-index 5 --png");
  EXPECT_EQ(run.status, 0) << run.output;
  EXPECT_EQ(Lines(run.output), 1u) << run.output;
  EXPECT_NE(run.output.find("seed 5"), std::string::npos) << run.output;
  EXPECT_NE(run.output.find("45.000 m/s"), std::string::npos) << run.output;
  EXPECT_EQ(CountFrames(dir.path() / "Master", ".png"), 12u);
  EXPECT_EQ(CountFrames(dir.path() / "Slave", ".png"), 12u);
  EXPECT_TRUE(fs::exists(dir.path() / "run.ini"));
  EXPECT_TRUE(fs::exists(dir.path() / "truth.json"));
}

class SynthToolRejects : public ::testing::TestWithParam<const char*> {};

TEST_P(SynthToolRejects, WrongOptionsGetOneLineAndStatusTwo) {
  TempDir dir("reject");
  const ToolRun run = RunTool("synth " + dir.path().string() + " " + GetParam());
  EXPECT_EQ(run.status, 2) << run.output;
  EXPECT_EQ(Lines(run.output), 1u) << run.output;
  EXPECT_EQ(run.output.rfind("clubtrack:", 0), 0u) << run.output;
  EXPECT_FALSE(fs::exists(dir.path() / "run.ini"));
}

INSTANTIATE_TEST_SUITE_P(Options, SynthToolRejects,
                         ::testing::Values("--speed 80", "--speed 29.9", "--fps 500", "--fps 4001",
                                           "--frames 5", "--placement middle", "--seed -1",
                                           "--seed 1.5", "--seed 99999999999999999999",
                                           "--noise -1", "--impact-index 24", "--bogus",
                                           "--speed"));

TEST(SynthTool, UnwritableFolderGetsOneLineAndFailureStatus) {
  TempDir dir("unwritable");
  const fs::path blocker = dir.path() / "plain_file";
  std::ofstream(blocker) << "x";
  const ToolRun run = RunTool("synth " + (blocker / "rec").string() + " --frames 12 --impact-index 5");
  EXPECT_NE(run.status, 0);
  EXPECT_NE(run.status, 2);
  EXPECT_EQ(Lines(run.output), 1u) << run.output;
  EXPECT_NE(run.output.find("plain_file"), std::string::npos) << run.output;
}

}  // namespace
