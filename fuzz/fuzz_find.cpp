// Find through the public interface on a few small frames with a setting drawn
// from the input: sizes, channels, depths, time stamps, region of interest,
// intervals, axes and calibration all vary. Nothing may crash, leak or hang.
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "clubtracker/ClubTracker.h"
#include "clubtracker/validation.h"

namespace {

struct Camera {
  std::vector<ClubImage> images;
  std::vector<std::vector<unsigned char>> pixels;
  std::vector<ClubImage*> list;
};

void MakeCamera(FuzzedDataProvider& in, Camera& camera) {
  const size_t count = in.ConsumeIntegralInRange<size_t>(0, 14);
  camera.images.resize(count);
  camera.pixels.resize(count);
  uint64_t stamp = in.ConsumeIntegral<uint16_t>();
  const uint32_t width = in.ConsumeIntegralInRange<uint32_t>(0, 40);
  const uint32_t height = in.ConsumeIntegralInRange<uint32_t>(0, 40);
  for (size_t k = 0; k < count; ++k) {
    ClubImage& image = camera.images[k];
    image = ClubImage{};
    const bool odd = in.ConsumeIntegralInRange<int>(0, 15) == 0;  // a frame unlike the rest
    image.width = odd ? in.ConsumeIntegralInRange<uint32_t>(0, 40) : width;
    image.height = odd ? in.ConsumeIntegralInRange<uint32_t>(0, 40) : height;
    image.channels = odd ? in.ConsumeIntegralInRange<uint32_t>(0, 5) : 1;
    image.bytesPerChannel = odd ? in.ConsumeIntegralInRange<uint32_t>(0, 2) : 1;
    const size_t bytes = static_cast<size_t>(image.width) * image.height * image.channels *
                         image.bytesPerChannel;
    std::vector<unsigned char>& buffer = camera.pixels[k];
    buffer = in.ConsumeBytes<unsigned char>(bytes);
    buffer.resize(bytes, static_cast<unsigned char>(k * 37));
    const bool noPixels = odd && in.ConsumeBool();
    image.pixels = noPixels || buffer.empty() ? nullptr : buffer.data();
    stamp += in.ConsumeIntegralInRange<uint64_t>(0, 1200);
    image.timeStamp = stamp;
    image.afterImpact = in.ConsumeBool() ? 1u : 0u;
    image.sensorOffsetX = in.ConsumeIntegralInRange<int32_t>(-50, 2000);
    image.sensorOffsetY = in.ConsumeIntegralInRange<int32_t>(-50, 2000);
    image.ballX = in.ConsumeFloatingPoint<float>();
    image.ballY = in.ConsumeFloatingPoint<float>();
    image.ballRadius = in.ConsumeIntegralInRange<int>(0, 3) == 0 ? in.ConsumeFloatingPoint<float>()
                                                                 : 0.0f;
  }
  for (ClubImage& image : camera.images) camera.list.push_back(&image);
}

double Value(FuzzedDataProvider& in) {
  switch (in.ConsumeIntegralInRange<int>(0, 3)) {
    case 0:
      return in.ConsumeFloatingPoint<double>();  // anything, infinities and NaN included
    case 1:
      return 0.0;
    default:
      return in.ConsumeFloatingPointInRange<double>(-2000.0, 2000.0);
  }
}

void Calibrate(FuzzedDataProvider& in, double* intrinsic, double* extrinsic) {
  // Mostly a plausible camera, sometimes anything.
  const double plausibleK[9] = {1500, 0, 320, 0, 1500, 240, 0, 0, 1};
  const double plausibleRt[12] = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 800};
  const bool plausible = in.ConsumeBool();
  for (int i = 0; i < 9; ++i) intrinsic[i] = plausible ? plausibleK[i] : Value(in);
  for (int i = 0; i < 12; ++i) extrinsic[i] = plausible ? plausibleRt[i] + (i % 4 == 3 ? Value(in) : 0.0) : Value(in);
}

int32_t SmallOrAny(FuzzedDataProvider& in, int32_t low, int32_t high) {
  return in.ConsumeIntegralInRange<int>(0, 7) == 0 ? in.ConsumeIntegral<int32_t>()
                                                   : in.ConsumeIntegralInRange<int32_t>(low, high);
}

void Discard(std::wstring, void*) {}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzedDataProvider in(data, size);
  ClubTrackerSetting setting;
  InitClubTrackerSetting(setting);
  setting.logCallback = in.ConsumeBool() ? &Discard : nullptr;
  setting.logContext = nullptr;
  if (in.ConsumeBool()) {
    setting.roiX = SmallOrAny(in, -2, 40);
    setting.roiY = SmallOrAny(in, -2, 40);
    setting.roiWidth = SmallOrAny(in, -2, 40);
    setting.roiHeight = SmallOrAny(in, -2, 40);
  }
  setting.timeStampIntervalBeforeImpact = SmallOrAny(in, -1, 3000);
  setting.timeStampIntervalAfterImpact = SmallOrAny(in, -1, 3000);
  setting.axisIndex = SmallOrAny(in, 0, 2);
  setting.axisNormIndex = SmallOrAny(in, 0, 2);
  Calibrate(in, setting.cam1Intrinsic, setting.cam1Extrinsic);
  Calibrate(in, setting.cam2Intrinsic, setting.cam2Extrinsic);
  Camera cam1, cam2;
  MakeCamera(in, cam1);
  MakeCamera(in, cam2);

  std::vector<std::string> problems;
  clubtracker::ValidateSetting(setting, cam1.list, cam2.list, problems);
  clubtracker::ValidateFrames(cam1.list, cam2.list, problems);

  std::unique_ptr<ClubTracker> tracker(AllocateFunc());
  tracker->SetTrackerSetting(setting);
  ClubTrackerResult result;
  tracker->Find(cam1.list, cam2.list, result, 2);
  double speed = 0.0;
  tracker->FindbyTemplate(cam1.list, cam2.list, speed);
  return 0;
}
