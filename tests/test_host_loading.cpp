// A host program's view of the library: load it at run time, create and
// configure a tracker through the exported factory.
#include <dlfcn.h>

#include <sstream>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clubtracker/ClubTracker.h"
#include "support/run_command.h"

namespace {

struct LogSink {
  std::vector<std::wstring> lines;
};

void Collect(std::wstring line, void* context) {
  static_cast<LogSink*>(context)->lines.push_back(std::move(line));
}

// The defaults: ROI 0, both intervals 2000, axis indices 1 and 2, calibration
// zero, no log callback.
void ExpectDefaults(const ClubTrackerSetting& s) {
  EXPECT_EQ((std::vector<int32_t>{s.roiX, s.roiY, s.roiWidth, s.roiHeight,
                                  s.timeStampIntervalBeforeImpact, s.timeStampIntervalAfterImpact,
                                  s.axisIndex, s.axisNormIndex}),
            (std::vector<int32_t>{0, 0, 0, 0, 2000, 2000, 1, 2}));
  const char* calibration = reinterpret_cast<const char*>(&s.cam1Intrinsic);  // 42 doubles
  EXPECT_EQ(std::string(calibration, 42 * sizeof(double)), std::string(42 * sizeof(double), '\0'));
  EXPECT_EQ(s.logCallback, nullptr);
}

// Every byte set (no padding in the record), and the log callback.
ClubTrackerSetting Patterned() {
  ClubTrackerSetting s;
  auto* bytes = reinterpret_cast<unsigned char*>(&s);
  for (size_t i = 0; i < sizeof s; ++i) bytes[i] = static_cast<unsigned char>(i * 37 + 11);
  s.logCallback = &Collect;
  s.logContext = &s;  // any pointer will do
  return s;
}

// The factory gives a default-configured tracker; a setting round-trips bit
// for bit through SetTrackerSetting, the constructor, copies and assignment,
// and copies log through the same callback and context.
TEST(HostLoading, FactoryTrackerSettingsAndCopies) {
  void* handle = dlopen(CLUBTRACKER_LIBRARY_PATH, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(handle, nullptr) << dlerror();
  const auto allocate = reinterpret_cast<ClubTracker* (*)()>(dlsym(handle, "AllocateFunc"));
  ASSERT_NE(allocate, nullptr) << dlerror();
  std::unique_ptr<ClubTracker> tracker(allocate());  // deleted through the virtual destructor
  ASSERT_NE(tracker, nullptr);
  ExpectDefaults(tracker->setting);
  EXPECT_EQ(std::vector<double>(tracker->referencePoint, tracker->referencePoint + 3),
            std::vector<double>(3, 0.0));

  LogSink sink;
  ClubTrackerSetting s = Patterned();
  s.logContext = &sink;
  tracker->referencePoint[1] = 21.35;
  tracker->SetTrackerSetting(s);
  EXPECT_EQ(std::memcmp(&tracker->setting, &s, sizeof s), 0);
  EXPECT_EQ(tracker->referencePoint[1], 21.35) << "SetTrackerSetting touches nothing else";
  ClubTracker copy(*tracker), constructed(s), assigned;
  assigned = copy;
  for (const ClubTracker* other : {&copy, &constructed, &assigned})
    EXPECT_EQ(std::memcmp(&other->setting, &s, sizeof s), 0);
  EXPECT_EQ(copy.referencePoint[1], 21.35);

  // Find logs its start line even with no frames.
  ClubTrackerResult result;
  copy.Find({}, {}, result, 0);
  tracker->Find({}, {}, result, 0);
  EXPECT_EQ(sink.lines, (std::vector<std::wstring>(2, L"ClubTracker::Find start")));
  EXPECT_EQ(result.frameCount, 0);
  EXPECT_EQ(result.frames, nullptr);
  tracker.reset();
  dlclose(handle);

  int context = 0;
  ClubTrackerSetting fresh = Patterned();
  fresh.logContext = &context;
  InitClubTrackerSetting(fresh);
  EXPECT_EQ(fresh.logContext, &context) << "the initialiser leaves logContext alone";
  ExpectDefaults(fresh);
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

// The shared library exports exactly the host interface (the factories, the
// tracker, the records' special members, also defined inline in the header for
// plug-in hosts), the C interface and measure.h, nothing of its insides.
TEST(LibraryExports, ExactlyTheHostInterface) {
  const std::string command = std::string("nm -D --defined-only ") + CLUBTRACKER_LIBRARY_PATH;
  std::istringstream symbols(RunCommand(command).out);
  std::set<std::string> functions;
  for (std::string address, type, name; symbols >> address >> type >> name;)
    if (type == "T") functions.insert(name);
  const std::set<std::string> expected = {
      "AllocateFunc", "QTIFactoryFunc", "_Z22InitClubTrackerSettingR18ClubTrackerSetting",
      "_Z8DebugLogNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEEPv",
      "_ZN11ClubTracker14FindbyTemplateESt6vectorIP9ClubImageSaIS2_EES4_Rd",
      "_ZN11ClubTracker17SetTrackerSettingE18ClubTrackerSetting",
      "_ZN11ClubTracker20FindHeadAndCalculateERKSt6vectorIP9ClubImageSaIS2_EES6_R17ClubTrackerResult",
      "_ZN11ClubTracker4FindESt6vectorIP9ClubImageSaIS2_EES4_R17ClubTrackerResultj",
      "_ZN11ClubTrackerC1E18ClubTrackerSetting", "_ZN11ClubTrackerC1ERKS_", "_ZN11ClubTrackerC1Ev",
      "_ZN11ClubTrackerC2E18ClubTrackerSetting", "_ZN11ClubTrackerC2ERKS_", "_ZN11ClubTrackerC2Ev",
      "_ZN11ClubTrackerD0Ev", "_ZN11ClubTrackerD1Ev", "_ZN11ClubTrackerD2Ev", "_ZN11ClubTrackeraSERKS_",
      "_ZN15ClubFrameResultC1Ev", "_ZN15ClubFrameResultC2Ev", "_ZN15ClubFrameResultD1Ev",
      "_ZN15ClubFrameResultD2Ev", "_ZN17ClubTrackerResult13ReleaseFramesEv",
      "_ZN17ClubTrackerResultC1EOS_", "_ZN17ClubTrackerResultC1Ev", "_ZN17ClubTrackerResultC2EOS_",
      "_ZN17ClubTrackerResultC2Ev", "_ZN17ClubTrackerResultD1Ev", "_ZN17ClubTrackerResultD2Ev",
      "_ZN17ClubTrackerResultaSEOS_",
      // The C interface.
      "clubtracker_default_options", "clubtracker_measure_frames", "clubtracker_measure_recording",
      "clubtracker_status_text", "clubtracker_version"};
  // The C++ interface of measure.h sits beside the host interface.
  std::erase_if(functions, [](const std::string& name) {
    for (const char* prefix : {"_ZN11clubtracker", "_ZNK11clubtracker"}) {
      if (name.rfind(prefix, 0) == 0) return true;
    }
    return false;
  });
  EXPECT_EQ(functions, expected) << command;
}

}  // namespace
