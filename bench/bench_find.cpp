// Find on a whole synthetic swing, the same swing through the literal stages,
// and Find's analysis with the time of each of its stages: preprocessing,
// candidate areas, presence test, head sizes with head deletion, line passes,
// spin axis, shaft and head.
#include <algorithm>
#include <chrono>
#include <ctime>
#include <iterator>
#include <cstring>
#include <malloc.h>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>
#include <tbb/global_control.h>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"
#include "reconstruction/spin_axis.h"
#include "support/access.h"
#include "support/literal_presence.h"
#include "support/reference_spin_axis.h"
#include "synth/swing.h"
#include "support/find_stages.h"

namespace {

using Access = ClubTrackerTestAccess;

enum class Scene { kDefault, kFar };

synth::SwingScene SceneOf(Scene scene) {
  synth::SwingScene swing;
  if (scene == Scene::kFar) swing.placement = synth::Placement::kFar;  // 640 x 480 windows
  return swing;
}

// One swing, its frames of both cameras (the synthetic swings pair one to one).
struct Pipeline {
  synth::Recording recording;
  std::vector<ClubImage*> frames[2];

  explicit Pipeline(Scene scene) : recording(synth::Render(SceneOf(scene))) {
    frames[0] = recording.Cam1();
    frames[1] = recording.Cam2();
  }
};

Pipeline& PipelineOf(Scene scene) {
  static std::map<Scene, std::unique_ptr<Pipeline>> pipelines;
  std::unique_ptr<Pipeline>& pipeline = pipelines[scene];
  if (!pipeline) pipeline = std::make_unique<Pipeline>(scene);
  return *pipeline;
}

// The literal versions of the stages Find made faster: the frames' median
// through cv::medianBlur, the presence test through cv::morphologyEx,
// cv::Canny and cv::HoughLines for every frame in every pass, the literal
// spin-axis search.
int LiteralPreprocessing(ClubTracker& tracker, ClubImage* source, PreprocessedImage* target) {
  if (Access::Preprocessing(tracker, source, target) == 0) return 0;  // the record, as Find makes it
  if (source->channels == 1 && (tracker.setting.roiWidth == 0 || tracker.setting.roiHeight == 0)) {
    // The median of a whole grey frame once more, through cv::medianBlur.
    const cv::Mat frame(static_cast<int>(source->height), static_cast<int>(source->width), CV_8UC1,
                        source->pixels);
    cv::medianBlur(frame, target->image, 3);
  }
  return 1;
}

int LiteralLines(ClubTracker&, CandidateAreaImage* area, int voteThreshold) {
  cv::Mat work, edges;
  MorphologyChainLiteral(area->image, work,
                         {{cv::MORPH_OPEN, cv::MORPH_RECT, 3},
                          {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
                          {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7}});
  cv::Canny(work, edges, 30.0, 40.0, 3, true);
  return ExtractCandidatesFromEdges(area, edges, voteThreshold);
}

int LiteralSpinAxis(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& cam1,
                    const std::vector<CandidateAreaImage*>& cam2, ClubSpinAxis3D& axis) {
  return reference::FindClubSpinAxis(tracker.setting, tracker.referencePoint, nullptr, cam1, cam2,
                                     axis);
}

// Find with the literal stages and fresh buffers everywhere.
void LiteralFind(ClubTracker& tracker, const std::vector<ClubImage*> (&frames)[2],
                 ClubTrackerResult& result) {
  SwingStages stages = StagesOf<Access>();
  stages.preprocessing = &LiteralPreprocessing;
  stages.presence = &LiteralPresence;
  stages.extractLines = &LiteralLines;
  stages.findClubSpinAxis = &LiteralSpinAxis;
  SwingAnalysis analysis;
  if (!reference::AnalyseUpTo(tracker, frames[0], frames[1], SwingStage::kShaftAndHead, analysis,
                              nullptr, &result, stages)) {
    return;
  }
  if (result.clubHeadSpeed == 0.0) tracker.FindbyTemplate(frames[0], frames[1], result.clubHeadSpeed);
  const size_t n = frames[0].size();
  for (int e = 0; e < result.frameCount; ++e) {
    ClubFrameResult& entry = result.frames[e];
    const size_t k = static_cast<size_t>(e);
    const ClubImage* source = k < n ? frames[0][k] : frames[1][k - n];
    delete[] entry.rawPixels;
    const size_t bytes = static_cast<size_t>(source->width) * source->height;
    entry.rawPixels = new unsigned char[bytes];
    std::memcpy(entry.rawPixels, source->pixels, bytes);
  }
}

// Kilobytes of one field of /proc/self/status.
double StatusKilobytes(const char* field) {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind(field, 0) == 0) return std::stod(line.substr(std::strlen(field) + 1));
  }
  return 0.0;
}

// Peak resident memory above the start that `run` adds, in megabytes (the
// kernel's high-water mark, reset before the run). Memory the allocator or a
// thread still holds from earlier work can serve the run unseen, so this is a
// lower bound.
template <typename Run>
double PeakMegabytes(Run run) {
  malloc_trim(0);  // freed heap pages go back, so the run's growth shows
  std::ofstream("/proc/self/clear_refs") << "5";
  const double before = StatusKilobytes("VmRSS:");
  run();
  return (StatusKilobytes("VmHWM:") - before) / 1024.0;
}

double SwingMegabytes(const Pipeline& p) {
  double bytes = 0.0;
  for (int c = 0; c < 2; ++c) {
    for (const ClubImage* frame : p.frames[c]) bytes += double(frame->width) * frame->height;
  }
  return bytes / (1024.0 * 1024.0);
}

// DoNotOptimize is given pointers only: with a double lvalue the installed
// library's register constraint can hand back a corrupted value.

void BM_Find(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  ClubTracker tracker(p.recording.setting);
  ClubTrackerResult result;
  // The first call on a fresh result: its peak memory, results included.
  state.counters["peak_MB"] =
      PeakMegabytes([&] { tracker.Find(p.frames[0], p.frames[1], result, 0); });
  state.counters["swing_MB"] = SwingMegabytes(p);
  for (auto _ : state) {
    tracker.Find(p.frames[0], p.frames[1], result, 0);
    benchmark::DoNotOptimize(result.frames);
  }
  state.counters["frames"] = static_cast<double>(p.frames[0].size());
  state.counters["speed_mps"] = result.clubHeadSpeed * 1000.0;
}

// Find on one thread (TBB's and OpenCV's): the work of the call without the
// waits and the spinning of the workers, the steadier figure on a shared
// machine.
void BM_FindOneThread(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  ClubTracker tracker(p.recording.setting);
  ClubTrackerResult result;
  const tbb::global_control one(tbb::global_control::max_allowed_parallelism, 1);
  const int threads = cv::getNumThreads();
  cv::setNumThreads(1);
  tracker.Find(p.frames[0], p.frames[1], result, 0);
  for (auto _ : state) {
    tracker.Find(p.frames[0], p.frames[1], result, 0);
    benchmark::DoNotOptimize(result.frames);
  }
  cv::setNumThreads(threads);
  state.counters["speed_mps"] = result.clubHeadSpeed * 1000.0;
}

void BM_FindLiteral(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  ClubTracker tracker(p.recording.setting);
  ClubTracker found(p.recording.setting);
  ClubTrackerResult expected;
  found.Find(p.frames[0], p.frames[1], expected, 0);
  double speed = 0.0;
  for (auto _ : state) {
    ClubTrackerResult result;
    LiteralFind(tracker, p.frames, result);
    speed = result.clubHeadSpeed;
    benchmark::DoNotOptimize(result.frames);
  }
  if (std::memcmp(&speed, &expected.clubHeadSpeed, sizeof speed) != 0) {
    state.SkipWithError("the literal chain and Find disagree on the speed");
  }
  state.counters["speed_mps"] = speed * 1000.0;
}

// Find's analysis alone, with the process CPU time of each stage (all
// threads) and its wall time as counters; what BM_Find spends beyond their sum is the driver's
// own work (checks, pairing, the raw copies, the log).
void BM_AnalyseSwing(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  ClubTracker tracker(p.recording.setting);
  ClubTrackerResult result;
  static constexpr const char* kNames[] = {"pre", "cand", "presence", "heads", "lines", "",
                                           "spin", "shaft"};
  double seconds[std::size(kNames)] = {};
  double wallSeconds[std::size(kNames)] = {};
  SwingAnalysis analysis;
  // One call first, so that the result's buffers exist as they do for a
  // host's later swings: the stage times are those of a steady state.
  reference::AnalyseUpTo(tracker, p.frames[0], p.frames[1], SwingStage::kShaftAndHead, analysis,
                         nullptr, &result);
  for (auto _ : state) {
    analysis = SwingAnalysis();
    std::clock_t last = std::clock();
    auto lastWall = std::chrono::steady_clock::now();
    reference::AnalyseUpTo(tracker, p.frames[0], p.frames[1], SwingStage::kShaftAndHead, analysis,
                           [&](SwingStage stage, const SwingAnalysis&) {
                             const std::clock_t now = std::clock();
                             // Each pass's time counts with the lines.
                             const size_t index = stage == SwingStage::kLinesDone
                                                      ? static_cast<size_t>(SwingStage::kLinePass)
                                                      : static_cast<size_t>(stage);
                             seconds[index] += double(now - last) / CLOCKS_PER_SEC;
                             last = now;
                             const auto nowWall = std::chrono::steady_clock::now();
                             wallSeconds[index] +=
                                 std::chrono::duration<double>(nowWall - lastWall).count();
                             lastWall = nowWall;
                           },
                           &result);
  }
  for (size_t k = 0; k < std::size(kNames); ++k) {
    if (kNames[k][0] == '\0') continue;
    state.counters[std::string(kNames[k]) + "_ms"] =
        benchmark::Counter(seconds[k] * 1000.0, benchmark::Counter::kAvgIterations);
    state.counters[std::string(kNames[k]) + "_wall"] =
        benchmark::Counter(wallSeconds[k] * 1000.0, benchmark::Counter::kAvgIterations);
  }
  // What the spin-axis search of the last pass's lines went through.
  SpinAxisSearchStats stats;
  double point[3] = {0.0, 0.0, 0.0};
  ClubSpinAxis3D axis;
  SearchClubSpinAxis(p.recording.setting, point, analysis.cand[0], analysis.cand[1], axis, &stats);
  state.counters["pairs"] = static_cast<double>(stats.linePairs);
  state.counters["rejected"] = static_cast<double>(stats.pairsSurelyRejected);
  state.counters["hypotheses"] = static_cast<double>(stats.hypotheses);
  state.counters["refits"] = static_cast<double>(stats.refits + stats.refitsSurelyWorse);
}

#define FIND_BENCHMARKS(scene, name)                                                        \
  BENCHMARK_CAPTURE(BM_Find, name, scene)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime(); \
  BENCHMARK_CAPTURE(BM_FindOneThread, name, scene)->Unit(benchmark::kMillisecond); \
  BENCHMARK_CAPTURE(BM_FindLiteral, name, scene)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime(); \
  BENCHMARK_CAPTURE(BM_AnalyseSwing, name, scene)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime()

FIND_BENCHMARKS(Scene::kDefault, default_swing);
FIND_BENCHMARKS(Scene::kFar, far_swing);

}  // namespace
