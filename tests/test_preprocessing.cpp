// Frame preprocessing and the presence test on candidate masks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <tuple>
#include <utility>
#include <vector>

#include "support/access.h"

namespace {

// A frame with owned pixels and a recognisable pattern.
struct Frame {
  std::vector<unsigned char> bytes;
  ClubImage image{};

  Frame(int width, int height, int channels)
      : bytes(static_cast<size_t>(width) * height * channels) {
    for (size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<unsigned char>((i * 37 + i / 7) & 0xFF);
    image.width = width;
    image.height = height;
    image.bytesPerChannel = 1;
    image.channels = channels;
    image.pixels = bytes.data();
    image.sensorOffsetX = -17;
    image.sensorOffsetY = 333;
    image.afterImpact = 1;
    image.timeStamp = 0xFEDCBA9876543210ull;
    image.ballX = 12.75f;
    image.ballY = -0.0f;
    image.ballRadius = 21.35f;
  }
  cv::Mat AsMat() const {
    return cv::Mat(image.height, image.width, CV_8UC(image.channels),
                   const_cast<unsigned char*>(bytes.data()));
  }
};

bool SameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(Preprocessing, GreyMedianAndMetadataForEveryChannelCount) {
  for (const int channels : {1, 3, 4}) {
    SCOPED_TRACE(channels);
    Frame frame(64, 48, channels);
    ClubTracker tracker;
    PreprocessedImage out;
    ASSERT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, &frame.image, &out), 1);

    cv::Mat expected = frame.AsMat().clone();
    if (channels > 1) cv::cvtColor(expected, expected, cv::COLOR_BGR2GRAY);
    cv::medianBlur(expected, expected, 3);
    ASSERT_EQ(out.image.type(), CV_8UC1);
    EXPECT_EQ(cv::norm(out.image, expected, cv::NORM_INF), 0.0);
    EXPECT_NE(out.image.data, frame.bytes.data()) << "the record owns a copy";

    EXPECT_EQ(std::make_tuple(out.sensorOffsetX, out.sensorOffsetY, out.afterImpact, out.timeStamp),
              std::make_tuple(-17, 333, 1u, uint64_t{0xFEDCBA9876543210ull}));
    EXPECT_TRUE(SameBits(out.ballX, 12.75f) && SameBits(out.ballY, -0.0f) &&
                SameBits(out.ballRadius, 21.35f));
  }
}

TEST(PreprocessingRefusals, BadFramesLeaveTheRecordUntouched) {
  ClubTracker tracker;
  Frame frame(16, 16, 1);
  PreprocessedImage out;
  out.image = cv::Mat(3, 3, CV_8UC1, cv::Scalar(9));
  const uchar* before = out.image.data;

  ClubImage wide = frame.image;
  wide.bytesPerChannel = 2;
  ClubImage empty = frame.image;
  empty.pixels = nullptr;
  ClubImage noChannels = frame.image;
  noChannels.channels = 0;
  for (ClubImage* bad : {&wide, &empty, &noChannels}) {
    EXPECT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, bad, &out), 0);
    EXPECT_EQ(out.image.data, before);
    EXPECT_EQ(out.timeStamp, 0u);
    EXPECT_EQ(out.sensorOffsetX, 0);
  }
  EXPECT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, nullptr, &out), 0);
  EXPECT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, &frame.image, nullptr), 0);
  Frame twoChannels(16, 16, 2);  // rejected by the conversion
  EXPECT_THROW(ClubTrackerTestAccess::Preprocessing(tracker, &twoChannels.image, &out),
               cv::Exception);
}

ClubTrackerSetting Region(int x, int y, int width, int height) {
  ClubTrackerSetting s;
  InitClubTrackerSetting(s);
  s.roiX = x;
  s.roiY = y;
  s.roiWidth = width;
  s.roiHeight = height;
  return s;
}

// The region is cut before the median filter; a zero width or height keeps
// the whole frame; a region reaching outside the frame raises the range error.
TEST(PreprocessingRegion, CutBeforeTheMedianFilter) {
  Frame frame(40, 30, 1);
  PreprocessedImage out;
  ClubTracker tracker(Region(5, 4, 20, 10));
  ASSERT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, &frame.image, &out), 1);
  ASSERT_EQ(out.image.size(), cv::Size(20, 10));
  EXPECT_TRUE(out.image.isContinuous());
  cv::Mat expected;
  cv::medianBlur(frame.AsMat()(cv::Rect(5, 4, 20, 10)).clone(), expected, 3);  // border inside
  EXPECT_EQ(cv::norm(out.image, expected, cv::NORM_INF), 0.0);
  cv::Mat filteredWhole;
  cv::medianBlur(frame.AsMat(), filteredWhole, 3);
  EXPECT_GT(cv::norm(out.image, filteredWhole(cv::Rect(5, 4, 20, 10)), cv::NORM_INF), 0.0)
      << "edge pixels must not see pixels outside the region";

  for (const auto& [w, h] : {std::pair{0, 10}, std::pair{10, 0}}) {
    ClubTracker whole(Region(1000, -50, w, h));
    ASSERT_EQ(ClubTrackerTestAccess::Preprocessing(whole, &frame.image, &out), 1);
    EXPECT_EQ(out.image.size(), cv::Size(40, 30));
  }
  ClubTracker outside(Region(30, 0, 20, 10));
  EXPECT_THROW(ClubTrackerTestAccess::Preprocessing(outside, &frame.image, &out), cv::Exception);
}

// RefineCandidateMask ------------------------------------------------------

// The presence square is s = 2 * ((min side / 4) / 2) + 1: a band s pixels
// wide (long enough that the cleaning's rounded corners leave an s x s square)
// is present, one a pixel narrower is not but stays in the refined mask; an
// empty mask stays empty and absent.
TEST(RefineCandidateMask, PresenceThresholdIsExactlyTheErosionSize) {
  cv::Mat refined;
  int present = -1;
  RefineCandidateMask(cv::Mat::zeros(480, 640, CV_8UC1), refined, &present);
  EXPECT_EQ(present, 0);
  EXPECT_EQ(cv::countNonZero(refined), 0);
  const std::pair<cv::Size, int> cases[] = {
      {{100, 100}, 25}, {{640, 480}, 121}, {{640, 208}, 53}, {{208, 640}, 53}};
  for (const auto& [size, s] : cases) {
    for (int side : {s - 1, s, s + 8}) {
      cv::Mat mask = cv::Mat::zeros(size, CV_8UC1);
      const int length = std::min(size.width, size.height) - 4;
      const bool wide = size.width >= size.height;
      const cv::Rect band = wide ? cv::Rect(size.width / 2 - side / 2, 2, side, length)
                                 : cv::Rect(2, size.height / 2 - side / 2, length, side);
      cv::rectangle(mask, band, cv::Scalar(255), cv::FILLED);
      present = -1;
      RefineCandidateMask(mask, refined, &present);
      EXPECT_EQ(present, side >= s ? 1 : 0) << "square side " << side << " in " << size;
      EXPECT_GT(cv::countNonZero(refined), 0) << "the refined mask keeps the closed blob";
    }
  }
}

}  // namespace
