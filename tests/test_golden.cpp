// Find on the golden recordings, in memory and through the shared library's
// replay: every log line, every result field and entry, and the tracker's ball
// position as the recordings' expected outputs give them; the replay's
// template-path speed is FindbyTemplate's on the same frames. And the replay
// of a run file without a recording.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "harness/offline.h"
#include "support/access.h"
#include "support/loaded_tester.h"
#include "support/log_capture.h"
#include "support/temp_folder.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// One run's outputs, in the shape of the expected outputs, against them.
void ExpectGolden(const json& got, const json& want) {
  // Log lines, in order; the processing time varies.
  const auto log = got["log"].get<std::vector<std::string>>();
  const auto wantLog = want["log"].get<std::vector<std::string>>();
  ASSERT_EQ(log.size(), wantLog.size());
  for (size_t i = 0; i < log.size(); ++i) {
    const size_t varies = wantLog[i].find("<varies>");
    if (varies == std::string::npos) {
      EXPECT_EQ(log[i], wantLog[i]) << i;
      continue;
    }
    ASSERT_EQ(log[i].substr(0, varies), wantLog[i].substr(0, varies)) << i;
    char* end = nullptr;
    EXPECT_GT(std::strtod(log[i].c_str() + varies, &end), 0.0) << log[i];
    EXPECT_EQ(*end, '\0') << log[i];
  }
  const auto relative = [](const json& a, const json& b, const char* what) {
    EXPECT_NEAR(a.get<double>(), b.get<double>(), 1e-6 * std::fabs(b.get<double>())) << what;
  };
  for (const char* key : {"clubHeadSpeed", "angularVelocity", "headRadius"})
    relative(got[key], want[key], key);
  for (int i = 0; i < 3; ++i) {
    relative(got["axisDirection"][i], want["axisDirection"][i], "axisDirection");
    relative(got["axisPosition"][i], want["axisPosition"][i], "axisPosition");
    if (got.contains("referencePoint")) {
      EXPECT_NEAR(got["referencePoint"][i].get<double>(), want["referencePoint"][i].get<double>(),
                  1e-3);
    }
  }
  for (const char* key : {"speedFrameFrom", "speedFrameTo", "frameCount", "pairedFrames"})
    EXPECT_EQ(got[key], want[key]) << key;
  ASSERT_EQ(got["frames"].size(), want["frames"].size());
  for (size_t e = 0; e < got["frames"].size(); ++e) {
    const json &entry = got["frames"][e], &wanted = want["frames"][e];
    for (const char* key : {"camera", "frameNumber", "hasShaft", "width", "height"})
      EXPECT_EQ(entry[key], wanted[key]) << key << " of entry " << e;
    for (int i = 0; i < 3; ++i)
      EXPECT_NEAR(entry["head"][i].get<double>(), wanted["head"][i].get<double>(), 1e-3) << e;
  }
}

template <typename Result>
json Outputs(const Result& r, const std::vector<std::string>& log) {
  return {{"log", log},
          {"clubHeadSpeed", r.clubHeadSpeed},
          {"angularVelocity", r.angularVelocity},
          {"headRadius", r.headRadius},
          {"axisDirection", std::vector<double>(r.axisDirection, r.axisDirection + 3)},
          {"axisPosition", std::vector<double>(r.axisPosition, r.axisPosition + 3)},
          {"speedFrameFrom", r.speedFrameFrom},
          {"speedFrameTo", r.speedFrameTo},
          {"frameCount", r.frameCount},
          {"frames", json::array()}};
}

json Entry(int camera, int frameNumber, int hasShaft, const float* head, uint32_t width,
           uint32_t height) {
  return {{"camera", camera}, {"frameNumber", frameNumber}, {"hasShaft", hasShaft},
          {"head", std::vector<double>(head, head + 3)}, {"width", width}, {"height", height}};
}

class Golden : public ::testing::TestWithParam<const char*> {};

TEST_P(Golden, InMemoryAndThroughTheReplay) {
  const fs::path dir = fs::path(CLUBTRACKER_GOLDEN_DIR) / GetParam();
  ASSERT_TRUE(fs::exists(dir / "expected.json")) << "missing golden recording " << dir;
  json expected;
  std::ifstream(dir / "expected.json") >> expected;

  LoadedRecording recording;
  std::string error;
  ASSERT_TRUE(LoadRecording(dir, recording, &error)) << error;
  double headSpeed = -1.0;  // the template path's on the same frames (all pair here)
  {
    SCOPED_TRACE("in memory");
    std::vector<std::string> log;
    ClubTracker tracker(LoggingInto(recording.setting, log));
    ClubTrackerResult result;
    EXPECT_EQ(tracker.Find(recording.cam1, recording.cam2, result, 0), 0);
    for (std::string& line : log) {  // lines that carry their own line break, without it
      if (!line.empty() && line.back() == '\n') line.pop_back();
    }
    json got = Outputs(result, log);
    got["pairedFrames"] = result.frameCount / 2;
    got["referencePoint"] = std::vector<double>(tracker.referencePoint, tracker.referencePoint + 3);
    const size_t paired = expected["pairedFrames"].get<size_t>();
    for (int e = 0; e < result.frameCount; ++e) {
      const ClubFrameResult& entry = result.frames[e];
      got["frames"].push_back(Entry(entry.camera, entry.frameNumber, entry.hasShaft, entry.head,
                                    entry.image.width, entry.image.height));
      // The raw frame behind the entry (the recordings pair one to one).
      const size_t k = static_cast<size_t>(e);
      const ClubImage* source = k < paired ? recording.cam1[k] : recording.cam2[k - paired];
      ASSERT_NE(entry.rawPixels, nullptr);
      EXPECT_EQ(std::memcmp(entry.rawPixels, source->pixels, size_t{source->width} * source->height),
                0) << e;
    }
    ExpectGolden(got, expected);
    tracker.FindbyTemplate(recording.cam1, recording.cam2, headSpeed);
  }
  {
    SCOPED_TRACE("replay");
    std::unique_ptr<QuarvelTestingInterface> tester = LoadedTester();
    ASSERT_NE(tester, nullptr);
    std::vector<std::unique_ptr<OfflineResultImage>> images;
    images.push_back(std::make_unique<OfflineResultImage>());  // a record of the host's own
    images.back()->frameNumber = -7;
    OfflineRunReport report;
    report.headTracking = true;
    testing::internal::CaptureStderr();
    const int returned = tester->RunOfflineTest(dir / "run.ini", images, &report);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "") << "with a report the log is collected";
    ASSERT_EQ(returned, 1);
    EXPECT_EQ(images[0]->frameNumber, -7) << "records are appended to the host's list";
    images.erase(images.begin());
    EXPECT_EQ(std::make_pair(report.cam1FrameCount, report.cam2FrameCount),
              std::make_pair(int(recording.cam1.size()), int(recording.cam2.size())));
    EXPECT_GT(report.processingTimeMs, 0.0);
    EXPECT_EQ(report.headTrackingSpeed, std::isnan(headSpeed) ? 0.0 : headSpeed);
    json got = Outputs(report, report.log);
    got["pairedFrames"] = report.pairedFrames;
    for (const auto& image : images) {
      got["frames"].push_back(Entry(image->camera, image->frameNumber, image->hasShaft, image->head,
                                    image->width, image->height));
      EXPECT_EQ(image->rawPixels.size(), size_t{image->width} * image->height);
    }
    ExpectGolden(got, expected);
  }
}

INSTANTIATE_TEST_SUITE_P(Find, Golden, ::testing::Values("g01", "g02"));

// A run file without a recording still calls Find.
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
