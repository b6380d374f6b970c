// The bit-plane morphology against cv::morphologyEx with the same kernels.
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"
#include "support/literal_presence.h"
#include "support/change_masks.h"

namespace {

// Every kernel and operation the analysis stages use, plus the erosions of
// the presence test (rectangles up to the 121 of a 480-row mask).
const std::vector<MorphStep> kSteps = {
    {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 3},  {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
    {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7},  {cv::MORPH_CLOSE, cv::MORPH_ELLIPSE, 31},
    {cv::MORPH_OPEN, cv::MORPH_RECT, 3},     {cv::MORPH_ERODE, cv::MORPH_ELLIPSE, 5},
    {cv::MORPH_DILATE, cv::MORPH_ELLIPSE, 31}, {cv::MORPH_ERODE, cv::MORPH_RECT, 1},
    {cv::MORPH_ERODE, cv::MORPH_RECT, 25},   {cv::MORPH_ERODE, cv::MORPH_RECT, 121},
    {cv::MORPH_CLOSE, cv::MORPH_CROSS, 9},
};

cv::Mat Literal(const cv::Mat& mask, const MorphStep& step) {
  cv::Mat out;
  MorphologyChainLiteral(mask, out, {step});
  return out;
}

cv::Mat Packed(const cv::Mat& mask, const MorphStep& step) {
  BitMask bits;
  EXPECT_TRUE(bits.Supports(step));
  EXPECT_TRUE(bits.Pack(mask));
  bits.Apply(step);
  cv::Mat out;
  bits.Unpack(out);
  return out;
}

bool Same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

// The holes filled as the head tracker filled them: the background flooded
// from a frame around the mask, whatever it does not reach set.
cv::Mat LiteralFilled(const cv::Mat& mask) {
  cv::Mat padded, filled;
  cv::copyMakeBorder(mask, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::floodFill(padded, cv::Point(0, 0), cv::Scalar(128));
  cv::compare(padded(cv::Rect(1, 1, mask.cols, mask.rows)), 128, filled, cv::CMP_NE);
  return filled;
}

cv::Mat PackedFilled(const cv::Mat& mask) {
  BitMask bits;
  EXPECT_TRUE(bits.Pack(mask));
  bits.FillHoles();
  cv::Mat out;
  bits.Unpack(out);
  return out;
}

// Random blobs (some over the borders) and noise on sizes with widths around
// multiples of 64, single pixels and single rows or columns.
TEST(BinaryMorphology, SameAsMorphologyExOnRandomMasks) {
  const cv::Size sizes[] = {{1, 1},   {1, 9},   {9, 1},    {200, 1},  {1, 150}, {63, 5},
                            {64, 40}, {65, 33}, {127, 70}, {130, 90}, {640, 48}, {33, 200}};
  cv::RNG rng(20261123);
  for (const cv::Size size : sizes) {
    for (int trial = 0; trial < 4; ++trial) {
      cv::Mat mask = cv::Mat::zeros(size, CV_8UC1);
      if (trial == 3) {
        mask.setTo(255);  // all set: only the border can erode it
      } else {
        for (int k = 0; k < 1 + trial * 3; ++k) {
          const cv::Point centre(rng.uniform(-8, size.width + 8), rng.uniform(-8, size.height + 8));
          cv::ellipse(mask, centre, cv::Size(rng.uniform(1, 50), rng.uniform(1, 50)),
                      rng.uniform(0, 180), 0, 360, cv::Scalar(255), cv::FILLED);
        }
        cv::Mat noise(size, CV_8UC1);
        rng.fill(noise, cv::RNG::UNIFORM, 0, 100);
        mask.setTo(255, noise < 3 * trial);
        mask.setTo(0, noise > 97);
      }
      // The box of the set pixels, of the mask and of a view into it.
      EXPECT_EQ(MaskBounds(mask), cv::boundingRect(mask)) << size << " trial " << trial;
      const cv::Rect inner(size.width / 3, size.height / 4, (size.width + 1) / 2, (size.height + 1) / 2);
      EXPECT_EQ(MaskBounds(mask(inner)), cv::boundingRect(mask(inner))) << size << " trial " << trial;
      BitMask bits;  // the box of the set bits, and a part of the plane unpacked
      ASSERT_TRUE(bits.Pack(mask));
      EXPECT_EQ(bits.Bounds(), cv::boundingRect(mask)) << size << " trial " << trial;
      const int x1 = std::min(1, size.width - 1);  // parts starting at every bit of a byte
      for (const cv::Rect part : {inner, cv::Rect(x1, 0, size.width - x1, size.height)}) {
        cv::Mat unpacked;
        bits.Unpack(unpacked, part);
        EXPECT_TRUE(Same(unpacked, mask(part))) << size << " trial " << trial << " " << part;
      }
      for (const MorphStep& step : kSteps) {
        EXPECT_TRUE(Same(Packed(mask, step), Literal(mask, step)))
            << size << " trial " << trial << " op " << step.op << " shape " << step.shape
            << " size " << step.size;
      }
      EXPECT_TRUE(Same(PackedFilled(mask), LiteralFilled(mask))) << size << " trial " << trial;
    }
  }
  // Holes reached only along a path that winds up and down many times: a
  // square spiral with one way in, and its mirror image.
  cv::Mat spiral = cv::Mat::zeros(97, 131, CV_8UC1);
  for (int k = 0; 4 * k + 2 < 97 / 2; ++k) {
    const int a = 4 * k, b = 4 * k + 2;
    cv::rectangle(spiral, cv::Point(a, a), cv::Point(130 - a, 96 - a), cv::Scalar(255));
    spiral(cv::Rect(b - 1, a, 2, 1)).setTo(0);        // the way in, one ring at a time
    spiral.at<uchar>(a + 1, b + 1) = 255;             // a cell the flood cannot enter
    spiral(cv::Rect(b, b, 1, 1)).setTo(255);
  }
  for (const cv::Mat& mask : {spiral, cv::Mat(spiral.t()), [&] {
         cv::Mat flipped;
         cv::flip(spiral, flipped, -1);
         return flipped;
       }()}) {
    EXPECT_TRUE(Same(PackedFilled(mask), LiteralFilled(mask)));
  }
  // Masks that are not 0/255 (or not whole) are left to cv::morphologyEx.
  BitMask bits;
  EXPECT_FALSE(bits.Pack(cv::Mat(4, 4, CV_8UC1, cv::Scalar(1))));
  EXPECT_FALSE(bits.Pack(cv::Mat(8, 8, CV_8UC1, cv::Scalar(255))(cv::Rect(1, 1, 4, 4))));
  EXPECT_FALSE(bits.Pack(cv::Mat()));
  for (const int column : {0, 17, 40, 70, 100, 639}) {  // one stray byte, wherever it falls in a word
    cv::Mat wide(3, 640, CV_8UC1, cv::Scalar(255));
    wide.at<uchar>(1, column) = 128;
    EXPECT_FALSE(bits.Pack(wide)) << column;
  }
  for (const cv::Size size : sizes) {  // no pixel, and one pixel in the last row or column
    cv::Mat one = cv::Mat::zeros(size, CV_8UC1);
    EXPECT_EQ(MaskBounds(one), cv::boundingRect(one)) << size;
    for (const cv::Point at : {cv::Point(size.width - 1, size.height / 2),
                               cv::Point(size.width / 2, size.height - 1)}) {
      one.setTo(0);
      one.at<uchar>(at) = 1;
      EXPECT_EQ(MaskBounds(one), cv::boundingRect(one)) << size << " at " << at;
    }
  }
  const cv::Mat grey = (cv::Mat_<uchar>(3, 3) << 0, 7, 255, 9, 255, 0, 255, 255, 3);
  cv::Mat chained;
  MorphologyChain(grey, chained, {kSteps[0], kSteps[1]});
  cv::Mat literal;
  MorphologyChainLiteral(grey, literal, {kSteps[0], kSteps[1]});
  EXPECT_TRUE(Same(chained, literal));
}

// The chains of the presence test and the line extraction, and the presence
// answer, on every change mask of the rendered swings.
TEST(BinaryMorphology, SameAsMorphologyExOnSwingChangeMasks) {
  const std::vector<cv::Mat>& masks = SwingChangeMasks();
  ASSERT_GE(masks.size(), 40u);
  int present = 0;
  for (size_t k = 0; k < masks.size(); ++k) {
    const cv::Mat& mask = masks[k];
    EXPECT_EQ(MaskBounds(mask), cv::boundingRect(mask)) << "mask " << k;
    cv::Mat fast, literal;
    MorphologyChain(mask, fast, {kSteps[4], kSteps[1], kSteps[2]});
    MorphologyChainLiteral(mask, literal, {kSteps[4], kSteps[1], kSteps[2]});
    EXPECT_TRUE(Same(fast, literal)) << "line chain, mask " << k;
    EXPECT_TRUE(Same(PackedFilled(mask), LiteralFilled(mask))) << "holes, mask " << k;

    const int expected = LiteralPresence(mask, literal);
    int blob = -1;
    RefineCandidateMask(mask, fast, &blob);
    EXPECT_TRUE(Same(fast, literal)) << "presence chain, mask " << k;
    EXPECT_EQ(blob, expected) << "presence, mask " << k;
    present += blob;
    BitMask packed;  // the same refined mask kept packed
    int packedBlob = -1;
    ASSERT_TRUE(RefineCandidateMaskPacked(mask, &packed, fast, &packedBlob));
    packed.Unpack(fast);
    EXPECT_TRUE(Same(fast, literal) && packedBlob == expected) << "packed presence, mask " << k;
  }
  EXPECT_GT(present, 10);
}

}  // namespace
