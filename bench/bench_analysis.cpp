// Per-camera analysis stages on the default synthetic recording, camera 1:
// candidate areas, shaft lines at the default divisor, head sizes.
#include <algorithm>
#include <memory>
#include <vector>

#include <benchmark/benchmark.h>

#include "analysis/analysis.h"
#include "support/access.h"
#include "synth/swing.h"

namespace {

using Access = ClubTrackerTestAccess;

// Camera 1 of the default recording taken through the stages up to the head
// deletion, once for all benchmarks.
struct AnalysisInputs {
  synth::Recording recording;
  ClubTracker tracker;
  std::vector<std::unique_ptr<PreprocessedImage>> owned;
  std::vector<PreprocessedImage*> pre;
  std::vector<CandidateAreaImage*> cand;  // head disc removed, no lines
  std::vector<cv::Mat> masks;             // refined masks
  std::vector<cv::Mat> edges;             // edge map per frame
  int headValue = 0;

  AnalysisInputs() : recording(synth::Render(synth::SwingScene{})), tracker(recording.setting) {
    for (ClubImage* image : recording.Cam1()) {
      owned.push_back(std::make_unique<PreprocessedImage>());
      Access::Preprocessing(tracker, image, owned.back().get());
      pre.push_back(owned.back().get());
    }
    Access::FindCandidateArea(tracker, pre, cand);
    masks.resize(cand.size());
    for (size_t k = 0; k < cand.size(); ++k) {
      int present = 0;
      RefineCandidateMask(cand[k]->image, masks[k], &present);
    }
    std::vector<int> sizes;
    MeasureHeadSizes(tracker, cand, masks, sizes);
    std::vector<int> positive;
    for (int s : sizes) {
      if (s > 0) positive.push_back(s);
    }
    std::sort(positive.begin(), positive.end());
    if (!positive.empty()) headValue = positive[(2 * positive.size()) / 3];
    for (CandidateAreaImage* c : cand) Access::DeleteDriverHeadArea(tracker, c, headValue);
    edges.resize(cand.size());
    for (size_t k = 0; k < cand.size(); ++k) ComputeShaftEdges(cand[k]->image, edges[k]);
  }
  ~AnalysisInputs() {
    for (CandidateAreaImage* c : cand) delete c;
  }
};

AnalysisInputs& Inputs() {
  static AnalysisInputs inputs;
  return inputs;
}

void BM_CandidateAreasOneCamera(benchmark::State& state) {
  AnalysisInputs& in = Inputs();
  std::vector<CandidateAreaImage*> out;
  out.reserve(in.pre.size());
  for (auto _ : state) {
    Access::FindCandidateArea(in.tracker, in.pre, out);
    benchmark::DoNotOptimize(out.data());
    state.PauseTiming();
    for (CandidateAreaImage* c : out) delete c;
    out.clear();
    state.ResumeTiming();
  }
  state.counters["frames"] = static_cast<double>(in.pre.size());
}
BENCHMARK(BM_CandidateAreasOneCamera)->Unit(benchmark::kMillisecond);

// Threshold and lines for every frame, as one pass of the adaptive extraction
// makes them (morphology and edge map included).
void BM_LineExtractionOneCamera(benchmark::State& state) {
  AnalysisInputs& in = Inputs();
  int lines = 0;
  for (auto _ : state) {
    const int t0 = Access::GetLineThreshold(in.tracker, in.cand[0], 4.5f);
    int tAfter = 0;
    for (CandidateAreaImage* c : in.cand) {
      c->lines.clear();
      if (c->afterImpact == 1) {
        if (tAfter <= 0) tAfter = Access::GetLineThreshold(in.tracker, c, 4.5f);
        Access::ExtractCandidates(in.tracker, c, tAfter);
      } else {
        Access::ExtractCandidates(in.tracker, c, t0);
      }
    }
    lines = 0;
    for (const CandidateAreaImage* c : in.cand) lines += static_cast<int>(c->lines.size());
    benchmark::DoNotOptimize(lines);
  }
  state.counters["lines"] = lines;
}
BENCHMARK(BM_LineExtractionOneCamera)->Unit(benchmark::kMillisecond);

// The same pass on edge maps kept from an earlier pass: what every further
// pass of the adaptive extraction costs.
void BM_LineExtractionOneCameraCachedEdges(benchmark::State& state) {
  AnalysisInputs& in = Inputs();
  for (auto _ : state) {
    const int t0 = Access::GetLineThreshold(in.tracker, in.cand[0], 4.5f);
    int tAfter = 0;
    for (size_t k = 0; k < in.cand.size(); ++k) {
      CandidateAreaImage* c = in.cand[k];
      c->lines.clear();
      if (c->afterImpact == 1) {
        if (tAfter <= 0) tAfter = Access::GetLineThreshold(in.tracker, c, 4.5f);
        ExtractCandidatesFromEdges(c, in.edges[k], tAfter);
      } else {
        ExtractCandidatesFromEdges(c, in.edges[k], t0);
      }
    }
    benchmark::DoNotOptimize(in.cand[0]->lines.data());
  }
}
BENCHMARK(BM_LineExtractionOneCameraCachedEdges)->Unit(benchmark::kMillisecond);

void BM_HeadSizesOneCamera(benchmark::State& state) {
  AnalysisInputs& in = Inputs();
  std::vector<int> sizes;
  for (auto _ : state) {
    MeasureHeadSizes(in.tracker, in.cand, in.masks, sizes);
    benchmark::DoNotOptimize(sizes.data());
  }
  state.counters["frames"] = static_cast<double>(in.cand.size());
}
BENCHMARK(BM_HeadSizesOneCamera)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
