// The per-camera analysis stages driven in pipeline order on whole recordings:
// the golden recordings (stage figures recorded with them) and the synthetic
// swing (ground truth of the club).
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "support/access.h"
#include "synth/swing.h"

namespace {

using Access = ClubTrackerTestAccess;

// Records of one camera as Find keeps them; freed on destruction.
struct CameraStages {
  std::vector<PreprocessedImage*> pre;
  std::vector<CandidateAreaImage*> cand;
  std::vector<cv::Mat> masks;
  std::vector<int> present;

  CameraStages() = default;
  CameraStages(const CameraStages&) = delete;
  CameraStages& operator=(const CameraStages&) = delete;
  ~CameraStages() {
    for (PreprocessedImage* p : pre) delete p;
    for (CandidateAreaImage* c : cand) delete c;
  }
};

// Preprocessing and candidate areas of one camera, then the presence test.
void RunToCandidates(ClubTracker& tracker, const std::vector<ClubImage*>& frames,
                     CameraStages& stages) {
  for (ClubImage* frame : frames) {
    stages.pre.push_back(new PreprocessedImage());
    Access::Preprocessing(tracker, frame, stages.pre.back());
  }
  ASSERT_EQ(Access::FindCandidateArea(tracker, stages.pre, stages.cand), 1);
  ASSERT_EQ(stages.cand.size(), frames.size());
  stages.masks.assign(stages.cand.size(), cv::Mat());
  stages.present.assign(stages.cand.size(), 0);
  for (size_t k = 0; k < stages.cand.size(); ++k) {
    RefineCandidateMask(stages.cand[k]->image, stages.masks[k], &stages.present[k]);
  }
}

int CountBothPresent(const CameraStages& cam1, const CameraStages& cam2) {
  int both = 0;
  for (size_t k = 0; k < cam1.present.size() && k < cam2.present.size(); ++k) {
    if (cam1.present[k] != 0 && cam2.present[k] != 0) ++both;
  }
  return both;
}

// The head size the driver takes from one camera's per-frame thicknesses.
int HeadValue(const std::vector<int>& sizes) {
  std::vector<int> positive;
  for (int s : sizes) {
    if (s > 0) positive.push_back(s);
  }
  if (positive.empty()) return 0;
  std::sort(positive.begin(), positive.end());
  return positive[(2 * positive.size()) / 3];
}

// Head sizes of both cameras when more than 10 frames show a blob in both,
// then the head disc painted out of every mask.
void MeasureAndDeleteHeads(ClubTracker& tracker, CameraStages& cam1, CameraStages& cam2,
                           int& head1, int& head2) {
  head1 = head2 = 0;
  if (CountBothPresent(cam1, cam2) > 10) {
    std::vector<int> sizes;
    MeasureHeadSizes(tracker, cam1.cand, cam1.masks, sizes);
    head1 = HeadValue(sizes);
    MeasureHeadSizes(tracker, cam2.cand, cam2.masks, sizes);
    head2 = HeadValue(sizes);
  }
  for (size_t k = 0; k < cam1.cand.size(); ++k) {
    Access::DeleteDriverHeadArea(tracker, cam1.cand[k], head1);
    Access::DeleteDriverHeadArea(tracker, cam2.cand[k], head2);
  }
}

// Lines of every frame of one camera at one divisor, in the driver's calling
// convention (before-impact frames share the first frame's threshold, after-
// impact frames the first positive after-impact threshold).
void ExtractLines(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& cand,
                  float divisor) {
  const int t0 = Access::GetLineThreshold(tracker, cand[0], divisor);
  int tAfter = 0;
  for (CandidateAreaImage* c : cand) {
    if (c->afterImpact == 1) {
      if (tAfter <= 0) tAfter = Access::GetLineThreshold(tracker, c, divisor);
      Access::ExtractCandidates(tracker, c, tAfter);
    } else {
      Access::ExtractCandidates(tracker, c, t0);
    }
  }
}

int LineCount(const std::vector<CandidateAreaImage*>& cand) {
  int count = 0;
  for (const CandidateAreaImage* c : cand) count += static_cast<int>(c->lines.size());
  return count;
}

int FoundPairs(const std::vector<CandidateAreaImage*>& a,
               const std::vector<CandidateAreaImage*>& b) {
  int pairs = 0;
  for (size_t k = 0; k < a.size(); ++k) {
    if (!a[k]->lines.empty() && !b[k]->lines.empty() && a[k]->afterImpact == 0 &&
        b[k]->afterImpact == 0) {
      ++pairs;
    }
  }
  return pairs;
}

// ---------------------------------------------------------------------------
// Golden recordings

struct GoldenCamera {
  std::vector<ClubImage> images;
  std::vector<std::vector<unsigned char>> pixels;

  std::vector<ClubImage*> Pointers() {
    std::vector<ClubImage*> out;
    for (ClubImage& image : images) out.push_back(&image);
    return out;
  }
};

int IniInt(const std::filesystem::path& file, const std::string& key, int fallback) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key + "=", 0) == 0) return std::atoi(line.c_str() + key.size() + 1);
  }
  return fallback;
}

// Frames of one camera folder in time-stamp order, metadata from the plain
// file-name layout, afterImpact from the impact index.
void LoadGoldenCamera(const std::filesystem::path& folder, int impactIndex, GoldenCamera& cam) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".png") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
    return std::stoull(a.filename().string()) < std::stoull(b.filename().string());
  });
  cam.images.resize(files.size());
  cam.pixels.resize(files.size());
  for (size_t k = 0; k < files.size(); ++k) {
    const cv::Mat grey = cv::imread(files[k].string(), cv::IMREAD_GRAYSCALE);
    ASSERT_FALSE(grey.empty()) << files[k];
    cam.pixels[k].assign(grey.datastart, grey.dataend);
    ClubImage& image = cam.images[k];
    image = ClubImage{};
    image.width = static_cast<uint32_t>(grey.cols);
    image.height = static_cast<uint32_t>(grey.rows);
    image.bytesPerChannel = 1;
    image.channels = 1;
    image.pixels = cam.pixels[k].data();
    const std::string name = files[k].filename().string();
    std::vector<std::string> tokens;
    size_t start = 0;
    for (size_t pos; (pos = name.find('_', start)) != std::string::npos; start = pos + 1) {
      tokens.push_back(name.substr(start, pos - start));
    }
    tokens.push_back(name.substr(start));
    ASSERT_GE(tokens.size(), 5u) << name;
    image.timeStamp = std::strtoull(tokens[0].c_str(), nullptr, 10);
    image.sensorOffsetX = std::atoi(tokens[1].c_str());
    image.sensorOffsetY = std::atoi(tokens[2].c_str());
    image.ballX = static_cast<float>(std::strtod(tokens[3].c_str(), nullptr));
    image.ballY = static_cast<float>(std::strtod(tokens[4].c_str(), nullptr));
    image.afterImpact = static_cast<int>(k) >= impactIndex ? 1 : 0;
  }
}

class GoldenStages : public ::testing::TestWithParam<const char*> {};

// The stage figures recorded with each golden recording come out the same:
// presence pairs, head sizes, and the line counts and pairs of every pass of
// the adaptive extraction.
TEST_P(GoldenStages, PresenceHeadSizesAndLineCountsOfEveryPass) {
  const std::filesystem::path dir = std::filesystem::path(CLUBTRACKER_GOLDEN_DIR) / GetParam();
  if (!std::filesystem::exists(dir / "expected.json")) GTEST_SKIP() << "no golden " << dir;
  nlohmann::json expected;
  std::ifstream(dir / "expected.json") >> expected;
  const nlohmann::json& diag = expected.at("diagnostics");

  const std::filesystem::path ini = dir / "run.ini";
  const int impactIndex = IniInt(ini, "ImpactIndex", 10);
  GoldenCamera master, slave;
  LoadGoldenCamera(dir / "Master", impactIndex, master);
  LoadGoldenCamera(dir / "Slave", impactIndex, slave);
  ASSERT_EQ(master.images.size(), slave.images.size());
  for (size_t k = 0; k < master.images.size(); ++k) {
    const int64_t d = static_cast<int64_t>(master.images[k].timeStamp - slave.images[k].timeStamp);
    ASSERT_LE(std::abs(d), 10) << "frames of the golden recording pair one to one";
  }

  ClubTracker tracker;
  tracker.setting.timeStampIntervalBeforeImpact = IniInt(ini, "TimeStampIntervalBeforeImpact", 2000);
  tracker.setting.timeStampIntervalAfterImpact = IniInt(ini, "TimeStampIntervalAfterImpact", 2000);
  CameraStages cam1, cam2;
  RunToCandidates(tracker, master.Pointers(), cam1);
  RunToCandidates(tracker, slave.Pointers(), cam2);
  EXPECT_EQ(CountBothPresent(cam1, cam2), diag.at("bothPresent").get<int>());

  int head1 = 0, head2 = 0;
  MeasureAndDeleteHeads(tracker, cam1, cam2, head1, head2);
  EXPECT_EQ(head1, diag.at("headValues")[0].get<int>());
  EXPECT_EQ(head2, diag.at("headValues")[1].get<int>());

  for (const nlohmann::json& pass : diag.at("passes")) {
    const float size1 = pass.at("lineSize")[0].get<float>();
    const float size2 = pass.at("lineSize")[1].get<float>();
    if (pass.at("redo")[0].get<int>() == 1) {
      for (CandidateAreaImage* c : cam1.cand) c->lines.clear();
      ExtractLines(tracker, cam1.cand, size1);
    }
    if (pass.at("redo")[1].get<int>() == 1) {
      for (CandidateAreaImage* c : cam2.cand) c->lines.clear();
      ExtractLines(tracker, cam2.cand, size2);
    }
    EXPECT_EQ(LineCount(cam1.cand), pass.at("lineCount")[0].get<int>()) << "divisor " << size1;
    EXPECT_EQ(LineCount(cam2.cand), pass.at("lineCount")[1].get<int>()) << "divisor " << size2;
    EXPECT_EQ(FoundPairs(cam1.cand, cam2.cand), pass.at("foundPair").get<int>());
  }
}

INSTANTIATE_TEST_SUITE_P(Recordings, GoldenStages, ::testing::Values("g01", "g02"));

// ---------------------------------------------------------------------------
// Synthetic swing (default scene: near cameras, 24 frames, impact at frame 10)

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

// Angle between two Hough directions, in degrees, modulo 180.
double AngleBetween(float theta1, float theta2) {
  double d = std::fabs(static_cast<double>(theta1) - theta2) * 180.0 / CV_PI;
  d = std::fmod(d, 180.0);
  return std::min(d, 180.0 - d);
}

// Signed distance of a full-sensor point from a Hough line.
double DistanceFromLine(const cv::Vec2f& line, const cv::Vec2d& point) {
  return point[0] * std::cos(line[1]) + point[1] * std::sin(line[1]) - line[0];
}

class SwingAnalysis : public ::testing::Test {
 protected:
  struct State {
    synth::Recording recording;
    ClubTracker tracker;
    CameraStages cams[2];
    std::vector<cv::Mat> masksBeforeHeadDeletion[2];
    int bothPresent = 0;
    int headValue[2] = {0, 0};
  };

  static void SetUpTestSuite() {
    state_ = new State();
    State& s = *state_;
    s.recording = synth::Render(synth::SwingScene{});
    s.tracker = ClubTracker(s.recording.setting);
    RunToCandidates(s.tracker, s.recording.Cam1(), s.cams[0]);
    RunToCandidates(s.tracker, s.recording.Cam2(), s.cams[1]);
    for (int c = 0; c < 2; ++c) {
      for (const CandidateAreaImage* cand : s.cams[c].cand) {
        s.masksBeforeHeadDeletion[c].push_back(cand->image.clone());
      }
    }
    s.bothPresent = CountBothPresent(s.cams[0], s.cams[1]);
    MeasureAndDeleteHeads(s.tracker, s.cams[0], s.cams[1], s.headValue[0], s.headValue[1]);
    for (int c = 0; c < 2; ++c) ExtractLines(s.tracker, s.cams[c].cand, 4.5f);
  }

  static void TearDownTestSuite() {
    delete state_;
    state_ = nullptr;
  }

  // Middle of the part of the shaft's axis that the camera's window shows, in
  // full-sensor pixels, and the shaft's projected radius there.
  static bool VisibleShaftPoint(int camera, double time, cv::Vec2d& point, double& radius) {
    const synth::SwingTruth& truth = state_->recording.truth;
    const synth::CameraModel& model = truth.cameras[camera];
    std::vector<double> inside;
    for (double d = truth.hoselDistance; d >= truth.gripDistance; d -= 2.0) {
      const cv::Vec2d p = model.ProjectToWindow(truth.ShaftPoint(time, d));
      if (p[0] >= 0 && p[1] >= 0 && p[0] < model.width && p[1] < model.height) inside.push_back(d);
    }
    if (inside.empty()) return false;
    const cv::Vec3d middle = truth.ShaftPoint(time, inside[inside.size() / 2]);
    point = model.Project(middle);
    const cv::Vec3d inCamera = model.R * middle + model.t;
    radius = model.K(0, 0) * truth.shaftRadius / inCamera[2];
    return true;
  }

  static State* state_;
};

SwingAnalysis::State* SwingAnalysis::state_ = nullptr;

TEST_F(SwingAnalysis, EveryBeforeImpactMaskHoldsTheProjectedClubHead) {
  const synth::SwingTruth& truth = state_->recording.truth;
  for (int c = 0; c < 2; ++c) {
    const synth::CameraModel& model = truth.cameras[c];
    for (int k = 0; k < truth.impactIndex; ++k) {
      SCOPED_TRACE(testing::Message() << "camera " << c + 1 << " frame " << k);
      const cv::Mat& mask = state_->masksBeforeHeadDeletion[c][k];
      ASSERT_EQ(state_->cams[c].cand[k]->afterImpact, 0u);
      EXPECT_GT(cv::countNonZero(mask), 0);
      const cv::Vec3d head = truth.HeadCentre(truth.FrameTime(c, k));
      const cv::Vec2d centre = model.ProjectToWindow(head);
      const cv::Point p(static_cast<int>(std::lround(centre[0])),
                        static_cast<int>(std::lround(centre[1])));
      if (p.inside(cv::Rect(0, 0, mask.cols, mask.rows))) {
        EXPECT_EQ(mask.at<uchar>(p), 255) << "at " << p;
      } else {
        // The head centre lies outside the window: the part of the head that
        // the window shows is in the mask.
        const double depth = (model.R * head + model.t)[2];
        const double semiAxis = std::min({truth.headSemiAxes[0], truth.headSemiAxes[1],
                                          truth.headSemiAxes[2]});
        const int radius = static_cast<int>(model.K(0, 0) * semiAxis / depth);
        cv::Mat disc = cv::Mat::zeros(mask.size(), CV_8UC1);
        cv::circle(disc, p, radius, cv::Scalar(255), cv::FILLED);
        EXPECT_GT(cv::countNonZero(disc & mask), 0) << "near " << p << " radius " << radius;
      }
    }
  }
}

TEST_F(SwingAnalysis, BlobInBothCamerasGivesPositiveHeadSizesAndCoresOnTheHead) {
  EXPECT_GT(state_->bothPresent, 10);
  EXPECT_GT(state_->headValue[0], 0);
  EXPECT_GT(state_->headValue[1], 0);
  const synth::SwingTruth& truth = state_->recording.truth;
  // The core is the thickest part of the refined mask. Where the blob runs
  // into the frame's edge the core drifts there (the constant border does not
  // erode); elsewhere it is the head.
  for (int c = 0; c < 2; ++c) {
    int onHead = 0;
    for (int k = 0; k < truth.impactIndex; ++k) {
      const cv::Vec2d centre =
          truth.cameras[c].ProjectToWindow(truth.HeadCentre(truth.FrameTime(c, k)));
      const CandidateAreaImage& cand = *state_->cams[c].cand[k];
      if (cv::norm(cv::Vec2d(cand.headX, cand.headY) - centre) < 20.0) ++onHead;
    }
    EXPECT_GE(onHead, truth.impactIndex / 2) << "camera " << c + 1;
  }
}

TEST_F(SwingAnalysis, StrongestLineFollowsAnEdgeOfTheShaftBeforeImpact) {
  const synth::SwingTruth& truth = state_->recording.truth;
  for (int c = 0; c < 2; ++c) {
    int onEdge = 0;
    for (int k = 0; k < truth.impactIndex; ++k) {
      const CandidateAreaImage& cand = *state_->cams[c].cand[k];
      if (cand.lines.empty()) continue;
      const double time = truth.FrameTime(c, k);
      cv::Vec2d point;
      double radius = 0.0;
      if (!VisibleShaftPoint(c, time, point, radius)) continue;
      const cv::Vec2f& strongest = cand.lines[0];
      const double angle = AngleBetween(strongest[1], truth.ShaftLine(c, time)[1]);
      const double offEdge = std::fabs(std::fabs(DistanceFromLine(strongest, point)) - radius);
      if (angle <= 2.0 && offEdge <= 4.0) ++onEdge;
      RecordProperty("camera" + std::to_string(c + 1) + "_frame" + std::to_string(k),
                     std::to_string(angle) + " deg, " + std::to_string(offEdge) + " px");
    }
    EXPECT_GE(onEdge, 8) << "camera " << c + 1;
  }
}

// The edge map computed once per frame gives, for every threshold the
// adaptive extraction can reach, the lines of the full extraction.
TEST_F(SwingAnalysis, CachedEdgeMapsGiveTheLinesOfRecomputing) {
  std::vector<float> divisors;
  const int steps = Sanitized() ? 3 : 10;
  float grow = 4.5f, shrink = 4.5f;
  for (int k = 0; k < steps; ++k) {
    divisors.push_back(grow);
    if (k > 0) divisors.push_back(shrink);
    grow = static_cast<float>(grow * 1.1);
    shrink = static_cast<float>(shrink - 0.2);
  }
  ClubTracker& tracker = state_->tracker;
  int compared = 0;
  for (int c = 0; c < 2; ++c) {
    for (const CandidateAreaImage* cand : state_->cams[c].cand) {
      cv::Mat edges;
      ComputeShaftEdges(cand->image, edges);
      for (float divisor : divisors) {
        CandidateAreaImage full, cached;
        full.image = cand->image;
        CopyMetadata(full, *cand);
        CopyMetadata(cached, *cand);
        const int threshold = Access::GetLineThreshold(tracker, &full, divisor);
        ASSERT_GT(threshold, 0);
        ASSERT_EQ(Access::ExtractCandidates(tracker, &full, threshold), 1);
        ASSERT_EQ(ExtractCandidatesFromEdges(&cached, edges, threshold), 1);
        ASSERT_EQ(full.lines, cached.lines) << "divisor " << divisor;
        compared += full.lines.empty() ? 0 : 1;
      }
    }
  }
  EXPECT_GT(compared, 0);
}

}  // namespace
