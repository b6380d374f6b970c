// The per-camera analysis stages driven in pipeline order on whole recordings:
// the golden recordings (stage figures recorded with them) and the synthetic
// swing (ground truth of the club).
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <opencv2/imgcodecs.hpp>

#include "analysis/analysis.h"
#include "support/access.h"

namespace {

using Access = ClubTrackerTestAccess;

// Records of one camera as Find keeps them; freed on destruction.
struct CameraStages {
  std::vector<PreprocessedImage*> pre;
  std::vector<CandidateAreaImage*> cand;
  std::vector<cv::Mat> masks;
  std::vector<int> present;

  CameraStages() = default;
  CameraStages(const CameraStages&) = delete;
  CameraStages& operator=(const CameraStages&) = delete;
  ~CameraStages() {
    for (PreprocessedImage* p : pre) delete p;
    for (CandidateAreaImage* c : cand) delete c;
  }
};

// Preprocessing and candidate areas of one camera, then the presence test.
void RunToCandidates(ClubTracker& tracker, const std::vector<ClubImage*>& frames,
                     CameraStages& stages) {
  for (ClubImage* frame : frames) {
    stages.pre.push_back(new PreprocessedImage());
    Access::Preprocessing(tracker, frame, stages.pre.back());
  }
  ASSERT_EQ(Access::FindCandidateArea(tracker, stages.pre, stages.cand), 1);
  ASSERT_EQ(stages.cand.size(), frames.size());
  stages.masks.assign(stages.cand.size(), cv::Mat());
  stages.present.assign(stages.cand.size(), 0);
  for (size_t k = 0; k < stages.cand.size(); ++k) {
    RefineCandidateMask(stages.cand[k]->image, stages.masks[k], &stages.present[k]);
  }
}

int CountBothPresent(const CameraStages& cam1, const CameraStages& cam2) {
  int both = 0;
  for (size_t k = 0; k < cam1.present.size() && k < cam2.present.size(); ++k) {
    if (cam1.present[k] != 0 && cam2.present[k] != 0) ++both;
  }
  return both;
}

// The head size the driver takes from one camera's per-frame thicknesses.
int HeadValue(const std::vector<int>& sizes) {
  std::vector<int> positive;
  for (int s : sizes) {
    if (s > 0) positive.push_back(s);
  }
  if (positive.empty()) return 0;
  std::sort(positive.begin(), positive.end());
  return positive[(2 * positive.size()) / 3];
}

// Head sizes of both cameras when more than 10 frames show a blob in both,
// then the head disc painted out of every mask.
void MeasureAndDeleteHeads(ClubTracker& tracker, CameraStages& cam1, CameraStages& cam2,
                           int& head1, int& head2) {
  head1 = head2 = 0;
  if (CountBothPresent(cam1, cam2) > 10) {
    std::vector<int> sizes;
    MeasureHeadSizes(tracker, cam1.cand, cam1.masks, sizes);
    head1 = HeadValue(sizes);
    MeasureHeadSizes(tracker, cam2.cand, cam2.masks, sizes);
    head2 = HeadValue(sizes);
  }
  for (size_t k = 0; k < cam1.cand.size(); ++k) {
    Access::DeleteDriverHeadArea(tracker, cam1.cand[k], head1);
    Access::DeleteDriverHeadArea(tracker, cam2.cand[k], head2);
  }
}

// Lines of every frame of one camera at one divisor, in the driver's calling
// convention (before-impact frames share the first frame's threshold, after-
// impact frames the first positive after-impact threshold).
void ExtractLines(ClubTracker& tracker, const std::vector<CandidateAreaImage*>& cand,
                  float divisor) {
  const int t0 = Access::GetLineThreshold(tracker, cand[0], divisor);
  int tAfter = 0;
  for (CandidateAreaImage* c : cand) {
    if (c->afterImpact == 1) {
      if (tAfter <= 0) tAfter = Access::GetLineThreshold(tracker, c, divisor);
      Access::ExtractCandidates(tracker, c, tAfter);
    } else {
      Access::ExtractCandidates(tracker, c, t0);
    }
  }
}

int LineCount(const std::vector<CandidateAreaImage*>& cand) {
  int count = 0;
  for (const CandidateAreaImage* c : cand) count += static_cast<int>(c->lines.size());
  return count;
}

int FoundPairs(const std::vector<CandidateAreaImage*>& a,
               const std::vector<CandidateAreaImage*>& b) {
  int pairs = 0;
  for (size_t k = 0; k < a.size(); ++k) {
    if (!a[k]->lines.empty() && !b[k]->lines.empty() && a[k]->afterImpact == 0 &&
        b[k]->afterImpact == 0) {
      ++pairs;
    }
  }
  return pairs;
}

// ---------------------------------------------------------------------------
// Golden recordings

struct GoldenCamera {
  std::vector<ClubImage> images;
  std::vector<std::vector<unsigned char>> pixels;

  std::vector<ClubImage*> Pointers() {
    std::vector<ClubImage*> out;
    for (ClubImage& image : images) out.push_back(&image);
    return out;
  }
};

int IniInt(const std::filesystem::path& file, const std::string& key, int fallback) {
  std::ifstream in(file);
  std::string line;
  while (std::getline(in, line)) {
    if (line.rfind(key + "=", 0) == 0) return std::atoi(line.c_str() + key.size() + 1);
  }
  return fallback;
}

// Frames of one camera folder in time-stamp order, metadata from the plain
// file-name layout, afterImpact from the impact index.
void LoadGoldenCamera(const std::filesystem::path& folder, int impactIndex, GoldenCamera& cam) {
  std::vector<std::filesystem::path> files;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (entry.path().extension() == ".png") files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end(), [](const auto& a, const auto& b) {
    return std::stoull(a.filename().string()) < std::stoull(b.filename().string());
  });
  cam.images.resize(files.size());
  cam.pixels.resize(files.size());
  for (size_t k = 0; k < files.size(); ++k) {
    const cv::Mat grey = cv::imread(files[k].string(), cv::IMREAD_GRAYSCALE);
    ASSERT_FALSE(grey.empty()) << files[k];
    cam.pixels[k].assign(grey.datastart, grey.dataend);
    ClubImage& image = cam.images[k];
    image = ClubImage{};
    image.width = static_cast<uint32_t>(grey.cols);
    image.height = static_cast<uint32_t>(grey.rows);
    image.bytesPerChannel = 1;
    image.channels = 1;
    image.pixels = cam.pixels[k].data();
    const std::string name = files[k].filename().string();
    std::vector<std::string> tokens;
    size_t start = 0;
    for (size_t pos; (pos = name.find('_', start)) != std::string::npos; start = pos + 1) {
      tokens.push_back(name.substr(start, pos - start));
    }
    tokens.push_back(name.substr(start));
    ASSERT_GE(tokens.size(), 5u) << name;
    image.timeStamp = std::strtoull(tokens[0].c_str(), nullptr, 10);
    image.sensorOffsetX = std::atoi(tokens[1].c_str());
    image.sensorOffsetY = std::atoi(tokens[2].c_str());
    image.ballX = static_cast<float>(std::strtod(tokens[3].c_str(), nullptr));
    image.ballY = static_cast<float>(std::strtod(tokens[4].c_str(), nullptr));
    image.afterImpact = static_cast<int>(k) >= impactIndex ? 1 : 0;
  }
}

class GoldenStages : public ::testing::TestWithParam<const char*> {};

// The stage figures recorded with each golden recording come out the same:
// presence pairs, head sizes, and the line counts and pairs of every pass of
// the adaptive extraction.
TEST_P(GoldenStages, PresenceHeadSizesAndLineCountsOfEveryPass) {
  const std::filesystem::path dir = std::filesystem::path(CLUBTRACKER_GOLDEN_DIR) / GetParam();
  if (!std::filesystem::exists(dir / "expected.json")) GTEST_SKIP() << "no golden " << dir;
  nlohmann::json expected;
  std::ifstream(dir / "expected.json") >> expected;
  const nlohmann::json& diag = expected.at("diagnostics");

  const std::filesystem::path ini = dir / "run.ini";
  const int impactIndex = IniInt(ini, "ImpactIndex", 10);
  GoldenCamera master, slave;
  LoadGoldenCamera(dir / "Master", impactIndex, master);
  LoadGoldenCamera(dir / "Slave", impactIndex, slave);
  ASSERT_EQ(master.images.size(), slave.images.size());
  for (size_t k = 0; k < master.images.size(); ++k) {
    const int64_t d = static_cast<int64_t>(master.images[k].timeStamp - slave.images[k].timeStamp);
    ASSERT_LE(std::abs(d), 10) << "frames of the golden recording pair one to one";
  }

  ClubTracker tracker;
  tracker.setting.timeStampIntervalBeforeImpact = IniInt(ini, "TimeStampIntervalBeforeImpact", 2000);
  tracker.setting.timeStampIntervalAfterImpact = IniInt(ini, "TimeStampIntervalAfterImpact", 2000);
  CameraStages cam1, cam2;
  RunToCandidates(tracker, master.Pointers(), cam1);
  RunToCandidates(tracker, slave.Pointers(), cam2);
  EXPECT_EQ(CountBothPresent(cam1, cam2), diag.at("bothPresent").get<int>());

  int head1 = 0, head2 = 0;
  MeasureAndDeleteHeads(tracker, cam1, cam2, head1, head2);
  EXPECT_EQ(head1, diag.at("headValues")[0].get<int>());
  EXPECT_EQ(head2, diag.at("headValues")[1].get<int>());

  for (const nlohmann::json& pass : diag.at("passes")) {
    const float size1 = pass.at("lineSize")[0].get<float>();
    const float size2 = pass.at("lineSize")[1].get<float>();
    if (pass.at("redo")[0].get<int>() == 1) {
      for (CandidateAreaImage* c : cam1.cand) c->lines.clear();
      ExtractLines(tracker, cam1.cand, size1);
    }
    if (pass.at("redo")[1].get<int>() == 1) {
      for (CandidateAreaImage* c : cam2.cand) c->lines.clear();
      ExtractLines(tracker, cam2.cand, size2);
    }
    EXPECT_EQ(LineCount(cam1.cand), pass.at("lineCount")[0].get<int>()) << "divisor " << size1;
    EXPECT_EQ(LineCount(cam2.cand), pass.at("lineCount")[1].get<int>()) << "divisor " << size2;
    EXPECT_EQ(FoundPairs(cam1.cand, cam2.cand), pass.at("foundPair").get<int>());
  }
}

INSTANTIATE_TEST_SUITE_P(Recordings, GoldenStages, ::testing::Values("g01", "g02"));

}  // namespace
