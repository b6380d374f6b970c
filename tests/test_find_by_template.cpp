// The template tracking path: its pieces (gradient images, windowed matching,
// path fits), and FindbyTemplate, FindHeadAndCalculate
// and Find's fall-back on synthetic swings against their ground truth.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "support/access.h"
#include "support/change_masks.h"
#include "support/log_capture.h"
#include "synth/swing.h"
#include "template/distance_map.h"
#include "template/head_common.h"
#include "template/head_tracker.h"
#include "template/template_matching.h"

namespace {

synth::Recording& DefaultSwing() {
  static synth::Recording recording = synth::Render(synth::SwingScene{});
  return recording;
}

struct TemplateRun {
  int returned = 0;
  double speed = -1.0;
  std::vector<std::string> log;
};

TemplateRun RunTemplate(synth::Recording& recording) {
  TemplateRun run;
  ClubTracker tracker(LoggingInto(recording.setting, run.log));
  run.returned = tracker.FindbyTemplate(recording.Cam1(), recording.Cam2(), run.speed);
  return run;
}

double ErrorPercent(double speed, const synth::SwingTruth& truth) {
  return 100.0 * (speed - truth.clubHeadSpeed) / truth.clubHeadSpeed;
}

// ------------------------------------- gradient images, template matching

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
    if (c.match == c.patch) {
      EXPECT_NEAR(score, 1.0, 1e-5);
    }
    if (c.match != c.window) continue;
    cv::Mat result;
    cv::matchTemplate(image(c.window), templ, result, cv::TM_CCOEFF_NORMED);
    EXPECT_EQ(result.size(), cv::Size(1, 1));
    EXPECT_EQ(score, static_cast<double>(result.at<float>(0, 0)));
  }
}

// ------------------------------------- the head tracker's fast image forms

// Masks with blobs and bars anywhere, borders included, of awkward sizes.
std::vector<cv::Mat> BlobMasks() {
  std::vector<cv::Mat> masks = {cv::Mat(1, 1, CV_8U, cv::Scalar(255)),
                                cv::Mat(1, 9, CV_8U, cv::Scalar(255)),
                                cv::Mat(7, 1, CV_8U, cv::Scalar(0)),
                                cv::Mat(13, 17, CV_8U, cv::Scalar(255))};
  cv::RNG rng(20261124);
  for (int i = 0; i < 40; ++i) {
    cv::Mat mask(rng.uniform(3, 90), rng.uniform(3, 120), CV_8U, cv::Scalar(0));
    for (int blob = rng.uniform(0, 5); blob > 0; --blob) {
      const cv::Point centre(rng.uniform(-5, mask.cols + 5), rng.uniform(-5, mask.rows + 5));
      cv::ellipse(mask, centre, cv::Size(rng.uniform(1, 25), rng.uniform(1, 15)),
                  rng.uniform(0.0, 180.0), 0.0, 360.0, cv::Scalar(255), cv::FILLED);
      cv::line(mask, centre, cv::Point(rng.uniform(0, mask.cols), rng.uniform(0, mask.rows)),
               cv::Scalar(255), rng.uniform(1, 4));
      if (rng.uniform(0, 3) == 0) cv::circle(mask, centre, rng.uniform(1, 6), cv::Scalar(0), -1);
    }
    masks.push_back(mask);
  }
  return masks;
}

// What ChangedMask has always computed: the whole frame closed and filled.
cv::Mat LiteralChangedMask(const cv::Mat& grey, const cv::Mat& background, int closing) {
  cv::Mat changed;
  cv::absdiff(grey, background, changed);
  cv::threshold(changed, changed, headtrack::detail::kDifferenceThreshold, 255.0,
                cv::THRESH_BINARY);
  const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(closing, closing));
  cv::dilate(changed, changed, kernel);
  cv::erode(changed, changed, kernel);
  cv::Mat padded;
  cv::copyMakeBorder(changed, padded, 1, 1, 1, 1, cv::BORDER_CONSTANT, cv::Scalar(0));
  cv::floodFill(padded, cv::Point(0, 0), cv::Scalar(128));
  return padded(cv::Rect(1, 1, changed.cols, changed.rows)) != 128;
}

bool Same(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::norm(a, b, cv::NORM_INF) == 0.0;
}

// Distances and component boxes worked out on the set pixels' box,
// change masks closed and filled on it, and half-resolution gradients of a
// part: each the same as the whole-image calls, on blob masks and on the
// change masks of the rendered swings.
TEST(HeadTrackerImages, BoxedFormsEqualTheWholeImageCalls) {
  namespace d = headtrack::detail;
  std::vector<cv::Mat> masks = BlobMasks();
  for (const cv::Mat& mask : SwingChangeMasks()) masks.push_back(mask);
  cv::RNG rng(7);
  // Opening radii on, just below and between the roots of whole numbers.
  const double radii[] = {1.0, 1.5, std::sqrt(2.0), std::nextafter(std::sqrt(5.0), 0.0), 2.9,
                          std::sqrt(13.0), 4.2, std::nextafter(std::sqrt(20.0), 9.0), 7.5};
  for (size_t i = 0; i < masks.size(); ++i) {
    SCOPED_TRACE(i);
    const cv::Mat& mask = masks[i];
    for (const int maskSize : {cv::DIST_MASK_5, cv::DIST_MASK_PRECISE}) {
      cv::Rect active;
      cv::Mat distance;
      cv::distanceTransform(mask, distance, cv::DIST_L2, maskSize);
      EXPECT_TRUE(Same(d::BoxedDistances(mask, maskSize, active), distance)) << maskSize;
      EXPECT_EQ(active.empty(), cv::countNonZero(mask) == 0);
      // The opening by a disc as a dilation on bit planes (of the exact deep
      // pixels, an erosion too) and through the exact distances to the deep
      // pixels.
      for (const double radius : radii) {
        const cv::Mat literal = d::OpenByDiscLiteral(mask, distance, radius);
        EXPECT_TRUE(Same(d::OpenByDisc(mask, distance, radius), literal))
            << maskSize << " radius " << radius;
        if (maskSize != cv::DIST_MASK_PRECISE) continue;
        EXPECT_TRUE(Same(d::OpenByPreciseDisc(mask, radius), literal)) << "radius " << radius;
      }
    }
    // Whole masks too (columns without background included), and their
    // inverses (background only at the set pixels, as for the head's core).
    for (const cv::Mat& m : {mask, cv::Mat(mask == 0)}) {
      cv::Mat precise;
      cv::Mat exact;
      cv::distanceTransform(m, precise, cv::DIST_L2, cv::DIST_MASK_PRECISE);
      d::PreciseDistances(m, exact);
      EXPECT_TRUE(Same(exact, precise));
    }

    cv::Mat labels;
    cv::Mat stats;
    cv::Mat centroids;
    cv::connectedComponentsWithStats(mask, labels, stats, centroids, 8, CV_32S);
    for (int k = 0; k < 6; ++k) {
      const cv::Point seed(rng.uniform(0, mask.cols), rng.uniform(0, mask.rows));
      const int label = labels.at<int>(seed);
      cv::Mat repainted = mask.clone();
      cv::Rect box;
      ASSERT_EQ(d::ComponentBox(repainted, seed, box), label > 0);
      if (label > 0) {
        EXPECT_EQ(box, cv::Rect(stats.at<int>(label, cv::CC_STAT_LEFT),
                                stats.at<int>(label, cv::CC_STAT_TOP),
                                stats.at<int>(label, cv::CC_STAT_WIDTH),
                                stats.at<int>(label, cv::CC_STAT_HEIGHT)));
      }
    }

    // A textured background, changed by 40 grey levels under the mask (by 15,
    // under the threshold, elsewhere at random), whole and through a view.
    cv::Mat background(mask.size(), CV_8U);
    rng.fill(background, cv::RNG::UNIFORM, 60, 190);
    cv::Mat grey = background.clone();
    cv::add(grey, cv::Scalar(40), grey, mask);
    cv::Mat faint(mask.size(), CV_8U);
    rng.fill(faint, cv::RNG::UNIFORM, 0, 16);
    cv::subtract(grey, faint, grey);
    const cv::Rect view(mask.cols / 4, mask.rows / 5, mask.cols - mask.cols / 3,
                        mask.rows - mask.rows / 4);
    for (const int closing : {3, 7}) {
      EXPECT_TRUE(Same(d::ChangedMask(grey, background, closing),
                       LiteralChangedMask(grey, background, closing)));
      EXPECT_TRUE(Same(d::ChangedMask(grey(view), background(view), closing),
                       LiteralChangedMask(grey(view), background(view), closing)));
    }

    // Gradients of parts of the half image, borders included.
    if (mask.rows < 4 || mask.cols < 4) continue;
    const cv::Mat half = d::Half(grey);
    const cv::Rect parts[] = {cv::Rect(0, 0, half.cols, half.rows),
                              cv::Rect(1, 1, half.cols - 2, half.rows - 2),
                              cv::Rect(half.cols / 2, 0, half.cols - half.cols / 2, half.rows / 2 + 1),
                              cv::Rect(0, half.rows / 3, half.cols / 3 + 1, half.rows - half.rows / 3)};
    for (const cv::Rect& part : parts) {
      if (part.empty()) continue;
      std::vector<cv::Mat> fast;
      std::vector<cv::Mat> literal;
      MakeGradientImages({d::HalfPart(grey, part)}, fast);
      MakeGradientImages({half(part)}, literal);
      EXPECT_TRUE(Same(fast[0], literal[0])) << part;
      const cv::Rect patch = d::Clip(d::Grow(part, -1), half.size());
      if (patch.width < 1 || patch.height < 1) continue;
      EXPECT_TRUE(Same(d::HalfGradientPatch(grey, patch), d::GradientPatch(half, patch))) << patch;
    }
  }
  // The background: the per-pixel median of up to nine frames spread over the
  // sequence, against cv::min and cv::max on whole images, for every count of
  // frames it takes (3, 5, 7 and 9) and widths around the vector widths.
  for (const cv::Size size : {cv::Size(5, 3), cv::Size(37, 4), cv::Size(71, 6)}) {
    for (int n = 3; n <= 12; ++n) {
      std::vector<headtrack::CameraFrame> frames(n);
      for (headtrack::CameraFrame& frame : frames) {
        frame.grey.create(size, CV_8U);
        rng.fill(frame.grey, cv::RNG::UNIFORM, 0, 256);
      }
      const int m = std::min(9, n % 2 == 1 ? n : n - 1);
      std::vector<cv::Mat> sorted;
      for (int i = 0; i < m; ++i) sorted.push_back(frames[std::lround(i * (n - 1.0) / (m - 1))].grey.clone());
      for (int round = 0; round < m; ++round) {
        for (int i = round % 2; i + 1 < m; i += 2) {
          cv::Mat low;
          cv::min(sorted[i], sorted[i + 1], low);
          cv::max(sorted[i], sorted[i + 1], sorted[i + 1]);
          sorted[i] = low;
        }
      }
      EXPECT_TRUE(Same(headtrack::MakeBackground(frames), sorted[m / 2])) << size << " " << n;
    }
  }
  // Rounded distances, exact halves and their neighbours included.
  for (double dx = -7.0; dx <= 7.0; dx += 0.25) {
    for (const double dy : {0.0, 0.5, 2.5, 3.0, 4.0 + 1e-12, -250.5, 120.25}) {
      EXPECT_EQ(d::RoundedDistance(dx, dy), std::lround(std::hypot(dx, dy))) << dx << " " << dy;
    }
  }
  for (int k = 0; k < 20000; ++k) {
    const double dx = rng.uniform(-200.0, 200.0);
    const double dy = rng.uniform(-200.0, 200.0);
    ASSERT_EQ(d::RoundedDistance(dx, dy), std::lround(std::hypot(dx, dy))) << dx << " " << dy;
  }
}

// ------------------------------------------------------------------ fits

std::vector<headtrack::HeadSample> PathSamples(double speed, double acceleration, int count) {
  std::vector<headtrack::HeadSample> samples;
  for (int i = 0; i < count; ++i) {
    headtrack::HeadSample s;
    s.time = 1000.0 + 500.0 * i;
    const double t = s.time - 1000.0;
    const double along = speed * t + 0.5 * acceleration * t * t;
    s.point = cv::Vec3d(3.0, -2.0, 7.0) + along * cv::Vec3d(0.6, 0.0, 0.8);
    samples.push_back(s);
  }
  return samples;
}

TEST(HeadTrackerFit, StraightAndAcceleratedPaths) {
  headtrack::PathFit fit;
  ASSERT_TRUE(headtrack::FitPath(PathSamples(0.04, 0.0, 4), 8, 5, fit));
  EXPECT_FALSE(fit.quadratic);
  EXPECT_NEAR(fit.Speed(5000.0, 5.0), 0.04, 1e-12);
  const double a = 2e-6;
  ASSERT_TRUE(headtrack::FitPath(PathSamples(0.04, a, 12), 8, 5, fit));
  EXPECT_TRUE(fit.quadratic);
  EXPECT_EQ(fit.samples, 8);
  EXPECT_NEAR(fit.tangentialAcceleration, a, 1e-12);
  EXPECT_NEAR(fit.Speed(7000.0, 5.0), 0.04 + a * 6000.0, 1e-9);
  EXPECT_LT(fit.rmsResidual, 1e-9);
  EXPECT_FALSE(headtrack::FitPath(PathSamples(0.04, 0.0, 2), 8, 5, fit));
  std::vector<headtrack::HeadSample> same = PathSamples(0.04, 0.0, 3);
  for (headtrack::HeadSample& s : same) s.time = 1000.0;
  EXPECT_FALSE(headtrack::FitPath(same, 8, 5, fit));
}

// ------------------------------------------------------ FindbyTemplate

TEST(FindbyTemplate, DefaultSwingWithinOnePercent) {
  synth::Recording& recording = DefaultSwing();
  const TemplateRun run = RunTemplate(recording);
  const double error = ErrorPercent(run.speed, recording.truth);
  EXPECT_EQ(run.returned, 1);
  EXPECT_LT(std::abs(error), 1.0);
  ASSERT_EQ(run.log.size(), 1u);
  EXPECT_NE(run.log[0].find("ClubHeadSpeed: "), std::string::npos) << run.log[0];
}

TEST(FindbyTemplate, NoClubGivesZeroAndSaysWhy) {
  synth::Recording recording = synth::Render({.noClub = true});
  const TemplateRun run = RunTemplate(recording);
  EXPECT_EQ(run.returned, 0);
  EXPECT_EQ(run.speed, 0.0);
  ASSERT_EQ(run.log.size(), 1u);
  EXPECT_EQ(run.log[0],
            "FindbyTemplate: no club head found in both cameras before the impact; no club "
            "speed.");
}

// ------------------------------------------------------- Find fall-back

TEST(FindbyTemplate, FindFallsBackToItWhenTheLinesGiveNoSpeed) {
  // A dark shaft leaves the line stage without a speed.
  synth::Recording recording = synth::Render({.darkShaft = true});
  std::vector<std::string> log;
  ClubTracker tracker(LoggingInto(recording.setting, log));
  ClubTrackerResult result;
  tracker.Find(recording.Cam1(), recording.Cam2(), result, 0);
  const auto again = std::find(log.begin(), log.end(), "Calculate clubspeed again.");
  ASSERT_NE(again, log.end());
  ASSERT_NE(again + 1, log.end());
  EXPECT_EQ((again + 1)->rfind("FindbyTemplate: head tracked in ", 0), 0u) << *(again + 1);

  const TemplateRun direct = RunTemplate(recording);
  ASSERT_GT(direct.speed, 0.0);
  EXPECT_EQ(result.clubHeadSpeed, direct.speed);
  const double error = ErrorPercent(result.clubHeadSpeed, recording.truth);
  EXPECT_LT(std::abs(error), 2.0);
}

// ------------------------------------------------- FindHeadAndCalculate

TEST(FindHeadAndCalculate, SpeedAboutTheTrueAxis) {
  synth::Recording& recording = DefaultSwing();
  const synth::SwingTruth& truth = recording.truth;
  std::vector<std::string> log;
  ClubTracker tracker(LoggingInto(recording.setting, log));
  ClubTrackerResult result;
  for (int i = 0; i < 3; ++i) {
    result.axisPosition[i] = static_cast<float>(truth.pivot[i]);
    result.axisDirection[i] = static_cast<float>(truth.axis[i]);
  }
  ASSERT_EQ(ClubTrackerTestAccess::FindHeadAndCalculate(tracker, recording.Cam1(),
                                                        recording.Cam2(), result),
            1);
  const double error = ErrorPercent(result.clubHeadSpeed, truth);
  EXPECT_LT(std::abs(error), 1.5);
  EXPECT_NEAR(result.angularVelocity, truth.omega0, 0.015 * truth.omega0);
  EXPECT_NEAR(result.headRadius, truth.headRadius, 0.005 * truth.headRadius);

  ASSERT_EQ(log.size(), 1u);
  EXPECT_NE(log[0].find(" m/s"), std::string::npos);
}

}  // namespace
