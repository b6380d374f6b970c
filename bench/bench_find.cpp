// Find on a whole synthetic swing, and the same swing split into the stages
// that Find runs one after the other: preprocessing, candidate areas,
// presence test with head sizes and head deletion, line passes, spin axis,
// shaft and head. Each stage is timed on the state the earlier stages left,
// prepared outside the timed loop.
#include <algorithm>
#include <cstring>
#include <malloc.h>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "analysis/binary_morphology.h"
#include "support/access.h"
#include "support/literal_presence.h"
#include "support/reference_spin_axis.h"
#include "synth/swing.h"
#include "tracker/find_lines.h"

namespace {

using Access = ClubTrackerTestAccess;

enum class Scene { kDefault, kFar };

synth::SwingScene SceneOf(Scene scene) {
  synth::SwingScene swing;
  if (scene == Scene::kFar) swing.placement = synth::Placement::kFar;  // 640 x 480 windows
  return swing;
}

// One swing carried through Find's stages; each member holds the state after
// the stage of its name. The synthetic swings pair one to one.
struct Pipeline {
  synth::Recording recording;
  ClubTracker tracker;
  std::vector<ClubImage*> frames[2];
  std::vector<std::unique_ptr<PreprocessedImage>> ownedPre;
  std::vector<PreprocessedImage*> pre[2];
  std::vector<std::unique_ptr<CandidateAreaImage>> ownedCand;
  std::vector<CandidateAreaImage*> cand[2];
  std::vector<cv::Mat> areaMasks[2];  // the candidate masks before the head deletion
  int head[2] = {0, 0};
  ClubSpinAxis3D axis;

  explicit Pipeline(Scene scene) : recording(synth::Render(SceneOf(scene))) {
    tracker.SetTrackerSetting(recording.setting);
    frames[0] = recording.Cam1();
    frames[1] = recording.Cam2();
    const size_t n = std::min(frames[0].size(), frames[1].size());
    for (int c = 0; c < 2; ++c) {
      frames[c].resize(n);
      for (ClubImage* frame : frames[c]) {
        ownedPre.push_back(std::make_unique<PreprocessedImage>());
        Access::Preprocessing(tracker, frame, ownedPre.back().get());
        pre[c].push_back(ownedPre.back().get());
      }
      Access::FindCandidateArea(tracker, pre[c], cand[c]);
      for (CandidateAreaImage* area : cand[c]) {
        ownedCand.emplace_back(area);
        areaMasks[c].push_back(area->image.clone());
      }
    }
    HeadDeletion(*this);
    LinePasses passes([this](CandidateAreaImage* a, float s) {
      return Access::GetLineThreshold(tracker, a, s);
    }, cand[0], cand[1]);
    do {
      passes.Extract();
      passes.Decide();
    } while (passes.Again());
    axis.firstFrame = 0;
    axis.secondFrame = 0;
    Access::FindClubSpinAxis(tracker, cand[0], cand[1], axis);
  }

  // Presence test, head sizes in parallel and head deletion, as Find runs them.
  static void HeadDeletion(Pipeline& p) {
    const size_t n = p.cand[0].size();
    std::vector<cv::Mat> masks[2] = {std::vector<cv::Mat>(n), std::vector<cv::Mat>(n)};
    int both = 0;
    for (size_t k = 0; k < n; ++k) {
      int present[2] = {0, 0};
      for (int c = 0; c < 2; ++c) RefineCandidateMask(p.cand[c][k]->image, masks[c][k], &present[c]);
      both += present[0] == 1 && present[1] == 1;
    }
    p.head[0] = p.head[1] = 0;
    if (both > 10) {
      for (int c = 0; c < 2; ++c) {
        std::vector<int> sizes;
        MeasureHeadSizes(p.tracker, p.cand[c], masks[c], sizes);
        p.head[c] = reference::AgreedHeadSize(sizes);
      }
    }
    for (size_t k = 0; k < n; ++k) {
      for (int c = 0; c < 2; ++c) Access::DeleteDriverHeadArea(p.tracker, p.cand[c][k], p.head[c]);
    }
  }

  // Puts the candidate masks back as the candidate-area stage left them.
  void RestoreMasks() {
    for (int c = 0; c < 2; ++c) {
      for (size_t k = 0; k < cand[c].size(); ++k) areaMasks[c][k].copyTo(cand[c][k]->image);
    }
  }

  // The lines of every frame, to put back after a stage that redoes them.
  struct Lines {
    std::vector<std::vector<cv::Vec2f>> lines[2];
  };
  Lines SaveLines() const {
    Lines saved;
    for (int c = 0; c < 2; ++c) {
      for (const CandidateAreaImage* area : cand[c]) saved.lines[c].push_back(area->lines);
    }
    return saved;
  }
  void RestoreLines(const Lines& saved) {
    for (int c = 0; c < 2; ++c) {
      for (size_t k = 0; k < cand[c].size(); ++k) cand[c][k]->lines = saved.lines[c][k];
    }
  }
};

Pipeline& PipelineOf(Scene scene) {
  static std::map<Scene, std::unique_ptr<Pipeline>> pipelines;
  std::unique_ptr<Pipeline>& pipeline = pipelines[scene];
  if (!pipeline) pipeline = std::make_unique<Pipeline>(scene);
  return *pipeline;
}

// Find's stages written out with plain OpenCV calls in their order, as first
// built: cv::morphologyEx for every cleaning step, cv::Canny and
// cv::HoughLines for every frame in every pass, the literal spin-axis search,
// fresh buffers everywhere.
void LiteralFind(ClubTracker& tracker, const std::vector<ClubImage*> (&frames)[2],
                 ClubTrackerResult& result) {
  std::vector<std::unique_ptr<PreprocessedImage>> ownedPre;
  std::vector<std::unique_ptr<CandidateAreaImage>> ownedCand;
  std::vector<CandidateAreaImage*> cand[2];
  for (int c = 0; c < 2; ++c) {
    std::vector<PreprocessedImage*> pre;
    for (ClubImage* frame : frames[c]) {
      ownedPre.push_back(std::make_unique<PreprocessedImage>());
      Access::Preprocessing(tracker, frame, ownedPre.back().get());
      pre.push_back(ownedPre.back().get());
    }
    Access::FindCandidateArea(tracker, pre, cand[c]);
    for (CandidateAreaImage* area : cand[c]) ownedCand.emplace_back(area);
  }
  const size_t n = cand[0].size();

  std::vector<cv::Mat> masks[2] = {std::vector<cv::Mat>(n), std::vector<cv::Mat>(n)};
  int both = 0;
  for (size_t k = 0; k < n; ++k) {
    int present[2] = {0, 0};
    for (int c = 0; c < 2; ++c) {
      present[c] = LiteralPresence(cand[c][k]->image, masks[c][k]);
    }
    both += present[0] == 1 && present[1] == 1;
  }
  int head[2] = {0, 0};
  if (both > 10) {
    for (int c = 0; c < 2; ++c) {
      std::vector<int> sizes;
      MeasureHeadSizes(tracker, cand[c], masks[c], sizes);
      head[c] = reference::AgreedHeadSize(sizes);
    }
  }
  for (size_t k = 0; k < n; ++k) {
    for (int c = 0; c < 2; ++c) Access::DeleteDriverHeadArea(tracker, cand[c][k], head[c]);
  }

  float lineSize[2] = {4.5f, 4.5f};
  int redo[2] = {1, 1};
  int passes = 0;
  int foundPair = 0;
  do {
    ++passes;
    for (int c = 0; c < 2; ++c) {
      if (redo[c] != 1) continue;
      const int before = Access::GetLineThreshold(tracker, cand[c][0], lineSize[c]);
      int after = 0;
      for (CandidateAreaImage* area : cand[c]) {
        if (area->afterImpact == 1 && after <= 0) {
          after = Access::GetLineThreshold(tracker, area, lineSize[c]);
        }
        cv::Mat work, edges;
        MorphologyChainLiteral(area->image, work,
                               {{cv::MORPH_OPEN, cv::MORPH_RECT, 3},
                                {cv::MORPH_CLOSE, cv::MORPH_RECT, 5},
                                {cv::MORPH_OPEN, cv::MORPH_ELLIPSE, 7}});
        cv::Canny(work, edges, 30.0, 40.0, 3, true);
        ExtractCandidatesFromEdges(area, edges, area->afterImpact == 1 ? after : before);
      }
    }
    redo[0] = redo[1] = 0;
    const int count[2] = {reference::CountLines(cand[0]), reference::CountLines(cand[1])};
    foundPair = 0;
    for (size_t k = 0; k < n; ++k) {
      foundPair += !cand[0][k]->lines.empty() && !cand[1][k]->lines.empty() &&
                   cand[0][k]->afterImpact == 0 && cand[1][k]->afterImpact == 0;
    }
    const int frames = static_cast<int>(n);
    if (passes < 10) {
      for (int c = 0; c < 2; ++c) {
        reference::AdaptLineSize(foundPair, count[c], frames, lineSize[c], redo[c], cand[c]);
      }
    } else if (!(count[0] >= 2 * frames && count[0] <= 4 * frames && count[1] >= 2 * frames &&
                 count[1] <= 4 * frames)) {
      foundPair = 0;
    }
  } while (redo[0] != 0 || redo[1] != 0);

  if (foundPair >= 3) {
    ClubSpinAxis3D axis;
    axis.firstFrame = 0;
    axis.secondFrame = 0;
    reference::FindClubSpinAxis(tracker.setting, tracker.referencePoint, nullptr, cand[0],
                                cand[1], axis);
    Access::FindShaftAndHead(tracker, cand[0], cand[1], axis, result);
  }
  if (result.clubHeadSpeed == 0.0) tracker.FindbyTemplate(frames[0], frames[1], result.clubHeadSpeed);
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

void BM_Preprocessing(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  std::vector<PreprocessedImage> records(p.frames[0].size() + p.frames[1].size());
  for (auto _ : state) {
    size_t r = 0;
    for (int c = 0; c < 2; ++c) {
      for (ClubImage* frame : p.frames[c]) Access::Preprocessing(p.tracker, frame, &records[r++]);
    }
    benchmark::ClobberMemory();
  }
}

void BM_CandidateAreas(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  for (auto _ : state) {
    for (int c = 0; c < 2; ++c) {
      std::vector<CandidateAreaImage*> made;
      Access::FindCandidateArea(p.tracker, p.pre[c], made);
      for (CandidateAreaImage* area : made) std::unique_ptr<CandidateAreaImage> release(area);
    }
  }
}

void BM_PresenceAndHeads(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  const Pipeline::Lines lines = p.SaveLines();
  for (auto _ : state) {
    state.PauseTiming();
    p.RestoreMasks();
    state.ResumeTiming();
    Pipeline::HeadDeletion(p);
  }
  p.RestoreLines(lines);
  state.counters["head1"] = p.head[0];
  state.counters["head2"] = p.head[1];
}

void BM_LinePasses(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  const Pipeline::Lines lines = p.SaveLines();
  int passes = 0;
  for (auto _ : state) {
    state.PauseTiming();
    for (int c = 0; c < 2; ++c) {
      for (CandidateAreaImage* area : p.cand[c]) area->lines.clear();
    }
    state.ResumeTiming();
    LinePasses run([&p](CandidateAreaImage* a, float s) {
      return Access::GetLineThreshold(p.tracker, a, s);
    }, p.cand[0], p.cand[1]);
    do {
      run.Extract();
      run.Decide();
    } while (run.Again());
    passes = run.pass();
  }
  p.RestoreLines(lines);
  state.counters["passes"] = passes;
}

void BM_SpinAxis(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  for (auto _ : state) {
    ClubSpinAxis3D axis;
    axis.firstFrame = 0;
    axis.secondFrame = 0;
    Access::FindClubSpinAxis(p.tracker, p.cand[0], p.cand[1], axis);
    benchmark::DoNotOptimize(axis.inliers.data());
  }
  size_t lines = 0;
  for (int c = 0; c < 2; ++c) {
    for (const CandidateAreaImage* area : p.cand[c]) lines += area->lines.size();
  }
  state.counters["lines"] = static_cast<double>(lines);
}

void BM_ShaftAndHead(benchmark::State& state, Scene scene) {
  Pipeline& p = PipelineOf(scene);
  ClubTrackerResult result;
  for (auto _ : state) {
    Access::FindShaftAndHead(p.tracker, p.cand[0], p.cand[1], p.axis, result);
    benchmark::DoNotOptimize(result.frames);
  }
  state.counters["inliers"] = static_cast<double>(p.axis.inliers.size());
}

#define FIND_BENCHMARKS(scene, name)                                                        \
  BENCHMARK_CAPTURE(BM_Find, name, scene)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime(); \
  BENCHMARK_CAPTURE(BM_FindLiteral, name, scene)->Unit(benchmark::kMillisecond)->MeasureProcessCPUTime(); \
  BENCHMARK_CAPTURE(BM_Preprocessing, name, scene)->Unit(benchmark::kMillisecond);         \
  BENCHMARK_CAPTURE(BM_CandidateAreas, name, scene)->Unit(benchmark::kMillisecond);        \
  BENCHMARK_CAPTURE(BM_PresenceAndHeads, name, scene)->Unit(benchmark::kMillisecond);      \
  BENCHMARK_CAPTURE(BM_LinePasses, name, scene)->Unit(benchmark::kMillisecond);            \
  BENCHMARK_CAPTURE(BM_SpinAxis, name, scene)->Unit(benchmark::kMillisecond);              \
  BENCHMARK_CAPTURE(BM_ShaftAndHead, name, scene)->Unit(benchmark::kMillisecond)

FIND_BENCHMARKS(Scene::kDefault, default_swing);
FIND_BENCHMARKS(Scene::kFar, far_swing);

}  // namespace
