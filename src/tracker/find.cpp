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
#include "tracker/find_lines.h"
#include "tracker/frame_pairing.h"
#include "tracker/records.h"
#include "tracker/validation_internal.h"

namespace {

using Clock = std::chrono::steady_clock;

// Takes the records that a stage appended to `made` into `owned`. Every record
// is owned once this returns or throws.
template <typename T>
void Adopt(const std::vector<T*>& made, std::vector<std::unique_ptr<T>>& owned) {
  try {
    owned.reserve(owned.size() + made.size());
  } catch (...) {
    for (T* record : made) std::unique_ptr<T> release(record);
    throw;
  }
  for (T* record : made) owned.emplace_back(record);  // capacity reserved: cannot throw
}

// The head size a camera's frames agree on: the element at two thirds of the
// sorted positive sizes; 0 when no frame gave one.
int AgreedHeadSize(std::vector<int>& sizes) {
  std::vector<int> positive;
  positive.reserve(sizes.size());
  for (const int size : sizes) {
    if (size > 0) positive.push_back(size);
  }
  std::fill(sizes.begin(), sizes.end(), 0);
  if (positive.empty()) return 0;
  std::sort(positive.begin(), positive.end());
  return positive[(2 * positive.size()) / 3];
}

// The refined masks of the presence test. They stay with the thread between
// calls, so a later swing of the same frame size writes into pages already
// mapped.
struct RefinedMasks {
  std::vector<cv::Mat> refined[2];
};

RefinedMasks& ThreadMasks() {
  thread_local RefinedMasks masks;
  return masks;
}

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

    // Working records. The owning lists free them on every way out; the
    // stages see plain pointer lists.
    std::vector<std::unique_ptr<PreprocessedImage>> ownedPre;
    std::vector<std::unique_ptr<CandidateAreaImage>> ownedCand;
    ownedPre.reserve(pairs1.size() + pairs2.size());
    std::vector<PreprocessedImage*> pre1;
    std::vector<PreprocessedImage*> pre2;
    for (const auto& [pairs, pre] : {std::pair{&pairs1, &pre1}, std::pair{&pairs2, &pre2}}) {
      pre->reserve(pairs->size());
      for (ClubImage* frame : *pairs) {
        ownedPre.push_back(std::make_unique<PreprocessedImage>());
        PreprocessedImage* record = ownedPre.back().get();
        Preprocessing(frame, record);
        pre->push_back(record);
      }
    }

    std::vector<CandidateAreaImage*> cand1;
    std::vector<CandidateAreaImage*> cand2;
    const auto findAreas = [&](const std::vector<PreprocessedImage*>& pre,
                               std::vector<CandidateAreaImage*>& cand) {
      int found = 0;
      try {
        found = FindCandidateArea(pre, cand);
      } catch (...) {
        Adopt(cand, ownedCand);
        throw;
      }
      Adopt(cand, ownedCand);
      return found;
    };
    if (findAreas(pre1, cand1) == 0) {
      Log("Cam1 FindCandidateArea failed\n");
      return 0;
    }
    if (findAreas(pre2, cand2) == 0) {
      Log("Cam2 FindCandidateArea failed\n");
      return 0;
    }
    if (cand1.size() != cand2.size()) return 0;
    const int n = static_cast<int>(cand1.size());

    // Presence test, frames spread over the cores (each touches only its own
    // slots).
    std::vector<cv::Mat>& masks1 = ThreadMasks().refined[0];
    std::vector<cv::Mat>& masks2 = ThreadMasks().refined[1];
    masks1.resize(static_cast<size_t>(n));
    masks2.resize(static_cast<size_t>(n));
    std::vector<int> present1(static_cast<size_t>(n), 0);
    std::vector<int> present2(static_cast<size_t>(n), 0);
    tbb::parallel_for(0, n, [&](int k) {
      RefineCandidateMask(cand1[k]->image, masks1[k], &present1[k]);
      RefineCandidateMask(cand2[k]->image, masks2[k], &present2[k]);
    });
    int bothPresent = 0;
    for (int k = 0; k < n; ++k) {
      if (present1[k] == 1 && present2[k] == 1) ++bothPresent;
    }

    // Driver-head size, measured in parallel over each camera's frames.
    int headValue1 = 0;
    int headValue2 = 0;
    if (bothPresent > 10) {
      std::vector<int> sizes(static_cast<size_t>(n), 0);
      MeasureHeadSizes(*this, cand1, masks1, sizes);
      headValue1 = AgreedHeadSize(sizes);
      sizes.assign(static_cast<size_t>(n), 0);
      MeasureHeadSizes(*this, cand2, masks2, sizes);
      headValue2 = AgreedHeadSize(sizes);
      if (headValue1 <= 0 || headValue2 <= 0) return 0;
    }

    for (int k = 0; k < n; ++k) {
      DeleteDriverHeadArea(cand1[k], headValue1);
      DeleteDriverHeadArea(cand2[k], headValue2);
    }
    if (timeUp()) return 0;

    // Adaptive line extraction. The masks stay as they are from here on, so
    // each frame's edge map is made once and serves every pass.
    int foundPair = 0;
    {
      LinePasses passes(
          [this](CandidateAreaImage* area, float lineSize) {
            return GetLineThreshold(area, lineSize);
          },
          cand1, cand2);
      do {
        passes.Extract();
        if (cand1.size() != cand2.size()) return 0;
        Log("cam1LineSize(%f - %d), cam2LineSize(%f - %d), foundPair:%d",
            static_cast<double>(passes.lineSize(0)), passes.lineCount(0),
            static_cast<double>(passes.lineSize(1)), passes.lineCount(1), passes.foundPair());
        passes.Decide();
        if (timeUp()) return 0;
      } while (passes.Again());
      foundPair = passes.foundPair();
    }

    // Spin axis, then shaft, head and speed.
    if (foundPair < 3) {
      Log("Cannot find enough line pairs.");
    } else {
      ClubSpinAxis3D spinAxis;
      spinAxis.firstFrame = 0;
      spinAxis.secondFrame = 0;
      clubtracker::CheckCalibration(setting, problems);
      logProblems();
      FindClubSpinAxis(cand1, cand2, spinAxis);
      if (timeUp()) return 0;
      FindShaftAndHead(cand1, cand2, spinAxis, result);
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
      for (int e = 0; e < result.frameCount; ++e) {
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
      }
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
