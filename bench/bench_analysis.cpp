// Per-camera analysis stages on the default synthetic recording, camera 1:
// candidate areas, shaft lines at the default divisor, head sizes.
#include <vector>

#include <benchmark/benchmark.h>

#include "analysis/analysis.h"
#include "support/access.h"
#include "support/find_stages.h"
#include "synth/swing.h"

namespace {

using Access = ClubTrackerTestAccess;

// Camera 1 of the default recording taken through Find's analysis up to the
// head deletion, once for all benchmarks.
struct AnalysisInputs {
  synth::Recording recording;
  ClubTracker tracker;
  SwingAnalysis analysis;
  std::vector<PreprocessedImage*> pre;
  std::vector<CandidateAreaImage*> cand;  // head disc removed, no lines
  std::vector<cv::Mat> masks;             // refined masks
  std::vector<cv::Mat> edges;             // edge map per frame

  AnalysisInputs() : recording(synth::Render(synth::SwingScene{})), tracker(recording.setting) {
    reference::AnalyseUpTo(tracker, recording.Cam1(), recording.Cam2(),
                           SwingStage::kHeadsDeleted, analysis);
    pre = analysis.pre[0];
    cand = analysis.cand[0];
    // The refined masks are the thread's until its next analysis: copied.
    cv::Mat unpacked;
    for (size_t k = 0; k < analysis.refined[0]->masks.size(); ++k) {
      masks.push_back(analysis.refined[0]->Mask(k, unpacked).clone());
    }
    edges.resize(cand.size());
    for (size_t k = 0; k < cand.size(); ++k) ComputeShaftEdges(cand[k]->image, edges[k]);
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

// What the pipeline does instead of the passes above: cleaning, edges and
// votes once per frame (each pass then reads its lines from the votes). The
// argument is the votes' floor: 0 keeps every cell, 14 is the smallest
// threshold the passes can reach on this swing.
void BM_ShaftVotesOneCamera(benchmark::State& state) {
  AnalysisInputs& in = Inputs();
  HoughVotes votes;
  const int floor = static_cast<int>(state.range(0));
  for (auto _ : state) {
    for (size_t k = 0; k < in.cand.size(); ++k) {
      ComputeShaftVotes(in.cand[k]->image, votes, floor);
      benchmark::DoNotOptimize(&votes);
    }
  }
  state.counters["frames"] = static_cast<double>(in.cand.size());
}
BENCHMARK(BM_ShaftVotesOneCamera)->Arg(0)->Arg(14)->Unit(benchmark::kMillisecond);

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
