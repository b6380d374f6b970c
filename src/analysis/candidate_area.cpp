// Candidate-area masks: the pixels of each frame that changed against an
// earlier and against a later reference frame of the same camera.
#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <memory>

#include <opencv2/core/hal/intrin.hpp>
#include <opencv2/imgproc.hpp>
#include <tbb/parallel_for.h>
#include <tbb/task_arena.h>

#include "analysis/analysis.h"
#include "analysis/frame_buffers.h"

namespace {

// Two frames can be differenced when they have the same size and come from
// the same window of the sensor. (Preprocessed frames are all 8-bit grey; the
// type test only keeps a malformed frame from being differenced.)
bool Matches(const PreprocessedImage* a, const PreprocessedImage* b) {
  return a != nullptr && b != nullptr && a->image.rows == b->image.rows &&
         a->image.cols == b->image.cols && a->sensorOffsetX == b->sensorOffsetX &&
         a->sensorOffsetY == b->sensorOffsetY && a->image.type() == b->image.type();
}

// Whether `later` lies far enough after `earlier`. The gap is taken on the low
// 32 bits of the time stamps and wraps; the after-impact interval applies as
// soon as either frame is after the impact.
bool GapLargeEnough(const PreprocessedImage& earlier, const PreprocessedImage& later,
                    const ClubTrackerSetting& setting) {
  const uint32_t gap =
      static_cast<uint32_t>(later.timeStamp) - static_cast<uint32_t>(earlier.timeStamp);
  const int32_t interval = (earlier.afterImpact != 0 || later.afterImpact != 0)
                               ? setting.timeStampIntervalAfterImpact
                               : setting.timeStampIntervalBeforeImpact;
  return gap > static_cast<uint32_t>(interval);
}

// Earlier reference of frame i. The timed scan stops before index 0, which is
// reached only through the fallback (it has always behaved this way). The
// fallback takes the last matching frame, frame i itself at worst.
int EarlierReference(const std::vector<PreprocessedImage*>& frames, int i,
                     const ClubTrackerSetting& setting) {
  const PreprocessedImage* frame = frames[i];
  for (int j = i - 1; j >= 1; --j) {
    if (Matches(frame, frames[j]) && GapLargeEnough(*frames[j], *frame, setting)) return j;
  }
  for (int j = static_cast<int>(frames.size()) - 1; j >= 0; --j) {
    if (Matches(frame, frames[j])) return j;
  }
  return i;
}

// Later reference of frame i; the fallback takes the first matching frame.
int LaterReference(const std::vector<PreprocessedImage*>& frames, int i,
                   const ClubTrackerSetting& setting) {
  const PreprocessedImage* frame = frames[i];
  const int n = static_cast<int>(frames.size());
  for (int k = i + 1; k < n; ++k) {
    if (Matches(frame, frames[k]) && GapLargeEnough(*frame, *frames[k], setting)) return k;
  }
  for (int k = 0; k < n; ++k) {
    if (Matches(frame, frames[k])) return k;
  }
  return i;
}

// Pixels that differ by 2 grey levels or more (for 8-bit matrices cv::abs of
// the difference expression is the absolute difference).
cv::Mat ChangedPixels(const cv::Mat& image, const cv::Mat& reference) {
  cv::Mat changed;
  cv::threshold(cv::abs(image - reference), changed, 1.0, 255.0, cv::THRESH_BINARY);
  return changed;
}

// Pixel count of a 0/255 mask, truncated and then taken in single precision.
float MaskCount(const cv::Mat& mask) {
  return static_cast<float>(static_cast<int64_t>(cv::sum(mask)[0] / 255.0));
}

// First bin at which the running sum exceeds half the pixel count; 0 if none.
int HistogramMedian(const uint32_t (&histogram)[256], int64_t pixelCount) {
  const int64_t half = pixelCount / 2;
  int64_t running = 0;
  for (int bin = 0; bin < 256; ++bin) {
    running += histogram[bin];
    if (running > half) return bin;
  }
  return 0;
}

// A frame that changed almost everywhere (global brightness change) is
// differenced again against references scaled by the ratio of the mask's own
// median (255 here) to the earlier reference's median; it is blanked when
// that does not help. The later reference's median plays no part.
void CompensateBrightness(const cv::Mat& image, const cv::Mat& earlier, const cv::Mat& later,
                          float area, cv::Mat& mask) {
  uint32_t maskHistogram[256] = {};
  uint32_t earlierHistogram[256] = {};
  for (int r = 0; r < mask.rows; ++r) {
    const uchar* m = mask.ptr<uchar>(r);
    const uchar* p = earlier.ptr<uchar>(r);
    for (int c = 0; c < mask.cols; ++c) {
      ++maskHistogram[m[c]];
      ++earlierHistogram[p[c]];
    }
  }
  const int64_t pixelCount = static_cast<int64_t>(mask.rows) * mask.cols;
  const int maskMedian = HistogramMedian(maskHistogram, pixelCount);
  const int earlierMedian = HistogramMedian(earlierHistogram, pixelCount);
  // A zero median gives an infinite ratio; the scaling below saturates then.
  const float ratio = static_cast<float>(maskMedian) / static_cast<float>(earlierMedian);

  const cv::Mat scaledEarlier = earlier * ratio;
  const cv::Mat scaledLater = later * ratio;
  mask = ChangedPixels(image, scaledEarlier) & ChangedPixels(image, scaledLater);
  if (MaskCount(mask) > area * 0.75f) mask.setTo(cv::Scalar::all(0));
}

// Whether a float converts to int without overflow.
bool FitsInt(float value) { return value > -2147483648.0f && value < 2147483648.0f; }

void PaintBall(CandidateAreaImage& record) {
  if (!(record.ballRadius > 0.0f)) return;
  const float x = std::roundf(record.ballX);
  const float y = std::roundf(record.ballY);
  if (!FitsInt(x) || !FitsInt(y) || !FitsInt(record.ballRadius)) return;
  const int radius = static_cast<int>(record.ballRadius);
  cv::circle(record.image, cv::Point(static_cast<int>(x), static_cast<int>(y)), radius,
             cv::Scalar(0, 0, 0, 0), -1, 8, 0);
}

}  // namespace

int64_t ChangeMask(const cv::Mat& image, const cv::Mat& earlier, const cv::Mat& later,
                   cv::Mat& mask) {
  CV_Assert(image.type() == CV_8UC1 && earlier.type() == CV_8UC1 && later.type() == CV_8UC1);
  CV_Assert(image.size() == earlier.size() && image.size() == later.size());
  mask.create(image.size(), CV_8UC1);
  int64_t count = 0;
  for (int r = 0; r < image.rows; ++r) {
    const uchar* a = image.ptr<uchar>(r);
    const uchar* e = earlier.ptr<uchar>(r);
    const uchar* l = later.ptr<uchar>(r);
    uchar* m = mask.ptr<uchar>(r);
    int c = 0;
#if CV_SIMD128
    // Set where the smaller of the two differences exceeds 1. Each lane of
    // `tally` counts its set pixels (a set byte is -1) for up to 255 vectors.
    const cv::v_uint8x16 one = cv::v_setall_u8(1);
    cv::v_uint8x16 tally = cv::v_setzero_u8();
    const auto flush = [&] {
      cv::v_uint16x8 low, high;
      cv::v_expand(tally, low, high);
      count += cv::v_reduce_sum(low + high);
      tally = cv::v_setzero_u8();
    };
    for (int pending = 0; c + 16 <= image.cols; c += 16) {
      const cv::v_uint8x16 pixel = cv::v_load(a + c);
      const cv::v_uint8x16 least = cv::v_min(cv::v_absdiff(pixel, cv::v_load(e + c)),
                                             cv::v_absdiff(pixel, cv::v_load(l + c)));
      const cv::v_uint8x16 set = least > one;
      cv::v_store(m + c, set);
      tally = cv::v_sub_wrap(tally, set);
      if (++pending == 255) {
        flush();
        pending = 0;
      }
    }
    flush();
#endif
    for (; c < image.cols; ++c) {
      const int de = a[c] > e[c] ? a[c] - e[c] : e[c] - a[c];
      const int dl = a[c] > l[c] ? a[c] - l[c] : l[c] - a[c];
      const int set = (de > 1) & (dl > 1);
      m[c] = static_cast<uchar>(set * 255);
      count += set;
    }
  }
  return count;
}

namespace {

// Frame i's record: its change mask against its two references (indices into
// frames), brightness compensated when it changed almost everywhere, then its
// metadata and the ball painted out.
void MakeCandidateArea(const std::vector<PreprocessedImage*>& frames, int i, int earlierIndex,
                       int laterIndex, CandidateAreaImage* record) {
  const PreprocessedImage* frame = frames[i];
  const cv::Mat& image = frame->image;
  if (image.type() == CV_8UC1 && !image.empty()) {
    const cv::Mat& earlier = frames[earlierIndex]->image;
    const cv::Mat& later = frames[laterIndex]->image;
    const int64_t changed = ChangeMask(image, earlier, later, record->image);

    // The pixel count taken in single precision.
    const float area = static_cast<float>(image.rows * image.cols);
    if (static_cast<float>(changed) > area * 0.75f) {
      CompensateBrightness(image, earlier, later, area, record->image);
    }
  } else if (!image.empty()) {
    // Not an 8-bit grey frame: nothing can be differenced.
    record->image = cv::Mat::zeros(image.rows, image.cols, CV_8UC1);
  }
  CopyMetadata(*record, *frame);
  PaintBall(*record);
}

// The candidate areas of `frames` appended to `candidates`, frames spread over
// the cores (each writes only its own record). With `buffers`, the masks take
// its buffers, and a frame's image is given back as soon as the last record
// that reads it is made, so that the frames and the masks need about one
// buffer per frame (only when every frame is its own record: a frame listed
// twice keeps its image).
int MakeCandidateAreas(const ClubTrackerSetting& setting,
                       const std::vector<PreprocessedImage*>& frames,
                       std::vector<CandidateAreaImage*>& candidates, FrameBuffers* buffers) {
  const int n = static_cast<int>(frames.size());
  candidates.reserve(candidates.size() + frames.size());
  const size_t first = candidates.size();
  for (int i = 0; i < n; ++i) {
    auto record = std::make_unique<CandidateAreaImage>();
    candidates.push_back(record.get());  // capacity reserved: cannot throw
    record.release();
  }
  // The references of every frame, found before any image is released; and
  // how many records read each frame.
  std::vector<int> earlier(frames.size(), 0), later(frames.size(), 0);
  std::vector<std::atomic<int>> readers(frames.size());
  for (int i = 0; i < n; ++i) {
    const PreprocessedImage* frame = frames[i];
    if (frame == nullptr) continue;
    earlier[i] = later[i] = i;
    if (frame->image.type() == CV_8UC1 && !frame->image.empty()) {
      earlier[i] = EarlierReference(frames, i, setting);
      later[i] = LaterReference(frames, i, setting);
    }
    for (const int j : {i, earlier[i], later[i]}) readers[j].fetch_add(1, std::memory_order_relaxed);
  }
  bool release = buffers != nullptr;
  if (release) {
    std::vector<PreprocessedImage*> sorted(frames);
    std::sort(sorted.begin(), sorted.end());
    release = std::adjacent_find(sorted.begin(), sorted.end()) == sorted.end();
  }
  const auto make = [&](int i) {
    const PreprocessedImage* frame = frames[i];
    if (frame == nullptr) return;
    CandidateAreaImage* record = candidates[first + static_cast<size_t>(i)];
    if (buffers != nullptr && frame->image.type() == CV_8UC1 && !frame->image.empty()) {
      buffers->Lend(record->image, frame->image.size());
    }
    MakeCandidateArea(frames, i, earlier[i], later[i], record);
    if (!release) return;
    for (const int j : {i, earlier[i], later[i]}) {
      if (readers[j].fetch_sub(1, std::memory_order_acq_rel) == 1) {
        buffers->GiveBack(frames[j]->image);
      }
    }
  };
  if (!release) {
    tbb::parallel_for(0, n, make);
    return 1;
  }
  // Released frames: the workers take the frames in their order, so the
  // frames still read are a few about the ones being made (split into
  // halves, each half would hold its references at once).
  std::atomic<int> next{0};
  tbb::parallel_for(0, tbb::this_task_arena::max_concurrency(), [&](int) {
    for (int i = next.fetch_add(1); i < n; i = next.fetch_add(1)) make(i);
  });
  return 1;
}

}  // namespace

int ClubTracker::FindCandidateArea(const std::vector<PreprocessedImage*>& frames,
                                   std::vector<CandidateAreaImage*>& candidates) {
  return MakeCandidateAreas(setting, frames, candidates, nullptr);
}

int FindCandidateAreaReleasingFrames(ClubTracker& tracker,
                                     const std::vector<PreprocessedImage*>& frames,
                                     std::vector<CandidateAreaImage*>& candidates,
                                     FrameBuffers& buffers) {
  return MakeCandidateAreas(tracker.setting, frames, candidates, &buffers);
}
