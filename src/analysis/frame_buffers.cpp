#include "analysis/frame_buffers.h"

#include <algorithm>

void FrameBuffers::Start() {
  const std::lock_guard<std::mutex> lock(mutex_);
  ++analysis_;
  most_ = 0;
  std::erase_if(buffers_, [&](Buffer& buffer) {
    buffer.free = buffer.pixels.u == nullptr || buffer.pixels.u->refcount == 1;
    return buffer.free && buffer.analysis + 1 < analysis_;
  });
}

void FrameBuffers::Lend(cv::Mat& image, cv::Size size) {
  const std::lock_guard<std::mutex> lock(mutex_);
  most_ = std::max(most_, buffers_.size());
  for (Buffer& buffer : buffers_) {
    if (buffer.free && buffer.pixels.size() == size) {
      buffer.free = false;
      buffer.analysis = analysis_;
      image = buffer.pixels;
      return;
    }
  }
  buffers_.push_back(Buffer{cv::Mat(size, CV_8UC1), false, analysis_});
  most_ = std::max(most_, buffers_.size());
  image = buffers_.back().pixels;
}

void FrameBuffers::Refill(cv::Size size) {
  const std::lock_guard<std::mutex> lock(mutex_);
  while (buffers_.size() < most_) {
    buffers_.push_back(Buffer{cv::Mat(size, CV_8UC1), true, analysis_});
  }
}

void FrameBuffers::GiveBack(cv::Mat& image) { Release(image, false); }

void FrameBuffers::Drop(cv::Mat& image) { Release(image, true); }

void FrameBuffers::Release(cv::Mat& image, bool letGo) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (image.u != nullptr && image.u->refcount == 2) {  // the set's and this one
    for (auto buffer = buffers_.begin(); buffer != buffers_.end(); ++buffer) {
      if (buffer->pixels.u == image.u) {
        image.release();
        if (letGo) {
          buffers_.erase(buffer);
        } else {
          buffer->free = true;
        }
        return;
      }
    }
  }
  image.release();
}

void FrameBuffers::ReleaseFree() {
  const std::lock_guard<std::mutex> lock(mutex_);
  std::erase_if(buffers_, [](const Buffer& buffer) { return buffer.free; });
}

FrameBuffers& ThreadFrameBuffers() {
  thread_local FrameBuffers buffers;
  return buffers;
}
