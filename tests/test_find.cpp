// The Find driver: pairing, early exits, the adaptive line passes, the time
// limit, the template fall-back, the raw-pixel copy and the error boundary.
#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <tbb/global_control.h>

#include "support/access.h"
#include "synth/swing.h"

namespace {

struct LogCapture {
  std::vector<std::string> lines;
  std::function<void(const std::string&)> onLine;
};

void CaptureLog(std::wstring line, void* context) {
  auto* capture = static_cast<LogCapture*>(context);
  capture->lines.emplace_back(line.begin(), line.end());
  if (capture->onLine) capture->onLine(capture->lines.back());
}

// Flat grey frames of one camera (no stage finds a club); pixel (0, 0) holds
// the frame's index, which the filters remove, so the raw-pixel copy is visible.
class Frames {
 public:
  explicit Frames(const std::vector<uint64_t>& timeStamps)
      : pixels_(timeStamps.size(), std::vector<unsigned char>(64 * 48, 100)),
        images_(timeStamps.size()) {
    for (size_t i = 0; i < timeStamps.size(); ++i) {
      pixels_[i][0] = static_cast<unsigned char>(i + 1);
      images_[i] = ClubImage{};
      images_[i].width = 64, images_[i].height = 48;
      images_[i].bytesPerChannel = 1, images_[i].channels = 1;
      images_[i].pixels = pixels_[i].data();
      images_[i].timeStamp = timeStamps[i];
      list_.push_back(&images_[i]);
    }
  }
  const std::vector<ClubImage*>& List() const { return list_; }
  const std::vector<unsigned char>& Pixels(size_t i) const { return pixels_[i]; }

 private:
  std::vector<std::vector<unsigned char>> pixels_;
  std::vector<ClubImage> images_;
  std::vector<ClubImage*> list_;
};

std::vector<uint64_t> Stamps(size_t count, uint64_t first = 1000) {
  std::vector<uint64_t> stamps;
  for (size_t i = 0; i < count; ++i) stamps.push_back(first + i * 500);
  return stamps;
}

// A tracker (of `base`'s setting, if any) whose template path records its calls.
class TemplateSpy : public ClubTracker {
 public:
  explicit TemplateSpy(LogCapture& log, const ClubTrackerSetting* base = nullptr) {
    if (base != nullptr) SetTrackerSetting(*base);
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
  std::vector<ClubImage*> seen1, seen2;
  double speed = 0.0;
  std::function<void()> failure;
};

// The whole log of a swing in which no camera ever shows a line: ten passes
// with the line size growing by 1.1 from 4.5.
std::vector<std::string> NoLineLog() {
  const char* const sizes[10] = {"4.500000", "4.950000", "5.445000", "5.989500", "6.588449",
                                 "7.247294", "7.972024", "8.769226", "9.646149", "10.610764"};
  std::vector<std::string> log = {"ClubTracker::Find start"};
  for (const char* size : sizes) {
    log.push_back(std::string("cam1LineSize(") + size + " - 0), cam2LineSize(" + size +
                  " - 0), foundPair:0");
  }
  log.push_back("Cannot find enough line pairs.");
  log.push_back("Calculate clubspeed again.");
  return log;
}

bool IsEndLine(const std::string& line) {
  return line.rfind("Clubtracker::Find end. Processing Time : ", 0) == 0 && line.back() == '\n';
}

std::vector<std::string> WithoutEnd(std::vector<std::string> lines) {
  if (!lines.empty() && IsEndLine(lines.back())) lines.pop_back();
  return lines;
}

constexpr uint64_t kMax = std::numeric_limits<uint64_t>::max();

// Frames pair when their time stamps lie at most 10 apart (signed, across the
// wrap-around); the stages get the pairs in order.
TEST(Find, HandsThePairedFramesToTheStagesInOrder) {
  const struct {
    const char* name;
    std::vector<uint64_t> cam1, cam2;
    std::vector<std::pair<int, int>> pairs;  // (camera-1 index, camera-2 index)
  } cases[] = {
      {"ten apart", {1000}, {1010}, {{0, 0}}},
      {"ten before", {1000}, {990}, {{0, 0}}},
      {"eleven apart", {1011}, {1000}, {}},
      {"earlier frame dropped", {1000, 1500}, {1011, 1500}, {{1, 1}}},
      {"camera 2 starts later", {0, 500, 1000, 1500, 2000}, {1003, 1502, 2001, 2500},
       {{2, 0}, {3, 1}, {4, 2}}},
      {"unequal counts", {0, 500, 1000}, {2, 501, 999, 1500, 2000}, {{0, 0}, {1, 1}, {2, 2}}},
      {"signed difference across the wrap", {5}, {kMax}, {{0, 0}}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Frames cam1(c.cam1), cam2(c.cam2);
    LogCapture log;
    TemplateSpy tracker(log);
    ClubTrackerResult result;
    EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, 0), 0);
    ASSERT_EQ(tracker.calls, 1);
    std::vector<ClubImage*> expected1, expected2;
    for (const auto& [i, j] : c.pairs) {
      expected1.push_back(cam1.List()[i]);
      expected2.push_back(cam2.List()[j]);
    }
    EXPECT_EQ(tracker.seen1, expected1);
    EXPECT_EQ(tracker.seen2, expected2);
    // Too few lines: ten passes with growing line size, then the fall-back.
    EXPECT_EQ(WithoutEnd(log.lines), NoLineLog());
    ASSERT_FALSE(log.lines.empty());
    EXPECT_TRUE(IsEndLine(log.lines.back()));
  }
}

// The template path runs only when the lines gave no speed, a NaN speed is
// zeroed; an empty camera list returns at once with only the start line.
TEST(Find, TemplateRunsOnlyForZeroSpeedAndNaNIsZeroedEmptyListReturnsAtOnce) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  // speed left by an earlier call, template speed, empty camera (1, 2; 0: none),
  // template runs, speed after
  const struct { double before, reported; int empty, calls; double after; } cases[] = {
      {0.0, 0.0421, 0, 1, 0.0421}, {0.0, nan, 0, 1, 0.0}, {3.5, 9.0, 0, 0, 3.5},
      {nan, 9.0, 0, 0, 0.0},       {0.0, 9.0, 1, 0, 0.0}, {0.0, 9.0, 2, 0, 0.0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.before << " " << c.reported << " " << c.empty);
    Frames cam1(Stamps(c.empty == 1 ? 0 : 3)), cam2(Stamps(c.empty == 2 ? 0 : 3));
    LogCapture log;
    TemplateSpy spy(log);
    spy.speed = c.reported;
    ClubTracker& tracker = spy;  // the override is reached through the base
    ClubTrackerResult result;
    result.clubHeadSpeed = c.before;
    EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, 0), 0);
    EXPECT_EQ(spy.calls, c.calls);
    EXPECT_EQ(result.clubHeadSpeed, c.after);
    if (c.empty != 0) {
      EXPECT_EQ(log.lines, std::vector<std::string>{"ClubTracker::Find start"});
      EXPECT_EQ(result.frames, nullptr);
      continue;
    }
    const bool announced = std::find(log.lines.begin(), log.lines.end(),
                                     "Calculate clubspeed again.") != log.lines.end();
    EXPECT_EQ(announced, c.calls == 1);
    EXPECT_TRUE(IsEndLine(log.lines.back()));
  }
}

TEST(Find, TimeLimitOneEndsSilentlyAfterASlowPassAndZeroNeverTimesOut) {
  for (const unsigned int limit : {1u, 0u}) {
    SCOPED_TRACE(limit);
    Frames cam1(Stamps(3)), cam2(Stamps(3));
    LogCapture log;
    bool stalled = false;
    log.onLine = [&](const std::string& line) {  // the host stalls after the first pass
      if (!stalled && line.rfind("cam1LineSize(", 0) == 0) {
        stalled = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(1100));
      }
    };
    TemplateSpy tracker(log);
    ClubTrackerResult result;
    EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, limit), 0);
    const std::vector<std::string> full = NoLineLog();
    if (limit == 1) {
      EXPECT_EQ(tracker.calls, 0);
      EXPECT_EQ(log.lines, std::vector<std::string>(full.begin(), full.begin() + 2));
    } else {
      EXPECT_EQ(tracker.calls, 1);
      EXPECT_EQ(WithoutEnd(log.lines), full);
      EXPECT_TRUE(IsEndLine(log.lines.back()));
    }
  }
}

TEST(Find, CopiesRawPixelsOnlyIntoEntriesOfMatchingSize) {
  Frames cam1(Stamps(2)), cam2(Stamps(2, 1002));
  LogCapture log;
  TemplateSpy tracker(log);
  ClubTrackerResult result;
  // An array as an earlier call left it: entries 0-1 for camera 1, 2-3 for
  // camera 2; entry 2 has the wrong size and an old buffer, entry 4 no frame.
  result.frames = new ClubFrameResult[5];
  result.frameCount = 5;
  for (int e = 0; e < 5; ++e) {
    result.frames[e].image.width = e == 2 ? 32 : 64;
    result.frames[e].image.height = 48;
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
    EXPECT_EQ(std::memcmp(result.frames[e].rawPixels, sources[e]->data(), sources[e]->size()), 0);
  }
}

TEST(Find, FailuresAreCaughtAtTheBoundaryAndLogged) {
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[] { throw std::runtime_error("template lost the head"); },
       "ClubTracker::Find failed: template lost the head"},
      {[] { throw std::bad_alloc(); }, "ClubTracker::Find failed: out of memory"},
      {[] { CV_Error(cv::Error::StsBadArg, "no such template"); },
       "ClubTracker::Find failed: OpenCV error: "},
      {[] { throw 42; }, "ClubTracker::Find failed: unknown error"}};
  for (const auto& [raise, expectedLine] : cases) {
    SCOPED_TRACE(expectedLine);
    Frames cam1(Stamps(3)), cam2(Stamps(3));
    LogCapture log;
    TemplateSpy tracker(log);
    tracker.failure = raise;
    ClubTrackerResult result;
    EXPECT_EQ(tracker.Find(cam1.List(), cam2.List(), result, 0), 0);
    ASSERT_FALSE(log.lines.empty());
    EXPECT_EQ(std::vector<std::string>(log.lines.begin(), log.lines.end() - 1), NoLineLog());
    EXPECT_EQ(log.lines.back().rfind(expectedLine, 0), 0u) << log.lines.back();
    EXPECT_EQ(log.lines.back().find('\n'), std::string::npos);
  }
}

// Everything Find writes, the log without its timing line included.
std::vector<std::vector<uint8_t>> Outcome(const ClubTrackerResult& result, const LogCapture& log) {
  std::vector<std::vector<uint8_t>> out;
  const auto bytes = [&out](const void* data, size_t size) {
    const auto* p = static_cast<const uint8_t*>(data);
    out.emplace_back(p, p + size);
  };
  bytes(&result.headRadius, offsetof(ClubTrackerResult, clubHeadSpeed) + sizeof(double) -
                                offsetof(ClubTrackerResult, headRadius));
  for (int e = 0; e < result.frameCount; ++e) {
    const ClubFrameResult& f = result.frames[e];
    bytes(&f.camera, offsetof(ClubFrameResult, head) + sizeof(f.head));
    bytes(f.image.pixels, size_t{f.image.width} * f.image.height * f.image.channels);
    bytes(f.rawPixels, size_t{f.image.width} * f.image.height);
  }
  for (size_t k = 0; k + 1 < log.lines.size(); ++k) bytes(log.lines[k].data(), log.lines[k].size());
  return out;
}

// Run 2 is a second Find into run 1's result: the sanitizer run checks that the
// first call's arrays and buffers are freed.
TEST(Find, SameOutcomeOnOneAndTwoThreadsAndIntoAnEarlierResult) {
  synth::Recording recording = synth::Render(synth::SwingScene{});
  std::vector<std::vector<uint8_t>> outcomes[3];
  ClubTrackerResult reused;
  for (int run = 0; run < 3; ++run) {
    const tbb::global_control threads(tbb::global_control::max_allowed_parallelism,
                                      run == 0 ? 1 : 2);
    LogCapture log;
    TemplateSpy tracker(log, &recording.setting);
    ClubTrackerResult fresh;
    ClubTrackerResult& result = run == 2 ? reused : fresh;  // run 2: buffers of run 1's sizes
    if (run == 1) {
      tracker.Find(recording.Cam1(), recording.Cam2(), reused, 0);
      log.lines.clear();
    }
    tracker.Find(recording.Cam1(), recording.Cam2(), result, 0);
    ASSERT_GT(result.clubHeadSpeed, 0.0);
    EXPECT_EQ(tracker.calls, 0);
    ASSERT_EQ(result.frameCount, 48);
    for (int e = 0; e < result.frameCount; ++e) ASSERT_NE(result.frames[e].rawPixels, nullptr) << e;
    outcomes[run] = Outcome(result, log);
  }
  ASSERT_GT(outcomes[0].size(), 40u);
  EXPECT_TRUE(outcomes[0] == outcomes[1]) << "one thread against two";
  EXPECT_TRUE(outcomes[0] == outcomes[2]) << "fresh result against an earlier one";
}

}  // namespace
