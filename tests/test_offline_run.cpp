// The testing object end to end through the shared library's QTIFactoryFunc.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <tuple>

#include <gtest/gtest.h>

#include "harness/offline.h"
#include "synth/swing.h"
#include "support/loaded_tester.h"
#include "support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

void CollectLine(std::wstring line, void* context) {
  std::string narrow(line.begin(), line.end());
  while (!narrow.empty() && narrow.back() == '\n') narrow.pop_back();
  static_cast<std::vector<std::string>*>(context)->push_back(narrow);
}

const char* kEndLinePrefix = "Clubtracker::Find end. Processing Time : ";

// The default synthetic swing, written and replayed: the replay measures
// exactly what Find and FindbyTemplate measure on the rendered frames.
TEST(OfflineRun, SameMeasurementAsTheSwingInMemory) {
  synth::Recording recording = synth::Render(synth::SwingScene{});
  TempFolder folder;
  synth::WriteRecording(recording, folder.path);
  std::unique_ptr<QuarvelTestingInterface> tester = LoadedTester();
  ASSERT_NE(tester, nullptr) << "QTIFactoryFunc failed";
  std::vector<std::unique_ptr<OfflineResultImage>> images;
  images.push_back(std::make_unique<OfflineResultImage>());  // a record of the host's own
  images.back()->frameNumber = -7;
  OfflineRunReport report;
  report.headTracking = true;
  testing::internal::CaptureStderr();
  ASSERT_EQ(tester->RunOfflineTest(folder.path / "run.ini", images, &report), 1);
  const std::string stderrText = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(stderrText.empty()) << "with a report the log is collected: " << stderrText;
  EXPECT_EQ(std::make_tuple(report.cam1FrameCount, report.cam2FrameCount, report.frameCount,
                            report.pairedFrames),
            std::make_tuple(24, 24, 48, 24));
  ASSERT_EQ(images.size(), 1u + 48u);
  EXPECT_EQ(images[0]->frameNumber, -7) << "records are appended to the host's list";
  ASSERT_FALSE(report.log.empty());
  EXPECT_EQ(report.log.back().rfind(kEndLinePrefix, 0), 0u) << report.log.back();
  for (const std::string& line : report.log) EXPECT_EQ(line.find('\n'), std::string::npos) << line;
  EXPECT_GT(report.processingTimeMs, 0.0);
  // Line-based speed: off by tens of percent (docs/accuracy.md), bounded by a factor of 2.
  const double truth = recording.truth.clubHeadSpeed;
  ASSERT_GT(report.clubHeadSpeed, 0.0);
  EXPECT_LT(std::fabs(report.clubHeadSpeed / truth - 1.0), 1.0)
      << "measured " << report.clubHeadSpeed << " mm/us, truth " << truth;

  std::vector<std::string> log;
  ClubTrackerSetting setting = recording.setting;
  setting.logCallback = &CollectLine;
  setting.logContext = &log;
  ClubTracker tracker(setting);
  ClubTrackerResult result;
  tracker.Find(recording.Cam1(), recording.Cam2(), result, 0);
  EXPECT_EQ(report.clubHeadSpeed, result.clubHeadSpeed);
  EXPECT_EQ(report.angularVelocity, result.angularVelocity);
  EXPECT_EQ(report.headRadius, result.headRadius);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(report.axisDirection[i], result.axisDirection[i]);
    EXPECT_EQ(report.axisPosition[i], result.axisPosition[i]);
  }
  EXPECT_EQ(std::make_tuple(report.speedFrameFrom, report.speedFrameTo, report.frameCount),
            std::make_tuple(result.speedFrameFrom, result.speedFrameTo, result.frameCount));
  ASSERT_EQ(report.log.size(), log.size());
  EXPECT_EQ(report.log.front(), "ClubTracker::Find start");
  for (size_t i = 0; i + 1 < log.size(); ++i) EXPECT_EQ(report.log[i], log[i]);

  // The template path on the same paired frames (all frames pair here).
  double headSpeed = -1.0;
  tracker.FindbyTemplate(recording.Cam1(), recording.Cam2(), headSpeed);
  EXPECT_GT(report.headTrackingSpeed, 0.0);
  EXPECT_EQ(report.headTrackingSpeed, std::isnan(headSpeed) ? 0.0 : headSpeed);
}

TEST(OfflineRun, EmptyFolderPathStillCallsFind) {
  TempFolder temp;
  std::ofstream(temp.path / "run.ini") << "[ROI]\nX=0\n[Info]\nFolderPath=\nImpactIndex=3\n";
  std::unique_ptr<QuarvelTestingInterface> tester = LoadedTester();
  ASSERT_NE(tester, nullptr);

  std::vector<std::unique_ptr<OfflineResultImage>> images;
  OfflineRunReport report;
  EXPECT_EQ(tester->RunOfflineTest(temp.path / "run.ini", images, &report), 1);
  EXPECT_EQ(report.log, std::vector<std::string>{"ClubTracker::Find start"});
  EXPECT_TRUE(images.empty());
  EXPECT_EQ(report.cam1FrameCount, 0);
  EXPECT_EQ(report.frameCount, 0);

  // Without a report the log goes to standard error; a missing run file has an empty FolderPath.
  for (const fs::path& runFile : {temp.path / "run.ini", temp.path / "absent.ini"}) {
    testing::internal::CaptureStderr();
    const int returned = tester->RunOfflineTest(runFile, images);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "ClubTracker::Find start\n");
    EXPECT_EQ(returned, 1);
    EXPECT_TRUE(images.empty());
  }
}

}  // namespace
