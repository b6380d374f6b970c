// The testing object through the shared library's QTIFactoryFunc on a run file
// without a recording (the golden test replays recordings).
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/loaded_tester.h"
#include "support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

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
