// The spin-axis search: on the line candidates the analysis stages extract
// from the default synthetic swing, and on a dense case of 24 frames with four
// lines per frame in each camera (70656 line pairs). The literal cv::Mat
// version runs on the same inputs for the speed-up.
#include <benchmark/benchmark.h>
#include <tbb/global_control.h>

#include <memory>
#include <random>
#include <string>
#include <vector>

#include "reconstruction/spin_axis.h"
#include "support/access.h"
#include "support/find_stages.h"
#include "support/reference_spin_axis.h"
#include "synth/swing.h"
#include "tracker/records.h"

namespace {

struct SpinAxisInput {
  ClubTrackerSetting setting{};
  std::vector<std::unique_ptr<CandidateAreaImage>> owned;
  SwingAnalysis extracted;
  std::vector<CandidateAreaImage*> cam1;
  std::vector<CandidateAreaImage*> cam2;
};

// The default swing rendered and taken through Find's analysis stages.
const SpinAxisInput& DefaultSwing() {
  static const std::unique_ptr<SpinAxisInput> input = [] {
    auto in = std::make_unique<SpinAxisInput>();
    synth::Recording recording = synth::Render(synth::SwingScene());
    in->setting = recording.setting;
    ClubTracker tracker(recording.setting);
    reference::ExtractLines(tracker, recording.Cam1(), recording.Cam2(), in->extracted);
    in->cam1 = in->extracted.cand[0];
    in->cam2 = in->extracted.cand[1];
    return in;
  }();
  return *input;
}

// 24 frames of the default swing's geometry, each camera with the true shaft
// line and three lines near it.
const SpinAxisInput& Dense() {
  static const std::unique_ptr<SpinAxisInput> input = [] {
    auto in = std::make_unique<SpinAxisInput>();
    synth::SwingScene scene;
    scene.frames = 24;
    const synth::SwingTruth truth = synth::MakeTruth(scene);
    in->setting = synth::MakeSetting(truth);
    std::mt19937 rng(24);
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    for (int i = 0; i < scene.frames; ++i) {
      for (int c = 0; c < 2; ++c) {
        CandidateAreaImage* area = reference::AddTruthArea(truth, c, i, in->owned);
        const cv::Vec2f line = truth.ShaftLine(c, truth.FrameTime(c, i));
        area->lines.push_back(line);
        for (int k = 0; k < 3; ++k) {
          area->lines.push_back(cv::Vec2f(line[0] + 6.0f * unit(rng), line[1] + 0.02f * unit(rng)));
        }
        (c == 0 ? in->cam1 : in->cam2).push_back(area);
      }
    }
    return in;
  }();
  return *input;
}

// Counters of the optimised search (refits: those actually solved).
void Report(benchmark::State& state, const SpinAxisInput& in, bool refits) {
  SpinAxisSearchStats stats;
  double point[3] = {0.0, 0.0, 0.0};
  ClubSpinAxis3D axis;
  SearchClubSpinAxis(in.setting, point, in.cam1, in.cam2, axis, &stats);
  state.counters["pairs"] = static_cast<double>(stats.linePairs);
  state.counters["hypotheses"] = static_cast<double>(stats.hypotheses);
  if (refits) state.counters["refits"] = static_cast<double>(stats.refits);
}

// Argument 0: the default number of threads; 1: one thread, so that the CPU
// time is the whole work of a call.
std::unique_ptr<tbb::global_control> Threads(const benchmark::State& state) {
  if (state.range(0) != 1) return nullptr;
  return std::make_unique<tbb::global_control>(tbb::global_control::max_allowed_parallelism, 1);
}

void Optimised(benchmark::State& state, const SpinAxisInput& in) {
  const auto threads = Threads(state);
  ClubTracker tracker(in.setting);
  for (auto _ : state) {
    tracker.referencePoint[0] = tracker.referencePoint[1] = tracker.referencePoint[2] = 0.0;
    ClubSpinAxis3D axis;
    benchmark::DoNotOptimize(
        ClubTrackerTestAccess::FindClubSpinAxis(tracker, in.cam1, in.cam2, axis));
  }
  Report(state, in, true);
}

void Literal(benchmark::State& state, const SpinAxisInput& in) {
  const auto threads = Threads(state);
  for (auto _ : state) {
    double point[3] = {0.0, 0.0, 0.0};
    ClubSpinAxis3D axis;
    benchmark::DoNotOptimize(
        reference::FindClubSpinAxis(in.setting, point, nullptr, in.cam1, in.cam2, axis));
  }
  Report(state, in, false);
}

void BM_FindClubSpinAxis_DefaultSwing(benchmark::State& state) { Optimised(state, DefaultSwing()); }
void BM_FindClubSpinAxis_Dense(benchmark::State& state) { Optimised(state, Dense()); }
void BM_FindClubSpinAxisLiteral_DefaultSwing(benchmark::State& state) {
  Literal(state, DefaultSwing());
}
void BM_FindClubSpinAxisLiteral_Dense(benchmark::State& state) { Literal(state, Dense()); }

BENCHMARK(BM_FindClubSpinAxis_DefaultSwing)
    ->ArgName("threads1")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_FindClubSpinAxis_Dense)
    ->ArgName("threads1")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_FindClubSpinAxisLiteral_DefaultSwing)
    ->ArgName("threads1")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();
BENCHMARK(BM_FindClubSpinAxisLiteral_Dense)
    ->ArgName("threads1")
    ->Arg(0)
    ->Arg(1)
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace
