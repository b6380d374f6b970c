// A recording on disk: the run and camera option files (sections, keys,
// defaults, text-to-number conversions), the frame file names, the camera
// folders loaded in name order with the impact flag; a synthetic recording
// read back as it was rendered.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <fstream>
#include <limits>
#include <opencv2/imgcodecs.hpp>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "harness/offline.h"
#include "harness/profile.h"
#include "support/temp_folder.h"
#include "synth/swing.h"

namespace fs = std::filesystem;

namespace {

void WriteFile(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out << content;
}

}  // namespace

TEST(RecordingFiles, RunOptionFile) {
  const struct {
    const char* name;
    const char* file;  // under the temporary folder; nullptr: absent
    const char* text;
    int roi[4];  // x, y, width, height
    int before, after, impactIndex;
    const wchar_t* folderPath;
    const char* folder;  // relative to the temporary folder; nullptr: not checked
  } cases[] = {
      {"missing file gives every default", nullptr, "", {0, 0, 0, 0}, 2000, 2000, 10, L"", ""},
      {"missing ROI section leaves the whole frame", "run.ini",
       "[Info]\nFolderPath=rec\nTimeStampIntervalBeforeImpact=1500\n"
       "TimeStampIntervalAfterImpact=900\nImpactIndex=8\n",
       {0, 0, 0, 0}, 1500, 900, 8, L"rec", "rec"},
      {"sections and keys ignore case", "run.ini",
       "[roi]\nx=5\nY=6\nWIDTH=300\nheight=200\n[ INFO ]\nfolderpath=/data/rec\nimpactindex=12\n",
       {5, 6, 300, 200}, 2000, 2000, 12, L"/data/rec", "/data/rec"},
      {"rulings", "run.ini",
       "; recorded swing\r\n[ROI]\r\nX = -12 \r\nX=99\r\n# Y=7\r\n  Width=\"640\"\r\nHeight=\r\n"
       "[Info]\r\nFolderPath = \"  my rec ;take 2  \" \r\nImpactIndex=\r\n"
       "TimeStampIntervalBeforeImpact=  +300abc\r\nTimeStampIntervalAfterImpact=abc\r\n"
       "[ROI]\r\nY=4\r\n",
       {-12, 4, 640, 0}, 300, 0, 10, L"  my rec ;take 2  ", nullptr},
      {"relative folder is taken from the run file's folder", "sessions/run.ini",
       "[Info]\nFolderPath=swing1\n", {0, 0, 0, 0}, 2000, 2000, 10, L"swing1", "sessions/swing1"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    TempFolder temp;
    if (c.file != nullptr) WriteFile(temp.path / c.file, c.text);
    const RunOptions options = ReadRunOptions(temp.path / (c.file ? c.file : "absent.ini"));
    const ClubTrackerSetting& s = options.setting;
    EXPECT_EQ((std::vector<int>{s.roiX, s.roiY, s.roiWidth, s.roiHeight,
                                s.timeStampIntervalBeforeImpact, s.timeStampIntervalAfterImpact,
                                s.axisIndex, s.axisNormIndex}),
              (std::vector<int>{c.roi[0], c.roi[1], c.roi[2], c.roi[3], c.before, c.after, 1, 2}));
    EXPECT_EQ(s.logCallback, nullptr);
    EXPECT_EQ(options.impactIndex, c.impactIndex);
    EXPECT_EQ(options.folderPath, c.folderPath);
    if (c.folder != nullptr && *c.folder == '\0') EXPECT_TRUE(options.folder.empty());
    if (c.folder != nullptr && *c.folder != '\0') EXPECT_EQ(options.folder, temp.path / c.folder);
  }
}

TEST(RecordingFiles, CameraOptionFile) {
  TempFolder temp;
  // Garbage, exponents and missing keys.
  WriteFile(temp.path / "SlaveOption.ini",
            "[intrinsiccal]\n11=1.5e-3\n12=abc\n13=  -2.5px\n22=.5\n33=1e\n"
            "[ExtrinsicCal]\n11=1E+2\n12=nan\n13=inf\n14=0x10\n24=1e999\n"
            "31=-1e-999\n33=7.\n");
  double values[21];
  for (double& v : values) v = -99.0;
  ReadCalibrationFile(temp.path / "SlaveOption.ini", values);
  // Letters give 0, "0x10" the leading "0", a missing key 0.
  const double inf = std::numeric_limits<double>::infinity();
  EXPECT_EQ(std::vector<double>(values, values + 21),
            (std::vector<double>{0.0015, 0, -2.5, 0, 0.5, 0,   0,    0, 1.0, 100.0, 0,
                                 0,      0, 0,    0, 0,   inf, -0.0, 0, 7.0, 0}));

  for (double& v : values) v = -1.0;
  ReadCalibration(L"/nonexistent/folder/Master/MasterOption.ini", values);
  for (double v : values) EXPECT_EQ(v, 0.0);

  // A trailing separator in the folder path doubles harmlessly.
  WriteFile(temp.path / "rec" / "Master" / "MasterOption.ini",
            "[IntrinsicCal]\n11=1\n12=2\n13=3\n21=4\n22=5\n23=6\n31=7\n32=8\n33=9\n"
            "[ExtrinsicCal]\n11=10\n12=11\n13=12\n14=13\n21=14\n22=15\n23=16\n24=17\n"
            "31=18\n32=19\n33=20\n34=21\n");
  WriteFile(temp.path / "run.ini", "[Info]\nFolderPath=" + (temp.path / "rec").string() + "/\n");
  const RunOptions options = ReadRunOptions(temp.path / "run.ini");
  const fs::path optionFile = CameraOptionFile(options.folder, 0);
  EXPECT_EQ(optionFile.native(), (temp.path / "rec").native() + "//Master/MasterOption.ini");
  EXPECT_EQ(CameraFolder(options.folder, 1).native(), (temp.path / "rec").native() + "//Slave/");
  ReadCalibration(std::wstring(Utf8ToWide(optionFile.native())), values);
  for (int i = 0; i < 21; ++i) EXPECT_EQ(values[i], i + 1.0);
}

TEST(RecordingFiles, FrameFileNames) {
  const struct {
    const wchar_t* name;
    uint64_t timeStamp;
    int offsetX, offsetY;
    float ballX, ballY;
  } cases[] = {
      {L"123456_7_8_1.5_2.5.bmp", 123456, 7, 8, 1.5f, 2.5f},
      {L"ClubHeadOriginal_17_455561315_o=330,-362_b=321.69,147.5.png", 455561315, 330, -362,
       321.69f, 147.5f},
      {L"123456_7_8.bmp", 123456, 7, 8, 0.0f, 0.0f},             // fewer tokens: the rest at zero
      {L"ClubHeadOriginal_1_99_o=5.png", 99, 5, 0, 0.0f, 0.0f},  // no ','
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.name, c.name + std::wcslen(c.name)));
    ClubImage image{};
    ParseFrameFileName(c.name, image);
    EXPECT_EQ(image.timeStamp, c.timeStamp);
    EXPECT_EQ(std::make_pair(image.sensorOffsetX, image.sensorOffsetY),
              std::make_pair(c.offsetX, c.offsetY));
    EXPECT_EQ((std::vector<float>{image.ballX, image.ballY, image.ballRadius}),
              (std::vector<float>{c.ballX, c.ballY, 0.0f}));
    EXPECT_EQ(image.afterImpact, 0u);
  }
}

TEST(RecordingFiles, CameraFolderFrames) {
  TempFolder temp;
  const fs::path folder = temp.path / "Master";
  fs::create_directories(folder / "nested.png");  // a directory, skipped
  cv::imwrite((folder / "nested.png" / "000000001_0_0_0_0.png").string(),
              cv::Mat(4, 4, CV_8UC1, cv::Scalar(1)));
  WriteFile(folder / "MasterOption.ini", "[IntrinsicCal]\n11=1\n");
  WriteFile(folder / "broken_1_2_3_4.png", "not an image at all");
  for (int k = 0; k < 12; ++k) {
    const cv::Mat frame(6, 8, CV_8UC1, cv::Scalar(10 * k));
    const std::string name =
        std::to_string(100000000 + 500 * k) + "_30_40_12.5_7.25" + (k % 2 == 0 ? ".png" : ".bmp");
    ASSERT_TRUE(cv::imwrite((folder / name).string(), frame));
  }
  // A colour frame is decoded to grey.
  ASSERT_TRUE(cv::imwrite((folder / "200000000_0_0_0_0.png").string(),
                          cv::Mat(6, 8, CV_8UC3, cv::Scalar(0, 0, 0))));

  std::vector<ClubImage*> frames = LoadCameraFrames(folder, 10);
  ASSERT_EQ(frames.size(), 13u);
  // (Each frame's metadata and pixels: the synthetic recording's read-back.)
  for (size_t k = 0; k < 12; ++k) EXPECT_EQ(frames[k]->timeStamp, 100000000u + 500u * k);
  EXPECT_EQ(frames[12]->timeStamp, 200000000u);
  EXPECT_EQ(frames[12]->channels, 1u);
  FreeFrames(frames);
  EXPECT_TRUE(frames.empty());

  // Byte-wise name order; the impact index counts in that order.
  const cv::Mat small(2, 2, CV_8UC1, cv::Scalar(0));
  fs::create_directories(temp.path / "order");
  for (const char* name : {"99_0_0_0_0.png", "100_0_0_0_0.png", "B_0.png", "a_0.png"})
    ASSERT_TRUE(cv::imwrite((temp.path / "order" / name).string(), small));
  // A damaged frame file is skipped but still counts for ImpactIndex, so the
  // frames after it keep their afterImpact; other files do not count.
  std::ofstream(temp.path / "order" / "0_broken.bmp") << "BM not a bitmap";
  std::ofstream(temp.path / "order" / "0_notes.txt") << "no frame";
  std::vector<std::string> warnings;
  frames = LoadCameraFrames(temp.path / "order", 3, FrameLoadLimits{}, &warnings);
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames[0]->timeStamp, 100u);  // '1' sorts before '9'
  EXPECT_EQ(frames[1]->timeStamp, 99u);
  EXPECT_EQ(frames[0]->afterImpact + frames[1]->afterImpact, 0u);
  EXPECT_EQ(frames[2]->afterImpact + frames[3]->afterImpact, 2u);
  ASSERT_EQ(warnings.size(), 2u) << ::testing::PrintToString(warnings);
  EXPECT_NE(warnings[0].find("0_broken.bmp does not decode"), std::string::npos) << warnings[0];
  EXPECT_NE(warnings[1].find("time stamp 99, below"), std::string::npos) << warnings[1];
  FreeFrames(frames);
}

// The replay reads back bit for bit what was rendered (the ball position
// from the file names), in both image formats.
TEST(RecordingFiles, SynthRecordingReadsBackAsRendered) {
  const synth::Recording rec =
      synth::Render({.seed = 61, .frames = 14, .impactIndex = 6, .dropFrame = true});
  EXPECT_EQ(rec.images[1].size(), rec.images[0].size() - 1);
  for (const bool png : {false, true}) {
    SCOPED_TRACE(png ? "png" : "bmp");
    TempFolder dir("synth");
    std::string error;
    ASSERT_TRUE(synth::WriteRecording(rec, dir.path, png, error)) << error;

    const RunOptions options = ReadRunOptions(dir.path / "run.ini");
    EXPECT_EQ(options.folderPath, L".");
    EXPECT_EQ(options.impactIndex, 6);
    ASSERT_FALSE(options.folder.empty());
    EXPECT_TRUE(fs::equivalent(options.folder, dir.path));

    double calibration[2][21];  // each camera's 9 intrinsic and 12 extrinsic values
    ReadCalibrationFile(CameraOptionFile(options.folder, 0), calibration[0]);
    ReadCalibrationFile(CameraOptionFile(options.folder, 1), calibration[1]);
    EXPECT_EQ(std::memcmp(calibration, rec.setting.cam1Intrinsic, sizeof calibration), 0);

    for (int c = 0; c < 2; ++c) {
      const fs::path folder = CameraFolder(options.folder, c);
      const auto isFrame = [&](const fs::directory_entry& f) {
        return f.path().extension() == (png ? ".png" : ".bmp");
      };
      EXPECT_EQ(std::count_if(fs::directory_iterator(folder), {}, isFrame),
                static_cast<long>(rec.images[c].size()));
      std::vector<ClubImage*> frames = LoadCameraFrames(folder, options.impactIndex);
      ASSERT_EQ(frames.size(), rec.images[c].size());
      for (size_t k = 0; k < frames.size(); ++k) {
        const ClubImage& a = rec.images[c][k];
        const ClubImage& b = *frames[k];
        ASSERT_EQ(a.width, b.width);
        ASSERT_EQ(a.height, b.height);
        EXPECT_EQ(std::make_pair(b.bytesPerChannel, b.channels), std::make_pair(1u, 1u));
        EXPECT_EQ(std::memcmp(a.pixels, b.pixels, static_cast<size_t>(a.width) * a.height), 0)
            << "camera " << c << " frame " << k;
        EXPECT_EQ(a.timeStamp, b.timeStamp);
        EXPECT_EQ(a.sensorOffsetX, b.sensorOffsetX);
        EXPECT_EQ(a.sensorOffsetY, b.sensorOffsetY);
        EXPECT_EQ(a.afterImpact, b.afterImpact);
        EXPECT_EQ(std::make_pair(a.ballX, a.ballY), std::make_pair(b.ballX, b.ballY));
      }
      FreeFrames(frames);
    }

    std::ifstream file(dir.path / "truth.json");
    const nlohmann::json truth = nlohmann::json::parse(file);
    EXPECT_EQ(truth["club_head_speed_mps"].get<double>(), rec.truth.clubHeadSpeedMps);
    EXPECT_EQ(truth["dropped_frame"].get<int>(), rec.truth.droppedFrame);
  }
}
