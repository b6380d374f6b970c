// The standard Hough transform of shaft edge maps, voted once per frame.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

// The votes of one edge map at 1 pixel and 1 degree over the full angle range.
// Lines(t) gives exactly what cv::HoughLines(edges, lines, 1.0, CV_PI / 180.0,
// t, 0, 0) gives for the whole frame, in its order: accumulator cells with
// more than t votes that are local maxima by the library's rule (greater than
// the neighbours at the lower rho and the lower angle, not less than those at
// the higher rho and the higher angle), strongest first, ties by cell index.
class HoughVotes {
 public:
  // Votes with the nonzero pixels of `edges` (CV_8UC1), which is the part of a
  // frame of size `frame` starting at `offset`; the frame is zero elsewhere.
  // The angle rows `skipFirst` .. `skipLast` (degrees) get no votes: for a
  // caller that drops every line of rows skipFirst - 1 .. skipLast + 1, the
  // lines of the other rows and their order stay those of the whole vote (a
  // row's maxima test reads only its two neighbouring rows). Cells with at
  // most `floor` votes are not kept: Lines(t) is exact for t >= floor().
  void Vote(const cv::Mat& edges, cv::Point offset, cv::Size frame, int skipFirst = 0,
            int skipLast = -1, int floor = 0);
  void Clear();
  // Appends the lines for a threshold of at least floor(); false (nothing
  // appended) for a lower one.
  bool Lines(int threshold, std::vector<cv::Vec2f>& lines) const;
  int floor() const { return floor_; }

 private:
  int numrho_ = 0;
  int floor_ = 0;
  std::vector<int> cells_;  // local maxima, strongest first, ties by index
  std::vector<int> votes_;  // votes of cells_
  std::vector<int> counts_;  // counting-sort scratch
};
