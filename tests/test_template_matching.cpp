// Gradient images and windowed template matching.
#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "template/template_matching.h"

namespace {

cv::Mat TexturedImage() {
  cv::Mat image(100, 100, CV_8U);
  cv::RNG rng(12345);
  rng.fill(image, cv::RNG::UNIFORM, 0, 256);
  cv::GaussianBlur(image, image, cv::Size(5, 5), 1.0);
  return image;
}

// Appended to the list: a constant frame gives all zero; a strong impulse
// gives 255 at its 4-neighbours and 180 at its diagonals, a weak one 2.55 -> 3
// (truncation would give 2) and 1.80 -> 2.
TEST(MakeGradientImages, ConstantFrameGivesZeroImpulsesAreStretchedAndRounded) {
  cv::Mat frame(30, 30, CV_8U, cv::Scalar(0));
  frame.at<uchar>(8, 8) = 100;
  frame.at<uchar>(20, 20) = 1;
  std::vector<cv::Mat> gradients = {cv::Mat(1, 1, CV_8U, cv::Scalar(9))};
  MakeGradientImages({cv::Mat(40, 60, CV_8U, cv::Scalar(77)), frame}, gradients);
  ASSERT_EQ(gradients.size(), 3u);
  EXPECT_EQ(gradients[0].at<uchar>(0, 0), 9);
  EXPECT_EQ(gradients[1].type(), CV_8U);
  EXPECT_EQ(gradients[1].size(), cv::Size(60, 40));
  EXPECT_EQ(cv::countNonZero(gradients[1]), 0);
  const cv::Mat& g = gradients[2];
  EXPECT_EQ((std::vector<int>{g.at<uchar>(8, 7), g.at<uchar>(7, 8), g.at<uchar>(7, 7),
                              g.at<uchar>(8, 8), g.at<uchar>(20, 21), g.at<uchar>(21, 21)}),
            (std::vector<int>{255, 255, 180, 0, 3, 2}));
}

// The window is clipped to the image in place; a template must fit strictly;
// the match is in whole-image coordinates, and a template of the window's size
// gives the window with the score of matching there.
TEST(MatchTemplateInWindow, ClipsInPlaceAcceptsStrictlyAndFindsThePatch) {
  const cv::Mat image = TexturedImage();
  const struct {
    cv::Rect patch, window, clipped;
    bool accepted;
    cv::Rect match;  // empty: only inside the window
  } cases[] = {
      {{3, 4, 5, 5}, {-5, -5, 20, 20}, {0, 0, 20, 20}, true, {}},
      {{3, 4, 5, 5}, {90, 10, 20, 20}, {90, 10, 10, 20}, false, {}},
      {{3, 4, 5, 5}, {10, 80, 20, 20}, {10, 80, 20, 20}, false, {}},
      {{3, 4, 5, 5}, {79, 79, 20, 20}, {79, 79, 20, 20}, true, {}},
      {{3, 4, 5, 5}, {50, 50, 4, 30}, {50, 50, 4, 30}, false, {}},
      {{3, 4, 5, 5}, {50, 50, -5, 20}, {50, 50, -5, 20}, false, {}},
      {{37, 52, 9, 7}, {30, 40, 30, 30}, {30, 40, 30, 30}, true, {37, 52, 9, 7}},
      {{60, 10, 16, 12}, {21, 33, 16, 12}, {21, 33, 16, 12}, true, {21, 33, 16, 12}}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.patch << " in " << c.window);
    const cv::Mat templ = image(c.patch).clone();
    cv::Rect window = c.window;
    const cv::Rect untouched(-1, -2, -3, -4);
    cv::Rect match = untouched;
    double score = -7.0;
    EXPECT_EQ(MatchTemplateInWindow(templ, image, window, match, score), c.accepted);
    EXPECT_EQ(window, c.clipped);
    if (!c.accepted) {
      EXPECT_EQ(match, untouched);
      EXPECT_EQ(score, -7.0);
      continue;
    }
    EXPECT_EQ(match.size(), templ.size());
    EXPECT_TRUE((c.clipped & match) == match) << "match outside the window";
    if (c.match.empty()) continue;
    EXPECT_EQ(match, c.match);
    if (c.match == c.patch) EXPECT_NEAR(score, 1.0, 1e-5);
    if (c.match != c.window) continue;
    cv::Mat result;
    cv::matchTemplate(image(c.window), templ, result, cv::TM_CCOEFF_NORMED);
    EXPECT_EQ(result.size(), cv::Size(1, 1));
    EXPECT_EQ(score, static_cast<double>(result.at<float>(0, 0)));
  }
}

}  // namespace
