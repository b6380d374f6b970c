// Run and camera option files: sections, keys, defaults and the runtime's
// text-to-number conversions.

#include <cwchar>
#include <ostream>
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

TEST(RunOptionFile, MissingFileGivesEveryDefault) {
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
  // First occurrence wins, values trimmed and unquoted, ';' and '#' comment
  // lines, CRLF, an empty integer gives the default, negatives are kept,
  // indented lines are keys of their own, ';' inside a value is part of it.
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

TEST(RunOptionFile, LongValuesAreReadUpTo255Characters) {
  const std::string longPath = "/" + std::string(240, 'a');  // 241 characters
  const std::string tooLong = std::string(300, 'b');
  const ProfileFile file = ProfileFile::FromText(
      "[Info]\nFolderPath=" + longPath + "\nOther=" + tooLong + "\nImpactIndex=7\n");
  ASSERT_NE(file.Find("Info", "FolderPath"), nullptr);
  EXPECT_EQ(*file.Find("Info", "FolderPath"), longPath);
  EXPECT_EQ(*file.Find("Info", "Other"), std::string(255, 'b'));
  EXPECT_EQ(file.GetInt("Info", "ImpactIndex", 10), 7);
  // Characters, not bytes: 300 two-byte characters are cut to 255 of them.
  std::string wide;
  for (int i = 0; i < 300; ++i) wide += "\xC3\xA9";
  const ProfileFile accented = ProfileFile::FromText("[A]\nK=" + wide + "\n");
  EXPECT_EQ(accented.GetString("A", "K", L"").size(), 255u);
}

TEST(RunOptionFile, Utf16FileIsRead) {
  const std::string text = "[Info]\r\nFolderPath=rec\r\nImpactIndex=6\r\n";
  std::string utf16 = "\xFF\xFE";
  for (char c : text) {
    utf16.push_back(c);
    utf16.push_back('\0');
  }
  const ProfileFile file = ProfileFile::FromText(utf16);
  EXPECT_EQ(file.GetString("info", "folderpath", L""), L"rec");
  EXPECT_EQ(file.GetInt("Info", "ImpactIndex", 10), 6);
}

TEST(RunOptionFile, RelativeFolderPathIsTakenFromTheRunFileFolder) {
  TempFolder temp;
  WriteFile(temp.path / "sessions" / "run.ini", "[Info]\nFolderPath=swing1\n");
  const RunOptions relative = ReadRunOptions(temp.path / "sessions" / "run.ini");
  EXPECT_EQ(relative.folder, temp.path / "sessions" / "swing1");

  WriteFile(temp.path / "sessions" / "dot.ini", "[Info]\nFolderPath=.\n");
  const RunOptions dot = ReadRunOptions(temp.path / "sessions" / "dot.ini");
  EXPECT_EQ(CameraOptionFile(dot.folder, 0),
            fs::path((temp.path / "sessions" / ".").native() + "/Master/MasterOption.ini"));

  WriteFile(temp.path / "sessions" / "abs.ini", "[Info]\nFolderPath=/mnt/recordings/a\n");
  EXPECT_EQ(ReadRunOptions(temp.path / "sessions" / "abs.ini").folder,
            fs::path("/mnt/recordings/a"));
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

TEST(CameraOptionFile, TwentyOneValuesInReadingOrder) {
  TempFolder temp;
  WriteFile(temp.path / "MasterOption.ini", kCalibrationText);
  double values[21] = {};
  ReadCalibration(Utf8ToWide((temp.path / "MasterOption.ini").native()), values);
  for (int i = 0; i < 21; ++i) EXPECT_EQ(values[i], i + 1.0) << "value " << i;
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

TEST(CameraOptionFile, MissingFileGivesZeros) {
  double values[21];
  for (double& v : values) v = -1.0;
  ReadCalibration(L"/nonexistent/folder/Master/MasterOption.ini", values);
  for (double v : values) EXPECT_EQ(v, 0.0);
}

struct DoubleCase {
  const wchar_t* text;
  double expected;
};

void PrintTo(const DoubleCase& c, std::ostream* os) { *os << '"' << std::string(c.text, c.text + std::wcslen(c.text)) << '"'; }
class WideToDoubleCases : public ::testing::TestWithParam<DoubleCase> {};
TEST_P(WideToDoubleCases, ReadsTheNumberPrefix) {
  EXPECT_EQ(WideToDouble(GetParam().text), GetParam().expected) << "text: " << GetParam().text;
}
INSTANTIATE_TEST_SUITE_P(
    Texts, WideToDoubleCases,
    ::testing::Values(DoubleCase{L"1.5e-3", 0.0015}, DoubleCase{L"  42", 42.0},
                      DoubleCase{L"+3.25", 3.25}, DoubleCase{L"-0.5x", -0.5},
                      DoubleCase{L"abc", 0.0}, DoubleCase{L"", 0.0}, DoubleCase{L"-", 0.0},
                      DoubleCase{L".", 0.0}, DoubleCase{L"2.5.bmp", 2.5},
                      DoubleCase{L"147.52.png", 147.52}, DoubleCase{L"5e+", 5.0},
                      DoubleCase{L"1,5", 1.0}, DoubleCase{L"1037.9558709709347", 1037.9558709709347},
                      DoubleCase{L"-0.23605226713696817", -0.23605226713696817}));

struct IntCase {
  const wchar_t* text;
  int64_t expected32;
  int64_t expected64;
};

void PrintTo(const IntCase& c, std::ostream* os) { *os << '"' << std::string(c.text, c.text + std::wcslen(c.text)) << '"'; }
class WideToIntCases : public ::testing::TestWithParam<IntCase> {};
TEST_P(WideToIntCases, ReadsTheIntegerPrefix) {
  EXPECT_EQ(WideToInt(GetParam().text), GetParam().expected32) << GetParam().text;
  EXPECT_EQ(WideToInt64(GetParam().text), GetParam().expected64) << GetParam().text;
}
INSTANTIATE_TEST_SUITE_P(
    Texts, WideToIntCases,
    ::testing::Values(IntCase{L"123456", 123456, 123456}, IntCase{L"7", 7, 7},
                      IntCase{L" -8", -8, -8}, IntCase{L"+9z", 9, 9}, IntCase{L"x1", 0, 0},
                      IntCase{L"", 0, 0}, IntCase{L"1.5", 1, 1},
                      IntCase{L"455561315", 455561315, 455561315},
                      IntCase{L"99999999999", INT32_MAX, 99999999999LL},
                      IntCase{L"-99999999999", INT32_MIN, -99999999999LL},
                      IntCase{L"-2147483648", INT32_MIN, -2147483648LL},
                      IntCase{L"99999999999999999999", INT32_MAX, INT64_MAX},
                      IntCase{L"-9223372036854775808", INT32_MIN, INT64_MIN}));

TEST(StrictValueChecks, WholeIntegersAndNumbers) {
  EXPECT_TRUE(IsWholeInteger("12"));
  EXPECT_TRUE(IsWholeInteger(" -3 "));
  EXPECT_FALSE(IsWholeInteger("12abc"));
  EXPECT_FALSE(IsWholeInteger(""));
  EXPECT_FALSE(IsWholeInteger("-"));
  EXPECT_FALSE(IsWholeInteger("1.0"));
  EXPECT_TRUE(IsWholeNumber("1.5e-3"));
  EXPECT_TRUE(IsWholeNumber("-0.25"));
  EXPECT_TRUE(IsWholeNumber("7."));
  EXPECT_FALSE(IsWholeNumber("abc"));
  EXPECT_FALSE(IsWholeNumber("1.5x"));
  EXPECT_FALSE(IsWholeNumber("nan"));
  EXPECT_FALSE(IsWholeNumber(""));
}

TEST(Utf8, NamesSurviveTheRoundTrip) {
  const std::string bytes = "rec-\xC3\xA9t\xE9-\xF0\x9F\x8F\x8C";  // one byte is not UTF-8
  const std::wstring wide = Utf8ToWide(bytes);
  EXPECT_EQ(wide[4], L'\u00e9');
  EXPECT_EQ(WideToUtf8(wide), bytes);
}
