// The Find driver: pairing, early exits, the adaptive line passes, the time
// limit, the template fall-back, the raw-pixel copy and the error boundary.
#include <ostream>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "analysis/analysis.h"
#include "support/access.h"
#include "synth/swing.h"

namespace {

struct LogCapture {
  std::vector<std::string> lines;
  std::function<void(const std::string&)> onLine;
};

void CaptureLog(std::wstring line, void* context) {
  auto* capture = static_cast<LogCapture*>(context);
  std::string text(line.begin(), line.end());
  capture->lines.push_back(text);
  if (capture->onLine) capture->onLine(text);
}

// Frames of one camera: flat grey pictures, so that no stage finds a club.
// Each frame carries its index in pixel (0, 0), which the median filter and
// the mask clean-up remove, so the raw-pixel copy can be told apart.
class Frames {
 public:
  Frames(const std::vector<uint64_t>& timeStamps, int width = 64, int height = 48) {
    pixels_.resize(timeStamps.size());
    images_.resize(timeStamps.size());
    for (size_t i = 0; i < timeStamps.size(); ++i) {
      pixels_[i].assign(static_cast<size_t>(width) * height, 100);
      pixels_[i][0] = static_cast<unsigned char>(i + 1);
      ClubImage& image = images_[i];
      image = ClubImage{};
      image.width = static_cast<uint32_t>(width);
      image.height = static_cast<uint32_t>(height);
      image.bytesPerChannel = 1;
      image.channels = 1;
      image.pixels = pixels_[i].data();
      image.timeStamp = timeStamps[i];
    }
  }
  std::vector<ClubImage*> List() {
    std::vector<ClubImage*> list;
    for (ClubImage& image : images_) list.push_back(&image);
    return list;
  }
  const std::vector<unsigned char>& Pixels(size_t i) const { return pixels_[i]; }

 private:
  std::vector<std::vector<unsigned char>> pixels_;
  std::vector<ClubImage> images_;
};

std::vector<uint64_t> Stamps(size_t count, uint64_t first = 1000, uint64_t step = 500) {
  std::vector<uint64_t> stamps;
  for (size_t i = 0; i < count; ++i) stamps.push_back(first + i * step);
  return stamps;
}

// A tracker whose template path records its calls.
class TemplateSpy : public ClubTracker {
 public:
  explicit TemplateSpy(LogCapture& log) {
    setting.logCallback = CaptureLog;
    setting.logContext = &log;
  }
  int FindbyTemplate(std::vector<ClubImage*> cam1Images, std::vector<ClubImage*> cam2Images,
                     double& clubHeadSpeed) override {
    ++calls;
    seen1 = std::move(cam1Images);
    seen2 = std::move(cam2Images);
    if (failure) failure();
    clubHeadSpeed = speed;
    return 1;
  }

  int calls = 0;
  std::vector<ClubImage*> seen1;
  std::vector<ClubImage*> seen2;
  double speed = 0.0;
  std::function<void()> failure;
};

const char* const kTooFewSizes[10] = {"4.500000", "4.950000", "5.445000", "5.989500",
                                       "6.588449", "7.247294", "7.972024", "8.769226",
                                       "9.646149", "10.610764"};

std::string PassLine(int pass, int lines1 = 0, int lines2 = 0, int pairs = 0) {
  return std::string("cam1LineSize(") + kTooFewSizes[pass] + " - " + std::to_string(lines1) +
         "), cam2LineSize(" + kTooFewSizes[pass] + " - " + std::to_string(lines2) +
         "), foundPair:" + std::to_string(pairs);
}

// The whole log of a swing in which no camera ever shows a line.
std::vector<std::string> NoLineLog() {
  std::vector<std::string> log = {"ClubTracker::Find start"};
  for (int pass = 0; pass < 10; ++pass) log.push_back(PassLine(pass));
  log.push_back("Cannot find enough line pairs.");
  log.push_back("Calculate clubspeed again.");
  return log;
}

bool IsEndLine(const std::string& line) {
  return line.rfind("Clubtracker::Find end. Processing Time : ", 0) == 0 &&
         line.back() == '\n';
}

std::vector<std::string> WithoutEnd(std::vector<std::string> lines) {
  if (!lines.empty() && IsEndLine(lines.back())) lines.pop_back();
  return lines;
}

// --- pairing --------------------------------------------------------------

struct PairingCase {
  const char* name;
  std::vector<uint64_t> cam1;
  std::vector<uint64_t> cam2;
  std::vector<std::pair<int, int>> pairs;  // (camera-1 index, camera-2 index)
};

void PrintTo(const PairingCase& c, std::ostream* os) { *os << c.name; }

class Pairing : public ::testing::TestWithParam<PairingCase> {};

TEST_P(Pairing, HandsThePairedFramesToTheStagesInOrder) {
  const PairingCase& c = GetParam();
  Frames cam1(c.cam1);
  Frames cam2(c.cam2);
  LogCapture log;
  TemplateSpy tracker(log);
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, 0), 0);

  ASSERT_EQ(tracker.calls, 1);
  std::vector<ClubImage*> expected1;
  std::vector<ClubImage*> expected2;
  for (const auto& [i, j] : c.pairs) {
    expected1.push_back(cam1.List()[i]);
    expected2.push_back(cam2.List()[j]);
  }
  EXPECT_EQ(tracker.seen1, expected1);
  EXPECT_EQ(tracker.seen2, expected2);
  EXPECT_EQ(WithoutEnd(log.lines), NoLineLog());
  ASSERT_FALSE(log.lines.empty());
  EXPECT_TRUE(IsEndLine(log.lines.back()));
}

constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();

INSTANTIATE_TEST_SUITE_P(
    Find, Pairing,
    ::testing::Values(
        PairingCase{"TenApartPaired", {1000}, {1010}, {{0, 0}}},
        PairingCase{"TenApartOtherWayPaired", {1010}, {1000}, {{0, 0}}},
        PairingCase{"ElevenApartNotPaired", {1000}, {1011}, {}},
        PairingCase{"ElevenApartOtherWayNotPaired", {1011}, {1000}, {}},
        PairingCase{"EarlierFrameDropped", {1000, 1500}, {1011, 1500}, {{1, 1}}},
        PairingCase{"CameraTwoStartsLater",
                    {0, 500, 1000, 1500, 2000},
                    {1003, 1502, 2001, 2500},
                    {{2, 0}, {3, 1}, {4, 2}}},
        PairingCase{"UnequalCounts", {0, 500, 1000}, {2, 501, 999, 1500, 2000},
                    {{0, 0}, {1, 1}, {2, 2}}},
        PairingCase{"CameraTwoMissesAFrame", {0, 500, 1000, 1500}, {0, 1000, 1500},
                    {{0, 0}, {2, 1}, {3, 2}}},
        PairingCase{"SignedDifferenceAcrossWrap", {5}, {kMax}, {{0, 0}}},
        PairingCase{"SignedDifferenceAcrossWrapOtherWay", {kMax - 2}, {3}, {{0, 0}}},
        PairingCase{"NoOverlap", {0, 500}, {5000, 5500}, {}}),
    [](const ::testing::TestParamInfo<PairingCase>& info) { return info.param.name; });

// --- early exits ------------------------------------------------------------

TEST(Find, EmptyCameraListReturnsAtOnceWithOnlyTheStartLine) {
  Frames frames(Stamps(3));
  for (int emptyCamera = 0; emptyCamera < 3; ++emptyCamera) {
    LogCapture log;
    TemplateSpy tracker(log);
    ClubTrackerResult result;
    result.clubHeadSpeed = 0.0;
    const std::vector<ClubImage*> empty;
    EXPECT_EQ(tracker.Find(emptyCamera == 1 ? frames.List() : empty,
                           emptyCamera == 0 ? frames.List() : empty, result, 0),
              0);
    EXPECT_EQ(log.lines, std::vector<std::string>{"ClubTracker::Find start"});
    EXPECT_EQ(tracker.calls, 0);
    EXPECT_EQ(result.frames, nullptr);
    EXPECT_EQ(result.clubHeadSpeed, 0.0);
  }
}

TEST(Find, DefaultTrackerLogsNothing) {
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  ClubTracker tracker;
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, 0), 0);
  EXPECT_EQ(result.clubHeadSpeed, 0.0);
}

TEST(Find, NullFrameIsRefusedWithALogLine) {
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  std::vector<ClubImage*> withNull = cam2.List();
  withNull[1] = nullptr;
  LogCapture log;
  TemplateSpy tracker(log);
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(cam1.List(), withNull, result, 0), 0);
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_NE(log.lines[1].find("null frame"), std::string::npos);
  EXPECT_EQ(tracker.calls, 0);
}

// --- line passes and the fall-back ------------------------------------------

TEST(Find, TenPassesWithGrowingLineSizeWhenLinesAreTooFew) {
  Frames cam1(Stamps(4));
  Frames cam2(Stamps(4, 1003));
  LogCapture log;
  TemplateSpy tracker(log);
  ClubTrackerResult result;
  tracker.Find(cam1.List(), cam2.List(), result, 0);
  EXPECT_EQ(WithoutEnd(log.lines), NoLineLog());
  EXPECT_EQ(tracker.calls, 1);
  EXPECT_EQ(tracker.seen1, cam1.List());
  EXPECT_EQ(tracker.seen2, cam2.List());
}

struct FallbackCase {
  const char* name;
  double speedBefore;    // left in the result by an earlier call
  double templateSpeed;  // what the template path reports
  int templateCalls;
  double speedAfter;     // NaN = compare as NaN
};

void PrintTo(const FallbackCase& c, std::ostream* os) { *os << c.name; }

class Fallback : public ::testing::TestWithParam<FallbackCase> {};

TEST_P(Fallback, RunsTheTemplatePathOnlyForZeroSpeedAndZeroesNaN) {
  const FallbackCase& c = GetParam();
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  LogCapture log;
  TemplateSpy tracker(log);
  tracker.speed = c.templateSpeed;
  ClubTrackerResult result;
  result.clubHeadSpeed = c.speedBefore;
  tracker.Find(cam1.List(), cam2.List(), result, 0);
  EXPECT_EQ(tracker.calls, c.templateCalls);
  EXPECT_EQ(result.clubHeadSpeed, c.speedAfter);
  const bool announced =
      std::find(log.lines.begin(), log.lines.end(), "Calculate clubspeed again.") !=
      log.lines.end();
  EXPECT_EQ(announced, c.templateCalls == 1);
  EXPECT_TRUE(IsEndLine(log.lines.back()));
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();

INSTANTIATE_TEST_SUITE_P(
    Find, Fallback,
    ::testing::Values(FallbackCase{"TemplateFindsNothing", 0.0, 0.0, 1, 0.0},
                      FallbackCase{"TemplateSpeedKept", 0.0, 0.0421, 1, 0.0421},
                      FallbackCase{"TemplateNaNZeroed", 0.0, kNaN, 1, 0.0},
                      FallbackCase{"EarlierSpeedSkipsTemplate", 3.5, 9.0, 0, 3.5},
                      FallbackCase{"EarlierNaNSkipsTemplateAndIsZeroed", kNaN, 9.0, 0, 0.0}),
    [](const ::testing::TestParamInfo<FallbackCase>& info) { return info.param.name; });

TEST(Find, TemplateOverrideIsReachedThroughABaseReference) {
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  LogCapture log;
  TemplateSpy spy(log);
  spy.speed = 0.5;
  ClubTracker& tracker = spy;
  ClubTrackerResult result;
  tracker.Find(cam1.List(), cam2.List(), result, 0);
  EXPECT_EQ(spy.calls, 1);
  EXPECT_EQ(result.clubHeadSpeed, 0.5);
}

// --- time limit -------------------------------------------------------------

struct TimeLimitCase {
  const char* name;
  std::string slowLine;  // the log line after which the host stalls
  unsigned int limit;
  size_t linesLogged;    // log lines up to the time check that ends the call
  int templateCalls;
};

void PrintTo(const TimeLimitCase& c, std::ostream* os) { *os << c.name; }

class TimeLimit : public ::testing::TestWithParam<TimeLimitCase> {};

TEST_P(TimeLimit, IsCheckedAtTheSpecifiedPointsAndEndsSilently) {
  const TimeLimitCase& c = GetParam();
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  LogCapture log;
  int pass = 0;
  log.onLine = [&](const std::string& line) {
    const bool passLine = line.rfind("cam1LineSize(", 0) == 0;
    if (passLine) ++pass;
    const bool stall =
        line == c.slowLine || (passLine && c.slowLine == "pass " + std::to_string(pass));
    if (stall) std::this_thread::sleep_for(std::chrono::milliseconds(1100));
  };
  TemplateSpy tracker(log);
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, c.limit), 0);
  EXPECT_EQ(tracker.calls, c.templateCalls);
  if (c.linesLogged == 0) {
    EXPECT_EQ(WithoutEnd(log.lines), NoLineLog());
    EXPECT_TRUE(IsEndLine(log.lines.back()));
  } else {
    const std::vector<std::string> full = NoLineLog();
    EXPECT_EQ(log.lines, std::vector<std::string>(full.begin(), full.begin() + c.linesLogged));
  }
}

INSTANTIATE_TEST_SUITE_P(
    Find, TimeLimit,
    ::testing::Values(
        // After every line pass. (The start line comes before the clock is
        // read, so a stall there costs nothing.)
        TimeLimitCase{"AfterFirstPass", "pass 1", 1, 2, 0},
        TimeLimitCase{"AfterThirdPass", "pass 3", 1, 4, 0},
        // Before the fall-back.
        TimeLimitCase{"BeforeFallback", "Cannot find enough line pairs.", 1, 12, 0},
        // No limit.
        TimeLimitCase{"ZeroNeverTimesOut", "pass 1", 0, 0, 1}),
    [](const ::testing::TestParamInfo<TimeLimitCase>& info) { return info.param.name; });

// --- raw pixels -------------------------------------------------------------

TEST(Find, CopiesRawPixelsOnlyIntoEntriesOfMatchingSize) {
  Frames cam1(Stamps(2), 64, 48);
  Frames cam2(Stamps(2, 1002), 64, 48);
  LogCapture log;
  TemplateSpy tracker(log);
  ClubTrackerResult result;
  // An array as an earlier call left it. Entries 0-1 stand for camera 1's
  // frames, 2-3 for camera 2's; entry 2 has the wrong size and an old buffer,
  // entry 4 has no paired frame behind it.
  result.frames = new ClubFrameResult[5];
  result.frameCount = 5;
  const uint32_t sizes[5][2] = {{64, 48}, {64, 48}, {32, 48}, {64, 48}, {64, 48}};
  for (int e = 0; e < 5; ++e) {
    result.frames[e].image.width = sizes[e][0];
    result.frames[e].image.height = sizes[e][1];
  }
  result.frames[2].rawPixels = new unsigned char[16];
  result.frames[4].rawPixels = new unsigned char[16];

  tracker.Find(cam1.List(), cam2.List(), result, 0);

  ASSERT_EQ(result.frameCount, 5);
  const std::vector<unsigned char>* sources[5] = {&cam1.Pixels(0), &cam1.Pixels(1), nullptr,
                                                  &cam2.Pixels(1), nullptr};
  for (int e = 0; e < 5; ++e) {
    SCOPED_TRACE(e);
    if (sources[e] == nullptr) {
      EXPECT_EQ(result.frames[e].rawPixels, nullptr);
      continue;
    }
    ASSERT_NE(result.frames[e].rawPixels, nullptr);
    EXPECT_EQ(std::memcmp(result.frames[e].rawPixels, sources[e]->data(), sources[e]->size()),
              0);
  }
}

// --- the error boundary -----------------------------------------------------

TEST(Find, OpenCvErrorIsLoggedAsOneLineAndNothingEscapes) {
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  LogCapture log;
  TemplateSpy tracker(log);
  tracker.setting.roiX = 10;
  tracker.setting.roiY = 0;
  tracker.setting.roiWidth = 100;  // leaves the 64-column frame
  tracker.setting.roiHeight = 20;
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, 0), 0);
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(log.lines[1].rfind("ClubTracker::Find failed: OpenCV error: ", 0), 0u)
      << log.lines[1];
  EXPECT_EQ(log.lines[1].find('\n'), std::string::npos);
  EXPECT_EQ(tracker.calls, 0);
  EXPECT_EQ(result.frames, nullptr);
}

struct FailureCase {
  const char* name;
  std::function<void()> raise;
  std::string line;
};

void PrintTo(const FailureCase& c, std::ostream* os) { *os << c.name; }

class Failure : public ::testing::TestWithParam<FailureCase> {};

TEST_P(Failure, IsCaughtAtTheBoundaryAndLogged) {
  const FailureCase& c = GetParam();
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  LogCapture log;
  TemplateSpy tracker(log);
  tracker.failure = c.raise;
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, 0), 0);
  const std::vector<std::string> expected = NoLineLog();
  ASSERT_EQ(log.lines.size(), expected.size() + 1);
  EXPECT_EQ(std::vector<std::string>(log.lines.begin(), log.lines.end() - 1), expected);
  EXPECT_EQ(log.lines.back().rfind(c.line, 0), 0u) << log.lines.back();
  EXPECT_EQ(log.lines.back().find('\n'), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(
    Find, Failure,
    ::testing::Values(
        FailureCase{"Standard", [] { throw std::runtime_error("template lost the head"); },
                    "ClubTracker::Find failed: template lost the head"},
        FailureCase{"OutOfMemory", [] { throw std::bad_alloc(); },
                    "ClubTracker::Find failed: out of memory"},
        FailureCase{"OpenCv",
                    [] { CV_Error(cv::Error::StsBadArg, "no such template"); },
                    "ClubTracker::Find failed: OpenCV error: "},
        FailureCase{"Unknown", [] { throw 42; }, "ClubTracker::Find failed: unknown error"}),
    [](const ::testing::TestParamInfo<FailureCase>& info) { return info.param.name; });

// A frame that preprocessing refuses goes on with an empty picture, which a
// later stage cannot work with: the call ends at the boundary with one line.
TEST(Find, RefusedFrameEndsTheCallWithOneLine) {
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  std::vector<ClubImage*> frames2 = cam2.List();
  frames2[1]->bytesPerChannel = 2;
  LogCapture log;
  TemplateSpy tracker(log);
  ClubTrackerResult result;
  EXPECT_EQ(tracker.Find(cam1.List(), frames2, result, 0), 0);
  ASSERT_EQ(log.lines.size(), 2u);
  EXPECT_EQ(log.lines[1].rfind("ClubTracker::Find failed: OpenCV error: ", 0), 0u) << log.lines[1];
}

TEST(Find, ThrowingLogCallbackDoesNotEscape) {
  Frames cam1(Stamps(3));
  Frames cam2(Stamps(3));
  ClubTracker tracker;
  tracker.setting.logCallback = [](std::wstring, void*) { throw std::runtime_error("host"); };
  tracker.setting.logContext = nullptr;
  ClubTrackerResult result;
  EXPECT_NO_THROW(tracker.Find(cam1.List(), cam2.List(), result, 0));
}

// --- whole swings --------------------------------------------------------------

class WholeSwing : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { recording_ = new synth::Recording(synth::Render(synth::SwingScene{})); }
  static void TearDownTestSuite() {
    delete recording_;
    recording_ = nullptr;
  }

  // A tracker configured for the swing, logging into `log`.
  static ClubTrackerSetting Setting(LogCapture& log) {
    ClubTrackerSetting setting = recording_->setting;
    setting.logCallback = CaptureLog;
    setting.logContext = &log;
    return setting;
  }

  static synth::Recording* recording_;
};

synth::Recording* WholeSwing::recording_ = nullptr;

TEST_F(WholeSwing, SecondCallReplacesTheResultArrays) {
  LogCapture log;
  TemplateSpy tracker(log);
  tracker.SetTrackerSetting(Setting(log));
  ClubTrackerResult result;
  tracker.Find(recording_->Cam1(), recording_->Cam2(), result, 0);
  ASSERT_GT(result.clubHeadSpeed, 0.0);
  const double speed = result.clubHeadSpeed;
  const int frames = static_cast<int>(recording_->Cam1().size() + recording_->Cam2().size());
  ASSERT_EQ(result.frameCount, frames);

  // The second call starts from the filled result; the sanitizer run checks
  // that the first call's arrays and buffers are released.
  log.lines.clear();
  tracker.Find(recording_->Cam1(), recording_->Cam2(), result, 0);
  EXPECT_EQ(result.frameCount, frames);
  EXPECT_EQ(result.clubHeadSpeed, speed);
  EXPECT_EQ(tracker.calls, 0);
  EXPECT_TRUE(IsEndLine(log.lines.back()));

  // Every entry's size matches its paired frame, so every entry has raw pixels.
  const std::vector<ClubImage*> cam1 = recording_->Cam1();
  const std::vector<ClubImage*> cam2 = recording_->Cam2();
  for (int e = 0; e < result.frameCount; ++e) {
    SCOPED_TRACE(e);
    const ClubImage* source =
        e < static_cast<int>(cam1.size()) ? cam1[static_cast<size_t>(e)]
                                          : cam2[static_cast<size_t>(e) - cam1.size()];
    ASSERT_NE(result.frames[e].rawPixels, nullptr);
    EXPECT_EQ(std::memcmp(result.frames[e].rawPixels, source->pixels,
                          static_cast<size_t>(source->width) * source->height),
              0);
  }
}

// The entries are sized after the region of interest, so a cropping region
// leaves every raw-pixel buffer null.
TEST_F(WholeSwing, CroppingRegionLeavesRawPixelsNull) {
  LogCapture log;
  TemplateSpy tracker(log);
  ClubTrackerSetting setting = Setting(log);
  setting.roiWidth = static_cast<int32_t>(recording_->Cam1()[0]->width);
  setting.roiHeight = static_cast<int32_t>(recording_->Cam1()[0]->height) - 8;
  tracker.SetTrackerSetting(setting);
  ClubTrackerResult result;
  tracker.Find(recording_->Cam1(), recording_->Cam2(), result, 0);
  ASSERT_EQ(result.frameCount,
            static_cast<int>(recording_->Cam1().size() + recording_->Cam2().size()));
  for (int e = 0; e < result.frameCount; ++e) {
    EXPECT_EQ(result.frames[e].image.height, static_cast<uint32_t>(setting.roiHeight));
    EXPECT_EQ(result.frames[e].rawPixels, nullptr);
  }
}

TEST_F(WholeSwing, TimeIsCheckedAfterTheSpinAxis) {
  // How long this build takes up to the end of the spin-axis stage.
  using Clock = std::chrono::steady_clock;
  LogCapture probe;
  Clock::time_point start;
  double untilAxis = 0.0;
  probe.onLine = [&](const std::string& line) {
    if (line == "FindClubSpinAxis end.") {
      untilAxis = std::chrono::duration<double>(Clock::now() - start).count();
    }
  };
  TemplateSpy first(probe);
  first.SetTrackerSetting(Setting(probe));
  ClubTrackerResult firstResult;
  start = Clock::now();
  first.Find(recording_->Cam1(), recording_->Cam2(), firstResult, 0);
  ASSERT_GT(untilAxis, 0.0);

  // A limit well above that, and a host that stalls past it right after the
  // spin axis: the check that follows the spin-axis stage ends the call.
  const unsigned int limit = static_cast<unsigned int>(std::ceil(2.0 * untilAxis)) + 1;
  LogCapture log;
  log.onLine = [limit](const std::string& line) {
    if (line == "FindClubSpinAxis end.") {
      std::this_thread::sleep_for(std::chrono::milliseconds(1000 * limit + 100));
    }
  };
  TemplateSpy tracker(log);
  tracker.SetTrackerSetting(Setting(log));
  ClubTrackerResult result;
  tracker.Find(recording_->Cam1(), recording_->Cam2(), result, limit);
  ASSERT_FALSE(log.lines.empty());
  EXPECT_EQ(log.lines.back(), "FindClubSpinAxis end.");
  EXPECT_EQ(result.frames, nullptr);
  EXPECT_EQ(tracker.calls, 0);
}

// The driver makes each frame's edge map once and reuses it in every pass:
// the passes report what extracting the lines from the masks anew reports.
TEST_F(WholeSwing, LinePassesMatchExtractionFromTheMasks) {
  LogCapture log;
  TemplateSpy tracker(log);
  tracker.SetTrackerSetting(Setting(log));
  ClubTrackerResult result;
  tracker.Find(recording_->Cam1(), recording_->Cam2(), result, 0);
  std::vector<std::string> passes;
  for (const std::string& line : log.lines) {
    if (line.rfind("cam1LineSize(", 0) == 0) passes.push_back(line);
  }
  ASSERT_FALSE(passes.empty());

  // The same steps with the stages called one by one.
  ClubTracker literal(recording_->setting);
  using Access = ClubTrackerTestAccess;
  std::vector<PreprocessedImage> pre[2];
  std::vector<CandidateAreaImage*> cand[2];
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  const std::vector<ClubImage*> frames[2] = {recording_->Cam1(), recording_->Cam2()};
  ASSERT_EQ(frames[0].size(), frames[1].size());  // the default swing pairs one to one
  const int n = static_cast<int>(frames[0].size());
  for (int c = 0; c < 2; ++c) {
    pre[c].resize(frames[c].size());
    std::vector<PreprocessedImage*> list;
    for (size_t k = 0; k < frames[c].size(); ++k) {
      Access::Preprocessing(literal, frames[c][k], &pre[c][k]);
      list.push_back(&pre[c][k]);
    }
    Access::FindCandidateArea(literal, list, cand[c]);
    for (CandidateAreaImage* area : cand[c]) owned.emplace_back(area);
  }
  std::vector<cv::Mat> masks[2] = {std::vector<cv::Mat>(n), std::vector<cv::Mat>(n)};
  int both = 0;
  for (int k = 0; k < n; ++k) {
    int present[2] = {0, 0};
    for (int c = 0; c < 2; ++c) RefineCandidateMask(cand[c][k]->image, masks[c][k], &present[c]);
    both += present[0] == 1 && present[1] == 1;
  }
  int head[2] = {0, 0};
  if (both > 10) {
    for (int c = 0; c < 2; ++c) {
      std::vector<int> sizes;
      MeasureHeadSizes(literal, cand[c], masks[c], sizes);
      std::vector<int> positive;
      for (const int size : sizes) {
        if (size > 0) positive.push_back(size);
      }
      std::sort(positive.begin(), positive.end());
      ASSERT_FALSE(positive.empty());
      head[c] = positive[2 * positive.size() / 3];
    }
  }
  for (int k = 0; k < n; ++k) {
    for (int c = 0; c < 2; ++c) Access::DeleteDriverHeadArea(literal, cand[c][k], head[c]);
  }
  float lineSize[2] = {4.5f, 4.5f};
  int redo[2] = {1, 1};
  std::vector<std::string> literalPasses;
  for (int pass = 1; redo[0] != 0 || redo[1] != 0; ++pass) {
    for (int c = 0; c < 2; ++c) {
      if (redo[c] != 1) continue;
      const int before = Access::GetLineThreshold(literal, cand[c][0], lineSize[c]);
      int after = 0;
      for (CandidateAreaImage* area : cand[c]) {
        if (area->afterImpact == 1) {
          if (after <= 0) after = Access::GetLineThreshold(literal, area, lineSize[c]);
          Access::ExtractCandidates(literal, area, after);
        } else {
          Access::ExtractCandidates(literal, area, before);
        }
      }
      redo[c] = 0;
    }
    int count[2] = {0, 0};
    int pairs = 0;
    for (int k = 0; k < n; ++k) {
      for (int c = 0; c < 2; ++c) count[c] += static_cast<int>(cand[c][k]->lines.size());
      pairs += !cand[0][k]->lines.empty() && !cand[1][k]->lines.empty() &&
               cand[0][k]->afterImpact == 0 && cand[1][k]->afterImpact == 0;
    }
    char line[160];
    std::snprintf(line, sizeof line, "cam1LineSize(%f - %d), cam2LineSize(%f - %d), foundPair:%d",
                  static_cast<double>(lineSize[0]), count[0], static_cast<double>(lineSize[1]),
                  count[1], pairs);
    literalPasses.push_back(line);
    if (pass >= 10) break;
    for (int c = 0; c < 2; ++c) {
      const bool enough = pairs >= 3 && count[c] >= 2 * n;
      if (enough && count[c] <= 4 * n) continue;
      redo[c] = 1;
      lineSize[c] = static_cast<float>(enough ? lineSize[c] - 0.2 : lineSize[c] * 1.1);
      for (CandidateAreaImage* area : cand[c]) area->lines.clear();
    }
  }
  EXPECT_EQ(passes, literalPasses);
}

}  // namespace
