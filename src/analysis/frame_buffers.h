// Frame-sized 8-bit buffers that one thread's analyses share out: the
// preprocessed images take them, a frame's buffer passes to a later frame's
// candidate mask once no mask still to be made reads the frame, and the set
// stays with the thread for its next swing, so that a swing of the same frame
// size maps no fresh pages for its images. While the spin axis is searched
// the analysis lets the buffers go (the masks wait packed) and refills the
// set afterwards from the memory the search has just left.
#pragma once

#include <cstdint>
#include <mutex>
#include <vector>

#include <opencv2/core.hpp>

class FrameBuffers {
 public:
  // Starts an analysis: a buffer that no record of an earlier one holds any
  // more is free again; one that the last analysis did not use is let go.
  void Start();
  // Shares a free buffer of `size` with `image` (a new one when none is
  // free). Safe to call from several threads.
  void Lend(cv::Mat& image, cv::Size size);
  // Releases `image`; its buffer, when it is one of the set that nothing else
  // holds, is free for a later Lend. Safe to call from several threads.
  void GiveBack(cv::Mat& image);
  // Releases `image` as GiveBack does, but lets its buffer go instead of
  // keeping it free.
  void Drop(cv::Mat& image);
  // Lets go of every free buffer (a later Lend takes fresh memory).
  void ReleaseFree();
  // Adds free buffers of `size` until the set holds as many as it did at its
  // most in this analysis.
  void Refill(cv::Size size);

  // How many buffers the set holds (read while no analysis runs).
  size_t size() const { return buffers_.size(); }

 private:
  void Release(cv::Mat& image, bool letGo);

  struct Buffer {
    cv::Mat pixels;
    bool free = false;
    uint64_t analysis = 0;  // the last analysis that used it
  };
  std::mutex mutex_;
  std::vector<Buffer> buffers_;
  uint64_t analysis_ = 0;
  size_t most_ = 0;  // buffers held at the most in this analysis
};

// The calling thread's set.
FrameBuffers& ThreadFrameBuffers();
