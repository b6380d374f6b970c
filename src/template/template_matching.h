// Gradient images and windowed template matching: the primitives of the
// template tracking path.
#pragma once

#include <vector>

#include <opencv2/core.hpp>

// Appends to `gradients` one 8-bit gradient-magnitude image per frame of
// `frames` (8-bit grey), in order: 3x3 Sobel derivatives in float, their
// magnitude, min-max stretched to 0..255 and rounded. A constant frame gives an
// all-zero image.
void MakeGradientImages(const std::vector<cv::Mat>& frames, std::vector<cv::Mat>& gradients);

// Finds the best normalised-correlation match of `templ` inside `window` of
// `image`. `window` is clipped in place (negative x or y to 0, then width and
// height to the image); a window that then reaches the image's last column or
// last row is refused, as is an empty image, an empty window and a template
// that is empty, of another type than the image or larger than the window. On
// success `match` is the best position in whole-image coordinates (the
// template's size) and `score` its correlation coefficient; otherwise both are
// left untouched and the result is false.
bool MatchTemplateInWindow(const cv::Mat& templ, const cv::Mat& image, cv::Rect& window,
                           cv::Rect& match, double& score);
