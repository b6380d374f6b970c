// The recording loader on folder layouts drawn from the input: run and camera
// option files (well-formed with drawn numbers, or raw bytes), frame files
// (images of drawn sizes, truncated images, headers claiming huge sizes, raw
// bytes), folders, links, FIFOs and odd names. Nothing may crash or hang.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>
#include <system_error>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>
#include <opencv2/imgcodecs.hpp>

#include "harness/offline.h"

namespace fs = std::filesystem;

namespace {

void Write(const fs::path& path, const std::string& bytes) {
  std::ofstream(path, std::ios::binary) << bytes;
}

// A file name without separators or NUL; mostly a frame name.
std::string FrameName(FuzzedDataProvider& in, uint64_t& stamp) {
  if (in.ConsumeIntegralInRange<int>(0, 5) == 0) {
    std::string name = in.ConsumeRandomLengthString(40);
    for (char& c : name) {
      if (c == '/' || c == '\0') c = '_';
    }
    if (name.empty() || name == "." || name == "..") name = "x";
    return name;
  }
  stamp += in.ConsumeIntegralInRange<uint64_t>(0, 1000);
  const bool huge = in.ConsumeIntegralInRange<int>(0, 15) == 0;
  return (huge ? std::string("99999999999999999999") : std::to_string(stamp)) + "_" +
         std::to_string(in.ConsumeIntegralInRange<int>(-5, 900)) + "_7_" +
         std::to_string(in.ConsumeIntegralInRange<int>(0, 40)) + ".5_2" +
         (in.ConsumeBool() ? ".bmp" : ".png");
}

uint32_t Crc(const unsigned char* p, size_t n) {
  uint32_t c = 0xFFFFFFFFu;
  for (size_t i = 0; i < n; ++i) {
    c ^= p[i];
    for (int k = 0; k < 8; ++k) c = (c >> 1) ^ (0xEDB88320u & (0u - (c & 1u)));
  }
  return ~c;
}

// An image file of a drawn size, or broken in a drawn way.
std::string FrameBytes(FuzzedDataProvider& in, bool png) {
  const int width = in.ConsumeIntegralInRange<int>(1, 24);
  const int height = in.ConsumeIntegralInRange<int>(1, 24);
  cv::Mat image(height, width, CV_8UC1, cv::Scalar(in.ConsumeIntegral<uint8_t>()));
  std::vector<unsigned char> bytes;
  cv::imencode(png ? ".png" : ".bmp", image, bytes);
  switch (in.ConsumeIntegralInRange<int>(0, 5)) {
    case 0:  // truncated
      bytes.resize(in.ConsumeIntegralInRange<size_t>(0, bytes.size()));
      break;
    case 1: {  // a header claiming another size, maybe a huge one
      const uint32_t w = in.ConsumeIntegral<uint32_t>() % 70000u;
      const uint32_t h = in.ConsumeIntegral<uint32_t>() % 70000u;
      if (png && bytes.size() > 33) {
        for (int i = 0; i < 4; ++i) {
          bytes[16 + i] = static_cast<unsigned char>(w >> (24 - 8 * i));
          bytes[20 + i] = static_cast<unsigned char>(h >> (24 - 8 * i));
        }
        const uint32_t crc = Crc(bytes.data() + 12, 17);
        for (int i = 0; i < 4; ++i) bytes[29 + i] = static_cast<unsigned char>(crc >> (24 - 8 * i));
      } else if (!png && bytes.size() > 26) {
        for (int i = 0; i < 4; ++i) {
          bytes[18 + i] = static_cast<unsigned char>(w >> (8 * i));
          bytes[22 + i] = static_cast<unsigned char>(h >> (8 * i));
        }
      }
      break;
    }
    case 2: {  // raw bytes
      const std::string raw = in.ConsumeRandomLengthString(200);
      bytes.assign(raw.begin(), raw.end());
      break;
    }
    default:
      break;
  }
  return std::string(bytes.begin(), bytes.end());
}

std::string Calibration(FuzzedDataProvider& in) {
  if (in.ConsumeIntegralInRange<int>(0, 4) == 0) return in.ConsumeRandomLengthString(300);
  std::string text = "[IntrinsicCal]\n11=1500\n12=0\n13=320\n21=0\n22=1500\n23=240\n31=0\n32=0\n33=";
  text += in.ConsumeBool() ? "1" : in.ConsumeRandomLengthString(12);
  text += "\n[ExtrinsicCal]\n11=1\n22=1\n33=1\n34=" + std::to_string(in.ConsumeIntegral<int16_t>()) + "\n";
  return text;
}

std::string RunFile(FuzzedDataProvider& in) {
  if (in.ConsumeIntegralInRange<int>(0, 4) == 0) {
    return "[Info]\nFolderPath=.\n" + in.ConsumeRandomLengthString(300);
  }
  const auto number = [&in] {
    return in.ConsumeIntegralInRange<int>(0, 3) == 0
               ? std::to_string(in.ConsumeIntegral<int32_t>())
               : std::to_string(in.ConsumeIntegralInRange<int>(-2, 30));
  };
  std::string text = "[ROI]\n";
  if (in.ConsumeBool()) {
    text += "X=" + number() + "\nY=" + number() + "\nWidth=" + number() + "\nHeight=" + number() + "\n";
  }
  text += "[Info]\nFolderPath=.\nImpactIndex=" + number() +
          "\nTimeStampIntervalBeforeImpact=" + number() + "\n";
  return text;
}

void MakeCamera(FuzzedDataProvider& in, const fs::path& folder, const char* optionFile) {
  std::error_code ec;
  fs::create_directories(folder, ec);
  Write(folder / optionFile, Calibration(in));
  uint64_t stamp = in.ConsumeIntegralInRange<uint64_t>(0, 100000);
  const int files = in.ConsumeIntegralInRange<int>(0, 6);
  for (int f = 0; f < files; ++f) {
    const fs::path path = folder / FrameName(in, stamp);
    switch (in.ConsumeIntegralInRange<int>(0, 9)) {
      case 0:
        fs::create_directories(path, ec);
        break;
      case 1:
        ::mkfifo(path.c_str(), 0600);
        break;
      case 2:
        fs::create_symlink(in.ConsumeBool() ? "/dev/zero" : "missing", path, ec);
        break;
      default:
        Write(path, FrameBytes(in, path.extension() == ".png"));
        break;
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  static const fs::path root =
      fs::temp_directory_path() / ("clubtracker-fuzz-recording-" + std::to_string(::getpid()));
  std::error_code ec;
  fs::remove_all(root, ec);
  fs::create_directories(root, ec);
  if (in.ConsumeIntegralInRange<int>(0, 9) == 0) {
    ::mkfifo((root / "run.ini").c_str(), 0600);  // a run file that is no file
  } else {
    Write(root / "run.ini", RunFile(in));
  }
  MakeCamera(in, root / "Master", "MasterOption.ini");
  if (in.ConsumeIntegralInRange<int>(0, 9) != 0) MakeCamera(in, root / "Slave", "SlaveOption.ini");

  LoadedRecording recording;
  std::string error;
  LoadRecording(root, recording, &error);
  fs::remove_all(root, ec);
  return 0;
}
