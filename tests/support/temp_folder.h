// A fresh folder under the system's temporary directory, removed with its
// contents when the object goes.
#pragma once

#include <unistd.h>

#include <filesystem>
#include <string>
#include <system_error>

struct TempFolder {
  std::filesystem::path path;

  explicit TempFolder(const std::string& prefix = "clubtracker") {
    static int counter = 0;
    path = std::filesystem::temp_directory_path() /
           (prefix + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++));
    std::filesystem::remove_all(path);
    std::filesystem::create_directories(path);
  }
  ~TempFolder() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
  }
  TempFolder(const TempFolder&) = delete;
  TempFolder& operator=(const TempFolder&) = delete;
};
