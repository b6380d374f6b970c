// Straightforward cv::Mat version of the stereo spin-axis search, kept in the
// tests only. Every quantity is formed with the plain matrix operations, one
// heap matrix at a time, without any caching: the optimised search in the
// library must reproduce it bit for bit. The inputs it is run on come from
// support/find_stages.h.
#pragma once

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>
#include <opencv2/core.hpp>
#include <string>
#include <vector>

#include "imageprocess/ImageProcess.h"
#include "support/access.h"
#include "support/find_stages.h"
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

struct CollectInliersBody {
  std::vector<ClubSpinAxis3D> axes;
  std::vector<CandidateAreaImage*> cam1Areas;
  std::vector<SpinAxisInlier>* result;
  cv::Mat rayMatrix1;
  cv::Mat center1;
  std::vector<CandidateAreaImage*> cam2Areas;
  cv::Mat rayMatrix2;
  cv::Mat center2;
  int threshold;

  void Collect(int index) const {
    ClubSpinAxis3D h = axes[index];
    cv::Mat x(3, 1, CV_64F, h.pivot);
    std::vector<SpinAxisInlier>& list = result[index];
    for (int j = 0; j < (int)cam1Areas.size(); ++j) {
      if (j == h.firstFrame) {
        SpinAxisInlier in;
        in.frame = j;
        in.cam1Line = h.firstCam1Line;
        in.cam2Line = h.firstCam2Line;
        list.push_back(in);
        continue;
      }
      if (j == h.secondFrame) {
        SpinAxisInlier in;
        in.frame = j;
        in.cam1Line = h.secondCam1Line;
        in.cam2Line = h.secondCam2Line;
        list.push_back(in);
        continue;
      }
      double best1 = std::numeric_limits<double>::max();
      int k1 = 0;
      for (int k = 0; k < (int)cam1Areas[j]->lines.size(); ++k) {
        cv::Mat normal;
        ImageLineToPlane(normal, cam1Areas, j, cam1Areas[j]->lines[k], rayMatrix1);
        double d = std::abs((normal.dot(x) - normal.dot(center1)) / sqrt(normal.dot(normal)));
        if (d < best1) {
          best1 = d;
          k1 = k;
        }
      }
      double best2 = std::numeric_limits<double>::max();
      int k2 = 0;
      for (int k = 0; k < (int)cam2Areas[j]->lines.size(); ++k) {
        cv::Mat normal;
        ImageLineToPlane(normal, cam2Areas, j, cam2Areas[j]->lines[k], rayMatrix2);
        double d = std::abs((normal.dot(x) - normal.dot(center2)) / sqrt(normal.dot(normal)));
        if (d < best2) {
          best2 = d;
          k2 = k;
        }
      }
      if (threshold > best1 && threshold > best2) {
        SpinAxisInlier in;
        in.frame = j;
        in.cam1Line = cam1Areas[j]->lines[k1];
        in.cam2Line = cam2Areas[j]->lines[k2];
        list.push_back(in);
      }
    }
  }

  void operator()(const tbb::blocked_range<int>& range) const {
    for (int i = range.begin(); i != range.end(); ++i) Collect(i);
  }
};

inline int SelectSpinAxisInliers(const ClubTrackerSetting& setting,
                                 std::vector<CandidateAreaImage*> cam1Areas,
                                 std::vector<CandidateAreaImage*> cam2Areas,
                                 std::vector<ClubSpinAxis3D>& axes) {
  int n = (int)axes.size();
  std::vector<SpinAxisInlier>* result = new std::vector<SpinAxisInlier>[n];
  Camera c1 = MakeCamera(setting.cam1Intrinsic, setting.cam1Extrinsic);
  Camera c2 = MakeCamera(setting.cam2Intrinsic, setting.cam2Extrinsic);
  CollectInliersBody body{axes,         cam1Areas, result, c1.rayMatrix, c1.center, cam2Areas,
                          c2.rayMatrix, c2.center, 10};
  tbb::parallel_for(tbb::blocked_range<int>(0, n, 1), body);
  for (int i = 0; i < n; ++i) axes[i].inliers = result[i];
  delete[] result;
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
  std::vector<SpinAxisInlier> inliers;
};

struct EvaluateBody {
  int chunk;
  int start;
  int count;
  std::vector<LinePair> pairs;
  std::vector<CandidateAreaImage*> cam1Areas;
  cv::Mat rayMatrix1;
  cv::Mat center1;
  std::vector<CandidateAreaImage*> cam2Areas;
  cv::Mat rayMatrix2;
  cv::Mat center2;
  const ClubTrackerSetting* setting;
  const double* referencePoint;
  ClubSpinAxis3D* slots;
  double maxResidual;
  double minAlong;
  double maxAlong;
  double minDistance;
  double maxDistance;

  void Evaluate(int g, ClubSpinAxis3D& slot) const {
    const LinePair& p = pairs[g];
    cv::Mat n0, n1, n2, n3;
    ImageLineToPlane(n0, cam1Areas, p.firstFrame, p.cam1First, rayMatrix1);
    ImageLineToPlane(n1, cam1Areas, p.secondFrame, p.cam1Second, rayMatrix1);
    ImageLineToPlane(n2, cam2Areas, p.firstFrame, p.cam2First, rayMatrix2);
    ImageLineToPlane(n3, cam2Areas, p.secondFrame, p.cam2Second, rayMatrix2);
    const cv::Mat* normals[4] = {&n0, &n1, &n2, &n3};
    const cv::Mat* centers[4] = {&center1, &center1, &center2, &center2};
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
    int axisIndex = setting->axisIndex;
    double along = std::abs(x.at<double>(axisIndex) - referencePoint[axisIndex]);
    double dist = cv::norm(x - ref);
    if (residual > maxResidual) return;
    if (along < minAlong || along > maxAlong) return;
    if (dist < minDistance || dist > maxDistance) return;
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

  void operator()(const tbb::blocked_range<int>& range) const {
    for (int c = range.begin(); c != range.end(); ++c) {
      for (int t = 0; t < chunk; ++t) {
        int g = chunk * c + start + t;
        if (g >= count) continue;
        Evaluate(g, slots[g - start]);
      }
    }
  }
};

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
    EvaluateBody body{chunk,     b * batch, count,        pairs,     cam1Areas, c1.rayMatrix,
                      c1.center, cam2Areas, c2.rayMatrix, c2.center, &setting,  referencePoint,
                      slots,     10.0,      700.0,        2000.0,    700.0,     2800.0};
    tbb::parallel_for(tbb::blocked_range<int>(0, 8, 1), body);
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
