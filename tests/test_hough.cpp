// Edges on the cleaned mask's box and the Hough votes made once per frame,
// against the whole-frame Canny edges and cv::HoughLines for every threshold.
#include <iterator>
#include <memory>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "analysis/analysis.h"
#include "analysis/hough.h"
#include "support/change_masks.h"
#include "tracker/find_lines.h"
#include "tracker/records.h"

namespace {

TEST(HoughVotes, SameEdgesAndLinesAsCannyAndHoughLinesOnSwingAndBorderMasks) {
  std::vector<cv::Mat> masks = SwingChangeMasks();
  ASSERT_GE(masks.size(), 40u);
  cv::RNG rng(7);
  for (int k = 0; k < 12; ++k) {  // blobs and bars over every border, widths not a multiple of 64
    cv::Mat mask = cv::Mat::zeros(rng.uniform(20, 200), rng.uniform(20, 300), CV_8UC1);
    for (int b = 0; b < 3; ++b) {
      const cv::Point a(rng.uniform(-20, mask.cols + 20), rng.uniform(-20, mask.rows + 20));
      const cv::Point c(rng.uniform(-20, mask.cols + 20), rng.uniform(-20, mask.rows + 20));
      cv::line(mask, a, c, cv::Scalar(255), rng.uniform(8, 30));
    }
    masks.push_back(mask);
  }
  masks.push_back(cv::Mat::zeros(30, 40, CV_8UC1));
  const int thresholds[] = {1, 2, 3, 5, 8, 13, 21, 34, 55, 89, 144};
  size_t lines = 0;
  for (size_t k = 0; k < masks.size(); ++k) {
    cv::Mat edges, boxed;
    ComputeShaftEdges(masks[k], edges);
    const cv::Rect box = ComputeShaftEdgeBox(masks[k], boxed);
    cv::Mat placed = cv::Mat::zeros(edges.size(), CV_8UC1);
    if (!box.empty()) boxed.copyTo(placed(box));
    EXPECT_EQ(cv::countNonZero(placed != edges), 0) << "edges, mask " << k;

    // The whole vote gives cv::HoughLines' lines; the shaft votes, which skip
    // the near-horizontal angles, give the lines the extraction keeps from them.
    HoughVotes votes;
    HoughVotes shaft, floored;  // the second keeps only cells above 13 votes
    if (!box.empty()) votes.Vote(boxed, box.tl(), masks[k].size());
    ComputeShaftVotes(masks[k], shaft);
    ComputeShaftVotes(masks[k], floored, 13);
    for (const int t : thresholds) {
      std::vector<cv::Vec2f> expected, found;
      cv::HoughLines(edges, expected, 1.0, CV_PI / 180.0, t, 0, 0);
      votes.Lines(t, found);
      ASSERT_EQ(found.size(), expected.size()) << "mask " << k << " threshold " << t;
      for (size_t i = 0; i < found.size(); ++i) {
        EXPECT_EQ(found[i][0], expected[i][0]) << "mask " << k << " threshold " << t;
        EXPECT_EQ(found[i][1], expected[i][1]) << "mask " << k << " threshold " << t;
      }
      CandidateAreaImage literal, fast;
      literal.sensorOffsetX = fast.sensorOffsetX = 37;
      literal.sensorOffsetY = fast.sensorOffsetY = 11;
      ExtractCandidatesFromEdges(&literal, edges, t);
      ExtractCandidatesFromVotes(&fast, shaft, t);
      ASSERT_EQ(fast.lines.size(), literal.lines.size()) << "mask " << k << " threshold " << t;
      for (size_t i = 0; i < fast.lines.size(); ++i) {
        EXPECT_EQ(fast.lines[i], literal.lines[i]) << "mask " << k << " threshold " << t;
      }
      lines += fast.lines.size();
      CandidateAreaImage above;  // refused below the floor, the same lines from it up
      above.sensorOffsetX = 37;
      above.sensorOffsetY = 11;
      const bool answers = t >= floored.floor();  // no floor without votes
      EXPECT_EQ(floored.floor(), box.empty() ? 0 : 13);
      EXPECT_EQ(ExtractCandidatesFromVotes(&above, floored, t), answers ? 1 : 0) << t;
      EXPECT_TRUE(answers ? above.lines == fast.lines : above.lines.empty())
          << "mask " << k << " threshold " << t;
    }
  }
  EXPECT_GT(lines, 1000u);
}

// The adaptive passes on votes made once against each pass's own extraction
// from the edge map, for the tracker's threshold rule and for rules that ask a
// later pass for fewer votes than the largest line size gives (the votes are
// then made again in full).
TEST(HoughVotes, LinePassesGiveEachPassTheEdgeMapsLines) {
  const std::vector<cv::Mat>& masks = SwingChangeMasks();
  const size_t frames = 8;
  ASSERT_GE(masks.size(), 2 * frames);
  const LineThreshold rules[] = {
      [](CandidateAreaImage* area, float size) { return static_cast<int>(area->ballY / size); },
      [](CandidateAreaImage*, float size) { return size > 5.5f ? 90 : 3; },
      [](CandidateAreaImage* area, float size) {
        return area->afterImpact == 1 ? 0 : 12 - static_cast<int>(size);
      }};
  for (size_t rule = 0; rule < std::size(rules); ++rule) {
    std::vector<std::unique_ptr<CandidateAreaImage>> owned;
    std::vector<CandidateAreaImage*> cameras[2][2];  // [votes, edges][camera]
    for (size_t k = 0; k < 2 * frames; ++k) {
      for (int way = 0; way < 2; ++way) {
        owned.push_back(std::make_unique<CandidateAreaImage>());
        owned.back()->image = masks[k * masks.size() / (2 * frames)];
        owned.back()->ballY = 400.0f;
        owned.back()->afterImpact = k % frames >= frames / 2 ? 1u : 0u;
        cameras[way][k / frames].push_back(owned.back().get());
      }
    }
    LinePasses votes(rules[rule], cameras[0][0], cameras[0][1]);
    LinePasses edges(rules[rule], cameras[1][0], cameras[1][1],
                     [](CandidateAreaImage* area, int threshold) {
                       cv::Mat map;
                       ComputeShaftEdges(area->image, map);
                       ExtractCandidatesFromEdges(area, map, threshold);
                     });
    do {
      votes.Extract();
      edges.Extract();
      for (int c = 0; c < 2; ++c) {
        EXPECT_EQ(votes.lineCount(c), edges.lineCount(c)) << "rule " << rule;
        for (size_t k = 0; k < frames; ++k) {
          EXPECT_TRUE(cameras[0][c][k]->lines == cameras[1][c][k]->lines)
              << "rule " << rule << " pass " << votes.pass() << " frame " << k;
        }
      }
      votes.Decide();
      edges.Decide();
      ASSERT_EQ(votes.Again(), edges.Again());
    } while (votes.Again());
  }
}

// The Canny edges of 0/255 masks against cv::Canny: random masks down to one
// pixel or one row, all set, checkerboards and diagonal bars.
TEST(HoughVotes, BinaryCannyIsCanny) {
  cv::RNG rng(20261124);
  const cv::Size sizes[] = {{1, 1}, {1, 7}, {7, 1}, {2, 2}, {3, 5}, {17, 9}, {64, 33}, {131, 70}};
  for (const cv::Size size : sizes) {
    for (int kind = 0; kind < 5; ++kind) {
      cv::Mat mask(size, CV_8UC1);
      if (kind == 0) mask.setTo(255);
      if (kind == 1) {
        for (int y = 0; y < size.height; ++y)
          for (int x = 0; x < size.width; ++x) mask.at<uchar>(y, x) = ((x + y) % 2) * 255;
      }
      if (kind == 2) {
        mask.setTo(0);
        cv::line(mask, {0, 0}, {size.width, size.height}, cv::Scalar(255), 1 + size.width / 8);
      }
      if (kind >= 3) {
        rng.fill(mask, cv::RNG::UNIFORM, 0, kind == 3 ? 2 : 8);
        mask = (mask == 0);  // a quarter (kind 3: a half) set, as 0/255
        mask.convertTo(mask, CV_8UC1);
      }
      cv::Mat fast, expected;
      BinaryCanny(mask, fast);
      cv::Canny(mask, expected, 30.0, 40.0, 3, true);
      EXPECT_EQ(cv::countNonZero(fast != expected), 0) << size << " kind " << kind;
    }
  }
}

}  // namespace
