// The spin-axis search's rules on synthetic line sets: exact reconstruction,
// the eight-chunk batching, the acceptance window, the inlier test (strictly
// below 10, ties, own frames) and the refit's early stop.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <opencv2/core.hpp>
#include <random>
#include <string>
#include <vector>

#include "reconstruction/plane_cache.h"
#include "reconstruction/pair_bounds.h"
#include "reconstruction/plane_solve.h"
#include "reconstruction/ranking.h"
#include "reconstruction/spin_axis.h"
#include "support/access.h"
#include "support/find_stages.h"
#include "support/reference_spin_axis.h"
#include "synth/swing.h"
#include "tracker/records.h"

namespace {

using Access = ClubTrackerTestAccess;
using Lines = std::vector<cv::Vec2f>;
using Log = std::vector<std::string>;

void CollectLog(std::wstring line, void* context) {
  static_cast<Log*>(context)->push_back(std::string(line.begin(), line.end()));
}

struct Areas {
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  std::vector<CandidateAreaImage*> cam[2];
  // A frame of camera c (0 or 1) with the synthetic swing's window and ball,
  // never after the impact.
  CandidateAreaImage* Add(const synth::SwingTruth& truth, int c, Lines lines) {
    cam[c].push_back(reference::AddTruthArea(truth, c, 0, owned));
    cam[c].back()->lines = std::move(lines);
    return cam[c].back();
  }
  // A bare 100-row frame at the sensor's origin.
  void AddPlain(int c, Lines lines) {
    owned.push_back(std::make_unique<CandidateAreaImage>());
    owned.back()->image = cv::Mat::zeros(100, 4, CV_8UC1);
    owned.back()->lines = std::move(lines);
    cam[c].push_back(owned.back().get());
  }
};

struct Search {
  Log log;
  ClubTracker tracker;
  ClubSpinAxis3D axis;
  int found = 0;
  Search(const ClubTrackerSetting& setting, const Areas& areas, const double* reference = nullptr)
      : tracker(setting) {
    tracker.setting.logCallback = CollectLog;
    tracker.setting.logContext = &log;
    if (reference != nullptr) std::memcpy(tracker.referencePoint, reference, 3 * sizeof(double));
    found = Access::FindClubSpinAxis(tracker, areas.cam[0], areas.cam[1], axis);
  }
};

const synth::SwingTruth& DefaultTruth() {
  static const synth::SwingTruth truth = synth::MakeTruth(synth::SwingScene());
  return truth;
}

double Distance(const double* p, const cv::Vec3d& q) { return cv::norm(cv::Vec3d(p) - q); }

std::vector<SpinAxisInlier> FirstLines(const Areas& areas, int from, int to) {
  std::vector<SpinAxisInlier> inliers;
  for (int j = from; j < to; ++j)
    inliers.push_back({j, areas.cam[0][j]->lines[0], areas.cam[1][j]->lines[0]});
  return inliers;
}

// Least-squares pivot of the inliers' planes, camera 1's rows first, formed
// as the search forms it (the refit normalises each plane once more);
// returns the mean squared residual.
double LiteralSolve(const ClubTrackerSetting& setting, const Areas& areas,
                    const std::vector<SpinAxisInlier>& inliers, bool refit, cv::Vec3d& pivot) {
  const reference::Camera cams[2] = {
      reference::MakeCamera(setting.cam1Intrinsic, setting.cam1Extrinsic),
      reference::MakeCamera(setting.cam2Intrinsic, setting.cam2Extrinsic)};
  const int m = static_cast<int>(inliers.size());
  cv::Mat a(2 * m, 3, CV_64F);
  cv::Mat d(2 * m, 1, CV_64F);
  for (int k = 0; k < 2 * m; ++k) {
    const int c = k < m ? 0 : 1;
    const SpinAxisInlier& in = inliers[k % m];
    cv::Mat n;
    reference::ImageLineToPlane(n, areas.cam[c], in.frame, c == 0 ? in.cam1Line : in.cam2Line,
                                cams[c].rayMatrix);
    if (refit) n = n * (1.0 / cv::norm(n));
    for (int col = 0; col < 3; ++col) a.at<double>(k, col) = n.at<double>(col);
    d.at<double>(k) = n.dot(cams[c].center);
  }
  const cv::Mat x = a.inv(cv::DECOMP_SVD) * d;
  const cv::Mat r = a * x - d;
  pivot = cv::Vec3d(x.at<double>(0), x.at<double>(1), x.at<double>(2));
  return r.dot(r) / r.rows;
}

// The true shaft line of every frame in both cameras, the ball in every frame.
TEST(SpinAxis, ExactReconstructionWithinOneMillimetre) {
  for (const int seed : {0, 3, 11, 27, 40}) {
    SCOPED_TRACE(seed);
    const synth::SwingTruth truth =
        synth::MakeTruth(seed == 0 ? synth::SwingScene() : synth::SwingScene::Varied(seed));
    Areas areas;
    const int frames =
        static_cast<int>(std::min(truth.timeStamps[0].size(), truth.timeStamps[1].size()));
    for (int i = 0; i < frames; ++i) {
      for (int c = 0; c < 2; ++c) {
        areas.cam[c].push_back(reference::AddTruthArea(truth, c, i, areas.owned));
        areas.cam[c].back()->lines.push_back(truth.ShaftLine(c, truth.FrameTime(c, i)));
      }
    }
    const ClubTrackerSetting setting = synth::MakeSetting(truth);
    const Search run(setting, areas);
    ASSERT_EQ(run.found, 1);
    EXPECT_EQ(run.log, (Log{"FindClubSpinAxis start", "FindClubSpinAxis end."}));
    EXPECT_LT(Distance(run.axis.pivot, truth.pivot), 1.0);
    EXPECT_LT(Distance(run.tracker.referencePoint, truth.ball), 1.0);
    EXPECT_EQ(run.axis.inliers.size(), static_cast<size_t>(frames));
    EXPECT_LT(run.axis.firstFrame, run.axis.secondFrame);

    if (seed != 0) continue;
    areas.cam[1].pop_back();  // lists of different lengths: only the start is logged
    const Search unequal(setting, areas);
    EXPECT_EQ(unequal.found, 0);
    EXPECT_EQ(unequal.log, Log{"FindClubSpinAxis start"});
    EXPECT_EQ(unequal.tracker.referencePoint[1], 0.0);
  }
}

// Frames 4 and 8 of the default swing with their true lines repeated the
// given number of times: every line pair gives the same pivot.
Areas RepeatedPair(int cam1First, int cam1Second, int cam2First, int cam2Second) {
  const synth::SwingTruth& truth = DefaultTruth();
  const int counts[2][2] = {{cam1First, cam1Second}, {cam2First, cam2Second}};
  Areas areas;
  for (int f = 0; f < 2; ++f) {
    for (int c = 0; c < 2; ++c)
      areas.Add(truth, c, Lines(counts[c][f], truth.ShaftLine(c, truth.FrameTime(c, 4 + 4 * f))));
  }
  return areas;
}

// The ranking is std::sort's order: distinct keys (radix path), shared keys
// and NaN magnitudes (the library's own sort decides), huge inlier counts.
TEST(SpinAxis, RankingIsTheLibrarysSort) {
  std::mt19937 rng(7);
  RankScratch scratch;
  for (const int n : {0, 1, 2, 17, 3000}) {
    for (int kind = 0; kind < 4; ++kind) {
      SCOPED_TRACE(testing::Message() << n << " entries, kind " << kind);
      std::vector<SortEntry> list;
      for (int i = 0; i < n; ++i) {
        const uint32_t inliers = kind == 3 ? static_cast<uint32_t>(rng()) : rng() % 12;
        double magnitude = std::ldexp(static_cast<double>(rng()), -static_cast<int>(rng() % 40));
        if (i == 1) magnitude = kind == 1 ? 0.0 : INFINITY;
        if (kind == 1 && i % 7 == 3) magnitude = list[i / 2].magnitude;  // shared keys
        if (kind == 2 && i == n / 2) magnitude = NAN;
        list.push_back(SortEntry{inliers, i, i, magnitude});
      }
      std::vector<SortEntry> expected = list;
      std::sort(expected.begin(), expected.end(), RanksBefore);
      RankHypotheses(list, scratch);
      ASSERT_EQ(list.size(), expected.size());
      for (size_t i = 0; i < list.size(); ++i) ASSERT_EQ(list[i].position, expected[i].position);
    }
  }
}

// Pairs are evaluated in eight chunks of count / 8: the rest is dropped.
TEST(SpinAxis, PairsEvaluatedInEightChunks) {
  for (const int pairs : {1, 7, 8, 9}) {
    SCOPED_TRACE(pairs);
    const Areas areas = RepeatedPair(1, pairs, 1, 1);
    ClubSpinAxis3D axis;
    SpinAxisSearchStats stats;
    double reference[3] = {0.0, 0.0, 0.0};
    SearchClubSpinAxis(synth::MakeSetting(DefaultTruth()), reference, areas.cam[0], areas.cam[1],
                       axis, &stats);
    EXPECT_EQ(stats.linePairs, static_cast<uint64_t>(pairs));
    EXPECT_EQ(stats.evaluatedPairs, static_cast<uint64_t>(pairs / 8 * 8));
    EXPECT_LT(Distance(reference, DefaultTruth().ball), 1.0);
    EXPECT_EQ(stats.hypotheses, pairs < 8 ? 0u : 8u);
    if (pairs < 8) {
      EXPECT_EQ(axis.pivot[0], 0.0);
    } else {
      EXPECT_LT(Distance(axis.pivot, DefaultTruth().pivot), 1.0);
    }
  }
}

// The pivot's distance from the reference point along axisIndex must lie in
// [700, 2000], bounds included.
TEST(SpinAxis, AcceptanceWindowAlongTheAxis) {
  const ClubTrackerSetting setting = synth::MakeSetting(DefaultTruth());
  Areas areas = RepeatedPair(2, 2, 2, 1);
  for (CandidateAreaImage* area : areas.cam[0]) area->ballX = area->ballY = 0.0f;
  cv::Vec3d x;
  LiteralSolve(setting, areas, FirstLines(areas, 0, 2), false, x);
  const struct {
    double along;
    bool accepted;
  } windows[] = {{699.9999, false}, {700.0, true}, {2000.0, true}, {2000.0001, false}};
  for (const auto& w : windows) {
    SCOPED_TRACE(w.along);
    // Straight below the pivot on axis 1, nudged to the exact distance.
    double reference[3] = {x[0], x[1] - w.along, x[2]};
    for (int i = 0; i < 8 && x[1] - reference[1] != w.along; ++i)
      reference[1] = std::nextafter(reference[1], x[1] - reference[1] < w.along ? -1e9 : 1e9);
    ASSERT_EQ(x[1] - reference[1], w.along);
    const Search run(setting, areas, reference);
    EXPECT_EQ(run.found, w.accepted ? 1 : 0);
    EXPECT_EQ(run.log.back(), w.accepted ? "FindClubSpinAxis end." : "Axis analysis failed.");
  }
}

// Cameras with K = I and R = I, centred at (cam1X, 0, 0) and (cam2X, 0, 0).
ClubTrackerSetting PlainCameras(double cam1X, double cam2X) {
  ClubTrackerSetting setting{};
  InitClubTrackerSetting(setting);
  const double k[9] = {1, 0, 0, 0, 1, 0, 0, 0, 1};
  const double e1[12] = {1, 0, 0, -cam1X, 0, 1, 0, 0, 0, 0, 1, 0};
  const double e2[12] = {1, 0, 0, -cam2X, 0, 1, 0, 0, 0, 0, 1, 0};
  std::memcpy(setting.cam1Intrinsic, k, sizeof k);
  std::memcpy(setting.cam2Intrinsic, k, sizeof k);
  std::memcpy(setting.cam1Extrinsic, e1, sizeof e1);
  std::memcpy(setting.cam2Extrinsic, e2, sizeof e2);
  return setting;
}

// Distance of x from the plane of `line` in frame 2, as the inlier test forms
// it.
double LiteralDistance(const ClubTrackerSetting& setting, int c, const Areas& areas, cv::Vec2f line,
                       const double* x) {
  const reference::Camera cam =
      c == 0 ? reference::MakeCamera(setting.cam1Intrinsic, setting.cam1Extrinsic)
             : reference::MakeCamera(setting.cam2Intrinsic, setting.cam2Extrinsic);
  cv::Mat n;
  reference::ImageLineToPlane(n, areas.cam[c], 2, line, cam.rayMatrix);
  const cv::Mat xm(3, 1, CV_64F, const_cast<double*>(x));
  return std::abs((n.dot(xm) - n.dot(cam.center)) / std::sqrt(n.dot(n)));
}

// Frames 0 and 1 (the hypothesis's own, with far lines) count without a test
// and with the hypothesis's stored lines; a later frame counts when both
// cameras have a line strictly within 10 of the pivot, the nearer line of
// each camera recorded and the earlier of two equally near ones.
TEST(SpinAxis, InlierRules) {
  const cv::Vec2f zero(0.0f, 0.0f);
  const cv::Vec2f plus(0.004f, 0.0f);
  const cv::Vec2f minus(-0.004f, 0.0f);
  const struct {
    const char* name;
    double cam1X, cam2X;  // the cameras' centres
    cv::Vec3d pivot;
    std::vector<std::pair<Lines, Lines>> frames;  // frames 2, 3, ...
    bool inlier;                                  // frame 2
    cv::Vec2f line1, line2;                       // recorded for frame 2
  } cases[] = {
      {"own frames only", 0.0, 0.0, {0.0, 5.0, 5.0}, {{{zero}, {}}, {{}, {zero}}}, false, {}, {}},
      {"9.99 and exactly 10", 0.01, 0.0, {10.0, 40.0, 900.0}, {{{zero}, {zero}}}, false, {}, {}},
      {"exactly 10 and 9.99", 0.0, 0.01, {10.0, 40.0, 900.0}, {{{zero}, {zero}}}, false, {}, {}},
      {"9.989 and 9.999", 0.01, 0.0, {9.999, 40.0, 900.0}, {{{zero}, {zero}}}, true, zero, zero},
      {"9.99 both", 0.0, 0.0, {-9.99, 40.0, 900.0}, {{{zero}, {zero}}}, true, zero, zero},
      {"tie keeps the earlier",
       0.0,
       0.0,
       {0.0, 0.0, 1000.0},
       {{{{3.0f, 0.0f}, plus, minus}, {minus, plus}}},
       true,
       plus,
       minus},
  };
  for (const auto& t : cases) {
    SCOPED_TRACE(t.name);
    const ClubTrackerSetting setting = PlainCameras(t.cam1X, t.cam2X);
    Areas areas;
    for (int f = 0; f < 2; ++f)
      for (int c = 0; c < 2; ++c) areas.AddPlain(c, {cv::Vec2f(5000.0f, 0.0f)});
    for (const auto& [lines1, lines2] : t.frames) {
      areas.AddPlain(0, lines1);
      areas.AddPlain(1, lines2);
    }
    ClubSpinAxis3D h;
    h.firstFrame = 0;
    h.secondFrame = 1;
    h.firstCam1Line = cv::Vec2f(11.0f, 0.1f);
    h.firstCam2Line = cv::Vec2f(12.0f, 0.2f);
    h.secondCam1Line = cv::Vec2f(13.0f, 0.3f);
    h.secondCam2Line = cv::Vec2f(14.0f, 0.4f);
    std::memcpy(h.pivot, t.pivot.val, sizeof h.pivot);
    h.inliers.push_back(SpinAxisInlier{});   // replaced, not appended to
    if (t.inlier || t.frames.size() == 1) {  // the boundary as the literal test sees it
      const double d1 = LiteralDistance(setting, 0, areas, t.frames[0].first.back(), h.pivot);
      const double d2 = LiteralDistance(setting, 1, areas, t.frames[0].second.back(), h.pivot);
      ASSERT_EQ(10.0 > d1 && 10.0 > d2, t.inlier) << d1 << " " << d2;
      if (t.line1 == plus) {
        ASSERT_EQ(LiteralDistance(setting, 0, areas, plus, h.pivot), d1);
      }
    }
    std::vector<ClubSpinAxis3D> axes{h};
    ClubTracker tracker(setting);
    ASSERT_EQ(Access::SelectSpinAxisInliers(tracker, areas.cam[0], areas.cam[1], axes), 1);
    const std::vector<SpinAxisInlier>& in = axes[0].inliers;
    ASSERT_EQ(in.size(), t.inlier ? 3u : 2u);
    EXPECT_EQ(in[0].frame, 0);
    EXPECT_EQ(in[1].frame, 1);
    EXPECT_EQ(in[0].cam1Line, h.firstCam1Line);
    EXPECT_EQ(in[0].cam2Line, h.firstCam2Line);
    EXPECT_EQ(in[1].cam1Line, h.secondCam1Line);
    EXPECT_EQ(in[1].cam2Line, h.secondCam2Line);
    if (t.inlier) {
      EXPECT_EQ(in[2].frame, 2);
      EXPECT_EQ(in[2].cam1Line, t.line1);
      EXPECT_EQ(in[2].cam2Line, t.line2);
    }
    axes.clear();
    EXPECT_EQ(Access::SelectSpinAxisInliers(tracker, areas.cam[0], areas.cam[1], axes), 1);
    EXPECT_TRUE(axes.empty());
  }
}

// The four-pair rejection decides lane by lane as the one-pair test: planes
// through points at every distance from the windows, with noise across the
// residual bound, runs of 1 to 64, unusable planes, NaN and parallel planes.
TEST(SpinAxis, PairRejectionRunsDecideAsSinglePairs) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  const double reference[3] = {100.0, -200.0, 300.0};
  const PairWindows windows{10.0, 700.0, 2000.0, 700.0, 2800.0};
  int rejected = 0;
  int total = 0;
  for (int trial = 0; trial < 300; ++trial) {
    const double spread = 3500.0 * std::abs(unit(rng));
    const double noise = trial % 3 == 0 ? 0.0 : (trial % 3 == 1 ? 3.0 : 12.0);
    const double point[3] = {reference[0] + spread * unit(rng), reference[1] + spread * unit(rng),
                             reference[2] + spread * unit(rng)};
    const int count = 1 + trial % 64;
    std::vector<double> n(3 * (count + 3)), d(count + 3);
    for (int k = 0; k < count + 3; ++k) {
      double v[3] = {unit(rng), unit(rng), unit(rng)};
      if (trial % 7 == 0 && k > 0) std::copy(n.begin(), n.begin() + 3, v);  // parallel planes
      const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
      for (int i = 0; i < 3; ++i) n[3 * k + i] = v[i] / length;
      d[k] = n[3 * k] * point[0] + n[3 * k + 1] * point[1] + n[3 * k + 2] * point[2] +
             noise * unit(rng);
    }
    if (trial % 11 == 0) d[3 + count / 2] = NAN;
    if (trial % 13 == 0) n[3 * (3 + count / 3)] *= 1.5;  // not a unit normal: never used
    std::vector<PlaneNormalTerms> terms;
    for (int k = 0; k < count + 3; ++k) terms.push_back(NormalTerms(&n[3 * k], d[k]));
    std::vector<double> columns[14];
    for (int k = 3; k < count + 3; ++k) {
      for (int i = 0; i < 6; ++i) columns[i].push_back(terms[k].nn[i]);
      for (int i = 0; i < 3; ++i) columns[6 + i].push_back(terms[k].nd[i]);
      columns[9].push_back(terms[k].usable ? 1.0 : 0.0);
      for (int i = 0; i < 3; ++i) columns[10 + i].push_back(n[3 * k + i]);
      columns[13].push_back(d[k]);
    }
    for (std::vector<double>& column : columns) column.resize(column.size() + 3, 0.0);
    PlaneTermColumns last;
    for (int i = 0; i < 6; ++i) last.nn[i] = columns[i].data();
    for (int i = 0; i < 3; ++i) last.nd[i] = columns[6 + i].data();
    last.usable = columns[9].data();
    for (int i = 0; i < 3; ++i) last.normal[i] = columns[10 + i].data();
    last.offset = columns[13].data();
    const PlaneNormalTerms* first[3] = {&terms[0], &terms[1], &terms[2]};
    const int axis = trial % 3;
    const uint64_t bits =
        PairsSurelyRejected(n.data(), d.data(), first, last, count, reference, axis, windows);
    for (int k = 0; k < count; ++k) {
      double a[12], four[4];
      std::copy(n.begin(), n.begin() + 9, a);
      std::copy(n.begin() + 3 * (k + 3), n.begin() + 3 * (k + 4), a + 9);
      std::copy(d.begin(), d.begin() + 3, four);
      four[3] = d[k + 3];
      const PlaneNormalTerms* all[4] = {&terms[0], &terms[1], &terms[2], &terms[k + 3]};
      const bool one = PairSurelyRejected(a, four, all, reference, axis, windows);
      ASSERT_EQ(((bits >> k) & 1) != 0, one) << "trial " << trial << ", plane " << k;
      rejected += one ? 1 : 0;
      ++total;
    }
  }
  EXPECT_GT(rejected, total / 5);
  EXPECT_LT(rejected, total * 4 / 5);
}

// Four systems solved side by side give each one's solution to the bit, or
// leave it to the library where the one-system solver does: random planes,
// repeated, opposite, nearly parallel and identical rows, zero and
// non-finite values, lanes of different kinds mixed.
TEST(SpinAxis, FourSystemsSolveAsOne) {
  std::mt19937 rng(5);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  int solved = 0;
  for (int trial = 0; trial < 400; ++trial) {
    double a[4][12];
    double d[4][4];
    for (int lane = 0; lane < 4; ++lane) {
      const int kind = (trial + lane * 3) % 8;
      for (int r = 0; r < 4; ++r) {
        double v[3];
        for (int c = 0; c < 3; ++c) v[c] = (kind == 4 && r > 0 ? a[lane][c] : 0.0) +
                                           (kind == 4 ? 0.01 : 1.0) * unit(rng);
        const double length = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
        for (int c = 0; c < 3; ++c) a[lane][3 * r + c] = v[c] / length;
        d[lane][r] = 2000.0 * unit(rng);
      }
      if (kind == 1 || kind == 2) std::copy(a[lane], a[lane] + 3, a[lane] + 3);  // repeated
      if (kind == 2) std::copy(a[lane] + 6, a[lane] + 9, a[lane] + 9);            // rank two
      if (kind == 3) {
        for (int c = 0; c < 3; ++c) a[lane][3 + c] = -a[lane][c];  // opposite
      }
      if (kind == 5) {
        for (int r = 1; r < 4; ++r) std::copy(a[lane], a[lane] + 3, a[lane] + 3 * r);
      }
      if (kind == 6) std::fill(a[lane], a[lane] + 12, 0.0);
      if (kind == 7) d[lane][trial % 4] = trial % 3 == 0 ? NAN : INFINITY;
    }
    const double* as[4] = {a[0], a[1], a[2], a[3]};
    const double* ds[4] = {d[0], d[1], d[2], d[3]};
    double x[4][3];
    const unsigned mask = SolvePlanesJacobi4(as, ds, x);
    for (int lane = 0; lane < 4; ++lane) {
      double one[3];
      const bool single = SolvePlanesJacobi(a[lane], d[lane], 4, one);
      ASSERT_EQ(((mask >> lane) & 1) != 0, single) << "trial " << trial << ", lane " << lane;
      if (single) {
        ASSERT_EQ(std::memcmp(one, x[lane], sizeof one), 0) << "trial " << trial << ", lane " << lane;
      }
      solved += single ? 1 : 0;
    }
  }
  EXPECT_GT(solved, 800);
}

// The library's rounding as the search reproduces it: products, norms and
// residuals of random values over many magnitudes, zeros and non-finite ones.
TEST(SpinAxis, RoundingFormsAreTheLibrarys) {
  const MatRounding& rounding = MatRounding::Get();
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  std::uniform_int_distribution<int> power(-4, 5);
  for (int trial = 0; trial < 3000; ++trial) {
    double v[12];
    for (double& x : v) x = unit(rng) * std::pow(10.0, power(rng));
    if (trial % 50 == 0) v[trial % 12] = trial % 100 == 0 ? 0.0 : INFINITY;
    const cv::Mat four(4, 1, CV_64F, v);
    const cv::Mat three(3, 1, CV_64F, v), other(3, 1, CV_64F, v + 3);
    const double pairs[][2] = {{SquaredNorm4(rounding, v), four.dot(four)},
                               {Dot3(rounding, v, v + 3), three.dot(other)},
                               {Norm3(rounding, v), cv::norm(three)}};
    for (const auto& pair : pairs) {
      ASSERT_EQ(std::memcmp(&pair[0], &pair[1], sizeof(double)), 0) << "trial " << trial;
    }
    double r[4];
    PlaneResiduals(rounding, v, v + 8, v + 4, r, 4);  // A (4 x 3 from v), x, d
    cv::Mat expected;
    cv::gemm(cv::Mat(4, 3, CV_64F, v), cv::Mat(3, 1, CV_64F, v + 8), 1.0,
             cv::Mat(4, 1, CV_64F, v + 4), -1.0, expected);
    ASSERT_EQ(std::memcmp(r, expected.ptr<double>(), sizeof r), 0) << "trial " << trial;
  }
}

// Frames 0-4 turn about the true pivot, frames 5-8 about one moved by
// (110, 0, 70); camera 1's line of frame 4 is shifted sideways by `shift` mm.
Areas TwoPivots(double shift) {
  const synth::SwingTruth& truth = DefaultTruth();
  const cv::Vec3d pivots[2] = {truth.pivot, truth.pivot + cv::Vec3d(110.0, 0.0, 70.0)};
  Areas areas;
  for (int i = 0; i < 9; ++i) {
    const cv::Vec3d pivot = pivots[i < 5 ? 0 : 1];
    const cv::Vec3d dir = truth.ShaftDirection(truth.FrameTime(0, 2 * i));
    for (int c = 0; c < 2; ++c) {
      const synth::CameraModel& camera = truth.cameras[c];
      cv::Vec3d offset(0.0, 0.0, 0.0);
      if (i == 4 && c == 0) offset = shift * cv::normalize(dir.cross(pivot - camera.Center()));
      areas.Add(truth, c,
                {synth::HoughLineOf(camera, pivot + offset + truth.gripDistance * dir,
                                    pivot + offset + truth.headRadius * dir)});
    }
  }
  return areas;
}

// The refit stops at the first residual below 3.0 even when a later one fits
// better; above 3.0 it goes on and keeps the best.
TEST(SpinAxis, RefitStopsAtTheFirstResidualBelowThree) {
  const ClubTrackerSetting setting = synth::MakeSetting(DefaultTruth());
  cv::Vec3d pivot;
  const auto groupResidual = [&](const Areas& areas, int from, int to) {
    return LiteralSolve(setting, areas, FirstLines(areas, from, to), true, pivot);
  };
  for (const double target : {2.9, 3.1}) {
    SCOPED_TRACE(target);
    double low = 0.0;  // the shift of frame 4 that gives group A the wanted residual
    double high = 12.0;
    for (int i = 0; i < 40; ++i) {
      const double mid = 0.5 * (low + high);
      (groupResidual(TwoPivots(mid), 0, 5) < target ? low : high) = mid;
    }
    const Areas areas = TwoPivots(0.5 * (low + high));
    const double groupA = groupResidual(areas, 0, 5);
    ASSERT_NEAR(groupA, target, 0.01);
    ASSERT_LT(groupResidual(areas, 5, 9), 1e-6);

    const Search run(setting, areas);
    ASSERT_EQ(run.found, 1);
    std::vector<int> frames;
    for (const SpinAxisInlier& in : run.axis.inliers) frames.push_back(in.frame);
    const double residual = LiteralSolve(setting, areas, run.axis.inliers, true, pivot);
    EXPECT_EQ(std::memcmp(run.axis.pivot, pivot.val, sizeof run.axis.pivot), 0);
    if (target < 3.0) {
      EXPECT_EQ(frames, (std::vector<int>{0, 1, 2, 3, 4}));
      EXPECT_EQ(residual, groupA);
    } else {
      EXPECT_LT(residual, 3.0);
      EXPECT_EQ(frames, (std::vector<int>{5, 6, 7, 8}));
    }
  }
}

}  // namespace
