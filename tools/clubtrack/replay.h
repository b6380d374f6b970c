// Replaying a recording through the testing object, for `run` and `demo`.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <memory>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "clubtracker/QuarvelTestingInterface.h"
#include "clubtracker/measure.h"
#include "pictures.h"

// Micro-metres per micro-second is metres per second: the recordings' units
// are millimetres and microseconds, so a speed in mm/us times 1000 is m/s.
inline constexpr double kMpsPerUnit = 1000.0;

struct ReplayOutcome {
  std::filesystem::path runFile;
  clubtracker::SwingReport swing;
  OfflineRunReport report;  // the swing's numbers in the testing object's record
  std::vector<std::unique_ptr<OfflineResultImage>> images;
};

// Resolves RECORDING (a run option file or a folder holding run.ini), loads
// it and measures it (line-based, head tracking, club delivery). False with a
// one-line reason.
bool Replay(const std::filesystem::path& recording, ReplayOutcome& outcome, std::string* error,
            const clubtracker::MeasureOptions& options = {},
            uint64_t maxFramePixels = clubtracker::kMaxFramePixels);

// The frames to draw: the result's entries, or when the result has none (the
// tracker stopped before the shaft stage) the recording's paired raw frames.
std::vector<FrameView> ViewsOf(const ReplayOutcome& outcome);

// The JSON object of a replay. Its keys are a stable interface.
nlohmann::json ReplayJson(const ReplayOutcome& outcome);

// The club-data table: one line per value (value +- standard error), then
// the notes on what could not be measured.
void PrintClubData(std::ostream& out, const clubtracker::ClubDelivery& delivery);

// The short human summary, with the log lines when `withLog`.
void PrintSummary(std::ostream& out, const ReplayOutcome& outcome, bool withLog);

// Whether `path` can be created or replaced as a file: its folder exists and
// is writable and it is not a folder itself. False with a one-line reason.
bool CheckWritableFile(const std::filesystem::path& path, std::string* error);

// Folds a possibly multi-line message into one line.
std::string OneLine(const std::string& text);
