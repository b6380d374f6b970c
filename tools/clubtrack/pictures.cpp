// Annotated frames and the contact sheet of a replay.
#include "pictures.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <system_error>

#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

namespace fs = std::filesystem;

namespace {

// The library draws shaft lines in pure red and head points in pure green on a
// mask that holds only black and white, so these colours mark its drawing.
bool IsAnnotation(const cv::Vec3b& p) {
  return (p[0] == 0 && p[1] == 0 && p[2] == 255) || (p[0] == 0 && p[1] == 255 && p[2] == 0);
}

cv::Mat GreyOf(const unsigned char* pixels, uint32_t width, uint32_t height, uint32_t channels) {
  if (pixels == nullptr || width == 0 || height == 0) return {};
  const int type = channels == 1 ? CV_8UC1 : channels == 3 ? CV_8UC3 : channels == 4 ? CV_8UC4 : -1;
  if (type < 0) return {};
  const cv::Mat wrapped(static_cast<int>(height), static_cast<int>(width), type,
                        const_cast<unsigned char*>(pixels));
  cv::Mat grey;
  if (channels == 1) {
    grey = wrapped.clone();
  } else {
    cv::cvtColor(wrapped, grey, channels == 3 ? cv::COLOR_BGR2GRAY : cv::COLOR_BGRA2GRAY);
  }
  return grey;
}

const cv::Scalar kBackground(32, 32, 32);
const cv::Scalar kText(225, 225, 225);
const cv::Scalar kAfterImpactText(60, 170, 255);
constexpr int kMargin = 8;
constexpr int kLabelHeight = 18;
constexpr int kTitleHeight = 26;      // the first title line; each further one adds kTitleLine
constexpr int kTitleLine = 18;
constexpr int kHeaderHeight = 20;
constexpr double kMaxTileWidth = 480.0;

void PutLabel(cv::Mat& sheet, const std::string& text, cv::Point origin, const cv::Scalar& colour,
              double size = 0.42) {
  cv::putText(sheet, text, origin, cv::FONT_HERSHEY_SIMPLEX, size, colour, 1, cv::LINE_AA);
}

// The view scaled by `scale`, raw frame with the annotations painted at their
// scaled positions so that thin lines keep their full colour.
cv::Mat Tile(const FrameView& view, double scale) {
  const cv::Mat& base = view.raw.empty() ? view.annotated : view.raw;
  if (base.empty()) return {};
  const cv::Size size(std::max(1, static_cast<int>(std::lround(base.cols * scale))),
                      std::max(1, static_cast<int>(std::lround(base.rows * scale))));
  cv::Mat tile;
  if (view.raw.empty()) {
    cv::resize(view.annotated, tile, size, 0, 0, cv::INTER_NEAREST);
    return tile;
  }
  cv::Mat small;
  cv::resize(view.raw, small, size, 0, 0, cv::INTER_AREA);
  cv::cvtColor(small, tile, cv::COLOR_GRAY2BGR);
  if (view.annotated.size() == view.raw.size() && view.annotated.type() == CV_8UC3) {
    for (int y = 0; y < view.annotated.rows; ++y) {
      const auto* row = view.annotated.ptr<cv::Vec3b>(y);
      for (int x = 0; x < view.annotated.cols; ++x) {
        if (!IsAnnotation(row[x])) continue;
        const int ty = std::min(size.height - 1, static_cast<int>(y * scale));
        const int tx = std::min(size.width - 1, static_cast<int>(x * scale));
        tile.at<cv::Vec3b>(ty, tx) = row[x];
      }
    }
  }
  return tile;
}

}  // namespace

std::vector<FrameView> ViewsFromResult(
    const std::vector<std::unique_ptr<OfflineResultImage>>& images) {
  int cam1Count = 0;
  for (const auto& image : images) cam1Count += image->camera == 0 ? 1 : 0;
  std::vector<FrameView> views;
  views.reserve(images.size());
  for (const auto& image : images) {
    FrameView view;
    view.camera = image->camera == 0 ? 0 : 1;
    view.index = image->frameNumber - (view.camera == 1 ? cam1Count : 0);
    view.timeStamp = image->timeStamp;
    view.afterImpact = image->afterImpact != 0;
    const size_t area = static_cast<size_t>(image->width) * image->height;
    if (image->bytesPerChannel == 1 && image->channels == 3 &&
        image->pixels.size() == area * 3 && area > 0) {
      view.annotated = cv::Mat(static_cast<int>(image->height), static_cast<int>(image->width),
                               CV_8UC3, const_cast<unsigned char*>(image->pixels.data()))
                           .clone();
    }
    if (image->rawPixels.size() == area && area > 0) {
      view.raw = GreyOf(image->rawPixels.data(), image->width, image->height, 1);
    }
    views.push_back(std::move(view));
  }
  return views;
}

std::vector<FrameView> ViewsFromFrames(const std::vector<ClubImage*>& pairs1,
                                       const std::vector<ClubImage*>& pairs2) {
  std::vector<FrameView> views;
  for (int camera = 0; camera < 2; ++camera) {
    const std::vector<ClubImage*>& frames = camera == 0 ? pairs1 : pairs2;
    for (size_t k = 0; k < frames.size(); ++k) {
      const ClubImage* frame = frames[k];
      if (frame == nullptr) continue;
      FrameView view;
      view.camera = camera;
      view.index = static_cast<int>(k);
      view.timeStamp = frame->timeStamp;
      view.afterImpact = frame->afterImpact != 0;
      if (frame->bytesPerChannel == 1) {
        view.raw = GreyOf(frame->pixels, frame->width, frame->height, frame->channels);
      }
      views.push_back(std::move(view));
    }
  }
  return views;
}

cv::Mat RawWithAnnotations(const FrameView& view) {
  if (view.raw.empty()) return view.annotated.clone();
  cv::Mat out;
  cv::cvtColor(view.raw, out, cv::COLOR_GRAY2BGR);
  if (view.annotated.size() == view.raw.size() && view.annotated.type() == CV_8UC3) {
    for (int y = 0; y < out.rows; ++y) {
      const auto* marks = view.annotated.ptr<cv::Vec3b>(y);
      auto* target = out.ptr<cv::Vec3b>(y);
      for (int x = 0; x < out.cols; ++x) {
        if (IsAnnotation(marks[x])) target[x] = marks[x];
      }
    }
  }
  return out;
}

bool WriteImage(const fs::path& path, const cv::Mat& image, std::string* error) {
  const std::string name = path.string();
  try {
    if (!cv::haveImageWriter(name)) {
      if (error) *error = "cannot write " + name + ": unknown image format (use .png)";
      return false;
    }
    if (image.empty() || !cv::imwrite(name, image)) {
      if (error) *error = "cannot write " + name;
      return false;
    }
    return true;
  } catch (const cv::Exception& e) {
    if (error) *error = "cannot write " + name + ": " + e.err;
    return false;
  }
}

int WriteAnnotatedFrames(const std::vector<FrameView>& views, const fs::path& folder,
                         std::string* error) {
  std::error_code ec;
  fs::create_directories(folder, ec);
  if (ec || !fs::is_directory(folder)) {
    if (error) *error = "cannot create the folder " + folder.string();
    return -1;
  }
  int maxIndex = 0;
  for (const FrameView& view : views) maxIndex = std::max(maxIndex, view.index);
  const int digits = std::max(2, static_cast<int>(std::to_string(maxIndex).size()));
  int written = 0;
  for (const FrameView& view : views) {
    char stem[64];
    std::snprintf(stem, sizeof stem, "cam%d_frame%0*d", view.camera + 1, digits, view.index);
    if (!view.annotated.empty()) {
      if (!WriteImage(folder / (std::string(stem) + "_candidates.png"), view.annotated, error)) {
        return -1;
      }
      ++written;
    }
    if (!view.raw.empty()) {
      if (!WriteImage(folder / (std::string(stem) + "_raw.png"), RawWithAnnotations(view), error)) {
        return -1;
      }
      ++written;
    }
  }
  return written;
}

cv::Mat ContactSheet(const std::vector<FrameView>& views, const std::string& title) {
  int rows = 0;
  int maxWidth = 1;
  for (const FrameView& view : views) {
    rows = std::max(rows, view.index + 1);
    const cv::Mat& base = view.raw.empty() ? view.annotated : view.raw;
    maxWidth = std::max(maxWidth, base.cols);
  }
  const double scale = std::min(1.0, kMaxTileWidth / maxWidth);

  std::vector<cv::Mat> tiles(views.size());
  int columnWidth[2] = {static_cast<int>(kMaxTileWidth / 2), static_cast<int>(kMaxTileWidth / 2)};
  std::vector<int> rowHeight(static_cast<size_t>(rows), 0);
  std::vector<const FrameView*> grid(static_cast<size_t>(rows) * 2, nullptr);
  std::vector<const cv::Mat*> gridTiles(grid.size(), nullptr);
  for (size_t i = 0; i < views.size(); ++i) {
    const FrameView& view = views[i];
    if (view.index < 0) continue;
    tiles[i] = Tile(view, scale);
    columnWidth[view.camera] = std::max(columnWidth[view.camera], tiles[i].cols);
    rowHeight[view.index] = std::max(rowHeight[view.index], tiles[i].rows);
    grid[static_cast<size_t>(view.index) * 2 + view.camera] = &view;
    gridTiles[static_cast<size_t>(view.index) * 2 + view.camera] = &tiles[i];
  }

  // The title's first line is the headline; further lines (after '\n') are smaller.
  std::vector<std::string> titleLines;
  for (size_t begin = 0;;) {
    const size_t end = title.find('\n', begin);
    titleLines.push_back(title.substr(begin, end == std::string::npos ? end : end - begin));
    if (end == std::string::npos) break;
    begin = end + 1;
  }
  const int titleHeight = kTitleHeight + kTitleLine * static_cast<int>(titleLines.size() - 1);

  int height = kMargin + titleHeight + kHeaderHeight;
  for (int h : rowHeight) height += kLabelHeight + h + kMargin;
  const int width = kMargin * 3 + columnWidth[0] + columnWidth[1];
  cv::Mat sheet(height, width, CV_8UC3, kBackground);

  for (size_t i = 0; i < titleLines.size(); ++i) {
    PutLabel(sheet, titleLines[i], cv::Point(kMargin, kMargin + 16 + kTitleLine * static_cast<int>(i)),
             kText, i == 0 ? 0.55 : 0.45);
  }
  const int left[2] = {kMargin, kMargin * 2 + columnWidth[0]};
  const char* headers[2] = {"camera 1 (Master)", "camera 2 (Slave)"};
  for (int camera = 0; camera < 2; ++camera) {
    PutLabel(sheet, headers[camera], cv::Point(left[camera], kMargin + titleHeight + 12), kText,
             0.5);
  }
  int top = kMargin + titleHeight + kHeaderHeight;
  for (int row = 0; row < rows; ++row) {
    for (int camera = 0; camera < 2; ++camera) {
      const FrameView* view = grid[static_cast<size_t>(row) * 2 + camera];
      const cv::Mat* tile = gridTiles[static_cast<size_t>(row) * 2 + camera];
      if (view == nullptr) {
        PutLabel(sheet, "frame " + std::to_string(row) + "  no frame",
                 cv::Point(left[camera], top + 13), kText);
        continue;
      }
      char label[128];
      std::snprintf(label, sizeof label, "frame %d  t=%llu  %s", row,
                    static_cast<unsigned long long>(view->timeStamp),
                    view->afterImpact ? "after impact" : "before impact");
      PutLabel(sheet, label, cv::Point(left[camera], top + 13),
               view->afterImpact ? kAfterImpactText : kText);
      if (tile != nullptr && !tile->empty()) {
        tile->copyTo(sheet(cv::Rect(left[camera], top + kLabelHeight, tile->cols, tile->rows)));
      }
    }
    top += kLabelHeight + rowHeight[static_cast<size_t>(row)] + kMargin;
  }
  return sheet;
}
