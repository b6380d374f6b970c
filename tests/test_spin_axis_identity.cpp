// The optimised spin-axis search against the literal cv::Mat version, bit for bit.
#include <ostream>
#include <gtest/gtest.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
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
#include "support/find_stages.h"
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
  EXPECT_TRUE(SameBits(a.pivot, b.pivot));
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
      for (size_t k = 0; same && k < a.size(); ++k)
        same = a[k].frame == b[k].frame && SameBits(a[k].cam1Line, b[k].cam1Line) &&
               SameBits(a[k].cam2Line, b[k].cam2Line);
      differing += same ? 0 : 1;
    }
    EXPECT_EQ(differing, 0u) << "of " << axes.size() << " hypotheses";
  }
}

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
  SwingAnalysis candidates;
  ASSERT_TRUE(reference::ExtractLines(tracker, recording.Cam1(), recording.Cam2(), candidates))
      << "the analysis found too few line pairs";
  const double origin[3] = {0.0, 0.0, 0.0};
  Comparison c;
  ExpectIdentical(recording.setting, candidates.cand[0], candidates.cand[1], origin, c);
  EXPECT_GT(c.stats.hypotheses, 0u);
  EXPECT_EQ(c.optimised.found, 1);

  // Searches side by side on the workers (a thread waiting in one may take up
  // another): each keeps to its own storage and finds the same axis.
  std::vector<ClubSpinAxis3D> side(4);
  tbb::parallel_for(0, 4, [&](int i) {
    double point[3] = {0.0, 0.0, 0.0};
    SearchClubSpinAxis(recording.setting, point, candidates.cand[0], candidates.cand[1], side[i],
                       nullptr);
  });
  for (const ClubSpinAxis3D& axis : side) ExpectSameAxis(axis, c.optimised.axis);
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

class GoldenRecording : public ::testing::TestWithParam<const char*> {};

// Both versions agree on the golden recordings and match their diagnostics:
// presence pairs, head sizes, every line pass and the spin axis.
TEST_P(GoldenRecording, ExtractedLines) {
  if (Sanitized() && std::string(GetParam()) == "g01") GTEST_SKIP() << "one recording is enough";
  const std::filesystem::path dir = std::filesystem::path(CLUBTRACKER_GOLDEN_DIR) / GetParam();
  LoadedRecording recording;
  std::string error;
  ASSERT_TRUE(LoadRecording(dir, recording, &error)) << error;
  std::ifstream file(dir / "expected.json");
  const nlohmann::json expected = nlohmann::json::parse(file);
  const nlohmann::json& diag = expected["diagnostics"];
  const nlohmann::json& spin = diag["spinAxis"];

  ClubTracker tracker(recording.setting);
  SwingAnalysis candidates;
  size_t pass = 0;
  reference::AnalyseUpTo(tracker, recording.cam1, recording.cam2, SwingStage::kLinesDone,
                         candidates, [&](SwingStage stage, const SwingAnalysis& a) {
                           if (stage != SwingStage::kLinePass) return;
                           ASSERT_LT(pass, diag["passes"].size());
                           const nlohmann::json& want = diag["passes"][pass++];
                           for (int c = 0; c < 2; ++c) {
                             EXPECT_EQ(a.lineSize[c], want["lineSize"][c].get<float>()) << pass;
                             EXPECT_EQ(a.lineCount[c], want["lineCount"][c].get<int>()) << pass;
                           }
                           EXPECT_EQ(a.foundPair, want["foundPair"].get<int>()) << pass;
                         });
  EXPECT_EQ(pass, diag["passes"].size());
  EXPECT_EQ(candidates.bothPresent, diag["bothPresent"].get<int>());
  EXPECT_EQ(candidates.headValue[0], diag["headValues"][0].get<int>());
  EXPECT_EQ(candidates.headValue[1], diag["headValues"][1].get<int>());
  ASSERT_GE(candidates.foundPair, 3);
  const double origin[3] = {0.0, 0.0, 0.0};
  Comparison c;
  ExpectIdentical(recording.setting, candidates.cand[0], candidates.cand[1], origin, c);

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

  // The fast paths carry the work: a silent fall-back to the library calls
  // would still be identical, only slow.
  const MatRounding& rounding = MatRounding::Get();
  EXPECT_NE(rounding.dot3, MatRounding::Dot3::kLibrary);
  EXPECT_NE(rounding.dot4, MatRounding::Dot3::kLibrary);
  EXPECT_TRUE(rounding.gemmPlain && rounding.normPlain && JacobiSolveMatchesLibrary());
  EXPECT_GT(c.stats.pairsSurelyRejected, c.stats.evaluatedPairs / 2);
  EXPECT_EQ(c.stats.pairsSolvedByLibrary, 0u);
  EXPECT_GT(c.stats.refitsSurelyWorse, 0u);
  // Refits of more than kJacobiSolveMaxRows rows are the library's to solve.
  EXPECT_LT(c.stats.refitsSolvedByLibrary, c.stats.refits);
}

INSTANTIATE_TEST_SUITE_P(Golden, GoldenRecording, ::testing::Values("g01", "g02"));

// True shaft lines, repeated, with near copies and other lines mixed in.
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
        const uint32_t kind = rng() % 4;  // the true line, a near copy or another line
        if (kind < 2) {
          area->lines.push_back(line);
        } else if (kind == 2) {
          area->lines.push_back(cv::Vec2f(line[0] + std::round(unit(rng)),
                                          line[1] + 0.0174533f * std::round(unit(rng))));
        } else {
          area->lines.push_back(cv::Vec2f(line[0] + 40.0f * unit(rng), line[1] + 0.3f * unit(rng)));
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

}  // namespace
