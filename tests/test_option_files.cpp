// Run and camera option files: sections, keys, defaults and text-to-number conversions.
#include <cmath>
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>

#include "harness/offline.h"
#include "harness/profile.h"
#include "support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

void WriteFile(const fs::path& path, const std::string& content) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary);
  out << content;
}

const char* kCalibrationText =
    "[IntrinsicCal]\n11=1\n12=2\n13=3\n21=4\n22=5\n23=6\n31=7\n32=8\n33=9\n"
    "[ExtrinsicCal]\n11=10\n12=11\n13=12\n14=13\n21=14\n22=15\n23=16\n24=17\n"
    "31=18\n32=19\n33=20\n34=21\n";

}  // namespace

TEST(OptionFiles, MissingFilesGiveEveryDefault) {
  TempFolder temp;
  const RunOptions options = ReadRunOptions(temp.path / "absent.ini");
  EXPECT_EQ(options.setting.roiX, 0);
  EXPECT_EQ(options.setting.roiY, 0);
  EXPECT_EQ(options.setting.roiWidth, 0);
  EXPECT_EQ(options.setting.roiHeight, 0);
  EXPECT_EQ(options.setting.timeStampIntervalBeforeImpact, 2000);
  EXPECT_EQ(options.setting.timeStampIntervalAfterImpact, 2000);
  EXPECT_EQ(options.setting.axisIndex, 1);
  EXPECT_EQ(options.setting.axisNormIndex, 2);
  EXPECT_EQ(options.setting.logCallback, nullptr);
  EXPECT_EQ(options.impactIndex, 10);
  EXPECT_TRUE(options.folderPath.empty());
  EXPECT_TRUE(options.folder.empty());
  double values[21];
  for (double& v : values) v = -1.0;
  ReadCalibration(L"/nonexistent/folder/Master/MasterOption.ini", values);
  for (double v : values) EXPECT_EQ(v, 0.0);
}

TEST(RunOptionFile, MissingRoiSectionLeavesTheWholeFrame) {
  TempFolder temp;
  WriteFile(temp.path / "run.ini",
            "[Info]\nFolderPath=rec\nTimeStampIntervalBeforeImpact=1500\n"
            "TimeStampIntervalAfterImpact=900\nImpactIndex=8\n");
  const RunOptions options = ReadRunOptions(temp.path / "run.ini");
  EXPECT_EQ(options.setting.roiX, 0);
  EXPECT_EQ(options.setting.roiWidth, 0);
  EXPECT_EQ(options.setting.roiHeight, 0);
  EXPECT_EQ(options.setting.timeStampIntervalBeforeImpact, 1500);
  EXPECT_EQ(options.setting.timeStampIntervalAfterImpact, 900);
  EXPECT_EQ(options.impactIndex, 8);
  EXPECT_EQ(options.folderPath, L"rec");
}

TEST(RunOptionFile, SectionsAndKeysIgnoreCase) {
  TempFolder temp;
  WriteFile(temp.path / "run.ini",
            "[roi]\nx=5\nY=6\nWIDTH=300\nheight=200\n"
            "[ INFO ]\nfolderpath=/data/rec\nimpactindex=12\n");
  const RunOptions options = ReadRunOptions(temp.path / "run.ini");
  EXPECT_EQ(options.setting.roiX, 5);
  EXPECT_EQ(options.setting.roiY, 6);
  EXPECT_EQ(options.setting.roiWidth, 300);
  EXPECT_EQ(options.setting.roiHeight, 200);
  EXPECT_EQ(options.folderPath, L"/data/rec");
  EXPECT_EQ(options.folder, fs::path("/data/rec"));
  EXPECT_EQ(options.impactIndex, 12);
}

TEST(RunOptionFile, FileRulings) {
  TempFolder temp;
  WriteFile(temp.path / "run.ini",
            "; recorded swing\r\n"
            "[ROI]\r\n"
            "X = -12 \r\n"
            "X=99\r\n"
            "# Y=7\r\n"
            "  Width=\"640\"\r\n"
            "Height=\r\n"
            "[Info]\r\n"
            "FolderPath = \"  my rec ;take 2  \" \r\n"
            "ImpactIndex=\r\n"
            "TimeStampIntervalBeforeImpact=  +300abc\r\n"
            "TimeStampIntervalAfterImpact=abc\r\n"
            "[ROI]\r\n"
            "Y=4\r\n");
  const RunOptions options = ReadRunOptions(temp.path / "run.ini");
  EXPECT_EQ(options.setting.roiX, -12);
  EXPECT_EQ(options.setting.roiY, 4);
  EXPECT_EQ(options.setting.roiWidth, 640);
  EXPECT_EQ(options.setting.roiHeight, 0);
  EXPECT_EQ(options.folderPath, L"  my rec ;take 2  ");
  EXPECT_EQ(options.impactIndex, 10);
  EXPECT_EQ(options.setting.timeStampIntervalBeforeImpact, 300);
  EXPECT_EQ(options.setting.timeStampIntervalAfterImpact, 0);
}

TEST(RunOptionFile, RelativeFolderPathIsTakenFromTheRunFileFolder) {
  TempFolder temp;
  WriteFile(temp.path / "sessions" / "run.ini", "[Info]\nFolderPath=swing1\n");
  const RunOptions relative = ReadRunOptions(temp.path / "sessions" / "run.ini");
  EXPECT_EQ(relative.folder, temp.path / "sessions" / "swing1");
}

TEST(RunOptionFile, TrailingSeparatorDoublesHarmlessly) {
  TempFolder temp;
  WriteFile(temp.path / "rec" / "Master" / "MasterOption.ini", kCalibrationText);
  WriteFile(temp.path / "run.ini", "[Info]\nFolderPath=" + (temp.path / "rec").string() + "/\n");
  const RunOptions options = ReadRunOptions(temp.path / "run.ini");
  const fs::path optionFile = CameraOptionFile(options.folder, 0);
  EXPECT_EQ(optionFile.native(), (temp.path / "rec").native() + "//Master/MasterOption.ini");
  EXPECT_EQ(CameraFolder(options.folder, 1).native(), (temp.path / "rec").native() + "//Slave/");
  double values[21] = {};
  ReadCalibration(std::wstring(Utf8ToWide(optionFile.native())), values);
  EXPECT_EQ(values[0], 1.0);
  EXPECT_EQ(values[20], 21.0);
}

TEST(CameraOptionFile, GarbageExponentAndMissingValues) {
  TempFolder temp;
  WriteFile(temp.path / "SlaveOption.ini",
            "[intrinsiccal]\n11=1.5e-3\n12=abc\n13=  -2.5px\n22=.5\n33=1e\n"
            "[ExtrinsicCal]\n11=1E+2\n12=nan\n13=inf\n14=0x10\n24=1e999\n"
            "31=-1e-999\n33=7.\n");
  double values[21];
  for (double& v : values) v = -99.0;
  ReadCalibrationFile(temp.path / "SlaveOption.ini", values);
  EXPECT_EQ(values[0], 0.0015);
  EXPECT_EQ(values[1], 0.0);
  EXPECT_EQ(values[2], -2.5);
  EXPECT_EQ(values[3], 0.0);  // key "21" missing
  EXPECT_EQ(values[4], 0.5);
  EXPECT_EQ(values[8], 1.0);
  EXPECT_EQ(values[9], 100.0);
  EXPECT_EQ(values[10], 0.0);  // letters
  EXPECT_EQ(values[11], 0.0);
  EXPECT_EQ(values[12], 0.0);  // the number is the leading "0"
  EXPECT_TRUE(std::isinf(values[16]) && values[16] > 0);
  EXPECT_EQ(values[17], -0.0);
  EXPECT_EQ(values[19], 7.0);
  EXPECT_EQ(values[20], 0.0);  // key "34" missing
}
