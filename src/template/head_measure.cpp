// The whole head measurement: locate, track, triangulate, fit.

#include "template/head_tracker.h"

#include <algorithm>
#include <cmath>
#include <exception>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "template/head_common.h"

namespace headtrack {

using namespace detail;

namespace {

// Samples of a lower quality are fitted only when fewer than this many of a
// better one exist.
constexpr int kMinBestSamples = 4;
// With at least this many samples, one whose residual exceeds kOutlierFactor
// times the others' is dropped.
constexpr int kMinSamplesForOutlier = 5;
constexpr double kOutlierFactor = 4.0;
// The fit describes the samples when its residual stays below this fraction of
// the head's travel between two frames.
constexpr double kMaxResidualPerStep = 0.25;
// Triangulated rays of a matched pair pass closer than this fraction of the
// travel between two frames.
constexpr double kMaxRayGapPerStep = 0.5;

// The time at which the speed is taken: when the fitted path passes closest
// to the ball (the head's centre meets the ball's at the impact), between the
// last frame before the impact and the first after it; their middle when the
// ball is not known.
void FindImpactTime(const std::vector<CameraFrame>& frames1, int lastBefore, HeadMeasurement& m) {
  const double tLast = frames1[lastBefore].time;
  const size_t first = m.fitted.size() - m.fit.samples;
  const double meanStep = (m.fitted.back().time - m.fitted[first].time) / (m.fit.samples - 1);
  double tEnd = tLast + meanStep;
  for (size_t i = static_cast<size_t>(lastBefore) + 1; i < frames1.size(); ++i) {
    if (frames1[i].afterImpact) {
      tEnd = frames1[i].time;
      break;
    }
  }
  m.impactTime = 0.5 * (tLast + tEnd);
  m.impactFromBall = false;
  if (!m.hasBall) return;
  double t = m.impactTime;
  for (int iteration = 0; iteration < 8; ++iteration) {
    const cv::Vec3d d = m.fit.Position(t) - m.ball;
    const cv::Vec3d v = m.fit.Velocity(t);
    const double curvature = v.dot(v) + d.dot(2.0 * m.fit.c);
    if (!(curvature > 0.0)) return;
    t -= d.dot(v) / curvature;
  }
  if (!std::isfinite(t)) return;
  m.impactTime = std::clamp(t, tLast, tEnd);
  m.impactFromBall = true;
}

// Runs body(0) and body(1), one task per camera.
template <typename Body>
void ForBothCameras(const Body& body) {
  tbb::parallel_for(tbb::blocked_range<int>(0, 2, 1), [&](const tbb::blocked_range<int>& range) {
    for (int c = range.begin(); c != range.end(); ++c) body(c);
  });
}

// Image velocity of the head from its silhouettes in two frames.
bool HintVelocity(const std::vector<CameraFrame>& frames, const cv::Mat& background,
                  const cv::Mat& halfBackground, const BallModel& ball, int at, int other,
                  const HeadBlob& blob, cv::Point2d& velocity) {
  HeadBlob second;
  if (other < 0 || other >= static_cast<int>(frames.size()) || other == at) return false;
  if (!LocateHead(frames[other], background, halfBackground, ball, true, second)) return false;
  const double dt = frames[at].time - frames[other].time;
  if (dt == 0.0) return false;
  velocity = (blob.outline.centre - second.outline.centre) * (1.0 / dt);
  return true;
}

HeadMeasurement Measure(const std::vector<ClubImage*>& cam1, const std::vector<ClubImage*>& cam2,
                        const ClubTrackerSetting& setting) {
  HeadMeasurement m;
  std::vector<const ClubImage*> pairs1;
  std::vector<const ClubImage*> pairs2;
  PairFrames(cam1, cam2, pairs1, pairs2);
  if (pairs1.empty()) {
    m.status = Status::kTooFewPairs;
    return m;
  }
  const uint64_t reference = pairs1.front()->timeStamp;
  // The two cameras are worked on side by side, each task on its own slots.
  const std::vector<const ClubImage*>* pairs[2] = {&pairs1, &pairs2};
  std::vector<CameraFrame> frames[2];
  bool readable[2] = {false, false};
  ForBothCameras(
      [&](int c) { readable[c] = PrepareFrames(*pairs[c], setting, reference, frames[c]); });
  if (!readable[0] || !readable[1]) {
    m.status = Status::kBadFrame;
    return m;
  }
  for (size_t i = 0; i < frames[0].size(); ++i) {
    if (!frames[0][i].afterImpact && !frames[1][i].afterImpact) {
      m.list.push_back(static_cast<int>(i));
    }
  }
  const std::vector<int>& before = m.list;
  m.beforeImpactPairs = static_cast<int>(before.size());
  if (before.size() < 3) {
    m.status = Status::kTooFewPairs;
    return m;
  }

  // Before the impact the ball rests in its place: it belongs to the
  // background there, whatever the later frames show.
  cv::Mat background[2];
  cv::Mat halfBackground[2];
  BallModel ball[2];
  ForBothCameras([&](int c) {
    background[c] = MakeBackground(frames[c]);
    ball[c] = MakeBallModel(frames[c]);
    if (!background[c].empty() && ball[c].radius > 0.0) {
      ball[c].look.copyTo(background[c](ball[c].box));
    }
    if (!background[c].empty()) halfBackground[c] = Half(background[c]);
  });

  // Start where both cameras show the head clearly, as late as possible.
  // When the head is near the ball in every frame (the cameras see only the
  // last moments before the impact), a head beside the ball will do.
  int start = -1;
  HeadBlob blob[2];
  for (int pass = 0; pass < 2 && start < 0; ++pass) {
    const bool strict = pass == 0;
    for (int s = static_cast<int>(before.size()) - 1; s >= 0 && start < 0; --s) {
      bool found[2] = {false, false};
      ForBothCameras([&](int c) {
        found[c] = LocateHead(frames[c][before[s]], background[c], halfBackground[c], ball[c],
                              strict, blob[c]);
      });
      if (found[0] && found[1]) start = s;
    }
  }
  if (start < 0) {
    m.status = Status::kHeadNotFound;
    return m;
  }
  m.startPair = before[start];

  // Both cameras follow the head to the last frame before the impact, and back
  // from the start as far as the fit needs. The head in a neighbouring frame
  // gives the motion to predict from.
  const int neighbour = before[start > 0 ? start - 1 : start + 1];
  CameraTrack* tracks[2] = {&m.track1, &m.track2};
  ForBothCameras([&](int c) {
    cv::Point2d hint;
    const bool hinted =
        HintVelocity(frames[c], background[c], halfBackground[c], ball[c], before[start],
                     neighbour, blob[c], hint);
    TrackHead(frames[c], background[c], ball[c], before, start, blob[c],
              hinted ? &hint : nullptr, kFitWindow, *tracks[c]);
  });
  const std::vector<CameraFrame>& frames1 = frames[0];
  const std::vector<CameraFrame>& frames2 = frames[1];
  for (size_t j = 0; j < before.size(); ++j) {
    m.tracked1 += m.track1.tracked[j];
    m.tracked2 += m.track2.tracked[j];
  }
  const StereoRig rig = MakeStereoRig(setting);
  m.samples = TriangulateTrack(rig, frames1, frames2, before, m.track1, m.track2);
  m.trackedBoth = static_cast<int>(m.samples.size());
  // The fit takes the samples measured on the head's outline (whole, or
  // partly hidden by the ball) when there are enough of them: a position from
  // a template alone drifts as the head's look changes.
  for (int quality = kByPartialOutline; quality >= kByTemplate && m.fitted.empty(); --quality) {
    int count = 0;
    for (const HeadSample& sample : m.samples) count += sample.quality >= quality ? 1 : 0;
    if (count < kMinBestSamples && quality > kByTemplate) continue;
    for (const HeadSample& sample : m.samples) {
      if (sample.quality >= quality) m.fitted.push_back(sample);
    }
  }
  if (!FitPath(m.fitted, kFitWindow, kQuadraticFrom, m.fit)) {
    m.status = Status::kTooFewTracked;
    return m;
  }
  // One sample far off the others' path is dropped.
  if (m.fit.samples >= kMinSamplesForOutlier) {
    const size_t first = m.fitted.size() - m.fit.samples;
    size_t worst = first;
    double worstResidual = 0.0;
    double sum = 0.0;
    for (size_t i = first; i < m.fitted.size(); ++i) {
      const double r = cv::norm(m.fitted[i].point - m.fit.Position(m.fitted[i].time));
      sum += r * r;
      if (r > worstResidual) {
        worstResidual = r;
        worst = i;
      }
    }
    const double others =
        std::sqrt((sum - worstResidual * worstResidual) / (m.fit.samples - 1));
    if (worstResidual > kOutlierFactor * others) {
      m.fitted.erase(m.fitted.begin() + static_cast<std::ptrdiff_t>(worst));
      if (!FitPath(m.fitted, kFitWindow, kQuadraticFrom, m.fit)) {
        m.status = Status::kTooFewTracked;
        return m;
      }
    }
  }

  const CameraFrame& last1 = frames1[before.back()];
  const CameraFrame& last2 = frames2[before.back()];
  double gap = 0.0;
  m.hasBall = last1.hasBall && last2.hasBall &&
              Triangulate(rig, last1.origin + last1.ball, last2.origin + last2.ball, m.ball, gap);
  FindImpactTime(frames1, before.back(), m);
  const double speed = m.fit.Speed(m.impactTime, kAccelerationSignificance);

  // Credibility of the fit.
  const double step = m.fit.span / (m.fit.samples - 1);
  std::vector<double> gaps;
  for (size_t i = m.fitted.size() - m.fit.samples; i < m.fitted.size(); ++i) {
    gaps.push_back(m.fitted[i].rayGap);
  }
  std::nth_element(gaps.begin(), gaps.begin() + gaps.size() / 2, gaps.end());
  const double medianGap = gaps[gaps.size() / 2];
  if (!std::isfinite(speed) || !(speed > 0.0) || !(step > 0.0)) {
    m.status = Status::kNotCredible;
    m.reason = "the head does not move";
  } else if (m.fit.rmsResidual > kMaxResidualPerStep * step) {
    m.status = Status::kNotCredible;
    m.reason = "the head path is not smooth";
  } else if (medianGap > kMaxRayGapPerStep * step) {
    m.status = Status::kNotCredible;
    m.reason = "the cameras do not see the same point";
  } else {
    m.speed = speed;
    for (int c = 0; c < 2; ++c) {
      m.frames[c] = std::move(frames[c]);
      m.background[c] = std::move(background[c]);
    }
  }
  return m;
}

}  // namespace

HeadMeasurement MeasureHead(const std::vector<ClubImage*>& cam1,
                            const std::vector<ClubImage*>& cam2,
                            const ClubTrackerSetting& setting) {
  try {
    return Measure(cam1, cam2, setting);
  } catch (const std::exception&) {
    HeadMeasurement m;
    m.status = Status::kFailed;
    return m;
  }
}

}  // namespace headtrack
