// Frame files: names parsed, folders loaded in name order with the impact flag, camera pairing.
#include <filesystem>
#include <fstream>
#include <string>

#include <gtest/gtest.h>
#include <opencv2/imgcodecs.hpp>

#include "harness/offline.h"
#include "support/temp_folder.h"

namespace fs = std::filesystem;

namespace {

ClubImage Parsed(const std::wstring& name) {
  ClubImage image{};
  ParseFrameFileName(name, image);
  return image;
}

void WriteText(const fs::path& path, const std::string& text) {
  std::ofstream out(path, std::ios::binary);
  out << text;
}

}  // namespace

TEST(FrameFileName, PlainLayout) {
  const ClubImage image = Parsed(L"123456_7_8_1.5_2.5.bmp");
  EXPECT_EQ(image.timeStamp, 123456u);
  EXPECT_EQ(image.sensorOffsetX, 7);
  EXPECT_EQ(image.sensorOffsetY, 8);
  EXPECT_EQ(image.ballX, 1.5f);
  EXPECT_EQ(image.ballY, 2.5f);
  EXPECT_EQ(image.afterImpact, 0u);
  EXPECT_EQ(image.ballRadius, 0.0f);
}

TEST(FrameFileName, HeadImageLayout) {
  const ClubImage image = Parsed(L"ClubHeadOriginal_17_455561315_o=330,-362_b=321.69,147.5.png");
  EXPECT_EQ(image.timeStamp, 455561315u);
  EXPECT_EQ(image.sensorOffsetX, 330);
  EXPECT_EQ(image.sensorOffsetY, -362);
  EXPECT_EQ(image.ballX, 321.69f);
  EXPECT_EQ(image.ballY, 147.5f);
}

TEST(FrameFileName, FewerThanFiveTokensLeaveTheRestAtZero) {
  const ClubImage three = Parsed(L"123456_7_8.bmp");
  EXPECT_EQ(three.timeStamp, 123456u);
  EXPECT_EQ(three.sensorOffsetX, 7);
  EXPECT_EQ(three.sensorOffsetY, 8);
  EXPECT_EQ(three.ballX, 0.0f);
  EXPECT_EQ(three.ballY, 0.0f);

  const ClubImage head = Parsed(L"ClubHeadOriginal_1_99_o=5.png");
  EXPECT_EQ(head.timeStamp, 99u);
  EXPECT_EQ(head.sensorOffsetX, 5);
  EXPECT_EQ(head.sensorOffsetY, 0);  // no ','
  EXPECT_EQ(head.ballX, 0.0f);
}

TEST(CameraFolderFrames, TwelveFramesAndTheOptionFile) {
  TempFolder temp;
  const fs::path folder = temp.path / "Master";
  fs::create_directories(folder / "nested.png");  // a directory, skipped
  cv::imwrite((folder / "nested.png" / "000000001_0_0_0_0.png").string(),
              cv::Mat(4, 4, CV_8UC1, cv::Scalar(1)));
  WriteText(folder / "MasterOption.ini", "[IntrinsicCal]\n11=1\n");
  WriteText(folder / "broken_1_2_3_4.png", "not an image at all");
  for (int k = 0; k < 12; ++k) {
    cv::Mat frame(6, 8, CV_8UC1, cv::Scalar(10 * k));
    frame.at<unsigned char>(1, 2) = 255;
    const std::string name = std::to_string(100000000 + 500 * k) + "_30_40_12.5_7.25" +
                             (k % 2 == 0 ? ".png" : ".bmp");
    ASSERT_TRUE(cv::imwrite((folder / name).string(), frame));
  }
  // A colour frame is decoded to grey.
  cv::Mat colour(6, 8, CV_8UC3, cv::Scalar(0, 0, 0));
  ASSERT_TRUE(cv::imwrite((folder / "200000000_0_0_0_0.png").string(), colour));

  std::vector<ClubImage*> frames = LoadCameraFrames(folder, 10);
  ASSERT_EQ(frames.size(), 13u);
  for (size_t k = 0; k < 12; ++k) {
    const ClubImage& f = *frames[k];
    EXPECT_EQ(f.timeStamp, 100000000u + 500u * k);
    EXPECT_EQ(f.afterImpact, k >= 10 ? 1u : 0u) << "frame " << k;
    EXPECT_EQ(f.width, 8u);
    EXPECT_EQ(f.height, 6u);
    EXPECT_EQ(f.bytesPerChannel, 1u);
    EXPECT_EQ(f.channels, 1u);
    EXPECT_EQ(f.sensorOffsetX, 30);
    EXPECT_EQ(f.sensorOffsetY, 40);
    EXPECT_EQ(f.ballX, 12.5f);
    EXPECT_EQ(f.ballY, 7.25f);
    EXPECT_EQ(f.pixels[0], 10 * k);
    EXPECT_EQ(f.pixels[1 * 8 + 2], 255);
  }
  EXPECT_EQ(frames[12]->timeStamp, 200000000u);
  EXPECT_EQ(frames[12]->channels, 1u);
  FreeFrames(frames);
  EXPECT_TRUE(frames.empty());
}

TEST(CameraFolderFrames, ByteWiseNameOrderAndImpactIndex) {
  TempFolder temp;
  const cv::Mat frame(2, 2, CV_8UC1, cv::Scalar(0));
  for (const char* name : {"99_0_0_0_0.png", "100_0_0_0_0.png", "B_0.png", "a_0.png"}) {
    ASSERT_TRUE(cv::imwrite((temp.path / name).string(), frame));
  }
  // A damaged frame file is skipped but still counts for ImpactIndex, so the
  // frames after it keep their afterImpact; other files do not count.
  WriteText(temp.path / "0_broken.bmp", "BM not a bitmap");
  WriteText(temp.path / "0_notes.txt", "no frame");
  std::vector<std::string> warnings;
  std::vector<ClubImage*> frames = LoadCameraFrames(temp.path, 3, FrameLoadLimits{}, &warnings);
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

TEST(FramePairing, TimeStampsWithinTenUnits) {
  ClubImage cam1[4] = {}, cam2[4] = {};
  const uint64_t t1[] = {1000, 1500, 2000, 2500}, t2[] = {990, 1511, 2010, 3000};
  std::vector<ClubImage*> list1, list2, pairs1, pairs2;
  for (int k = 0; k < 4; ++k) {
    cam1[k].timeStamp = t1[k];
    cam2[k].timeStamp = t2[k];
    list1.push_back(&cam1[k]);
    list2.push_back(&cam2[k]);
  }
  PairFrames(list1, list2, pairs1, pairs2);  // within 10 units: (0, 0) and (2, 2)
  ASSERT_EQ(pairs1.size(), 2u);
  ASSERT_EQ(pairs2.size(), 2u);
  EXPECT_EQ(pairs1[0], &cam1[0]);
  EXPECT_EQ(pairs2[0], &cam2[0]);
  EXPECT_EQ(pairs1[1], &cam1[2]);
  EXPECT_EQ(pairs2[1], &cam2[2]);
}
