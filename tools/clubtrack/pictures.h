// Pictures of a replay: annotated frames and the contact sheet.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <opencv2/core.hpp>

#include "clubtracker/QuarvelTestingInterface.h"

// One frame of one camera as it is drawn.
struct FrameView {
  int camera = 0;  // 0 = camera 1 (Master), 1 = camera 2 (Slave)
  int index = 0;   // paired-frame index, the frame number the result's speed frames use
  uint64_t timeStamp = 0;
  bool afterImpact = false;
  cv::Mat raw;        // 8-bit grey frame; may be empty
  cv::Mat annotated;  // BGR candidate image with the library's drawing; may be empty
};

// Views of the result entries (the pixels are copied).
std::vector<FrameView> ViewsFromResult(
    const std::vector<std::unique_ptr<OfflineResultImage>>& images);

// Views of raw frames alone (no result to draw), camera 1's list then camera 2's.
std::vector<FrameView> ViewsFromFrames(const std::vector<ClubImage*>& pairs1,
                                       const std::vector<ClubImage*>& pairs2);

// The raw frame in colour with the library's annotations on it: every pixel the
// library drew pure red (shaft lines) or pure green (head points) is copied
// over. Without a raw frame, the annotated image itself; without either, empty.
cv::Mat RawWithAnnotations(const FrameView& view);

// Writes every view as PNG into `folder` (created if missing):
// cam<1|2>_frame<NN>_candidates.png (the library's drawing) and
// cam<1|2>_frame<NN>_raw.png (raw frame with the annotations). Returns the
// number of files written, or -1 with a one-line reason.
int WriteAnnotatedFrames(const std::vector<FrameView>& views, const std::filesystem::path& folder,
                         std::string* error);

// One picture: camera 1 left, camera 2 right, one row per paired frame, each
// tile the raw frame with the annotations and a label with its frame number,
// time stamp and whether it is after the impact. The title may hold several
// lines separated by '\n'; the first is the headline.
cv::Mat ContactSheet(const std::vector<FrameView>& views, const std::string& title);

// cv::imwrite with a one-line reason on failure.
bool WriteImage(const std::filesystem::path& path, const cv::Mat& image, std::string* error);
