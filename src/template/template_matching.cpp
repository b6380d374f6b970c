#include "template/template_matching.h"

#include <opencv2/core/utility.hpp>
#include <opencv2/imgproc.hpp>

void MakeGradientImages(const std::vector<cv::Mat>& frames, std::vector<cv::Mat>& gradients) {
  // The call has always been timed; the figure is not reported anywhere.
  const int64 start = cv::getTickCount();
  gradients.reserve(gradients.size() + frames.size());
  for (const cv::Mat& frame : frames) {
    cv::Mat gx;
    cv::Mat gy;
    cv::Sobel(frame, gx, CV_32F, 1, 0, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
    cv::Sobel(frame, gy, CV_32F, 0, 1, 3, 1.0, 0.0, cv::BORDER_DEFAULT);
    cv::Mat magnitude;
    cv::magnitude(gx, gy, magnitude);
    cv::Mat stretched;
    cv::normalize(magnitude, stretched, 0.0, 255.0, cv::NORM_MINMAX, -1, cv::noArray());
    cv::Mat out;
    stretched.convertTo(out, CV_8U, 1.0, 0.0);
    gradients.push_back(out);
  }
  const int64 end = cv::getTickCount();
  (void)start;
  (void)end;
}

bool MatchTemplateInWindow(const cv::Mat& templ, const cv::Mat& image, cv::Rect& window,
                           cv::Rect& match, double& score) {
  if (image.rows * image.cols < 1) return false;

  if (window.x < 0) window.x = 0;
  if (window.y < 0) window.y = 0;
  if (window.x + window.width > image.cols) window.width = image.cols - window.x;
  if (window.y + window.height > image.rows) window.height = image.rows - window.y;

  // Strict on the right and bottom: a window touching the last column or row,
  // clipped there or not, is refused.
  if (!(window.x >= 0 && window.y >= 0 && window.x + window.width < image.cols &&
        window.y + window.height < image.rows)) {
    return false;
  }

  // Guards against arguments that OpenCV would reject with an exception; they
  // change no outcome for a well-formed call.
  if (window.width <= 0 || window.height <= 0 || templ.empty() ||
      templ.type() != image.type()) {
    return false;
  }

  const cv::Mat sub = image(window);
  if (templ.rows > sub.rows || templ.cols > sub.cols) return false;

  cv::Mat result;
  cv::matchTemplate(sub, templ, result, cv::TM_CCOEFF_NORMED);
  double minVal = 0.0;
  double maxVal = 0.0;
  cv::Point minLoc;
  cv::Point maxLoc;
  cv::minMaxLoc(result, &minVal, &maxVal, &minLoc, &maxLoc, cv::noArray());

  score = maxVal;
  match = cv::Rect(window.x + maxLoc.x, window.y + maxLoc.y, templ.cols, templ.rows);
  return true;
}
