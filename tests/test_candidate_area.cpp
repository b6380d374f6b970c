// The first stages: frame preprocessing; candidate areas (reference selection,
// brightness compensation, ball disc); the presence test on candidate masks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <tuple>
#include <utility>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <tbb/task_arena.h>
#include <vector>

#include "analysis/analysis.h"
#include "analysis/frame_buffers.h"
#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

struct FrameRun {
  std::vector<std::unique_ptr<PreprocessedImage>> owned;
  std::vector<PreprocessedImage*> frames;
  std::vector<CandidateAreaImage*> candidates;
  ~FrameRun() {
    for (CandidateAreaImage* c : candidates) delete c;
  }

  PreprocessedImage& Add(const cv::Mat& image, uint64_t timeStamp, uint32_t afterImpact = 0) {
    owned.push_back(std::make_unique<PreprocessedImage>());
    PreprocessedImage& frame = *owned.back();
    frame.image = image;
    frame.timeStamp = timeStamp;
    frame.afterImpact = afterImpact;
    frames.push_back(&frame);
    return frame;
  }

  int Find(ClubTracker& tracker) { return Access::FindCandidateArea(tracker, frames, candidates); }
};

// Grey 100 with ~10 % of pixels (from `seed`) at 150.
cv::Mat SpottedFrame(uint64_t seed, int rows = 48, int cols = 64) {
  cv::Mat frame(rows, cols, CV_8UC1, cv::Scalar(100));
  cv::RNG rng(seed);
  for (int r = 0; r < rows; ++r)
    for (int c = 0; c < cols; ++c)
      if (rng.uniform(0, 10) == 0) frame.at<uchar>(r, c) = 150;
  return frame;
}

cv::Mat ExpectedMask(const cv::Mat& image, const cv::Mat& earlier, const cv::Mat& later) {
  cv::Mat d1, d2;
  cv::absdiff(image, earlier, d1);
  cv::absdiff(image, later, d2);
  return (d1 >= 2) & (d2 >= 2);
}

bool SameMask(const cv::Mat& a, const cv::Mat& b) {
  return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a != b) == 0;
}

// Every unordered pair of same-size frames that explains frame i's mask.
std::vector<std::pair<int, int>> ReferencesOf(const FrameRun& run, int i) {
  std::vector<std::pair<int, int>> pairs;
  const cv::Mat& image = run.frames[i]->image;
  const int n = static_cast<int>(run.frames.size());
  for (int p = 0; p < n; ++p)
    for (int q = p; q < n; ++q) {
      const cv::Mat& a = run.frames[p]->image;
      const cv::Mat& b = run.frames[q]->image;
      if (a.size() != image.size() || b.size() != image.size()) continue;
      if (SameMask(run.candidates[i]->image, ExpectedMask(image, a, b))) pairs.emplace_back(p, q);
    }
  return pairs;
}

const uint64_t kWrapBase = 0xFFFFFFFFull - 2500;  // the low 32 bits wrap at frame 3

// A reference must lie strictly more than the interval away (before or after
// the impact), the earlier scan stops at index 1, and the gap is taken on the
// low 32 bits of the time stamps; the frames may be released as they are used.
TEST(CandidateArea, ReferenceSelection) {
  const struct {
    const char* name;
    std::vector<uint64_t> timeStamps;
    std::vector<uint32_t> afterImpact;
    int32_t intervalBefore, intervalAfter;
    int frame, earlier, later;  // expected references of `frame`
  } cases[] = {
      {"equal gap not enough", {0, 1000, 2000, 3000, 4000}, {}, 2000, 2000, 2, 4, 0},
      {"one more unit is", {0, 1000, 2000, 3000, 4001}, {}, 2000, 2000, 2, 4, 4},
      {"scan skips index 0", {0, 1000, 2000, 3000, 4000}, {}, 2000, 2000, 3, 4, 0},
      {"index 1 is scanned", {0, 1000, 2000, 3001, 4000}, {}, 2000, 2000, 3, 1, 0},
      {"later after impact", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 2000, 500, 2, 4, 3},
      {"frame after impact", {0, 1000, 2000, 3000, 4000}, {0, 0, 0, 1, 1}, 2000, 500, 3, 2, 4},
      {"wrapping gap", {kWrapBase, kWrapBase + 1000, kWrapBase + 2000, kWrapBase + 3000,
                        kWrapBase + 4001}, {}, 2000, 2000, 4, 2, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ClubTracker tracker;
    tracker.setting.timeStampIntervalBeforeImpact = c.intervalBefore;
    tracker.setting.timeStampIntervalAfterImpact = c.intervalAfter;
    FrameRun run;
    for (size_t k = 0; k < c.timeStamps.size(); ++k)
      run.Add(SpottedFrame(17 + k), c.timeStamps[k], c.afterImpact.empty() ? 0 : c.afterImpact[k]);
    ASSERT_EQ(run.Find(tracker), 1);
    ASSERT_EQ(run.candidates.size(), c.timeStamps.size());
    const cv::Mat expected = ExpectedMask(run.frames[c.frame]->image, run.frames[c.earlier]->image,
                                          run.frames[c.later]->image);
    ASSERT_GT(cv::countNonZero(expected), 0);
    const auto pairs = ReferencesOf(run, c.frame);
    ASSERT_EQ(pairs.size(), 1u) << "the spot patterns tell every reference pair apart";
    EXPECT_EQ(pairs[0], std::make_pair(std::min(c.earlier, c.later), std::max(c.earlier, c.later)));

    // Frames given back as soon as their last reader is made: the same records, no image left.
    FrameRun releasing;
    for (const PreprocessedImage* f : run.frames)
      releasing.Add(f->image.clone(), f->timeStamp, f->afterImpact);
    FrameBuffers buffers;
    buffers.Start();
    ASSERT_EQ(
        FindCandidateAreaReleasingFrames(tracker, releasing.frames, releasing.candidates, buffers),
        1);
    for (size_t k = 0; k < run.frames.size(); ++k) {
      EXPECT_TRUE(SameMask(releasing.candidates[k]->image, run.candidates[k]->image)) << k;
      EXPECT_EQ(releasing.candidates[k]->timeStamp, run.candidates[k]->timeStamp) << k;
      EXPECT_TRUE(releasing.frames[k]->image.empty()) << k;
    }
  }
}

// Frames in lent buffers pass them on to later masks: the set holds about one buffer per
// frame, a later swing takes the same buffers again, and a buffer that an earlier record still
// holds is never lent; a frame listed twice keeps its image.
TEST(CandidateArea, FrameBuffersPassFromFramesToMasks) {
  ClubTracker tracker;
  FrameBuffers buffers;
  cv::Mat held, heldBefore;
  size_t firstSize = 0;
  tbb::task_arena inOrder(1);  // frames made in order: given-back frames precede later masks
  for (int swing = 0; swing < 2; ++swing) {
    SCOPED_TRACE(swing);
    buffers.Start();
    FrameRun run;
    for (int k = 0; k < 8; ++k) {
      PreprocessedImage& frame = run.Add(cv::Mat(), 5000u * k);
      buffers.Lend(frame.image, cv::Size(64, 48));
      SpottedFrame(20 + k).copyTo(frame.image);
      EXPECT_NE(frame.image.data, held.data);
    }
    FrameRun expected;
    for (const PreprocessedImage* f : run.frames) expected.Add(f->image.clone(), f->timeStamp);
    ASSERT_EQ(expected.Find(tracker), 1);
    inOrder.execute([&] {
      ASSERT_EQ(FindCandidateAreaReleasingFrames(tracker, run.frames, run.candidates, buffers), 1);
    });
    for (size_t k = 0; k < run.frames.size(); ++k) {
      EXPECT_TRUE(SameMask(run.candidates[k]->image, expected.candidates[k]->image)) << k;
    }
    if (swing == 0) {
      EXPECT_LE(buffers.size(), 11u) << "the first three masks come before any frame is free";
      firstSize = buffers.size();
      held = run.candidates[0]->image;
      heldBefore = held.clone();
    } else {
      EXPECT_EQ(buffers.size(), firstSize + 1) << "one more buffer for the one still held";
      EXPECT_TRUE(SameMask(held, heldBefore));
    }
  }
  // Letting buffers go: only free ones, and a dropped one only when nothing
  // else holds it; a refill brings back as many as the analysis held.
  buffers.Start();
  const size_t most = buffers.size();
  cv::Mat lent, alsoHeld = held;
  buffers.Lend(lent, cv::Size(64, 48));
  buffers.ReleaseFree();
  EXPECT_EQ(buffers.size(), 2u) << "the held and the lent buffer stay";
  buffers.Drop(held);
  buffers.Drop(lent);
  EXPECT_EQ(buffers.size(), 1u) << "the buffer still held elsewhere stays";
  EXPECT_TRUE(held.empty() && lent.empty() && SameMask(alsoHeld, heldBefore));
  buffers.Refill(cv::Size(64, 48));
  EXPECT_EQ(buffers.size(), most);
  FrameRun twice;
  twice.Add(SpottedFrame(1), 0);
  twice.Add(SpottedFrame(2), 5000);
  twice.frames.push_back(twice.frames[0]);
  ASSERT_EQ(FindCandidateAreaReleasingFrames(tracker, twice.frames, twice.candidates, buffers), 1);
  for (const PreprocessedImage* f : twice.frames) EXPECT_FALSE(f->image.empty());
}

// A frame without a reference (alone, or the only one of its window or size)
// gets an empty mask and its own metadata.
TEST(CandidateArea, FramesOfAnotherWindowOrSizeAreNeverReferences) {
  ClubTracker tracker;
  FrameRun alone;
  alone.Add(SpottedFrame(3), 123456789012ull, 1).sensorOffsetX = -7;
  ASSERT_EQ(alone.Find(tracker), 1);
  ASSERT_EQ(alone.candidates.size(), 1u);
  const CandidateAreaImage& c = *alone.candidates[0];
  EXPECT_TRUE(SameMask(c.image, cv::Mat::zeros(48, 64, CV_8UC1)));
  EXPECT_EQ(std::make_tuple(c.sensorOffsetX, c.afterImpact, c.timeStamp),
            std::make_tuple(-7, 1u, 123456789012ull));

  FrameRun run;
  for (int k = 0; k < 6; ++k) run.Add(SpottedFrame(40 + k), 1000u * k);
  run.frames[3]->sensorOffsetX = 4;
  run.frames[5]->image = SpottedFrame(45, 48, 65);
  run.frames[1]->sensorOffsetY = -1;
  ASSERT_EQ(run.Find(tracker), 1);

  auto pairs = ReferencesOf(run, 0);
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0], std::make_pair(4, 4));
  EXPECT_EQ(cv::countNonZero(run.candidates[3]->image), 0);
  EXPECT_EQ(run.candidates[5]->image.size(), cv::Size(65, 48));
  EXPECT_EQ(cv::countNonZero(run.candidates[5]->image), 0);
  pairs = ReferencesOf(run, 2);
  ASSERT_EQ(pairs.size(), 1u);
  EXPECT_EQ(pairs[0], std::make_pair(0, 4));
}

// The fused change mask against the two thresholded differences of the
// first version, over widths around the vector length, views into larger
// matrices, rows of more than 255 vectors, differences at the threshold (1
// and 2) and saturating values.
TEST(CandidateArea, ChangeMaskIsTheLiteralExpression) {
  const auto literal = [](const cv::Mat& image, const cv::Mat& reference) {
    cv::Mat changed;
    cv::threshold(cv::abs(image - reference), changed, 1.0, 255.0, cv::THRESH_BINARY);
    return changed;
  };
  cv::RNG rng(20261124);
  const cv::Size sizes[] = {{1, 1}, {15, 1}, {16, 3}, {17, 2}, {33, 7}, {64, 48}, {100, 13}, {4100, 2}};
  for (const cv::Size size : sizes) {
    for (const int spread : {0, 1, 3, 256}) {  // 0: every pixel changed
      for (const bool view : {false, true}) {
        // A view leaves a margin of 5 columns and 2 rows in its parent.
        cv::Mat planes[3];
        for (cv::Mat& plane : planes) {
          plane.create(size.height + (view ? 4 : 0), size.width + (view ? 10 : 0), CV_8UC1);
          rng.fill(plane, cv::RNG::UNIFORM, 0, 256);
        }
        if (spread == 0) {
          for (int k = 1; k < 3; ++k) cv::bitwise_xor(planes[0], cv::Scalar(128), planes[k]);
        } else if (spread < 256) {  // references within `spread` of the frame, clamped
          for (int k = 1; k < 3; ++k) {
            cv::Mat offset(planes[0].size(), CV_16SC1);
            rng.fill(offset, cv::RNG::UNIFORM, -spread, spread + 1);
            cv::Mat sum;
            cv::add(planes[0], offset, sum, cv::noArray(), CV_16SC1);
            sum.convertTo(planes[k], CV_8UC1);
          }
        }
        if (view) {
          for (cv::Mat& plane : planes) plane = plane(cv::Rect(cv::Point(5, 2), size));
        }
        SCOPED_TRACE(testing::Message() << size << " spread " << spread << " view " << view);
        cv::Mat mask;
        const int64_t count = ChangeMask(planes[0], planes[1], planes[2], mask);
        const cv::Mat expected = literal(planes[0], planes[1]) & literal(planes[0], planes[2]);
        EXPECT_TRUE(SameMask(mask, expected));
        EXPECT_EQ(count, static_cast<int64_t>(cv::sum(expected)[0] / 255.0));
      }
    }
  }
}

TEST(CandidateArea, ThreeQuartersChangedIsKeptOneMorePixelIsCompensatedAndBlanked) {
  ClubTracker tracker;
  FrameRun kept, blanked;
  for (FrameRun* run : {&kept, &blanked}) {
    const cv::Mat reference(100, 100, CV_8UC1, cv::Scalar(100));
    cv::Mat image = reference.clone();
    const int changed = run == &kept ? 7500 : 7501;
    for (int k = 0; k < changed; ++k) image.at<uchar>(k / 100, k % 100) = 200;
    run->Add(reference, 0);
    run->Add(image, 5000);
    run->Add(reference.clone(), 10000);
  }
  ASSERT_EQ(kept.Find(tracker), 1);
  ASSERT_EQ(blanked.Find(tracker), 1);
  EXPECT_EQ(cv::countNonZero(kept.candidates[1]->image), 7500);
  EXPECT_EQ(cv::countNonZero(blanked.candidates[1]->image), 0);
  EXPECT_EQ(blanked.candidates[1]->image.size(), cv::Size(100, 100));
}

TEST(CandidateArea, GlobalBrighteningIsCompensatedWithTheMasksOwnMedian) {
  // Middle frame: the scene scaled to median 255, with a dark object over 40 %.
  cv::Mat scene(100, 100, CV_8UC1);
  for (int r = 0; r < 100; ++r)
    for (int c = 0; c < 100; ++c)
      scene.at<uchar>(r, c) = static_cast<uchar>(60 + (r * 7 + c * 13) % 81);
  std::vector<uchar> sorted(scene.datastart, scene.dataend);
  std::sort(sorted.begin(), sorted.end());
  const float ratio = 255.0f / static_cast<float>(sorted[sorted.size() / 2]);
  cv::Mat scaled;
  scene.convertTo(scaled, CV_8UC1, static_cast<double>(ratio));
  cv::Mat bright = scaled.clone();
  const cv::Rect object(10, 10, 80, 50);
  bright(object).setTo(cv::Scalar(0));

  ClubTracker tracker;
  FrameRun run;
  run.Add(scene, 0);
  run.Add(bright, 5000);
  run.Add(scene.clone(), 10000);
  ASSERT_GT(cv::countNonZero(ExpectedMask(bright, scene, scene)), 7500);
  ASSERT_EQ(run.Find(tracker), 1);

  EXPECT_TRUE(SameMask(run.candidates[1]->image, ExpectedMask(bright, scaled, scaled)));
  cv::Mat objectMask = cv::Mat::zeros(100, 100, CV_8UC1);
  objectMask(object).setTo(cv::Scalar(255));
  EXPECT_TRUE(SameMask(run.candidates[1]->image, objectMask));
}

// The ball disc is painted out with the truncated radius at the rounded
// centre (halves away from 0); no radius, no disc.
TEST(CandidateArea, BallDisc) {
  const struct {
    float x, y, radius;
    cv::Point centre;   // expected painted disc
    int paintedRadius;  // -1 = nothing painted
  } cases[] = {{40.5f, 30.4f, 10.7f, {41, 30}, 10},
               {39.49f, 30.6f, 10.0f, {39, 31}, 10},
               {20.0f, 20.0f, 0.9f, {20, 20}, 0},
               {40.0f, 30.0f, 0.0f, {0, 0}, -1}};
  const cv::Mat flat(100, 100, CV_8UC1, cv::Scalar(100));
  cv::Mat moved = flat.clone();
  const cv::Rect square(10, 10, 60, 60);
  moved(square).setTo(cv::Scalar(180));
  for (const auto& c : cases) {
    SCOPED_TRACE(c.radius);
    ClubTracker tracker;
    FrameRun run;
    run.Add(flat, 0);
    PreprocessedImage& frame = run.Add(moved, 5000);
    run.Add(flat.clone(), 10000);
    frame.ballX = c.x;
    frame.ballY = c.y;
    frame.ballRadius = c.radius;
    ASSERT_EQ(run.Find(tracker), 1);
    cv::Mat expected = cv::Mat::zeros(100, 100, CV_8UC1);
    expected(square).setTo(cv::Scalar(255));
    if (c.paintedRadius >= 0)
      cv::circle(expected, c.centre, c.paintedRadius, cv::Scalar(0), cv::FILLED, cv::LINE_8);
    EXPECT_TRUE(SameMask(run.candidates[1]->image, expected));
    EXPECT_EQ(run.candidates[1]->ballRadius, c.radius);
  }
}

// ------------------------------------------------------------ preprocessing

// A frame with owned pixels and a recognisable pattern.
struct Frame {
  std::vector<unsigned char> bytes;
  ClubImage image{};

  Frame(int width, int height, int channels)
      : bytes(static_cast<size_t>(width) * height * channels) {
    for (size_t i = 0; i < bytes.size(); ++i)
      bytes[i] = static_cast<unsigned char>((i * 37 + i / 7) & 0xFF);
    image.width = width;
    image.height = height;
    image.bytesPerChannel = 1;
    image.channels = channels;
    image.pixels = bytes.data();
    image.sensorOffsetX = -17;
    image.sensorOffsetY = 333;
    image.afterImpact = 1;
    image.timeStamp = 0xFEDCBA9876543210ull;
    image.ballX = 12.75f;
    image.ballY = -0.0f;
    image.ballRadius = 21.35f;
  }
  cv::Mat AsMat() const {
    return cv::Mat(image.height, image.width, CV_8UC(image.channels),
                   const_cast<unsigned char*>(bytes.data()));
  }
};

bool SameBits(float a, float b) { return std::memcmp(&a, &b, sizeof a) == 0; }

TEST(Preprocessing, GreyMedianAndMetadataForEveryChannelCount) {
  for (const auto& [channels, width, height] :
       {std::tuple{1, 64, 48}, {3, 64, 48}, {4, 64, 48}, {1, 1, 1}, {3, 17, 3}, {1, 5, 2}}) {
    SCOPED_TRACE(testing::Message() << channels << " channels, " << width << " x " << height);
    Frame frame(width, height, channels);
    ClubTracker tracker;
    PreprocessedImage out;
    ASSERT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, &frame.image, &out), 1);

    cv::Mat expected = frame.AsMat().clone();
    if (channels > 1) cv::cvtColor(expected, expected, cv::COLOR_BGR2GRAY);
    cv::medianBlur(expected, expected, 3);
    ASSERT_EQ(out.image.type(), CV_8UC1);
    EXPECT_EQ(cv::norm(out.image, expected, cv::NORM_INF), 0.0);
    EXPECT_NE(out.image.data, frame.bytes.data()) << "the record owns a copy";

    EXPECT_EQ(std::make_tuple(out.sensorOffsetX, out.sensorOffsetY, out.afterImpact, out.timeStamp),
              std::make_tuple(-17, 333, 1u, uint64_t{0xFEDCBA9876543210ull}));
    EXPECT_TRUE(SameBits(out.ballX, 12.75f) && SameBits(out.ballY, -0.0f) &&
                SameBits(out.ballRadius, 21.35f));
  }
}

// The 3 x 3 median against cv::medianBlur: sizes from one pixel to widths
// around the vector widths, full-range and two-valued pixels (ties), views
// into a larger frame, in place, and colour (left to the library).
TEST(Preprocessing, MedianBlur3IsTheLibrarysMedian) {
  cv::RNG rng(3);
  for (int k = 0; k < 60; ++k) {
    const cv::Size size = k < 8 ? cv::Size(1 + k % 3, 1 + k / 3) : cv::Size(rng.uniform(1, 80), rng.uniform(1, 12));
    cv::Mat image(size, CV_8UC1);
    rng.fill(image, cv::RNG::UNIFORM, 0, k % 2 == 0 ? 256 : 2);
    if (k % 2 == 1) image *= 255;
    cv::Mat expected, fast;
    cv::medianBlur(image, expected, 3);
    MedianBlur3(image, fast);
    EXPECT_EQ(cv::norm(fast, expected, cv::NORM_INF), 0.0) << size;
    if (size.width > 2 && size.height > 2) {
      const cv::Rect part(1, 1, size.width - 2, size.height - 2);
      cv::medianBlur(image(part), expected, 3);
      MedianBlur3(image(part), fast);
      EXPECT_EQ(cv::norm(fast, expected, cv::NORM_INF), 0.0) << "view of " << size;
    }
    cv::medianBlur(image, expected, 3);
    MedianBlur3(image, image);
    EXPECT_EQ(cv::norm(image, expected, cv::NORM_INF), 0.0) << "in place, " << size;
  }
  cv::Mat colour(9, 40, CV_8UC3);
  rng.fill(colour, cv::RNG::UNIFORM, 0, 256);
  cv::Mat expected, fast;
  cv::medianBlur(colour, expected, 3);
  MedianBlur3(colour, fast);
  EXPECT_EQ(cv::norm(fast, expected, cv::NORM_INF), 0.0);
}

TEST(PreprocessingRefusals, BadFramesLeaveTheRecordUntouched) {
  ClubTracker tracker;
  Frame frame(16, 16, 1);
  PreprocessedImage out;
  out.image = cv::Mat(3, 3, CV_8UC1, cv::Scalar(9));
  const uchar* before = out.image.data;

  ClubImage wide = frame.image;
  wide.bytesPerChannel = 2;
  ClubImage empty = frame.image;
  empty.pixels = nullptr;
  ClubImage noChannels = frame.image;
  noChannels.channels = 0;
  for (ClubImage* bad : {&wide, &empty, &noChannels}) {
    EXPECT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, bad, &out), 0);
    EXPECT_EQ(out.image.data, before);
    EXPECT_EQ(out.timeStamp, 0u);
    EXPECT_EQ(out.sensorOffsetX, 0);
  }
  EXPECT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, nullptr, &out), 0);
  EXPECT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, &frame.image, nullptr), 0);
  Frame twoChannels(16, 16, 2);  // rejected by the conversion
  EXPECT_THROW(ClubTrackerTestAccess::Preprocessing(tracker, &twoChannels.image, &out),
               cv::Exception);
}

ClubTrackerSetting Region(int x, int y, int width, int height) {
  ClubTrackerSetting s;
  InitClubTrackerSetting(s);
  s.roiX = x;
  s.roiY = y;
  s.roiWidth = width;
  s.roiHeight = height;
  return s;
}

// The region is cut before the median filter; a zero width or height keeps
// the whole frame; a region reaching outside the frame raises the range error.
TEST(PreprocessingRegion, CutBeforeTheMedianFilter) {
  Frame frame(40, 30, 1);
  PreprocessedImage out;
  ClubTracker tracker(Region(5, 4, 20, 10));
  ASSERT_EQ(ClubTrackerTestAccess::Preprocessing(tracker, &frame.image, &out), 1);
  ASSERT_EQ(out.image.size(), cv::Size(20, 10));
  EXPECT_TRUE(out.image.isContinuous());
  cv::Mat expected;
  cv::medianBlur(frame.AsMat()(cv::Rect(5, 4, 20, 10)).clone(), expected, 3);  // border inside
  EXPECT_EQ(cv::norm(out.image, expected, cv::NORM_INF), 0.0);
  cv::Mat filteredWhole;
  cv::medianBlur(frame.AsMat(), filteredWhole, 3);
  EXPECT_GT(cv::norm(out.image, filteredWhole(cv::Rect(5, 4, 20, 10)), cv::NORM_INF), 0.0)
      << "edge pixels must not see pixels outside the region";

  for (const auto& [w, h] : {std::pair{0, 10}, std::pair{10, 0}}) {
    ClubTracker whole(Region(1000, -50, w, h));
    ASSERT_EQ(ClubTrackerTestAccess::Preprocessing(whole, &frame.image, &out), 1);
    EXPECT_EQ(out.image.size(), cv::Size(40, 30));
  }
  ClubTracker outside(Region(30, 0, 20, 10));
  EXPECT_THROW(ClubTrackerTestAccess::Preprocessing(outside, &frame.image, &out), cv::Exception);
}

// RefineCandidateMask ------------------------------------------------------

// The presence square is s = 2 * ((min side / 4) / 2) + 1: a band s pixels
// wide (long enough that the cleaning's rounded corners leave an s x s square)
// is present, one a pixel narrower is not but stays in the refined mask; an
// empty mask stays empty and absent.
TEST(RefineCandidateMask, PresenceThresholdIsExactlyTheErosionSize) {
  cv::Mat refined;
  int present = -1;
  RefineCandidateMask(cv::Mat::zeros(480, 640, CV_8UC1), refined, &present);
  EXPECT_EQ(present, 0);
  EXPECT_EQ(cv::countNonZero(refined), 0);
  const std::pair<cv::Size, int> cases[] = {
      {{100, 100}, 25}, {{640, 480}, 121}, {{640, 208}, 53}, {{208, 640}, 53}};
  for (const auto& [size, s] : cases) {
    for (int side : {s - 1, s, s + 8}) {
      cv::Mat mask = cv::Mat::zeros(size, CV_8UC1);
      const int length = std::min(size.width, size.height) - 4;
      const bool wide = size.width >= size.height;
      const cv::Rect band = wide ? cv::Rect(size.width / 2 - side / 2, 2, side, length)
                                 : cv::Rect(2, size.height / 2 - side / 2, length, side);
      cv::rectangle(mask, band, cv::Scalar(255), cv::FILLED);
      present = -1;
      RefineCandidateMask(mask, refined, &present);
      EXPECT_EQ(present, side >= s ? 1 : 0) << "square side " << side << " in " << size;
      EXPECT_GT(cv::countNonZero(refined), 0) << "the refined mask keeps the closed blob";
    }
  }
}

}  // namespace
