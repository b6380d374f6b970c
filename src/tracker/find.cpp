// The Find pipeline driver: pairs the two cameras' frames, runs every stage on
// them and fills the result.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <tbb/parallel_for.h>

#include "analysis/analysis.h"
#include "analysis/frame_buffers.h"
#include "tracker/analyse_swing.h"
#include "tracker/frame_pairing.h"
#include "tracker/records.h"
#include "tracker/validation_internal.h"

namespace {

using Clock = std::chrono::steady_clock;

// One line of text without line breaks, for the failure log line.
std::string OneLine(const char* text) {
  std::string line = text != nullptr ? text : "";
  for (char& c : line) {
    if (c == '\n' || c == '\r') c = ' ';
  }
  while (!line.empty() && line.back() == ' ') line.pop_back();
  return line;
}

}  // namespace

int ClubTracker::Find(std::vector<ClubImage*> cam1Images, std::vector<ClubImage*> cam2Images,
                      ClubTrackerResult& result, unsigned int timeLimit) {
  try {
    Log("ClubTracker::Find start");
    const Clock::time_point start = Clock::now();
    const double limit = timeLimit != 0 ? static_cast<double>(timeLimit)
                                        : std::numeric_limits<double>::max();
    const auto timeUp = [&start, limit] {
      return std::chrono::duration<double>(Clock::now() - start).count() > limit;
    };

    if (cam1Images.empty() || cam2Images.empty()) return 0;
    for (const std::vector<ClubImage*>* images : {&cam1Images, &cam2Images}) {
      if (std::find(images->begin(), images->end(), nullptr) != images->end()) {
        Log("ClubTracker::Find: a camera's frame list holds a null frame");
        return 0;
      }
    }
    // One line per problem of the input; the run goes on as it would anyway.
    std::vector<std::string> problems;
    const auto logProblems = [this, &problems] {
      for (const std::string& problem : problems) Log("ClubTracker::Find: %s", problem.c_str());
      problems.clear();
    };
    clubtracker::ValidateFrames(cam1Images, cam2Images, problems);
    clubtracker::CheckGeometry(setting, cam1Images, cam2Images, problems);
    logProblems();

    std::vector<ClubImage*> pairs1;
    std::vector<ClubImage*> pairs2;
    PairFrames(cam1Images, cam2Images, pairs1, pairs2);

    // The tracker's stages as the analysis reaches them.
    struct Stages {
      static int Preprocessing(ClubTracker& t, ClubImage* s, PreprocessedImage* p) {
        return t.Preprocessing(s, p);
      }
      static int FindCandidateArea(ClubTracker& t, const std::vector<PreprocessedImage*>& f,
                                   std::vector<CandidateAreaImage*>& c) {
        // No later stage reads the frames: their buffers take the masks.
        return FindCandidateAreaReleasingFrames(t, f, c, ThreadFrameBuffers());
      }
      static int GetLineThreshold(ClubTracker& t, CandidateAreaImage* c, float divisor) {
        return t.GetLineThreshold(c, divisor);
      }
      static int DeleteDriverHeadArea(ClubTracker& t, CandidateAreaImage* c, int radius) {
        return t.DeleteDriverHeadArea(c, radius);
      }
      static int FindClubSpinAxis(ClubTracker& t, const std::vector<CandidateAreaImage*>& a,
                                  const std::vector<CandidateAreaImage*>& b,
                                  ClubSpinAxis3D& axis) {
        return t.FindClubSpinAxis(a, b, axis);
      }
      static int FindShaftAndHead(ClubTracker& t, const std::vector<CandidateAreaImage*>& a,
                                  const std::vector<CandidateAreaImage*>& b,
                                  const ClubSpinAxis3D& axis, ClubTrackerResult& r) {
        return t.FindShaftAndHead(a, b, axis, r);
      }
    };
    // The driver's log lines and time checks between the stages.
    const auto hook = [&](SwingStage stage, const SwingAnalysis& a) {
      switch (stage) {
        case SwingStage::kCandidateAreas:
          if (a.failedCamera != 0) Log("Cam%d FindCandidateArea failed\n", a.failedCamera);
          return true;
        case SwingStage::kLinePass:
          Log("cam1LineSize(%f - %d), cam2LineSize(%f - %d), foundPair:%d",
              static_cast<double>(a.lineSize[0]), a.lineCount[0],
              static_cast<double>(a.lineSize[1]), a.lineCount[1], a.foundPair);
          return !timeUp();
        case SwingStage::kLinesDone:
          if (a.foundPair < 3) {
            Log("Cannot find enough line pairs.");
          } else {
            clubtracker::CheckCalibration(setting, problems);
            logProblems();
          }
          return true;
        case SwingStage::kHeadsDeleted:
        case SwingStage::kSpinAxis:
          return !timeUp();
        default:
          return true;
      }
    };
    SwingAnalysis analysis;
    analysis.frameBuffers = &ThreadFrameBuffers();
    if (!AnalyseSwing(*this, StagesOf<Stages>(), pairs1, pairs2, &result, hook, analysis)) {
      return 0;
    }

    // Club-speed fall-back through the virtual table.
    if (result.clubHeadSpeed == 0.0) {
      if (timeUp()) return 0;
      Log("Calculate clubspeed again.");
      this->FindbyTemplate(pairs1, pairs2, result.clubHeadSpeed);
    }
    if (std::isnan(result.clubHeadSpeed)) result.clubHeadSpeed = 0.0;

    // Raw pixels of every paired frame whose size matches its entry, camera
    // 1's frames first.
    if (result.frames != nullptr && result.frameCount > 0) {
      // Entries spread over the cores: each touches only its own buffer.
      tbb::parallel_for(0, result.frameCount, [&](int e) {
        const size_t index = static_cast<size_t>(e);
        ClubImage* source = nullptr;
        if (index < pairs1.size()) {
          source = pairs1[index];
        } else if (index - pairs1.size() < pairs2.size()) {
          source = pairs2[index - pairs1.size()];
        }
        ClubFrameResult& entry = result.frames[e];
        if (source != nullptr && source->pixels != nullptr &&
            source->width == entry.image.width && source->height == entry.image.height) {
          // A buffer the entry already holds has its image's size.
          const size_t bytes = static_cast<size_t>(entry.image.width) * entry.image.height;
          if (entry.rawPixels == nullptr) {
            entry.rawPixels = new unsigned char[bytes];  // released by the entry
          }
          if (bytes > 0) std::memcpy(entry.rawPixels, source->pixels, bytes);
        } else {
          delete[] entry.rawPixels;
          entry.rawPixels = nullptr;
        }
      });
    }

    const double elapsedMs =
        std::chrono::duration<double>(Clock::now() - start).count() * 1000.0;
    Log("Clubtracker::Find end. Processing Time : %f\n", elapsedMs);
    return 0;
  } catch (const cv::Exception& e) {
    try {
      Log("ClubTracker::Find failed: OpenCV error: %s", OneLine(e.what()).c_str());
    } catch (...) {
    }
  } catch (const std::bad_alloc&) {
    try {
      Log("ClubTracker::Find failed: out of memory");
    } catch (...) {
    }
  } catch (const std::exception& e) {
    try {
      Log("ClubTracker::Find failed: %s", OneLine(e.what()).c_str());
    } catch (...) {
    }
  } catch (...) {
    try {
      Log("ClubTracker::Find failed: unknown error");
    } catch (...) {
    }
  }
  return 0;
}
