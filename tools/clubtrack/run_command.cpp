// clubtrack run RECORDING [--json FILE|-] [--annotated DIR] [--sheet FILE] [--quiet]:
// replay a recorded swing through the testing object and report what the
// tracker measured.
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <exception>
#include <fstream>
#include <iostream>
#include <memory>
#include <string>
#include <system_error>

#include "commands.h"
#include "replay.h"

namespace fs = std::filesystem;

namespace {

struct RunCommandOptions {
  std::string recording;
  std::string json;
  std::string annotated;
  std::string sheet;
  bool quiet = false;
  std::string up;
  std::string target;
  uint64_t maxPixels = clubtracker::kMaxFramePixels;
};

// "X,Y,Z" as a direction, scaled to unit length (MeasureOptions::IsValid then
// says what is wrong with a zero or non-finite one).
bool ParseDirection(const std::string& text, clubtracker::Vec3& v, std::string* error) {
  double x = 0.0;
  double y = 0.0;
  double z = 0.0;
  char tail = 0;
  if (std::sscanf(text.c_str(), "%lf,%lf,%lf%c", &x, &y, &z, &tail) != 3) {
    *error = "'" + text + "' is not a direction X,Y,Z";
    return false;
  }
  const double length = std::sqrt(x * x + y * y + z * z);
  v = length > 0.0 && std::isfinite(length) ? clubtracker::Vec3{x / length, y / length, z / length}
                                            : clubtracker::Vec3{x, y, z};
  return true;
}

int Fail(const std::string& reason) {
  std::cerr << "clubtrack run: " << OneLine(reason) << "\n";
  return 1;
}

int RunReplay(const RunCommandOptions& options) {
  std::string error;
  // Outputs are checked before the replay, so a typo does not cost a run.
  if (!options.json.empty() && options.json != "-" && !CheckWritableFile(options.json, &error)) {
    return Fail(error);
  }
  if (!options.sheet.empty() && !CheckWritableFile(options.sheet, &error)) return Fail(error);
  if (!options.annotated.empty()) {
    std::error_code ec;
    const fs::path folder(options.annotated);
    fs::create_directories(folder, ec);
    if (ec || !fs::is_directory(folder) || ::access(folder.c_str(), W_OK) != 0) {
      return Fail("cannot write into the folder " + options.annotated);
    }
  }

  clubtracker::MeasureOptions measure;
  if (!options.up.empty() && !ParseDirection(options.up, measure.up, &error)) {
    return Fail("--up: " + error);
  }
  if (!options.target.empty() && !ParseDirection(options.target, measure.target, &error)) {
    return Fail("--target: " + error);
  }
  if (!measure.IsValid(&error)) return Fail(error);
  if (options.maxPixels == 0) return Fail("--max-pixels: a frame has at least 1 pixel");

  ReplayOutcome outcome;
  if (!Replay(options.recording, outcome, &error, measure, options.maxPixels)) return Fail(error);
  // Warnings go to standard error even with --quiet: the numbers may be wrong.
  for (const std::string& warning : outcome.swing.warnings) {
    std::cerr << "clubtrack run: warning: " << OneLine(warning) << "\n";
  }

  const bool jsonToStdout = options.json == "-";
  if (!options.json.empty()) {
    const std::string text =
        ReplayJson(outcome).dump(1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    if (jsonToStdout) {
      std::cout << text << std::flush;
    } else {
      std::ofstream out(options.json, std::ios::binary | std::ios::trunc);
      out << text;
      out.close();
      if (!out) return Fail("cannot write " + options.json);
    }
  }

  std::vector<FrameView> views;
  if (!options.annotated.empty() || !options.sheet.empty()) views = ViewsOf(outcome);
  if (!options.annotated.empty() && WriteAnnotatedFrames(views, options.annotated, &error) < 0) {
    return Fail(error);
  }
  if (!options.sheet.empty()) {
    const std::string title = outcome.runFile.string() + (outcome.images.empty()
                                                               ? "  (no result frames: raw frames)"
                                                               : "");
    if (!WriteImage(options.sheet, ContactSheet(views, title), &error)) return Fail(error);
  }

  if (!options.quiet) {
    // With the JSON on standard output the summary goes to standard error.
    std::ostream& out = jsonToStdout ? std::cerr : std::cout;
    PrintSummary(out, outcome, true);
    if (!options.annotated.empty()) out << "Annotated frames written to " << options.annotated << "\n";
    if (!options.sheet.empty()) out << "Contact sheet written to " << options.sheet << "\n";
  }
  return 0;
}

}  // namespace

void AddRunCommand(CLI::App& app, int& exitStatus) {
  auto options = std::make_shared<RunCommandOptions>();
  CLI::App* cmd = app.add_subcommand(
      "run", "Replay a recorded swing (a run option file, or a folder holding run.ini) through "
             "the tracker and report the spin axis, the club-head speed and the log");
  cmd->add_option("RECORDING", options->recording, "run option file or recording folder")
      ->required();
  cmd->add_option("--json", options->json,
                  "write the result as one JSON object to FILE ('-' for standard output)")
      ->type_name("FILE");
  cmd->add_option("--annotated", options->annotated,
                  "write every result frame as PNG into DIR: the annotated candidate image and "
                  "the raw frame with the annotations")
      ->type_name("DIR");
  cmd->add_option("--sheet", options->sheet,
                  "write a contact sheet PNG: both cameras side by side, one row per paired frame")
      ->type_name("FILE");
  cmd->add_option("--up", options->up,
                  "the world's up direction for the club delivery (default 0,1,0)")
      ->type_name("X,Y,Z");
  cmd->add_option("--target", options->target,
                  "the target line's direction, horizontal (default 1,0,0)")
      ->type_name("X,Y,Z");
  cmd->add_option("--max-pixels", options->maxPixels,
                  "skip frame files larger than N pixels (width x height), judged from the "
                  "header before decoding (default 16000000)")
      ->type_name("N");
  cmd->add_flag("--quiet,-q", options->quiet, "print neither the summary nor the log");
  cmd->callback([options, &exitStatus]() {
    try {
      exitStatus = RunReplay(*options);
    } catch (const std::exception& e) {
      exitStatus = Fail(e.what());
    }
  });
}
