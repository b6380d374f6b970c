// A host program's view of the library: load it at run time, create and
// configure a tracker through the exported factory.
#include <dlfcn.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clubtracker/ClubTracker.h"

namespace {

struct LogSink {
  std::vector<std::wstring> lines;
};

void Collect(std::wstring line, void* context) {
  static_cast<LogSink*>(context)->lines.push_back(std::move(line));
}

class HostLoading : public ::testing::Test {
 protected:
  void SetUp() override {
    handle_ = dlopen(CLUBTRACKER_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle_, nullptr) << dlerror();
    allocate_ = reinterpret_cast<ClubTracker* (*)()>(dlsym(handle_, "AllocateFunc"));
    ASSERT_NE(allocate_, nullptr) << dlerror();
  }
  void TearDown() override {
    if (handle_ != nullptr) dlclose(handle_);
  }

  void* handle_ = nullptr;
  ClubTracker* (*allocate_)() = nullptr;
};

bool AllZero(const double* values, int count) {
  for (int i = 0; i < count; ++i)
    if (values[i] != 0.0) return false;
  return true;
}

ClubTrackerSetting Patterned() {
  ClubTrackerSetting s;
  std::memset(&s, 0, sizeof s);
  s.roiX = -3;
  s.roiY = 7;
  s.roiWidth = 320;
  s.roiHeight = 200;
  s.timeStampIntervalBeforeImpact = 1234;
  s.timeStampIntervalAfterImpact = -5;
  s.axisIndex = 0;
  s.axisNormIndex = 1;
  for (int i = 0; i < 9; ++i) s.cam1Intrinsic[i] = 1.0 / (i + 3);
  for (int i = 0; i < 12; ++i) s.cam1Extrinsic[i] = -2.5e-7 * (i + 1);
  for (int i = 0; i < 9; ++i) s.cam2Intrinsic[i] = 1e300 / (i + 1);
  for (int i = 0; i < 12; ++i) s.cam2Extrinsic[i] = 0.1 * i;
  s.logCallback = &Collect;
  s.logContext = &s;  // any pointer will do
  return s;
}

TEST_F(HostLoading, FactoryGivesDefaultConfiguredTracker) {
  ClubTracker* tracker = allocate_();
  ASSERT_NE(tracker, nullptr);
  const ClubTrackerSetting& s = tracker->setting;
  EXPECT_EQ(s.roiX, 0);
  EXPECT_EQ(s.roiY, 0);
  EXPECT_EQ(s.roiWidth, 0);
  EXPECT_EQ(s.roiHeight, 0);
  EXPECT_EQ(s.timeStampIntervalBeforeImpact, 2000);
  EXPECT_EQ(s.timeStampIntervalAfterImpact, 2000);
  EXPECT_EQ(s.axisIndex, 1);
  EXPECT_EQ(s.axisNormIndex, 2);
  EXPECT_TRUE(AllZero(s.cam1Intrinsic, 9));
  EXPECT_TRUE(AllZero(s.cam1Extrinsic, 12));
  EXPECT_TRUE(AllZero(s.cam2Intrinsic, 9));
  EXPECT_TRUE(AllZero(s.cam2Extrinsic, 12));
  EXPECT_EQ(s.logCallback, nullptr);
  EXPECT_EQ(tracker->referencePoint[0], 0.0);
  EXPECT_EQ(tracker->referencePoint[1], 0.0);
  EXPECT_EQ(tracker->referencePoint[2], 0.0);
  delete tracker;  // through the virtual destructor
}

TEST_F(HostLoading, SettingRoundTripsBitForBitAndCopiesShareTheLogTarget) {
  ClubTracker* tracker = allocate_();
  ASSERT_NE(tracker, nullptr);
  LogSink sink;
  ClubTrackerSetting s = Patterned();
  s.logContext = &sink;
  tracker->referencePoint[1] = 21.35;
  tracker->SetTrackerSetting(s);
  EXPECT_EQ(std::memcmp(&tracker->setting, &s, sizeof s), 0);
  EXPECT_EQ(tracker->referencePoint[1], 21.35) << "SetTrackerSetting touches nothing else";

  ClubTracker copy(*tracker);
  EXPECT_EQ(std::memcmp(&copy.setting, &s, sizeof s), 0);
  EXPECT_EQ(copy.referencePoint[1], 21.35);

  // Both log through the same callback with the same context: Find logs its
  // start line even with no frames.
  ClubTrackerResult result;
  copy.Find({}, {}, result, 0);
  tracker->Find({}, {}, result, 0);
  ASSERT_EQ(sink.lines.size(), 2u);
  EXPECT_EQ(sink.lines[0], L"ClubTracker::Find start");
  EXPECT_EQ(sink.lines[1], sink.lines[0]);
  EXPECT_EQ(result.frameCount, 0);
  EXPECT_EQ(result.frames, nullptr);

  ClubTracker assigned;
  assigned = copy;
  EXPECT_EQ(std::memcmp(&assigned.setting, &s, sizeof s), 0);
  delete tracker;
}

TEST(TrackerSetting, ConstructorTakesEverythingInitialiserLeavesContext) {
  ClubTrackerSetting s = Patterned();
  ClubTracker tracker(s);
  EXPECT_EQ(std::memcmp(&tracker.setting, &s, sizeof s), 0);

  int context = 0;
  ClubTrackerSetting fresh = Patterned();
  fresh.logContext = &context;
  InitClubTrackerSetting(fresh);
  EXPECT_EQ(fresh.logContext, &context) << "the initialiser leaves logContext alone";
  EXPECT_EQ(fresh.logCallback, nullptr);
  EXPECT_EQ(fresh.roiY, 0);
  EXPECT_EQ(fresh.axisIndex, 1);
  EXPECT_TRUE(AllZero(fresh.cam2Intrinsic, 9));
}

TEST(TrackerLayout, RecordsKeepTheirBinaryLayout) {
  // The calibration values of one camera are one contiguous run of 21 doubles.
  EXPECT_EQ(offsetof(ClubTrackerSetting, cam1Intrinsic), 32u);
  EXPECT_EQ(offsetof(ClubTrackerSetting, cam1Extrinsic), offsetof(ClubTrackerSetting, cam1Intrinsic) + 72);
  EXPECT_EQ(offsetof(ClubTrackerSetting, cam2Intrinsic), offsetof(ClubTrackerSetting, cam1Extrinsic) + 96);
  // The metadata block is 40 bytes from sensorOffsetX to the end of ClubImage.
  EXPECT_EQ(sizeof(ClubImage) - offsetof(ClubImage, sensorOffsetX), 40u);
  EXPECT_TRUE(std::is_trivially_copyable_v<ClubTrackerSetting>);
}

// The shared library exports the host interface and nothing of its insides.
TEST(LibraryExports, OnlyTheHostInterface) {
  const std::string command = std::string("nm -D --defined-only ") + CLUBTRACKER_LIBRARY_PATH;
  std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
  ASSERT_NE(pipe, nullptr);
  std::vector<std::string> functions;
  char line[4096];
  while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
    std::string text(line);
    if (text.find(" T ") == std::string::npos) continue;
    functions.push_back(text.substr(text.find(" T ") + 3, text.find_last_not_of("\n") - text.find(" T ") - 2));
  }
  ASSERT_FALSE(functions.empty()) << command;
  const std::vector<std::string> allowed = {
      "AllocateFunc", "QTIFactoryFunc", "_ZN11ClubTracker", "_ZN15ClubFrameResult",
      "_ZN17ClubTrackerResult", "_Z22InitClubTrackerSetting", "_Z8DebugLog",
      "_ZN11clubtracker", "_ZNK11clubtracker", "clubtracker_"};
  bool allocate = false;
  for (const std::string& name : functions) {
    allocate = allocate || name == "AllocateFunc";
    bool known = false;
    for (const std::string& prefix : allowed) known = known || name.rfind(prefix, 0) == 0;
    EXPECT_TRUE(known) << "unexpected export " << name;
    for (const char* stage : {"Preprocessing", "FindCandidateArea", "ExtractCandidates",
                              "FindClubSpinAxis", "SelectSpinAxisInliers", "FindShaftAndHead",
                              "GetLineThreshold", "DriverHeadArea", "3Log"}) {
      EXPECT_EQ(name.find(stage), std::string::npos) << "stage exported: " << name;
    }
  }
  EXPECT_TRUE(allocate) << "AllocateFunc must be exported without decoration";
}

}  // namespace
