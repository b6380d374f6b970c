// The club delivery through Measure on rendered swings against the scenes'
// truth, the convention signs, and the options' check of their directions.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "clubtracker/measure.h"
#include "synth/swing.h"

namespace {

bool Sanitized() { return std::getenv("CLUBTRACKER_SANITIZED") != nullptr; }

struct Row {
  uint64_t seed;
  synth::Placement placement;
  bool iron;
  double fps;
  double speed;
  double directionDeg;
  double lowPointAheadMm;  // + descending blow
  double slack = 1.0;      // times the limits: 2 where the head shows in 3 frames only
};

constexpr synth::Placement kNear = synth::Placement::kNear;
constexpr synth::Placement kFar = synth::Placement::kFar;

// Both placements, driver and iron, 1000-3000 fps, directions and attack
// angles of several degrees either way. The first rows are the sign checks:
// turned out with an ascending blow, turned in with a descending one.
const Row kRows[] = {
    {101, kNear, false, 2000, 45, 5.0, -120.0}, {102, kNear, false, 2000, 45, -5.0, 120.0},
    {103, kFar, false, 1000, 40, 3.0, 60.0},    {104, kNear, true, 3000, 35, -2.0, 150.0},
    {105, kFar, true, 2500, 38, 1.0, -60.0},    {106, kNear, false, 1500, 50, -4.0, 0.0},
    {107, kFar, false, 3000, 52, 4.0, 100.0},   {108, kNear, true, 2000, 33, 0.0, -100.0},
    {109, kFar, false, 2000, 30, -3.0, -150.0}, {110, kNear, false, 2500, 55, 2.0, 30.0},
    {111, kFar, true, 1500, 42, -1.0, 80.0},    {112, kNear, false, 1000, 47, 3.5, -30.0, 2.0},
};

struct Check {
  const char* name;
  std::optional<clubtracker::Measured> clubtracker::ClubDelivery::*slot;
  double limit;
  double (*truth)(const synth::DeliveryTruth&);
  bool relative;
};

const Check kChecks[] = {
    {"speed %", &clubtracker::ClubDelivery::speedMps, 1.0,
     [](const synth::DeliveryTruth& t) { return t.speedMps; }, true},
    {"attack deg", &clubtracker::ClubDelivery::attackAngleDeg, 1.0,
     [](const synth::DeliveryTruth& t) { return t.attackAngleDeg; }, false},
    {"path deg", &clubtracker::ClubDelivery::pathDeg, 1.0,
     [](const synth::DeliveryTruth& t) { return t.pathDeg; }, false},
    {"plane deg", &clubtracker::ClubDelivery::swingPlaneDeg, 1.0,
     [](const synth::DeliveryTruth& t) { return t.swingPlaneDeg; }, false},
    {"direction deg", &clubtracker::ClubDelivery::swingDirectionDeg, 1.0,
     [](const synth::DeliveryTruth& t) { return t.swingDirectionDeg; }, false},
    {"low ahead mm", &clubtracker::ClubDelivery::lowPointAheadMm, 25.0,
     [](const synth::DeliveryTruth& t) { return t.lowPointAheadMm; }, false},
    {"low height mm", &clubtracker::ClubDelivery::lowPointHeightMm, 10.0,
     [](const synth::DeliveryTruth& t) { return t.lowPointHeightMm; }, false},
    {"low side mm", &clubtracker::ClubDelivery::lowPointSideMm, 25.0,
     [](const synth::DeliveryTruth& t) { return t.lowPointSideMm; }, false},
};

TEST(Delivery, RenderedSwingsAgreeWithTheirTruthWithinLimitsAndErrors) {
  const size_t rows = Sanitized() ? 2 : std::size(kRows);
  constexpr size_t kChecksCount = std::size(kChecks);
  std::vector<double> errors[kChecksCount];
  int within3Sigma = 0, values = 0;
  for (size_t r = 0; r < rows; ++r) {
    const Row& row = kRows[r];
    synth::SwingScene scene;
    scene.seed = row.seed;
    scene.placement = row.placement;
    scene.iron = row.iron;
    scene.fps = row.fps;
    scene.speedMps = row.speed;
    scene.directionDeg = row.directionDeg;
    scene.lowPointAheadMm = row.lowPointAheadMm;
    const synth::Recording rec = synth::Render(scene);
    clubtracker::MeasureOptions options;
    options.lineBased = false;
    const clubtracker::SwingReport report =
        clubtracker::Measure(rec.images[0], rec.images[1], rec.setting, options);
    ASSERT_TRUE(report.ok) << report.error;
    const synth::DeliveryTruth& truth = rec.truth.delivery;
    EXPECT_NEAR(truth.swingDirectionDeg, row.directionDeg, 1e-9);
    EXPECT_NEAR(truth.lowPointAheadMm, row.lowPointAheadMm * std::cos(row.directionDeg * CV_PI / 180),
                1.0);
    std::string line = "seed " + std::to_string(row.seed) + ":";
    for (size_t c = 0; c < kChecksCount; ++c) {
      const Check& check = kChecks[c];
      const auto& value = report.delivery.*check.slot;
      const double t = check.truth(truth);
      char text[120];
      if (!value) {
        std::snprintf(text, sizeof text, " %s -", check.name);
        line += text;
        ADD_FAILURE() << "seed " << row.seed << ": no " << check.name;
        continue;
      }
      double error = value->value - t;
      double sigma = value->stdErr;
      if (check.relative) {
        error = 100.0 * error / t;
        sigma = 100.0 * sigma / t;
      }
      errors[c].push_back(std::abs(error));
      ++values;
      within3Sigma += std::abs(error) <= 3.0 * sigma ? 1 : 0;
      std::snprintf(text, sizeof text, " %s %+.2f(%.2f)", check.name, error, sigma);
      line += text;
      EXPECT_LE(std::abs(error), check.limit * row.slack) << "seed " << row.seed << " " << check.name;
    }
    std::printf("%s\n", line.c_str());
    for (const std::string& note : report.delivery.notes) std::printf("  %s\n", note.c_str());
    if (r < 2) {  // the sign rows
      ASSERT_TRUE(report.delivery.swingDirectionDeg && report.delivery.attackAngleDeg);
      EXPECT_GT(report.delivery.swingDirectionDeg->value * row.directionDeg, 0.0);
      EXPECT_LT(report.delivery.attackAngleDeg->value * row.lowPointAheadMm, 0.0);
    }
  }
  for (size_t c = 0; c < kChecksCount; ++c) {
    std::vector<double>& e = errors[c];
    if (e.empty()) continue;
    std::sort(e.begin(), e.end());
    const double median = e[e.size() / 2];
    std::printf("%-14s median %.3f worst %.3f\n", kChecks[c].name, median, e.back());
    if (c >= 1 && c <= 4) {
      EXPECT_LT(median, 0.5) << kChecks[c].name;
    }
  }
  std::printf("truth within 3 standard errors: %d of %d\n", within3Sigma, values);
  EXPECT_GE(within3Sigma, 0.8 * values);
}

TEST(Delivery, OptionsRefuseBadDirections) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  struct Case {
    clubtracker::Vec3 up, target;
    const char* named;  // in the reason
  };
  const Case cases[] = {
      {{0, 0, 0}, {1, 0, 0}, "up"},
      {{0, 1, 0}, {0, 0, 0}, "target"},
      {{0, 1, 0}, {0.6, 0.8, 0}, "perpendicular"},
      {{nan, 1, 0}, {1, 0, 0}, "finite"},
      {{0, 2, 0}, {1, 0, 0}, "length"},
  };
  for (const Case& c : cases) {
    clubtracker::MeasureOptions options;
    options.up = c.up;
    options.target = c.target;
    std::string why;
    EXPECT_FALSE(options.IsValid(&why)) << c.named;
    EXPECT_NE(why.find(c.named), std::string::npos) << why;
  }
  std::string why;
  EXPECT_TRUE(clubtracker::MeasureOptions{}.IsValid(&why));
}

}  // namespace
