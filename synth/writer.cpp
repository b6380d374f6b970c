// On-disk form of a synthetic recording: the option files the offline replay
// reads, the frames named by their capture data, and the ground truth.
#include <charconv>
#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <system_error>

#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "synth/draws.h"
#include "synth/swing.h"

namespace synth {

namespace {

namespace fs = std::filesystem;
using nlohmann::json;

// Shortest text that reads back as the same double.
std::string Exact(double value) {
  char buffer[64];
  const auto result = std::to_chars(buffer, buffer + sizeof(buffer), value);
  std::string text(buffer, result.ptr);
  if (text.find_first_of(".eEn") == std::string::npos) text += ".0";
  return text;
}

json Vec(const cv::Vec3d& v) { return json::array({v[0], v[1], v[2]}); }
json Vec(const cv::Vec2d& v) { return json::array({v[0], v[1]}); }

std::string CalibrationFile(const CameraModel& camera) {
  double k[9];
  double rt[12];
  camera.Intrinsic(k);
  camera.Extrinsic(rt);
  std::ostringstream out;
  out << "[IntrinsicCal]\n";
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 3; ++c) out << (r + 1) << (c + 1) << "=" << Exact(k[r * 3 + c]) << "\n";
  }
  out << "\n[ExtrinsicCal]\n";
  for (int r = 0; r < 3; ++r) {
    for (int c = 0; c < 4; ++c) out << (r + 1) << (c + 1) << "=" << Exact(rt[r * 4 + c]) << "\n";
  }
  return out.str();
}

std::string RunFile(const Recording& rec) {
  std::ostringstream out;
  out << "[ROI]\n"
      << "X=" << rec.setting.roiX << "\n"
      << "Y=" << rec.setting.roiY << "\n"
      << "Width=" << rec.setting.roiWidth << "\n"
      << "Height=" << rec.setting.roiHeight << "\n\n"
      << "[Info]\n"
      << "FolderPath=.\n"
      << "TimeStampIntervalBeforeImpact=" << rec.setting.timeStampIntervalBeforeImpact << "\n"
      << "TimeStampIntervalAfterImpact=" << rec.setting.timeStampIntervalAfterImpact << "\n"
      << "ImpactIndex=" << rec.truth.impactIndex << "\n";
  return out.str();
}

bool WriteText(const fs::path& path, const std::string& text, std::string& error) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  if (file) file << text;
  if (file) file.close();
  if (!file) {
    error = "cannot write " + path.string();
    return false;
  }
  return true;
}

const char* const kFolders[2] = {"Master", "Slave"};

// Frames left by an earlier recording in the same folder would be replayed
// with the new ones: remove them (only frame images, nothing else).
bool RemoveOldFrames(const fs::path& folder, std::string& error) {
  std::error_code ec;
  for (fs::directory_iterator it(folder, ec), end; !ec && it != end; it.increment(ec)) {
    const fs::path& p = it->path();
    const std::string ext = p.extension().string();
    if ((ext == ".bmp" || ext == ".png") && it->is_regular_file()) {
      fs::remove(p, ec);
      if (ec) break;
    }
  }
  if (ec) {
    error = "cannot clear old frames in " + folder.string() + ": " + ec.message();
    return false;
  }
  return true;
}

std::string BuildTruthJson(const Recording& rec, bool png) {
  const SwingTruth& truth = rec.truth;
  const SwingScene& scene = rec.scene;
  const detail::SceneDraws d = detail::Draw(scene);
  json j;
  j["pivot"] = Vec(truth.pivot);
  j["axis"] = Vec(truth.axis);
  j["omega0_rad_per_us"] = truth.omega0;
  j["alpha"] = truth.alpha;
  j["ball"] = Vec(truth.ball);
  j["ball_radius"] = truth.ballRadius;
  j["head_radius"] = truth.headRadius;
  j["club_head_speed_mm_per_us"] = truth.clubHeadSpeed;
  j["club_head_speed_mps"] = truth.clubHeadSpeedMps;
  j["true_head_centre_speed_mps"] = truth.trueHeadCentreSpeedMps;
  j["impact_time_us"] = truth.impactTime;
  j["fps"] = truth.fps;
  j["impact_index"] = truth.impactIndex;
  j["exposure_us"] = truth.exposureUs;
  j["head_semi_axes"] = Vec(truth.headSemiAxes);
  j["shaft_radius"] = truth.shaftRadius;
  j["grip_distance"] = truth.gripDistance;
  j["hosel_distance"] = truth.hoselDistance;
  j["ball_speed_mm_per_us"] = truth.ballSpeed;
  j["launch_deg"] = truth.launchDeg;
  j["dropped_frame"] = truth.droppedFrame;
  j["baseline"] = cv::norm(truth.cameras[0].Center() - truth.cameras[1].Center());
  const DeliveryTruth& t = truth.delivery;
  j["club_data"] = {{"speedMps", t.speedMps},
                    {"attackAngleDeg", t.attackAngleDeg},
                    {"pathDeg", t.pathDeg},
                    {"swingPlaneDeg", t.swingPlaneDeg},
                    {"swingDirectionDeg", t.swingDirectionDeg},
                    {"lowPointAheadMm", t.lowPointAheadMm},
                    {"lowPointHeightMm", t.lowPointHeightMm},
                    {"lowPointSideMm", t.lowPointSideMm},
                    {"lowPoint", Vec(t.lowPoint)}};
  j["frame_counts"] = {{"Master", truth.timeStamps[0].size()},
                       {"Slave", truth.timeStamps[1].size()}};

  for (int c = 0; c < 2; ++c) {
    const CameraModel& m = truth.cameras[c];
    json cam;
    cam["K"] = json::array();
    for (int r = 0; r < 3; ++r) cam["K"].push_back({m.K(r, 0), m.K(r, 1), m.K(r, 2)});
    cam["Rt"] = json::array();
    for (int r = 0; r < 3; ++r) cam["Rt"].push_back({m.R(r, 0), m.R(r, 1), m.R(r, 2), m.t[r]});
    cam["centre"] = Vec(m.Center());
    cam["sensor_offset"] = {m.sensorOffsetX, m.sensorOffsetY};
    cam["window"] = {m.width, m.height};
    cam["ball_in_window"] = Vec(truth.BallInWindow(c));
    j["cameras"][kFolders[c]] = cam;

    json frames = json::array();
    const bool haveImages = rec.images[c].size() == truth.timeStamps[c].size();
    for (size_t k = 0; k < truth.timeStamps[c].size(); ++k) {
      const double time = truth.FrameTime(c, static_cast<int>(k));
      json f;
      if (haveImages) f["file"] = FrameFileName(rec.images[c][k], png);
      f["index"] = k;
      f["time_stamp"] = truth.timeStamps[c][k];
      f["after_impact"] = static_cast<int>(k) >= truth.impactIndex ? 1 : 0;
      f["theta_rad"] = truth.SwingAngle(time);
      f["head_centre"] = Vec(truth.HeadCentre(time));
      f["shaft_top"] = Vec(truth.ShaftPoint(time, truth.gripDistance));
      f["shaft_bottom"] = Vec(truth.ShaftPoint(time, truth.hoselDistance));
      f["ball_centre"] = Vec(truth.BallCentre(time));
      const cv::Vec2f line = truth.ShaftLine(c, time);
      f["shaft_line_sensor"] = {line[0], line[1]};
      f["head_in_window"] = Vec(m.ProjectToWindow(truth.HeadCentre(time)));
      frames.push_back(f);
    }
    j["frames"][kFolders[c]] = frames;
  }

  json p;
  p["seed"] = scene.seed;
  p["placement"] = scene.placement == Placement::kNear ? "near" : "far";
  p["speed_mps"] = scene.speedMps;
  p["fps"] = scene.fps;
  p["frames"] = scene.frames;
  p["impact_index"] = scene.impactIndex;
  p["noise_sigma"] = scene.noiseSigma;
  p["flicker"] = scene.flicker;
  p["drop_frame"] = scene.dropFrame;
  p["iron"] = scene.iron;
  p["dark_shaft"] = scene.darkShaft;
  p["no_club"] = scene.noClub;
  p["club"] = scene.iron ? "iron" : "driver";
  p["pivot_distance"] = d.pivotDistance;
  p["plane_deg"] = d.planeDeg;
  p["yaw_deg"] = d.yawDeg;
  if (scene.directionDeg) p["direction_deg"] = *scene.directionDeg;
  p["low_point_ahead_mm"] = scene.lowPointAheadMm;
  p["accel_fraction"] = d.accelFraction;
  p["impact_fraction"] = d.impactFraction;
  p["first_stamp"] = d.firstStamp;
  p["exposure_us"] = d.exposureUs;
  p["sub_exposures"] = 8;
  p["slave_jitter"] = d.slaveJitter;
  p["flicker_gain"] = d.flickerGain;
  p["drop_index"] = d.dropIndex;
  p["shaft_radius"] = d.shaftRadius;
  p["head_scale"] = d.headScale;
  p["launch_deg"] = d.launchDeg;
  p["ball_speed_ratio"] = d.ballSpeedRatio;
  p["baseline_drawn"] = d.baseline;
  for (int c = 0; c < 2; ++c) {
    const detail::CameraDraw& cd = d.cameras[c];
    p["cameras"].push_back({{"name", kFolders[c]},
                            {"distance", cd.distance},
                            {"azimuth_deg", cd.azimuthDeg},
                            {"elevation_deg", cd.elevationDeg},
                            {"focal_px", cd.focal},
                            {"principal", Vec(cd.principal)},
                            {"aim", Vec(cd.aim)},
                            {"roll_deg", cd.rollDeg},
                            {"ball_target", Vec(cd.ballTarget)}});
  }
  p["scene"] = {{"mat_albedo", d.matAlbedo},
                {"turf_albedo", d.turfAlbedo},
                {"texture_contrast", d.textureContrast},
                {"mat_extent", d.matExtent},
                {"wall_z", d.wallZ},
                {"wall_albedo", d.wallAlbedo},
                {"feet", {Vec(d.feet[0]), Vec(d.feet[1])}},
                {"feet_splay_deg", d.feetSplayDeg},
                {"leg_radius", d.legRadius},
                {"trouser_albedo", d.trouserAlbedo},
                {"shoe_albedo", d.shoeAlbedo},
                {"ambient", d.ambient},
                {"ball_albedo", d.ballAlbedo},
                {"shaft_albedo", d.shaftAlbedo},
                {"shaft_gloss", d.shaftGloss},
                {"head_albedo", d.headAlbedo},
                {"head_gloss", d.headGloss},
                {"black_level", d.blackLevel},
                {"light_gain", d.lightGain},
                {"texture_salt", d.textureSalt}};
  j["params"] = p;
  j["png"] = png;
  return j.dump(1);
}

}  // namespace

std::string TruthJson(const Recording& rec) { return BuildTruthJson(rec, false); }

bool WriteRecording(const Recording& rec, const fs::path& dir, bool png,
                    std::string& error) noexcept {
  try {
    std::error_code ec;
    for (int c = 0; c < 2; ++c) {
      fs::create_directories(dir / kFolders[c], ec);
      if (ec) {
        error = "cannot create " + (dir / kFolders[c]).string() + ": " + ec.message();
        return false;
      }
      if (!RemoveOldFrames(dir / kFolders[c], error)) return false;
    }
    if (!WriteText(dir / "run.ini", RunFile(rec), error)) return false;
    if (!WriteText(dir / "Master" / "MasterOption.ini", CalibrationFile(rec.truth.cameras[0]),
                   error)) {
      return false;
    }
    if (!WriteText(dir / "Slave" / "SlaveOption.ini", CalibrationFile(rec.truth.cameras[1]),
                   error)) {
      return false;
    }
    for (int c = 0; c < 2; ++c) {
      for (const ClubImage& image : rec.images[c]) {
        const cv::Mat frame(static_cast<int>(image.height), static_cast<int>(image.width), CV_8UC1,
                            image.pixels);
        const fs::path path = dir / kFolders[c] / FrameFileName(image, png);
        if (!cv::imwrite(path.string(), frame)) {
          error = "cannot write " + path.string();
          return false;
        }
      }
    }
    if (!WriteText(dir / "truth.json", BuildTruthJson(rec, png) + "\n", error)) return false;
    return true;
  } catch (const std::exception& e) {
    error = std::string("cannot write the recording to ") + dir.string() + ": " + e.what();
    return false;
  } catch (...) {
    error = "cannot write the recording to " + dir.string();
    return false;
  }
}

void WriteRecording(const Recording& rec, const fs::path& dir, bool png) {
  std::string error;
  if (!WriteRecording(rec, dir, png, error)) throw std::runtime_error(error);
}

}  // namespace synth
