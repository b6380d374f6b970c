// The library on bad frames and settings: Find names each problem in one log
// line, keeps its defined outcome, and the public checks report the same.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <list>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clubtracker/measure.h"
#include "clubtracker/validation.h"
#include "support/log_capture.h"
#include "synth/swing.h"

namespace {

// What Find leaves in the result.
enum class Outcome { kSpeed, kInfiniteOrNone, kUntouched, kAny };

struct Swing {
  std::vector<ClubImage> frames[2];
  std::list<std::vector<unsigned char>> extraPixels;  // stable addresses
  ClubTrackerSetting setting;
  unsigned char* Extra(size_t bytes) { return extraPixels.emplace_back(bytes, 40).data(); }
  std::vector<ClubImage*> List(int camera) {
    std::vector<ClubImage*> list;
    for (ClubImage& f : frames[camera]) list.push_back(&f);
    return list;
  }
};

struct BadInput {
  const char* what;
  std::function<void(Swing&)> spoil;
  const char* line;  // the problem Find logs after "ClubTracker::Find: " (a prefix of it)
  Outcome outcome;
};

TEST(BadInput, FindNamesEveryProblemAndKeepsItsOutcome) {
  const synth::Recording rec = synth::Render(synth::SwingScene{});
  const int32_t kMaxInt = std::numeric_limits<int32_t>::max();
  const BadInput rows[] = {
      {"nothing wrong", [](Swing&) {}, nullptr, Outcome::kSpeed},
      {"ROI x + width wraps around in int",
       [&](Swing& s) { s.setting.roiX = 1, s.setting.roiWidth = kMaxInt, s.setting.roiHeight = 1; },
       "the region of interest (x 1, y 0, width 2147483647, height 1) ends beyond the largest "
       "possible frame (x + width = 2147483648",
       Outcome::kUntouched},
      {"ROI outside the frame",
       [](Swing& s) { s.setting.roiX = 600, s.setting.roiWidth = 100, s.setting.roiHeight = 20; },
       "the region of interest (x 600, y 0, width 100, height 20) leaves both cameras' 640 x 208 "
       "frames",
       Outcome::kUntouched},
      {"a frame of width 0", [](Swing& s) { s.frames[0][3].width = 0; },
       "camera 1: frame 3 is 0 x 208 pixels", Outcome::kUntouched},
      {"null pixels", [](Swing& s) { s.frames[1][5].pixels = nullptr; },
       "camera 2: frame 5 has no pixels", Outcome::kUntouched},
      {"2 bytes per channel", [](Swing& s) { s.frames[0][2].bytesPerChannel = 2; },
       "camera 1: frame 2 has 2 bytes per channel", Outcome::kUntouched},
      {"2 channels",  // with the buffer a 2-channel frame has
       [](Swing& s) { s.frames[0][2].channels = 2, s.frames[0][2].pixels = s.Extra(640 * 416); },
       "camera 1: frame 2 has 2 channels", Outcome::kUntouched},
      {"one 640 x 480 frame among 640 x 208",
       [](Swing& s) { s.frames[0][4].height = 480, s.frames[0][4].pixels = s.Extra(640 * 480); },
       "camera 1: frame 4 is 640 x 480 pixels, the camera's first frame 640 x 208", Outcome::kAny},
      {"all time stamps of both cameras equal",
       [](Swing& s) { for (auto& cam : s.frames) for (ClubImage& f : cam) f.timeStamp = 5000; },
       "camera 1: time stamps do not increase: frame 1 has 5000 after 5000 at frame 0; a speed "
       "over equal time stamps is infinite (and 22 more frames)",
       Outcome::kInfiniteOrNone},
      {"time-stamp interval 0", [](Swing& s) { s.setting.timeStampIntervalBeforeImpact = 0; },
       "timeStampIntervalBeforeImpact is 0", Outcome::kAny},
      {"axisIndex 5", [](Swing& s) { s.setting.axisIndex = 5; }, "axisIndex is 5", Outcome::kAny},
      {"no calibration", [](Swing& s) { for (double& v : s.setting.cam1Intrinsic) v = 0.0; },
       "camera 1's intrinsic calibration is all zero", Outcome::kAny},
      {"calibration of 1e308",
       [](Swing& s) { for (double& v : s.setting.cam2Intrinsic) v = 1e308; },
       "camera 2's intrinsic calibration matrix is not invertible", Outcome::kAny},
  };
  for (const BadInput& row : rows) {
    SCOPED_TRACE(row.what);
    Swing swing;
    swing.frames[0] = rec.images[0];
    swing.frames[1] = rec.images[1];
    swing.setting = rec.setting;
    row.spoil(swing);
    std::vector<std::string> log;
    swing.setting = LoggingInto(swing.setting, log);

    ClubTracker tracker(swing.setting);
    ClubTrackerResult result;
    EXPECT_EQ(tracker.Find(swing.List(0), swing.List(1), result, 0), 0);

    std::vector<std::string> problems;
    const bool valid =
        clubtracker::ValidateSetting(swing.setting, swing.List(0), swing.List(1), problems) &
        clubtracker::ValidateFrames(swing.List(0), swing.List(1), problems);
    if (row.line == nullptr) {
      EXPECT_TRUE(valid) << problems.front();
      EXPECT_FALSE(HasLineStarting(log, "ClubTracker::Find: "));
    } else {
      EXPECT_FALSE(valid);
      EXPECT_TRUE(HasLineStarting(problems, row.line)) << ::testing::PrintToString(problems);
      EXPECT_TRUE(HasLineStarting(log, std::string("ClubTracker::Find: ") + row.line))
          << ::testing::PrintToString(log);
    }
    // The modern API warns of the same problem; the head tracking, which
    // cannot use such frames, names it instead of a generic reason.
    const clubtracker::SwingReport report =
        clubtracker::Measure(swing.frames[0], swing.frames[1], swing.setting, {});
    EXPECT_EQ(HasLineStarting(report.warnings, std::string("input: ") + (row.line ? row.line : "")),
              row.line != nullptr)
        << ::testing::PrintToString(report.warnings);
    if (row.outcome == Outcome::kUntouched) {
      EXPECT_TRUE(HasLineStarting(report.headTrackingLog, std::string("FindbyTemplate: ") + row.line))
          << ::testing::PrintToString(report.headTrackingLog);
    }
    switch (row.outcome) {
      case Outcome::kSpeed:
        EXPECT_TRUE(std::isfinite(result.clubHeadSpeed) && result.clubHeadSpeed > 0.0);
        break;
      case Outcome::kInfiniteOrNone:
        EXPECT_TRUE(std::isinf(result.clubHeadSpeed) || result.clubHeadSpeed == 0.0)
            << result.clubHeadSpeed;
        break;
      case Outcome::kUntouched:
        EXPECT_EQ(result.frames, nullptr);
        EXPECT_EQ(result.clubHeadSpeed, 0.0);
        EXPECT_TRUE(HasLineStarting(log, "ClubTracker::Find failed: "))
            << ::testing::PrintToString(log);
        break;
      case Outcome::kAny:
        break;
    }
  }
}

}  // namespace
