// The installed package stays usable: cmake --install into a fresh prefix,
// the example plug-in host configured with find_package(clubtracker CONFIG) and
// built with its headers only (no link to the library, which it loads with
// dlopen), then run on a synthetic recording; pkg-config finds the library.
#include <cmath>
#include <filesystem>
#include <regex>
#include <string>

#include <gtest/gtest.h>

#include "support/run_command.h"
#include "synth/swing.h"

namespace fs = std::filesystem;

namespace {

// Runs a shell command with its output in `output`; returns the exit status.
int Shell(const std::string& command, std::string* output) {
  const CommandRun run = RunCommand(command);
  *output = run.out + run.err;
  return run.status;
}

fs::path FindFile(const fs::path& root, const std::string& name) {
  for (const auto& entry : fs::recursive_directory_iterator(root)) {
    if (entry.path().filename() == name) return entry.path();
  }
  return {};
}

}  // namespace

TEST(InstallPackage, HostBuildsAgainstTheInstalledPackageAndRuns) {
  TempFolder temp("clubtracker-install");
  const fs::path prefix = temp.path / "prefix";
  std::string output;

  ASSERT_EQ(Shell("cmake --install " + Quote(CLUBTRACKER_BINARY_DIR) + " --prefix " +
                      Quote(prefix.string()), &output), 0) << output;
  for (const char* header : {"clubtracker/ClubTracker.h", "clubtracker/QuarvelTestingInterface.h",
                             "clubtracker/measure.h", "imageprocess/ImageProcess.h"}) {
    EXPECT_TRUE(fs::exists(prefix / "include" / header)) << header;
  }
  EXPECT_TRUE(fs::exists(prefix / "bin" / "clubtrack"));
  const fs::path library = FindFile(prefix, "libclubtracker.so");
  ASSERT_FALSE(library.empty());
  EXPECT_TRUE(fs::exists(library.parent_path() / "libimageprocess.so"));
  EXPECT_FALSE(FindFile(prefix, "clubtrackerConfig.cmake").empty());
  EXPECT_FALSE(FindFile(prefix, "clubtrackerConfigVersion.cmake").empty());
  const fs::path pcFile = FindFile(prefix, "clubtracker.pc");
  ASSERT_FALSE(pcFile.empty());

  // pkg-config: the .pc file finds its prefix from where it lies.
  ASSERT_EQ(Shell("PKG_CONFIG_PATH=" + Quote(pcFile.parent_path().string()) +
                      " pkg-config --cflags --libs clubtracker", &output), 0) << output;
  EXPECT_NE(output.find("-lclubtracker"), std::string::npos) << output;
  EXPECT_NE(output.find("-limageprocess"), std::string::npos) << output;
  const std::smatch include = [&] {
    std::smatch m;
    std::regex_search(output, m, std::regex("-I(\\S+)"));
    return m;
  }();
  ASSERT_FALSE(include.empty()) << output;
  EXPECT_TRUE(fs::exists(fs::path(include[1].str()) / "clubtracker" / "ClubTracker.h"))
      << include[1].str();

  std::string flags;
#if defined(__SANITIZE_ADDRESS__)
  // The installed library is instrumented; the host must load the runtime first.
  // A plug-in host has no type information of the library's classes to check
  // virtual calls against, so the vptr check stays off.
  flags = " '-DCMAKE_CXX_FLAGS=-fsanitize=address,undefined -fno-sanitize=vptr'"
          " -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=address,undefined";
#endif
  // The examples, configured and built against the installed package only.
  const auto buildExample = [&](const std::string& name) {
    const fs::path build = temp.path / (name + "-build");
    EXPECT_EQ(Shell("cmake -S " + Quote(std::string(CLUBTRACKER_SOURCE_DIR) + "/examples/" + name) +
                        " -B " + Quote(build.string()) + " -DCMAKE_BUILD_TYPE=Release" +
                        " -DCMAKE_PREFIX_PATH=" + Quote(prefix.string()) + flags +
                        " && cmake --build " + Quote(build.string()), &output), 0) << output;
    return build;
  };
  const fs::path hostBuild = buildExample("host");
  const fs::path measureBuild = buildExample("measure");
  ASSERT_EQ(Shell("readelf -d " + Quote((hostBuild / "clubtracker_host").string()), &output), 0);
  EXPECT_EQ(output.find("libclubtracker"), std::string::npos) << "a plug-in host links no library:\n"
                                                              << output;
  EXPECT_EQ(output.find("libimageprocess"), std::string::npos) << output;

  // A short synthetic swing, enough for a line-based speed.
  synth::SwingScene scene;
  scene.frames = 16;
  scene.impactIndex = 10;
  const synth::Recording recording = synth::Render(scene);
  const fs::path swing = temp.path / "swing";
  synth::WriteRecording(recording, swing);

  const int status = Shell(Quote((hostBuild / "clubtracker_host").string()) + " " +
                               Quote(swing.string()) + " " + Quote(library.string()),
                           &output);
  ASSERT_EQ(status, 0) << output;
  std::smatch speed;
  ASSERT_TRUE(std::regex_search(output, speed, std::regex("club-head speed: (\\S+) mm/us")))
      << output;
  const double measured = std::stod(speed[1].str());
  EXPECT_GT(measured, 0.0);
  EXPECT_LT(std::fabs(measured / recording.truth.clubHeadSpeed - 1.0), 1.0)
      << "measured " << measured << ", truth " << recording.truth.clubHeadSpeed;
  EXPECT_NE(output.find("paired frames: 16"), std::string::npos) << output;

  // measure.h from the installed headers, linked to the installed library.
  ASSERT_EQ(Shell("LD_LIBRARY_PATH=" + Quote(library.parent_path().string()) + " " +
                      Quote((measureBuild / "clubtracker_measure").string()) + " " +
                      Quote(swing.string()), &output), 0) << output;
  EXPECT_NE(output.find("head-tracking speed"), std::string::npos) << output;
  EXPECT_NE(output.find("attack angle"), std::string::npos) << output;

  // The installed tool runs from its own prefix.
  ASSERT_EQ(Shell(Quote((prefix / "bin" / "clubtrack").string()) + " --help", &output), 0) << output;
  EXPECT_NE(output.find("run"), std::string::npos);
}
