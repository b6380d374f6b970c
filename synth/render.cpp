// Ray-cast rendering of a synthetic swing.
//
// Each camera's static scene (textured mat, turf, far wall, the golfer's legs
// and shoes) is rendered once with 2 x 2 anti-aliasing, together with its depth.
// Every frame then starts from that background; only the pixels that the
// club and the ball can reach during the exposure (per-row spans of their
// projected bounds) are ray cast again, with eight samples spread over the
// pixel and over the exposure (anti-aliasing and motion blur in one). The
// frame is scaled by the strobe's gain, quantised, and given Gaussian sensor
// noise from a per-row generator, so the bytes depend on the scene alone and
// not on how the work is split between threads.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include <tbb/blocked_range.h>
#include <tbb/parallel_for.h>

#include "synth/draws.h"
#include "synth/swing.h"

namespace synth {

namespace {

using detail::Mix;
using detail::SceneDraws;

constexpr double kPi = 3.14159265358979323846;
constexpr double kDeg = kPi / 180.0;
constexpr double kInf = 1.0e30;
constexpr int kSamples = 8;
constexpr int kNoiseTableBits = 12;
constexpr int kNoiseTableSize = 1 << kNoiseTableBits;
constexpr uint64_t kNoiseStream = 0x4E4F495345ull;

// Sample s covers the s-th eighth of the pixel's width, another eighth of its
// height and another eighth of the exposure.
constexpr int kRowPermutation[kSamples] = {5, 2, 7, 0, 3, 6, 1, 4};
constexpr int kTimePermutation[kSamples] = {2, 6, 0, 4, 7, 3, 5, 1};

double SampleX(int s) { return (s + 0.5) / kSamples; }
double SampleY(int s) { return (kRowPermutation[s] + 0.5) / kSamples; }
double SampleTime(int s) { return (kTimePermutation[s] + 0.5) / kSamples - 0.5; }

// ---------------------------------------------------------------------------
// Shading.

struct Material {
  double albedo = 0.0;
  double gloss = 0.0;
  int shininess = 40;
};

double PowInt(double x, int n) {
  double result = 1.0;
  while (n > 0) {
    if (n & 1) result *= x;
    x *= x;
    n >>= 1;
  }
  return result;
}

struct Light {
  cv::Vec3d position;   // in the frame of the surface points handed to Shade
  double reference = 1.0;  // distance at which the falloff is 1
  double ambient = 0.0;
  double gain = 0.0;
  double black = 0.0;
};

// Grey level of a surface point: ambient plus Lambert plus a Blinn highlight,
// the strobe falling off with the square of its distance.
cv::Vec3d Unit(const cv::Vec3d& v) { return v * (1.0 / std::sqrt(v.dot(v))); }

double Shade(const Light& light, const Material& material, const cv::Vec3d& point,
             const cv::Vec3d& normal, const cv::Vec3d& towardViewer) {
  cv::Vec3d toLight = light.position - point;
  const double distance2 = toLight.dot(toLight);
  toLight *= 1.0 / std::sqrt(distance2);
  const double falloff = light.reference * light.reference / distance2;
  const double lambert = std::max(0.0, normal.dot(toLight));
  double radiance = material.albedo * (light.ambient + (1.0 - light.ambient) * lambert * falloff);
  if (material.gloss > 0.0 && lambert > 0.0) {
    const cv::Vec3d half = Unit(toLight + towardViewer);
    const double specular = PowInt(std::max(0.0, normal.dot(half)), material.shininess);
    radiance += material.gloss * specular * falloff;
  }
  return light.black + light.gain * radiance;
}

// ---------------------------------------------------------------------------
// Intersections. Rays are origin + t * direction; each returns the smallest
// t > minT of the surface, or kInf.

// Ellipsoid given by its centre, its local axes (rows of `axes`) and semi-axes.
struct Ellipsoid {
  cv::Vec3d centre;
  cv::Matx33d axes;  // rows: unit local axes
  cv::Vec3d semi;
};

double HitEllipsoid(const cv::Vec3d& origin, const cv::Vec3d& direction, const Ellipsoid& e,
                    double minT, cv::Vec3d* normal) {
  cv::Vec3d o = e.axes * (origin - e.centre);
  cv::Vec3d d = e.axes * direction;
  for (int i = 0; i < 3; ++i) {
    o[i] /= e.semi[i];
    d[i] /= e.semi[i];
  }
  const double a = d.dot(d);
  const double b = o.dot(d);
  const double c = o.dot(o) - 1.0;
  const double disc = b * b - a * c;
  if (disc < 0.0) return kInf;
  const double t = (-b - std::sqrt(disc)) / a;
  if (!(t > minT)) return kInf;
  if (normal) {
    const cv::Vec3d p = o + t * d;
    const cv::Vec3d local(p[0] / e.semi[0], p[1] / e.semi[1], p[2] / e.semi[2]);
    *normal = cv::normalize(e.axes.t() * local);
  }
  return t;
}

// Finite open cylinder from `base` along unit `axis` for `length`.
struct Cylinder {
  cv::Vec3d base;
  cv::Vec3d axis;
  double length = 0.0;
  double radius = 0.0;
};

double HitCylinder(const cv::Vec3d& origin, const cv::Vec3d& direction, const Cylinder& cyl,
                   double minT, cv::Vec3d* normal) {
  const cv::Vec3d w = origin - cyl.base;
  const cv::Vec3d dPerp = direction - cyl.axis * direction.dot(cyl.axis);
  const cv::Vec3d wPerp = w - cyl.axis * w.dot(cyl.axis);
  const double a = dPerp.dot(dPerp);
  if (a <= 0.0) return kInf;
  const double b = dPerp.dot(wPerp);
  const double c = wPerp.dot(wPerp) - cyl.radius * cyl.radius;
  const double disc = b * b - a * c;
  if (disc < 0.0) return kInf;
  const double t = (-b - std::sqrt(disc)) / a;
  if (!(t > minT)) return kInf;
  const double along = (w + t * direction).dot(cyl.axis);
  if (along < 0.0 || along > cyl.length) return kInf;
  if (normal) *normal = (wPerp + t * dPerp) * (1.0 / cyl.radius);
  return t;
}

// ---------------------------------------------------------------------------
// Static scene in world coordinates.

double Lattice(int64_t ix, int64_t iz, uint64_t salt) {
  const uint64_t h = Mix(salt ^ Mix(static_cast<uint64_t>(ix) * 0x9E3779B1ull +
                                    static_cast<uint64_t>(iz) * 0x85EBCA77ull));
  return static_cast<double>(h >> 11) * 0x1.0p-52 - 1.0;  // [-1, 1)
}

double ValueNoise(double x, double z, uint64_t salt) {
  const double fx0 = std::floor(x);
  const double fz0 = std::floor(z);
  const auto ix = static_cast<int64_t>(fx0);
  const auto iz = static_cast<int64_t>(fz0);
  double fx = x - fx0;
  double fz = z - fz0;
  fx = fx * fx * (3.0 - 2.0 * fx);
  fz = fz * fz * (3.0 - 2.0 * fz);
  const double a = Lattice(ix, iz, salt);
  const double b = Lattice(ix + 1, iz, salt);
  const double c = Lattice(ix, iz + 1, salt);
  const double d = Lattice(ix + 1, iz + 1, salt);
  return (a + (b - a) * fx) + ((c + (d - c) * fx) - (a + (b - a) * fx)) * fz;
}

class StaticScene {
 public:
  StaticScene(const SceneDraws& d, const Light& light) : d_(d), light_(light) {
    for (int f = 0; f < 2; ++f) {
      const double splay = (f == 0 ? d.feetSplayDeg : -d.feetSplayDeg) * kDeg;
      // Toe toward the ball (-z), turned out by the splay.
      const cv::Vec3d along(std::sin(splay), 0.0, -std::cos(splay));
      const cv::Vec3d up(0.0, 1.0, 0.0);
      const cv::Vec3d side = up.cross(along);
      shoes_[f].centre = {d.feet[f][0], 45.0, d.feet[f][1]};
      shoes_[f].axes = cv::Matx33d(side[0], side[1], side[2], up[0], up[1], up[2], along[0],
                                   along[1], along[2]);
      shoes_[f].semi = {52.0, 45.0, 135.0};
      legs_[f].base = {d.feet[f][0], 60.0, d.feet[f][1] + 45.0};
      legs_[f].axis = up;
      legs_[f].length = 1000.0;
      legs_[f].radius = d.legRadius;
      // One sphere around the leg and the shoe.
      bounds_[f].centre = {d.feet[f][0], 530.0, d.feet[f][1]};
      bounds_[f].radius = 560.0;
    }
  }

  // Grey level seen along the ray and the hit distance (kInf for the void).
  // `surface` tells the surfaces apart (0 = the void) so that their edges can
  // be found.
  double Trace(const cv::Vec3d& origin, const cv::Vec3d& direction, double* hitT,
               int* surface) const {
    double best = kInf;
    int what = 0;
    cv::Vec3d normal;
    cv::Vec3d n;
    if (direction[1] < 0.0) {
      const double t = -origin[1] / direction[1];
      if (t > 0.0 && t < best) {
        best = t;
        what = 1;
        normal = {0.0, 1.0, 0.0};
      }
    }
    if (direction[2] > 0.0) {
      const double t = (d_.wallZ - origin[2]) / direction[2];
      if (t > 0.0 && t < best) {
        best = t;
        what = 2;
        normal = {0.0, 0.0, -1.0};
      }
    }
    for (int f = 0; f < 2; ++f) {
      if (!MayHit(origin, direction, bounds_[f])) continue;
      double t = HitCylinder(origin, direction, legs_[f], 0.0, &n);
      if (t < best) {
        best = t;
        what = 3;
        normal = n;
      }
      t = HitEllipsoid(origin, direction, shoes_[f], 0.0, &n);
      if (t < best) {
        best = t;
        what = 4;
        normal = n;
      }
    }
    *hitT = best;
    *surface = what;
    if (what == 0) return light_.black;
    const cv::Vec3d point = origin + best * direction;
    Material material;
    switch (what) {
      case 1:
        material.albedo = GroundAlbedo(point[0], point[2]);
        if (!OnMat(point[0], point[2])) *surface = 5;
        break;
      case 2: material.albedo = WallAlbedo(point[0], point[1]); break;
      case 3: material.albedo = d_.trouserAlbedo; break;
      default:
        material.albedo = d_.shoeAlbedo;
        material.gloss = 0.05;
        material.shininess = 20;
        break;
    }
    const cv::Vec3d toViewer = cv::normalize(origin - point);
    return Shade(light_, material, point, normal, toViewer);
  }

 private:
  bool OnMat(double x, double z) const {
    return x >= d_.matExtent[0] && x <= d_.matExtent[1] && z >= d_.matExtent[2] &&
           z <= d_.matExtent[3];
  }

  double GroundAlbedo(double x, double z) const {
    const uint64_t salt = d_.textureSalt;
    if (OnMat(x, z)) {
      const double g = 0.55 * ValueNoise(x / 3.0, z / 3.0, salt) +
                       0.30 * ValueNoise(x / 11.0, z / 11.0, salt + 1) +
                       0.15 * ValueNoise(x / 45.0, z / 45.0, salt + 2);
      return d_.matAlbedo * (1.0 + d_.textureContrast * g);
    }
    const double g = 0.6 * ValueNoise(x / 2.0, z / 2.0, salt + 3) +
                     0.4 * ValueNoise(x / 9.0, z / 9.0, salt + 4);
    return d_.turfAlbedo * (1.0 + 2.0 * d_.textureContrast * g);
  }

  double WallAlbedo(double x, double y) const {
    const double panel = 600.0;
    const double u = x / panel - std::floor(x / panel);
    const double seam = (u < 0.01 || u > 0.99) ? 0.6 : 1.0;
    return d_.wallAlbedo * seam * (1.0 + 0.5 * d_.textureContrast *
                                             ValueNoise(x / 20.0, y / 20.0, d_.textureSalt + 5));
  }

  struct Sphere {
    cv::Vec3d centre;
    double radius = 0.0;
  };
  static bool MayHit(const cv::Vec3d& origin, const cv::Vec3d& direction, const Sphere& s) {
    const cv::Vec3d oc = s.centre - origin;
    const double along = oc.dot(direction);
    const double d2 = direction.dot(direction);
    return oc.dot(oc) - along * along / d2 <= s.radius * s.radius;
  }

  const SceneDraws& d_;
  Light light_;
  Ellipsoid shoes_[2];
  Cylinder legs_[2];
  Sphere bounds_[2];
};

// ---------------------------------------------------------------------------
// Per camera.

struct CameraSetup {
  CameraModel model;
  cv::Matx33d inverseK;
  cv::Mat1f background;  // grey levels before gain, quantisation and noise
  cv::Mat1f depth;       // nearest camera-space z of the background samples
  Light light;           // positioned in this camera's coordinates
};

cv::Vec3d PixelRay(const CameraSetup& cam, double u, double v) {
  return cam.inverseK * cv::Vec3d(u, v, 1.0);
}

// One ray through every pixel centre; pixels on the edge between two surfaces
// are traced again with 2 x 2 samples.
void RenderBackground(CameraSetup& cam, const StaticScene& scene) {
  const CameraModel& m = cam.model;
  cam.background.create(m.height, m.width);
  cam.depth.create(m.height, m.width);
  cv::Mat1i surfaces(m.height, m.width);
  const cv::Matx33d toWorld = m.R.t();
  const cv::Vec3d centre = m.Center();
  auto trace = [&](double u, double v, double& depth, int& surface) {
    const cv::Vec3d rayCam = PixelRay(cam, m.sensorOffsetX + u, m.sensorOffsetY + v);
    double t = kInf;
    const double grey = scene.Trace(centre, toWorld * rayCam, &t, &surface);
    depth = std::min(t * rayCam[2], 1.0e9);  // camera-space depth
    return grey;
  };
  tbb::parallel_for(tbb::blocked_range<int>(0, m.height, 8), [&](const tbb::blocked_range<int>& rows) {
    for (int y = rows.begin(); y < rows.end(); ++y) {
      for (int x = 0; x < m.width; ++x) {
        double depth = 0.0;
        int surface = 0;
        cam.background(y, x) = static_cast<float>(trace(x + 0.5, y + 0.5, depth, surface));
        cam.depth(y, x) = static_cast<float>(depth);
        surfaces(y, x) = surface;
      }
    }
  });
  tbb::parallel_for(tbb::blocked_range<int>(0, m.height, 8), [&](const tbb::blocked_range<int>& rows) {
    for (int y = rows.begin(); y < rows.end(); ++y) {
      for (int x = 0; x < m.width; ++x) {
        const int here = surfaces(y, x);
        const bool edge = (x > 0 && surfaces(y, x - 1) != here) ||
                          (x + 1 < m.width && surfaces(y, x + 1) != here) ||
                          (y > 0 && surfaces(y - 1, x) != here) ||
                          (y + 1 < m.height && surfaces(y + 1, x) != here);
        if (!edge) continue;
        double sum = 0.0;
        double nearest = kInf;
        for (int sy = 0; sy < 2; ++sy) {
          for (int sx = 0; sx < 2; ++sx) {
            double depth = 0.0;
            int surface = 0;
            sum += trace(x + 0.25 + 0.5 * sx, y + 0.25 + 0.5 * sy, depth, surface);
            nearest = std::min(nearest, depth);
          }
        }
        cam.background(y, x) = static_cast<float>(sum * 0.25);
        cam.depth(y, x) = static_cast<float>(std::min<double>(nearest, cam.depth(y, x)));
      }
    }
  });
}

// ---------------------------------------------------------------------------
// Moving objects of one sample time, in camera coordinates.

enum Object { kBall = 0, kHead, kShaft, kHosel, kObjectCount };

struct Disc2 {  // conservative image bound of a round object
  cv::Vec2d centre;
  double radius = -1.0;  // < 0: nothing to draw
};

struct Capsule2 {  // conservative image bound of a cylinder
  cv::Vec2d a, b;
  double halfWidth = -1.0;
};

// Camera-space forms of the moving objects: every ray starts at the camera
// centre (the origin), so the origin-dependent terms are computed once per
// sample time.
struct FastSphere {
  cv::Vec3d centre;
  double c = 0.0;  // |centre|^2 - r^2
};

struct FastEllipsoid {
  cv::Matx33d toUnit;  // rows: local axes divided by the semi-axes
  cv::Vec3d origin;    // the camera centre in unit-sphere coordinates
  double c = 0.0;      // |origin|^2 - 1
};

struct FastCylinder {
  cv::Vec3d axis;
  cv::Vec3d wPerp;       // camera centre minus base, across the axis
  double wAlong = 0.0;   // and along it
  double c = 0.0;        // |wPerp|^2 - r^2
  double length = 0.0;
  double inverseRadius = 0.0;
};

FastSphere MakeFast(const cv::Vec3d& centre, double radius) {
  return {centre, centre.dot(centre) - radius * radius};
}

FastEllipsoid MakeFast(const Ellipsoid& e) {
  FastEllipsoid f;
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) f.toUnit(r, c) = e.axes(r, c) / e.semi[r];
  }
  f.origin = f.toUnit * (-e.centre);
  f.c = f.origin.dot(f.origin) - 1.0;
  return f;
}

FastCylinder MakeFast(const Cylinder& cyl) {
  FastCylinder f;
  f.axis = cyl.axis;
  const cv::Vec3d w = -cyl.base;
  f.wAlong = w.dot(cyl.axis);
  f.wPerp = w - cyl.axis * f.wAlong;
  f.c = f.wPerp.dot(f.wPerp) - cyl.radius * cyl.radius;
  f.length = cyl.length;
  f.inverseRadius = 1.0 / cyl.radius;
  return f;
}

double Hit(const FastSphere& s, const cv::Vec3d& d) {
  const double a = d.dot(d);
  const double b = -d.dot(s.centre);
  const double disc = b * b - a * s.c;
  if (disc < 0.0) return kInf;
  const double t = (-b - std::sqrt(disc)) / a;
  return t > 0.0 ? t : kInf;
}

double Hit(const FastEllipsoid& e, const cv::Vec3d& dir) {
  const cv::Vec3d d = e.toUnit * dir;
  const double a = d.dot(d);
  const double b = e.origin.dot(d);
  const double disc = b * b - a * e.c;
  if (disc < 0.0) return kInf;
  const double t = (-b - std::sqrt(disc)) / a;
  return t > 0.0 ? t : kInf;
}

double Hit(const FastCylinder& cyl, const cv::Vec3d& d) {
  const double dAlong = d.dot(cyl.axis);
  const cv::Vec3d dPerp = d - cyl.axis * dAlong;
  const double a = dPerp.dot(dPerp);
  if (a <= 0.0) return kInf;
  const double b = dPerp.dot(cyl.wPerp);
  const double disc = b * b - a * cyl.c;
  if (disc < 0.0) return kInf;
  const double t = (-b - std::sqrt(disc)) / a;
  if (!(t > 0.0)) return kInf;
  const double along = cyl.wAlong + t * dAlong;
  return (along < 0.0 || along > cyl.length) ? kInf : t;
}

cv::Vec3d NormalAt(const FastSphere& s, const cv::Vec3d& point) {
  return Unit(point - s.centre);
}

cv::Vec3d NormalAt(const FastEllipsoid& e, const cv::Vec3d& dir, double t) {
  const cv::Vec3d p = e.origin + t * (e.toUnit * dir);
  return Unit(e.toUnit.t() * p);
}

cv::Vec3d NormalAt(const FastCylinder& cyl, const cv::Vec3d& dir, double t) {
  const cv::Vec3d dPerp = dir - cyl.axis * dir.dot(cyl.axis);
  return (cyl.wPerp + t * dPerp) * cyl.inverseRadius;
}

struct SampleScene {
  bool present[kObjectCount] = {false, false, false, false};
  FastSphere ball;
  FastEllipsoid head;
  FastCylinder shaft;
  FastCylinder hosel;
  Disc2 ballBound, headBound;
  Capsule2 shaftBound, hoselBound;
};

struct MovingMaterials {
  Material ball, head, shaft, hosel;
};

cv::Vec2d ToWindow(const CameraSetup& cam, const cv::Vec3d& p) {
  const cv::Vec3d q = cam.model.K * p;
  return {q[0] / q[2] - cam.model.sensorOffsetX, q[1] / q[2] - cam.model.sensorOffsetY};
}

Disc2 BoundOfRound(const CameraSetup& cam, const cv::Vec3d& centre, double radius) {
  Disc2 bound;
  if (centre[2] - radius < 1.0) return bound;  // touches or crosses the camera plane
  bound.centre = ToWindow(cam, centre);
  bound.radius = cam.model.K(0, 0) * radius / (centre[2] - radius) * 1.05 + 1.5;
  return bound;
}

Capsule2 BoundOfCylinder(const CameraSetup& cam, const Cylinder& cyl) {
  Capsule2 bound;
  cv::Vec3d a = cyl.base;
  cv::Vec3d b = cyl.base + cyl.length * cyl.axis;
  const double nearPlane = cyl.radius + 1.0;
  if (a[2] < nearPlane && b[2] < nearPlane) return bound;
  if (a[2] < nearPlane) a += (b - a) * ((nearPlane - a[2]) / (b[2] - a[2]));
  if (b[2] < nearPlane) b += (a - b) * ((nearPlane - b[2]) / (a[2] - b[2]));
  bound.a = ToWindow(cam, a);
  bound.b = ToWindow(cam, b);
  const double zMin = std::min(a[2], b[2]) - cyl.radius;
  bound.halfWidth = cam.model.K(0, 0) * cyl.radius / zMin * 1.05 + 1.5;
  return bound;
}

SampleScene MakeSampleScene(const SwingTruth& truth, const SwingScene& scene,
                            const CameraSetup& cam, double time) {
  SampleScene s;
  const cv::Matx33d& R = cam.model.R;
  const cv::Vec3d& t = cam.model.t;
  auto toCam = [&](const cv::Vec3d& p) { return R * p + t; };

  const cv::Vec3d ballCentre = toCam(truth.BallCentre(time));
  s.ball = MakeFast(ballCentre, truth.ballRadius);
  s.present[kBall] = true;
  s.ballBound = BoundOfRound(cam, ballCentre, truth.ballRadius);

  if (!scene.noClub) {
    const cv::Vec3d radial = truth.ShaftDirection(time);
    const cv::Vec3d along = truth.axis;
    const cv::Vec3d tangent = along.cross(radial);
    const cv::Vec3d rc = R * radial, ac = R * along, tc = R * tangent;
    Ellipsoid head;
    head.centre = toCam(truth.pivot + truth.headRadius * radial);
    head.axes = cv::Matx33d(tc[0], tc[1], tc[2], rc[0], rc[1], rc[2], ac[0], ac[1], ac[2]);
    head.semi = truth.headSemiAxes;
    s.head = MakeFast(head);
    s.present[kHead] = true;
    const double headReach =
        std::max({truth.headSemiAxes[0], truth.headSemiAxes[1], truth.headSemiAxes[2]});
    s.headBound = BoundOfRound(cam, head.centre, headReach);

    // The shaft runs from the hosel (inside the head) up to the grip.
    Cylinder shaft;
    shaft.base = toCam(truth.pivot + truth.hoselDistance * radial);
    shaft.axis = -rc;
    shaft.length = truth.hoselDistance - truth.gripDistance;
    shaft.radius = truth.shaftRadius;
    s.shaft = MakeFast(shaft);
    s.present[kShaft] = true;
    s.shaftBound = BoundOfCylinder(cam, shaft);

    const double hoselTop = truth.headRadius - truth.headSemiAxes[1] - 28.0;
    Cylinder hosel = shaft;
    hosel.length = truth.hoselDistance - hoselTop;
    hosel.radius = truth.shaftRadius * 1.45;
    s.hosel = MakeFast(hosel);
    s.present[kHosel] = true;
    s.hoselBound = BoundOfCylinder(cam, hosel);
  }
  return s;
}

// Column range that a bound can reach in the pixel row band [y, y + 1].
bool SpanOfDisc(const Disc2& d, double y, double& lo, double& hi) {
  if (d.radius < 0.0) return false;
  const double dy = std::max(0.0, std::abs(y + 0.5 - d.centre[1]) - 0.5);
  if (dy > d.radius) return false;
  const double half = std::sqrt(d.radius * d.radius - dy * dy);
  lo = std::min(lo, d.centre[0] - half);
  hi = std::max(hi, d.centre[0] + half);
  return true;
}

bool SpanOfCapsule(const Capsule2& c, double y, double& lo, double& hi) {
  if (c.halfWidth < 0.0) return false;
  const double top = y - c.halfWidth;
  const double bottom = y + 1.0 + c.halfWidth;
  double t0 = 0.0, t1 = 1.0;
  const double dy = c.b[1] - c.a[1];
  if (std::abs(dy) < 1e-9) {
    if (c.a[1] < top || c.a[1] > bottom) return false;
  } else {
    double ta = (top - c.a[1]) / dy;
    double tb = (bottom - c.a[1]) / dy;
    if (ta > tb) std::swap(ta, tb);
    t0 = std::max(t0, ta);
    t1 = std::min(t1, tb);
    if (t0 > t1) return false;
  }
  const double x0 = c.a[0] + (c.b[0] - c.a[0]) * t0;
  const double x1 = c.a[0] + (c.b[0] - c.a[0]) * t1;
  lo = std::min(lo, std::min(x0, x1) - c.halfWidth);
  hi = std::max(hi, std::max(x0, x1) + c.halfWidth);
  return true;
}

bool InDisc(const Disc2& d, const cv::Vec2d& p) {
  const cv::Vec2d q = p - d.centre;
  return d.radius >= 0.0 && q.dot(q) <= d.radius * d.radius;
}

bool InCapsule(const Capsule2& c, const cv::Vec2d& p) {
  if (c.halfWidth < 0.0) return false;
  const cv::Vec2d ab = c.b - c.a;
  const double len2 = ab.dot(ab);
  const double t = len2 > 0.0 ? std::clamp((p - c.a).dot(ab) / len2, 0.0, 1.0) : 0.0;
  const cv::Vec2d q = p - (c.a + t * ab);
  return q.dot(q) <= c.halfWidth * c.halfWidth;
}

// Objects of one sample whose image bound holds the window point p.
unsigned ActiveAt(const SampleScene& s, unsigned candidates, const cv::Vec2d& p) {
  unsigned active = 0;
  if ((candidates & (1u << kBall)) && s.present[kBall] && InDisc(s.ballBound, p)) {
    active |= 1u << kBall;
  }
  if ((candidates & (1u << kHead)) && s.present[kHead] && InDisc(s.headBound, p)) {
    active |= 1u << kHead;
  }
  if ((candidates & (1u << kShaft)) && s.present[kShaft] && InCapsule(s.shaftBound, p)) {
    active |= 1u << kShaft;
  }
  if ((candidates & (1u << kHosel)) && s.present[kHosel] && InCapsule(s.hoselBound, p)) {
    active |= 1u << kHosel;
  }
  return active;
}

// Nearest moving surface along a camera-space ray that is closer than
// `limit`: its object (-1 for none) and distance.
int NearestMoving(const SampleScene& s, const cv::Vec3d& dir, unsigned active, double limit,
                  double& best) {
  best = limit;
  int what = -1;
  const auto consider = [&](int object, const auto& shape) {
    if ((active & (1u << object)) == 0) return;
    const double t = Hit(shape, dir);
    if (t < best) {
      best = t;
      what = object;
    }
  };
  consider(kBall, s.ball);
  consider(kHead, s.head);
  consider(kShaft, s.shaft);
  consider(kHosel, s.hosel);
  return what;
}

double ShadeMoving(const SampleScene& s, int what, const cv::Vec3d& dir, double t,
                   const Light& light, const MovingMaterials& materials) {
  const cv::Vec3d point = t * dir;
  switch (what) {
    case kBall:
      return Shade(light, materials.ball, point, NormalAt(s.ball, point), Unit(-point));
    case kHead:
      return Shade(light, materials.head, point, NormalAt(s.head, dir, t), Unit(-point));
    case kShaft:
      return Shade(light, materials.shaft, point, NormalAt(s.shaft, dir, t),
                   Unit(-point));
    default:
      return Shade(light, materials.hosel, point, NormalAt(s.hosel, dir, t),
                   Unit(-point));
  }
}

// Quantile table of the standard normal distribution scaled by sigma and
// rounded: indexing it with uniform random bits gives rounded Gaussian noise.
std::array<int16_t, kNoiseTableSize> NoiseTable(double sigma) {
  std::array<int16_t, kNoiseTableSize> table{};
  for (int k = 0; k < kNoiseTableSize; ++k) {
    const double p = (k + 0.5) / kNoiseTableSize;
    // Invert the normal distribution by bisection on erfc.
    double lo = -10.0, hi = 10.0;
    for (int it = 0; it < 80; ++it) {
      const double mid = 0.5 * (lo + hi);
      if (0.5 * std::erfc(-mid / std::sqrt(2.0)) < p) lo = mid;
      else hi = mid;
    }
    table[k] = static_cast<int16_t>(std::lround(sigma * 0.5 * (lo + hi)));
  }
  return table;
}

struct FrameJob {
  int camera = 0;
  int index = 0;        // position in the camera's list
  double time = 0.0;    // exposure centre
  double gain = 1.0;    // strobe flicker
};

void RenderFrame(const FrameJob& job, const SwingTruth& truth, const SwingScene& scene,
                 const CameraSetup& cam, const MovingMaterials& materials,
                 const std::array<int16_t, kNoiseTableSize>& noise, uint64_t noiseSeed,
                 unsigned char* out) {
  const int width = cam.model.width;
  const int height = cam.model.height;
  std::array<SampleScene, kSamples> samples;
  for (int s = 0; s < kSamples; ++s) {
    samples[s] = MakeSampleScene(truth, scene, cam, job.time + SampleTime(s) * truth.exposureUs);
  }
  std::vector<float> row(static_cast<size_t>(width));
  const double black = cam.light.black;
  for (int y = 0; y < height; ++y) {
    const float* bg = cam.background.ptr<float>(y);
    const float* depth = cam.depth.ptr<float>(y);
    std::copy(bg, bg + width, row.begin());

    double lo[kObjectCount], hi[kObjectCount];
    bool any = false;
    for (int o = 0; o < kObjectCount; ++o) {
      lo[o] = kInf;
      hi[o] = -kInf;
      for (const SampleScene& s : samples) {
        if (!s.present[o]) continue;
        switch (o) {
          case kBall: SpanOfDisc(s.ballBound, y, lo[o], hi[o]); break;
          case kHead: SpanOfDisc(s.headBound, y, lo[o], hi[o]); break;
          case kShaft: SpanOfCapsule(s.shaftBound, y, lo[o], hi[o]); break;
          default: SpanOfCapsule(s.hoselBound, y, lo[o], hi[o]); break;
        }
      }
      if (hi[o] >= lo[o]) {
        lo[o] = std::max(lo[o] - 1.0, 0.0);
        hi[o] = std::min(hi[o] + 1.0, width - 1.0);
        any = any || hi[o] >= lo[o];
      }
    }
    if (any) {
      int xFirst = width, xLast = -1;
      for (int o = 0; o < kObjectCount; ++o) {
        if (hi[o] < lo[o]) continue;
        xFirst = std::min(xFirst, static_cast<int>(lo[o]));
        xLast = std::max(xLast, static_cast<int>(hi[o]));
      }
      for (int x = xFirst; x <= xLast; ++x) {
        unsigned active = 0;
        for (int o = 0; o < kObjectCount; ++o) {
          if (x >= lo[o] && x <= hi[o]) active |= 1u << o;
        }
        if (!active) continue;
        // Half the samples first; a pixel where they all see the same thing
        // (the inside of a silhouette, or nothing) keeps their mean, the
        // others get all eight.
        double sum = 0.0;
        int first = -2;
        bool uniform = true;
        bool touched = false;
        for (int pass = 0; pass < 2; ++pass) {
          for (int s = pass; s < kSamples; s += 2) {
            double grey = bg[x];
            int what = -1;
            const cv::Vec2d at(x + SampleX(s), y + SampleY(s));
            const unsigned here = ActiveAt(samples[s], active, at);
            if (here) {
              const cv::Vec3d dir = PixelRay(cam, cam.model.sensorOffsetX + at[0],
                                             cam.model.sensorOffsetY + at[1]);
              double t = 0.0;
              what = NearestMoving(samples[s], dir, here, depth[x], t);
              const bool hidden = scene.darkShaft && (what == kShaft || what == kHosel);
              if (what >= 0 && !hidden) {
                grey = ShadeMoving(samples[s], what, dir, t, cam.light, materials);
              }
            }
            touched = touched || what >= 0;
            if (first == -2) first = what;
            uniform = uniform && what == first;
            sum += grey;
          }
          if (pass == 0 && uniform) break;
        }
        if (touched) {
          row[static_cast<size_t>(x)] = static_cast<float>(sum / (uniform ? kSamples / 2 : kSamples));
        }
      }
    }

    // Strobe gain, quantisation, sensor noise.
    uint64_t state = Mix(noiseSeed, static_cast<uint64_t>(y));
    uint64_t bits = 0;
    int bitsLeft = 0;
    unsigned char* dst = out + static_cast<size_t>(y) * width;
    for (int x = 0; x < width; ++x) {
      if (bitsLeft < kNoiseTableBits) {
        state += 0x9E3779B97F4A7C15ull;
        bits = Mix(state);
        bitsLeft = 64;
      }
      const int n = noise[bits & (kNoiseTableSize - 1)];
      bits >>= kNoiseTableBits;
      bitsLeft -= kNoiseTableBits;
      const double value = black + job.gain * (row[static_cast<size_t>(x)] - black);
      const int level = static_cast<int>(std::floor(value + 0.5)) + n;
      dst[x] = static_cast<unsigned char>(std::clamp(level, 0, 255));
    }
  }
}

}  // namespace

Recording Render(const SwingScene& input) {
  Recording rec;
  rec.scene = detail::Sanitised(input);
  const SwingScene& scene = rec.scene;
  rec.truth = MakeTruth(scene);
  rec.setting = MakeSetting(rec.truth);
  const SwingTruth& truth = rec.truth;
  const SceneDraws d = detail::Draw(scene);

  // One strobe between the two cameras, a little above them.
  const cv::Vec3d lightWorld =
      0.5 * (truth.cameras[0].Center() + truth.cameras[1].Center()) + cv::Vec3d(0.0, 120.0, 0.0);
  Light worldLight;
  worldLight.position = lightWorld;
  worldLight.reference = cv::norm(lightWorld - truth.ball);
  worldLight.ambient = d.ambient;
  worldLight.gain = d.lightGain;
  worldLight.black = d.blackLevel;
  const StaticScene staticScene(d, worldLight);

  CameraSetup cams[2];
  for (int c = 0; c < 2; ++c) {
    cams[c].model = truth.cameras[c];
    cams[c].inverseK = truth.cameras[c].K.inv();
    cams[c].light = worldLight;
    cams[c].light.position = truth.cameras[c].R * lightWorld + truth.cameras[c].t;
    RenderBackground(cams[c], staticScene);
  }

  MovingMaterials materials;
  materials.ball = {d.ballAlbedo, 0.06, 30};
  materials.head = {d.headAlbedo, d.headGloss, 25};
  materials.shaft = {d.shaftAlbedo, d.shaftGloss, 60};
  materials.hosel = {d.headAlbedo * 0.9, d.headGloss, 25};

  // Frames of both cameras, with their pixel buffers and metadata.
  std::vector<FrameJob> jobs;
  for (int c = 0; c < 2; ++c) {
    const CameraModel& m = truth.cameras[c];
    const cv::Vec2d ball = truth.BallInWindow(c);
    char text[64];
    std::snprintf(text, sizeof(text), "%.2f", ball[0]);
    const float ballX = std::strtof(text, nullptr);
    std::snprintf(text, sizeof(text), "%.2f", ball[1]);
    const float ballY = std::strtof(text, nullptr);
    const size_t count = truth.timeStamps[c].size();
    rec.images[c].resize(count);
    rec.pixels[c].resize(count);
    int masterIndex = 0;
    for (size_t j = 0; j < count; ++j, ++masterIndex) {
      if (c == 1 && masterIndex == truth.droppedFrame) ++masterIndex;
      rec.pixels[c][j].assign(static_cast<size_t>(m.width) * m.height, 0);
      ClubImage& image = rec.images[c][j];
      image = ClubImage{};
      image.width = static_cast<uint32_t>(m.width);
      image.height = static_cast<uint32_t>(m.height);
      image.bytesPerChannel = 1;
      image.channels = 1;
      image.pixels = rec.pixels[c][j].data();
      image.sensorOffsetX = m.sensorOffsetX;
      image.sensorOffsetY = m.sensorOffsetY;
      image.afterImpact = static_cast<int>(j) >= truth.impactIndex ? 1u : 0u;
      image.timeStamp = truth.timeStamps[c][j];
      image.ballX = ballX;
      image.ballY = ballY;
      image.ballRadius = 0.0f;
      FrameJob job;
      job.camera = c;
      job.index = static_cast<int>(j);
      job.time = static_cast<double>(image.timeStamp);
      job.gain = scene.flicker ? d.flickerGain[static_cast<size_t>(masterIndex)] : 1.0;
      jobs.push_back(job);
    }
  }

  const auto noise = NoiseTable(scene.noiseSigma);
  const uint64_t noiseBase = Mix(scene.seed, kNoiseStream);
  tbb::parallel_for(tbb::blocked_range<int>(0, static_cast<int>(jobs.size()), 1),
                    [&](const tbb::blocked_range<int>& range) {
                      for (int i = range.begin(); i < range.end(); ++i) {
                        const FrameJob& job = jobs[static_cast<size_t>(i)];
                        const uint64_t noiseSeed =
                            Mix(Mix(noiseBase, static_cast<uint64_t>(job.camera)),
                                static_cast<uint64_t>(job.index));
                        RenderFrame(job, truth, scene, cams[job.camera], materials, noise,
                                    noiseSeed,
                                    rec.pixels[job.camera][static_cast<size_t>(job.index)].data());
                      }
                    });
  return rec;
}

}  // namespace synth
