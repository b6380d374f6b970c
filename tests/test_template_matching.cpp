// Gradient images and windowed template matching.
#include <ostream>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "template/template_matching.h"

namespace {

// A 100 x 100 frame with a deterministic texture, so that every patch is
// distinct.
cv::Mat TexturedImage() {
  cv::Mat image(100, 100, CV_8U);
  cv::RNG rng(12345);
  rng.fill(image, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(image, image, cv::Size(5, 5), 1.0);
  return image;
}

// ---------------------------------------------------------------- gradients

TEST(MakeGradientImages, ConstantFrameGivesAllZero) {
  std::vector<cv::Mat> frames = {cv::Mat(40, 60, CV_8U, cv::Scalar(77))};
  std::vector<cv::Mat> gradients;
  MakeGradientImages(frames, gradients);
  ASSERT_EQ(gradients.size(), 1u);
  EXPECT_EQ(gradients[0].type(), CV_8U);
  EXPECT_EQ(gradients[0].size(), cv::Size(60, 40));
  EXPECT_EQ(cv::countNonZero(gradients[0]), 0);
}

TEST(MakeGradientImages, ImpulsesAreStretchedAndRounded) {
  // A strong impulse sets the scale: its 4-neighbours carry the largest
  // magnitude (2 * 100) and become 255, its diagonal neighbours 100 * sqrt(2),
  // 180.3 -> 180. The weak impulse's 4-neighbours have magnitude 2, that is
  // 2.55 after stretching, which rounds to 3 (a truncating conversion gives 2);
  // its diagonals sqrt(2) -> 1.80 -> 2.
  cv::Mat frame(30, 30, CV_8U, cv::Scalar(0));
  frame.at<uchar>(8, 8) = 100;
  frame.at<uchar>(20, 20) = 1;
  std::vector<cv::Mat> gradients;
  MakeGradientImages({frame}, gradients);
  ASSERT_EQ(gradients.size(), 1u);
  const cv::Mat& g = gradients[0];
  EXPECT_EQ(g.at<uchar>(8, 7), 255);
  EXPECT_EQ(g.at<uchar>(7, 8), 255);
  EXPECT_EQ(g.at<uchar>(7, 7), 180);
  EXPECT_EQ(g.at<uchar>(8, 8), 0);
  EXPECT_EQ(g.at<uchar>(20, 21), 3);
  EXPECT_EQ(g.at<uchar>(21, 21), 2);
  EXPECT_EQ(g.at<uchar>(20, 20), 0);
  EXPECT_EQ(g.at<uchar>(0, 29), 0);
}

TEST(MakeGradientImages, AppendsOneImagePerFrameInOrder) {
  cv::Mat flat(10, 12, CV_8U, cv::Scalar(5));
  cv::Mat edge(10, 12, CV_8U, cv::Scalar(0));
  edge.colRange(6, 12).setTo(200);
  std::vector<cv::Mat> gradients = {cv::Mat(1, 1, CV_8U, cv::Scalar(9))};
  MakeGradientImages({flat, edge, flat}, gradients);
  ASSERT_EQ(gradients.size(), 4u);
  EXPECT_EQ(gradients[0].at<uchar>(0, 0), 9);  // what was there stays
  EXPECT_EQ(cv::countNonZero(gradients[1]), 0);
  double minVal = 0.0;
  double maxVal = 0.0;
  cv::minMaxLoc(gradients[2], &minVal, &maxVal);
  EXPECT_EQ(minVal, 0.0);
  EXPECT_EQ(maxVal, 255.0);
  EXPECT_EQ(gradients[2].at<uchar>(5, 6), 255);
  EXPECT_EQ(gradients[2].at<uchar>(5, 1), 0);
  EXPECT_EQ(cv::countNonZero(gradients[3]), 0);
}

// ------------------------------------------------------- window clipping

struct WindowCase {
  cv::Rect window;
  cv::Rect clipped;
  bool accepted;
};

void PrintTo(const WindowCase& c, std::ostream* os) {
  *os << "window " << c.window << " -> " << c.clipped << (c.accepted ? " accepted" : " refused");
}

class MatchWindow : public ::testing::TestWithParam<WindowCase> {};

TEST_P(MatchWindow, ClipsInPlaceAndAcceptsStrictly) {
  const cv::Mat image = TexturedImage();
  const cv::Mat templ = image(cv::Rect(3, 4, 5, 5)).clone();
  const WindowCase c = GetParam();
  cv::Rect window = c.window;
  const cv::Rect untouched(-1, -2, -3, -4);
  cv::Rect match = untouched;
  double score = -7.0;
  EXPECT_EQ(MatchTemplateInWindow(templ, image, window, match, score), c.accepted);
  EXPECT_EQ(window, c.clipped);
  if (c.accepted) {
    EXPECT_EQ(match.size(), templ.size());
    EXPECT_TRUE((c.clipped & match) == match) << "match outside the window";
  } else {
    EXPECT_EQ(match, untouched);
    EXPECT_EQ(score, -7.0);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Windows, MatchWindow,
    ::testing::Values(
        // Negative corner: moved to 0, size kept, accepted.
        WindowCase{{-5, -5, 20, 20}, {0, 0, 20, 20}, true},
        // Past the right edge: clipped to width 10, then refused (90 + 10 = 100).
        WindowCase{{90, 10, 20, 20}, {90, 10, 10, 20}, false},
        // Past the bottom edge: clipped to height 10, refused.
        WindowCase{{10, 90, 20, 20}, {10, 90, 20, 10}, false},
        // Reaching the last column or row without clipping: refused.
        WindowCase{{80, 10, 20, 20}, {80, 10, 20, 20}, false},
        WindowCase{{10, 80, 20, 20}, {10, 80, 20, 20}, false},
        // One short of the last column and row: accepted.
        WindowCase{{79, 79, 20, 20}, {79, 79, 20, 20}, true},
        // Negative x keeps its width: (-15, 0, 20, 20) becomes (0, 0, 20, 20).
        WindowCase{{-15, 0, 20, 20}, {0, 0, 20, 20}, true},
        // Template larger than the (clipped) window: refused after clipping.
        WindowCase{{50, 50, 4, 30}, {50, 50, 4, 30}, false},
        // Entirely outside on the right: refused.
        WindowCase{{150, 10, 20, 20}, {150, 10, -50, 20}, false},
        // Negative size: refused without touching OpenCV.
        WindowCase{{50, 50, -5, 20}, {50, 50, -5, 20}, false}));

// ------------------------------------------------------------- matching

TEST(MatchTemplateInWindow, FindsThePatchInWholeImageCoordinates) {
  const cv::Mat image = TexturedImage();
  const cv::Mat templ = image(cv::Rect(37, 52, 9, 7)).clone();
  cv::Rect window(30, 40, 30, 30);
  cv::Rect match;
  double score = 0.0;
  ASSERT_TRUE(MatchTemplateInWindow(templ, image, window, match, score));
  EXPECT_EQ(match, cv::Rect(37, 52, 9, 7));
  EXPECT_NEAR(score, 1.0, 1e-5);
}

TEST(MatchTemplateInWindow, TemplateOfTheWindowSizeGivesTheWindow) {
  const cv::Mat image = TexturedImage();
  const cv::Rect patch(21, 33, 16, 12);
  // A template of the window's size leaves a 1 x 1 correlation result: the only
  // possible match is the window itself, whatever its score.
  const cv::Mat templ = image(cv::Rect(60, 10, 16, 12)).clone();
  cv::Rect window = patch;
  cv::Rect match;
  double score = 5.0;
  ASSERT_TRUE(MatchTemplateInWindow(templ, image, window, match, score));
  EXPECT_EQ(match, patch);
  EXPECT_GE(score, -1.0);
  EXPECT_LE(score, 1.0);

  cv::Mat result;
  cv::matchTemplate(image(patch), templ, result, cv::TM_CCOEFF_NORMED);
  EXPECT_EQ(result.size(), cv::Size(1, 1));
  EXPECT_EQ(score, static_cast<double>(result.at<float>(0, 0)));
}

TEST(MatchTemplateInWindow, ScoreIsTheNormalisedCorrelationCoefficient) {
  // The coefficient ignores brightness and contrast: a darkened, flattened
  // copy of the patch still matches with 1.
  const cv::Mat image = TexturedImage();
  cv::Mat templ;
  image(cv::Rect(40, 40, 12, 12)).convertTo(templ, CV_8U, 0.5, 10.0);
  cv::Rect window(30, 30, 40, 40);
  cv::Rect match;
  double score = 0.0;
  ASSERT_TRUE(MatchTemplateInWindow(templ, image, window, match, score));
  EXPECT_EQ(match.tl(), cv::Point(40, 40));
  EXPECT_GT(score, 0.99);
}

TEST(MatchTemplateInWindow, RefusesAnEmptyImage) {
  const cv::Mat templ(3, 3, CV_8U, cv::Scalar(1));
  cv::Rect window(0, 0, 10, 10);
  cv::Rect match(1, 2, 3, 4);
  double score = 0.5;
  EXPECT_FALSE(MatchTemplateInWindow(templ, cv::Mat(), window, match, score));
  EXPECT_EQ(window, cv::Rect(0, 0, 10, 10));
  EXPECT_EQ(match, cv::Rect(1, 2, 3, 4));
  EXPECT_EQ(score, 0.5);
}

}  // namespace
