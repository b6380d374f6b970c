// The template tracking path: FindbyTemplate on a whole synthetic swing (the
// default one, and one seen by the far cameras with 640 x 480 windows), and
// the two gradient-matching primitives on one frame of it.
#include <map>
#include <vector>

#include <benchmark/benchmark.h>

#include <opencv2/core.hpp>

#include "synth/swing.h"
#include "template/template_matching.h"
#include "tracker/records.h"

namespace {

synth::Recording& Swing(bool far) {
  static std::map<bool, synth::Recording> swings;
  auto found = swings.find(far);
  if (found == swings.end()) {
    synth::SwingScene scene;
    if (far) scene.placement = synth::Placement::kFar;
    found = swings.emplace(far, synth::Render(scene)).first;
  }
  return found->second;
}

void BM_FindbyTemplate(benchmark::State& state) {
  synth::Recording& recording = Swing(state.range(0) != 0);
  ClubTracker tracker(recording.setting);
  const std::vector<ClubImage*> cam1 = recording.Cam1();
  const std::vector<ClubImage*> cam2 = recording.Cam2();
  double speed = 0.0;
  for (auto _ : state) {
    tracker.FindbyTemplate(cam1, cam2, speed);
    benchmark::DoNotOptimize(speed);
  }
  state.counters["speed_mps"] = speed * 1000.0;
  state.counters["truth_mps"] = recording.truth.clubHeadSpeedMps;
}
BENCHMARK(BM_FindbyTemplate)->Arg(0)->Arg(1)->ArgName("far")->Unit(benchmark::kMillisecond);

cv::Mat FrameOf(const ClubImage& image) {
  return cv::Mat(static_cast<int>(image.height), static_cast<int>(image.width), CV_8U,
                 image.pixels);
}

void BM_MakeGradientImages(benchmark::State& state) {
  const synth::Recording& recording = Swing(false);
  const std::vector<cv::Mat> frames = {FrameOf(recording.images[0][5])};
  std::vector<cv::Mat> gradients;
  for (auto _ : state) {
    gradients.clear();
    MakeGradientImages(frames, gradients);
    benchmark::DoNotOptimize(gradients.data());
  }
}
BENCHMARK(BM_MakeGradientImages)->Unit(benchmark::kMicrosecond);

void BM_MatchTemplateInWindow(benchmark::State& state) {
  // A head-sized template searched in a window 16 pixels wider each way.
  const synth::Recording& recording = Swing(false);
  std::vector<cv::Mat> gradients;
  MakeGradientImages({FrameOf(recording.images[0][5]), FrameOf(recording.images[0][6])},
                     gradients);
  const cv::Rect head(360, 90, 160, 90);
  const cv::Mat templ = gradients[0](head).clone();
  cv::Rect match;
  double score = 0.0;
  for (auto _ : state) {
    cv::Rect window(head.x - 40, head.y - 16, head.width + 32, head.height + 32);
    MatchTemplateInWindow(templ, gradients[1], window, match, score);
    benchmark::DoNotOptimize(score);
  }
}
BENCHMARK(BM_MatchTemplateInWindow)->Unit(benchmark::kMicrosecond);

}  // namespace
