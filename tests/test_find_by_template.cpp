// The template tracking path: its pieces on constructed data, and the club-head
// speed of FindbyTemplate, FindHeadAndCalculate and Find's fall-back on
// synthetic swings against their ground truth.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>

#include "support/access.h"
#include "synth/swing.h"
#include "template/head_tracker.h"

namespace {

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

void CaptureLog(std::wstring line, void* context) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(line.begin(), line.end());
}

// Rendered once per test program: the swings several tests look at.
const synth::Recording& Rendered(const synth::SwingScene& scene, const std::string& name) {
  static std::map<std::string, synth::Recording> cache;
  auto found = cache.find(name);
  if (found == cache.end()) found = cache.emplace(name, synth::Render(scene)).first;
  return found->second;
}

const synth::Recording& DefaultSwing() { return Rendered(synth::SwingScene{}, "default"); }

synth::SwingScene DarkShaft() {
  synth::SwingScene scene;
  scene.darkShaft = true;
  return scene;
}

// Frame lists of a recording (the recording keeps the frames; the lists only
// point at them).
std::vector<ClubImage*> Frames(const synth::Recording& recording, int camera) {
  std::vector<ClubImage*> list;
  for (const ClubImage& image : recording.images[camera]) {
    list.push_back(const_cast<ClubImage*>(&image));
  }
  return list;
}

struct TemplateRun {
  int returned = 0;
  double speed = -1.0;
  std::vector<std::string> log;
};

TemplateRun RunTemplate(const synth::Recording& recording, std::vector<ClubImage*> cam1,
                        std::vector<ClubImage*> cam2, ClubTrackerSetting setting) {
  TemplateRun run;
  setting.logCallback = CaptureLog;
  setting.logContext = &run.log;
  ClubTracker tracker(setting);
  run.returned = tracker.FindbyTemplate(cam1, cam2, run.speed);
  (void)recording;
  return run;
}

TemplateRun RunTemplate(const synth::Recording& recording) {
  return RunTemplate(recording, Frames(recording, 0), Frames(recording, 1), recording.setting);
}

double ErrorPercent(double speed, const synth::SwingTruth& truth) {
  return 100.0 * (speed - truth.clubHeadSpeed) / truth.clubHeadSpeed;
}

bool Contains(const std::vector<std::string>& log, const std::string& text) {
  for (const std::string& line : log) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

// Before-impact frames in which both cameras see the head's centre.
int FramesWithHeadInView(const synth::SwingTruth& truth) {
  int count = 0;
  for (int k = 0; k < truth.impactIndex; ++k) {
    bool seen = true;
    for (int c = 0; c < 2 && seen; ++c) {
      const auto& stamps = truth.timeStamps[c];
      if (k >= static_cast<int>(stamps.size())) {
        seen = false;
        break;
      }
      const synth::CameraModel& camera = truth.cameras[c];
      const cv::Vec2d p = camera.ProjectToWindow(truth.HeadCentre(truth.FrameTime(c, k)));
      seen = p[0] >= 0.0 && p[1] >= 0.0 && p[0] < camera.width && p[1] < camera.height;
    }
    count += seen ? 1 : 0;
  }
  return count;
}

// ------------------------------------------------------------- pairing

TEST(HeadTrackerPairing, TimeStampsWithinTenUnitsPair) {
  std::vector<ClubImage> a(4), b(4);
  const uint64_t stampsA[4] = {1000, 1500, 2000, 2500};
  const uint64_t stampsB[4] = {1010, 1511, 2003, 2600};
  std::vector<ClubImage*> listA, listB;
  for (int i = 0; i < 4; ++i) {
    a[i].timeStamp = stampsA[i];
    b[i].timeStamp = stampsB[i];
    listA.push_back(&a[i]);
    listB.push_back(&b[i]);
  }
  std::vector<const ClubImage*> pairs1, pairs2;
  PairFrames(listA, listB, pairs1, pairs2);
  // 10 apart pairs, 11 apart does not (1500 is dropped and 1511 waits for
  // 2000, which is too far, so 1511 is dropped too), 3 apart pairs; 2500 and
  // 2600 do not.
  ASSERT_EQ(pairs1.size(), 2u);
  EXPECT_EQ(pairs1[0], &a[0]);
  EXPECT_EQ(pairs2[0], &b[0]);
  EXPECT_EQ(pairs1[1], &a[2]);
  EXPECT_EQ(pairs2[1], &b[2]);
}

// ------------------------------------------------------------ background

TEST(HeadTrackerBackground, MedianIgnoresWhatPassesBy) {
  // Nine frames of a grey scene crossed by a bright square that stays in no
  // place for more than two of them.
  std::vector<headtrack::CameraFrame> frames(9);
  cv::Mat scene(60, 200, CV_8U);
  cv::RNG rng(7);
  rng.fill(scene, cv::RNG::UNIFORM, 20, 60);
  for (int i = 0; i < 9; ++i) {
    frames[i].grey = scene.clone();
    frames[i].grey(cv::Rect(5 + 20 * i, 10, 30, 30)).setTo(220);
  }
  const cv::Mat background = headtrack::MakeBackground(frames);
  ASSERT_EQ(background.size(), scene.size());
  EXPECT_EQ(cv::norm(background, scene, cv::NORM_INF), 0.0);
  EXPECT_TRUE(headtrack::MakeBackground({frames[0], frames[1]}).empty());
}

// -------------------------------------------------------------- outlines

std::vector<cv::Point2f> EllipsePoints(const headtrack::HeadOutline& e, double from, double to) {
  std::vector<cv::Point2f> points;
  for (double t = from; t < to; t += 0.05) {
    const double u = e.semiMajor * std::cos(t);
    const double v = e.semiMinor * std::sin(t);
    const double x = e.centre.x + u * std::cos(e.angle) - v * std::sin(e.angle);
    const double y = e.centre.y + u * std::sin(e.angle) + v * std::cos(e.angle);
    points.emplace_back(static_cast<float>(x), static_cast<float>(y));
  }
  return points;
}

TEST(HeadTrackerOutline, ModelMovedOntoAPartialArcFindsItsCentre) {
  headtrack::HeadOutline truth;
  truth.centre = cv::Point2d(120.3, 80.7);
  truth.semiMajor = 60.0;
  truth.semiMinor = 28.0;
  truth.angle = 0.2;
  // Only a third of the outline, away from where the ball would hide it.
  const std::vector<cv::Point2f> arc = EllipsePoints(truth, 1.0, 3.2);
  headtrack::HeadOutline model = truth;
  model.centre = cv::Point2d(112.0, 86.0);
  cv::Point2d centre;
  ASSERT_TRUE(headtrack::FitOutlineCentre(arc, model, centre));
  EXPECT_NEAR(centre.x, truth.centre.x, 0.01);
  EXPECT_NEAR(centre.y, truth.centre.y, 0.01);
  EXPECT_FALSE(headtrack::FitOutlineCentre({arc[0], arc[1]}, model, centre));
}

// A frame with a bright elliptic head on a shaft, over a plain background.
headtrack::CameraFrame HeadFrame(const cv::Point2d& centre, cv::Mat& background) {
  background = cv::Mat(240, 320, CV_8U, cv::Scalar(30));
  headtrack::CameraFrame frame;
  frame.grey = background.clone();
  cv::line(frame.grey, cv::Point(static_cast<int>(centre.x) + 30, 0),
           cv::Point(static_cast<int>(centre.x), static_cast<int>(centre.y)), cv::Scalar(150), 7);
  cv::ellipse(frame.grey, cv::RotatedRect(cv::Point2f(centre), cv::Size2f(120.0f, 56.0f), 8.0f),
              cv::Scalar(140), cv::FILLED);
  return frame;
}

TEST(HeadTrackerOutline, HeadFoundAndMeasuredOnItsOutline) {
  cv::Mat background;
  const cv::Point2d centre(150.0, 130.0);
  const headtrack::CameraFrame frame = HeadFrame(centre, background);
  headtrack::BallModel noBall;
  headtrack::HeadBlob blob;
  ASSERT_TRUE(headtrack::LocateHead(frame, background, noBall, true, blob));
  // The shaft is not part of the head: the outline's centre is the ellipse's.
  EXPECT_NEAR(blob.outline.centre.x, centre.x, 0.3);
  EXPECT_NEAR(blob.outline.centre.y, centre.y, 0.3);
  EXPECT_NEAR(blob.outline.semiMajor, 60.0, 1.5);
  EXPECT_NEAR(blob.outline.semiMinor, 28.0, 1.5);
  EXPECT_TRUE(blob.outline.complete);
  EXPECT_GT(blob.thickness, 20.0);

  // Without the head, nothing is found; a head cut by the frame's border is
  // not taken.
  headtrack::CameraFrame empty;
  empty.grey = background.clone();
  EXPECT_FALSE(headtrack::LocateHead(empty, background, noBall, true, blob));
  cv::Mat unused;
  const headtrack::CameraFrame cut = HeadFrame(cv::Point2d(20.0, 130.0), unused);
  EXPECT_FALSE(headtrack::LocateHead(cut, background, noBall, true, blob));
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
  // Four samples: a straight line, exact.
  ASSERT_TRUE(headtrack::FitPath(PathSamples(0.04, 0.0, 4), 8, 5, fit));
  EXPECT_FALSE(fit.quadratic);
  EXPECT_NEAR(fit.Speed(5000.0, 5.0), 0.04, 1e-12);
  // Eight samples with a clear acceleration: the quadratic carries the speed
  // on to the time asked for.
  const double a = 2e-6;
  ASSERT_TRUE(headtrack::FitPath(PathSamples(0.04, a, 12), 8, 5, fit));
  EXPECT_TRUE(fit.quadratic);
  EXPECT_EQ(fit.samples, 8);
  EXPECT_NEAR(fit.tangentialAcceleration, a, 1e-12);
  EXPECT_NEAR(fit.Speed(7000.0, 5.0), 0.04 + a * 6000.0, 1e-9);
  EXPECT_LT(fit.rmsResidual, 1e-9);
  // Too few samples, or samples at one time, give no fit.
  EXPECT_FALSE(headtrack::FitPath(PathSamples(0.04, 0.0, 2), 8, 5, fit));
  std::vector<headtrack::HeadSample> same = PathSamples(0.04, 0.0, 3);
  for (headtrack::HeadSample& s : same) s.time = 1000.0;
  EXPECT_FALSE(headtrack::FitPath(same, 8, 5, fit));
}

TEST(HeadTrackerFit, AngularVelocityAboutAnAxis) {
  const cv::Vec3d pivot(10.0, 1300.0, 800.0);
  const cv::Vec3d axis = cv::normalize(cv::Vec3d(0.0, -0.5, 0.85));
  const cv::Vec3d e1 = cv::normalize(axis.cross(cv::Vec3d(1.0, 0.0, 0.0)));
  const cv::Vec3d e2 = axis.cross(e1);
  const double omega = 2.6e-5;
  std::vector<headtrack::HeadSample> samples;
  for (int i = 0; i < 6; ++i) {
    headtrack::HeadSample s;
    s.time = 500.0 * i;
    const double angle = omega * s.time;
    // 1500 from the axis and 40 along it.
    s.point = pivot + 40.0 * axis + 1500.0 * (std::cos(angle) * e1 + std::sin(angle) * e2);
    samples.push_back(s);
  }
  double measured = 0.0;
  ASSERT_TRUE(headtrack::FitAngularVelocity(samples, 8, pivot, axis * 3.0, 2600.0, measured));
  EXPECT_NEAR(measured, omega, 1e-12);
  EXPECT_FALSE(
      headtrack::FitAngularVelocity(samples, 8, pivot, cv::Vec3d(0.0, 0.0, 0.0), 0.0, measured));
}

// ------------------------------------------------------ FindbyTemplate

TEST(FindbyTemplate, DefaultSwingWithinOnePercent) {
  const synth::Recording& recording = DefaultSwing();
  const TemplateRun run = RunTemplate(recording);
  const double error = ErrorPercent(run.speed, recording.truth);
  std::printf("default swing: %.3f m/s for %.3f m/s (%+.2f %%)\n", run.speed * 1000.0,
              recording.truth.clubHeadSpeedMps, error);
  EXPECT_EQ(run.returned, 1);
  EXPECT_LT(std::abs(error), 1.0);
  ASSERT_EQ(run.log.size(), 1u);
  EXPECT_TRUE(Contains(run.log, "ClubHeadSpeed: ")) << run.log[0];
}

TEST(FindbyTemplate, VariedSwingsWithinTwoPercent) {
  const int seeds = Sanitized() ? 4 : 20;
  double worst = 0.0;
  int measured = 0;
  for (int seed = 1; seed <= seeds; ++seed) {
    const synth::SwingScene scene = synth::SwingScene::Varied(static_cast<uint64_t>(seed));
    const synth::Recording recording = synth::Render(scene);
    const int inView = FramesWithHeadInView(recording.truth);
    const TemplateRun run = RunTemplate(recording);
    const double error = ErrorPercent(run.speed, recording.truth);
    std::printf("seed %2d: %s %s %4.0f fps, head in view %2d frames: %.3f m/s for %.3f "
                "(%+.2f %%)\n",
                seed, scene.placement == synth::Placement::kNear ? "near" : "far ",
                scene.iron ? "iron  " : "driver", scene.fps, inView, run.speed * 1000.0,
                recording.truth.clubHeadSpeedMps, error);
    if (inView < 4) continue;
    ++measured;
    EXPECT_EQ(run.returned, 1) << "seed " << seed;
    EXPECT_LT(std::abs(error), 2.0) << "seed " << seed;
    worst = std::max(worst, std::abs(error));
  }
  std::printf("worst of %d swings: %.2f %%\n", measured, worst);
  EXPECT_EQ(measured, seeds);
}

TEST(FindbyTemplate, HardRecordingsStayWithinTwoPercent) {
  // A dropped frame, flicker, stronger noise, an iron, the head seen in only
  // four frames before the impact, and 1000 frames a second.
  std::vector<std::pair<std::string, synth::SwingScene>> scenes;
  synth::SwingScene scene;
  scene.dropFrame = true;
  scenes.emplace_back("dropped frame", scene);
  scene = synth::SwingScene{};
  scene.flicker = true;
  scene.noiseSigma = 3.0;
  scenes.emplace_back("flicker and noise", scene);
  scene = synth::SwingScene{};
  scene.iron = true;
  scene.placement = synth::Placement::kFar;
  scenes.emplace_back("far iron", scene);
  scene = synth::SwingScene{};
  scene.impactIndex = 4;
  scenes.emplace_back("four frames before impact", scene);
  scene = synth::SwingScene{};
  scene.fps = 1000.0;
  scenes.emplace_back("1000 fps", scene);
  if (Sanitized()) scenes.resize(2);
  for (const auto& [name, s] : scenes) {
    const synth::Recording recording = synth::Render(s);
    const TemplateRun run = RunTemplate(recording);
    const double error = ErrorPercent(run.speed, recording.truth);
    std::printf("%s: %+.2f %%\n", name.c_str(), error);
    EXPECT_EQ(run.returned, 1) << name;
    EXPECT_LT(std::abs(error), 2.0) << name;
  }
}

TEST(FindbyTemplate, ColourFramesGiveTheSameSpeed) {
  const synth::Recording& recording = DefaultSwing();
  // The same frames as BGR: grey converted back is the same grey.
  std::vector<std::vector<unsigned char>> buffers;
  std::vector<ClubImage> images[2];
  for (int c = 0; c < 2; ++c) {
    for (const ClubImage& grey : recording.images[c]) {
      const cv::Mat g(static_cast<int>(grey.height), static_cast<int>(grey.width), CV_8U,
                      grey.pixels);
      cv::Mat bgr;
      cv::cvtColor(g, bgr, cv::COLOR_GRAY2BGR);
      buffers.emplace_back(bgr.data, bgr.data + bgr.total() * bgr.elemSize());
      ClubImage colour = grey;
      colour.channels = 3;
      images[c].push_back(colour);
    }
  }
  size_t next = 0;
  std::vector<ClubImage*> lists[2];
  for (int c = 0; c < 2; ++c) {
    for (ClubImage& image : images[c]) {
      image.pixels = buffers[next++].data();
      lists[c].push_back(&image);
    }
  }
  const TemplateRun grey = RunTemplate(recording);
  const TemplateRun colour = RunTemplate(recording, lists[0], lists[1], recording.setting);
  EXPECT_EQ(colour.returned, 1);
  EXPECT_EQ(colour.speed, grey.speed);
}

TEST(FindbyTemplate, RegionOfInterestKeepsFullSensorCoordinates) {
  const synth::Recording& recording = DefaultSwing();
  ClubTrackerSetting setting = recording.setting;
  setting.roiX = 6;
  setting.roiY = 4;
  setting.roiWidth = static_cast<int32_t>(recording.images[0][0].width) - 10;
  setting.roiHeight = static_cast<int32_t>(recording.images[0][0].height) - 8;
  const TemplateRun whole = RunTemplate(recording);
  const TemplateRun cut =
      RunTemplate(recording, Frames(recording, 0), Frames(recording, 1), setting);
  ASSERT_EQ(cut.returned, 1) << (cut.log.empty() ? "" : cut.log[0]);
  EXPECT_NEAR(cut.speed, whole.speed, 0.003 * whole.speed);
  // A region that leaves no pixel is a frame that cannot be read.
  setting.roiX = 5000;
  const TemplateRun none =
      RunTemplate(recording, Frames(recording, 0), Frames(recording, 1), setting);
  EXPECT_EQ(none.speed, 0.0);
  EXPECT_TRUE(Contains(none.log, "cannot be read"));
}

TEST(FindbyTemplate, NoClubGivesZeroAndSaysWhy) {
  synth::SwingScene scene;
  scene.noClub = true;
  const synth::Recording recording = synth::Render(scene);
  const TemplateRun run = RunTemplate(recording);
  EXPECT_EQ(run.returned, 0);
  EXPECT_EQ(run.speed, 0.0);
  ASSERT_EQ(run.log.size(), 1u);
  EXPECT_EQ(run.log[0],
            "FindbyTemplate: no club head found in both cameras before the impact; no club "
            "speed.");
}

TEST(FindbyTemplate, TooFewFramesOrUnreadableFramesGiveZero) {
  const synth::Recording& recording = DefaultSwing();
  std::vector<ClubImage*> cam1 = Frames(recording, 0);
  std::vector<ClubImage*> cam2 = Frames(recording, 1);

  // Two frames before the impact.
  const TemplateRun two = RunTemplate(recording, {cam1[0], cam1[1]}, {cam2[0], cam2[1]},
                                      recording.setting);
  EXPECT_EQ(two.speed, 0.0);
  ASSERT_EQ(two.log.size(), 1u);
  EXPECT_EQ(two.log[0],
            "FindbyTemplate: 2 frame pairs before the impact, at least 3 needed; no club speed.");

  // Cameras that never pair, and empty lists.
  std::vector<ClubImage> shifted;
  for (const ClubImage* image : cam2) {
    shifted.push_back(*image);
    shifted.back().timeStamp += 250;
  }
  std::vector<ClubImage*> shiftedList;
  for (ClubImage& image : shifted) shiftedList.push_back(&image);
  EXPECT_TRUE(Contains(RunTemplate(recording, cam1, shiftedList, recording.setting).log,
                       "0 frame pairs before the impact"));
  EXPECT_TRUE(Contains(RunTemplate(recording, {}, cam2, recording.setting).log,
                       "0 frame pairs before the impact"));

  // A frame of 16-bit samples cannot be read; neither can a missing buffer.
  ClubImage wide = *cam1[3];
  wide.bytesPerChannel = 2;
  std::vector<ClubImage*> withWide = cam1;
  withWide[3] = &wide;
  TemplateRun bad = RunTemplate(recording, withWide, cam2, recording.setting);
  EXPECT_EQ(bad.speed, 0.0);
  EXPECT_TRUE(Contains(bad.log, "cannot be read"));
  ClubImage empty = *cam1[3];
  empty.pixels = nullptr;
  withWide[3] = &empty;
  bad = RunTemplate(recording, withWide, cam2, recording.setting);
  EXPECT_EQ(bad.speed, 0.0);

  // A null entry ends the pairing there.
  std::vector<ClubImage*> withNull = cam1;
  withNull[2] = nullptr;
  const TemplateRun cutShort = RunTemplate(recording, withNull, cam2, recording.setting);
  EXPECT_EQ(cutShort.speed, 0.0);
  EXPECT_TRUE(Contains(cutShort.log, "2 frame pairs before the impact"));
}

// ------------------------------------------------------- Find fall-back

TEST(FindbyTemplate, FindFallsBackToItWhenTheLinesGiveNoSpeed) {
  // The shaft as dark as the background: the line stage has only the head's
  // edges to go by and measures no speed, so Find asks for the speed again
  // and takes the template path's.
  const synth::Recording& recording = Rendered(DarkShaft(), "dark");
  std::vector<std::string> log;
  ClubTrackerSetting setting = recording.setting;
  setting.logCallback = CaptureLog;
  setting.logContext = &log;
  ClubTracker tracker(setting);
  ClubTrackerResult result;
  tracker.Find(Frames(recording, 0), Frames(recording, 1), result, 0);
  const auto again = std::find(log.begin(), log.end(), "Calculate clubspeed again.");
  ASSERT_NE(again, log.end());
  ASSERT_NE(again + 1, log.end());
  EXPECT_EQ((again + 1)->rfind("FindbyTemplate: head tracked in ", 0), 0u) << *(again + 1);

  const TemplateRun direct = RunTemplate(recording);
  ASSERT_GT(direct.speed, 0.0);
  EXPECT_EQ(result.clubHeadSpeed, direct.speed);
  const double error = ErrorPercent(result.clubHeadSpeed, recording.truth);
  std::printf("dark shaft through Find: %+.2f %%\n", error);
  EXPECT_LT(std::abs(error), 2.0);
}

// ------------------------------------------------- FindHeadAndCalculate

TEST(FindHeadAndCalculate, SpeedAboutTheTrueAxis) {
  const synth::Recording& recording = DefaultSwing();
  const synth::SwingTruth& truth = recording.truth;
  std::vector<std::string> log;
  ClubTrackerSetting setting = recording.setting;
  setting.logCallback = CaptureLog;
  setting.logContext = &log;
  ClubTracker tracker(setting);
  ClubTrackerResult result;
  for (int i = 0; i < 3; ++i) {
    result.axisPosition[i] = static_cast<float>(truth.pivot[i]);
    result.axisDirection[i] = static_cast<float>(truth.axis[i]);
  }
  ASSERT_EQ(ClubTrackerTestAccess::FindHeadAndCalculate(tracker, Frames(recording, 0),
                                                        Frames(recording, 1), result),
            1);
  const double error = ErrorPercent(result.clubHeadSpeed, truth);
  std::printf("about the true axis: %.3f m/s (%+.2f %%), radius %.1f for %.1f\n",
              result.clubHeadSpeed * 1000.0, error, result.headRadius, truth.headRadius);
  EXPECT_LT(std::abs(error), 1.5);
  EXPECT_NEAR(result.angularVelocity, truth.omega0, 0.015 * truth.omega0);
  EXPECT_NEAR(result.headRadius, truth.headRadius, 0.005 * truth.headRadius);

  // The summary line, with the speed in metres per second.
  ASSERT_EQ(log.size(), 1u);
  float p[3], n[3], angular = 0.0f, radius = 0.0f, mps = 0.0f;
  ASSERT_EQ(std::sscanf(log[0].c_str(),
                        "Axis pos: %f, %f, %f, norm: %f, %f, %f, AngVel: %f, Radius: %f, "
                        "ClubHeadSpeed: %f m/s",
                        &p[0], &p[1], &p[2], &n[0], &n[1], &n[2], &angular, &radius, &mps),
            9)
      << log[0];
  EXPECT_NEAR(p[1], result.axisPosition[1], 1e-3);
  EXPECT_NEAR(n[2], result.axisDirection[2], 1e-6);
  EXPECT_NEAR(radius, result.headRadius, 1e-3);
  EXPECT_NEAR(mps, result.clubHeadSpeed * 1000.0, 1e-3);
  EXPECT_NE(log[0].find(" m/s"), std::string::npos);
}

TEST(FindHeadAndCalculate, RefusesWithoutAnAxisOrAHead) {
  const synth::Recording& recording = DefaultSwing();
  std::vector<std::string> log;
  ClubTrackerSetting setting = recording.setting;
  setting.logCallback = CaptureLog;
  setting.logContext = &log;
  ClubTracker tracker(setting);
  ClubTrackerResult result;
  result.clubHeadSpeed = 7.0;
  EXPECT_EQ(ClubTrackerTestAccess::FindHeadAndCalculate(tracker, Frames(recording, 0),
                                                        Frames(recording, 1), result),
            0);
  EXPECT_EQ(result.clubHeadSpeed, 7.0);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "FindHeadAndCalculate: the result holds no spin axis.");

  log.clear();
  result.axisDirection[2] = 1.0f;
  EXPECT_EQ(ClubTrackerTestAccess::FindHeadAndCalculate(tracker, {}, {}, result), 0);
  EXPECT_EQ(result.clubHeadSpeed, 7.0);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "FindHeadAndCalculate: 0 frame pairs before the impact, at least 3 needed.");
}

}  // namespace
