// Straightforward cv::Mat version of the stereo spin-axis search, kept in the
// tests only. Every quantity is formed with the plain matrix operations, one
// heap matrix at a time, without any caching: the optimised search in the
// library must reproduce it bit for bit.
#pragma once

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "imageprocess/ImageProcess.h"
#include "tracker/records.h"

namespace reference {

// What the search went through, for comparisons.
struct SpinAxisStats {
  size_t linePairs = 0;
  size_t evaluatedPairs = 0;
  size_t hypotheses = 0;
  double refitResidual = std::numeric_limits<double>::quiet_NaN();
  std::vector<ClubSpinAxis3D> sorted;  // the hypothesis list after the sort
};

struct Camera {
  cv::Mat intrinsic;
  cv::Mat rotationToWorld;
  cv::Mat center;
  cv::Mat rayMatrix;
};

inline void MakeCameraMatrices(const double* intrinsicValues, const double* extrinsicValues,
                               cv::Mat& intrinsic, cv::Mat& rotationToWorld, cv::Mat& center) {
  double values[21];
  for (int i = 0; i < 9; ++i) values[i] = intrinsicValues[i];
  for (int i = 0; i < 12; ++i) values[9 + i] = extrinsicValues[i];
  cv::Mat k(3, 3, CV_64F);
  for (int i = 0; i < 9; ++i) k.at<double>(i / 3, i % 3) = values[i];
  cv::Mat r(3, 3, CV_64F);
  r.at<double>(0, 0) = values[9];
  r.at<double>(0, 1) = values[10];
  r.at<double>(0, 2) = values[11];
  r.at<double>(1, 0) = values[13];
  r.at<double>(1, 1) = values[14];
  r.at<double>(1, 2) = values[15];
  r.at<double>(2, 0) = values[17];
  r.at<double>(2, 1) = values[18];
  r.at<double>(2, 2) = values[19];
  r = r.t();
  cv::Mat t(3, 1, CV_64F);
  t.at<double>(0) = values[12];
  t.at<double>(1) = values[16];
  t.at<double>(2) = values[20];
  t = -r * t;
  intrinsic = k;
  rotationToWorld = r;
  center = t;
}

inline Camera MakeCamera(const double* intrinsicValues, const double* extrinsicValues) {
  Camera camera;
  MakeCameraMatrices(intrinsicValues, extrinsicValues, camera.intrinsic, camera.rotationToWorld,
                     camera.center);
  camera.rayMatrix = camera.rotationToWorld * camera.intrinsic.inv();
  return camera;
}

// The area list arrives as a copy, as it always has.
inline void ImageLineToPlane(cv::Mat& normal, std::vector<CandidateAreaImage*> areas, int frame,
                             cv::Vec2f line, const cv::Mat& rayMatrix) {
  double rho = line[0];
  double theta = line[1];
  cv::Mat p1(3, 1, CV_64F);
  cv::Mat p2(3, 1, CV_64F);
  if (cos(theta) == 0.0) {
    p1.at<double>(0) = 0;
    p1.at<double>(1) = rho;
    p1.at<double>(2) = 1;
    p2.at<double>(0) = rho;
    p2.at<double>(1) = 100.0;
    p2.at<double>(2) = 1;
  } else {
    double top = areas[frame]->sensorOffsetY;
    double height = areas[frame]->image.rows;
    double y1 = top;
    double x1 = rho / cos(theta) - tan(theta) * y1;
    double y2 = top + height;
    double x2 = rho / cos(theta) - tan(theta) * y2;
    p1.at<double>(0) = x1;
    p1.at<double>(1) = y1;
    p1.at<double>(2) = 1;
    p2.at<double>(0) = x2;
    p2.at<double>(1) = y2;
    p2.at<double>(2) = 1;
  }
  cv::Mat d1 = rayMatrix * p1;
  cv::Mat d2 = rayMatrix * p2;
  normal = d1.cross(d2);
  normal.convertTo(normal, -1, 1.0 / sqrt(normal.dot(normal)), 0.0);
}

// ---------------------------------------------------------------- inliers

// The inliers of hypothesis h, threshold 10.
inline void CollectInliers(const ClubSpinAxis3D& h, std::vector<CandidateAreaImage*> cam1Areas,
                           const Camera& c1, std::vector<CandidateAreaImage*> cam2Areas,
                           const Camera& c2, std::vector<SpinAxisInlier>& list) {
  const int threshold = 10;
  cv::Mat x(3, 1, CV_64F, const_cast<double*>(h.pivot));
  for (int j = 0; j < (int)cam1Areas.size(); ++j) {
    if (j == h.firstFrame || j == h.secondFrame) {
      const bool first = j == h.firstFrame;
      list.push_back({j, first ? h.firstCam1Line : h.secondCam1Line,
                      first ? h.firstCam2Line : h.secondCam2Line});
      continue;
    }
    int nearest[2] = {0, 0};
    double best[2] = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max()};
    for (int c = 0; c < 2; ++c) {
      const std::vector<CandidateAreaImage*>& areas = c == 0 ? cam1Areas : cam2Areas;
      const Camera& cam = c == 0 ? c1 : c2;
      for (int k = 0; k < (int)areas[j]->lines.size(); ++k) {
        cv::Mat normal;
        ImageLineToPlane(normal, areas, j, areas[j]->lines[k], cam.rayMatrix);
        double d = std::abs((normal.dot(x) - normal.dot(cam.center)) / sqrt(normal.dot(normal)));
        if (d < best[c]) {
          best[c] = d;
          nearest[c] = k;
        }
      }
    }
    if (threshold > best[0] && threshold > best[1]) {
      list.push_back({j, cam1Areas[j]->lines[nearest[0]], cam2Areas[j]->lines[nearest[1]]});
    }
  }
}

inline int SelectSpinAxisInliers(const ClubTrackerSetting& setting,
                                 std::vector<CandidateAreaImage*> cam1Areas,
                                 std::vector<CandidateAreaImage*> cam2Areas,
                                 std::vector<ClubSpinAxis3D>& axes) {
  Camera c1 = MakeCamera(setting.cam1Intrinsic, setting.cam1Extrinsic);
  Camera c2 = MakeCamera(setting.cam2Intrinsic, setting.cam2Extrinsic);
  for (ClubSpinAxis3D& h : axes) {
    std::vector<SpinAxisInlier> list;
    CollectInliers(h, cam1Areas, c1, cam2Areas, c2, list);
    h.inliers = list;
  }
  return 1;
}

// ---------------------------------------------------------------- spin axis

struct LinePair {
  int firstFrame;
  int secondFrame;
  cv::Vec2f cam1First;
  cv::Vec2f cam1Second;
  cv::Vec2f cam2First;
  cv::Vec2f cam2Second;
};

// The pivot of line pair p, written to `slot` when it passes the acceptance
// windows (residual at most 10, along the axis 700 to 2000, distance 700 to 2800).
inline void EvaluatePair(const LinePair& p, std::vector<CandidateAreaImage*> cam1Areas,
                         const Camera& c1, std::vector<CandidateAreaImage*> cam2Areas,
                         const Camera& c2, const ClubTrackerSetting& setting,
                         const double* referencePoint, ClubSpinAxis3D& slot) {
  cv::Mat n0, n1, n2, n3;
  ImageLineToPlane(n0, cam1Areas, p.firstFrame, p.cam1First, c1.rayMatrix);
  ImageLineToPlane(n1, cam1Areas, p.secondFrame, p.cam1Second, c1.rayMatrix);
  ImageLineToPlane(n2, cam2Areas, p.firstFrame, p.cam2First, c2.rayMatrix);
  ImageLineToPlane(n3, cam2Areas, p.secondFrame, p.cam2Second, c2.rayMatrix);
  const cv::Mat* normals[4] = {&n0, &n1, &n2, &n3};
  const cv::Mat* centers[4] = {&c1.center, &c1.center, &c2.center, &c2.center};
  cv::Mat a(4, 3, CV_64F);
  cv::Mat d(4, 1, CV_64F);
  for (int i = 0; i < 4; ++i) {
    for (int c = 0; c < 3; ++c) a.at<double>(i, c) = normals[i]->at<double>(c);
    d.at<double>(i) = normals[i]->dot(*centers[i]);
  }
  cv::Mat x = a.inv(cv::DECOMP_SVD) * d;
  cv::Mat r = a * x - d;
  double residual = r.dot(r) / 4;
  cv::Mat ref(3, 1, CV_64F, const_cast<double*>(referencePoint));
  int axisIndex = setting.axisIndex;
  double along = std::abs(x.at<double>(axisIndex) - referencePoint[axisIndex]);
  double dist = cv::norm(x - ref);
  if (residual > 10.0) return;
  if (along < 700.0 || along > 2000.0) return;
  if (dist < 700.0 || dist > 2800.0) return;
  slot.id = 0;
  slot.firstFrame = p.firstFrame;
  slot.secondFrame = p.secondFrame;
  slot.firstCam1Line = p.cam1First;
  slot.firstCam2Line = p.cam2First;
  slot.secondCam1Line = p.cam1Second;
  slot.secondCam2Line = p.cam2Second;
  slot.inliers.clear();
  slot.pivot[0] = x.at<double>(0);
  slot.pivot[1] = x.at<double>(1);
  slot.pivot[2] = x.at<double>(2);
  slot.fitResidual = (float)residual;
}

// Log lines go to `log` when it is given.
inline int FindClubSpinAxis(const ClubTrackerSetting& setting, double* referencePoint,
                            std::vector<std::string>* log,
                            std::vector<CandidateAreaImage*> cam1Areas,
                            std::vector<CandidateAreaImage*> cam2Areas, ClubSpinAxis3D& axis,
                            SpinAxisStats* stats = nullptr) {
  if (log) log->push_back("FindClubSpinAxis start");
  if (cam1Areas.size() != cam2Areas.size()) return 0;

  int n = (int)cam1Areas.size();
  std::vector<LinePair> pairs;
  for (int a = 0; a < n; ++a) {
    for (int b = a + 1; b < n; ++b) {
      for (size_t i = 0; i < cam1Areas[a]->lines.size(); ++i) {
        for (size_t j = 0; j < cam1Areas[b]->lines.size(); ++j) {
          for (size_t k = 0; k < cam2Areas[a]->lines.size(); ++k) {
            for (size_t l = 0; l < cam2Areas[b]->lines.size(); ++l) {
              LinePair p;
              p.firstFrame = a;
              p.secondFrame = b;
              p.cam1First = cam1Areas[a]->lines[i];
              p.cam1Second = cam1Areas[b]->lines[j];
              p.cam2First = cam2Areas[a]->lines[k];
              p.cam2Second = cam2Areas[b]->lines[l];
              pairs.push_back(p);
            }
          }
        }
      }
    }
  }
  if (stats) stats->linePairs = pairs.size();

  Camera c1 = MakeCamera(setting.cam1Intrinsic, setting.cam1Extrinsic);
  Camera c2 = MakeCamera(setting.cam2Intrinsic, setting.cam2Extrinsic);

  for (int k = 0; k < n; ++k) {
    CandidateAreaImage* a1 = cam1Areas[k];
    CandidateAreaImage* a2 = cam2Areas[k];
    if (a1->afterImpact != 1 && (a1->ballX != 0 || a1->ballY != 0) && a2->afterImpact != 1 &&
        (a2->ballX != 0 || a2->ballY != 0)) {
      cv::Mat p1(3, 1, CV_64F);
      p1.at<double>(0) = a1->sensorOffsetX + a1->ballX;
      p1.at<double>(1) = a1->sensorOffsetY + a1->ballY;
      p1.at<double>(2) = 1;
      cv::Mat p2(3, 1, CV_64F);
      p2.at<double>(0) = a2->sensorOffsetX + a2->ballX;
      p2.at<double>(1) = a2->sensorOffsetY + a2->ballY;
      p2.at<double>(2) = 1;
      cv::Mat out(3, 1, CV_64F, referencePoint);
      float quality = 0;
      ImageProcess::Coordinate2DTO3D(c1.intrinsic, c1.rotationToWorld, c1.center, p1, c2.intrinsic,
                                     c2.rotationToWorld, c2.center, p2, out, quality);
      break;
    }
  }

  const int batch = 262144;
  std::vector<ClubSpinAxis3D> hypotheses;
  int batches = (int)(pairs.size() / batch) + 1;
  ClubSpinAxis3D* slots = new ClubSpinAxis3D[batch];
  for (int b = 0; b < batches; ++b) {
    int remaining = (int)pairs.size() - b * batch;
    int count = remaining <= batch ? remaining : batch;
    int chunk = count / 8;
    if (stats && b * batch < count) stats->evaluatedPairs += (size_t)chunk * 8;
    // Eight chunks of `chunk` pairs; the rest of the batch is dropped.
    for (int i = 0; i < 8 * chunk; ++i) {
      if (b * batch + i >= count) continue;
      EvaluatePair(pairs[b * batch + i], cam1Areas, c1, cam2Areas, c2, setting, referencePoint,
                   slots[i]);
    }
    for (int s = 0; s < count; ++s) {
      if (slots[s].pivot[0] == 0 && slots[s].pivot[1] == 0 && slots[s].pivot[2] == 0) continue;
      ClubSpinAxis3D h = slots[s];
      h.id = (int)hypotheses.size();
      hypotheses.push_back(h);
    }
  }
  delete[] slots;
  if (stats) stats->hypotheses = hypotheses.size();

  SelectSpinAxisInliers(setting, cam1Areas, cam2Areas, hypotheses);

  if (!hypotheses.empty()) {
    static int axisIndex = setting.axisIndex;
    std::sort(hypotheses.begin(), hypotheses.end(),
              [](const ClubSpinAxis3D& l, const ClubSpinAxis3D& r) {
                if (l.inliers.size() != r.inliers.size())
                  return l.inliers.size() > r.inliers.size();
                return std::abs(l.pivot[axisIndex]) > std::abs(r.pivot[axisIndex]);
              });
    if (stats) stats->sorted = hypotheses;
    if (hypotheses[0].inliers.size() >= 2) {
      double best = 1000.0;
      for (size_t i = 0; i < hypotheses.size(); ++i) {
        const ClubSpinAxis3D& h = hypotheses[i];
        if (h.inliers.size() < 2) continue;
        int usable = 0;
        for (const SpinAxisInlier& in : h.inliers) {
          CandidateAreaImage* a1 = cam1Areas[in.frame];
          CandidateAreaImage* a2 = cam2Areas[in.frame];
          if (a1 && a2 && a1->afterImpact == 0 && a2->afterImpact == 0) ++usable;
        }
        if (usable < 2) continue;
        int m = (int)h.inliers.size();
        cv::Mat a(2 * m, 3, CV_64F);
        cv::Mat d(2 * m, 1, CV_64F);
        for (int k = 0; k < m; ++k) {
          cv::Mat normal;
          ImageLineToPlane(normal, cam1Areas, h.inliers[k].frame, h.inliers[k].cam1Line,
                           c1.rayMatrix);
          normal = normal * (1.0 / cv::norm(normal));
          a.at<double>(k, 0) = normal.at<double>(0);
          a.at<double>(k, 1) = normal.at<double>(1);
          a.at<double>(k, 2) = normal.at<double>(2);
          d.at<double>(k) = normal.dot(c1.center);
        }
        for (int k = 0; k < m; ++k) {
          cv::Mat normal;
          ImageLineToPlane(normal, cam2Areas, h.inliers[k].frame, h.inliers[k].cam2Line,
                           c2.rayMatrix);
          normal = normal * (1.0 / cv::norm(normal));
          a.at<double>(m + k, 0) = normal.at<double>(0);
          a.at<double>(m + k, 1) = normal.at<double>(1);
          a.at<double>(m + k, 2) = normal.at<double>(2);
          d.at<double>(m + k) = normal.dot(c2.center);
        }
        cv::Mat x = a.inv(cv::DECOMP_SVD) * d;
        cv::Mat r = a * x - d;
        double residual = r.dot(r) / r.rows;
        if (residual < best) {
          best = residual;
          axis = h;
          axis.pivot[0] = x.at<double>(0);
          axis.pivot[1] = x.at<double>(1);
          axis.pivot[2] = x.at<double>(2);
          if (stats) stats->refitResidual = residual;
        }
        if (residual < 3.0) break;
      }
    }
  }

  if (axis.pivot[0] == 0 && axis.pivot[1] == 0 && axis.pivot[2] == 0) {
    if (log) log->push_back("Axis analysis failed.");
    return 0;
  }
  if (log) log->push_back("FindClubSpinAxis end.");
  return 1;
}

}  // namespace reference
