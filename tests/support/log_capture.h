// A tracker's log lines, narrowed to bytes, collected in a vector of strings.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "clubtracker/ClubTracker.h"

inline void CaptureLog(std::wstring line, void* context) {
  static_cast<std::vector<std::string>*>(context)->emplace_back(line.begin(), line.end());
}

// `setting` logging into `log`.
inline ClubTrackerSetting LoggingInto(ClubTrackerSetting setting, std::vector<std::string>& log) {
  setting.logCallback = CaptureLog;
  setting.logContext = &log;
  return setting;
}

inline bool HasLineStarting(const std::vector<std::string>& lines, const std::string& start) {
  return std::any_of(lines.begin(), lines.end(),
                     [&](const std::string& line) { return line.rfind(start, 0) == 0; });
}
