// The optimised spin-axis search against the literal cv::Mat version of it:
// the same hypotheses, inliers, ranking and refit, bit for bit, on the line
// candidates that the analysis stages extract from synthetic and golden
// recordings, and on projected true lines with duplicates and perturbations
// (ties everywhere).
#include <ostream>
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>
#include <opencv2/core.hpp>
#include <random>
#include <string>
#include <vector>

#include "analysis/analysis.h"
#include "harness/offline.h"
#include "reconstruction/plane_cache.h"
#include "reconstruction/plane_solve.h"
#include "reconstruction/spin_axis.h"
#include "support/access.h"
#include "support/reference_spin_axis.h"
#include "synth/swing.h"
#include "tracker/records.h"

namespace {

using Access = ClubTrackerTestAccess;

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

void CollectLog(std::wstring line, void* context) {
  static_cast<std::vector<std::string>*>(context)->push_back(std::string(line.begin(), line.end()));
}

template <typename T>
bool SameBits(const T& a, const T& b) {
  return std::memcmp(&a, &b, sizeof(T)) == 0;
}

// ---------------------------------------------------------------- the comparison

struct Outcome {
  int found = 0;
  std::vector<std::string> log;
  ClubSpinAxis3D axis;
  double referencePoint[3] = {0.0, 0.0, 0.0};
};

void ExpectSameAxis(const ClubSpinAxis3D& a, const ClubSpinAxis3D& b) {
  EXPECT_EQ(a.id, b.id);
  EXPECT_EQ(a.firstFrame, b.firstFrame);
  EXPECT_EQ(a.secondFrame, b.secondFrame);
  EXPECT_TRUE(SameBits(a.firstCam1Line, b.firstCam1Line));
  EXPECT_TRUE(SameBits(a.firstCam2Line, b.firstCam2Line));
  EXPECT_TRUE(SameBits(a.secondCam1Line, b.secondCam1Line));
  EXPECT_TRUE(SameBits(a.secondCam2Line, b.secondCam2Line));
  EXPECT_TRUE(SameBits(a.pivot, b.pivot))
      << a.pivot[0] << " " << a.pivot[1] << " " << a.pivot[2] << " vs " << b.pivot[0] << " "
      << b.pivot[1] << " " << b.pivot[2];
  EXPECT_TRUE(SameBits(a.fitResidual, b.fitResidual));
  ASSERT_EQ(a.inliers.size(), b.inliers.size());
  for (size_t i = 0; i < a.inliers.size(); ++i) {
    EXPECT_EQ(a.inliers[i].frame, b.inliers[i].frame);
    EXPECT_TRUE(SameBits(a.inliers[i].cam1Line, b.inliers[i].cam1Line)) << i;
    EXPECT_TRUE(SameBits(a.inliers[i].cam2Line, b.inliers[i].cam2Line)) << i;
  }
}

struct Comparison {
  SpinAxisSearchStats stats;
  reference::SpinAxisStats literal;
  Outcome optimised;
};

// Runs both versions from the same reference point and compares everything.
void ExpectIdentical(const ClubTrackerSetting& setting,
                     const std::vector<CandidateAreaImage*>& cam1,
                     const std::vector<CandidateAreaImage*>& cam2, const double* startPoint,
                     Comparison& c, bool checkInliers = true) {
  Outcome& optimised = c.optimised;
  ClubTracker tracker(setting);
  tracker.setting.logCallback = CollectLog;
  tracker.setting.logContext = &optimised.log;
  std::memcpy(tracker.referencePoint, startPoint, sizeof tracker.referencePoint);
  optimised.found = Access::FindClubSpinAxis(tracker, cam1, cam2, optimised.axis);
  std::memcpy(optimised.referencePoint, tracker.referencePoint, sizeof optimised.referencePoint);

  double searchPoint[3];
  std::memcpy(searchPoint, startPoint, sizeof searchPoint);
  ClubSpinAxis3D searched;
  SearchClubSpinAxis(setting, searchPoint, cam1, cam2, searched, &c.stats);

  Outcome literal;
  std::memcpy(literal.referencePoint, startPoint, sizeof literal.referencePoint);
  literal.found = reference::FindClubSpinAxis(setting, literal.referencePoint, &literal.log, cam1,
                                              cam2, literal.axis, &c.literal);

  EXPECT_EQ(optimised.found, literal.found);
  EXPECT_EQ(optimised.log, literal.log);
  EXPECT_TRUE(SameBits(optimised.referencePoint, literal.referencePoint));
  ExpectSameAxis(optimised.axis, literal.axis);
  ExpectSameAxis(searched, literal.axis);
  EXPECT_EQ(c.stats.linePairs, c.literal.linePairs);
  EXPECT_EQ(c.stats.evaluatedPairs, c.literal.evaluatedPairs);
  EXPECT_EQ(c.stats.hypotheses, c.literal.hypotheses);
  if (literal.found == 1) {
    EXPECT_TRUE(SameBits(c.stats.refitResidual, c.literal.refitResidual));
  }

  // The inlier stage on its own, over the whole ranked list.
  if (checkInliers && !c.literal.sorted.empty()) {
    std::vector<ClubSpinAxis3D> axes = c.literal.sorted;
    for (ClubSpinAxis3D& h : axes) h.inliers.clear();
    ClubTracker inlierTracker(setting);
    ASSERT_EQ(Access::SelectSpinAxisInliers(inlierTracker, cam1, cam2, axes), 1);
    size_t differing = 0;
    for (size_t i = 0; i < axes.size(); ++i) {
      const std::vector<SpinAxisInlier>& a = axes[i].inliers;
      const std::vector<SpinAxisInlier>& b = c.literal.sorted[i].inliers;
      bool same = a.size() == b.size();
      for (size_t k = 0; same && k < a.size(); ++k) {
        same = a[k].frame == b[k].frame && SameBits(a[k].cam1Line, b[k].cam1Line) &&
               SameBits(a[k].cam2Line, b[k].cam2Line);
      }
      if (!same) ++differing;
    }
    EXPECT_EQ(differing, 0u) << "of " << axes.size() << " hypotheses";
  }
}

// ---------------------------------------------------------------- rendered swings

struct SwingCase {
  const char* name;
  synth::SwingScene scene;
};

void PrintTo(const SwingCase& c, std::ostream* os) { *os << c.name; }

class RenderedSwing : public ::testing::TestWithParam<SwingCase> {};

TEST_P(RenderedSwing, ExtractedLines) {
  const SwingCase& param = GetParam();
  synth::Recording recording = synth::Render(param.scene);
  ClubTracker tracker(recording.setting);
  reference::Candidates candidates;
  ASSERT_TRUE(reference::ExtractLines(tracker, recording.Cam1(), recording.Cam2(), candidates))
      << "the analysis found too few line pairs";
  const double origin[3] = {0.0, 0.0, 0.0};
  Comparison c;
  ExpectIdentical(recording.setting, candidates.cam1, candidates.cam2, origin, c);
  EXPECT_GT(c.stats.hypotheses, 0u);
  EXPECT_EQ(c.optimised.found, 1);
  RecordProperty("linePairs", std::to_string(c.stats.linePairs));
  RecordProperty("hypotheses", std::to_string(c.stats.hypotheses));
}

std::vector<SwingCase> Swings() {
  synth::SwingScene near;
  near.frames = Sanitized() ? 14 : 24;
  near.impactIndex = Sanitized() ? 7 : 10;
  if (Sanitized()) return {{"Near", near}};
  synth::SwingScene far;
  far.placement = synth::Placement::kFar;
  far.seed = 5;
  far.frames = 18;
  far.impactIndex = 9;
  far.fps = 3000.0;
  return {{"Near", near}, {"Far", far}};
}

INSTANTIATE_TEST_SUITE_P(Swings, RenderedSwing, ::testing::ValuesIn(Swings()),
                         [](const ::testing::TestParamInfo<SwingCase>& info) {
                           return std::string(info.param.name);
                         });

// ---------------------------------------------------------------- golden recordings

class GoldenRecording : public ::testing::TestWithParam<const char*> {};

// The golden recordings' lines, extracted as Find extracts them: both
// versions agree, and the search matches what the recording's diagnostics
// hold of it.
TEST_P(GoldenRecording, ExtractedLines) {
  if (Sanitized() && std::string(GetParam()) == "g01") GTEST_SKIP() << "one recording is enough";
  const std::filesystem::path dir = std::filesystem::path(CLUBTRACKER_GOLDEN_DIR) / GetParam();
  LoadedRecording recording;
  std::string error;
  ASSERT_TRUE(LoadRecording(dir, recording, &error)) << error;
  std::ifstream file(dir / "expected.json");
  const nlohmann::json expected = nlohmann::json::parse(file);
  const nlohmann::json& spin = expected["diagnostics"]["spinAxis"];

  ClubTracker tracker(recording.setting);
  reference::Candidates candidates;
  ASSERT_TRUE(reference::ExtractLines(tracker, recording.cam1, recording.cam2, candidates));
  EXPECT_EQ(candidates.passes, static_cast<int>(expected["diagnostics"]["passes"].size()));
  const double origin[3] = {0.0, 0.0, 0.0};
  Comparison c;
  ExpectIdentical(recording.setting, candidates.cam1, candidates.cam2, origin, c);

  EXPECT_EQ(c.stats.linePairs, spin["linePairs"].get<uint64_t>());
  EXPECT_EQ(c.stats.evaluatedPairs, spin["evaluatedPairs"].get<uint64_t>());
  EXPECT_EQ(c.stats.hypotheses, spin["hypotheses"].get<uint64_t>());
  const ClubSpinAxis3D& axis = c.optimised.axis;
  EXPECT_EQ(axis.firstFrame, spin["firstFrame"].get<int>());
  EXPECT_EQ(axis.secondFrame, spin["secondFrame"].get<int>());
  std::vector<int> frames;
  for (const SpinAxisInlier& in : axis.inliers) frames.push_back(in.frame);
  EXPECT_EQ(frames, spin["inlierFrames"].get<std::vector<int>>());
  for (int i = 0; i < 3; ++i) {
    const double want = spin["pivot"][i].get<double>();
    EXPECT_NEAR(axis.pivot[i], want, 1e-6 * std::max(1.0, std::abs(want))) << i;
    EXPECT_NEAR(c.optimised.referencePoint[i], expected["referencePoint"][i].get<double>(), 1e-3);
  }
  EXPECT_NEAR(axis.fitResidual, spin["fitResidual"].get<double>(), 1e-9);
  EXPECT_NEAR(c.stats.refitResidual, spin["refitResidual"].get<double>(), 1e-9);
}

INSTANTIATE_TEST_SUITE_P(Golden, GoldenRecording, ::testing::Values("g01", "g02"));

// ---------------------------------------------------------------- projected lines with ties

// Every frame's true shaft line in both cameras, repeated and joined by
// slightly moved copies in a shuffled order; some frames lose their lines.
struct TiedSwing {
  synth::SwingTruth truth;
  ClubTrackerSetting setting{};
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  std::vector<CandidateAreaImage*> cam1;
  std::vector<CandidateAreaImage*> cam2;
};

std::unique_ptr<TiedSwing> MakeTiedSwing(uint64_t seed, int frames, int maxLines) {
  auto swing = std::make_unique<TiedSwing>();
  synth::SwingScene scene = synth::SwingScene::Varied(seed);
  scene.frames = frames;
  scene.impactIndex = frames / 2;
  swing->truth = synth::MakeTruth(scene);
  swing->setting = synth::MakeSetting(swing->truth);
  std::mt19937 rng(static_cast<uint32_t>(seed));
  std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
  const synth::SwingTruth& truth = swing->truth;
  for (int i = 0; i < frames; ++i) {
    for (int c = 0; c < 2; ++c) {
      CandidateAreaImage* area = reference::AddTruthArea(truth, c, i, swing->owned);
      const cv::Vec2f line = truth.ShaftLine(c, truth.FrameTime(c, i));
      const int count = static_cast<int>(rng() % static_cast<uint32_t>(maxLines + 1));
      for (int k = 0; k < count; ++k) {
        switch (rng() % 4) {
          case 0:
          case 1:  // the true line itself, often more than once
            area->lines.push_back(line);
            break;
          case 2:  // a near copy, one Hough cell away
            area->lines.push_back(cv::Vec2f(line[0] + std::round(unit(rng)),
                                            line[1] + 0.0174533f * std::round(unit(rng))));
            break;
          default:  // something else in the frame
            area->lines.push_back(
                cv::Vec2f(line[0] + 40.0f * unit(rng), line[1] + 0.3f * unit(rng)));
            break;
        }
      }
      (c == 0 ? swing->cam1 : swing->cam2).push_back(area);
    }
  }
  // A frame with the same lines as its neighbour, as still frames give.
  for (int c = 0; c < 2; ++c) {
    std::vector<CandidateAreaImage*>& list = c == 0 ? swing->cam1 : swing->cam2;
    if (frames > 3) list[2]->lines = list[1]->lines;
  }
  return swing;
}

class TiedLines : public ::testing::TestWithParam<int> {};

TEST_P(TiedLines, ProjectedLinesWithDuplicates) {
  const int seed = GetParam();
  const std::unique_ptr<TiedSwing> swing = MakeTiedSwing(seed, Sanitized() ? 8 : 12, 4);
  const double origin[3] = {0.0, 0.0, 0.0};
  Comparison c;
  ExpectIdentical(swing->setting, swing->cam1, swing->cam2, origin, c);
  // And again from the reference point the first search left.
  Comparison again;
  ExpectIdentical(swing->setting, swing->cam1, swing->cam2, c.optimised.referencePoint, again,
                  false);
}

INSTANTIATE_TEST_SUITE_P(Seeds, TiedLines, ::testing::Range(1, Sanitized() ? 3 : 9));

// Only the first of two batches is evaluated; the second re-collects slot 0.
TEST(Batches, SecondBatchAgrees) {
  if (Sanitized()) GTEST_SKIP() << "a quarter of a million literal pairs";
  const synth::SwingTruth truth = synth::MakeTruth(synth::SwingScene());
  const ClubTrackerSetting setting = synth::MakeSetting(truth);
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  std::vector<CandidateAreaImage*> lists[2];
  const int counts[2][2] = {{5, 13}, {37, 109}};  // 262145 pairs
  for (int f = 0; f < 2; ++f) {
    for (int c = 0; c < 2; ++c) {
      CandidateAreaImage* area = reference::AddTruthArea(truth, c, f, owned);
      const cv::Vec2f line = truth.ShaftLine(c, truth.FrameTime(c, 3 + 4 * f));
      for (int k = 0; k < counts[c][f]; ++k) {
        // Lines alternate between the true one and a copy a pixel away.
        area->lines.push_back(k % 3 == 2 ? cv::Vec2f(line[0] + 1.0f, line[1]) : line);
      }
      lists[c].push_back(area);
    }
  }
  const double origin[3] = {0.0, 0.0, 0.0};
  Comparison c;
  ExpectIdentical(setting, lists[0], lists[1], origin, c, false);
  EXPECT_EQ(c.stats.linePairs, 262145u);
  EXPECT_EQ(c.stats.evaluatedPairs, 262144u);
}

// The probe finds the rounding of this build's matrix products, so that the
// hand-written inner loops are used rather than the library calls.
TEST(MatRounding, KnownFormulasOnThisMachine) {
  const MatRounding& rounding = MatRounding::Get();
  EXPECT_NE(rounding.dot3, MatRounding::Dot3::kLibrary);
  EXPECT_TRUE(rounding.gemmPlain);
  EXPECT_TRUE(rounding.normPlain);
  // And the hand-written forms equal the library on fresh values.
  std::mt19937_64 rng(7);
  std::uniform_real_distribution<double> u(-3000.0, 3000.0);
  for (int i = 0; i < 20000; ++i) {
    double a[12];
    double x[3];
    double d[4];
    for (double& v : a) v = u(rng) / 3000.0;
    for (double& v : x) v = u(rng);
    for (double& v : d) v = u(rng);
    const cv::Mat ma(4, 3, CV_64F, a);
    const cv::Mat mx(3, 1, CV_64F, x);
    const cv::Mat md(4, 1, CV_64F, d);
    const cv::Mat row(3, 1, CV_64F, a);
    ASSERT_TRUE(SameBits(Dot3(rounding, a, x), row.dot(mx)));
    ASSERT_TRUE(SameBits(Norm3(rounding, x), cv::norm(mx)));
    double r[4];
    PlaneResiduals(rounding, a, x, d, r, 4);
    const cv::Mat expected = ma * mx - md;
    for (int k = 0; k < 4; ++k) ASSERT_TRUE(SameBits(r[k], expected.at<double>(k)));
  }
}

class JacobiSolve : public ::testing::TestWithParam<int> {};

// The hand-written least squares gives cv::solve(DECOMP_SVD)'s bits for every
// size the library solves with its own Jacobi SVD, on regular systems and on
// the degenerate ones the search meets: repeated planes (consecutive frames
// with the same lines), two repeated pairs (rank two), opposite and nearly
// parallel planes.
TEST_P(JacobiSolve, MatchesTheLibrary) {
  const int rows = GetParam();
  ASSERT_TRUE(JacobiSolveMatchesLibrary());
  std::mt19937_64 rng(static_cast<uint64_t>(rows));
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const int samples = Sanitized() ? 2000 : (rows == 4 ? 300000 : 20000);
  int solved = 0;
  for (int sample = 0; sample < samples; ++sample) {
    double a[kJacobiSolveMaxRows * 3];
    double d[kJacobiSolveMaxRows];
    const int kind = sample % 6;
    for (int r = 0; r < rows; ++r) {
      double v[3];
      for (int c = 0; c < 3; ++c) {
        v[c] = (kind == 4 && r > 0 ? a[c] : 0.0) + (kind == 4 ? 0.02 : 1.0) * u(rng);
      }
      const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      for (int c = 0; c < 3; ++c) a[3 * r + c] = v[c] / length;
      d[r] = 3000.0 * u(rng);
    }
    if (kind == 1) {
      std::memcpy(a + 3, a, 3 * sizeof(double));
      d[1] = d[0];
    } else if (kind == 2 && rows >= 4) {
      std::memcpy(a + 3, a, 3 * sizeof(double));
      std::memcpy(a + 9, a + 6, 3 * sizeof(double));
      d[1] = d[0];
      d[3] = d[2];
    } else if (kind == 3) {
      for (int c = 0; c < 3; ++c) a[3 + c] = -a[c];
      d[1] = -d[0] + 0.5;
    } else if (kind == 5) {
      for (int r = 1; r < rows; ++r) std::memcpy(a + 3 * r, a, 3 * sizeof(double));
    }
    double x[3];
    if (!SolvePlanesJacobi(a, d, rows, x)) continue;
    ++solved;
    const cv::Mat ma(rows, 3, CV_64F, a);
    const cv::Mat md(rows, 1, CV_64F, d);
    const cv::Mat expected = ma.inv(cv::DECOMP_SVD) * md;
    ASSERT_TRUE(SameBits(x[0], expected.at<double>(0)) && SameBits(x[1], expected.at<double>(1)) &&
                SameBits(x[2], expected.at<double>(2)))
        << "sample " << sample << " kind " << kind;
  }
  EXPECT_EQ(solved, samples);
}

INSTANTIATE_TEST_SUITE_P(Rows, JacobiSolve, ::testing::Range(3, kJacobiSolveMaxRows + 1));

// Systems the library hands elsewhere are left to it.
TEST(JacobiSolveLimits, RefusesWhatItDoesNotReproduce) {
  double a[30 * 3];
  double d[30];
  for (int i = 0; i < 30; ++i) {
    a[3 * i] = 1.0;
    a[3 * i + 1] = 0.5 * i;
    a[3 * i + 2] = 0.25 * i * i;
    d[i] = i;
  }
  double x[3] = {7.0, 7.0, 7.0};
  EXPECT_FALSE(SolvePlanesJacobi(a, d, kJacobiSolveMaxRows + 1, x));
  EXPECT_FALSE(SolvePlanesJacobi(a, d, 2, x));
  EXPECT_TRUE(SolvePlanesJacobi(a, d, kJacobiSolveMaxRows, x));
  a[4] = std::numeric_limits<double>::quiet_NaN();
  x[0] = 7.0;
  EXPECT_FALSE(SolvePlanesJacobi(a, d, 4, x));
  EXPECT_EQ(x[0], 7.0);
  const double zero[12] = {};
  EXPECT_TRUE(SolvePlanesJacobi(zero, d, 4, x));  // every singular value dropped
  EXPECT_EQ(x[0], 0.0);
}

// The quick rejection of four-plane systems only ever rejects pairs that the
// exact evaluation rejects too, even for points a few hundredths of a
// millimetre from a bound and residuals close to the limit.
TEST(PairPrefilter, RejectsOnlyWhatTheExactEvaluationRejects) {
  std::mt19937_64 rng(99);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const PairWindows windows{10.0, 700.0, 2000.0, 700.0, 2800.0};
  const double reference[3] = {0.25, 21.35, -0.5};
  const int samples = Sanitized() ? 20000 : 150000;
  int quick = 0;
  int exactRejects = 0;
  for (int sample = 0; sample < samples; ++sample) {
    // A point near a bound of one of the windows, or anywhere.
    double p[3] = {400.0 * u(rng), 0.0, 400.0 * u(rng)};
    const double near = 0.05 * u(rng);
    switch (sample % 5) {
      case 0:
        p[1] = 700.0 + near;
        p[0] = 5.0 * u(rng);
        p[2] = 5.0 * u(rng);
        break;
      case 1:
        p[1] = 2000.0 + near;
        break;
      case 2: {
        p[1] = 1500.0;
        const double scale = (2800.0 + near) / std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
        for (double& v : p) v *= scale;
        break;
      }
      case 3:
        p[1] = 2500.0 * u(rng);
        break;
      default:
        for (double& v : p) v = 5000.0 * u(rng);
        break;
    }
    for (int i = 0; i < 3; ++i) p[i] += reference[i];
    // Four planes through it, some nearly parallel, offsets with noise that
    // puts the residual around its limit.
    double a[12];
    double d[4];
    const double spread = sample % 7 == 0 ? 0.05 : 1.0;
    const double base[3] = {u(rng), u(rng), u(rng)};
    const double noise = std::abs(4.5 * u(rng));
    for (int r = 0; r < 4; ++r) {
      double v[3];
      for (int c = 0; c < 3; ++c) v[c] = base[c] + spread * u(rng);
      const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      const cv::Mat n = (cv::Mat_<double>(3, 1) << v[0] / length, v[1] / length, v[2] / length);
      for (int c = 0; c < 3; ++c) a[3 * r + c] = n.at<double>(c);
      d[r] = n.dot(cv::Mat(3, 1, CV_64F, p)) + noise * u(rng);
    }
    // The decision of the literal evaluation.
    const cv::Mat ma(4, 3, CV_64F, a);
    const cv::Mat md(4, 1, CV_64F, d);
    const cv::Mat x = ma.inv(cv::DECOMP_SVD) * md;
    const cv::Mat r = ma * x - md;
    const double residual = r.dot(r) / 4;
    const double along = std::abs(x.at<double>(1) - reference[1]);
    const double distance = cv::norm(x - cv::Mat(3, 1, CV_64F, const_cast<double*>(reference)));
    const bool rejected =
        residual > 10.0 || along < 700.0 || along > 2000.0 || distance < 700.0 || distance > 2800.0;
    exactRejects += rejected ? 1 : 0;
    if (PairSurelyRejected(a, d, reference, 1, windows)) {
      ++quick;
      ASSERT_TRUE(rejected) << "sample " << sample << " residual " << residual << " along " << along
                            << " distance " << distance;
    }
  }
  // It does take most of the work away.
  EXPECT_GT(quick, exactRejects * 3 / 4);
}

// The refit's lower bound never claims more than the exact residual gives.
TEST(RefitBound, NeverAboveTheExactResidual) {
  std::mt19937_64 rng(17);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const int samples = Sanitized() ? 5000 : 60000;
  int claimed = 0;
  for (int sample = 0; sample < samples; ++sample) {
    const int rows = 4 + 2 * (sample % 21);  // 4 .. 44: both solvers of the library
    std::vector<double> a(3 * rows);
    std::vector<double> d(rows);
    const double p[3] = {300.0 * u(rng), 1000.0 + 500.0 * u(rng), 600.0 * u(rng)};
    const double noise = std::abs(3.0 * u(rng));
    const double spread = sample % 5 == 0 ? 0.03 : 1.0;
    const double base[3] = {u(rng), u(rng), u(rng)};
    for (int r = 0; r < rows; ++r) {
      double v[3];
      for (int c = 0; c < 3; ++c) v[c] = base[c] + spread * u(rng);
      const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      cv::Mat n = (cv::Mat_<double>(3, 1) << v[0] / length, v[1] / length, v[2] / length);
      n = n * (1.0 / cv::norm(n));
      for (int c = 0; c < 3; ++c) a[3 * r + c] = n.at<double>(c);
      d[r] = n.dot(cv::Mat(3, 1, CV_64F, const_cast<double*>(p))) + noise * u(rng);
    }
    const cv::Mat ma(rows, 3, CV_64F, a.data());
    const cv::Mat md(rows, 1, CV_64F, d.data());
    const cv::Mat x = ma.inv(cv::DECOMP_SVD) * md;
    const cv::Mat r = ma * x - md;
    const double residual = r.dot(r) / r.rows;
    // Bounds just below, at and above the residual.
    for (const double bound :
         {residual * 0.5, residual - 1e-3, residual, residual + 1e-9, residual * 1.01}) {
      if (ResidualSurelyAtLeast(a.data(), d.data(), rows, bound)) {
        ++claimed;
        ASSERT_GE(residual, bound) << "rows " << rows << " sample " << sample;
      }
    }
  }
  EXPECT_GT(claimed, samples / 2);
}

// The planes' distances as the inlier scan forms them, against the literal
// distance of every plane, for runs of every length.
TEST(PlaneDistances, MatchTheLiteralDistances) {
  const PlaneDistancesFn distances = SelectPlaneDistances(MatRounding::Get());
  std::mt19937_64 rng(3);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int sample = 0; sample < 20000; ++sample) {
    const int count = sample % 11;
    std::vector<double> nx(count), ny(count), nz(count), offset(count), length(count);
    const cv::Mat center = (cv::Mat_<double>(3, 1) << 500.0 * u(rng), 800.0 * u(rng), 3000.0);
    for (int k = 0; k < count; ++k) {
      cv::Mat n = (cv::Mat_<double>(3, 1) << u(rng), u(rng), u(rng));
      n.convertTo(n, -1, 1.0 / std::sqrt(n.dot(n)), 0.0);
      nx[k] = n.at<double>(0);
      ny[k] = n.at<double>(1);
      nz[k] = n.at<double>(2);
      offset[k] = n.dot(center);
      length[k] = std::sqrt(n.dot(n));
    }
    double x[3] = {300.0 * u(rng), 1000.0 + 300.0 * u(rng), 700.0 * u(rng)};
    const cv::Mat mx(3, 1, CV_64F, x);
    const PlaneColumns columns{nx.data(), ny.data(), nz.data(), offset.data(), length.data()};
    std::vector<double> got(count + 1, -1.0);
    distances(columns, count, x, got.data());
    for (int k = 0; k < count; ++k) {
      const cv::Mat n = (cv::Mat_<double>(3, 1) << nx[k], ny[k], nz[k]);
      const double want = std::abs((n.dot(mx) - n.dot(center)) / std::sqrt(n.dot(n)));
      ASSERT_TRUE(SameBits(got[k], want)) << "sample " << sample << " plane " << k;
    }
    ASSERT_EQ(got[count], -1.0);
  }
}

}  // namespace
