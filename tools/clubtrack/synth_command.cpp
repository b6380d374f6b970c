// clubtrack synth OUT_DIR [options]: render one synthetic swing and write it
// in the recording layout the offline replay reads.
#include <charconv>
#include <cmath>
#include <utility>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <memory>
#include <string>

#include "commands.h"
#include "synth/swing.h"

namespace {

struct SynthOptions {
  std::string outDir;
  std::string placement = "near";
  synth::SwingScene scene;
  double directionDeg = 0.0;
  bool png = false;
};

void PrintTruth(const synth::Recording& rec, const std::string& outDir) {
  const synth::SwingTruth& t = rec.truth;
  const synth::SwingScene& s = rec.scene;
  std::printf(
      "%s: seed %llu, %s, %s, %.0f fps, %zu+%zu frames, impact index %d, club-head speed %.3f m/s "
      "(%.9f mm/us), omega0 %.9e rad/us, head radius %.3f mm, pivot (%.3f, %.3f, %.3f), "
      "axis (%.6f, %.6f, %.6f), ball (%.2f, %.2f) / (%.2f, %.2f) px\n",
      outDir.c_str(), static_cast<unsigned long long>(s.seed),
      s.placement == synth::Placement::kNear ? "near" : "far", s.iron ? "iron" : "driver", t.fps,
      t.timeStamps[0].size(), t.timeStamps[1].size(), t.impactIndex, t.clubHeadSpeedMps,
      t.clubHeadSpeed, t.omega0, t.headRadius, t.pivot[0], t.pivot[1], t.pivot[2], t.axis[0],
      t.axis[1], t.axis[2], static_cast<double>(rec.images[0].empty() ? 0.0f : rec.images[0][0].ballX),
      static_cast<double>(rec.images[0].empty() ? 0.0f : rec.images[0][0].ballY),
      static_cast<double>(rec.images[1].empty() ? 0.0f : rec.images[1][0].ballX),
      static_cast<double>(rec.images[1].empty() ? 0.0f : rec.images[1][0].ballY));
  const synth::DeliveryTruth& d = t.delivery;
  std::printf(
      "club data: speed %.3f m/s, attack angle %.3f deg, path %.3f deg, swing plane %.3f deg, "
      "swing direction %.3f deg, low point %.1f mm ahead, %.1f mm height, %.1f mm side\n",
      d.speedMps, d.attackAngleDeg, d.pathDeg, d.swingPlaneDeg, d.swingDirectionDeg,
      d.lowPointAheadMm, d.lowPointHeightMm, d.lowPointSideMm);
}

}  // namespace

void AddSynthCommand(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<SynthOptions>();
  CLI::App* cmd = app.add_subcommand(
      "synth", "Render a synthetic two-camera swing with exact ground truth into OUT_DIR "
               "(run.ini, Master/, Slave/, truth.json); old frame images in Master/ and Slave/ "
               "are replaced");
  cmd->add_option("OUT_DIR", options->outDir, "folder of the recording (created if missing)")
      ->required();
  cmd->add_option("--seed", options->scene.seed, "seed deciding every drawn value")
      ->check(CLI::Validator(
          [](std::string& text) {
            uint64_t value = 0;
            const char* end = text.data() + text.size();
            const auto [ptr, ec] = std::from_chars(text.data(), end, value);
            return ec == std::errc() && ptr == end && !text.empty()
                       ? std::string()
                       : "must be a whole number from 0 to 18446744073709551615";
          },
          "UINT64"))
      ->capture_default_str();
  cmd->add_option("--speed", options->scene.speedMps, "club-head speed at impact, m/s")
      ->check(CLI::Range(30.0, 55.0))
      ->capture_default_str();
  cmd->add_option("--fps", options->scene.fps, "frame rate")
      ->check(CLI::Range(1000.0, 4000.0))
      ->capture_default_str();
  cmd->add_option("--frames", options->scene.frames, "frames per camera")
      ->check(CLI::Range(12, 200))
      ->capture_default_str();
  cmd->add_option("--impact-index", options->scene.impactIndex,
                  "first after-impact frame (the replay's ImpactIndex)")
      ->check(CLI::Range(1, 199))
      ->capture_default_str();
  cmd->add_option("--placement", options->placement,
                  "near: 0.6-0.9 m, 640x208 windows; far: 1.4-2.0 m, 640x480 windows")
      ->transform(CLI::IsMember({"near", "far"}, CLI::ignore_case))
      ->capture_default_str();
  cmd->add_option("--noise", options->scene.noiseSigma, "sensor noise sigma, grey levels")
      ->check(CLI::Range(0.0, 20.0))
      ->capture_default_str();
  cmd->add_flag("--flicker", options->scene.flicker, "per-frame strobe brightness flicker");
  cmd->add_flag("--drop-frame", options->scene.dropFrame, "camera 2 misses one frame");
  cmd->add_flag("--iron", options->scene.iron, "an iron head instead of a driver");
  cmd->add_flag("--dark-shaft", options->scene.darkShaft,
                "shaft as dark as what is behind it (only the head shows)");
  cmd->add_flag("--no-club", options->scene.noClub, "the ball alone");
  cmd->add_option("--direction", options->directionDeg,
                  "swing direction: the arc's plane turned about the vertical, degrees, + away "
                  "from the golfer (default: drawn from the seed within 2 degrees)")
      ->check(CLI::Range(-30.0, 30.0));
  cmd->add_option("--low-point-ahead", options->scene.lowPointAheadMm,
                  "the arc's low point this far after the ball, mm (+ descending blow, "
                  "- ascending)")
      ->check(CLI::Range(-300.0, 300.0))
      ->capture_default_str();
  cmd->add_flag("--png", options->png, "frames as PNG instead of BMP");

  cmd->callback([options, cmd, &exitStatus]() {
    if (options->outDir.empty()) {
      throw CLI::ValidationError("OUT_DIR", "must not be empty (it would write into the current folder)");
    }
    // A range check lets NaN through: every comparison with it is false.
    const std::pair<const char*, double> numbers[] = {{"--speed", options->scene.speedMps},
                                                      {"--fps", options->scene.fps},
                                                      {"--noise", options->scene.noiseSigma}};
    for (const auto& [name, value] : numbers) {
      if (!std::isfinite(value)) throw CLI::ValidationError(name, "must be a finite number");
    }
    if (options->scene.impactIndex >= options->scene.frames) {
      throw CLI::ValidationError("--impact-index", "must be smaller than --frames (" +
                                                       std::to_string(options->scene.frames) + ")");
    }
    if (cmd->count("--direction") > 0) options->scene.directionDeg = options->directionDeg;
    options->scene.placement =
        options->placement == "far" ? synth::Placement::kFar : synth::Placement::kNear;
    const synth::Recording rec = synth::Render(options->scene);
    std::string error;
    if (!synth::WriteRecording(rec, options->outDir, options->png, error)) {
      std::cerr << "clubtrack synth: " << error << "\n";
      exitStatus = 1;
      return;
    }
    PrintTruth(rec, options->outDir);
    exitStatus = 0;
  });
}
