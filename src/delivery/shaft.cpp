#include "delivery/shaft.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

namespace clubtracker::delivery {

namespace {

// Grey-level difference from the static scene that marks a pixel as the
// club's (as for the head), and the lower one down to which the shaft's
// anti-aliased edge pixels still count, weighted by their difference.
constexpr double kChanged = 20.0;
constexpr double kEdge = 6.0;
// The head's outline is grown by this factor (plus kHeadPad pixels) before
// its pixels are left out; the shaft is looked for within kReach head sizes.
constexpr double kHeadGrowth = 1.2;
constexpr double kHeadPad = 3.0;
constexpr double kReach = 4.0;
// Direction histogram of the changed pixels around the head, and the wedge
// about its peak that seeds the line.
constexpr int kBins = 90;
constexpr double kWedge = 0.2;  // radians
// At least this many pixels make a shaft line.
constexpr int kMinPixels = 40;
// Slices across the shaft: at least this many, each within kSliceTolerance
// pixels of the typical width.
constexpr int kMinSlices = 12;
constexpr double kSliceTolerance = 2.5;

// Sub-pixel edges: the profile across the shaft is sampled every kStep
// pixels, and an edge is where it first reaches kEdgeLevel from outside.
constexpr double kStep = 0.25;
constexpr double kEdgeLevel = 10.0;

// Bilinear sample of an 8-bit image; -1 outside it.
double Sample(const cv::Mat& image, const cv::Point2d& p) {
  const int x = static_cast<int>(std::floor(p.x));
  const int y = static_cast<int>(std::floor(p.y));
  if (x < 0 || y < 0 || x + 1 >= image.cols || y + 1 >= image.rows) return -1.0;
  const double fx = p.x - x, fy = p.y - y;
  const uchar* r0 = image.ptr<uchar>(y);
  const uchar* r1 = image.ptr<uchar>(y + 1);
  return (1.0 - fy) * ((1.0 - fx) * r0[x] + fx * r0[x + 1]) +
         fy * ((1.0 - fx) * r1[x] + fx * r1[x + 1]);
}

struct Weighted {
  cv::Point2d p;
  double w;
};

// Weighted centroid and principal direction; false when degenerate.
bool PrincipalLine(const std::vector<Weighted>& points, cv::Point2d& centre, cv::Point2d& dir) {
  double sw = 0.0;
  cv::Point2d mean(0.0, 0.0);
  for (const Weighted& q : points) {
    sw += q.w;
    mean += q.p * q.w;
  }
  if (!(sw > 0.0)) return false;
  mean *= 1.0 / sw;
  double sxx = 0.0, syy = 0.0, sxy = 0.0;
  for (const Weighted& q : points) {
    const cv::Point2d d = q.p - mean;
    sxx += q.w * d.x * d.x;
    syy += q.w * d.y * d.y;
    sxy += q.w * d.x * d.y;
  }
  const double angle = 0.5 * std::atan2(2.0 * sxy, sxx - syy);
  centre = mean;
  dir = cv::Point2d(std::cos(angle), std::sin(angle));
  return std::isfinite(angle);
}

// Normalised squared distance of `p` from the centre of the grown outline.
double InsideHead(const headtrack::HeadOutline& head, const cv::Point2d& p) {
  const cv::Point2d d = p - head.centre;
  const double c = std::cos(head.angle), s = std::sin(head.angle);
  const double a = head.semiMajor * kHeadGrowth + kHeadPad;
  const double b = head.semiMinor * kHeadGrowth + kHeadPad;
  const double u = (d.x * c + d.y * s) / a;
  const double v = (-d.x * s + d.y * c) / b;
  return u * u + v * v;
}

}  // namespace

bool MeasureShaftLine(const headtrack::CameraFrame& frame, const cv::Mat& background,
                      const headtrack::HeadOutline& head, ImageLine& line) {
  if (frame.grey.empty() || background.size() != frame.grey.size() ||
      !(head.semiMajor > 0.0) || !(head.semiMinor > 0.0)) {
    return false;
  }
  const double reach = kReach * head.semiMajor;
  const cv::Rect area =
      cv::Rect(static_cast<int>(std::floor(head.centre.x - reach)),
               static_cast<int>(std::floor(head.centre.y - reach)),
               static_cast<int>(2.0 * reach) + 2, static_cast<int>(2.0 * reach) + 2) &
      cv::Rect(0, 0, frame.grey.cols, frame.grey.rows);
  if (area.width < 3 || area.height < 3) return false;
  cv::Mat diff;
  cv::absdiff(frame.grey(area), background(area), diff);

  // The changed pixels around the head, by direction from its centre.
  std::vector<Weighted> around;
  std::array<double, kBins> histogram{};
  for (int y = 0; y < diff.rows; ++y) {
    const uchar* row = diff.ptr<uchar>(y);
    for (int x = 0; x < diff.cols; ++x) {
      if (row[x] < kEdge) continue;
      const cv::Point2d p(area.x + x, area.y + y);
      const cv::Point2d d = p - head.centre;
      if (d.dot(d) > reach * reach || InsideHead(head, p) <= 1.0) continue;
      const double w = std::min(1.0, row[x] / (2.0 * kChanged));
      around.push_back({p, w});
      if (row[x] >= kChanged) {
        const double angle = std::atan2(d.y, d.x);
        const int bin = std::clamp(static_cast<int>((angle + CV_PI) / (2.0 * CV_PI) * kBins), 0,
                                   kBins - 1);
        histogram[bin] += 1.0;
      }
    }
  }
  const int peak = static_cast<int>(std::max_element(histogram.begin(), histogram.end()) -
                                    histogram.begin());
  if (histogram[peak] < 5.0) return false;
  const double peakAngle = (peak + 0.5) / kBins * 2.0 * CV_PI - CV_PI;
  cv::Point2d dir(std::cos(peakAngle), std::sin(peakAngle));
  cv::Point2d centre = head.centre;

  // Seed from the wedge, then refine twice on the band around the line.
  std::vector<Weighted> chosen;
  double halfWidth = 0.0;
  for (int pass = 0; pass < 3; ++pass) {
    chosen.clear();
    for (const Weighted& q : around) {
      const cv::Point2d d = q.p - centre;
      const double along = d.dot(dir);
      const double across = std::abs(d.x * dir.y - d.y * dir.x);
      if (pass == 0) {
        const cv::Point2d r = q.p - head.centre;
        const double angle = std::atan2(r.y, r.x) - peakAngle;
        if (std::abs(std::remainder(angle, 2.0 * CV_PI)) > kWedge) continue;
      } else if (across > halfWidth || (q.p - head.centre).dot(dir) < 0.0) {
        continue;
      }
      (void)along;
      chosen.push_back(q);
    }
    if (static_cast<int>(chosen.size()) < kMinPixels) return false;
    cv::Point2d newDir;
    if (!PrincipalLine(chosen, centre, newDir)) return false;
    if (newDir.dot(dir) < 0.0) newDir = -newDir;
    dir = newDir;
    // The band: the strong pixels' spread across the line (a uniform band of
    // width w spreads w / sqrt(12)), with two pixels for the soft edges.
    double s2 = 0.0, sw = 0.0;
    for (const Weighted& q : chosen) {
      const cv::Point2d d = q.p - centre;
      const double across = d.x * dir.y - d.y * dir.x;
      s2 += q.w * across * across;
      sw += q.w;
    }
    halfWidth = 0.5 * std::sqrt(12.0 * s2 / sw) + 2.0;
  }
  // The centre line as the middle between the band's two edges, slice by
  // slice along it: shading across the shaft (a lit and a dark side, a dark
  // side as dark as what lies behind it) moves a weighted centre, not the
  // edges. Slices much narrower or wider than the typical one are left out
  // (the hosel, a slice cut by the head's outline).
  for (int pass = 0; pass < 2; ++pass) {
    const double band = halfWidth + 3.0;
    std::vector<double> lo, hi;
    double minAlong = 1e9;
    for (const Weighted& q : around) {
      const cv::Point2d d = q.p - centre;
      const double across = d.x * dir.y - d.y * dir.x;
      if (std::abs(across) > band || (q.p - head.centre).dot(dir) < 0.0) continue;
      minAlong = std::min(minAlong, d.dot(dir));
    }
    if (!(minAlong < 1e9)) return false;
    double maxAlong = minAlong;
    for (const Weighted& q : around) {
      const cv::Point2d d = q.p - centre;
      const double across = d.x * dir.y - d.y * dir.x;
      if (std::abs(across) > band || (q.p - head.centre).dot(dir) < 0.0) continue;
      maxAlong = std::max(maxAlong, d.dot(dir));
    }
    const int slices = static_cast<int>(maxAlong - minAlong) + 1;
    lo.assign(static_cast<size_t>(slices), 1e9);
    hi.assign(static_cast<size_t>(slices), -1e9);
    const cv::Point2d normal0(dir.y, -dir.x);  // across = d . normal0
    for (int k = 0; k < slices; ++k) {
      const cv::Point2d base = centre - cv::Point2d(area.tl()) + dir * (minAlong + k + 0.5);
      // The first crossing of kEdgeLevel from each side inward, interpolated.
      const int steps = static_cast<int>(2.0 * band / kStep);
      double previous = -1.0;
      for (int i = 0; i <= steps; ++i) {
        const double across = -band + i * kStep;
        const double value = Sample(diff, base + normal0 * across);
        if (value < 0.0) break;
        if (value >= kEdgeLevel) {
          if (previous >= 0.0 && i > 0) {
            lo[static_cast<size_t>(k)] =
                across - kStep * (value - kEdgeLevel) / (value - previous);
          }
          break;
        }
        previous = value;
      }
      previous = -1.0;
      for (int i = 0; i <= steps; ++i) {
        const double across = band - i * kStep;
        const double value = Sample(diff, base + normal0 * across);
        if (value < 0.0) break;
        if (value >= kEdgeLevel) {
          if (previous >= 0.0 && i > 0) {
            hi[static_cast<size_t>(k)] =
                across + kStep * (value - kEdgeLevel) / (value - previous);
          }
          break;
        }
        previous = value;
      }
    }
    std::vector<double> widths;
    for (int k = 0; k < slices; ++k) {
      if (hi[static_cast<size_t>(k)] >= lo[static_cast<size_t>(k)]) {
        widths.push_back(hi[static_cast<size_t>(k)] - lo[static_cast<size_t>(k)]);
      }
    }
    if (static_cast<int>(widths.size()) < kMinSlices) return false;
    std::nth_element(widths.begin(), widths.begin() + widths.size() / 2, widths.end());
    const double typical = widths[widths.size() / 2];
    std::vector<double> s, m;
    for (int k = 0; k < slices; ++k) {
      const double w = hi[static_cast<size_t>(k)] - lo[static_cast<size_t>(k)];
      if (!(w >= 0.0) || std::abs(w - typical) > kSliceTolerance) continue;
      s.push_back(minAlong + k + 0.5);
      m.push_back(0.5 * (hi[static_cast<size_t>(k)] + lo[static_cast<size_t>(k)]));
    }
    if (static_cast<int>(s.size()) < kMinSlices) return false;
    // across = a + b along, in the current frame of the line.
    double ms = 0.0, mm = 0.0;
    for (size_t i = 0; i < s.size(); ++i) {
      ms += s[i];
      mm += m[i];
    }
    ms /= static_cast<double>(s.size());
    mm /= static_cast<double>(s.size());
    double sss = 0.0, ssm = 0.0;
    for (size_t i = 0; i < s.size(); ++i) {
      sss += (s[i] - ms) * (s[i] - ms);
      ssm += (s[i] - ms) * (m[i] - mm);
    }
    if (!(sss > 0.0)) return false;
    const double slope = ssm / sss;
    const cv::Point2d normal(dir.y, -dir.x);  // across = d . normal
    centre = centre + dir * ms + normal * mm;
    dir = (dir + normal * slope) * (1.0 / std::sqrt(1.0 + slope * slope));
    halfWidth = 0.5 * typical + 1.0;
  }
  line.point = centre + frame.origin;
  line.direction = dir;
  line.pixels = static_cast<int>(chosen.size());
  return true;
}

bool LineDirection(const headtrack::StereoRig& rig, const ImageLine& line1,
                   const ImageLine& line2, const cv::Vec3d& orient, cv::Vec3d& direction) {
  const ImageLine* lines[2] = {&line1, &line2};
  cv::Vec3d normal[2];
  for (int c = 0; c < 2; ++c) {
    const cv::Matx33d toWorld = cv::Matx33d(rig.rotationToWorld[c]) *
                                cv::Matx33d(rig.intrinsic[c]).inv();
    const cv::Point2d a = lines[c]->point;
    const cv::Point2d b = a + lines[c]->direction * 100.0;
    const cv::Vec3d rayA = toWorld * cv::Vec3d(a.x, a.y, 1.0);
    const cv::Vec3d rayB = toWorld * cv::Vec3d(b.x, b.y, 1.0);
    normal[c] = cv::normalize(rayA.cross(rayB));
  }
  const cv::Vec3d d = normal[0].cross(normal[1]);
  const double length = cv::norm(d);
  if (!(length > 0.05)) return false;  // planes within 3 degrees of each other
  direction = d * (1.0 / length);
  if (direction.dot(orient) < 0.0) direction = -direction;
  return true;
}

}  // namespace clubtracker::delivery
