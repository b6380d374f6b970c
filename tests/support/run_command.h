// Runs a shell command and collects its exit status, standard output and
// standard error (through files, so large outputs cannot block).
#pragma once

#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/temp_folder.h"

inline std::string ReadAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// `text` as one single-quoted shell word.
inline std::string Quote(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) quoted += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return quoted + "'";
}

struct CommandRun {
  int status = -1;  // the exit status, -1 when killed by a signal
  std::string out, err;
};

inline CommandRun RunCommand(const std::string& command) {
  const TempFolder capture("clubtracker-run");
  const std::filesystem::path out = capture.path / "out", err = capture.path / "err";
  const int raw = std::system(("{ " + command + "\n} >" + Quote(out.string()) + " 2>" +
                               Quote(err.string())).c_str());
  return {WIFEXITED(raw) ? WEXITSTATUS(raw) : -1, ReadAll(out), ReadAll(err)};
}
