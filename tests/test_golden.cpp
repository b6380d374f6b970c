// Find on the golden recordings: every log line, every result field and the
// tracker's ball position as the recordings' expected outputs give them.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "harness/offline.h"
#include "support/access.h"

namespace {

using nlohmann::json;

void CaptureLog(std::wstring line, void* context) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(line.begin(), line.end());
}

// Lines that carry their own line break are recorded without it.
std::string WithoutBreak(std::string line) {
  if (!line.empty() && line.back() == '\n') line.pop_back();
  return line;
}

::testing::AssertionResult Relative(const char* what, double actual, double expected) {
  const double tolerance = 1e-6 * std::max(std::fabs(actual), std::fabs(expected));
  if (std::fabs(actual - expected) <= tolerance) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure()
         << what << ": " << actual << " expected " << expected << " (relative 1e-6)";
}

class Golden : public ::testing::TestWithParam<const char*> {};

TEST_P(Golden, FindReproducesTheExpectedOutputs) {
  const std::filesystem::path dir = std::filesystem::path(CLUBTRACKER_GOLDEN_DIR) / GetParam();
  ASSERT_TRUE(std::filesystem::exists(dir / "expected.json")) << "missing golden recording " << dir;
  json expected;
  std::ifstream(dir / "expected.json") >> expected;

  LoadedRecording recording;
  std::string error;
  ASSERT_TRUE(LoadRecording(dir, recording, &error)) << error;
  std::vector<std::string> log;
  ClubTrackerSetting setting = recording.setting;
  setting.logCallback = CaptureLog;
  setting.logContext = &log;
  ClubTracker tracker(setting);
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(recording.cam1, recording.cam2, result, 0), 0);

  // Log lines, in order; the processing time varies.
  const std::vector<std::string> expectedLog = expected["log"].get<std::vector<std::string>>();
  ASSERT_EQ(log.size(), expectedLog.size());
  for (size_t i = 0; i < log.size(); ++i) {
    SCOPED_TRACE(i);
    const std::string line = WithoutBreak(log[i]);
    const std::string& want = expectedLog[i];
    const size_t varies = want.find("<varies>");
    if (varies == std::string::npos) {
      EXPECT_EQ(line, want);
      continue;
    }
    ASSERT_EQ(line.substr(0, varies), want.substr(0, varies));
    char* end = nullptr;
    const double milliseconds = std::strtod(line.c_str() + varies, &end);
    EXPECT_EQ(*end, '\0') << line;
    EXPECT_GT(milliseconds, 0.0);
  }

  EXPECT_TRUE(Relative("clubHeadSpeed", result.clubHeadSpeed, expected["clubHeadSpeed"]));
  EXPECT_TRUE(Relative("angularVelocity", result.angularVelocity, expected["angularVelocity"]));
  EXPECT_TRUE(Relative("headRadius", result.headRadius, expected["headRadius"]));
  for (int i = 0; i < 3; ++i) {
    EXPECT_TRUE(Relative("axisDirection", result.axisDirection[i], expected["axisDirection"][i]));
    EXPECT_TRUE(Relative("axisPosition", result.axisPosition[i], expected["axisPosition"][i]));
    EXPECT_NEAR(tracker.referencePoint[i], expected["referencePoint"][i].get<double>(), 1e-3);
  }
  EXPECT_EQ(result.speedFrameFrom, expected["speedFrameFrom"].get<int>());
  EXPECT_EQ(result.speedFrameTo, expected["speedFrameTo"].get<int>());
  ASSERT_EQ(result.frameCount, expected["frameCount"].get<int>());
  const int paired = expected["pairedFrames"].get<int>();
  EXPECT_EQ(result.frameCount, 2 * paired);

  const json& frames = expected["frames"];
  ASSERT_EQ(frames.size(), static_cast<size_t>(result.frameCount));
  for (int e = 0; e < result.frameCount; ++e) {
    SCOPED_TRACE(e);
    const ClubFrameResult& entry = result.frames[e];
    const json& want = frames[static_cast<size_t>(e)];
    EXPECT_EQ(entry.camera, want["camera"].get<int>());
    EXPECT_EQ(entry.frameNumber, want["frameNumber"].get<int>());
    EXPECT_EQ(entry.hasShaft, want["hasShaft"].get<int>());
    for (int i = 0; i < 3; ++i) EXPECT_NEAR(entry.head[i], want["head"][i].get<double>(), 1e-3);
    EXPECT_EQ(entry.image.width, want["width"].get<uint32_t>());
    EXPECT_EQ(entry.image.height, want["height"].get<uint32_t>());

    // The raw frame behind the entry (the recordings pair one to one).
    const ClubImage* source = e < paired ? recording.cam1[static_cast<size_t>(e)]
                                         : recording.cam2[static_cast<size_t>(e - paired)];
    ASSERT_NE(entry.rawPixels, nullptr);
    EXPECT_EQ(std::memcmp(entry.rawPixels, source->pixels,
                          static_cast<size_t>(source->width) * source->height),
              0);
  }
}

INSTANTIATE_TEST_SUITE_P(Find, Golden, ::testing::Values("g01", "g02"));

}  // namespace
