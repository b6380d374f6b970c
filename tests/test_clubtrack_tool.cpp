// The clubtrack tool as a user runs it: run with JSON, pictures and the summary, errors.
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "synth/swing.h"
#include "support/run_command.h"
#include "support/written_swing.h"

namespace fs = std::filesystem;

namespace {

// The tool with `arguments` (already quoted) in `workDir`; `runAs` goes before
// the tool's path (e.g. to drop root's privileges).
CommandRun RunTool(const std::string& arguments, const fs::path& workDir,
                   const std::string& runAs = "") {
  return RunCommand("cd " + Quote(workDir.string()) + " && " + runAs + Quote(CLUBTRACK_TOOL_PATH) +
                    " " + arguments);
}

// The default swing written once.
const WrittenSwing& Default() {
  static const WrittenSwing swing(synth::SwingScene{});
  return swing;
}

}  // namespace

// One run: the JSON on standard output, the summary and log on standard
// error, the annotated frames and the sheet on disk.
TEST(ClubtrackRun, JsonSummaryAnnotatedFramesAndSheet) {
  const WrittenSwing& rec = Default();
  TempFolder out;
  const CommandRun run = RunTool("run " + Quote((rec.path / "run.ini").string()) +
                                     " --json - --annotated frames --sheet sheet.png",
                                 out.path);
  ASSERT_EQ(run.status, 0) << run.err;
  nlohmann::json json;
  ASSERT_NO_THROW(json = nlohmann::json::parse(run.out)) << run.out;
  for (const char* key : {"clubHeadSpeed", "clubHeadSpeedMps", "angularVelocity", "headRadius",
                          "speedFrameFrom", "speedFrameTo", "frameCount", "pairedFrames",
                          "processingTimeMs", "headTrackingSpeed", "headTrackingSpeedMps"})
    EXPECT_TRUE(json.contains(key) && json[key].is_number()) << key;
  for (const char* key : {"axisDirection", "axisPosition"})
    EXPECT_TRUE(json[key].is_array() && json[key].size() == 3) << key;
  ASSERT_TRUE(json["log"].is_array() && !json["log"].empty());
  EXPECT_EQ(json["log"][0], "ClubTracker::Find start");
  for (const auto& line : json["log"]) EXPECT_EQ(line.get<std::string>().find('\n'), std::string::npos) << line;
  EXPECT_EQ(std::make_pair(json["frameCount"].get<int>(), json["pairedFrames"].get<int>()),
            std::make_pair(48, 24));
  const double speed = json["clubHeadSpeed"];
  EXPECT_DOUBLE_EQ(json["clubHeadSpeedMps"].get<double>(), speed * 1000.0);
  EXPECT_DOUBLE_EQ(json["headTrackingSpeedMps"].get<double>(),
                   json["headTrackingSpeed"].get<double>() * 1000.0);
  // Line-based speed: off by tens of percent (docs/accuracy.md), bounded by a factor of 2.
  EXPECT_GT(speed, 0.0);
  EXPECT_LT(std::fabs(speed / rec.recording.truth.clubHeadSpeed - 1.0), 1.0)
      << "measured " << speed << ", truth " << rec.recording.truth.clubHeadSpeed;
  // Head-tracking speed: within 2 % on the default swing.
  const double headSpeed = json["headTrackingSpeed"];
  EXPECT_LT(std::fabs(headSpeed / rec.recording.truth.clubHeadSpeed - 1.0), 0.02)
      << "head tracking " << headSpeed << ", truth " << rec.recording.truth.clubHeadSpeed;
  EXPECT_NE(run.err.find("Club-head speed"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("  ClubTracker::Find start"), std::string::npos) << run.err;

  int candidates = 0, raws = 0;
  for (const auto& entry : fs::directory_iterator(out.path / "frames")) {
    const std::string name = entry.path().filename().string();
    candidates += name.find("_candidates.png") != std::string::npos ? 1 : 0;
    raws += name.find("_raw.png") != std::string::npos ? 1 : 0;
  }
  EXPECT_EQ(std::make_pair(candidates, raws), std::make_pair(48, 48));
  const cv::Mat raw = cv::imread((out.path / "frames" / "cam2_frame07_raw.png").string());
  EXPECT_EQ(raw.size(), cv::Size(640, 208));
  const cv::Mat sheet = cv::imread((out.path / "sheet.png").string());
  EXPECT_GT(sheet.cols, 2 * 400);   // two cameras side by side
  EXPECT_GT(sheet.rows, 24 * 150);  // one row per paired frame
}

// Broken recordings and wrong commands, on a copy of the default recording
// after `prepare` (shell) ran on it. Status 1 or 2: one line on standard
// error holding `words`. Status 0: the run goes on (quiet: nothing on standard
// output), and the warning holding `words` is on standard error and in the JSON `warnings`.
struct BadRecording {
  const char* name;
  const char* prepare;
  const char* arguments;
  int status;
  const char* words;
};

class ClubtrackBadRecordings : public ::testing::TestWithParam<BadRecording> {};

TEST_P(ClubtrackBadRecordings, OneClearLine) {
  const BadRecording& row = GetParam();
  // Permissions do not bind root: such rows run the tool as nobody.
  const bool dropRoot =
      ::geteuid() == 0 && std::string(row.prepare).find("chmod") != std::string::npos;
  TempFolder work;
  fs::copy(Default().path, work.path / "rec", fs::copy_options::recursive);
  const std::string prepare = "cd " + Quote(work.path.string()) + " && export CLUBTRACK=" +
                              Quote(CLUBTRACK_TOOL_PATH) + " && " + row.prepare;
  ASSERT_EQ(std::system(prepare.c_str()), 0) << prepare;
  const CommandRun run = RunTool(row.arguments, work.path,
                              dropRoot ? "setpriv --reuid=65534 --regid=65534 --clear-groups " : "");
  EXPECT_EQ(run.status, row.status) << run.err;
  EXPECT_NE(run.err.find(row.words), std::string::npos) << run.err;
  if (row.status != 0) {
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
    EXPECT_EQ(run.err.rfind("clubtrack", 0), 0u) << run.err;
    EXPECT_FALSE(fs::exists(work.path / "out")) << "a refused synth writes nothing";
    return;
  }
  EXPECT_EQ(run.out, "");
  const nlohmann::json json = nlohmann::json::parse(ReadAll(work.path / "out.json"));
  const auto& warnings = json["warnings"];
  EXPECT_TRUE(std::any_of(warnings.begin(), warnings.end(), [&row](const nlohmann::json& w) {
    return w.get<std::string>().find(row.words) != std::string::npos;
  })) << warnings;
}

#define RUN_JSON "run rec -q --json out.json"

INSTANTIATE_TEST_SUITE_P(
    Cases, ClubtrackBadRecordings,
    ::testing::Values(
        BadRecording{"MissingRecording", "true", "run no-such-rec", 1, "no such file or folder"},
        BadRecording{"FolderWithoutRunFile", "rm rec/run.ini", "run rec", 1, "holds no run.ini"},
        BadRecording{"NoFramesInOneCamera", "rm rec/Slave/*.bmp", "run rec", 1, "no frame images"},
        BadRecording{"GarbageInteger",
                     "sed -i 's/ImpactIndex=/ImpactIndex=ten/' rec/run.ini && grep -q =ten rec/run.ini",
                     "run rec/run.ini", 1, "is not a whole number"},
        BadRecording{"MissingCalibration", "rm rec/Slave/SlaveOption.ini", "run rec", 1,
                     "SlaveOption.ini\": it does not exist"},
        BadRecording{"EmptyFolderPath", "printf '[Info]\\nFolderPath=\\n' > rec/run.ini",
                     "run rec", 1, "FolderPath is missing"},
        BadRecording{"JsonIntoAMissingFolder", "true", "run rec --json no/such/dir/out.json", 1,
                     "does not exist"},
        BadRecording{"UnknownOption", "true", "run rec --fast", 2, "--fast"},
        BadRecording{"RoiWrapsAroundInInt",
                     "printf '[ROI]\\nX=1\\nWidth=2147483647\\nHeight=1\\n[Info]\\nFolderPath=.\\n' "
                     "> rec/run.ini",
                     "run rec", 1, "[ROI] region of interest (x 1, y 0, width 2147483647, height 1)"},
        BadRecording{"RunFileIsAFifo", "mkfifo fifo.ini", "run fifo.ini", 1,
                     "it is not a regular file"},
        BadRecording{"OptionFileIsDevZero", "ln -sf /dev/zero rec/Master/MasterOption.ini",
                     "run rec", 1, "MasterOption.ini\": it is not a regular file"},
        BadRecording{"HugeOptionFile",
                     "head -c 2000000 /dev/zero | tr '\\000' ';' > rec/Slave/SlaveOption.ini",
                     "run rec", 1, "2000000 bytes, more than the 1048576"},
        BadRecording{"UnreadableFrames", "chmod 000 rec/Slave/*.bmp", "run rec", 1,
                     "permission denied"},
        BadRecording{"PixelLimitOption", "true", "run rec --max-pixels 100000", 1,
                     "640 x 208 pixels, more than the limit of 100000"},
        BadRecording{"SynthIntoAnEmptyName", "true", "synth ''", 2, "OUT_DIR"},
        BadRecording{"SynthNanSpeed", "true", "synth out --speed nan", 2, "finite"},
        BadRecording{"SynthSpeedOutOfRange", "true", "synth out --speed 80", 2, "--speed"},
        BadRecording{"SynthFractionalSeed", "true", "synth out --seed 1.5", 2, "whole number"},
        BadRecording{"SynthImpactPastTheFrames", "true", "synth out --impact-index 24", 2,
                     "smaller than --frames"},
        BadRecording{"TruncatedFrame",
                     "f=$(ls rec/Master/*.bmp | sed -n 5p) && head -c 3000 $f > t && mv t $f",
                     RUN_JSON, 0, "is truncated (3000 of the"},
        BadRecording{"HugePng",
                     "python3 -c \"import zlib,struct;c=lambda t,d:struct.pack('>I',len(d))+t+d+"
                     "struct.pack('>I',zlib.crc32(t+d));open('rec/Master/999999999_0_0_0_0.png',"
                     "'wb').write(b'\\x89PNG\\r\\n\\x1a\\n'+c(b'IHDR',struct.pack('>IIBBBBB',"
                     "20000,20000,8,0,0,0,0))+c(b'IDAT',zlib.compress(bytes(20001*8)))+"
                     "c(b'IEND',b''))\"",
                     RUN_JSON, 0, "is 20000 x 20000 pixels, more than the limit of 16000000"},
        BadRecording{"EqualTimeStamps",
                     "cd rec/Slave && k=0 && for f in *.bmp; do mv $f 7777_0_0_1_2_$k.bmp; "
                     "k=$((k+1)); done",
                     RUN_JSON, 0, "time stamp 7777, the same as"},
        BadRecording{"TwoSizesInOneCamera",
                     "$CLUBTRACK synth far --placement far --frames 12 --impact-index 5 >/dev/null && "
                     "cp $(ls far/Master/*.bmp | head -1) $(ls rec/Master/*.bmp | sed -n 6p)",
                     RUN_JSON, 0, "is 640 x 480 pixels, the camera's first frame"},
        BadRecording{"ZeroInterval",
                     "sed -i 's/TimeStampIntervalBeforeImpact=.*/TimeStampIntervalBeforeImpact=0/' "
                     "rec/run.ini",
                     RUN_JSON, 0, "timeStampIntervalBeforeImpact is 0"}),
    [](const ::testing::TestParamInfo<BadRecording>& info) { return std::string(info.param.name); });
