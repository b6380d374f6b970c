// Rendering synthetic swings: the default near recording (2 x 24 frames of
// 640 x 208) and a far one (2 x 24 frames of 640 x 480).
#include <benchmark/benchmark.h>

#include "synth/swing.h"

namespace {

void BM_RenderNear(benchmark::State& state) {
  synth::SwingScene scene;
  scene.seed = 1;
  for (auto _ : state) {
    synth::Recording rec = synth::Render(scene);
    benchmark::DoNotOptimize(rec.pixels[0].data());
  }
}
BENCHMARK(BM_RenderNear)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_RenderFar(benchmark::State& state) {
  synth::SwingScene scene;
  scene.seed = 2;
  scene.placement = synth::Placement::kFar;
  for (auto _ : state) {
    synth::Recording rec = synth::Render(scene);
    benchmark::DoNotOptimize(rec.pixels[0].data());
  }
}
BENCHMARK(BM_RenderFar)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_MakeTruth(benchmark::State& state) {
  synth::SwingScene scene;
  for (auto _ : state) {
    synth::SwingTruth truth = synth::MakeTruth(scene);
    benchmark::DoNotOptimize(truth.pivot);
  }
}
BENCHMARK(BM_MakeTruth)->Unit(benchmark::kMicrosecond);

}  // namespace
