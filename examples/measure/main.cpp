// Loads a recording from disk, measures it and prints the speeds and the club
// delivery, each value with its standard error.
#include <cstdio>
#include <optional>
#include <string>

#include "clubtracker/measure.h"

namespace {

void Print(const char* name, const std::optional<clubtracker::Measured>& value, const char* unit) {
  if (value) {
    std::printf("%-18s %8.2f +- %.2f %s\n", name, value->value, value->stdErr, unit);
  } else {
    std::printf("%-18s not measured\n", name);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s RECORDING\n", argv[0]);
    return 2;
  }
  clubtracker::Recording recording;
  std::string why;
  if (!clubtracker::LoadRecording(argv[1], recording, &why)) {
    std::fprintf(stderr, "%s: %s\n", argv[1], why.c_str());
    return 1;
  }
  clubtracker::MeasureOptions options;  // +y up, +x along the target line
  options.keepFrames = false;
  const clubtracker::SwingReport report = clubtracker::MeasureRecording(recording, options);
  if (!report.ok) {
    std::fprintf(stderr, "%s: %s\n", argv[1], report.error.c_str());
    return 1;
  }
  // The recordings' units are mm and microseconds: mm/us x 1000 = m/s.
  std::printf("head-tracking speed %.2f m/s\n", report.headTrackingSpeed * 1000.0);
  std::printf("line-based speed    %.2f m/s (reference method)\n", report.clubHeadSpeed * 1000.0);
  const clubtracker::ClubDelivery& d = report.delivery;
  Print("club speed", d.speedMps, "m/s");
  Print("attack angle", d.attackAngleDeg, "deg");
  Print("club path", d.pathDeg, "deg");
  Print("swing plane", d.swingPlaneDeg, "deg");
  Print("swing direction", d.swingDirectionDeg, "deg");
  Print("low point ahead", d.lowPointAheadMm, "mm");
  Print("low point height", d.lowPointHeightMm, "mm");
  Print("low point side", d.lowPointSideMm, "mm");
  for (const std::string& w : report.warnings) std::printf("warning: %s\n", w.c_str());
  for (const std::string& n : d.notes) std::printf("note: %s\n", n.c_str());
  return 0;
}
