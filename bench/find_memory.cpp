// The heap Find holds for one swing beyond the frames it is given and the
// result it returns: what its threads keep between swings (and the process's
// one-time storage) and the most it holds during a later call, kept storage
// included. The threads' storage shows only in a process that has not
// analysed a swing before, so each swing is measured in a process of its own
// (`make bench` runs this binary once per swing, filtered by name).
#include <algorithm>

#include <benchmark/benchmark.h>

#include "clubtracker/ClubTracker.h"
#include "heap_counter.h"
#include "synth/swing.h"

namespace {

constexpr double kMegabyte = 1024.0 * 1024.0;

// Bytes of every frame of both cameras, and of the result's buffers (a
// colour and a raw copy of each entry).
double SwingBytes(const synth::Recording& recording) {
  double bytes = 0.0;
  for (const auto& images : recording.images) {
    for (const ClubImage& image : images) bytes += double(image.width) * image.height;
  }
  return bytes;
}

double ResultBytes(const ClubTrackerResult& result) {
  double bytes = 0.0;
  for (int e = 0; e < result.frameCount; ++e) {
    const ClubImage& image = result.frames[e].image;
    bytes += 4.0 * image.width * image.height;
  }
  return bytes;
}

void BM_FindMemory(benchmark::State& state, synth::Placement placement) {
  synth::SwingScene scene;
  scene.placement = placement;
  synth::Recording recording = synth::Render(scene);
  const std::vector<ClubImage*> cam1 = recording.Cam1();
  const std::vector<ClubImage*> cam2 = recording.Cam2();
  ClubTracker tracker(recording.setting);
  ClubTrackerResult result;

  const int64_t start = heap_counter::Live();
  heap_counter::ResetPeak();
  tracker.Find(cam1, cam2, result, 0);
  const double resultBytes = ResultBytes(result);
  const double first = static_cast<double>(heap_counter::Peak() - start) - resultBytes;
  const double kept = static_cast<double>(heap_counter::Live() - start) - resultBytes;
  double most = 0.0;
  for (auto _ : state) {
    heap_counter::ResetPeak();
    tracker.Find(cam1, cam2, result, 0);
    most = std::max(most, static_cast<double>(heap_counter::Peak() - start) - resultBytes);
  }
  const double swing = SwingBytes(recording);
  state.counters["swing_MB"] = swing / kMegabyte;
  state.counters["result_MB"] = resultBytes / kMegabyte;
  state.counters["first_MB"] = first / kMegabyte;
  state.counters["kept_MB"] = kept / kMegabyte;
  state.counters["work_MB"] = most / kMegabyte;
  state.counters["work_per_swing"] = most / swing;
}

BENCHMARK_CAPTURE(BM_FindMemory, default_swing, synth::Placement::kNear)
    ->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK_CAPTURE(BM_FindMemory, far_swing, synth::Placement::kFar)
    ->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
