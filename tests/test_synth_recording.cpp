// Synthetic recordings on disk read back by the replay (the synth
// subcommand's refusals are rows of the tool's bad-recording table).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <string>

#include "harness/offline.h"
#include "support/temp_folder.h"
#include "synth/swing.h"

namespace {

namespace fs = std::filesystem;

// The replay reads back bit for bit what was rendered (the ball position
// from the file names), in both image formats.
TEST(SynthRecording, ReplayReadsWhatWasRendered) {
  synth::SwingScene scene;
  scene.seed = 61;
  scene.dropFrame = true;
  scene.frames = 14;
  scene.impactIndex = 6;
  const synth::Recording rec = synth::Render(scene);
  EXPECT_EQ(rec.images[1].size(), rec.images[0].size() - 1);
  for (const bool png : {false, true}) {
    SCOPED_TRACE(png ? "png" : "bmp");
    TempFolder dir("synth");
    std::string error;
    ASSERT_TRUE(synth::WriteRecording(rec, dir.path, png, error)) << error;

    const RunOptions options = ReadRunOptions(dir.path / "run.ini");
    EXPECT_EQ(options.folderPath, L".");
    EXPECT_EQ(options.impactIndex, 6);
    ASSERT_FALSE(options.folder.empty());
    EXPECT_TRUE(fs::equivalent(options.folder, dir.path));

    double calibration[2][21];  // each camera's 9 intrinsic and 12 extrinsic values
    ReadCalibrationFile(CameraOptionFile(options.folder, 0), calibration[0]);
    ReadCalibrationFile(CameraOptionFile(options.folder, 1), calibration[1]);
    EXPECT_EQ(std::memcmp(calibration, rec.setting.cam1Intrinsic, sizeof calibration), 0);

    for (int c = 0; c < 2; ++c) {
      const fs::path folder = CameraFolder(options.folder, c);
      const auto isFrame = [&](const fs::directory_entry& f) {
        return f.path().extension() == (png ? ".png" : ".bmp");
      };
      EXPECT_EQ(std::count_if(fs::directory_iterator(folder), {}, isFrame),
                static_cast<long>(rec.images[c].size()));
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
        EXPECT_EQ(std::make_pair(a.ballX, a.ballY), std::make_pair(b.ballX, b.ballY));
      }
      FreeFrames(frames);
    }

    std::ifstream file(dir.path / "truth.json");
    const nlohmann::json truth = nlohmann::json::parse(file);
    EXPECT_EQ(truth["club_head_speed_mps"].get<double>(), rec.truth.clubHeadSpeedMps);
    EXPECT_EQ(truth["dropped_frame"].get<int>(), rec.truth.droppedFrame);
  }
}

}  // namespace
