// End-to-end accuracy of the line-based measurement on synthetic swings: the
// whole Find pipeline on rendered frames, compared with the swings' ground
// truth. The template fall-back is switched off so that only the line-based
// result is measured.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/access.h"
#include "synth/swing.h"

namespace {

void CaptureLog(std::wstring line, void* context) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(line.begin(), line.end());
}

class LinesOnly : public ClubTracker {
 public:
  using ClubTracker::ClubTracker;
  int FindbyTemplate(std::vector<ClubImage*>, std::vector<ClubImage*>, double& speed) override {
    ++fallbacks;
    speed = 0.0;
    return 0;
  }
  int fallbacks = 0;
};

struct Outcome {
  bool axis = false;   // the shaft-and-head stage fitted an axis
  bool speed = false;  // and measured a club-head speed
  double pivotMm = 0.0;
  double axisDeg = 0.0;
  double radiusPct = 0.0;
  double speedPct = 0.0;
  double speedMps = 0.0;
  double truthMps = 0.0;
  std::string failure;  // the log line that explains a missing axis
};

Outcome Measure(const synth::SwingScene& scene) {
  synth::Recording recording = synth::Render(scene);
  const synth::SwingTruth& truth = recording.truth;
  std::vector<std::string> log;
  ClubTrackerSetting setting = recording.setting;
  setting.logCallback = CaptureLog;
  setting.logContext = &log;
  LinesOnly tracker(setting);
  ClubTrackerResult result;
  tracker.Find(recording.Cam1(), recording.Cam2(), result, 0);

  Outcome outcome;
  outcome.truthMps = truth.clubHeadSpeedMps;
  for (const std::string& line : log) {
    if (line.rfind("Axis pos: ", 0) == 0) outcome.axis = true;
    if (line == "Cannot find enough line pairs." || line == "Axis analysis failed." ||
        line == "Invalid axis norm") {
      outcome.failure = line;
    }
  }
  if (!outcome.axis) return outcome;
  const cv::Vec3d pivot(result.axisPosition[0], result.axisPosition[1], result.axisPosition[2]);
  const cv::Vec3d axis(result.axisDirection[0], result.axisDirection[1], result.axisDirection[2]);
  outcome.pivotMm = cv::norm(pivot - truth.pivot);
  const double cosine = std::min(1.0, std::fabs(axis.dot(truth.axis)) / cv::norm(axis));
  outcome.axisDeg = std::acos(cosine) * 180.0 / CV_PI;
  outcome.speed = result.clubHeadSpeed > 0.0;
  if (outcome.speed) {
    outcome.radiusPct = 100.0 * std::fabs(result.headRadius - truth.headRadius) / truth.headRadius;
    outcome.speedMps = result.clubHeadSpeed * 1000.0;
    outcome.speedPct = 100.0 * std::fabs(outcome.speedMps - truth.clubHeadSpeedMps) /
                       truth.clubHeadSpeedMps;
  }
  return outcome;
}

struct Spread {
  double median = 0.0;
  double p90 = 0.0;
  double worst = 0.0;
};

// Median and 90th percentile by the nearest-rank rule.
Spread SpreadOf(std::vector<double> values) {
  Spread spread;
  if (values.empty()) return spread;
  std::sort(values.begin(), values.end());
  const auto rank = [&](double q) {
    const size_t index = static_cast<size_t>(std::ceil(q * static_cast<double>(values.size())));
    return values[std::max<size_t>(index, 1) - 1];
  };
  spread.median = rank(0.5);
  spread.p90 = rank(0.9);
  spread.worst = values.back();
  return spread;
}

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

TEST(AccuracyLines, DefaultSwingGivesAnAxisAndASpeed) {
  const Outcome outcome = Measure(synth::SwingScene{});
  ASSERT_TRUE(outcome.axis);
  ASSERT_TRUE(outcome.speed);
  std::printf("default swing: pivot %.1f mm, axis %.2f deg, radius %.2f %%, speed %.1f m/s "
              "(truth %.1f m/s, %.1f %%)\n",
              outcome.pivotMm, outcome.axisDeg, outcome.radiusPct, outcome.speedMps,
              outcome.truthMps, outcome.speedPct);
  // Measured: pivot 107.3 mm, axis 3.79 deg, radius 4.8 %, speed 81.6 m/s for 45 (81.2 %):
  // one interval of 1-degree lines can double the angle turned in 0.5 ms.
  EXPECT_LT(outcome.pivotMm, 160.0);
  EXPECT_LT(outcome.axisDeg, 5.5);
  EXPECT_LT(outcome.radiusPct, 8.0);
  EXPECT_LT(outcome.speedPct, 100.0);
}

// Figures measured over the varied seeds; a regression of the share or of a
// median beyond its margin fails the test.
struct Expected {
  int seeds;
  int withSpeed;     // at least
  double pivotMm;    // median, at most
  double axisDeg;
  double radiusPct;
  double speedPct;
};

TEST(AccuracyLines, VariedSwings) {
  // Measured over seeds 1-20: speed 15/20; medians pivot 233.1 mm, axis
  // 6.55 deg, radius 14.3 %, speed 12.1 %. Over seeds 1-5 (sanitised runs):
  // speed 3/5; medians 163.7 mm, 7.48 deg, 11.2 %, 12.1 %.
  const Expected expected = Sanitized() ? Expected{5, 3, 210.0, 9.5, 14.5, 15.0}
                                        : Expected{20, 14, 290.0, 8.5, 18.0, 15.0};
  std::vector<double> pivot, axis, radius, speed;
  int withAxis = 0;
  int withSpeed = 0;
  std::printf("seed placement   fps  speed(truth)  pivot mm  axis deg  radius %%  speed %%\n");
  for (int seed = 1; seed <= expected.seeds; ++seed) {
    const synth::SwingScene scene = synth::SwingScene::Varied(static_cast<uint64_t>(seed));
    const Outcome outcome = Measure(scene);
    const char* placement = scene.placement == synth::Placement::kNear ? "near" : "far ";
    if (!outcome.axis) {
      std::printf("%4d %s %6.0f  %5.1f         no axis: %s\n", seed, placement, scene.fps,
                  outcome.truthMps, outcome.failure.c_str());
      continue;
    }
    ++withAxis;
    pivot.push_back(outcome.pivotMm);
    axis.push_back(outcome.axisDeg);
    if (!outcome.speed) {
      std::printf("%4d %s %6.0f  %5.1f        %8.1f  %8.2f  no speed\n", seed, placement,
                  scene.fps, outcome.truthMps, outcome.pivotMm, outcome.axisDeg);
      continue;
    }
    ++withSpeed;
    radius.push_back(outcome.radiusPct);
    speed.push_back(outcome.speedPct);
    std::printf("%4d %s %6.0f  %5.1f (%5.1f) %8.1f  %8.2f  %8.2f  %7.1f\n", seed, placement,
                scene.fps, outcome.speedMps, outcome.truthMps, outcome.pivotMm, outcome.axisDeg,
                outcome.radiusPct, outcome.speedPct);
  }
  const Spread p = SpreadOf(pivot), a = SpreadOf(axis), r = SpreadOf(radius), s = SpreadOf(speed);
  std::printf("axis %d/%d, speed %d/%d\n", withAxis, expected.seeds, withSpeed, expected.seeds);
  std::printf("                median     p90   worst\n");
  std::printf("pivot mm     %9.1f %7.1f %7.1f\n", p.median, p.p90, p.worst);
  std::printf("axis deg     %9.2f %7.2f %7.2f\n", a.median, a.p90, a.worst);
  std::printf("radius %%     %9.2f %7.2f %7.2f\n", r.median, r.p90, r.worst);
  std::printf("speed %%      %9.1f %7.1f %7.1f\n", s.median, s.p90, s.worst);

  EXPECT_GE(withSpeed, expected.withSpeed);
  EXPECT_LE(p.median, expected.pivotMm);
  EXPECT_LE(a.median, expected.axisDeg);
  EXPECT_LE(r.median, expected.radiusPct);
  EXPECT_LE(s.median, expected.speedPct);
}

}  // namespace
