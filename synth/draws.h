// Internal to the swing generator: the seeded random source and every value a
// scene draws from its seed. Both the geometry (MakeTruth) and the renderer
// read the same draws, so the truth always describes the pixels.
#pragma once

#include <cstdint>
#include <random>
#include <vector>

#include <opencv2/core.hpp>

#include "synth/swing.h"

namespace synth::detail {

// splitmix64 finaliser: a well-mixed 64-bit hash.
inline uint64_t Mix(uint64_t x) {
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}
inline uint64_t Mix(uint64_t a, uint64_t b) { return Mix(a ^ Mix(b + 0x632BE59BD9B4E019ull)); }

// Uniform draws from the raw Mersenne-Twister output: the conversion is our
// own, so the sequence does not depend on the standard library's distributions.
class Rng {
 public:
  explicit Rng(uint64_t seed) : engine_(seed) {}
  uint64_t Next() { return engine_(); }
  double Uniform() { return static_cast<double>(engine_() >> 11) * 0x1.0p-53; }  // [0, 1)
  double Uniform(double lo, double hi) { return lo + (hi - lo) * Uniform(); }
  int Int(int lo, int hi) {  // inclusive
    const uint64_t span = static_cast<uint64_t>(hi - lo) + 1;
    return lo + static_cast<int>(engine_() % span);
  }
  bool Chance(double p) { return Uniform() < p; }

 private:
  std::mt19937_64 engine_;
};

struct CameraDraw {
  double distance = 0.0;      // camera centre to the aim point, mm
  double azimuthDeg = 0.0;    // about y, 0 = straight down the -z side
  double elevationDeg = 0.0;  // above the horizontal through the aim point
  double focal = 0.0;         // pixels
  cv::Vec2d principal;        // full-sensor pixels
  cv::Vec3d aim;              // world point on the optical axis
  double rollDeg = 0.0;
  cv::Vec2d ballTarget;       // wanted ball position in the window before rounding the offset
};

struct SceneDraws {
  // Swing.
  double pivotDistance = 0.0;  // R
  double planeDeg = 0.0;       // inclination of P - B above the ground
  double yawDeg = 0.0;
  double accelFraction = 0.0;  // relative change of the angular velocity over 5 ms
  double impactFraction = 0.0; // impact between frames impactIndex-1 and impactIndex, fraction of the period
  // Timing.
  uint64_t firstStamp = 0;
  std::vector<int> slaveJitter;     // per frame, -3..3 us
  std::vector<double> flickerGain;  // per frame, applied to both cameras
  int dropIndex = -1;               // frame index that camera 2 misses when asked to drop one
  double exposureUs = 0.0;
  // Club and ball.
  double shaftRadius = 0.0;
  double headScale = 1.0;
  double launchDeg = 0.0;
  double ballSpeedRatio = 0.0;
  // Cameras.
  double baseline = 0.0;
  CameraDraw cameras[2];
  // Look.
  double matAlbedo = 0.0, turfAlbedo = 0.0, textureContrast = 0.0;
  double matExtent[4] = {0, 0, 0, 0};  // xmin, xmax, zmin, zmax
  double wallZ = 0.0, wallAlbedo = 0.0;
  cv::Vec2d feet[2];                   // (x, z) of the golfer's feet
  double feetSplayDeg = 0.0;
  double legRadius = 0.0;
  double trouserAlbedo = 0.0, shoeAlbedo = 0.0;
  double ambient = 0.0;
  double ballAlbedo = 0.0;
  double shaftAlbedo = 0.0, shaftGloss = 0.0;
  double headAlbedo = 0.0, headGloss = 0.0;
  double blackLevel = 0.0;
  double lightGain = 0.0;  // grey levels for a white diffuse surface facing the strobe at the ball's distance
  uint64_t textureSalt = 0;
};

// Every draw of the scene, always in the same order and independent of the
// scene's switches (flicker, drop, club type...), so that toggling a switch
// keeps the rest of the swing as it was.
SceneDraws Draw(const SwingScene& scene);

// Scene values brought into the range the generator can render.
SwingScene Sanitised(const SwingScene& scene);

}  // namespace synth::detail
